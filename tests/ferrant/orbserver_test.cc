// ferrant2 through a real orbserver on loopback: files arrive whole, and a
// server restarted under a running sender and receiver loses nothing.
#include "harness.h"
#include "ring.h"

using namespace ferrant_test;

#ifdef FERRANT_HAVE_ORBSERVER

namespace {

class FerrantOrbserver : public ::testing::Test {
protected:
    TempDir tmp;
    std::string src = tmp / "src";
    std::string in = tmp / "in";
    testsupport::OrbServer server;
    // Reconnection waits at least a second; keep the client's time-out short too.
    std::map<std::string, std::string> env = {{"BNS_TIMEOUT", "2000"}};

    void SetUp() override {
        ASSERT_TRUE(server.up()) << server.log();
        mkdirs(src);
    }

    std::string make(const std::string& dir, const std::string& rel, const std::string& data, mode_t mode = 0644) {
        std::string p = dir + "/" + rel;
        mkdirs(p.substr(0, p.rfind('/')));
        spit(p, data, mode);
        age(p);
        return p;
    }

    size_t received(Child& r) { return count(r.err(), "ferrant2: received "); }
};

TEST_F(FerrantOrbserver, FilesArriveWholeThroughTcp) {
    std::vector<std::string> names = {"empty", "one.txt", "exact.bin", "deep/er/odd.bin"};
    make(src, "empty", "", 0600);
    make(src, "one.txt", "one\n", 0755);
    make(src, "exact.bin", pattern(5000, 1));
    make(src, "deep/er/odd.bin", pattern(123457, 2), 0640);
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"starting_position", "newest"}});
    Child r({ferrant2(), "-p", pf, server.name()}, tmp.path(), tmp.path(), "", env);
    ASSERT_TRUE(eventually([&] { return r.err().find("Starting at pktid=") != std::string::npos; })) << r.err();
    Child s({ferrant2(), "-p", pf, "empty", "one.txt", "exact.bin", "deep", server.name()}, tmp.path(), src, "", env);
    EXPECT_EQ(s.wait(), 0) << s.err();
    ASSERT_TRUE(eventually([&] { return received(r) >= names.size(); })) << r.err();
    for (auto& n : names) {
        EXPECT_EQ(slurp(in + "/" + n), slurp(src + "/" + n)) << n;
        EXPECT_EQ(mode_of(in + "/" + n), mode_of(src + "/" + n)) << n;
    }
    EXPECT_NE(r.err().find("received exact.bin (5000 bytes, 6 packets)"), std::string::npos) << r.err();
}

TEST_F(FerrantOrbserver, ServerRestartedUnderSenderAndReceiver) {
    std::string watchdir = tmp / "spool";
    mkdirs(watchdir);
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"starting_position", "newest"}});
    Child r({ferrant2(), "-p", pf, server.name()}, tmp.path(), tmp.path(), "", env);
    ASSERT_TRUE(eventually([&] { return r.err().find("Starting at pktid=") != std::string::npos; })) << r.err();
    Child w({ferrant2(), "-p", pf, "-w", watchdir, server.name()}, tmp.path(), tmp.path(), "", env);

    auto drop = [&](const std::string& name, const std::string& data) {
        make(src, name, data);
        ASSERT_EQ(rename((src + "/" + name).c_str(), (watchdir + "/" + name).c_str()), 0);
    };
    drop("before", pattern(40000, 1));
    ASSERT_TRUE(eventually([&] { return received(r) >= 1; })) << r.err() << w.err();

    ASSERT_TRUE(server.restart()) << server.log();

    drop("after1", pattern(40000, 2));
    drop("after2", pattern(1, 3));
    ASSERT_TRUE(eventually([&] { return received(r) >= 3; })) << r.err() << "\n---\n" << w.err();
    EXPECT_TRUE(r.running());
    EXPECT_TRUE(w.running());
    EXPECT_EQ(slurp(in + "/before"), pattern(40000, 1));
    EXPECT_EQ(slurp(in + "/after1"), pattern(40000, 2));
    EXPECT_EQ(slurp(in + "/after2"), pattern(1, 3));
    for (auto n : {"before", "after1", "after2"}) {
        EXPECT_EQ(count(r.err(), std::string("ferrant2: received ./") + n + " "), 1u) << r.err();
    }
    EXPECT_EQ(r.err().find("out of sequence"), std::string::npos) << r.err();
}

}  // namespace

#endif

// ferrant2 through a real orbserver on loopback: files arrive whole, and a
// server restarted under a running sender and receiver loses nothing.
#include "harness.h"
#include "support/orbserver.h"

using namespace ferrant_test;

namespace {

TEST(FerrantOrbserver, FilesArriveWholeAndAServerRestartLosesNothing) {
    TempDir tmp;
    testsupport::OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    std::string src = tmp / "src", in = tmp / "in", spool = tmp / "spool";
    mkdirs(spool);
    // Reconnection waits at least a second; keep the client's time-out short too.
    std::map<std::string, std::string> env = {{"BNS_TIMEOUT", "2000"}};
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"starting_position", "newest"}});
    Child r({ferrant2(), "-p", pf, server.name()}, tmp.path, tmp.path, "", env);
    ASSERT_TRUE(started(r)) << r.err();

    make_old(src + "/empty", "", 0600);
    make_old(src + "/one.txt", "one\n", 0755);
    make_old(src + "/exact.bin", pattern(5000, 1));
    make_old(src + "/deep/er/odd.bin", pattern(123457, 2), 0640);
    Child s({ferrant2(), "-p", pf, "empty", "one.txt", "exact.bin", "deep", server.name()},
            tmp.path, src, "", env);
    EXPECT_EQ(s.wait(), 0) << s.err();
    ASSERT_TRUE(received(r, 4)) << r.err();
    for (auto n : {"/empty", "/one.txt", "/exact.bin", "/deep/er/odd.bin"}) expect_same(src + n, in + n);
    EXPECT_NE(r.err().find("received exact.bin (5000 bytes, 6 packets)"), std::string::npos) << r.err();

    // The watching sender deletes what it sent, so the copies are kept here.
    Child w({ferrant2(), "-p", pf, "-w", spool, server.name()}, tmp.path, tmp.path, "", env);
    std::map<std::string, std::string> sent;
    auto drop = [&](const std::string& name, const std::string& data) {
        sent[name] = data;
        ASSERT_EQ(rename(make_old(src + "/" + name, data).c_str(), (spool + "/" + name).c_str()), 0);
    };
    drop("before", pattern(40000, 1));
    ASSERT_TRUE(received(r, 5)) << r.err() << w.err();

    ASSERT_TRUE(server.restart()) << server.log();

    drop("after1", pattern(40000, 2));
    drop("after2", pattern(1, 3));
    ASSERT_TRUE(received(r, 7)) << r.err() << "\n---\n" << w.err();
    EXPECT_TRUE(r.running());
    EXPECT_TRUE(w.running());
    for (auto& [name, data] : sent) {
        EXPECT_EQ(slurp(in + "/" + name), data) << name;
        EXPECT_EQ(mode_of(in + "/" + name), 0644u) << name;
        EXPECT_EQ(count(r.err(), "ferrant2: received ./" + name + " "), 1u) << r.err();
    }
    EXPECT_EQ(r.err().find("out of sequence"), std::string::npos) << r.err();
}

}  // namespace

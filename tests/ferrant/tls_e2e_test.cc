// ferrant2 over TLS through named ports, writing with signed opens and reading
// unsigned, across an orbserver restart: every file arrives whole, once.
#include "harness.h"
#include "support/orbserver.h"
#include "support/pki.h"

using namespace ferrant_test;

namespace {

TEST(FerrantTls, SignedSenderAndReceiverSurviveAServerRestart) {
    Pki pki;
    ASSERT_TRUE(pki.ok) << slurp(pki / "log");
    std::string signers = "signers &Tbl{\nalice " + pki / "alice.pub" + "\n}\nsigned_opens w\n";
    testsupport::OrbServer server({signers, pki.serve("server"), "127.0.0.1", "", true});
    ASSERT_TRUE(server.up()) << server.log();
    TempDir tmp;
    std::string port = std::to_string(server.port());
    spit(tmp.sub("pf") + "/orbserver_names.pf", "send " + port + " alice tls\nrecv " + port + " tls\n");
    std::map<std::string, std::string> env = {{"PFPATH", tmp / "pf:" FERRANT_BUILD_DIR "/data/pf"},
                                              {"ORB_TLS_CA", pki / "ca.pem"},
                                              {"ORB_KEYS", pki.dir.path},
                                              {"BNS_TIMEOUT", "2000"}};
    std::string in = tmp / "in", spool = tmp.sub("spool"), src = tmp.sub("src");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"starting_position", "newest"}});
    Child r({ferrant2(), "-p", pf, "127.0.0.1:recv"}, tmp.path, tmp.path, "", env);
    ASSERT_TRUE(started(r)) << r.err();
    Child w({ferrant2(), "-p", pf, "-w", spool, "127.0.0.1:send"}, tmp.path, tmp.path, "", env);

    std::map<std::string, std::string> sent;
    auto drop = [&](const std::string& name, const std::string& data) {
        sent[name] = data;
        ASSERT_EQ(rename(make_old(src + "/" + name, data).c_str(), (spool + "/" + name).c_str()), 0);
    };
    drop("before", pattern(300000, 1));
    ASSERT_TRUE(received(r, 1)) << r.err() << w.err();
    ASSERT_TRUE(server.restart()) << server.log();
    drop("after1", pattern(200000, 2));
    drop("after2", pattern(1, 3));
    ASSERT_TRUE(received(r, 3)) << r.err() << "\n---\n" << w.err() << server.log();
    EXPECT_TRUE(r.running());
    EXPECT_TRUE(w.running());
    for (auto& [name, data] : sent) {
        EXPECT_EQ(slurp(in + "/" + name), data) << name;
        EXPECT_EQ(count(r.err(), "ferrant2: received ./" + name + " "), 1u) << r.err();
    }
    EXPECT_EQ(server.log().find("refused"), std::string::npos) << server.log();
    EXPECT_EQ(server.sanitizer_report(), "");
}

}  // namespace

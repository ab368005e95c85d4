// TLS and signed opens against real orbservers: every refusal says why, on the client and in the
// server's log, and the server goes on serving; a signed open cannot be replayed.
#include "ferrant/harness.h"
#include "orb/orbsign.h"
#include "orb/orb_support.h"
#include "server/wire_client.h"
#include "support/orbserver.h"
#include "support/pki.h"

using namespace ferrant_test;
using orbtest::SetEnv;
using testsupport::OrbServer;

namespace {

std::string signers(const Pki& pki) {
    return "signers &Tbl{\nalice " + pki / "alice.pub" + "\nmallory " + pki / "mallory.pub" +
           "\n}\nsigned_opens w\nrequest_timeout 2\n";
}

TEST(Tls, RefusalsSayWhyTheServerServesOnAndSignedOpensCannotBeReplayed) {
    Pki pki;
    ASSERT_TRUE(pki.ok) << slurp(pki / "log");
    OrbServer sec({signers(pki), pki.serve("server"), "127.0.0.1", "", true});
    OrbServer plain({signers(pki), {}, "127.0.0.1", "", true});
    OrbServer expired({"", pki.serve("expired"), "127.0.0.1", "", true});
    OrbServer wrong({"", pki.serve("wrongname"), "127.0.0.1", "", true});
    for (auto* s : {&sec, &plain, &expired, &wrong}) ASSERT_TRUE(s->up()) << s->log();
    TempDir tmp;
    auto port = [](const OrbServer& s) { return " " + std::to_string(s.port()); };
    spit(tmp.sub("pf") + "/orbserver_names.pf",
         "sec" + port(sec) + " alice tls\nanon" + port(sec) + " tls\nbob" + port(sec) + " bob tls\nplain" +
             port(sec) + "\ntlsplain" + port(plain) + " tls\nexpired" + port(expired) +
             " tls\nwrongname" + port(wrong) + " tls\n");
    for (auto k : {"alice", "bob"}) spit(tmp.sub("keys") + "/" + k + ".key", slurp(pki / k + ".key"));
    spit(tmp.sub("forged") + "/alice.key", slurp(pki / "mallory.key"));
    std::string pf = write_pf(tmp / "t.pf");
    make_old(tmp / "src/f", "data\n");

    // A handshake cut short stays open throughout; it must not hold up anyone.
    testsupport::WireClient cut;
    ASSERT_TRUE(cut.connect_tcp(sec.name()));
    ASSERT_TRUE(cut.raw(std::string("\x16\x03\x01\x02\x00\x01\x00", 7)));

    // perm 'r': orbstat reads the status, 'w': ferrant2 sends a file.
    struct Case { const char* name; char perm; std::string var, value, client, server; } cases[] = {
        {"sec", 'w', "", "", "", ""},
        {"anon", 'r', "", "", "", ""},
        {"anon", 'w', "", "", "opens for writing must be signed on this server", "(unsigned): opens for writing"},
        {"sec", 'w', "ORB_KEYS", tmp / "forged", "the signature of signer 'alice' does not verify",
         "(signer 'alice'): the signature"},
        {"sec", 'w', "ORB_KEYS", tmp / "none", "failed to create signature for orb open request", ""},
        {"bob", 'w', "", "", "signer 'bob' is not trusted by this server", "(signer 'bob'): signer"},
        {"plain", 'r', "", "", "this port speaks TLS only", "a plain client on a TLS port"},
        {"tlsplain", 'r', "", "", "(is the port plain, not TLS?)", ""},
        {"sec", 'r', "ORB_TLS_CA", pki / "other.pem", "unable to get local issuer certificate", "unknown ca"},
        {"sec", 'r', "ORB_TLS_CA", tmp / "none", "can't read TLS CA file", ""},
        {"expired", 'r', "", "", "certificate has expired", ""},
        {"wrongname", 'r', "", "", "IP address mismatch", ""},
        {"sec", 'w', "", "", "", ""},
    };
    for (const Case& c : cases) {
        std::map<std::string, std::string> env = {{"PFPATH", tmp / "pf:" FERRANT_BUILD_DIR "/data/pf"},
                                                  {"ORB_TLS_CA", pki / "ca.pem"},
                                                  {"ORB_KEYS", tmp / "keys"}};
        if (!c.var.empty()) env[c.var] = c.value;
        std::string name = std::string("127.0.0.1:") + c.name;
        std::vector<std::string> argv = {FERRANT_BUILD_DIR "/bin/orbstat", name};
        if (c.perm == 'w') argv = {ferrant2(), "-p", pf, "f", name};
        Child p(argv, tmp.path, tmp / "src", "", env);
        int status = p.wait();
        SCOPED_TRACE(name + " " + c.perm + " " + c.var + "\n" + p.err());
        EXPECT_EQ(status == 0, c.client.empty());
        EXPECT_NE(p.err().find(c.client), std::string::npos);
        if (!c.server.empty()) {
            EXPECT_TRUE(eventually([&] { return count(sec.log(), c.server) == 1; })) << sec.log();
        }
    }
    EXPECT_TRUE(eventually([&] { return sec.log().find("TLS handshake not completed in time") != std::string::npos; }))
        << sec.log();
    EXPECT_EQ(sec.sanitizer_report(), "");

    // A signature is good for the one challenge it was made for, and a challenge for one open.
    SetEnv keys("ORB_KEYS", pki.dir.path);
    using Signed = std::pair<std::string, std::string>;  // challenge, signature
    auto hello = [](testsupport::WireClient& w) {
        OrbOpenString* h = w.req()->hello = w.req()->hello ? w.req()->hello : newOrbOpenString();
        w.req()->sZhello = 1, h->perm = 'w', strcpy(h->who, "tester");
        return h;
    };
    auto ask = [&](testsupport::WireClient& w) {
        EXPECT_EQ(w.exchange(ORBCHALLENGE), 0);
        OrbOpenString* h = hello(w);
        char sig[ORB_SIGNATURE_SIZE], none[ORB_CHALLENGE_SIZE] = {};
        unsigned char block[ORB_SIGNED_BLOCK];
        orbsign_block(h, none, block);
        std::string why;
        EXPECT_EQ(orbsign("alice", block, ORB_SIGNED_BLOCK, w.resp()->challenge, sig, &why), 0) << why;
        return Signed{std::string(w.resp()->challenge, ORB_CHALLENGE_SIZE), std::string(sig, sizeof sig)};
    };
    auto open = [&](testsupport::WireClient& w, const Signed& s) {
        hello(w);
        memcpy(w.req()->challenge, s.first.data(), ORB_CHALLENGE_SIZE);
        memcpy(w.req()->signature, s.second.data(), ORB_SIGNATURE_SIZE);
        strcpy(w.req()->signer, "alice");
        return w.exchange(ORBSIGNEDOPEN) == 0 ? std::string() : std::string(w.resp()->errmsg);
    };
    testsupport::WireClient first;
    ASSERT_TRUE(first.connect_tcp(plain.name()));
    Signed good = ask(first);
    EXPECT_EQ(open(first, good), "");
    EXPECT_NE(open(first, good).find("no challenge outstanding"), std::string::npos);

    struct Replay { bool challenge_first, fresh_challenge, fresh_signature; const char* why; } replays[] = {
        {true, false, false, "the challenge does not match"},
        {true, true, false, "does not verify"},
        {false, false, false, "no challenge outstanding"},
    };
    for (const Replay& c : replays) {
        testsupport::WireClient w;
        ASSERT_TRUE(w.connect_tcp(plain.name()));
        Signed fresh = c.challenge_first ? ask(w) : good;
        Signed sent{c.fresh_challenge ? fresh.first : good.first, c.fresh_signature ? fresh.second : good.second};
        EXPECT_NE(open(w, sent).find(c.why), std::string::npos) << c.why;
    }
}

}  // namespace

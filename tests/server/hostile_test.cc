// Clients that misbehave, and the server goes on serving the others. Over the protocol: garbage,
// truncated and over-long requests, stalls, connection storms, addresses that may not write, each
// refused or dropped with a log line. On the status port: wrong paths and methods, malformed or
// too large requests, stalls, addresses it must refuse, and source names that need escaping in
// JSON, Prometheus labels and HTML. Over TLS and signed opens: every refusal says why, on the
// client and in the server's log, and a signed open cannot be replayed.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "ferrant/harness.h"
#include "orb/orbsign.h"
#include "support/http.h"
#include "support/pki.h"
#include "wire_client.h"

using orbtest::SetEnv;
using testsupport::http_get;
using testsupport::OrbServer;
using testsupport::Pkt;
using testsupport::WireClient;
using testsupport::words;

namespace {

std::string be32(int32_t v) {
    uint32_t n = htonl(uint32_t(v));
    return std::string(reinterpret_cast<const char*>(&n), 4);
}

// True once the server has closed c's connection (reads end of file).
bool closed_by_server(WireClient& c) {
    c.set_timeout(20000);
    for (char buf[4096];;) {
        ssize_t n = recv(c.fd(), buf, sizeof buf, 0);
        if (n <= 0) return n == 0 || errno == ECONNRESET;
    }
}

int open_fds(pid_t pid) {
    std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
    return int(std::distance(fds, std::filesystem::directory_iterator()));
}

class Hostile : public testsupport::ServerTest {
protected:
    // Starts a server with the parameter file pf and the well-behaved writer open.
    void start_with_good(const std::string& pf) {
        ASSERT_TRUE(start(pf) && join(good, 'w', "good")) << server->log();
    }
    // The well-behaved client is still served, and the server still running.
    void still_served() {
        ASSERT_TRUE(server->running()) << server->log();
        int id = good.putx("G/x", 1, "still here");
        EXPECT_GE(id, 0);
        EXPECT_EQ(good.get_pkt(id).data, "still here");
    }
    WireClient good;
};

TEST_F(Hostile, MalformedTruncatedOverLongAndStalledRequests) {
    ASSERT_NO_FATAL_FAILURE(start_with_good("request_timeout 1\n"));
    std::string junk, put = "orbm" + be32(ORBPUT) + be32(-1);
    for (int i = 0; i < 5000; i++) junk += char("xyz\001\377"[i % 5]);
    // then: 'c' the client closes at once, 'd' the server drops it, 'p' a ping is still answered.
    struct { const char* what; bool open; std::string bytes; char then; const char* logged; } rows[] = {
        {"a put cut short", true, put + std::string("\x01\x00", 2), 'c', "connection lost mid-request"},
        {"a marker alone", false, "orbm", 'c', ""},
        {"half a marker", false, "or", 'c', ""},
        {"nothing at all", false, "", 'c', ""},
        {"garbage", false, junk, 'd', "sends garbage"},
        {"a long put", true, "orbm" + be32(ORBPUTL) + be32(-1) + be32(100000000), 'd',
         "packet size 100000000 beyond the limit"},
        {"a negative put", true, "orbm" + be32(ORBPUTXL) + be32(-1) + be32(-5), 'd', ""},
        {"a long select", true, "orbm" + be32(ORBSELECT) + be32(16385), 'd',
         "pattern length 16385 beyond the limit"},
        {"a negative reject", true, "orbm" + be32(ORBREJECT) + be32(-1), 'd', ""},
        {"a source-name length beyond what is read (the rest is skipped)", true,
         put + std::string("\x00\x01\x00\xc8", 4) + std::string(8, '\0') + std::string(200, 's') + "p", 'p',
         ""},
        {"a stall mid-request", true, put, 'd', "stalled in the middle of a request"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        {
            WireClient c;
            ASSERT_TRUE(row.open ? join(c, 'w') : c.connect_tcp(server->name()));
            c.raw(row.bytes);
            if (row.then != 'c') still_served();  // others are served meanwhile
            EXPECT_TRUE(row.then != 'd' || closed_by_server(c));
            EXPECT_TRUE(row.then != 'p' || c.exchange(ORBPING) == 0);
        }
        still_served();
        expect_logged({row.logged});
    }
    ASSERT_EQ(good.exchange(ORBSOURCES), 0);
    EXPECT_EQ(good.resp()->nsource, 1);  // only the good client's G/x: nothing of the cut-short put
    // Some garbage is skipped: before an open, and more than one resynchronisation's worth after.
    WireClient c;
    ASSERT_TRUE(c.connect_tcp(server->name()));
    c.raw("junk!");
    ASSERT_EQ(c.open('r'), 0);
    c.raw(std::string(40, '\0'));
    EXPECT_EQ(c.exchange(ORBPING), 0);
    EXPECT_EQ(c.resp()->version, 7);
    expect_logged({"skipped"});
    // The largest pattern allowed is read whole; a name with no room for its NUL is refused.
    EXPECT_EQ(good.select(std::string(16383, 'a')), 0);
    EXPECT_LT(good.putx(std::string(64, 'n'), 1, "x"), 0);
    expect_logged({"refused"});
}

TEST_F(Hostile, CostlyPatternsAPutArrivingInPiecesAndAThousandConnections) {
    ASSERT_NO_FATAL_FAILURE(start_with_good(""));
    {
        WireClient c, w;
        ASSERT_TRUE(join(c, 'r'));
        ASSERT_TRUE(good.put("A/b", 1, "x"));
        for (const char* bad : {"(a)\\1", "(.*)*\\1x", "((a|b){1,100}){1,100}", "(x{0,70}){70}"})
            EXPECT_TRUE(c.select(bad) == WireClient::kFailed && c.reject(bad) == WireClient::kFailed) << bad;
        // Escaped braces, small counts and unbounded ones are fine.
        EXPECT_EQ(c.select("A/b{1,3}"), 1);
        EXPECT_EQ(c.select("A/(b|c){1,}|A/b\\{1"), 1);
        // A large put whose bytes trickle in is taken from the input buffer only once it is all
        // there; the same connection then goes on being served.
        ASSERT_TRUE(join(w, 'w'));
        std::string data(300000, '\0'), src = "P/pieces";
        for (size_t i = 0; i < data.size(); i++) data[i] = char(i * 31 + i / 977);
        double when = 42.5;
        uint64_t bits;
        std::memcpy(&bits, &when, 8);
        std::string msg = "orbm" + be32(ORBPUTL) + be32(-1) + be32(int32_t(data.size())) +
                          std::string{0, char(src.size())} + be32(int32_t(bits >> 32)) + be32(int32_t(bits)) +
                          src + data;
        for (size_t at = 0; at < msg.size(); at += 70001) {
            w.raw(msg.substr(at, 70001));
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        ASSERT_EQ(w.exchange(ORBPING), 0);
        Pkt p = w.get_pkt(ORBNEWEST);
        EXPECT_EQ(words(p.srcname, p.time), "P/pieces 42.5");
        EXPECT_TRUE(p.data == data);
    }
    // A thousand connections opened and dropped give back every descriptor and client slot.
    int before = open_fds(server->pid()), after = -1;
    for (int i = 0; i < 1000; i++) {
        WireClient c;
        ASSERT_TRUE(c.connect_tcp(server->name())) << i;
        if (i % 3 == 1) c.raw("orbm");
        EXPECT_TRUE(i % 3 != 2 || c.open('r') == 0) << i;
    }
    still_served();
    for (int i = 0; i < 1000 && (after = open_fds(server->pid())) > before; i++) usleep(2000);
    EXPECT_LE(after, before);
    ASSERT_EQ(good.exchange(ORBCLIENTS), 0);
    EXPECT_EQ(good.resp()->nclient, 1);
}

// 127.0.0.2 may read but not write; 127.0.0.3 may do neither; no client is an administrator.
const char* kAccess = "write_allow &Tbl{\n127.0.0.1/32\n}\nread_allow &Tbl{\n127.0.0.1/32\n127.0.0.2/32\n}\n"
                      "max_clients 20\nadmin_allow 10.0.0.0/8\n";

TEST_F(Hostile, AddressesNotAllowedAreRefused) {
    ASSERT_NO_FATAL_FAILURE(start_with_good(kAccess));
    WireClient w, r, stranger;
    ASSERT_TRUE(w.connect_tcp(server->name(), "127.0.0.2"));
    EXPECT_NE(w.open('w'), 0);
    EXPECT_NE(std::string(w.resp()->errmsg).find("may not write"), std::string::npos) << w.resp()->errmsg;
    EXPECT_TRUE(closed_by_server(w));
    ASSERT_TRUE(join(r, 'r', "server_test", "127.0.0.2"));
    EXPECT_LT(r.putx("R/x", 1, "sneaky"), 0);
    EXPECT_TRUE(r.put("R/x", 2, "sneaky too"));
    EXPECT_EQ(r.exchange(ORBPING), 0);
    ASSERT_EQ(r.exchange(ORBSOURCES), 0);
    EXPECT_EQ(r.resp()->nsource, 0);  // nothing got in
    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    EXPECT_GE(r.resp()->orbstat.rejected, 3);
    expect_logged({"rejected open from 127.0.0.2", "refused put from 127.0.0.2"});
    ASSERT_TRUE(stranger.connect_tcp(server->name(), "127.0.0.3"));
    EXPECT_NE(stranger.open('r'), 0);
    EXPECT_NE(std::string(stranger.resp()->errmsg).find("may not read"), std::string::npos);
    // Admin requests need an admin address, which a writer's is not.
    EXPECT_NE(good.exchange(ORBHALT), 0);
    good.req()->thread = 0;
    EXPECT_NE(good.exchange(ORBKILL), 0);
    expect_logged({"not allowed"});
    still_served();
}

TEST_F(Hostile, ClientsBeyondTheLimitAreTurnedAway) {
    ASSERT_NO_FATAL_FAILURE(start_with_good(kAccess));
    std::vector<std::unique_ptr<WireClient>> many;
    for (int i = 0; i < 19; i++) {  // with the good client: 20
        many.push_back(std::make_unique<WireClient>());
        ASSERT_TRUE(join(*many.back(), 'r'));
    }
    WireClient extra;
    ASSERT_TRUE(extra.connect_tcp(server->name()));
    EXPECT_TRUE(closed_by_server(extra));
    expect_logged({"too many clients"});
    many.pop_back();
    bool served = false;  // once a place came free
    for (int i = 0; i < 200 && !served; i++) {
        WireClient again;
        if (!(served = join(again, 'r'))) usleep(5000);
    }
    EXPECT_TRUE(served);
    still_served();
}

TEST_F(Hostile, BadParameterFilesAndOptionsAreReported) {
    struct { std::string pf; std::vector<std::string> args; const char* says; } cases[] = {
        {"write_allow 300.1.1.1/8\n", {}, "bad address '300.1.1.1/8'"},
        {"ring_size lots\n", {}, "bad value 'lots' for ring_size"},
        {"", {"-s", "12Q"}, "bad ring size '12Q'"},
        {"", {"-m", "1"}, "bad packet-id modulus '1'"},
    };
    for (const auto& k : cases) {
        EXPECT_FALSE(start(k.pf, k.args));
        expect_logged({k.says});
    }
}

TEST_F(Hostile, IdleClientsAreDroppedWhenAsked) {
    ASSERT_TRUE(start("idle_timeout 1\n"));
    WireClient idle, streaming, w;
    ASSERT_TRUE(join(idle, 'r') && join(streaming, 'r')) << server->log();
    ASSERT_TRUE(streaming.reap(1));
    EXPECT_TRUE(closed_by_server(idle));
    expect_logged({"idle too long"});
    // The streaming reader is not idle: it gets the packet when it comes.
    ASSERT_TRUE(join(w, 'w'));
    ASSERT_EQ(w.putx("I/x", 1, "for the reader"), 0);
    EXPECT_EQ(streaming.next_pkt().data, "for the reader");
}

TEST(Http, RefusesEscapesAndOutlastsStalledClients) {
    OrbServer server(testsupport::with_status_port());
    OrbServer closed(testsupport::with_status_port("read_allow &Tbl{\n10.0.0.0/8\n}\n"));
    int port = testsupport::http_port(server.log()), closed_port = testsupport::http_port(closed.log());
    ASSERT_TRUE(port > 0 && closed_port > 0) << server.log() << closed.log();
    EXPECT_EQ(http_get(closed_port, "/status.json").code, 0);  // an address that may not read
    struct Case {
        std::string request;
        int code;  // 0: the connection closes without an answer
    } cases[] = {
        {"GET /nope HTTP/1.0\r\n\r\n", 404},
        {"GET /metrics/x HTTP/1.0\r\n\r\n", 404},
        {"POST /status.json HTTP/1.0\r\nContent-Length: 2\r\n\r\nhi", 405},
        {"GET / HTTP/1.1\r\n\r\n", 400},  // no Host
        {"GET / HTTP/1.0\r\nno colon here\r\n\r\n", 400},
        {"GET /" + std::string(20000, 'a') + " HTTP/1.0\r\n\r\n", 414},
        {"GET / HTTP/1.0\r\nX-Big: " + std::string(20000, 'a') + "\r\n\r\n", 431},
        {"GARBAGE\r\n\r\n", 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(testsupport::http_request(port, c.request).code, c.code) << c.request.substr(0, 40);
    // Source names that need escaping, in every output.
    const std::vector<std::string> names = {"q\"uote", "back\\slash", "<b>x</b>", "bad\xff\xfe", "new\nline"};
    int orb = orbopen(server.name().c_str(), "w");
    for (const auto& n : names) ASSERT_EQ(orbput(orb, n.c_str(), 1e9, "data", 4), 0) << n;
    orbclose(orb);
    nlohmann::json doc;
    ASSERT_TRUE(ferrant_test::eventually([&] {
        doc = nlohmann::json::parse(http_get(port, "/status.json").body, nullptr, false);
        return !doc.is_discarded() && doc["sources"].size() == names.size();
    }));
    std::string all = doc["sources"].dump();  // the names, escaped again for JSON
    for (const char* n :
         {"q\\\"uote", "back\\\\slash", "<b>x</b>", "bad\xef\xbf\xbd\xef\xbf\xbd\"", "new\\nline"})
        EXPECT_NE(all.find(n), std::string::npos) << n << all;
    std::string metrics = http_get(port, "/metrics").body, html = http_get(port, "/").body;
    for (const char* label : {"srcname=\"q\\\"uote\"", "srcname=\"back\\\\slash\"", "srcname=\"new\\nline\"",
                              "srcname=\"<b>x</b>\""})
        EXPECT_NE(metrics.find(label), std::string::npos) << label;
    EXPECT_EQ(ferrant_test::count(metrics, "\norbserver_source_packets{"), names.size()) << metrics;
    for (const char* s : {"&lt;b&gt;x&lt;/b&gt;", "q&quot;uote"}) EXPECT_TRUE(orbtest::has(html, s));
    EXPECT_EQ(html.find("<b>x"), std::string::npos);
    for (const std::string& body : {metrics, html}) EXPECT_EQ(body.find('\xff'), std::string::npos);
    // Stalled HTTP clients hold neither the page nor packet service, and are dropped in the end.
    std::vector<int> stalled;
    for (int i = 0; i < 20; i++) {
        stalled.push_back(testsupport::connect_loopback(port));
        if (i % 2) send(stalled.back(), "GET / HTTP/1.0\r\nX-Slow: ", 24, MSG_NOSIGNAL);
    }
    int w = orbopen(server.name().c_str(), "w");
    ASSERT_GE(w, 0);
    EXPECT_GE(orbputx(w, "net_sta/xfer", 2e9, "hello", 5), 0);  // answered while they stall
    orbclose(w);
    EXPECT_EQ(http_get(port, "/metrics").code, 200);
    char c;
    timeval bound{120, 0};
    setsockopt(stalled[1], SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    EXPECT_EQ(recv(stalled[1], &c, 1, 0), 0);  // closed by the server's time-out
    for (int fd : stalled) close(fd);
    EXPECT_EQ(http_get(port, "/status.json").code, 200);
    EXPECT_TRUE(server.running()) << server.log();
}

std::string signers(const Pki& pki) {
    return "signers &Tbl{\nalice " + pki / "alice.pub" + "\nmallory " + pki / "mallory.pub" +
           "\n}\nsigned_opens w\nrequest_timeout 2\n";
}

TEST(Tls, RefusalsSayWhyTheServerServesOnAndSignedOpensCannotBeReplayed) {
    using namespace ferrant_test;
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
        {"anon", 'w', "", "", "opens for writing must be signed on this server",
         "(unsigned): opens for writing"},
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
    EXPECT_TRUE(eventually([&] { return count(sec.log(), "TLS handshake not completed in time") > 0; }))
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
        Signed sent{c.fresh_challenge ? fresh.first : good.first,
                    c.fresh_signature ? fresh.second : good.second};
        EXPECT_NE(open(w, sent).find(c.why), std::string::npos) << c.why;
    }
}

}  // namespace

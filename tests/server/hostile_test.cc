// Clients that misbehave: garbage, truncated and over-long requests, stalls,
// connection storms, and addresses that may not write. Each is refused or
// dropped with a log line, and the other clients go on being served.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <dirent.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/orbserver.h"
#include "wire_client.h"

using testsupport::OrbServer;
using testsupport::Pkt;
using testsupport::WireClient;

namespace {

std::string be32(int32_t v) {
    uint32_t n = htonl(uint32_t(v));
    return std::string(reinterpret_cast<const char*>(&n), 4);
}

// True once the server has closed c's connection (reads end of file).
bool closed_by_server(WireClient& c, int seconds = 20) {
    c.set_timeout(seconds * 1000);
    for (;;) {
        char buf[4096];
        ssize_t n = recv(c.fd(), buf, sizeof buf, 0);
        if (n == 0) return true;
        if (n < 0) return errno == ECONNRESET;
    }
}

int open_fds(pid_t pid) {
    int n = 0;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    if (DIR* d = opendir(dir.c_str())) {
        while (readdir(d)) n++;
        closedir(d);
    }
    return n;
}

class Hostile : public ::testing::Test {
protected:
    void SetUp() override {
        OrbServer::Options o;
        o.pf = pf_text();
        server = std::make_unique<OrbServer>(o);
        ASSERT_TRUE(server->up()) << server->log();
        ASSERT_TRUE(good.connect_tcp(server->name()));
        ASSERT_EQ(good.open('w', "good"), 0);
    }
    void TearDown() override {
        good.disconnect();
        server->stop();
        EXPECT_EQ(server->sanitizer_report(), "");
    }
    virtual std::string pf_text() { return "request_timeout 1\n"; }
    // Connects c (from local_addr if given) and opens it; false if either fails.
    bool join(WireClient& c, char perm, const char* local_addr = nullptr) {
        return c.connect_tcp(server->name(), local_addr) && c.open(perm) == 0;
    }
    // The well-behaved client is still served, and the server still running.
    void still_served() {
        ASSERT_TRUE(server->running()) << server->log();
        int id = good.putx("G/x", 1, "still here");
        EXPECT_GE(id, 0);
        Pkt p;
        ASSERT_EQ(good.get(id, &p), 0);
        EXPECT_EQ(p.data, "still here");
    }
    std::unique_ptr<OrbServer> server;
    WireClient good;
};

TEST_F(Hostile, SomeGarbageIsSkippedAndMoreIsDroppedWithALogLine) {
    WireClient c;
    ASSERT_TRUE(c.connect_tcp(server->name()));
    c.raw("junk!");
    ASSERT_EQ(c.open('r'), 0);  // after skipping the junk
    c.raw(std::string(40, '\0'));  // more than one resynchronisation's worth
    EXPECT_EQ(c.exchange(ORBPING), 0);
    EXPECT_EQ(c.resp()->version, 7);
    EXPECT_NE(server->log().find("skipped"), std::string::npos);

    WireClient bad;
    ASSERT_TRUE(bad.connect_tcp(server->name()));
    std::string junk;
    for (int i = 0; i < 5000; i++) junk += char("xyz\001\377"[i % 5]);
    bad.raw(junk);
    EXPECT_TRUE(closed_by_server(bad));
    EXPECT_NE(server->log().find("sends garbage"), std::string::npos) << server->log();
    still_served();
}

TEST_F(Hostile, TruncatedRequestsAndEarlyCloses) {
    // A put cut short, then the connection closed.
    {
        WireClient c;
        ASSERT_TRUE(join(c, 'w'));
        c.raw("orbm" + be32(ORBPUT) + be32(-1) + std::string("\x01\x00", 2));
    }
    // A marker alone; half a marker; nothing at all.
    for (std::string s : {std::string("orbm"), std::string("or"), std::string()}) {
        WireClient c;
        ASSERT_TRUE(c.connect_tcp(server->name()));
        c.raw(s);
    }
    still_served();
    EXPECT_NE(server->log().find("connection lost mid-request"), std::string::npos) << server->log();
    // Nothing of the cut-short put reached the ring.
    ASSERT_EQ(good.exchange(ORBSOURCES), 0);
    EXPECT_EQ(good.resp()->nsource, 1);  // only the good client's G/x
}

// A large put whose bytes trickle in is taken from the input buffer only
// once it is all there; the same connection then goes on being served.
TEST_F(Hostile, APutArrivingInPiecesIsStoredWhole) {
    WireClient w;
    ASSERT_TRUE(join(w, 'w'));
    std::string data(300000, '\0');
    for (size_t i = 0; i < data.size(); i++) data[i] = char(i * 31 + i / 977);
    std::string src = "P/pieces";
    double when = 42.5;
    uint64_t bits;
    std::memcpy(&bits, &when, 8);
    std::string time_be = be32(int32_t(bits >> 32)) + be32(int32_t(bits & 0xffffffffu));
    std::string msg = "orbm" + be32(ORBPUTL) + be32(-1) + be32(int32_t(data.size())) +
                      std::string{0, char(src.size())} + time_be + src + data;
    for (size_t at = 0; at < msg.size(); at += 70001) {
        w.raw(msg.substr(at, 70001));
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    ASSERT_EQ(w.exchange(ORBPING), 0);
    Pkt p;
    ASSERT_EQ(w.get(ORBNEWEST, &p), 0);  // the same connection goes on
    EXPECT_EQ(p.srcname, src);
    EXPECT_EQ(p.time, when);
    EXPECT_TRUE(p.data == data);
    still_served();
}

TEST_F(Hostile, LengthsBeyondEveryLimit) {
    struct Case {
        const char* what;
        std::string bytes;
    };
    std::vector<Case> cases = {
        {"long put", "orbm" + be32(ORBPUTL) + be32(-1) + be32(100000000)},
        {"negative put", "orbm" + be32(ORBPUTXL) + be32(-1) + be32(-5)},
        {"long select", "orbm" + be32(ORBSELECT) + be32(16385)},
        {"negative reject", "orbm" + be32(ORBREJECT) + be32(-1)},
    };
    for (const Case& k : cases) {
        WireClient c;
        ASSERT_TRUE(join(c, 'w'));
        c.raw(k.bytes);
        EXPECT_TRUE(closed_by_server(c)) << k.what;
    }
    std::string log = server->log();
    EXPECT_NE(log.find("packet size 100000000 beyond the limit"), std::string::npos) << log;
    EXPECT_NE(log.find("pattern length 16385 beyond the limit"), std::string::npos) << log;
    still_served();
    // The largest pattern allowed is read whole (and is a fine pattern).
    EXPECT_EQ(good.select(std::string(16383, 'a')), 0);
}

TEST_F(Hostile, PatternsTooCostlyToRunAreRefused) {
    WireClient c;
    ASSERT_TRUE(join(c, 'r'));
    ASSERT_TRUE(good.put("A/b", 1, "x"));
    for (const char* bad : {"(a)\\1", "(.*)*\\1x", "((a|b){1,100}){1,100}", "(x{0,70}){70}"}) {
        EXPECT_EQ(c.select(bad), WireClient::kFailed) << bad;
        EXPECT_EQ(c.reject(bad), WireClient::kFailed) << bad;
    }
    // Escaped braces, small counts and unbounded ones are fine.
    EXPECT_EQ(c.select("A/b{1,3}"), 1);
    EXPECT_EQ(c.select("A/(b|c){1,}|A/b\\{1"), 1);
    still_served();
}

TEST_F(Hostile, NamesTooLongForTheRingAreRefused) {
    std::string name(64, 'n');  // no room for the terminating NUL
    EXPECT_LT(good.putx(name, 1, "x"), 0);
    EXPECT_NE(server->log().find("refused"), std::string::npos);
    // A source-name length beyond what is read leaves bytes that are skipped.
    WireClient c;
    ASSERT_TRUE(join(c, 'w'));
    std::string req = "orbm" + be32(ORBPUT) + be32(-1) + std::string("\x00\x01", 2) +
                      std::string("\x00\xc8", 2) /* 200 */ + std::string(8, '\0') + std::string(200, 's') + "p";
    c.raw(req);
    EXPECT_EQ(c.exchange(ORBPING), 0);
    still_served();
}

TEST_F(Hostile, StallingMidRequestIsDropped) {
    WireClient c;
    ASSERT_TRUE(join(c, 'w'));
    c.raw("orbm" + be32(ORBPUT) + be32(-1));  // and then nothing
    still_served();                            // others are served meanwhile
    EXPECT_TRUE(closed_by_server(c));
    EXPECT_NE(server->log().find("stalled in the middle of a request"), std::string::npos);
    still_served();
}

TEST_F(Hostile, ThousandConnectionsOpenedAndDropped) {
    int before = open_fds(server->pid());
    for (int i = 0; i < 1000; i++) {
        WireClient c;
        ASSERT_TRUE(c.connect_tcp(server->name())) << i;
        if (i % 3 == 1) c.raw("orbm");
        if (i % 3 == 2) {
            ASSERT_EQ(c.open('r'), 0);
        }
    }
    still_served();
    // Every dropped connection's descriptor and client slot was given back.
    int after = -1;
    for (int i = 0; i < 1000 && (after = open_fds(server->pid())) > before; i++) usleep(2000);
    EXPECT_LE(after, before);
    ASSERT_EQ(good.exchange(ORBCLIENTS), 0);
    EXPECT_EQ(good.resp()->nclient, 1);
}

class Access : public Hostile {
protected:
    std::string pf_text() override {
        return "write_allow &Tbl{\n127.0.0.1/32\n}\nread_allow &Tbl{\n127.0.0.1/32\n127.0.0.2/32\n}\n"
               "max_clients 20\n";
    }
};

TEST_F(Access, AddressesNotAllowedAreRefused) {
    // 127.0.0.2 may read but not write; 127.0.0.3 may do neither.
    WireClient w;
    ASSERT_TRUE(w.connect_tcp(server->name(), "127.0.0.2"));
    EXPECT_NE(w.open('w'), 0);
    EXPECT_NE(std::string(w.resp()->errmsg).find("may not write"), std::string::npos) << w.resp()->errmsg;
    EXPECT_TRUE(closed_by_server(w));

    WireClient r;
    ASSERT_TRUE(join(r, 'r', "127.0.0.2"));
    EXPECT_LT(r.putx("R/x", 1, "sneaky"), 0);
    EXPECT_TRUE(r.put("R/x", 2, "sneaky too"));
    EXPECT_EQ(r.exchange(ORBPING), 0);
    ASSERT_EQ(r.exchange(ORBSOURCES), 0);
    EXPECT_EQ(r.resp()->nsource, 0);  // nothing got in
    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    EXPECT_GE(r.resp()->orbstat.rejected, 3);
    std::string log = server->log();
    EXPECT_NE(log.find("rejected open from 127.0.0.2"), std::string::npos) << log;
    EXPECT_NE(log.find("refused put from 127.0.0.2"), std::string::npos) << log;

    WireClient stranger;
    ASSERT_TRUE(stranger.connect_tcp(server->name(), "127.0.0.3"));
    EXPECT_NE(stranger.open('r'), 0);
    EXPECT_NE(std::string(stranger.resp()->errmsg).find("may not read"), std::string::npos);
    still_served();
}

TEST_F(Access, ClientsBeyondTheLimitAreTurnedAway) {
    std::vector<std::unique_ptr<WireClient>> many;
    for (int i = 0; i < 19; i++) {  // with the good client: 20
        many.push_back(std::make_unique<WireClient>());
        ASSERT_TRUE(join(*many.back(), 'r'));
    }
    WireClient extra;
    ASSERT_TRUE(extra.connect_tcp(server->name()));
    EXPECT_TRUE(closed_by_server(extra));
    EXPECT_NE(server->log().find("too many clients"), std::string::npos);
    many.pop_back();
    // A place came free.
    bool served = false;
    for (int i = 0; i < 200 && !served; i++) {
        WireClient again;
        served = join(again, 'r');
        if (!served) usleep(5000);
    }
    EXPECT_TRUE(served);
    still_served();
}

TEST(HostileSettings, BadParameterFilesAndOptionsAreReported) {
    struct Case {
        std::string pf;
        std::vector<std::string> args;
        std::string says;
    };
    std::vector<Case> cases = {
        {"write_allow 300.1.1.1/8\n", {}, "bad address '300.1.1.1/8'"},
        {"ring_size lots\n", {}, "bad value 'lots' for ring_size"},
        {"", {"-s", "12Q"}, "bad ring size '12Q'"},
        {"", {"-m", "1"}, "bad packet-id modulus '1'"},
    };
    for (const Case& k : cases) {
        OrbServer::Options o;
        o.pf = k.pf;
        o.args = k.args;
        OrbServer server(o);
        EXPECT_FALSE(server.up());
        EXPECT_NE(server.log().find(k.says), std::string::npos) << server.log();
    }
}

TEST(HostileSettings, IdleClientsAreDroppedWhenAsked) {
    OrbServer::Options o;
    o.pf = "idle_timeout 1\n";
    OrbServer server(o);
    ASSERT_TRUE(server.up()) << server.log();
    WireClient idle, streaming;
    ASSERT_TRUE(idle.connect_tcp(server.name()));
    ASSERT_EQ(idle.open('r'), 0);
    ASSERT_TRUE(streaming.connect_tcp(server.name()));
    ASSERT_EQ(streaming.open('r'), 0);
    ASSERT_TRUE(streaming.reap(1));
    EXPECT_TRUE(closed_by_server(idle));
    EXPECT_NE(server.log().find("idle too long"), std::string::npos);
    // The streaming reader is not idle: it gets the packet when it comes.
    WireClient w;
    ASSERT_TRUE(w.connect_tcp(server.name()));
    ASSERT_EQ(w.open('w'), 0);
    ASSERT_EQ(w.putx("I/x", 1, "for the reader"), 0);
    Pkt p;
    ASSERT_EQ(streaming.next(&p), 0);
    EXPECT_EQ(p.data, "for the reader");
}

}  // namespace

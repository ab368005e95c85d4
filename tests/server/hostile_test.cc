// Clients that misbehave: garbage, truncated and over-long requests, stalls, connection storms,
// and addresses that may not write. Each is refused or dropped with a log line, and the other
// clients go on being served.
#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

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
bool closed_by_server(WireClient& c) {
    c.set_timeout(20000);
    for (char buf[4096];;) {
        ssize_t n = recv(c.fd(), buf, sizeof buf, 0);
        if (n <= 0) return n == 0 || errno == ECONNRESET;
    }
}

int open_fds(pid_t pid) {
    int n = 0;
    if (DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
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
    void expect_logged(std::initializer_list<const char*> lines) {
        std::string log = server->log();
        for (const char* line : lines) EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
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

TEST_F(Hostile, TruncatedGarbledAndOverLongRequests) {
    {  // a put cut short, then the connection closed; a marker alone; half a marker; nothing at all
        WireClient c;
        ASSERT_TRUE(join(c, 'w'));
        c.raw("orbm" + be32(ORBPUT) + be32(-1) + std::string("\x01\x00", 2));
        for (const char* s : {"orbm", "or", ""}) {
            WireClient d;
            ASSERT_TRUE(d.connect_tcp(server->name()));
            d.raw(s);
        }
    }
    still_served();
    expect_logged({"connection lost mid-request"});
    ASSERT_EQ(good.exchange(ORBSOURCES), 0);
    EXPECT_EQ(good.resp()->nsource, 1);  // only the good client's G/x: nothing of the cut-short put

    // Some garbage is skipped, more is dropped with a log line.
    WireClient c, bad;
    ASSERT_TRUE(c.connect_tcp(server->name()));
    c.raw("junk!");
    ASSERT_EQ(c.open('r'), 0);     // after skipping the junk
    c.raw(std::string(40, '\0'));  // more than one resynchronisation's worth
    EXPECT_EQ(c.exchange(ORBPING), 0);
    EXPECT_EQ(c.resp()->version, 7);
    ASSERT_TRUE(bad.connect_tcp(server->name()));
    std::string junk;
    for (int i = 0; i < 5000; i++) junk += char("xyz\001\377"[i % 5]);
    bad.raw(junk);
    EXPECT_TRUE(closed_by_server(bad));
    expect_logged({"skipped", "sends garbage"});
    still_served();

    // Lengths beyond every limit.
    int n = 0;
    for (const std::string& bytes : {"orbm" + be32(ORBPUTL) + be32(-1) + be32(100000000),
                                     "orbm" + be32(ORBPUTXL) + be32(-1) + be32(-5),
                                     "orbm" + be32(ORBSELECT) + be32(16385), "orbm" + be32(ORBREJECT) + be32(-1)}) {
        WireClient d;
        ASSERT_TRUE(join(d, 'w'));
        d.raw(bytes);
        EXPECT_TRUE(closed_by_server(d)) << "case " << n++;
    }
    expect_logged({"packet size 100000000 beyond the limit", "pattern length 16385 beyond the limit"});
    still_served();
    EXPECT_EQ(good.select(std::string(16383, 'a')), 0);  // the largest pattern allowed is read whole
    EXPECT_EQ(good.select(""), 1);

    // Names too long for the ring are refused (64: no room for the terminating NUL); a source-name
    // length beyond what is read leaves bytes that are skipped.
    EXPECT_LT(good.putx(std::string(64, 'n'), 1, "x"), 0);
    expect_logged({"refused"});
    WireClient w;
    ASSERT_TRUE(join(w, 'w'));
    w.raw("orbm" + be32(ORBPUT) + be32(-1) + std::string("\x00\x01\x00\xc8", 4) /* 200 */ + std::string(8, '\0') +
          std::string(200, 's') + "p");
    EXPECT_EQ(w.exchange(ORBPING), 0);
    still_served();
}

TEST_F(Hostile, CostlyPatternsAndAPutArrivingInPieces) {
    WireClient c, w;
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

    // A large put whose bytes trickle in is taken from the input buffer only once it is all
    // there; the same connection then goes on being served.
    ASSERT_TRUE(join(w, 'w'));
    std::string data(300000, '\0'), src = "P/pieces";
    for (size_t i = 0; i < data.size(); i++) data[i] = char(i * 31 + i / 977);
    double when = 42.5;
    uint64_t bits;
    std::memcpy(&bits, &when, 8);
    std::string msg = "orbm" + be32(ORBPUTL) + be32(-1) + be32(int32_t(data.size())) + std::string{0, char(src.size())} +
                      be32(int32_t(bits >> 32)) + be32(int32_t(bits & 0xffffffffu)) + src + data;
    for (size_t at = 0; at < msg.size(); at += 70001) {
        w.raw(msg.substr(at, 70001));
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    ASSERT_EQ(w.exchange(ORBPING), 0);
    Pkt p;
    ASSERT_EQ(w.get(ORBNEWEST, &p), 0);
    EXPECT_EQ(p.srcname, src);
    EXPECT_EQ(p.time, when);
    EXPECT_TRUE(p.data == data);
    still_served();
}

TEST_F(Hostile, StallsAndAThousandConnectionsOpenedAndDropped) {
    {
        WireClient c;
        ASSERT_TRUE(join(c, 'w'));
        c.raw("orbm" + be32(ORBPUT) + be32(-1));  // and then nothing
        still_served();                            // others are served meanwhile
        EXPECT_TRUE(closed_by_server(c));
        expect_logged({"stalled in the middle of a request"});
    }
    int before = open_fds(server->pid());
    for (int i = 0; i < 1000; i++) {
        WireClient c;
        ASSERT_TRUE(c.connect_tcp(server->name())) << i;
        if (i % 3 == 1) c.raw("orbm");
        EXPECT_TRUE(i % 3 != 2 || c.open('r') == 0) << i;
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
               "max_clients 20\nadmin_allow 10.0.0.0/8\n";
    }
};

TEST_F(Access, AddressesNotAllowedAreRefused) {
    // 127.0.0.2 may read but not write; 127.0.0.3 may do neither.
    WireClient w, r, stranger;
    ASSERT_TRUE(w.connect_tcp(server->name(), "127.0.0.2"));
    EXPECT_NE(w.open('w'), 0);
    EXPECT_NE(std::string(w.resp()->errmsg).find("may not write"), std::string::npos) << w.resp()->errmsg;
    EXPECT_TRUE(closed_by_server(w));
    ASSERT_TRUE(join(r, 'r', "127.0.0.2"));
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

TEST_F(Access, ClientsBeyondTheLimitAreTurnedAway) {
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

TEST(HostileSettings, BadParameterFilesAndOptionsAreReported) {
    struct Case {
        std::string pf;
        std::vector<std::string> args;
        std::string says;
    } cases[] = {
        {"write_allow 300.1.1.1/8\n", {}, "bad address '300.1.1.1/8'"},
        {"ring_size lots\n", {}, "bad value 'lots' for ring_size"},
        {"", {"-s", "12Q"}, "bad ring size '12Q'"},
        {"", {"-m", "1"}, "bad packet-id modulus '1'"},
    };
    for (const Case& k : cases) {
        OrbServer server({k.pf, k.args, "127.0.0.1", "", true});
        EXPECT_FALSE(server.up());
        EXPECT_NE(server.log().find(k.says), std::string::npos) << server.log();
    }
}

TEST(HostileSettings, IdleClientsAreDroppedWhenAsked) {
    OrbServer server({"idle_timeout 1\n", {}, "127.0.0.1", "", true});
    ASSERT_TRUE(server.up()) << server.log();
    WireClient idle, streaming, w;
    auto join = [&](WireClient& c, char perm) { return c.connect_tcp(server.name()) && c.open(perm) == 0; };
    ASSERT_TRUE(join(idle, 'r') && join(streaming, 'r'));
    ASSERT_TRUE(streaming.reap(1));
    EXPECT_TRUE(closed_by_server(idle));
    EXPECT_NE(server.log().find("idle too long"), std::string::npos);
    // The streaming reader is not idle: it gets the packet when it comes.
    ASSERT_TRUE(join(w, 'w'));
    ASSERT_EQ(w.putx("I/x", 1, "for the reader"), 0);
    Pkt p;
    ASSERT_EQ(streaming.next(&p), 0);
    EXPECT_EQ(p.data, "for the reader");
}

}  // namespace

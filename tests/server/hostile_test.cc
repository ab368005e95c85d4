// Clients that misbehave: garbage, truncated and over-long requests, stalls, connection storms,
// and addresses that may not write. Each is refused or dropped with a log line, and the other
// clients go on being served.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "support/orbserver.h"
#include "wire_client.h"

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

class Hostile : public ::testing::Test {
protected:
    void TearDown() override {
        good.disconnect();
        if (server) server->stop();
        EXPECT_EQ(server ? server->sanitizer_report() : "", "");
    }
    // Starts a server with the parameter file pf; with the well-behaved writer open, if asked.
    void start(const std::string& pf, bool with_good = true, std::vector<std::string> args = {}) {
        server = std::make_unique<OrbServer>(OrbServer::Options{pf, args, "127.0.0.1", "", true});
        ASSERT_TRUE(!with_good || (server->up() && join(good, 'w'))) << server->log();
    }
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

TEST_F(Hostile, MalformedTruncatedOverLongAndStalledRequests) {
    ASSERT_NO_FATAL_FAILURE(start("request_timeout 1\n"));
    std::string junk, put = "orbm" + be32(ORBPUT) + be32(-1);
    for (int i = 0; i < 5000; i++) junk += char("xyz\001\377"[i % 5]);
    // then: 'c' the client closes at once, 'd' the server drops it, 'p' a ping is still answered.
    struct {
        const char* what;
        bool open;
        std::string bytes;
        char then;
        const char* logged;
    } rows[] = {
        {"a put cut short", true, put + std::string("\x01\x00", 2), 'c', "connection lost mid-request"},
        {"a marker alone", false, "orbm", 'c', ""},
        {"half a marker", false, "or", 'c', ""},
        {"nothing at all", false, "", 'c', ""},
        {"garbage", false, junk, 'd', "sends garbage"},
        {"a long put", true, "orbm" + be32(ORBPUTL) + be32(-1) + be32(100000000), 'd',
         "packet size 100000000 beyond the limit"},
        {"a negative put", true, "orbm" + be32(ORBPUTXL) + be32(-1) + be32(-5), 'd', ""},
        {"a long select", true, "orbm" + be32(ORBSELECT) + be32(16385), 'd', "pattern length 16385 beyond the limit"},
        {"a negative reject", true, "orbm" + be32(ORBREJECT) + be32(-1), 'd', ""},
        {"a source-name length beyond what is read (the rest is skipped)", true,
         put + std::string("\x00\x01\x00\xc8", 4) + std::string(8, '\0') + std::string(200, 's') + "p", 'p', ""},
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
    ASSERT_NO_FATAL_FAILURE(start(""));
    {
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
        // A large put whose bytes trickle in is taken from the input buffer only once it is all
        // there; the same connection then goes on being served.
        ASSERT_TRUE(join(w, 'w'));
        std::string data(300000, '\0'), src = "P/pieces";
        for (size_t i = 0; i < data.size(); i++) data[i] = char(i * 31 + i / 977);
        double when = 42.5;
        uint64_t bits;
        std::memcpy(&bits, &when, 8);
        std::string msg = "orbm" + be32(ORBPUTL) + be32(-1) + be32(int32_t(data.size())) +
                          std::string{0, char(src.size())} + be32(int32_t(bits >> 32)) + be32(int32_t(bits)) + src + data;
        for (size_t at = 0; at < msg.size(); at += 70001) {
            w.raw(msg.substr(at, 70001));
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        ASSERT_EQ(w.exchange(ORBPING), 0);
        Pkt p;
        ASSERT_EQ(w.get(ORBNEWEST, &p), 0);
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
    ASSERT_NO_FATAL_FAILURE(start(kAccess));
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

TEST_F(Hostile, ClientsBeyondTheLimitAreTurnedAway) {
    ASSERT_NO_FATAL_FAILURE(start(kAccess));
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
    struct {
        std::string pf;
        std::vector<std::string> args;
        const char* says;
    } cases[] = {
        {"write_allow 300.1.1.1/8\n", {}, "bad address '300.1.1.1/8'"},
        {"ring_size lots\n", {}, "bad value 'lots' for ring_size"},
        {"", {"-s", "12Q"}, "bad ring size '12Q'"},
        {"", {"-m", "1"}, "bad packet-id modulus '1'"},
    };
    for (const auto& k : cases) {
        start(k.pf, false, k.args);
        EXPECT_FALSE(server->up());
        expect_logged({k.says});
    }
}

TEST_F(Hostile, IdleClientsAreDroppedWhenAsked) {
    start("idle_timeout 1\n", false);
    WireClient idle, streaming, w;
    ASSERT_TRUE(join(idle, 'r') && join(streaming, 'r')) << server->log();
    ASSERT_TRUE(streaming.reap(1));
    EXPECT_TRUE(closed_by_server(idle));
    expect_logged({"idle too long"});
    // The streaming reader is not idle: it gets the packet when it comes.
    ASSERT_TRUE(join(w, 'w'));
    ASSERT_EQ(w.putx("I/x", 1, "for the reader"), 0);
    Pkt p;
    ASSERT_EQ(streaming.next(&p), 0);
    EXPECT_EQ(p.data, "for the reader");
}

}  // namespace

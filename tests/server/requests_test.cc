// The server over its protocol, requests made by the library's record encoders with nothing of the client
// in between: every request code on a ring file and on a JetStream stream; one ring shared by several front
// ends; and clients that misbehave on the protocol, the status port and TLS while others go on being served.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "ferrant/harness.h"
#include "orb/orb_support.h"
#include "orb/orbfile.h"
#include "orb/orbsign.h"
#include "ring/ring.h"
#include "stock/bns.h"
#include "support/http.h"
#include "support/nats_cluster.h"
#include "support/orbserver.h"
#include "support/pki.h"

using namespace ferrant_test;
using namespace orbtest;
using namespace testsupport;

namespace {

constexpr int kFailed = -1000;  // what a request yields when it fails, beyond any result the server gives

struct WireClient {
    WireClient() = default;
    WireClient(const WireClient&) = delete;
    ~WireClient() { disconnect(); }

    // Connects to the server's "127.0.0.1:port" (from local_addr when given).
    bool connect_tcp(const std::string& name, const char* local_addr = nullptr) {
        int sock = connect_loopback(std::stoi(name.substr(name.rfind(':') + 1)), local_addr);
        return sock >= 0 && (attach(sock), true);
    }
    void disconnect() {
        if (fd >= 0) close(fd);
        bnsfree(in), bnsfree(out), freeOrbrequest(req), freeOrbresponse(resp);
        fd = -1, in = out = nullptr, req = nullptr, resp = nullptr;
        // forbserver ends when its client leaves; make sure of it
        if (forb > 0 && (child_status = child::reap(forb, 4)) == -1)
            child_status = child::end(forb, SIGKILL);
        forb = -1;
    }
    void set_timeout(int ms) { bnstimeout(in, ms); }
    bool raw(const std::string& s) {
        return ::send(fd, s.data(), s.size(), MSG_NOSIGNAL) == ssize_t(s.size());
    }
    bool send() { return buf2bns(out, "orbm", 4), pbnsOrbrequest(out, req) == 0 && bnsflush(out) == 0; }
    int recv_any() { return gbnsSync(in, "orbm", 4, 1) != 0 ? -1 : gbnsOrbresponse(in, resp); }
    // Reads responses until one answers `what` (streamed pushes before it are skipped, as the library does,
    // and counted). Result field, or kFailed when reading fails.
    int recv(int what) {
        for (;; skipped++) {
            if (recv_any() < 0) return kFailed;
            int w = resp->what;
            if (w == what || (what == ORBGET && w == ORBGETL) || (what == ORBREAP && w == ORBREAPL) ||
                (what == ORBPUTX && w == ORBPUTXL))
                return resp->result;
        }
    }
    int exchange(int what) { return req->what = what, send() ? recv(what) : kFailed; }

    // The open record, made ready for ORBOPEN (and for signing).
    OrbOpenString* hello(char perm, const char* what = "server_test") {
        if (!req->hello) req->hello = newOrbOpenString(), req->sZhello = 1;
        std::memcpy(&req->hello->handshake, "orbm", 4);
        req->hello->pid = getpid(), req->hello->perm = perm;
        std::snprintf(req->hello->what, sizeof req->hello->what, "%s", what);
        std::snprintf(req->hello->who, sizeof req->hello->who, "tester");
        return req->hello;
    }
    int open(char perm = 'r', const char* what = "server_test") {
        return hello(perm, what), exchange(ORBOPEN);
    }
    // ORBPUT (no answer; stashed when pktid is ORBSTASH), the packet sent from data itself.
    bool put(const std::string& src, double t, const std::string& data, int pktid = -1, int what = ORBPUT) {
        if (!req->pkg) req->pkg = newPktpkg(), req->sZpkg = 1;
        Pktpkg* p = req->pkg;
        p->pktid = pktid, p->time = t;
        std::snprintf(p->srcname, sizeof p->srcname, "%s", src.c_str());
        p->srcnamesize = static_cast<unsigned short>(std::strlen(p->srcname));
        p->packet = const_cast<char*>(data.data()), p->packetsize = int(data.size()), p->sZpacket = 0;
        bool ok = (req->what = what, send());
        p->packet = nullptr;  // not the request's to free
        return ok;
    }
    // ORBPUTX: the new pktid, or a negative failure.
    int putx(const std::string& src, double time, const std::string& data) {
        int r = put(src, time, data, -1, ORBPUTX) ? recv(ORBPUTX) : kFailed;
        return r == 0 ? resp->pktid : r;
    }
    // ORBSEEK/ORBTELL/ORBAFTER: the pktid, or kFailed.
    int seek(int code) { return req->pktcode = code, pktid_or_failed(exchange(ORBSEEK)); }
    int tell() { return pktid_or_failed(exchange(ORBTELL)); }
    int after(double t) { return req->time = t, pktid_or_failed(exchange(ORBAFTER)); }
    // ORBSELECT/ORBREJECT: the number of sources selected, or kFailed.
    int select(const std::string& pattern, int what = ORBSELECT) {
        bool sel = what == ORBSELECT;
        char*& field = sel ? req->select : req->reject;
        std::free(field);
        field = strdup(pattern.c_str());
        int n = int(pattern.size() + 1);
        (sel ? req->sZselect : req->sZreject) = (sel ? req->nselect : req->nreject) = n;
        return exchange(what) == 0 ? resp->nselections : kFailed;
    }
    int reject(const std::string& pattern) { return select(pattern, ORBREJECT); }
    // Starts a stream; read it with next_pkt().
    bool reap(int maxpkts = -1, int maxbytes = -1, double maxtime = 0) {
        req->reap_maxpkts = maxpkts, req->reap_maxbytes = maxbytes, req->reap_maxtime = maxtime;
        return req->what = ORBREAP, send();
    }
    // The next streamed packet, or what ORBGET code yields; its pktid is kFailed when there is none.
    Got next_pkt() {
        bool reaped = recv_any() == 0 && (resp->what == ORBREAP || resp->what == ORBREAPL);
        return reaped && resp->result == 0 ? packet() : Got{-1, kFailed, {}, 0, {}};
    }
    Got get_pkt(int code) {
        return req->pktcode = code, exchange(ORBGET) == 0 ? packet() : Got{-1, kFailed, {}, 0, {}};
    }
    int next_id() { return next_pkt().pktid; }
    Got packet() const {
        Pktpkg* g = resp->pkg;
        return {0, g->pktid, g->srcname, g->time, {g->packet ? g->packet : "", size_t(g->packetsize)}};
    }
    // Positioning steps, each 's'eek, 'g'et, 't'ell or 'a'fter with its argument, and the pktid (or kFailed)
    // it must yield; run in order.
    struct Step { char op; double arg; int want; };
    void expect_steps(std::initializer_list<Step> steps) {
        int i = 0;
        for (auto [op, x, want] : steps) {
            int got = op == 's' ? seek(int(x)) : op == 't' ? tell() : op == 'a' ? after(x)
                                                                           : get_pkt(int(x)).pktid;
            EXPECT_EQ(got, want) << "step " << i++ << ": " << op << x;
        }
    }

    int pktid_or_failed(int r) const { return r == 0 ? resp->pktid : kFailed; }
    void attach(int sock) {
        signal(SIGPIPE, SIG_IGN);  // a server killed under a test must fail its writes, not kill it
        fd = sock;
        in = bnsnew(sock, 8192), out = bnsnew(sock, 8192);
        bnstimeout(in, 10000);
        req = newOrbrequest(), resp = newOrbresponse();
    }

    int fd = -1, child_status = 0, skipped = 0;
    pid_t forb = -1;
    Bns *in = nullptr, *out = nullptr;
    Orbrequest* req = nullptr;
    Orbresponse* resp = nullptr;
};

// One orbserver at a time, started by start(). On tear-down a server that came up must stop cleanly on
// SIGTERM (or have halted cleanly), with no sanitizer report in its log.
class ServerTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (!server) return;
        int status = server->stop();
        EXPECT_TRUE(server->port() == 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
        EXPECT_EQ(server->sanitizer_report(), "");
    }
    // Starts a server (on ring, when given); false when it does not come up.
    bool start(const std::string& pf = "", std::vector<std::string> args = {}, const std::string& ring = "") {
        server = std::make_unique<OrbServer>(OrbServer::Options{pf, std::move(args), "127.0.0.1", ring});
        return server->up();
    }
    // Connects c (from the local address, when given) and opens it; false if either fails.
    bool join(WireClient& c, char perm = 'r', const char* what = "server_test", const char* local = nullptr) {
        return c.connect_tcp(server->name(), local) && c.open(perm, what) == 0;
    }
    void expect_logged(std::initializer_list<const char*> lines) {
        for (const char* line : lines) EXPECT_TRUE(has(server->log(), line));
    }
    std::unique_ptr<OrbServer> server;
};

// A packet body of 40 to 239 bytes that tells the index it was made for.
std::string body(int i) {
    std::string s = "#" + std::to_string(i) + ":";
    s.resize(40 + i % 200, char('a' + i % 26));
    return s;
}

int index_of(const std::string& data) { return data.size() < 2 || data[0] != '#' ? -1 : std::atoi(&data[1]); }

// The same requests against a ring file and against a JetStream stream of a real 3-node cluster on
// loopback: the answers must not tell them apart.
class Requests : public ServerTest, public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override {
        std::vector<std::string> args;
        static int serial = 0;
        if (GetParam() == "jetstream") {
            if (nats_test::server_binary().empty()) GTEST_SKIP() << "nats-server is not installed";
            static nats_test::Cluster cluster;  // one per test program, gone with it
            ASSERT_EQ(cluster.wait_ready(), "");
            args = {"-J", cluster.url_list()};
        }
        ASSERT_TRUE(start("", args, args.empty() ? "" : "ring" + std::to_string(serial++))) << server->log();
        ASSERT_TRUE(join(writer, 'w', "writer")) << server->log();
    }
    // Puts n packets of AA_X/pf with times 1000+i; returns their pktids.
    std::vector<int> put_n(int n) {
        std::vector<int> ids;
        for (int i = 0; i < n; i++) ids.push_back(writer.putx("AA_X/pf", 1000 + i, body(i)));
        return ids;
    }
    static int thread_id(WireClient& c) { return c.exchange(ORBID) == 0 ? c.resp->thread : kFailed; }
    WireClient writer;
};

TEST_P(Requests, OpenIdSessionsAndTheEmptyRing) {
    WireClient c, asker;
    ASSERT_TRUE(c.connect_tcp(server->name()));
    // Before the open only a ping is answered.
    EXPECT_EQ(c.exchange(ORBPING), 0);
    EXPECT_NE(c.exchange(ORBSTAT), 0);
    ASSERT_EQ(c.open('r'), 0);
    EXPECT_EQ(c.resp->latest_pktid, -1);
    c.expect_steps({{'t', 0, -1}, {'s', ORBOLDEST, -1}, {'s', ORBNEWEST, -1}, {'g', ORBCURRENT, kFailed},
                    {'g', ORBNEXT, kFailed}, {'g', 0, kFailed}});
    int id = thread_id(c);
    EXPECT_GE(id, 0);
    // ORBNEXT_WAIT is answered with the first packet that arrives.
    c.req->pktcode = ORBNEXT_WAIT, c.req->what = ORBGET;
    ASSERT_TRUE(c.send());
    writer.putx("W/x", 1, "waited for");
    ASSERT_EQ(c.recv(ORBGET), 0);
    EXPECT_EQ(c.packet().body, "waited for");
    EXPECT_EQ(c.tell(), 0);
    // Another connection asks whether that session is alive: yes, then no once it has gone.
    ASSERT_TRUE(join(asker));
    auto active = [&](int thread) {
        asker.req->athread = thread;
        return asker.exchange(ORBRUP) == 0 ? asker.resp->active : kFailed;
    };
    EXPECT_EQ(active(id), 1);
    EXPECT_EQ(asker.resp->latest_pktid, 0);
    c.disconnect();
    for (int i = 0; i < 500 && active(id) == 1; i++) usleep(2000);  // the server notices the close later
    EXPECT_EQ(active(id), 0);
}

TEST_P(Requests, ReadPositionRules) {
    ASSERT_EQ(put_n(5), (std::vector<int>{0, 1, 2, 3, 4}));
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_EQ(r.resp->latest_pktid, 4);
    // Open stands at the newest: nothing to read until something arrives.
    r.expect_steps({{'t', 0, 4}, {'g', ORBNEXT, kFailed}});
    writer.putx("AA_X/pf", 1005, body(5));
    EXPECT_EQ(r.get_pkt(ORBNEXT).str(), "0 5 AA_X/pf 1005 " + body(5));
    r.expect_steps({
        {'s', ORBOLDEST, 0}, {'g', ORBCURRENT, 0},  // the next read yields the oldest itself
        {'s', ORBOLDEST, 0}, {'t', 0, 0}, {'g', ORBNEXT, 0},  // and so does ORBNEXT
        // Seeks by pktid and by code; the result is where the client now stands.
        {'s', 3, 3}, {'g', ORBNEXT, 4}, {'s', ORBPREV, 3}, {'s', ORBNEXT, 4}, {'s', ORBNEWEST, 5},
        {'s', ORBCURRENT, 5}, {'s', 77, kFailed}, {'t', 0, 5},  // not in the ring: the position stays
        {'s', -5, kFailed}, {'s', ORBNEXT, kFailed},             // not a code; nothing after the newest
        {'g', 2, 2}, {'t', 0, 2},                                 // ORBGET by pktid stands there too
        {'g', ORBPREV, 1}, {'g', ORBOLDEST, 0}, {'g', ORBPREV, kFailed}, {'g', ORBNEWEST, 5},
        // ORBAFTER stands at the first packet later than t; reading goes on after it.
        {'a', 1002 - 1e-5, 2}, {'g', ORBNEXT, 3}, {'a', 1002, 3}, {'a', 0, 0}, {'a', 5000, kFailed},
    });
    // Time steps follow packet times, not ring order.
    for (double t : {2010, 2030, 2020, 2040}) writer.putx("AA_X/pf", t, "t");  // pktids 6..9
    r.expect_steps({{'s', 7, 7}, {'s', ORBNEXTT, 9}, {'s', ORBPREVT, 8}, {'s', ORBPREVT, 6}, {'s', 0, 0},
                    {'s', ORBPREVT, kFailed}});
}

TEST_P(Requests, ReapStreams) {
    WireClient r;
    ASSERT_TRUE(join(r));
    ASSERT_TRUE(r.reap());
    put_n(200);
    ASSERT_EQ(r.next_id(), 0);  // a reader of an empty ring gets the first packet that arrives
    // A request mid-stream ends it: its answer comes after what was already pushed (skipped).
    int at = r.tell();
    EXPECT_TRUE(at >= 0 && at <= 199) << at;
    writer.putx("AA_X/pf", 3000, "after");
    ASSERT_EQ(r.exchange(ORBPING), 0);
    int skipped_before = r.skipped;
    ASSERT_EQ(r.exchange(ORBPING), 0);
    EXPECT_EQ(r.skipped, skipped_before);  // nothing is pushed any more
    EXPECT_EQ(r.tell(), at);
    ASSERT_TRUE(r.reap(1));  // a new stream carries on after the position
    for (int want : {at + 1, -32}) EXPECT_EQ(r.next_id(), want);
    // Headers only, then the end package, standing at the last packet delivered.
    ASSERT_EQ(r.seek(2), 2);
    ASSERT_TRUE(r.reap(2, 0));
    EXPECT_EQ(r.next_pkt().str(), "0 3 AA_X/pf 1003 ");
    for (int want : {4, -32}) ASSERT_EQ(r.next_id(), want);
    EXPECT_EQ(r.tell(), 4);
    // Up to a time: the stream ends at the first later packet, which stays unread.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(-1, -1, 1001.5));
    for (int want : {0, 1, -32}) ASSERT_EQ(r.next_id(), want);
    EXPECT_EQ(r.tell(), 1);
    ASSERT_TRUE(r.reap());
    ASSERT_EQ(r.next_id(), 2);
    server->stop();  // SIGTERM with a client in mid-stream
    expect_logged({"stopping on a signal"});
}

TEST_P(Requests, SelectAndRejectMatchWholeNames) {
    const char* srcs[] = {"AA_X/pf", "BB_Y/pf", "AA_Z/wf", "AA_X/pf"};
    for (int i = 0; i < 4; i++) writer.putx(srcs[i], i + 1, std::to_string(i + 1));
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_EQ(r.select("AA"), 0);  // whole names only
    EXPECT_EQ(r.select("AA_.*"), 2);
    EXPECT_EQ(r.reject(".*/wf"), 1);
    EXPECT_EQ(r.select("("), kFailed);  // bad pattern: error, old pattern kept
    EXPECT_TRUE(has(r.resp->errmsg, "bad pattern"));
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(2));
    for (auto want : {"0 0 AA_X/pf 1 1", "0 3 AA_X/pf 4 4"}) EXPECT_EQ(r.next_pkt().str(), want);
    EXPECT_EQ(r.next_id(), -32);
    r.expect_steps({{'s', 0, 0}, {'s', ORBNEXT, 3}, {'s', ORBPREV, 0}});  // selected steps skip the others
    EXPECT_EQ(r.select(""), 2);  // cleared; the reject still holds
    EXPECT_EQ(r.reject(""), 3);
    // Packets of a source that arrives later are judged too.
    ASSERT_EQ(r.select("CC.*"), 0);
    ASSERT_TRUE(r.reap(1));
    writer.putx("DD/x", 5, "no");
    writer.putx("CC/x", 6, "yes");
    EXPECT_EQ(r.next_pkt().body, "yes");
}

TEST_P(Requests, StatSourcesClientsAndStash) {
    for (auto [src, t, data] : {std::tuple{"AA/x", 10, "12345"}, {"AA/x", 11, "123"}, {"BB/y", 12, "1"}})
        writer.putx(src, t, data);
    WireClient r, s;
    ASSERT_TRUE(join(r, 'r', "reader_program -x"));
    ASSERT_EQ(r.select("AA/x"), 1);
    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    const Orbstat& st = r.resp->orbstat;
    EXPECT_EQ(words(st.nsources, st.port, st.pid), words(2, server->port(), server->pid()));
    ASSERT_EQ(r.exchange(ORBSOURCES), 0);
    std::vector<std::string> rows;  // name, packets, bytes, oldest and latest ids and times
    for (const Orbsrc* o = r.resp->source; o < r.resp->source + r.resp->nsource; o++)
        rows.push_back(words(o->srcname, o->npkts, o->nbytes, o->soldest, o->slatest, o->soldest_time,
                             o->slatest_time));
    std::sort(rows.begin(), rows.end());
    EXPECT_EQ(rows, (std::vector<std::string>{"AA/x 2 8 0 1 10 11", "BB/y 1 1 2 2 12 12"}));
    ASSERT_EQ(r.seek(1), 1);
    ASSERT_EQ(r.exchange(ORBCLIENTS), 0);
    rows.clear();  // what, perm, position, select, host, packets written
    for (const Orbclient* k = r.resp->client; k < r.resp->client + r.resp->nclient; k++)
        rows.push_back(words(k->what, k->perm, k->pktid, k->select, k->host, k->packets));
    std::sort(rows.begin(), rows.end());
    EXPECT_EQ(rows, (std::vector<std::string>{"reader_program -x r 1 AA/x 127.0.0.1 0",
                                              "writer w -1  127.0.0.1 3"}));
    ASSERT_TRUE(writer.put("BB/y", 13, "stashed", ORBSTASH));
    ASSERT_EQ(writer.exchange(ORBPING), 0);  // the put has been handled
    ASSERT_TRUE(join(s));                    // the stash is kept outside the sequence
    EXPECT_EQ(s.resp->latest_pktid, 2);
    for (auto [src, want] : {std::pair{"BB/y", "stashed"}, {"T/none", "none"}}) {
        std::snprintf(r.req->srcname, sizeof r.req->srcname, "%s", src);
        EXPECT_EQ(r.exchange(ORBGETSTASH) == 0 ? r.packet().body : "none", want);
    }
    for (auto [flag, want] : {std::pair{2, 2}, {3, -1}}) {
        r.req->stashflag = flag;
        EXPECT_EQ(r.exchange(ORBSTASHSELECT) == 0 ? r.resp->stashflag : -1, want);
    }
}

TEST_P(Requests, LongFormsUnknownCodesKillPriorityCloseAndHalt) {
    std::string big(100000, 'L'), edge(65535, 'e');
    big[0] = 'A', big[99999] = 'Z';
    EXPECT_EQ(writer.putx("L/x", 1, big), 0);
    ASSERT_TRUE(writer.put("L/x", 2, big + "!"));
    EXPECT_EQ(writer.putx("L/x", 3, edge), 2);
    WireClient victim, admin;
    ASSERT_TRUE(join(victim, 'r', "victim"));
    EXPECT_TRUE(victim.get_pkt(0).body == big);
    EXPECT_EQ(victim.resp->what, ORBGETL);
    ASSERT_TRUE(victim.reap(3));
    for (auto [what, data] : {std::pair{ORBREAPL, big + "!"}, {ORBREAP, edge}}) {
        EXPECT_TRUE(victim.next_pkt().body == data);
        EXPECT_EQ(victim.resp->what, what);
    }
    for (int code : {13, 15, 19, 22, 26, 33, 34, 35, 99, -4, 0x7fffffff})
        EXPECT_TRUE(writer.exchange(code) != 0 && writer.resp->nerr > 0) << "code " << code;
    EXPECT_EQ(writer.exchange(ORBSETLOGGING), 0);  // still served after all that
    writer.req->thread = thread_id(victim), writer.req->newpri = 5;
    EXPECT_EQ(writer.exchange(ORBSETPRI), 0);
    writer.req->thread = thread_id(victim);
    EXPECT_EQ(writer.exchange(ORBKILL), 0);
    victim.set_timeout(5000);
    EXPECT_EQ(victim.exchange(ORBPING), kFailed);  // dropped
    writer.req->thread = 424242;
    EXPECT_NE(writer.exchange(ORBKILL), 0);
    // ORBCLOSE is answered and the connection then closed.
    EXPECT_EQ(writer.exchange(ORBCLOSE), 0);
    EXPECT_EQ(writer.exchange(ORBPING), kFailed);
    expect_logged({"killed"});
    // ORBHALT ends the server cleanly (its exit status is checked on tear-down).
    ASSERT_TRUE(join(admin, 'w'));
    EXPECT_EQ(admin.exchange(ORBHALT), 0);
    EXPECT_TRUE(eventually([&] { return !server->running(); }));
}

INSTANTIATE_TEST_SUITE_P(Stores, Requests, ::testing::Values("file", "jetstream"),
                         [](const auto& info) { return info.param; });

class Sharing : public ServerTest {
protected:
    // A forbserver with options a on the ring over a socketpair, errors appended to log, opened with perm.
    bool forb(WireClient& c, char perm, const char* what = "server_test", std::vector<std::string> a = {}) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) return false;
        a.insert(a.begin(), FERRANT_BUILD_DIR "/bin/forbserver");
        a.push_back(ring);
        c.forb = child::spawn(a, {.err = log, .fd = sv[1]});
        close(sv[1]);
        return c.attach(sv[0]), c.forb > 0 && c.open(perm, what) == 0;
    }
    TempDir dir{"forb-test"};
    std::string ring = dir / "ring", log = dir / "forbserver.log";
};

TEST_F(Sharing, AForbserverServesItsOneClientToTheEnd) {
    // A bad ring file is reported, not served (a forbserver's refusal: DamagedRing, tests/ferrant).
    std::string bad = dir.file("bad", std::string(100000, 'j'));
    EXPECT_FALSE(start("", {}, bad));
    expect_logged({bad.c_str()});
    // Only the ring itself takes a packet above what the protocol carries (another writer of the file, or
    // damage); a stream must not stick on it.
    {
        auto r = ring::Ring::open_or_create(ring, {.data_bytes = 16 << 20});
        std::string huge(5000000, 'h');
        ASSERT_GE(r->put("F/huge", 1, huge.data(), huge.size()), 0);
        ASSERT_GE(r->put("F/small", 2, "after", 5), 0);
    }
    WireClient w;
    ASSERT_TRUE(forb(w, 'w', "server_test", {"-s16M"}));
    ASSERT_NE(w.seek(ORBOLDEST), kFailed);
    ASSERT_TRUE(w.reap());
    EXPECT_EQ(w.next_pkt().str(), "0 1 F/small 2 after");
    // Every answer is read only after the last request and the end of input have been sent, so the
    // answers back up far past what the server keeps pending before it reads on.
    std::string big(900000, 'b');
    int id = w.putx("F/big", 1, big);
    ASSERT_GE(id, 0);
    w.req->what = ORBGET, w.req->pktcode = id;
    for (int i = 0; i < 12; i++) ASSERT_TRUE(w.send());
    ASSERT_EQ(shutdown(w.fd, SHUT_WR), 0);
    for (int i = 0; i < 12; i++)
        ASSERT_TRUE(w.recv(ORBGET) == 0 && w.resp->pkg->packetsize == int(big.size())) << "answer " << i;
    w.disconnect();  // a forbserver serves one client and exits when it leaves
    EXPECT_TRUE(WIFEXITED(w.child_status) && WEXITSTATUS(w.child_status) == 0) << w.child_status;
    std::string text = slurp(log);
    EXPECT_EQ(text.find("connection lost"), std::string::npos) << text;
    EXPECT_TRUE(has(text, "can't encode packet"));
}

// Two front ends on one ring at the ring's level (concurrent writers, waiting readers, the client table) are
// tests/ring's; restarts and the change of the server's start time are tests/orb's (OrbRestart).
TEST_F(Sharing, AKillMidAppendsLeavesTheRingConsistentAndAForbserverSharesIt) {
    ASSERT_TRUE(start("", {"-s", "256k"}, ring)) << server->log();
    WireClient w, r, f;
    ASSERT_TRUE(join(w, 'w'));
    double orb_start = w.resp->orb_start;
    // Puts stream in without answers; the server dies somewhere among them.
    std::thread killer([&] { usleep(30000), server->kill(); });
    for (int i = 0; i < 200000 && w.put("K/x", i, body(i)); i++) continue;
    killer.join();
    w.disconnect();
    ASSERT_TRUE(server->start()) << server->log();
    ASSERT_TRUE(join(r, 'r'));
    EXPECT_EQ(r.resp->orb_start, orb_start);
    int latest = r.resp->latest_pktid;
    ASSERT_GE(latest, 0);
    ASSERT_GE(r.seek(ORBOLDEST), 0);
    // Every packet left is whole, in order and consecutive up to the newest.
    Got p = r.get_pkt(ORBNEXT);
    for (int id = p.pktid, i = index_of(p.body);; id++, i++, p = r.get_pkt(ORBNEXT)) {
        ASSERT_EQ(words(p.pktid, p.body), words(id, body(i)));
        if (id == latest) break;
    }
    // And the ring takes new packets after the last one, which a forbserver sharing it reads as they come.
    ASSERT_TRUE(join(w, 'w') && forb(f, 'r'));
    EXPECT_EQ(words(f.resp->orb_start, f.resp->latest_pktid), words(orb_start, latest));
    ASSERT_TRUE(f.reap());
    for (int i = 0; i < 50; i++) ASSERT_EQ(w.putx("P/x", 10 + i, body(i)), latest + 1 + i);
    for (int i = 0; i < 50; i++)
        EXPECT_EQ(f.next_pkt().str(), words(0, latest + 1 + i, "P/x", 10 + i, body(i)));
}

// Ids wrapping at the modulus are the ring's (tests/ring); here the server must pass its options on: the
// packet-count limit (40 are kept, fewer than the bytes hold) and the modulus.
TEST_F(Sharing, EvictionMovesAnEvictedReaderToTheOldest) {
    ASSERT_TRUE(start("", {"-s", "64k", "-m", "1000", "-n", "40"}, ring)) << server->log();
    WireClient w, r;
    ASSERT_TRUE(join(w, 'w') && join(r, 'r'));
    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    EXPECT_EQ(words(r.resp->orbstat.maxpkts, r.resp->orbstat.maxdata), "1000 65536");
    std::string big(1000, 'x');
    for (int i = 0; i < 5; i++) w.putx("E/x", i, big);
    ASSERT_EQ(r.seek(1), 1);  // the reader stands at packet 1, which is evicted under it
    for (int i = 5; i < 300; i++) w.putx("E/x", i, big);
    ASSERT_TRUE(r.reap(1));
    EXPECT_EQ(r.next_id(), 260);
}

std::string be32(int32_t v) {
    uint32_t n = htonl(uint32_t(v));
    return std::string(reinterpret_cast<const char*>(&n), 4);
}

bool closed_by_server(WireClient& c) {
    c.set_timeout(20000);
    for (char buf[4096];;) {
        ssize_t n = recv(c.fd, buf, sizeof buf, 0);
        if (n <= 0) return n == 0 || errno == ECONNRESET;
    }
}

int open_fds(pid_t pid) {
    std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
    return int(std::distance(fds, std::filesystem::directory_iterator()));
}

class Hostile : public ServerTest {
protected:
    void start_with_good(const std::string& pf) {
        ASSERT_TRUE(start(pf) && join(good, 'w', "good")) << server->log();
    }
    // The well-behaved client is still served, and the server still running.
    void still_served() {
        ASSERT_TRUE(server->running()) << server->log();
        int id = good.putx("G/x", 1, "still here");
        EXPECT_GE(id, 0);
        EXPECT_EQ(good.get_pkt(id).body, "still here");
    }
    WireClient good;
};

TEST_F(Hostile, MalformedTruncatedOverLongStalledAndCostlyRequestsAndAThousandConnections) {
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
        WireClient c;
        ASSERT_TRUE(row.open ? join(c, 'w') : c.connect_tcp(server->name()));
        c.raw(row.bytes);
        if (row.then != 'c') still_served();  // others are served meanwhile
        EXPECT_TRUE(row.then != 'd' || closed_by_server(c));
        EXPECT_TRUE(row.then != 'p' || c.exchange(ORBPING) == 0);
        c.disconnect();
        still_served();
        expect_logged({row.logged});
    }
    ASSERT_EQ(good.exchange(ORBSOURCES), 0);
    EXPECT_EQ(good.resp->nsource, 1);  // only the good client's G/x: nothing of the cut-short put
    // Some garbage is skipped: before an open, and more than one resynchronisation's worth after.
    WireClient c, w;
    ASSERT_TRUE(c.connect_tcp(server->name()));
    c.raw("junk!");
    ASSERT_EQ(c.open('r'), 0);
    c.raw(std::string(40, '\0'));
    EXPECT_EQ(c.exchange(ORBPING), 0);
    expect_logged({"skipped"});
    // The largest pattern allowed is read whole; a name with no room for its NUL is refused.
    EXPECT_EQ(good.select(std::string(16383, 'a')), 0);
    EXPECT_LT(good.putx(std::string(64, 'n'), 1, "x"), 0);
    expect_logged({"refused"});
    // Patterns that would cost the server dearly are refused; escaped braces, small counts and unbounded
    // ones are fine.
    ASSERT_TRUE(good.put("A/b", 1, "x"));
    for (const char* bad : {"(a)\\1", "(.*)*\\1x", "((a|b){1,100}){1,100}", "(x{0,70}){70}"})
        EXPECT_TRUE(c.select(bad) == kFailed && c.reject(bad) == kFailed) << bad;
    EXPECT_EQ(c.select("A/b{1,3}"), 1);
    EXPECT_EQ(c.select("A/(b|c){1,}|A/b\\{1"), 1);
    // A large put whose bytes trickle in is taken from the input buffer only once it is all there; the
    // same connection then goes on being served.
    ASSERT_TRUE(join(w, 'w'));
    std::string data(300000, '\0'), src = "P/pieces";
    for (size_t i = 0; i < data.size(); i++) data[i] = char(i * 31 + i / 977);
    uint64_t bits = std::bit_cast<uint64_t>(42.5);
    std::string msg = "orbm" + be32(ORBPUTL) + be32(-1) + be32(int32_t(data.size())) +
                      std::string{0, char(src.size())} + be32(int32_t(bits >> 32)) + be32(int32_t(bits));
    msg += src + data;
    for (size_t at = 0; at < msg.size(); at += 70001) {
        w.raw(msg.substr(at, 70001));
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    ASSERT_EQ(w.exchange(ORBPING), 0);
    Got p = w.get_pkt(ORBNEWEST);
    EXPECT_EQ(words(p.src, p.time), "P/pieces 42.5");
    EXPECT_TRUE(p.body == data);
    c.disconnect(), w.disconnect();
    // A thousand connections opened and dropped give back every descriptor and client slot.
    int before = open_fds(server->pid()), after = -1;
    for (int i = 0; i < 1000; i++) {
        WireClient k;
        ASSERT_TRUE(k.connect_tcp(server->name())) << i;
        if (i % 3 == 1) k.raw("orbm");
        EXPECT_TRUE(i % 3 != 2 || k.open('r') == 0) << i;
    }
    still_served();
    for (int i = 0; i < 1000 && (after = open_fds(server->pid())) > before; i++) usleep(2000);
    EXPECT_LE(after, before);
    ASSERT_EQ(good.exchange(ORBCLIENTS), 0);
    EXPECT_EQ(good.resp->nclient, 1);
}

// 127.0.0.2 may read but not write; 127.0.0.3 may do neither; no client is an administrator.
TEST_F(Hostile, AddressesNotAllowedAndClientsBeyondTheLimitAreTurnedAway) {
    ASSERT_NO_FATAL_FAILURE(start_with_good("write_allow &Tbl{\n127.0.0.1/32\n}\nmax_clients 20\n"
                                            "read_allow &Tbl{\n127.0.0.1/32\n127.0.0.2/32\n}\n"
                                            "admin_allow 10.0.0.0/8\n"));
    {
        WireClient w, r, stranger;
        ASSERT_TRUE(w.connect_tcp(server->name(), "127.0.0.2"));
        EXPECT_NE(w.open('w'), 0);
        EXPECT_TRUE(has(w.resp->errmsg, "may not write"));
        EXPECT_TRUE(closed_by_server(w));
        ASSERT_TRUE(join(r, 'r', "server_test", "127.0.0.2"));
        EXPECT_LT(r.putx("R/x", 1, "sneaky"), 0);
        EXPECT_TRUE(r.put("R/x", 2, "sneaky too"));
        EXPECT_EQ(r.exchange(ORBPING), 0);
        ASSERT_EQ(r.exchange(ORBSOURCES), 0);
        EXPECT_EQ(r.resp->nsource, 0);  // nothing got in
        ASSERT_EQ(r.exchange(ORBSTAT), 0);
        EXPECT_GE(r.resp->orbstat.rejected, 3);
        expect_logged({"rejected open from 127.0.0.2", "refused put from 127.0.0.2"});
        ASSERT_TRUE(stranger.connect_tcp(server->name(), "127.0.0.3"));
        EXPECT_NE(stranger.open('r'), 0);
        EXPECT_TRUE(has(stranger.resp->errmsg, "may not read"));
    }
    // Admin requests need an admin address, which a writer's is not.
    EXPECT_NE(good.exchange(ORBHALT), 0);
    good.req->thread = 0;
    EXPECT_NE(good.exchange(ORBKILL), 0);
    expect_logged({"not allowed"});
    // With the good client, 20; joins are tried again while the server has yet to let the ones above go.
    std::vector<std::unique_ptr<WireClient>> many;
    for (int i = 0; i < 2000 && many.size() < 19; i++) {
        auto c = std::make_unique<WireClient>();
        if (join(*c, 'r')) many.push_back(std::move(c)); else usleep(5000);
    }
    ASSERT_EQ(many.size(), 19u);
    WireClient extra;
    ASSERT_TRUE(extra.connect_tcp(server->name()));
    EXPECT_TRUE(closed_by_server(extra));
    expect_logged({"too many clients"});
    many.pop_back();
    EXPECT_TRUE(eventually([&] {  // once a place came free
        WireClient again;
        return join(again, 'r');
    }));
    still_served();
}

TEST_F(Hostile, BadParameterFilesAndOptionsAreReportedAndIdleClientsDropped) {
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
    ASSERT_TRUE(start("idle_timeout 1\n"));
    WireClient idle, streaming, w;
    ASSERT_TRUE(join(idle, 'r') && join(streaming, 'r')) << server->log();
    ASSERT_TRUE(streaming.reap(1));
    EXPECT_TRUE(closed_by_server(idle));
    expect_logged({"idle too long"});
    // The streaming reader is not idle: it gets the packet when it comes.
    ASSERT_TRUE(join(w, 'w'));
    ASSERT_EQ(w.putx("I/x", 1, "for the reader"), 0);
    EXPECT_EQ(streaming.next_pkt().body, "for the reader");
}

TEST(Http, RefusesEscapesAndOutlastsStalledClients) {
    OrbServer server(with_status_port()), closed(with_status_port("read_allow &Tbl{\n10.0.0.0/8\n}\n"));
    int port = http_port(server.log()), closed_port = http_port(closed.log());
    ASSERT_TRUE(port > 0 && closed_port > 0) << server.log() << closed.log();
    EXPECT_EQ(http_get(closed_port, "/status.json").code, 0);  // an address that may not read
    struct { std::string request; int code; } cases[] = {  // code 0: closed without an answer
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
        EXPECT_EQ(http_request(port, c.request).code, c.code) << c.request.substr(0, 40);
    // Source names that need escaping, in every output.
    const std::vector<std::string> names = {"q\"uote", "back\\slash", "<b>x</b>", "bad\xff\xfe", "new\nline"};
    WireClient w;
    ASSERT_TRUE(w.connect_tcp(server.name()) && w.open('w') == 0);
    for (const auto& n : names) ASSERT_TRUE(w.put(n, 1e9, "data")) << n;
    nlohmann::json doc;
    ASSERT_TRUE(eventually([&] {
        doc = nlohmann::json::parse(http_get(port, "/status.json").body, nullptr, false);
        return !doc.is_discarded() && doc["sources"].size() == names.size();
    }));
    // JSON's escapes are the library's; bytes that are not UTF-8 are replaced rather than refused.
    EXPECT_TRUE(has(doc["sources"].dump(), "bad\xef\xbf\xbd\xef\xbf\xbd\""));
    std::string metrics = http_get(port, "/metrics").body, html = http_get(port, "/").body;
    for (const char* label : {"srcname=\"q\\\"uote\"", "srcname=\"back\\\\slash\"", "srcname=\"new\\nline\"",
                              "srcname=\"<b>x</b>\""})
        EXPECT_TRUE(has(metrics, label));
    EXPECT_EQ(count(metrics, "\norbserver_source_packets{"), names.size()) << metrics;
    for (const char* s : {"&lt;b&gt;x&lt;/b&gt;", "q&quot;uote"}) EXPECT_TRUE(has(html, s));
    EXPECT_EQ(html.find("<b>x"), std::string::npos);
    for (const std::string& body : {metrics, html}) EXPECT_EQ(body.find('\xff'), std::string::npos);
    // Stalled HTTP clients hold neither the page nor packet service, and are dropped in the end.
    std::vector<int> stalled;
    for (int i = 0; i < 20; i++) {
        stalled.push_back(connect_loopback(port));
        if (i % 2) send(stalled.back(), "GET / HTTP/1.0\r\nX-Slow: ", 24, MSG_NOSIGNAL);
    }
    WireClient late;  // connected and answered while they stall
    ASSERT_TRUE(late.connect_tcp(server.name()) && late.open('w') == 0);
    EXPECT_GE(late.putx("net_sta/xfer", 2e9, "hello"), 0);
    EXPECT_EQ(http_get(port, "/metrics").code, 200);
    char c;
    timeval bound{120, 0};
    setsockopt(stalled[1], SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    EXPECT_EQ(recv(stalled[1], &c, 1, 0), 0);  // closed by the server's time-out
    for (int fd : stalled) close(fd);
    EXPECT_EQ(http_get(port, "/status.json").code, 200);
    EXPECT_TRUE(server.running()) << server.log();
}

TEST(Tls, RefusalsSayWhyTheServerServesOnAndSignedOpensCannotBeReplayed) {
    Pki pki;
    ASSERT_TRUE(pki.ok) << slurp(pki / "log");
    std::string signers = "signers &Tbl{\nalice " + pki / "alice.pub" + "\nmallory " + pki / "mallory.pub" +
                          "\n}\nsigned_opens w\nrequest_timeout 2\n";
    OrbServer sec({signers, pki.serve("server"), "127.0.0.1", "", true});
    OrbServer plain({signers, {}, "127.0.0.1", "", true});
    OrbServer expired({"", pki.serve("expired"), "127.0.0.1", "", true});
    OrbServer wrong({"", pki.serve("wrongname"), "127.0.0.1", "", true});
    for (auto* s : {&sec, &plain, &expired, &wrong}) ASSERT_TRUE(s->up()) << s->log();
    TempDir tmp;
    auto port = [](const OrbServer& s) { return " " + std::to_string(s.port()); };
    spit(tmp.sub("pf") + "/orbserver_names.pf",
         "sec" + port(sec) + " alice tls\nanon" + port(sec) + " tls\nbob" + port(sec) + " bob tls\nplain" +
             port(sec) + "\ntlsplain" + port(plain) + " tls\nexpired" + port(expired) + " tls\nwrongname" +
             port(wrong) + " tls\n");
    for (auto k : {"alice", "bob"}) spit(tmp.sub("keys") + "/" + k + ".key", slurp(pki / k + ".key"));
    spit(tmp.sub("forged") + "/alice.key", slurp(pki / "mallory.key"));
    std::string pf = write_pf(tmp / "t.pf");
    make_old(tmp / "src/f", "data\n");
    // A handshake cut short stays open throughout; it must not hold up anyone.
    WireClient cut;
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
        std::map<std::string, std::string> env = {
            {"PFPATH", tmp / "pf:" FERRANT_BUILD_DIR "/data/pf"}, {"ORB_TLS_CA", pki / "ca.pem"},
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
        bool logged = c.server.empty() || eventually([&] { return count(sec.log(), c.server) == 1; });
        EXPECT_TRUE(logged) << sec.log();
    }
    EXPECT_TRUE(eventually([&] { return count(sec.log(), "TLS handshake not completed in time") > 0; }))
        << sec.log();
    EXPECT_EQ(sec.sanitizer_report(), "");
    // A signature is good for the one challenge it was made for, and a challenge for one open.
    SetEnv keys("ORB_KEYS", pki.dir.path);
    using Signed = std::pair<std::string, std::string>;  // challenge, signature
    auto ask = [&](WireClient& w) {
        EXPECT_EQ(w.exchange(ORBCHALLENGE), 0);
        char sig[ORB_SIGNATURE_SIZE], none[ORB_CHALLENGE_SIZE] = {};
        unsigned char block[ORB_SIGNED_BLOCK];
        orbsign_block(w.hello('w'), none, block);
        std::string why;
        EXPECT_EQ(orbsign("alice", block, ORB_SIGNED_BLOCK, w.resp->challenge, sig, &why), 0) << why;
        return Signed{std::string(w.resp->challenge, ORB_CHALLENGE_SIZE), std::string(sig, sizeof sig)};
    };
    auto open = [&](WireClient& w, const Signed& s) {
        w.hello('w');
        memcpy(w.req->challenge, s.first.data(), ORB_CHALLENGE_SIZE);
        memcpy(w.req->signature, s.second.data(), ORB_SIGNATURE_SIZE);
        strcpy(w.req->signer, "alice");
        return w.exchange(ORBSIGNEDOPEN) == 0 ? std::string() : std::string(w.resp->errmsg);
    };
    WireClient first;
    ASSERT_TRUE(first.connect_tcp(plain.name()));
    Signed good = ask(first);
    EXPECT_EQ(open(first, good), "");
    EXPECT_TRUE(has(open(first, good), "no challenge outstanding"));
    struct Replay { bool challenge_first, fresh_challenge, fresh_signature; const char* why; } replays[] = {
        {true, false, false, "the challenge does not match"},
        {true, true, false, "does not verify"},
        {false, false, false, "no challenge outstanding"},
    };
    for (const Replay& c : replays) {
        WireClient w;
        ASSERT_TRUE(w.connect_tcp(plain.name()));
        Signed fresh = c.challenge_first ? ask(w) : good;
        Signed sent{c.fresh_challenge ? fresh.first : good.first,
                    c.fresh_signature ? fresh.second : good.second};
        EXPECT_TRUE(has(open(w, sent), c.why));
    }
}

}  // namespace

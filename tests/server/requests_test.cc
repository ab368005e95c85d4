// Every request code against a real orbserver over loopback, with requests made by our own
// encoders; and one ring file served by several front ends at once (forbservers over socketpairs,
// an orbserver over TCP), and what the ring keeps across restarts, eviction and packet-id wrap.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

#include "ring/ring.h"
#include "support/nats_cluster.h"
#include "wire_client.h"

using testsupport::Pkt;
using testsupport::slurp;
using testsupport::WireClient;
using testsupport::words;

namespace {

constexpr int kFailed = WireClient::kFailed;

// A packet body of 40 to 239 bytes that tells the index it was made for.
std::string body(int i) {
    std::string s = "#" + std::to_string(i) + ":";
    s.resize(40 + i % 200, char('a' + i % 26));
    return s;
}

// Index of the packet a body was made for, or -1.
int index_of(const std::string& data) {
    return data.size() < 2 || data[0] != '#' ? -1 : std::atoi(data.c_str() + 1);
}

// The same requests against a ring file and against a JetStream stream of a
// real 3-node cluster on loopback: the answers must not tell them apart.
class Requests : public testsupport::ServerTest, public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override {
        if (GetParam() == "jetstream") {
            if (nats_test::server_binary().empty()) GTEST_SKIP() << "nats-server is not installed (scripts/deps.sh)";
            static nats_test::Cluster cluster;   // one per test program, gone with it
            ASSERT_EQ(cluster.wait_ready(), "");
            std::string urls;
            for (const auto& u : cluster.urls()) urls += (urls.empty() ? "" : ",") + u;
            static int serial = 0;
            ASSERT_TRUE(start("", {"-J", urls}, "requests" + std::to_string(serial++))) << server->log();
        } else {
            ASSERT_TRUE(start()) << server->log();
        }
        ASSERT_TRUE(join(writer, 'w', "writer")) << server->log();
    }
    // Puts n packets of AA_X/pf with times 1000+i; returns their pktids.
    std::vector<int> put_n(int n) {
        std::vector<int> ids;
        for (int i = 0; i < n; i++) ids.push_back(writer.putx("AA_X/pf", 1000 + i, body(i)));
        return ids;
    }
    static int thread_id(WireClient& c) { return c.exchange(ORBID) == 0 ? c.resp()->thread : kFailed; }
    WireClient writer;
};

TEST_P(Requests, OpenIdSessionsAndTheEmptyRing) {
    WireClient c, asker;
    ASSERT_TRUE(c.connect_tcp(server->name()));
    // Before the open only a ping is answered.
    EXPECT_EQ(c.exchange(ORBPING), 0);
    EXPECT_NE(c.exchange(ORBSTAT), 0);
    EXPECT_NE(c.tell(), 0);
    ASSERT_EQ(c.open('r'), 0);
    EXPECT_EQ(c.resp()->latest_pktid, -1);
    c.expect_steps({{'t', 0, -1}, {'s', ORBOLDEST, -1}, {'s', ORBNEWEST, -1}, {'g', ORBCURRENT, kFailed},
                    {'g', ORBNEXT, kFailed}, {'g', 0, kFailed}});
    int id = thread_id(c);
    EXPECT_GE(id, 0);
    EXPECT_NE(thread_id(writer), id);
    // ORBNEXT_WAIT is answered with the first packet that arrives.
    c.req()->pktcode = ORBNEXT_WAIT;
    c.req()->what = ORBGET;
    ASSERT_TRUE(c.send());
    writer.putx("W/x", 1, "waited for");
    ASSERT_EQ(c.recv(ORBGET), 0);
    EXPECT_EQ(c.packet().data, "waited for");
    EXPECT_EQ(c.tell(), 0);
    // Another connection asks whether that session is alive: yes, then no once it has gone.
    ASSERT_TRUE(join(asker));
    auto active = [&](int thread) {
        asker.req()->athread = thread;
        return asker.exchange(ORBRUP) == 0 ? asker.resp()->active : kFailed;
    };
    EXPECT_EQ(active(id), 1);
    EXPECT_EQ(asker.resp()->latest_pktid, 0);
    c.disconnect();
    for (int i = 0; i < 500 && active(id) == 1; i++) usleep(2000);  // the server notices the close later
    EXPECT_EQ(active(id), 0);
    EXPECT_EQ(active(99999), 0);
}

TEST_P(Requests, ReadPositionRules) {
    ASSERT_EQ(put_n(5), (std::vector<int>{0, 1, 2, 3, 4}));
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_EQ(r.resp()->latest_pktid, 4);
    // Open stands at the newest: nothing to read until something arrives.
    r.expect_steps({{'t', 0, 4}, {'g', ORBNEXT, kFailed}});
    writer.putx("AA_X/pf", 1005, body(5));
    EXPECT_EQ(r.get_pkt(ORBNEXT).str(), "5 1005 AA_X/pf " + body(5));
    r.expect_steps({
        {'s', ORBOLDEST, 0}, {'g', ORBCURRENT, 0},  // the next read yields the oldest itself
        {'s', ORBOLDEST, 0}, {'g', ORBNEXT, 0},     // and so does ORBNEXT
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
    int skipped_before = r.skipped();
    ASSERT_EQ(r.exchange(ORBPING), 0);
    EXPECT_EQ(r.skipped(), skipped_before);  // nothing is pushed any more
    EXPECT_EQ(r.tell(), at);
    ASSERT_TRUE(r.reap(1));  // a new stream carries on after the position
    for (int want : {at + 1, -32}) EXPECT_EQ(r.next_id(), want);
    // Counted: n packets, then the end package, standing at the last packet delivered.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(3));
    for (int i = 0; i < 3; i++) EXPECT_EQ(r.next_pkt().str(), words(i, 1000 + i, "AA_X/pf", body(i)));
    Pkt end = r.next_pkt();
    EXPECT_EQ(words(end.pktid, end.data), "-32 ");
    EXPECT_EQ(r.tell(), 2);
    ASSERT_TRUE(r.reap(2, 0));  // headers only
    EXPECT_EQ(r.next_pkt().str(), "3 1003 AA_X/pf ");
    for (int want : {4, -32}) ASSERT_EQ(r.next_id(), want);
    // Up to a time: the stream ends at the first later packet, which stays unread.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(-1, -1, 1001.5));
    for (int want : {0, 1, -32}) ASSERT_EQ(r.next_id(), want);
    EXPECT_EQ(r.tell(), 1);
    // Unlimited, waiting for packets put later.
    ASSERT_EQ(r.seek(199), 199);
    ASSERT_TRUE(r.reap());
    ASSERT_EQ(r.next_id(), 200);
    writer.putx("AA_X/pf", 4000, "late");
    EXPECT_EQ(r.next_pkt().str(), "201 4000 AA_X/pf late");
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
    EXPECT_NE(std::string(r.resp()->errmsg).find("bad pattern"), std::string::npos);
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(2));
    for (auto want : {"0 1 AA_X/pf 1", "3 4 AA_X/pf 4"}) EXPECT_EQ(r.next_pkt().str(), want);
    EXPECT_EQ(r.next_id(), -32);
    r.expect_steps({{'s', 0, 0}, {'s', ORBNEXT, 3}, {'s', ORBPREV, 0}});  // selected steps skip the others
    EXPECT_EQ(r.select(""), 2);  // cleared; the reject still holds
    EXPECT_EQ(r.reject(""), 3);
    // Packets of a source that arrives later are judged too.
    ASSERT_EQ(r.select("CC.*"), 0);
    ASSERT_TRUE(r.reap(1));
    writer.putx("DD/x", 5, "no");
    writer.putx("CC/x", 6, "yes");
    EXPECT_EQ(r.next_pkt().data, "yes");
}

TEST_P(Requests, StatSourcesClientsAndStash) {
    writer.putx("AA/x", 10, "12345");
    writer.putx("AA/x", 11, "123");
    writer.putx("BB/y", 12, "1");
    WireClient r, s;
    ASSERT_TRUE(join(r, 'r', "reader_program -x"));
    ASSERT_EQ(r.select("AA/x"), 1);
    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    const Orbstat& st = r.resp()->orbstat;
    EXPECT_EQ(words(st.nsources, st.port, st.pid), words(2, server->port(), server->pid()));
    EXPECT_GE(st.nclients, 2);
    ASSERT_EQ(r.exchange(ORBSOURCES), 0);
    std::vector<std::string> sources;  // name, packets, bytes, oldest and latest ids and times
    for (const Orbsrc* o = r.resp()->source; o < r.resp()->source + r.resp()->nsource; o++)
        sources.push_back(
            words(o->srcname, o->npkts, o->nbytes, o->soldest, o->slatest, o->soldest_time, o->slatest_time));
    std::sort(sources.begin(), sources.end());
    EXPECT_EQ(sources, (std::vector<std::string>{"AA/x 2 8 0 1 10 11", "BB/y 1 1 2 2 12 12"}));
    ASSERT_EQ(r.seek(1), 1);
    ASSERT_EQ(r.exchange(ORBCLIENTS), 0);
    std::vector<std::string> clients;  // what, perm, position, select, host, packets written
    for (const Orbclient* k = r.resp()->client; k < r.resp()->client + r.resp()->nclient; k++)
        clients.push_back(words(k->what, k->perm, k->pktid, k->select, k->host, k->packets));
    std::sort(clients.begin(), clients.end());
    EXPECT_EQ(clients, (std::vector<std::string>{"reader_program -x r 1 AA/x 127.0.0.1 0",
                                                 "writer w -1  127.0.0.1 3"}));

    ASSERT_TRUE(writer.put("BB/y", 13, "stashed", ORBSTASH));
    ASSERT_EQ(writer.exchange(ORBPING), 0);  // the put has been handled
    ASSERT_TRUE(join(s));                    // the stash is kept outside the sequence
    EXPECT_EQ(s.resp()->latest_pktid, 2);
    auto stash = [&](const char* src) {
        std::snprintf(r.req()->srcname, sizeof r.req()->srcname, "%s", src);
        return r.exchange(ORBGETSTASH) == 0 ? r.packet().data : "none";
    };
    EXPECT_EQ(stash("BB/y"), "stashed");
    EXPECT_EQ(stash("T/none"), "none");
    auto stashflag = [&](int flag) {
        r.req()->stashflag = flag;
        return r.exchange(ORBSTASHSELECT) == 0 ? r.resp()->stashflag : -1;
    };
    EXPECT_EQ(stashflag(2), 2);
    EXPECT_EQ(stashflag(3), -1);
}

TEST_P(Requests, LongPacketsUseTheLongForms) {
    std::string big(100000, 'L'), edge(65535, 'e');
    big[0] = 'A', big[99999] = 'Z';
    EXPECT_EQ(writer.putx("L/x", 1, big), 0);
    ASSERT_TRUE(writer.put("L/x", 2, big + "!"));
    EXPECT_EQ(writer.putx("L/x", 3, edge), 2);
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_TRUE(r.get_pkt(0).data == big);
    EXPECT_EQ(r.resp()->what, ORBGETL);
    ASSERT_TRUE(r.reap(3));
    for (auto [what, data] : {std::pair{ORBREAPL, big + "!"}, {ORBREAP, edge}}) {
        EXPECT_TRUE(r.next_pkt().data == data);
        EXPECT_EQ(r.resp()->what, what);
    }
    // A reap that asks for fewer bytes gets packets cut to that size.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(1, 10));
    EXPECT_EQ(r.next_pkt().data, big.substr(0, 10));
}

TEST_P(Requests, UnknownCodesKillPriorityCloseAndHalt) {
    for (int code : {13, 15, 19, 22, 26, 33, 34, 35, 99, -4, 0x7fffffff})
        EXPECT_TRUE(writer.exchange(code) != 0 && writer.resp()->nerr > 0) << "code " << code;
    // Still served after all that.
    EXPECT_EQ(writer.exchange(ORBPING), 0);
    EXPECT_EQ(writer.exchange(ORBSETLOGGING), 0);
    WireClient victim, admin;
    ASSERT_TRUE(join(victim, 'r', "victim"));
    writer.req()->thread = thread_id(victim);
    writer.req()->newpri = 5;
    EXPECT_EQ(writer.exchange(ORBSETPRI), 0);
    writer.req()->thread = thread_id(victim);
    EXPECT_EQ(writer.exchange(ORBKILL), 0);
    victim.set_timeout(5000);
    EXPECT_EQ(victim.exchange(ORBPING), kFailed);  // dropped
    writer.req()->thread = 424242;
    EXPECT_NE(writer.exchange(ORBKILL), 0);
    // ORBCLOSE is answered and the connection then closed.
    EXPECT_EQ(writer.exchange(ORBCLOSE), 0);
    EXPECT_EQ(writer.exchange(ORBPING), kFailed);
    expect_logged({"killed"});
    // ORBHALT ends the server cleanly (its exit status is checked on tear-down).
    ASSERT_TRUE(join(admin, 'w'));
    EXPECT_EQ(admin.exchange(ORBHALT), 0);
    server->wait_exit();
}

INSTANTIATE_TEST_SUITE_P(Stores, Requests, ::testing::Values("file", "jetstream"),
                         [](const auto& info) { return info.param; });

class Sharing : public testsupport::ServerTest {
protected:
    // A forbserver on the ring over a socketpair, opened with perm.
    bool forb(WireClient& c, char perm, const char* what = "server_test", std::vector<std::string> a = {}) {
        a.push_back(ring);
        return c.spawn_forb(a, log) && c.open(perm, what) == 0;
    }
    // Starts an orbserver on the ring file (or another).
    bool up(std::vector<std::string> args = {}, std::string path = "") {
        return start("", args, path.empty() ? ring : path);
    }
    TempDir dir{"forb-test"};
    std::string ring = dir / "ring", log = dir / "forbserver.log";
};

TEST_F(Sharing, AForbserverServesItsOneClientToTheEnd) {
    // A bad ring file is reported, not served (a forbserver's refusal: DamagedRing, tests/ferrant).
    std::string bad = dir.file("bad", std::string(100000, 'j'));
    EXPECT_FALSE(up({}, bad));
    expect_logged({bad.c_str()});
    // Only the ring itself takes a packet above what the protocol carries (another writer of the
    // file, or damage); a stream must not stick on it.
    {
        ring::Geometry g;
        g.data_bytes = 16 << 20;
        auto r = ring::Ring::open_or_create(ring, g);
        std::string huge(5000000, 'h');
        ASSERT_GE(r->put("F/huge", 1, huge.data(), huge.size()), 0);
        ASSERT_GE(r->put("F/small", 2, "after", 5), 0);
    }
    WireClient w;
    ASSERT_TRUE(forb(w, 'w', "server_test", {"-s16M"}));
    ASSERT_EQ(w.exchange(ORBSTAT), 0);
    EXPECT_EQ(w.resp()->orbstat.maxdata, 16u << 20);
    ASSERT_NE(w.seek(ORBOLDEST), kFailed);
    ASSERT_TRUE(w.reap());
    EXPECT_EQ(w.next_pkt().str(), "1 2 F/small after");
    // Every answer is read only after the last request and the end of input have been sent, so
    // the answers back up far past what the server keeps pending before it reads on.
    std::string big(900000, 'b');
    int id = w.putx("F/big", 1, big);
    ASSERT_GE(id, 0);
    w.req()->what = ORBGET, w.req()->pktcode = id;
    for (int i = 0; i < 12; i++) ASSERT_TRUE(w.send());
    ASSERT_EQ(shutdown(w.fd(), SHUT_WR), 0);
    for (int i = 0; i < 12; i++)
        ASSERT_TRUE(w.recv(ORBGET) == 0 && w.resp()->pkg->packetsize == int(big.size())) << "answer " << i;
    w.disconnect();  // a forbserver serves one client and exits when it leaves
    EXPECT_TRUE(WIFEXITED(w.child_status()) && WEXITSTATUS(w.child_status()) == 0) << w.child_status();
    std::string text = slurp(log);
    EXPECT_EQ(text.find("connection lost"), std::string::npos) << text;
    EXPECT_NE(text.find("can't encode packet"), std::string::npos) << text;
}

TEST_F(Sharing, ForbserversAndAnOrbserverShareTheRing) {
    constexpr int kPackets = 2000;
    ASSERT_TRUE(up({"-s", "64M"})) << server->log();
    WireClient tcp_reader, forb_reader, forb_writer, tcp_writer;
    ASSERT_TRUE(join(tcp_reader, 'r', "tcp_reader"));
    ASSERT_TRUE(forb(forb_reader, 'r', "forb_reader"));
    ASSERT_EQ(forb_reader.select("B/.*"), 0);
    ASSERT_TRUE(forb(forb_writer, 'w', "forb_writer"));
    ASSERT_TRUE(join(tcp_writer, 'w', "tcp_writer"));
    // Each front end's clients appear in every front end's client list.
    for (WireClient* c : {&tcp_reader, &forb_reader}) {
        ASSERT_EQ(c->exchange(ORBCLIENTS), 0);
        std::set<std::string> whats;
        for (int i = 0; i < c->resp()->nclient; i++) whats.insert(c->resp()->client[i].what);
        EXPECT_EQ(whats, (std::set<std::string>{"tcp_reader", "forb_reader", "forb_writer", "tcp_writer"}));
    }
    ASSERT_TRUE(tcp_reader.reap());
    ASSERT_TRUE(forb_reader.reap());
    // Two writers through two front ends: A/ packets from the forbserver, B/ from TCP.
    auto write = [&](WireClient* w, const char* src) {
        for (int i = 0; i < kPackets; i++) w->put(src, i, body(i));
        w->exchange(ORBPING);
    };
    std::thread a(write, &forb_writer, "A/x"), b(write, &tcp_writer, "B/x");
    // The TCP reader sees both sources, each in its own order; the selecting forbserver reader
    // only B, woken by the orbserver's appends.
    int next_a = 0, next_b = 0, last = -1;
    Pkt p;
    while (next_a + next_b < 2 * kPackets) {
        ASSERT_EQ(tcp_reader.next(&p), 0) << next_a << " " << next_b;
        int& n = p.srcname == "A/x" ? next_a : next_b;
        ASSERT_EQ(index_of(p.data), n) << p.srcname << " pktid " << p.pktid << " after " << last;
        ASSERT_EQ(p.data, body(n++));
        EXPECT_EQ(p.pktid, ++last);
    }
    int only_b = 0;
    while (only_b < kPackets && forb_reader.next(&p) == 0 && p.srcname == "B/x" && p.data == body(only_b))
        only_b++;
    a.join();
    b.join();
    EXPECT_EQ(only_b, kPackets);
    // Large packets go out straight from the ring as far as the socket takes them and the rest is
    // queued; a reader that lags behind must still see every byte in order.
    auto big = [](int i) {
        std::string s(300000 + 70000 * i, '\0');
        for (size_t k = 0; k < s.size(); k++) s[k] = char(k * 131 + i * 7 + k / 4099);
        return s;
    };
    for (int i = 0; i < 12; i++) ASSERT_TRUE(forb_writer.put("B/big", i, big(i)));
    ASSERT_EQ(forb_writer.exchange(ORBPING), 0);
    for (WireClient* c : {&tcp_reader, &forb_reader}) {
        for (int i = 0; i < 12; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            p = c->next_pkt();
            EXPECT_TRUE(p.time == i && p.data == big(i)) << "packet " << i << " differs";
        }
    }
}

TEST_F(Sharing, AKillMidAppendsLeavesTheRingConsistentAndRestartsKeepIt) {
    ASSERT_TRUE(up({"-s", "256k"})) << server->log();
    WireClient w, r;
    ASSERT_TRUE(join(w, 'w'));
    double orb_start = w.resp()->orb_start;
    // Puts stream in without answers; the server dies somewhere among them.
    std::thread killer([&] {
        usleep(30000);
        server->kill();
    });
    for (int i = 0; i < 200000 && w.put("K/x", i, body(i)); i++) {
    }
    killer.join();
    w.disconnect();
    ASSERT_TRUE(server->start()) << server->log();
    ASSERT_TRUE(join(r, 'r'));
    EXPECT_EQ(r.resp()->orb_start, orb_start);
    double server_start = r.resp()->server_start;
    int latest = r.resp()->latest_pktid;
    ASSERT_GE(latest, 0);
    ASSERT_GE(r.seek(ORBOLDEST), 0);
    // Every packet left is whole, in order and consecutive up to the newest.
    Pkt p = r.get_pkt(ORBNEXT);
    for (int id = p.pktid, i = index_of(p.data);; id++, i++, p = r.get_pkt(ORBNEXT)) {
        ASSERT_EQ(words(p.pktid, p.data), words(id, body(i)));
        if (id == latest) break;
    }
    // And the ring takes new packets after the last one.
    ASSERT_TRUE(join(w, 'w'));
    int base = latest + 1;
    for (int i = 0; i < 50; i++) ASSERT_EQ(w.putx("P/x", 10 + i, body(i)), base + i);
    w.disconnect();
    // A clean restart keeps the packets and the ring's start.
    server->stop();
    usleep(20000);  // a new server start time, to the clock's resolution and beyond
    ASSERT_TRUE(server->start()) << server->log();
    for (int pass = 0; pass < 2; pass++) {  // through TCP, then a forbserver on the same ring
        WireClient c;
        ASSERT_TRUE(pass == 0 ? join(c, 'r') : forb(c, 'r'));
        EXPECT_EQ(c.resp()->orb_start, orb_start);
        EXPECT_NE(c.resp()->server_start, server_start);
        EXPECT_EQ(c.resp()->latest_pktid, base + 49);
        ASSERT_EQ(c.seek(base - 1), base - 1);
        ASSERT_TRUE(c.reap(50));
        for (int i = 0; i < 50; i++) EXPECT_EQ(c.next_pkt().str(), words(base + i, 10 + i, "P/x", body(i)));
    }
}

TEST_F(Sharing, EvictionMovesAnEvictedReaderToTheOldest) {
    ASSERT_TRUE(up({"-s", "64k"})) << server->log();
    WireClient w, r, late;
    ASSERT_TRUE(join(w, 'w'));
    ASSERT_TRUE(join(r, 'r'));
    std::string big(1000, 'x');
    for (int i = 0; i < 5; i++) w.putx("E/x", i, big);
    ASSERT_EQ(r.seek(1), 1);  // the reader stands at packet 1
    for (int i = 5; i < 300; i++) w.putx("E/x", i, big);
    // Packet 1 is long gone; the reader goes on from the oldest present.
    int oldest = r.seek(ORBOLDEST);
    ASSERT_GT(oldest, 5);
    r.expect_steps({{'s', 1, kFailed}, {'t', 0, oldest}});  // the failed seek left it at the oldest
    ASSERT_TRUE(join(late, 'r'));
    late.expect_steps({{'s', ORBOLDEST, oldest}, {'s', ORBNEXT, oldest}});
    // Stand the late reader at a packet and let it be evicted under it.
    for (int i = 300; i < 600; i++) w.putx("E/x", i, big);
    ASSERT_TRUE(late.reap(1));
    int got = late.next_id();
    EXPECT_GT(got, oldest + 5);
    EXPECT_EQ(got, r.seek(ORBOLDEST));
}

TEST_F(Sharing, PacketIdsWrapAtTheModulus) {
    ASSERT_TRUE(up({"-m", "16", "-n", "8"})) << server->log();
    WireClient w, r;
    ASSERT_TRUE(join(w, 'w'));
    ASSERT_TRUE(join(r, 'r'));
    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    EXPECT_EQ(r.resp()->orbstat.maxpkts, 16);
    ASSERT_TRUE(r.reap());
    for (int i = 0; i < 40; i++) EXPECT_EQ(w.putx("M/x", i, body(i)), i % 16) << i;
    for (int i = 0; i < 40; i++) EXPECT_EQ(r.next_pkt().str(), words(i % 16, i, "M/x", body(i)));
    // Positions by pktid work across the wrap: 36..39 are 4..7.
    EXPECT_EQ(r.seek(5), 5);
    EXPECT_EQ(r.get_pkt(ORBCURRENT).data, body(37));
    EXPECT_EQ(r.get_pkt(ORBNEXT).data, body(38));
    EXPECT_EQ(r.seek(ORBOLDEST), 0);  // 32 % 16: the 8 newest are kept
    EXPECT_EQ(r.get_pkt(ORBCURRENT).data, body(32));
    EXPECT_EQ(r.seek(10), kFailed);  // 26 is gone, 42 not yet there
}

}  // namespace

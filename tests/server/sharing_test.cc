// One ring file served by several front ends at once (forbservers over socketpairs, an orbserver
// over TCP), and what the ring keeps across restarts, eviction and packet-id wrap.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "ring/ring.h"
#include "wire_client.h"

using testsupport::Pkt;
using testsupport::slurp;
using testsupport::WireClient;

namespace {

constexpr int kFailed = WireClient::kFailed;

std::string body(int i) {
    std::string s = "#" + std::to_string(i) + ":";
    s.resize(40 + i % 200, char('a' + i % 26));
    return s;
}

// Index of the packet a body was made for, or -1.
int index_of(const std::string& data) { return data.size() < 2 || data[0] != '#' ? -1 : std::atoi(data.c_str() + 1); }

class Sharing : public testsupport::ServerTest {
protected:
    // A forbserver on the ring over a socketpair, opened with perm.
    bool forb(WireClient& c, char perm, const char* what = "server_test", std::vector<std::string> extra = {}) {
        extra.push_back(ring);
        return c.spawn_forb(extra, log) && c.open(perm, what) == 0;
    }
    // Starts an orbserver on the ring file (or another).
    bool up(std::vector<std::string> args = {}, std::string path = "") { return start("", args, path.empty() ? ring : path); }
    TempDir dir{"forb-test"};
    std::string ring = dir / "ring", log = dir / "forbserver.log";
};

TEST_F(Sharing, AForbserverServesItsOneClientToTheEnd) {
    // A bad ring file is reported, not served: orbserver does not start, a forbserver exits 1.
    std::string bad = dir.file("bad", std::string(100000, 'j')), bad_log = dir / "bad.log";
    EXPECT_FALSE(up({}, bad));
    EXPECT_NE(server->log().find(bad), std::string::npos) << server->log();
    WireClient b;
    ASSERT_TRUE(b.spawn_forb({bad}, bad_log));
    EXPECT_NE(b.open('r'), 0);
    b.disconnect();
    EXPECT_TRUE(WIFEXITED(b.child_status()) && WEXITSTATUS(b.child_status()) == 1) << b.child_status();
    EXPECT_NE(slurp(bad_log).find(bad), std::string::npos);

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
    Pkt p;
    ASSERT_EQ(w.next(&p), 0);
    EXPECT_EQ(p.srcname + " " + p.data, "F/small after");

    // Every answer is read only after the last request and the end of input have been sent, so
    // the answers back up far past what the server keeps pending before it reads on.
    std::string big(900000, 'b');
    int id = w.putx("F/big", 1, big);
    ASSERT_GE(id, 0);
    for (int i = 0; i < 12; i++) {
        w.req()->what = ORBGET;
        w.req()->pktcode = id;
        ASSERT_TRUE(w.send());
    }
    ASSERT_EQ(shutdown(w.fd(), SHUT_WR), 0);
    for (int i = 0; i < 12; i++) {
        ASSERT_EQ(w.recv(ORBGET), 0) << "answer " << i;
        EXPECT_EQ(w.resp()->pkg->packetsize, int(big.size()));
    }
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
    while (only_b < kPackets && forb_reader.next(&p) == 0 && p.srcname == "B/x" && p.data == body(only_b)) only_b++;
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
            ASSERT_EQ(c->next(&p), 0) << i;
            EXPECT_EQ(p.time, i);
            EXPECT_TRUE(p.data == big(i)) << "packet " << i << " differs";
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
    Pkt p;
    ASSERT_EQ(r.get(ORBNEXT, &p), 0);
    for (int id = p.pktid, i = index_of(p.data);; id++, i++) {
        ASSERT_EQ(p.pktid, id);
        ASSERT_EQ(p.data, body(i)) << "pktid " << id;
        if (id == latest) break;
        ASSERT_EQ(r.get(ORBNEXT, &p), 0);
    }
    // And the ring takes new packets after the last one.
    ASSERT_TRUE(join(w, 'w'));
    int base = latest + 1;
    for (int i = 0; i < 50; i++) ASSERT_EQ(w.putx("P/x", 10 + i, body(i)), base + i);
    w.disconnect();
    // A restart keeps the packets, the ring's start and the port.
    std::string old_name = server->name();
    server->stop();
    usleep(20000);  // a new server start time, to the clock's resolution and beyond
    ASSERT_TRUE(server->start()) << server->log();
    EXPECT_EQ(server->name(), old_name);
    for (int pass = 0; pass < 2; pass++) {  // through TCP, then a forbserver on the same ring
        WireClient c;
        ASSERT_TRUE(pass == 0 ? join(c, 'r') : forb(c, 'r'));
        EXPECT_EQ(c.resp()->orb_start, orb_start);
        EXPECT_NE(c.resp()->server_start, server_start);
        EXPECT_EQ(c.resp()->latest_pktid, base + 49);
        ASSERT_EQ(c.seek(base - 1), base - 1);
        ASSERT_TRUE(c.reap(50));
        for (int i = 0; i < 50; i++) {
            ASSERT_EQ(c.next(&p), 0);
            EXPECT_EQ(p.str(), std::to_string(base + i) + " " + std::to_string(10 + i) + " P/x " + body(i));
        }
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
    Pkt p;
    ASSERT_EQ(late.next(&p), 0);
    EXPECT_GT(p.pktid, oldest + 5);
    EXPECT_EQ(p.pktid, r.seek(ORBOLDEST));
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
    Pkt p;
    for (int i = 0; i < 40; i++) {
        ASSERT_EQ(r.next(&p), 0);
        EXPECT_EQ(p.pktid, i % 16);
        EXPECT_EQ(p.data, body(i));
    }
    // Positions by pktid work across the wrap: 36..39 are 4..7.
    EXPECT_EQ(r.seek(5), 5);
    ASSERT_EQ(r.get(ORBCURRENT, &p), 0);
    EXPECT_EQ(p.data, body(37));
    ASSERT_EQ(r.get(ORBNEXT, &p), 0);
    EXPECT_EQ(p.data, body(38));
    EXPECT_EQ(r.seek(ORBOLDEST), 0);  // 32 % 16: the 8 newest are kept
    ASSERT_EQ(r.get(ORBCURRENT, &p), 0);
    EXPECT_EQ(p.data, body(32));
    EXPECT_EQ(r.seek(10), kFailed);  // 26 is gone, 42 not yet there
}

}  // namespace

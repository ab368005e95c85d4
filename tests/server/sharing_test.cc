// One ring file served by several front ends at once (forbservers over
// socketpairs, an orbserver over TCP), and what the ring keeps across
// restarts, eviction and packet-id wrap.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ring/ring.h"
#include "support/orbserver.h"
#include "support/tempdir.h"
#include "wire_client.h"

using testsupport::OrbServer;
using testsupport::Pkt;
using testsupport::WireClient;

namespace {

std::string body(int i) {
    std::string s = "#" + std::to_string(i) + ":";
    s.resize(40 + i % 200, char('a' + i % 26));
    return s;
}

// Index of the packet a body was made for, or -1.
int index_of(const std::string& data) {
    if (data.size() < 2 || data[0] != '#') return -1;
    return std::atoi(data.c_str() + 1);
}

class Sharing : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir.path.empty()); }
    // A forbserver on the ring over a socketpair, opened with perm.
    bool forb(WireClient& c, char perm, const char* what = "server_test",
              std::vector<std::string> extra = {}) {
        extra.push_back(ring);
        return c.spawn_forb(extra, log) && c.open(perm, what) == 0;
    }
    // Starts an orbserver on the same ring file.
    bool up(std::vector<std::string> args = {}) {
        OrbServer::Options o;
        o.ring = ring;
        o.args = std::move(args);
        server = std::make_unique<OrbServer>(o);
        return server->up();
    }
    bool tcp(WireClient& c, char perm, const char* what = "server_test") {
        return c.connect_tcp(server->name()) && c.open(perm, what) == 0;
    }
    TempDir dir{"forb-test"};
    std::string ring = dir / "ring", log = dir / "forbserver.log";
    std::unique_ptr<OrbServer> server;
};

TEST_F(Sharing, RequestsSentBeforeTheClientStopsSendingAreAllAnswered) {
    WireClient w;
    ASSERT_TRUE(forb(w, 'w', "server_test", {"-s16M"}));
    ASSERT_EQ(w.exchange(ORBSTAT), 0);
    EXPECT_EQ(w.resp()->orbstat.maxdata, 16u << 20);
    std::string big(900000, 'b');
    int id = w.putx("F/big", 1, big);
    ASSERT_GE(id, 0);
    // Every answer is read only after the last request and the end of input
    // have been sent, so the answers back up far past what the server keeps
    // pending before it reads on.
    const int n = 12;
    for (int i = 0; i < n; i++) {
        w.req()->what = ORBGET;
        w.req()->pktcode = id;
        ASSERT_TRUE(w.send());
    }
    ASSERT_EQ(shutdown(w.fd(), SHUT_WR), 0);
    for (int i = 0; i < n; i++) {
        ASSERT_EQ(w.recv(ORBGET), 0) << "answer " << i;
        EXPECT_EQ(w.resp()->pkg->packetsize, int(big.size()));
    }
    w.disconnect();  // a forbserver serves one client and exits when it leaves
    EXPECT_TRUE(WIFEXITED(w.child_status()));
    EXPECT_EQ(WEXITSTATUS(w.child_status()), 0);
    std::string text = testsupport::slurp(log);
    EXPECT_EQ(text.find("connection lost"), std::string::npos) << text;
}

// Large packets go out straight from the ring as far as the socket takes
// them and the rest is queued; a reader that lags behind must still see every
// byte in order, through a forbserver and through TCP.
TEST_F(Sharing, LargePacketsReachALaggingReaderWhole) {
    auto big = [](int i) {
        std::string s(300000 + 70000 * i, '\0');
        for (size_t k = 0; k < s.size(); k++) s[k] = char(k * 131 + i * 7 + k / 4099);
        return s;
    };
    ASSERT_TRUE(up({"-s", "64M"})) << server->log();
    WireClient tcp_reader, forb_reader, writer;
    ASSERT_TRUE(tcp(tcp_reader, 'r'));
    ASSERT_TRUE(forb(forb_reader, 'r'));
    ASSERT_TRUE(forb(writer, 'w'));
    ASSERT_TRUE(tcp_reader.reap());
    ASSERT_TRUE(forb_reader.reap());
    constexpr int n = 12;
    for (int i = 0; i < n; i++) ASSERT_TRUE(writer.put("L/x", i, big(i)));
    ASSERT_EQ(writer.exchange(ORBPING), 0);
    for (WireClient* c : {&tcp_reader, &forb_reader}) {
        for (int i = 0; i < n; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            Pkt p;
            ASSERT_EQ(c->next(&p), 0) << i;
            EXPECT_EQ(p.time, i);
            EXPECT_TRUE(p.data == big(i)) << "packet " << i << " differs";
        }
    }
}

TEST_F(Sharing, APacketTooLargeToSendIsPassedOverNotRetried) {
    // Only the ring itself takes a packet above what the protocol carries
    // (another writer of the file, or damage); a stream must not stick on it.
    {
        ring::Geometry g;
        g.data_bytes = 16 << 20;
        auto r = ring::Ring::open_or_create(ring, g);
        std::string huge(5000000, 'h');
        ASSERT_GE(r->put("F/huge", 1, huge.data(), huge.size()), 0);
        ASSERT_GE(r->put("F/small", 2, "after", 5), 0);
    }
    WireClient w;
    ASSERT_TRUE(forb(w, 'r'));
    ASSERT_NE(w.seek(ORBOLDEST), WireClient::kFailed);
    ASSERT_TRUE(w.reap());
    Pkt p;
    ASSERT_EQ(w.next(&p), 0);
    EXPECT_EQ(p.srcname, "F/small");
    EXPECT_EQ(p.data, "after");
    w.disconnect();
    EXPECT_NE(testsupport::slurp(log).find("can't encode packet"), std::string::npos);
}

TEST_F(Sharing, ForbserversAndAnOrbserverShareTheRing) {
    constexpr int kPackets = 2000;
    ASSERT_TRUE(up()) << server->log();
    WireClient tcp_reader, forb_reader, forb_writer, tcp_writer;
    ASSERT_TRUE(tcp(tcp_reader, 'r', "tcp_reader"));
    ASSERT_TRUE(forb(forb_reader, 'r', "forb_reader"));
    ASSERT_EQ(forb_reader.select("B/.*"), 0);
    ASSERT_TRUE(forb(forb_writer, 'w', "forb_writer"));
    ASSERT_TRUE(tcp(tcp_writer, 'w', "tcp_writer"));

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
    std::thread a([&] {
        for (int i = 0; i < kPackets; i++) forb_writer.put("A/x", i, body(i));
        forb_writer.exchange(ORBPING);
    });
    std::thread b([&] {
        for (int i = 0; i < kPackets; i++) tcp_writer.put("B/x", i, body(i));
        tcp_writer.exchange(ORBPING);
    });
    // The TCP reader sees both sources, each in its own order; the selecting
    // forbserver reader only B, woken by the orbserver's appends.
    int next_a = 0, next_b = 0, last = -1;
    Pkt p;
    while (next_a + next_b < 2 * kPackets) {
        ASSERT_EQ(tcp_reader.next(&p), 0) << next_a << " " << next_b;
        int& n = p.srcname == "A/x" ? next_a : next_b;
        ASSERT_EQ(index_of(p.data), n) << p.srcname << " pktid " << p.pktid << " after " << last;
        ASSERT_EQ(p.data, body(n));
        n++;
        EXPECT_EQ(p.pktid, last + 1);
        last = p.pktid;
    }
    int only_b = 0;
    while (only_b < kPackets && forb_reader.next(&p) == 0 && p.srcname == "B/x" &&
           p.data == body(only_b))
        only_b++;
    a.join();
    b.join();
    EXPECT_EQ(next_a, kPackets);
    EXPECT_EQ(next_b, kPackets);
    EXPECT_EQ(only_b, kPackets);
}

TEST_F(Sharing, RestartKeepsPacketsAndRingStart) {
    ASSERT_TRUE(up()) << server->log();
    double orb_start, server_start;
    {
        WireClient w;
        ASSERT_TRUE(tcp(w, 'w'));
        orb_start = w.resp()->orb_start;
        server_start = w.resp()->server_start;
        for (int i = 0; i < 50; i++) ASSERT_EQ(w.putx("P/x", 10 + i, body(i)), i);
    }
    std::string old_name = server->name();
    server->stop();
    usleep(20000);  // a new server start time, to the clock's resolution and beyond
    ASSERT_TRUE(server->start()) << server->log();
    EXPECT_EQ(server->name(), old_name);  // same port

    // The same ring through a forbserver too.
    for (int pass = 0; pass < 2; pass++) {
        WireClient r;
        ASSERT_TRUE(pass == 0 ? tcp(r, 'r') : forb(r, 'r'));
        EXPECT_EQ(r.resp()->orb_start, orb_start);
        EXPECT_NE(r.resp()->server_start, server_start);
        EXPECT_EQ(r.resp()->latest_pktid, 49);
        ASSERT_EQ(r.seek(ORBOLDEST), 0);
        ASSERT_TRUE(r.reap(50));
        Pkt p;
        for (int i = 0; i < 50; i++) {
            ASSERT_EQ(r.next(&p), 0);
            EXPECT_EQ(p.pktid, i);
            EXPECT_EQ(p.data, body(i));
            EXPECT_DOUBLE_EQ(p.time, 10 + i);
        }
    }
}

TEST_F(Sharing, KilledMidAppendsTheRingStaysConsistent) {
    ASSERT_TRUE(up({"-s", "256k"})) << server->log();
    double orb_start;
    {
        WireClient w;
        ASSERT_TRUE(tcp(w, 'w'));
        orb_start = w.resp()->orb_start;
        // Puts stream in without answers; the server dies somewhere among them.
        std::thread killer([&] {
            usleep(30000);
            server->kill();
        });
        for (int i = 0; i < 200000 && w.put("K/x", i, body(i)); i++) {
        }
        killer.join();
    }
    ASSERT_TRUE(server->start()) << server->log();
    WireClient r;
    ASSERT_TRUE(tcp(r, 'r'));
    EXPECT_EQ(r.resp()->orb_start, orb_start);
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
    WireClient w;
    ASSERT_TRUE(tcp(w, 'w'));
    EXPECT_EQ(w.putx("K/x", 0, "after"), latest + 1);
}

TEST_F(Sharing, EvictionMovesAnEvictedReaderToTheOldest) {
    ASSERT_TRUE(up({"-s", "64k"})) << server->log();
    WireClient w, r;
    ASSERT_TRUE(tcp(w, 'w'));
    ASSERT_TRUE(tcp(r, 'r'));
    std::string big(1000, 'x');
    for (int i = 0; i < 5; i++) w.putx("E/x", i, big);
    ASSERT_EQ(r.seek(1), 1);  // the reader stands at packet 1
    for (int i = 5; i < 300; i++) w.putx("E/x", i, big);
    // Packet 1 is long gone; the reader goes on from the oldest present.
    int oldest = r.seek(ORBOLDEST);
    ASSERT_GT(oldest, 5);
    ASSERT_EQ(r.seek(1), WireClient::kFailed);
    ASSERT_EQ(r.tell(), oldest);  // the failed seek left the reader at the oldest
    WireClient late;
    ASSERT_TRUE(tcp(late, 'r'));
    ASSERT_EQ(late.seek(ORBOLDEST), oldest);
    ASSERT_EQ(late.seek(ORBNEXT), oldest);
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
    ASSERT_TRUE(tcp(w, 'w'));
    ASSERT_TRUE(tcp(r, 'r'));
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
    EXPECT_EQ(r.seek(10), WireClient::kFailed);  // 26 is gone, 42 not yet there
}

TEST_F(Sharing, BadRingFilesAreReportedNotServed) {
    {
        std::ofstream(ring) << std::string(100000, 'j');
    }
    EXPECT_FALSE(up());
    EXPECT_NE(server->log().find(ring), std::string::npos) << server->log();
    // A forbserver on it dies with its message rather than answering.
    WireClient r;
    ASSERT_TRUE(r.spawn_forb({ring}, log));
    EXPECT_NE(r.open('r'), 0);
    r.disconnect();
    EXPECT_TRUE(WIFEXITED(r.child_status()));
    EXPECT_EQ(WEXITSTATUS(r.child_status()), 1);
    EXPECT_NE(testsupport::slurp(log).find(ring), std::string::npos);
}

}  // namespace

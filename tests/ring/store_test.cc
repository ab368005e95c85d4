// The ring-store contract, run against the ring file and against a JetStream stream on a real three-node
// cluster; then what only a cluster can do wrong.
#include "ring/store.h"
#include "ring/store_jetstream.h"
#include "ring/store_jetstream_clients.h"

#include <gmock/gmock.h>

#include <cstring>
#include <future>

#include "ferrant/harness.h"
#include "support/nats_cluster.h"

using namespace ring;
using testing::HasSubstr;

namespace {

std::unique_ptr<nats_test::Cluster> the_cluster;
std::string cluster_error;

nats_test::Cluster* cluster() {
    if (!the_cluster && cluster_error.empty()) {
        cluster_error = nats_test::server_binary().empty() ? "nats-server is not installed" : "";
        if (!cluster_error.empty()) return nullptr;
        the_cluster = std::make_unique<nats_test::Cluster>();
        if (!(cluster_error = the_cluster->wait_ready()).empty()) the_cluster.reset();
    }
    return the_cluster.get();
}

// The JetStream mirror follows the stream a moment after a put.
bool eventually(const std::function<bool()>& cond) { return ferrant_test::eventually(cond, 30); }

std::string bytes(int i, size_t n = 100) { return std::string(n, char('a' + i % 26)) + std::to_string(i); }

int64_t put(RingStore& s, const std::string& src, double t, const std::string& d, std::string* why = {}) {
    return s.put(src, t, d.data(), d.size(), why);
}

// The packet's bytes, its index data into *e; "absent" when it is not there.
std::string data_at(const RingStore& s, uint64_t seq, Entry* e = nullptr) {
    Entry x;
    std::vector<char> buf;
    return s.read(seq, e ? e : &x, buf) ? std::string(buf.begin(), buf.end()) : "absent";
}

class Store : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override { if (GetParam() == "jetstream" && !cluster()) GTEST_SKIP() << cluster_error; }
    // Only the limits of a Geometry apply to both: data_bytes, nslots, maxpkts.
    std::unique_ptr<RingStore> make(Geometry l) {
        std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        name = name.substr(0, name.find('/')) + std::to_string(getpid());
        if (GetParam() == "file") return open_file_store(dir / name, l);
        return open_jetstream_store({cluster()->urls(), name, l.data_bytes, l.nslots, l.maxpkts});
    }
    TempDir dir;
};

// Appends and reads, synchronous and asynchronous, and waiters woken by both a put and a request.
TEST_P(Store, AppendsReadsBackAndWakes) {
    auto s = make({});
    const std::string odd = "NET_STA/%20 x\x01";
    EXPECT_EQ(put(*s, "NET_STA_CHAN/MGENC", 100.25, bytes(0)), 0);
    EXPECT_EQ(put(*s, odd, 1e9 + 1.0 / 3, bytes(1)), 1);
    EXPECT_EQ(put(*s, "", 0, ""), 2);
    std::string why;
    EXPECT_EQ(put(*s, std::string(64, 'x'), 0, "", &why), -1);
    EXPECT_THAT(why, HasSubstr("63 bytes"));
    ASSERT_TRUE(eventually([&] { return s->head() == 3; }));
    EXPECT_EQ(s->oldest(), 0u);
    EXPECT_EQ(s->newest(), 2u);
    Entry e;
    EXPECT_EQ(data_at(*s, 1, &e), bytes(1));
    EXPECT_EQ(std::tuple(std::string(e.srcname), e.time, e.pktid), std::tuple(odd, 1e9 + 1.0 / 3, 1));
    EXPECT_EQ(data_at(*s, 2), "");
    const char* data;
    ASSERT_TRUE(s->view(0, &e, &data) && s->still_valid(0));
    EXPECT_EQ(std::string(data, e.size), bytes(0));
    std::vector<char> buf;
    ASSERT_TRUE(s->read(0, &e, buf, 10));  // a copy cut short, the size whole
    EXPECT_EQ(std::pair(buf.size(), size_t(e.size)), std::pair(size_t(10), bytes(0).size()));
    EXPECT_FALSE(s->entry(3, &e));

    std::mutex m;
    std::vector<int64_t> seqs, want;
    for (int i = 3; i < 303; i++) {  // more than a window
        std::string d = bytes(i);
        want.push_back(i);
        s->put_async("A", i, d.data(), d.size(), [&](int64_t q, auto&) {
            std::lock_guard lk(m);
            seqs.push_back(q);
        });
    }
    s->flush();
    EXPECT_EQ((std::lock_guard(m), seqs), want);

    auto waiter = [&](uint64_t seen) {
        uint32_t since = s->wake_count();
        return std::async(std::launch::async, [&s, seen, since] { return s->wait_since(seen, since, -1); });
    };
    // 1: woken with a new packet, 0: woken with none, -1: still asleep
    auto outcome = [](auto& f) {
        return f.wait_for(std::chrono::seconds(60)) == std::future_status::ready ? int(f.get()) : -1;
    };
    ASSERT_TRUE(eventually([&] { return s->head() == 303; }));
    auto woken = waiter(303);
    put(*s, "A", 1, "x");
    EXPECT_EQ(outcome(woken), 1);
    woken = waiter(s->head());
    s->wake_all();
    EXPECT_EQ(outcome(woken), 0);
}

// Four slots and five ids: ids wrap, the oldest go, and what is counted, found and sought by time is what is
// present.
TEST_P(Store, IdsWrapAndThePacketLimitDiscardsTheOldest) {
    auto s = make({1 << 20, 4, 5});
    for (int i = 0; i < 12; i++) ASSERT_EQ(put(*s, i % 2 ? "B" : "A", 100 + i, bytes(i, 10 + i)), i);
    ASSERT_TRUE(eventually([&] { return s->tail() == 8 && s->head() == 12; }));
    for (uint64_t seq = 8; seq < 12; seq++) {
        EXPECT_EQ(s->pktid(seq), int32_t(seq % 5));
        EXPECT_EQ(s->find(int32_t(seq % 5)), seq);
    }
    for (int id : {2, 5, -1}) EXPECT_EQ(s->find(id), std::nullopt) << id;  // 2: its packet, seq 7, is gone
    EXPECT_EQ(s->next_seq(3), 8u);
    EXPECT_EQ(s->prev_seq(8), std::nullopt);
    EXPECT_EQ(data_at(*s, 7), "absent");
    EXPECT_EQ(data_at(*s, 8), bytes(8, 18));
    for (auto [t, want] : {std::pair{108.5, 9}, {108.0, 9}, {0.0, 8}, {111.0, -1}})
        EXPECT_EQ(s->after_time(t).value_or(-1), uint64_t(want)) << t;
    auto v = s->sources();
    ASSERT_EQ(v.size(), 2u);
    std::sort(v.begin(), v.end(), [](auto& a, auto& b) { return std::string(a.srcname) < b.srcname; });
    EXPECT_EQ(v[0].npkts, 2u);
    EXPECT_EQ(v[0].nbytes, bytes(8, 18).size() + bytes(10, 20).size());
    EXPECT_EQ(std::tuple(v[0].soldest_time, v[0].soldest, v[0].slatest), std::tuple(108.0, 3, 0));
    EXPECT_EQ(std::tuple(v[1].npkts, v[1].soldest, v[1].slatest), std::tuple(2ul, 4, 1));
    EXPECT_EQ(s->status().nsources, 2u);
    // Another opener (front end) gets the ring as it is, whatever it asks for.
    auto again = make({1 << 20, 100, 1000});
    EXPECT_EQ(again->maxpkts(), 5);
    EXPECT_EQ(again->status().orb_start, s->status().orb_start);
    EXPECT_TRUE(eventually([&] { return again->tail() == 8 && data_at(*again, 11) == bytes(11, 21); }));
}

INSTANTIATE_TEST_SUITE_P(Stores, Store, testing::Values("file", "jetstream"),
                         [](const auto& p) { return p.param; });

class JetStream : public testing::Test {
protected:
    void SetUp() override {
        if (!cluster()) GTEST_SKIP() << cluster_error;
        o = {cluster()->urls(),
             testing::UnitTest::GetInstance()->current_test_info()->name() + std::to_string(getpid())};
    }
    JetStreamOptions o;
};

// Streams made beforehand: refused with the setting to change, or, when usable but without direct
// gets, read through the stream's leader.
TEST_F(JetStream, RefusesStreamsARingCannotUseAndReadsOnesWithoutDirectGets) {
    natsConnection* nc = nullptr;
    ASSERT_EQ(natsConnection_ConnectTo(&nc, ("nats://" + o.urls[0]).c_str()), NATS_OK);
    jsCtx* js = nullptr;
    natsConnection_JetStream(&js, nc, nullptr);
    struct Case { const char* says; jsRetentionPolicy retention; jsDiscardPolicy discard; const char* subj; };
    for (Case c : {Case{"setting retention", js_WorkQueuePolicy, js_DiscardOld, nullptr},
                   Case{"setting discard", js_LimitsPolicy, js_DiscardNew, nullptr},
                   Case{"setting subjects", js_LimitsPolicy, js_DiscardOld, "other.>"},
                   Case{nullptr, js_LimitsPolicy, js_DiscardOld, nullptr}}) {
        o.name = std::string(c.says ? "bad" : "plain") + std::to_string(c.discard + 2 * c.retention) +
                 std::to_string(getpid());
        std::string subject = c.subj ? c.subj : "orb." + o.name;
        const char* subjects[] = {subject.c_str()};
        jsStreamConfig cfg;
        jsStreamConfig_Init(&cfg);
        cfg.Name = o.name.c_str(), cfg.Subjects = subjects, cfg.SubjectsLen = 1;
        cfg.Retention = c.retention, cfg.Discard = c.discard;
        ASSERT_EQ(js_AddStream(nullptr, js, &cfg, nullptr, nullptr), NATS_OK) << o.name;
        if (!c.says) {
            EXPECT_TRUE(put(*open_jetstream_store(o), "A/x", 1, "one") == 0);
            auto st = open_jetstream_store(o);  // another front end: nothing cached
            EXPECT_TRUE(put(*st, "A/x", 2, "two") == 1);
            EXPECT_EQ(data_at(*st, 0) + data_at(*st, 1), "onetwo");
            continue;
        }
        EXPECT_THAT([&] { open_jetstream_store(o); }, testing::ThrowsMessage<Error>(HasSubstr(c.says)));
    }
    jsCtx_Destroy(js);
    natsConnection_Destroy(nc);
}

// One node gone: the other two still store and serve. Two gone: puts fail with the reason, in bounded time.
// Back: puts are stored again.
TEST_F(JetStream, ServesWithOneNodeKilledAndFailsWithoutQuorumUntilItReturns) {
    std::string limits, why;
    o.timeout_ms = 2000;
    auto s = open_jetstream_store(o, &limits);
    EXPECT_THAT(limits,
                HasSubstr("created: max_bytes 67108864, max_msgs 131072, max_age unlimited, replicas 3"));
    ASSERT_EQ(put(*s, "A", 1, bytes(1)), 0);
    cluster()->kill(0);
    int64_t seq = -1;
    ASSERT_TRUE(eventually([&] { return (seq = put(*s, "A", 2, bytes(2))) >= 1; }));
    EXPECT_TRUE(eventually([&] { return data_at(*s, uint64_t(seq)) == bytes(2); }));
    EXPECT_EQ(data_at(*s, 0), bytes(1));
    cluster()->kill(1);
    EXPECT_EQ(put(*s, "A", 3, bytes(3), &why), -1);
    EXPECT_THAT(why, HasSubstr("did not store the packet"));
    cluster()->start(0);
    cluster()->start(1);
    ASSERT_TRUE(eventually([&] { return (seq = put(*s, "A", 4, bytes(4))) > 1; })) << why;
    EXPECT_TRUE(eventually([&] { return data_at(*s, uint64_t(seq)) == bytes(4); }));
    EXPECT_EQ(cluster()->wait_ready(), "");   // whole again for the tests after
}

// Client tables as front ends share them through the cluster: what one writes another reads back field for
// field; what none would write is refused.
TEST(ClientBoard, TablesRoundTripAndHostileEntriesAreRefused) {
    Client c;
    c.pid = 77, c.thread = 3, c.fd = 9, c.port = 6510, c.perm = 'w', c.pktid = 123456;
    std::memcpy(c.address, "\x0a\x01\x02\x03", 4);
    std::strcpy(c.what, "ferrant2 -p x \"quoted\" \\ \xc3\xa9");
    std::strcpy(c.select, "vm/xfer/.*");
    c.nselect = 11, c.started = 1.5e9, c.lastpkt = 1.5e9 + 0.25, c.written = 4000000000u, c.errors = -2;
    std::vector<Client> back;
    ASSERT_TRUE(ClientBoard::decode(ClientBoard::encode({c, Client{}}), &back));
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(std::memcmp(&back[0].pid, &c.pid, offsetof(Client, who) - offsetof(Client, pid)), 0);
    EXPECT_EQ(std::tuple(std::string(back[0].what), std::string(back[0].select), back[0].nselect),
              std::tuple(std::string(c.what), std::string(c.select), 11));
    EXPECT_EQ(std::tuple(back[0].lastpkt, back[0].written, back[0].errors, back[1].pktid),
              std::tuple(c.lastpkt, c.written, -2, -1));
    // Over-long text is cut, always terminated.
    ASSERT_TRUE(ClientBoard::decode("{\"clients\":[{\"host\":\"" + std::string(200, 'h') + "\"}]}", &back));
    EXPECT_EQ(std::strlen(back[0].host), sizeof back[0].host - 1);
    for (const char* bad : {"", "null", "[]", "{\"clients\":7}", "{\"clients\":[1]}", "{\"clients\":[",
                            "{\"clients\":[{\"pid\":\"x\"}]}", "{\"clients\":[{\"who\":5}]}", "\xff\xfe"})
        EXPECT_FALSE(ClientBoard::decode(bad, &back)) << bad;
}

}  // namespace

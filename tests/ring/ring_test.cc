// The ring file on its own: one process, several processes sharing the file, a writer
// killed mid-put, and damaged files. What every ring store must do is in store_test.cc.
#include "ring/ring.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "support/child.h"
#include "support/tempdir.h"

namespace fs = std::filesystem;
using ring::Entry;
using ring::Geometry;
using ring::Ring;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

// A payload that says who wrote it and is checkable byte by byte; tag_of gives
// the writer << 32 | i it was made with, or -1 when it is damaged.
std::vector<char> payload(uint32_t writer, uint32_t i, size_t size) {
    std::vector<char> b(size);
    uint64_t tag = (uint64_t(writer) << 32) | i;
    for (size_t k = 0; k < size; k++) b[k] = char((tag * 2654435761u + k * 7) >> 3);
    if (size >= 8) std::memcpy(b.data(), &tag, 8);
    return b;
}

int64_t tag_of(const std::vector<char>& b) {
    uint64_t tag;
    if (b.size() < 8) return -1;
    std::memcpy(&tag, b.data(), 8);
    return payload(uint32_t(tag >> 32), uint32_t(tag), b.size()) == b ? int64_t(tag) : -1;
}

int64_t put(Ring& r, const std::string& name, double t, const std::vector<char>& b) {
    return r.put(name, t, b.data(), b.size());
}

void poke(const std::string& file, off_t at, const void* data, size_t n) {
    int fd = ::open(file.c_str(), O_RDWR);
    EXPECT_EQ(pwrite(fd, data, n, at), ssize_t(n)) << at;
    ::close(fd);
}

class RingTest : public ::testing::Test {
protected:
    TempDir dir{"ringtest"};
    std::string file = dir / "ring";
    Entry e;  // what the tests read into
    std::vector<char> b;
    void SetUp() override { alarm(25); }  // a wedged ring fails the test rather than hanging it
    void TearDown() override {
        alarm(0);
        Ring::test_hook_before_publish = nullptr;
    }
};

// The source table must equal one recomputed from the packets present: counts, bytes, seqs, ids, times.
void expect_sources_consistent(const Ring& r) {
    std::map<std::string, std::vector<double>> want, got;
    Entry e;
    for (uint64_t s = r.tail(); s < r.head(); s++) {
        if (!r.entry(s, &e) || e.src < 0) continue;
        auto& x = want[e.srcname];
        if (x.empty()) x = {0, 0, double(s), 0, double(r.pktid(s)), 0, e.time, 0};
        x = {x[0] + 1, x[1] + e.size, x[2], double(s), x[4], double(r.pktid(s)), x[6], e.time};
    }
    auto sources = r.sources();
    for (auto& x : sources)
        got[x.srcname] = {double(x.npkts), double(x.nbytes), double(x.oldest_seq), double(x.latest_seq),
                          double(x.soldest), double(x.slatest), x.soldest_time, x.slatest_time};
    EXPECT_EQ(got, want);
    EXPECT_EQ(std::pair(sources.size(), size_t(r.status().nsources)), std::pair(want.size(), want.size()));
}

// after_time(t) is the first packet present, in ring order, later than t.
void expect_after_time(const Ring& r, double t) {
    std::optional<uint64_t> want;
    Entry e;
    for (uint64_t s = r.tail(); s < r.head() && !want; s++)
        if (r.entry(s, &e) && e.time > t) want = s;
    EXPECT_EQ(r.after_time(t), want) << "t=" << t;
}

}  // namespace

TEST_F(RingTest, OpenRefusesWhatIsNotAWholeRingReopenKeepsWhatItHoldsAndClientsAreTracked) {
    auto refused = [&](std::string why) { return ThrowsMessage<ring::Error>(HasSubstr(file + ": " + why)); };
    EXPECT_THAT([&] { Ring::open(file); }, refused("No such file or directory"));
    EXPECT_THAT([&] { Ring::open(dir.path); }, ThrowsMessage<ring::Error>(HasSubstr(dir.path)));
    Ring::create(file, {.data_bytes = 8192, .nslots = 16})->put("s", 1, "x", 1);
    auto whole = fs::file_size(file);
    std::string good = dir / "good";
    fs::copy_file(file, good);
    auto restore = [&] { fs::copy_file(good, file, fs::copy_options::overwrite_existing); };
    // Cut short, or junk where the header should be: refused, and never replaced silently.
    for (auto size : {whole - 1, whole / 2, uintmax_t(4096), uintmax_t(200), uintmax_t(0)}) {
        restore();
        fs::resize_file(file, size);
        EXPECT_THAT([&] { Ring::open(file); },
                    refused(size < 4096 ? "not a ring file or truncated" : "ring file is truncated")) << size;
        EXPECT_THROW(Ring::open_or_create(file, {}), ring::Error) << size;
        EXPECT_EQ(fs::file_size(file), size);
    }
    std::ofstream(file, std::ios::binary | std::ios::trunc) << std::string(70000, 'j');
    EXPECT_THAT([&] { Ring::open(file); }, refused("not a ring file (bad magic)"));
    // Every byte of the geometry matters.
    char header[136];
    std::ifstream(good, std::ios::binary).read(header, sizeof header);
    for (int at = 0; at < 136; at++) {
        restore();
        char c = char(header[at] ^ 0x10);
        poke(file, at, &c, 1);
        EXPECT_THROW(Ring::open(file), ring::Error) << "flipped byte " << at;
    }
    // head and tail must fit the geometry; a tail beyond the head cannot be.
    restore();
    uint64_t v[2] = {0, 9};  // head 0, tail 9
    poke(file, 256, v, sizeof v);
    EXPECT_THAT([&] { Ring::open(file); }, refused("ring header is corrupt (packet bounds 9..0)"));
    restore();
    EXPECT_EQ(Ring::open(file)->head(), 1u);
    // Packets, stash, geometry and orb_start stay across reopen; the stash keeps
    // the last packet per source, outside the sequence.
    double start;
    {
        auto r = Ring::create(file, {.data_bytes = 1 << 16, .nslots = 16, .maxpkts = 1000, .maxsrc = 7,
                                     .maxclients = 5, .nstash = 2, .stash_bytes = 100});
        EXPECT_EQ(put(*r, "AA_BB/xfer", 10.5, payload(1, 0, 100)), 0);
        EXPECT_EQ(put(*r, "AA_CC/xfer", 11.5, payload(1, 1, 0)), 1);
        start = r->status().orb_start;
        EXPECT_TRUE(r->stash_put("A", 1, "one", 3) && r->stash_put("A", 2, "two!", 4) &&
                    r->stash_put("B", 3, "", 0));
        std::string why, big(101, 'x');
        EXPECT_FALSE(r->stash_put("A", 4, big.data(), big.size(), &why));
        EXPECT_EQ(why, "stash packet of 101 bytes exceeds the limit of 100");
        EXPECT_FALSE(r->stash_put(std::string(64, 'n'), 4, "x", 1));
        EXPECT_EQ(r->head(), 2u);
    }
    auto r = Ring::open(file);
    auto st = r->status();
    EXPECT_EQ(std::pair(st.orb_start, st.recoveries), std::pair(start, uint64_t(0)));  // closed cleanly
    EXPECT_EQ(std::vector<uint64_t>({st.data_bytes, st.nslots, uint64_t(st.maxpkts), st.maxsrc, st.maxclients,
                                     st.nstash, st.stash_bytes}),
              std::vector<uint64_t>({1 << 16, 16, 1000, 7, 5, 2, 100}));
    ASSERT_TRUE(r->read(0, &e, b));
    EXPECT_EQ(std::tuple(std::string(e.srcname), e.time, b),
              std::tuple("AA_BB/xfer", 10.5, payload(1, 0, 100)));
    EXPECT_EQ(put(*r, "AA_BB/xfer", 13, payload(1, 3, 10)), 2);  // the numbering goes on
    ASSERT_TRUE(r->stash_get("A", &e, b));
    EXPECT_EQ(std::string(b.begin(), b.end()), "two!");
    EXPECT_EQ(std::tuple(e.time, e.seq, e.pktid), std::tuple(2.0, 0ul, -1));
    EXPECT_FALSE(r->stash_get("C", &e, b));
    EXPECT_TRUE(r->stash_put("C", 5, "c", 1));  // full: the least recently stashed source gives way
    EXPECT_FALSE(r->stash_get("A", &e, b));
    EXPECT_TRUE(r->stash_get("B", &e, b) && r->stash_get("C", &e, b));
    EXPECT_TRUE(Ring::create(dir / "one", {.data_bytes = 8192, .nstash = 1})->stash_put("A", 1, "x", 1));
    // The client table tracks live clients and reclaims dead ones.
    r = Ring::create(file, {.data_bytes = 8192, .maxclients = 2});
    ring::Client c;
    c.perm = 'r';
    int32_t mine = r->client_add(c);
    ASSERT_GE(mine, 0);
    r->counters(mine)->pktid.store(42);
    r->counters(mine)->packets.fetch_add(3);
    r->client_set_select(mine, std::string(200, 'x'));  // shown cut short
    auto cl = r->clients();
    ASSERT_EQ(cl.size(), 1u);
    EXPECT_EQ(std::tuple(cl[0].pktid, cl[0].packets, cl[0].nselect, strlen(cl[0].select)),
              std::tuple(42, 3u, 96, size_t(95)));
    int32_t session = cl[0].thread;
    EXPECT_TRUE(r->session_active(session) && !r->session_active(session + 1) && !r->counters(99));

    // A child takes the other entry and dies without giving it back.
    ASSERT_EQ(child::reap(child::start([&] { return Ring::open(file)->client_add(c) >= 0 ? 0 : 1; }), 60), 0);
    EXPECT_EQ(r->status().nclients, 2u);  // not yet noticed
    EXPECT_GE(r->client_add(c), 0);       // the dead one's entry is reused
    EXPECT_EQ(r->client_add(c), -1);      // both live: full
    auto live = r->clients();
    ASSERT_EQ(live.size(), 2u);
    for (auto& x : live) EXPECT_EQ(x.pid, getpid());
    EXPECT_NE(live[0].thread, live[1].thread);
    r->client_remove(mine);
    EXPECT_EQ(std::pair(r->session_active(session), r->clients().size()), std::pair(false, size_t(1)));
    // Sessions stay unique across reopen.
    EXPECT_GE(Ring::open(file)->client_add(c), 0);
    for (auto& x : r->clients()) EXPECT_NE(x.thread, session);
}

TEST_F(RingTest, RefusesBadGeometryAndBadPutsEvictsOldestAndKeepsEveryPresentPacketIntact) {
    std::pair<Geometry, const char*> bad[] = {
        {{.data_bytes = 100}, "data size out of range (4 KiB to 1 TiB)"},
        {{.data_bytes = 1ull << 41}, "data size out of range"},
        {{.maxpkts = -5}, "packet id modulus below 1"},
        {{.nslots = 1u << 27, .maxpkts = 10}, "index slot count out of range (1 to 2^26)"},
        {{.maxsrc = 1u << 21}, "source table size out of range (1 to 2^20)"},
        {{.maxclients = 1u << 17}, "client table size out of range (1 to 65536)"},
        {{.nstash = 1u << 17}, "stash count out of range (0 to 65536)"},
        {{.stash_bytes = 65u << 20}, "stash packet size out of range (0 to 64 MiB)"},
    };
    for (auto& [g, message] : bad)
        EXPECT_THAT([&] { Ring::create(file, g); },
                    ThrowsMessage<ring::Error>(HasSubstr(file + ": cannot create ring: " + message)));
    EXPECT_THROW(Ring::create(dir.path + "/no/such/dir/ring", {}), ring::Error);
    EXPECT_FALSE(fs::exists(file));
    // One index slot for every 512 bytes of data unless told; fewer packet
    // ids than slots shrink the index to fit the ids.
    EXPECT_EQ(Ring::create(file, {.data_bytes = 1 << 20})->status().nslots, 2048u);
    EXPECT_EQ(Ring::create(file, {.data_bytes = 8192, .nslots = 100, .maxpkts = 10})->status().nslots, 10u);

    auto r = Ring::create(file, {.data_bytes = 4096, .nslots = 8});
    std::string why;
    b.resize(100);
    EXPECT_EQ(r->put(std::string("a\0b", 3), 1, b.data(), b.size(), &why), -1);
    EXPECT_EQ(why, "source name longer than 63 bytes or containing NUL");
    std::vector<char> big(4097);
    EXPECT_EQ(r->put("x", 1, big.data(), big.size(), &why), -1);
    EXPECT_EQ(why, "packet of 4097 bytes exceeds the ring's data area");
    EXPECT_EQ(r->head(), 0u);
    EXPECT_EQ(r->put(std::string(63, 'x'), 1, b.data(), b.size()), 0);
    big.resize(4096);  // a packet the size of the whole area evicts everything else
    EXPECT_EQ(r->put("x", 2, big.data(), big.size()), 1);
    EXPECT_EQ(r->oldest(), 1u);
    // Random sizes: the oldest go, and every packet present stays intact.
    r = Ring::create(file, {.data_bytes = 8192, .nslots = 32, .maxsrc = 4});
    std::mt19937 rng(7);
    const char* names[] = {"A/x", "B/x", "C/x"};
    for (uint32_t i = 0; i < 3000; i++) {
        size_t size = i % 50 == 0 ? 8192 : 8 + rng() % 2500;
        ASSERT_EQ(put(*r, names[rng() % 3], i, payload(0, i, size)), int64_t(i));
        uint64_t used = 0;
        for (uint64_t s = r->tail(); s < r->head(); s++) {
            ASSERT_TRUE(r->read(s, &e, b)) << s;
            ASSERT_EQ(tag_of(b), int64_t(s)) << "packet damaged after put " << i;
            used += e.size;
        }
        ASSERT_LE(used, 8192u);
        ASSERT_LE(r->head() - r->tail(), 32u);
        ASSERT_EQ(r->status().bytes_used, used);
        if (i % 97 == 0) expect_sources_consistent(*r);
    }
    expect_sources_consistent(*r);
    EXPECT_EQ(r->prev_seq(r->head() + 5), r->head() - 1);
    // A zero-copy view notices its packet evicted under it.
    uint64_t last = r->head() - 1;
    const char* p;
    ASSERT_TRUE(r->view(last, &e, &p));
    put(*r, "A/x", 0, payload(0, 3000, 8192));
    EXPECT_FALSE(r->still_valid(last));
    EXPECT_FALSE(r->view(last, &e, &p));
    EXPECT_TRUE(r->still_valid(last + 1));
}

// Binary search while times rise, a scan once they do not; the source table counts the packets present.
TEST_F(RingTest, AfterTimeWrappedIdsAndAFullSourceTable) {
    auto r = Ring::create(file, {.data_bytes = 1 << 16, .nslots = 64, .maxpkts = 70});
    EXPECT_FALSE(r->after_time(0));
    for (int i = 0; i < 100; i++) put(*r, "s", 100 + i / 3, payload(0, i, 8));  // repeated times
    for (double t = 90; t < 140; t += 0.5) expect_after_time(*r, t);
    put(*r, "s", 50, payload(0, 100, 8));  // out of time order: the search can no longer halve
    put(*r, "s", 200, payload(0, 101, 8));
    for (double t = 40; t < 210; t += 0.5) expect_after_time(*r, t);
    expect_sources_consistent(*r);
    // A full source table leaves a new source uncounted until an entry frees.
    r = Ring::create(file, {.data_bytes = 1 << 16, .nslots = 4, .maxsrc = 2});
    for (const char* name : {"A", "B", "C"}) put(*r, name, 1, payload(0, 0, 10));
    ASSERT_TRUE(r->entry(2, &e));
    EXPECT_EQ(std::pair(e.src, r->sources().size()), std::pair(-1, 2ul));
    for (int i = 0; i < 4; i++) put(*r, "B", 4 + i, payload(0, 3 + i, 10));  // A's packets go
    put(*r, "D", 9, payload(0, 7, 10));
    auto got = r->sources();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_TRUE(std::string(got[0].srcname) == "D" || std::string(got[1].srcname) == "D");
    expect_sources_consistent(*r);
}

// Processes create the ring at the same time (one makes it, the others open it)
// and write it along with a thread of this process, while a reader in another
// process waits for each packet in turn (a lost wake-up leaves it asleep till the alarm).
TEST_F(RingTest, SimultaneousCreatorsWritersAndAWaitingReader) {
    const uint32_t n = 3000;
    Geometry g{.data_bytes = 8 << 20, .nslots = 4 * n};
    std::vector<pid_t> kids{child::start([&] {
        auto rc = Ring::open_or_create(file, g);
        // A wait may end early (a put's wake can land after its head was
        // seen): only the head counts; the deadline only guards against a hang.
        auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (uint64_t i = 0; i < 4 * n; i++) {
            while (i >= rc->head())
                if (!rc->wait(i, 1000) && std::chrono::steady_clock::now() > give_up) return 3;
            if (!rc->read(i, &e, b) || tag_of(b) < 0) return 4;
        }
        return 0;
    })};
    for (uint32_t w = 1; w <= 3; w++) {
        kids.push_back(child::start([&] {
            auto rc = Ring::open_or_create(file, g);
            for (uint32_t i = 0; i < n; i++)
                if (put(*rc, "W" + std::to_string(w), i, payload(w, i, 64 + i % 700)) < 0) return 1;
            return 0;
        }));
    }
    auto r = Ring::open_or_create(file, g);
    std::thread t4([&] { for (uint32_t i = 0; i < n; i++) put(*r, "W4", i, payload(4, i, 32)); });
    for (pid_t k : kids) EXPECT_EQ(child::reap(k, 60), 0);
    t4.join();
    ASSERT_EQ(r->head(), 4 * n);
    ASSERT_EQ(r->tail(), 0u);
    uint32_t next[5] = {0, 0, 0, 0, 0};
    for (uint64_t s = 0; s < r->head(); s++) {
        ASSERT_TRUE(r->read(s, &e, b));
        int64_t tag = tag_of(b), w = tag >> 32;
        ASSERT_TRUE(tag >= 0 && w >= 1 && w <= 4) << s;
        ASSERT_EQ(uint32_t(tag), next[w]++) << "writer " << w;
        EXPECT_EQ(std::string(e.srcname), "W" + std::to_string(w));
    }
    for (uint32_t w = 1; w <= 4; w++) EXPECT_EQ(next[w], n) << "writer " << w;
    expect_sources_consistent(*r);
    for (auto& f : fs::directory_iterator(dir.path)) EXPECT_EQ(f.path().string(), file);  // no temporaries
    EXPECT_TRUE(r->wait(0, 0));            // already there
    EXPECT_FALSE(r->wait(r->head(), 30));  // nothing new: times out
    uint32_t token = r->wake_count();      // a wake before the wait is not lost (one during it: store_test)
    r->wake_all();
    EXPECT_FALSE(r->wait_since(r->head(), token, -1));
}

namespace {
void die_now() { kill(getpid(), SIGKILL); }
std::string copy_from, copy_to;
void copy_then_die() {
    fs::copy_file(copy_from, copy_to);
    _exit(0);
}
int hold_out = -1, hold_in = -1;
void hold_the_lock() {  // tells the parent, then waits for its go
    char c = 'x';
    if (::write(hold_out, &c, 1) != 1 || ::read(hold_in, &c, 1) != 1) _exit(2);
}

// A child puts one packet of `size` bytes, with hook run just before it is
// published; it exits 0 if the put returned `want` (the hooks may end it first).
pid_t put_with_hook(Ring& r, void (*hook)(), const std::string& name, double t, size_t size,
                    int64_t want = -2) {
    return child::start([&] {
        Ring::test_hook_before_publish = hook;
        return put(r, name, t, payload(9, 9, size)) == want ? 0 : 1;
    });
}
}  // namespace

// Writers die holding the lock, one after copying the file (a copy taken
// mid-put, or a machine that went down): the ring recovers at the next lock,
// the copy once opened with nobody else using it; the half packet never appears.
TEST_F(RingTest, WritersDeadOrStalledMidPutWedgeNeitherTheRingNorACopyNorTheTimeOrder) {
    auto r = Ring::create(file, {.data_bytes = 4096, .nslots = 8, .maxsrc = 8});
    for (int i = 0; i < 6; i++) put(*r, "keep" + std::to_string(i % 3), i, payload(0, i, 500));
    auto before = r->status();
    copy_from = file;
    copy_to = dir / "copy";
    ASSERT_EQ(child::reap(put_with_hook(*r, copy_then_die, "half", 99, 3000), 60), 0);  // evicts as well
    for (int round = 0; round < 2; round++) {
        int st = child::reap(put_with_hook(*r, die_now, "half", 99, 3000), 60);
        ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
    }
    auto copy = Ring::open(copy_to);
    for (Ring* x : {r.get(), copy.get()}) {
        SCOPED_TRACE(x->path());
        EXPECT_EQ(x->head(), before.head);
        expect_sources_consistent(*x);
        EXPECT_EQ(put(*x, "after", 100, payload(0, 100, 200)), int64_t(before.head));
        expect_sources_consistent(*x);
        EXPECT_GE(x->status().recoveries, 1u);
        for (uint64_t s = x->tail(); s < x->head(); s++) {
            ASSERT_TRUE(x->read(s, &e, b));
            EXPECT_STRNE(e.srcname, "half");
            EXPECT_GE(tag_of(b), 0) << s;
        }
    }
    // A writer killed mid-put leaves no trace in the time order; one stalled
    // mid-put keeps its lock from a process that opens the ring meanwhile.
    r = Ring::create(file, {.data_bytes = 1 << 16, .nslots = 64});
    for (int i = 1; i <= 10; i++) put(*r, "s", 10.0 * i, payload(0, i, 8));
    child::reap(put_with_hook(*r, die_now, "s", 0, 8), 60);  // never published: its time must not count
    put(*r, "s", 50, payload(0, 11, 8));                   // out of order after 100
    for (double t : {5.0, 45.0, 55.0, 60.0, 95.0, 100.0}) expect_after_time(*r, t);
    int up[2], down[2];
    ASSERT_TRUE(pipe(up) == 0 && pipe(down) == 0);
    hold_out = up[1];  // for the child
    hold_in = down[0];
    pid_t pid = put_with_hook(*r, hold_the_lock, "child", 2, 8, 11);
    char c;
    ASSERT_EQ(::read(up[0], &c, 1), 1);  // the child is inside its put now
    auto again = Ring::open(file);        // must not take the lock over
    int64_t got = -2;
    std::thread t([&] { got = put(*again, "thread", 3, payload(0, 2, 8)); });
    usleep(100000);  // room for a broken lock to let the thread through
    ASSERT_EQ(::write(down[1], "g", 1), 1);
    EXPECT_EQ(child::reap(pid, 60), 0);
    t.join();
    EXPECT_EQ(got, 12);
    EXPECT_TRUE(r->entry(11, &e) && std::string(e.srcname) == "child");
    EXPECT_TRUE(r->entry(12, &e) && std::string(e.srcname) == "thread");
    for (int fd : {up[0], up[1], down[0], down[1]}) ::close(fd);
}


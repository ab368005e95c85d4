// The ring store: time-stamped packets in one memory-mapped file that any
// number of front-end processes share at once (layout: docs/ring-format.md).
//
// Packets are numbered by a 64-bit sequence number `seq` that never wraps and
// never repeats within a ring file; the packet id a client sees is
// seq % maxpkts. A reader's position is best kept as a seq, which survives pktid
// wrap. The packets present are the seqs in [tail(), head()); the oldest are
// evicted when data space or index slots run out.
//
// Threads and processes: every method may be called from any thread of any
// process that has the file open. Appends and source/stash changes are
// serialised by a robust process-shared mutex in the file, client-table changes
// by a second one; reads take no lock and check after copying that the packet
// was not evicted meanwhile. A process that dies while holding a lock does not
// wedge the ring: the next locker recovers and a half-written packet is
// discarded.
//
// Failure: opening or creating throws ring::Error with a message that names the
// file and the fault; a file that fails its checks is never repaired or
// replaced silently (creating anew is the caller's explicit choice). Other
// methods never throw except std::bad_alloc; they report "absent" or -1.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ring {

// Size of a source name field, NUL included (names are at most 63 bytes).
constexpr size_t kNameBytes = 64;

// The packet id of a seq: ids run 0 .. maxpkts-1 and wrap. Every store
// folds its sequence through this, so ids agree whatever holds the ring.
inline int32_t fold_pktid(uint64_t seq, int32_t maxpkts) { return int32_t(seq % uint64_t(maxpkts)); }
// The newest seq in [tail, head) whose id is `id`, if any.
std::optional<uint64_t> seq_of_pktid(int32_t id, uint64_t tail, uint64_t head, int32_t maxpkts);

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Geometry fixed when a ring is created. Zero fields take the defaults.
struct Geometry {
    uint64_t data_bytes = 0;     // circular data area; default 64 MiB, 4 KiB to 1 TiB
    uint32_t nslots = 0;         // index slots = most packets held; default data_bytes/512, at least 64
    int32_t maxpkts = 0;         // pktid modulus; default 2^31-1; nslots is lowered to it if larger
    uint32_t maxsrc = 0;         // source-table entries; default 1024
    uint32_t maxclients = 0;     // client-table entries; default 256
    uint32_t nstash = 0;         // stash entries; default 64
    uint32_t stash_bytes = 0;    // largest stashed packet; default 65536
};

// g with every zero field given its default, as Ring::create fills it in.
Geometry resolve_geometry(const Geometry& g);

// Index data of one packet, copied out of the file.
struct Entry {
    uint64_t seq = 0;
    int32_t pktid = -1;
    double time = 0;
    uint32_t size = 0;           // packet bytes
    int32_t src = -1;            // source-table index, -1 when the table was full
    char srcname[kNameBytes] = {};
};

// One source (ring sources with at least one packet present).
struct Source {
    char srcname[kNameBytes] = {};
    int32_t index = -1;          // its source-table index (matches Entry::src)
    uint64_t npkts = 0, nbytes = 0;
    uint64_t oldest_seq = 0, latest_seq = 0;
    int32_t soldest = -1, slatest = -1;   // pktids of oldest and latest
    double soldest_time = 0, slatest_time = 0;
};

// Snapshot of the ring as a whole.
struct Status {
    double orb_start = 0;        // creation time of the ring; kept across reopen
    uint64_t data_bytes = 0;
    uint32_t nslots = 0;
    int32_t maxpkts = 0;
    uint32_t maxsrc = 0, maxclients = 0, nstash = 0, stash_bytes = 0;
    uint64_t head = 0, tail = 0; // present packets are [tail, head)
    uint64_t bytes_used = 0;     // data bytes of the present packets
    uint32_t nsources = 0;       // sources with packets present
    uint32_t nclients = 0;       // live client-table entries
    uint64_t puts = 0;           // packets appended since creation
    uint64_t recoveries = 0;     // times a dead lock holder was recovered from
};

// A client as the table keeps it. Text fields are NUL-terminated, cut to fit.
struct Client {
    int32_t slot = -1;           // table index (handle for the calls below)
    int32_t pid = -1;            // owning process
    int32_t thread = -1;         // session id (ORBID); unique within the ring file
    int32_t fd = -1, port = -1;
    uint8_t address[4] = {0xff, 0xff, 0xff, 0xff};
    char perm = 'n';             // 'r' or 'w'
    char who[24] = {};
    char what[128] = {};
    char host[128] = {};
    char select[96] = {};        // shown text of the patterns, cut to 95 bytes
    char reject[96] = {};
    int32_t nselect = 0, nreject = 0;   // shown length + 1 (0 when none)
    double started = -1, lastpkt = -1;
    int32_t pktid = -1;          // packet id the client stands at
    uint32_t read = 0, bytes = 0, packets = 0, written = 0;
    uint32_t nreads = 0, nwrites = 0, nrequests = 0;
    int32_t errors = 0, priority = 0, lastrequest = 0, mymessages = 0;
};

// Per-client figures that its owner updates without taking the ring lock.
// Fields of the live table entry; other processes read them for ORBCLIENTS and
// the lag throttle. Only the owning process should write them.
struct ClientCounters;

class Ring {
public:
    // Opens an existing ring file; throws Error when it is missing, not a ring,
    // of another format version, truncated or inconsistent.
    static std::unique_ptr<Ring> open(const std::string& path);
    // Creates a new ring (new orb_start), replacing any file at path atomically;
    // processes that still map the old file keep using the old one.
    static std::unique_ptr<Ring> create(const std::string& path, const Geometry& g);
    // Opens path if it exists, else creates it with g. A file that exists but
    // fails its checks throws Error (it is not replaced). Safe against other
    // processes creating the same file at the same moment.
    static std::unique_ptr<Ring> open_or_create(const std::string& path, const Geometry& g);

    ~Ring();
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    const std::string& path() const { return path_; }

    // ---- writing ----
    // Appends a packet; returns its seq, or -1 with *why set (name of 64 bytes
    // or more, packet larger than the data area, lock unobtainable). Wakes waiters.
    int64_t put(std::string_view srcname, double time, const void* data, size_t size,
                std::string* why = nullptr);

    // ---- positions ----
    uint64_t head() const;                 // seq the next packet will get
    uint64_t tail() const;                 // oldest seq present (== head() when empty)
    int32_t maxpkts() const;
    int32_t pktid(uint64_t seq) const { return fold_pktid(seq, maxpkts()); }
    std::optional<uint64_t> oldest() const;
    std::optional<uint64_t> newest() const;
    // The present packet with this pktid, if any (unique: nslots <= maxpkts).
    std::optional<uint64_t> find(int32_t pktid) const;
    // First present packet, in ring order, whose time is greater than t.
    std::optional<uint64_t> after_time(double t) const;
    // The seq a reader standing at `at` reads next: at + 1, or the oldest present
    // when that has been evicted. May equal head() (nothing to read yet).
    uint64_t next_seq(uint64_t at) const;
    // The present packet before `at`, if any.
    std::optional<uint64_t> prev_seq(uint64_t at) const;

    // ---- reading ----
    // Index data of a present packet; false when absent (evicted or not yet put).
    bool entry(uint64_t seq, Entry* e) const;
    // Copies up to maxbytes of the packet into buf (resized to the bytes copied)
    // and its index data into *e; false when absent or evicted during the copy.
    bool read(uint64_t seq, Entry* e, std::vector<char>& buf, size_t maxbytes = SIZE_MAX) const;
    // Zero-copy: a pointer to the packet bytes in the mapping. The bytes are
    // only good if still_valid(seq) is true AFTER the caller has used them.
    bool view(uint64_t seq, Entry* e, const char** data) const;
    bool still_valid(uint64_t seq) const;

    // ---- waiting ----
    // Blocks until head() > seen_head, wake_all() is called, or timeout_ms passes
    // (negative: no time limit). Returns head() > seen_head. Uses no CPU while
    // blocked; spurious early returns are possible, callers re-check.
    bool wait(uint64_t seen_head, int timeout_ms) const;
    // The same, but also returns at once if any put or wake_all happened since
    // wake_count() returned `since`. Take the count before checking your own
    // condition and no wake-up between the check and the wait is lost.
    uint32_t wake_count() const;
    bool wait_since(uint64_t seen_head, uint32_t since, int timeout_ms) const;
    // Wakes every waiter of this ring in every process (e.g. to make a thread
    // notice a request from its client).
    void wake_all() const;

    // ---- sources ----
    std::vector<Source> sources() const;
    bool source(int32_t index, Source* s) const;

    // ---- stash: last packet put for a source outside the ring sequence ----
    // Keeps a copy per source name; when every entry is taken the least recently
    // stashed source's entry is reused. Packets above stash_bytes are refused.
    bool stash_put(std::string_view srcname, double time, const void* data, size_t size,
                   std::string* why = nullptr);
    // e->seq is 0 and e->pktid -1 for a stashed packet.
    bool stash_get(std::string_view srcname, Entry* e, std::vector<char>& buf) const;

    // ---- clients ----
    // Takes a free entry (reclaiming those of dead processes), fills it from c
    // (its slot, pid, thread and started are assigned here), and returns the
    // slot, or -1 when the table is full of live clients.
    int32_t client_add(const Client& c);
    void client_remove(int32_t slot);      // only the owner calls this
    // Counters of a slot this process owns; null for a bad slot.
    ClientCounters* counters(int32_t slot);
    // Replaces the shown select or reject text (cut to 95 bytes).
    void client_set_select(int32_t slot, std::string_view pattern);
    void client_set_reject(int32_t slot, std::string_view pattern);
    // Live clients (entries of dead processes are reclaimed on the way).
    std::vector<Client> clients();
    // Whether a session id belongs to a live client.
    bool session_active(int32_t thread);

    Status status() const;

    struct Impl;   // opaque

    // Test hook: when set, put() calls it after writing the packet bytes and
    // before publishing the packet, with the lock held.
    static void (*test_hook_before_publish)();

private:
    Ring(std::string path, std::unique_ptr<Impl> impl);
    std::string path_;
    std::unique_ptr<Impl> impl_;
};

// Lock-free per-client figures (see Ring::counters). Plain atomics so that the
// owner can bump them on every packet at no cost to anyone else.
struct ClientCounters {
    std::atomic<int32_t> pktid;
    std::atomic<uint32_t> read, bytes, packets, written;
    std::atomic<uint32_t> nreads, nwrites, nrequests;
    std::atomic<int32_t> errors, priority, lastrequest, mymessages;
    std::atomic<double> lastpkt;
};

}  // namespace ring

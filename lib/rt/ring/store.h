// What a front end needs from a ring, whatever keeps it: the ring file of
// ring.h (store_file.cc) or a replicated JetStream stream (store_jetstream.h).
// A front end is written against RingStore alone and picks the store at start.
//
// Positions are 64-bit sequence numbers (`seq`) that never wrap and never
// repeat within one ring; the id a client sees is pktid(seq), folded into
// 0 .. maxpkts()-1 by ring::fold_pktid for every store alike. The packets
// present are the seqs in [tail(), head()); the oldest are discarded when the
// ring's byte or packet limit is reached, so tail() only rises. A reader keeps
// its place as a seq.
//
// Threads: every method may be called from any thread at once. Failures are
// reported, never thrown (std::bad_alloc aside): "absent", -1, or false with
// *why set. Nothing blocks longer than the store's own time limits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ring/ring.h"

namespace ring {

class RingStore {
public:
    virtual ~RingStore() = default;

    // What to name in a log line: "ring file 'x'", "stream 'x' on URL,URL".
    virtual std::string describe() const = 0;

    // ---- writing ----
    // Appends a packet and returns its seq once the store holds it durably
    // (for a replicated store: once the cluster acknowledged it), or -1 with
    // *why naming the fault (name of 64 bytes or more, packet too large, store
    // unreachable or without quorum). Wakes waiters.
    virtual int64_t put(std::string_view srcname, double time, const void* data, size_t size,
                        std::string* why = nullptr) = 0;
    // put() without waiting for the store. `done` runs once per call, on any
    // thread, with what put() would have returned (why is "" on success), and
    // in the order of the calls; it must not call put_async itself. A store
    // that works with a window of puts in flight blocks here while the window
    // is full; one without (the ring file) has completed the put on return.
    using PutDone = std::function<void(int64_t seq, const std::string& why)>;
    virtual void put_async(std::string_view srcname, double time, const void* data, size_t size, PutDone done) {
        std::string why;
        int64_t seq = put(srcname, time, data, size, &why);
        done(seq, why);
    }
    // Returns once every earlier put_async has run its done (or the store's
    // time limit has passed).
    virtual void flush() {}

    // ---- positions ----
    virtual uint64_t head() const = 0;   // seq the next packet will get
    virtual uint64_t tail() const = 0;   // oldest seq present (== head() when empty)
    virtual int32_t maxpkts() const = 0;  // pktid modulus, fixed for the ring's life
    int32_t pktid(uint64_t seq) const { return fold_pktid(seq, maxpkts()); }
    virtual std::optional<uint64_t> oldest() const = 0;
    virtual std::optional<uint64_t> newest() const = 0;
    // The present packet with this id (the newest of them should a store hold
    // more packets than ids).
    virtual std::optional<uint64_t> find(int32_t pktid) const = 0;
    // First present packet, in ring order, whose time is greater than t.
    virtual std::optional<uint64_t> after_time(double t) const = 0;
    // The seq a reader standing at `at` reads next: at + 1, or the oldest
    // present once that is gone. May equal head() (nothing to read yet).
    virtual uint64_t next_seq(uint64_t at) const = 0;
    // The present packet before `at`, if any.
    virtual std::optional<uint64_t> prev_seq(uint64_t at) const = 0;

    // ---- reading ----
    // Index data of a present packet (no packet bytes); false when absent.
    virtual bool entry(uint64_t seq, Entry* e) const = 0;
    // Up to maxbytes of the packet into buf (resized to what was copied) and
    // its index data into *e; false when absent or discarded meanwhile.
    virtual bool read(uint64_t seq, Entry* e, std::vector<char>& buf, size_t maxbytes = SIZE_MAX) const = 0;
    // The packet bytes without a copy where the store can: *data stays good
    // until this thread's next view() and only if still_valid(seq) is true
    // AFTER the caller has used the bytes.
    virtual bool view(uint64_t seq, Entry* e, const char** data) const = 0;
    virtual bool still_valid(uint64_t seq) const = 0;

    // ---- waiting ----
    // Blocks until head() > seen_head, until a put or wake_all() since
    // wake_count() returned `since`, or for timeout_ms (negative: no limit).
    // Returns head() > seen_head; early returns are possible, callers re-check.
    virtual uint32_t wake_count() const = 0;
    virtual bool wait_since(uint64_t seen_head, uint32_t since, int timeout_ms) const = 0;
    // Wakes every waiter of this store in this process (a file ring: in every
    // process that has it open).
    virtual void wake_all() const = 0;

    // ---- sources: those with packets present, counted over present packets ----
    virtual std::vector<Source> sources() const = 0;

    // ---- stash: the last packet put per source, outside the sequence ----
    virtual bool stash_put(std::string_view srcname, double time, const void* data, size_t size,
                           std::string* why = nullptr) = 0;
    virtual bool stash_get(std::string_view srcname, Entry* e, std::vector<char>& buf) const = 0;

    // ---- clients: as ring.h's Ring; the table covers whatever front ends
    // the store can see (file: every process with the file open) ----
    virtual int32_t client_add(const Client& c) = 0;
    virtual void client_remove(int32_t slot) = 0;
    virtual ClientCounters* counters(int32_t slot) = 0;
    virtual void client_set_select(int32_t slot, std::string_view pattern) = 0;
    virtual void client_set_reject(int32_t slot, std::string_view pattern) = 0;
    virtual std::vector<Client> clients() = 0;
    virtual bool session_active(int32_t thread) = 0;

    // Whole-ring figures. Fields a store has no notion of are 0.
    virtual Status status() const = 0;
};

// The ring file at path as a store (opened, or created with g when missing);
// throws Error as Ring::open_or_create does.
std::unique_ptr<RingStore> open_file_store(const std::string& path, const Geometry& g);
// An open ring as a store.
std::unique_ptr<RingStore> file_store(std::unique_ptr<Ring> r);

}  // namespace ring

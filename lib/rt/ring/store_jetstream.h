// A ring kept in a NATS JetStream stream, replicated by the cluster: any
// number of front ends on any hosts serve the same stream at once.
//
// Mapping (docs/ring-format.md describes the file ring it mirrors):
// - The stream `name` takes subject "orb.<name>"; packet seq = stream
//   sequence - 1, so ids fold through ring::fold_pktid exactly as in a ring
//   file and the first packet is id 0.
// - A packet is one message: the data is the payload, the source name is in
//   header "Orb-Source" (bytes outside printable ASCII and '%' written %XX) and
//   the time in "Orb-Time" (shortest decimal that reads back the same double).
//   A message without them reads as source "" at the stream's store time.
// - The pktid modulus is kept in the stream's description ("orb ring, pktid
//   modulus N"), so every front end folds alike; orb_start is the stream's
//   creation time.
// - Each front end mirrors the index (seq, time, size, source) from a
//   headers-only ordered consumer: head(), entry(), find(), after_time() and
//   sources() are answered from memory (24 bytes per packet present), and only
//   packet bytes are fetched (direct get by sequence, any replica). The
//   mirror's tail follows the stream's first sequence, refreshed after puts
//   and when a read finds its packet discarded.
// - put_async() keeps up to 256 puts in flight, published in call order, each
//   done only once the cluster acknowledged it and this front end's index
//   holds it, so that its client reads what it was told is stored (or failed
//   at its deadline), in call order. A put nobody took (the stream has no leader, as during an
//   election) is published again until its deadline; puts after it wait and
//   follow one at a time, so the stream keeps the order of the calls.
//   put() is put_async() waited for, and returns once this
//   front end's mirror also has the packet (within the time limit). A put
//   whose acknowledgement was lost fails though the stream may hold it.
// - Stash and client table are this front end's own (a private unlinked
//   ring file); ORBCLIENTS shows those clients and every other front end's
//   (store_jetstream_clients.h), so a writer's lag throttle sees a reader
//   attached anywhere.
//
// Every request to the cluster is bounded by timeout_ms: a cluster without
// quorum makes put() fail with the reason, never hang.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ring/store.h"

namespace ring {

struct JetStreamOptions {
    std::vector<std::string> urls;  // "host:port" or "nats://host:port"
    std::string name;               // stream name: letters, digits, '_' and '-'
    // Limits of a stream created here (an existing stream keeps its own);
    // zero fields take the file ring's defaults (ring::resolve_geometry).
    uint64_t size = 0;              // most bytes stored
    uint64_t npkts = 0;             // most packets stored
    int32_t maxpkts = 0;            // pktid modulus
    int replicas = 0;               // 0: min(3, number of URLs)
    int timeout_ms = 5000;          // bound on every request to the cluster
    uint32_t maxclients = 0;        // this front end's client table (0: default)
};

// Opens the stream, creating it when missing. Throws Error when no server
// answers (the message names the URLs), when JetStream is unavailable, or when
// an existing stream has a setting the ring cannot use (the message names the
// setting). *limits, when given, receives the limits in force in one line.
std::unique_ptr<RingStore> open_jetstream_store(const JetStreamOptions& o, std::string* limits = nullptr);

}  // namespace ring

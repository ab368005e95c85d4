// A ring at a glance as one JSON document, built from the records a server
// answers to ORBSTAT, ORBSOURCES and ORBCLIENTS. orbstat -j fills a Snapshot
// through the client library; orbserver fills it from its own ring, so the
// status page, the metrics and orbstat show the same numbers.
//
// status_json() gives:
//   ring:    name, size, maxpkts, npkts, bytes, nsources, nclients, oldest and
//            newest {pktid, time}, orb_start, server_start, when
//   server:  host, who, pid, port, address, version and the request counts
//   sources: [{srcname, npkts, nbytes, oldest and latest {pktid, time},
//             latency = when - latest time}]
//   clients: [{thread, pid, who, what, perm, host, address, port, pktid,
//             lag (readers only, as the lag throttle computes it), packets
//             and bytes sent and received, requests, errors, started, lastpkt,
//             select, reject}]
//   totals:  only when the snapshot carries them (a server's own counts)
// Times are epoch seconds; an absent time or id is null. Text fields are made
// valid UTF-8 (bad bytes become U+FFFD), so every renderer of the document can
// rely on that.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "orb/orbfile.h"

namespace status {

// What one server process has taken in and sent out since it started.
struct Totals {
    struct Source {
        uint64_t packets = 0, bytes = 0;
    };
    uint64_t packets_written = 0, bytes_written = 0;
    uint64_t packets_sent = 0, bytes_sent = 0;
    std::map<std::string, Source, std::less<>> by_source;  // packets written, by source name
};

struct Snapshot {
    std::string name;                 // the ring as the user named it
    std::string store;                // what keeps it ("ring file '...'", "stream '...' on ..."); "" unknown
    Orbstat stat{};                   // stat.when is the moment of the snapshot
    int oldest = -1, newest = -1;     // pktids; -1 when the ring is empty
    std::vector<Orbsrc> sources;
    std::vector<Orbclient> clients;
    std::optional<Totals> totals;
};

// Packets held between oldest and newest, allowing for pktid wrap.
int ring_npkts(int oldest, int newest, int maxpkts);

nlohmann::json status_json(const Snapshot& s);

// The text with each byte sequence that is not valid UTF-8 replaced by U+FFFD.
std::string utf8_clean(std::string_view text);

}  // namespace status

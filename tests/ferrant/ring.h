// Rings for the end-to-end tests: a file-backed ring (the client library
// starts forbserver for a path) or a real orbserver on loopback.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "orb/orb.h"
#include "pkt/pkt.h"

#if __has_include("support/orbserver.h")
#include "support/orbserver.h"
#define FERRANT_HAVE_ORBSERVER 1
#endif

namespace ferrant_test {

struct Seen {
    int pktid;
    std::string srcname;
    std::vector<char> body;
};

// Everything in the ring from the oldest packet on, until nothing more
// arrives for a second.
inline std::vector<Seen> read_ring(const std::string& name) {
    std::vector<Seen> seen;
    int orb = orbopen(name.c_str(), "r");
    if (orb < 0) return seen;
    orbposition(orb, "oldest");
    char* packet = nullptr;
    int bufsize = 0, nbytes = 0, pktid = 0;
    char srcname[PKT_SRCNAMESIZE];
    double time;
    while (orbreap_timeout(orb, 1.0, &pktid, srcname, &time, &packet, &nbytes, &bufsize) == 0) {
        seen.push_back({pktid, srcname, std::vector<char>(packet, packet + nbytes)});
    }
    free(packet);
    orbclose(orb);
    return seen;
}

}  // namespace ferrant_test

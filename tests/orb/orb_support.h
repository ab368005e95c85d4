// Helpers shared by the client-library and server tests that run against a real server.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "orb/orb.h"
#include "support/check.h"

namespace orbtest {

using namespace testsupport;

// A packet as a test sees it; str() is "rc pktid src time body".
struct Got {
    int rc = -1, pktid = -1;
    std::string src;
    double time = 0;
    std::string body;
    std::string str() const { return words(rc, pktid, src, time, body); }
};

// Reads with a caller buffer that the library grows and may move.
struct Reader {
    int orb;
    char* buf = nullptr;
    int size = 0;
    ~Reader() { free(buf); }
    Got reap() { return read([&](auto... a) { return orbreap(orb, a...); }); }
    Got reapn(int count) { return read([&](auto... a) { return orbreapn(orb, count, a...); }); }
    Got reap_nd() { return read([&](auto... a) { return orbreap_nd(orb, a...); }); }
    Got reap_timeout(double s) { return read([&](auto... a) { return orbreap_timeout(orb, s, a...); }); }
    // call(&pktid, srcname, &time, &buffer, &nbytes, &buffersize), as every read takes them.
    template <class Call>
    Got read(Call call) {
        Got g;
        char src[ORB_SRCNAME_SIZE + 1];
        int n = 0;
        g.rc = call(&g.pktid, src, &g.time, &buf, &n, &size);
        g.src = src;
        if (g.rc == 0 && n > 0) g.body.assign(buf, n);
        return g;
    }
};

// Puts count packets from src with times t0, t0+1, ... and bodies "<prefix><i>"; returns their ids.
inline std::vector<int> put_run(int orb, const char* src, double t0, int count, std::string prefix = "p") {
    std::vector<int> ids;
    for (int i = 0; i < count; i++) {
        std::string body = prefix + std::to_string(i);
        ids.push_back(orbputx(orb, src, t0 + i, body.data(), static_cast<int>(body.size())));
    }
    return ids;
}

}  // namespace orbtest

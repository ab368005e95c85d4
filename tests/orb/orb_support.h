// Helpers shared by the client-library tests that run against a real server.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orb/orb.h"

namespace orbtest {

// A packet as a test sees it.
struct Got {
    int rc = -1;
    int pktid = -1;
    std::string src;
    double time = 0;
    std::string body;
};

// Reads with a caller buffer that the library grows and may move.
class Reader {
  public:
    explicit Reader(int orb) : orb_(orb) {}
    ~Reader() { free(buf_); }
    Got reap() {
        Got g;
        char src[ORB_SRCNAME_SIZE + 1];
        int n = 0;
        g.rc = orbreap(orb_, &g.pktid, src, &g.time, &buf_, &n, &size_);
        fill(g, src, n);
        return g;
    }
    Got reapn(int count) {
        Got g;
        char src[ORB_SRCNAME_SIZE + 1];
        int n = 0;
        g.rc = orbreapn(orb_, count, &g.pktid, src, &g.time, &buf_, &n, &size_);
        fill(g, src, n);
        return g;
    }
    Got reap_nd() {
        Got g;
        char src[ORB_SRCNAME_SIZE + 1];
        int n = 0;
        g.rc = orbreap_nd(orb_, &g.pktid, src, &g.time, &buf_, &n, &size_);
        fill(g, src, n);
        return g;
    }
    Got reap_timeout(double seconds) {
        Got g;
        char src[ORB_SRCNAME_SIZE + 1];
        int n = 0;
        g.rc = orbreap_timeout(orb_, seconds, &g.pktid, src, &g.time, &buf_, &n, &size_);
        fill(g, src, n);
        return g;
    }
    Got get(int which) {
        Got g;
        char src[ORB_SRCNAME_SIZE + 1];
        int n = 0;
        g.rc = orbget(orb_, which, &g.pktid, src, &g.time, &buf_, &n, &size_);
        fill(g, src, n);
        return g;
    }

  private:
    void fill(Got& g, const char* src, int n) {
        g.src = src;
        if (g.rc == 0 && n > 0) g.body.assign(buf_, n);
    }
    int orb_;
    char* buf_ = nullptr;
    int size_ = 0;
};

// Puts count packets from src with times t0, t0+1, ... and bodies "<prefix><i>";
// returns their ids.
inline std::vector<int> put_run(int orb, const char* src, double t0, int count, const std::string& prefix = "p") {
    std::vector<int> ids;
    for (int i = 0; i < count; i++) {
        std::string body = prefix + std::to_string(i);
        ids.push_back(orbputx(orb, src, t0 + i, body.data(), static_cast<int>(body.size())));
    }
    return ids;
}

}  // namespace orbtest

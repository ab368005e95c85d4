// A damaged ring file named by path: the file server the client library
// starts says why it cannot serve it, and that reason reaches the user through
// the client's own log, ahead of the client's complaint.
#include <unistd.h>

#include "harness.h"
#include "ring/ring.h"

using namespace ferrant_test;

namespace {

TEST(DamagedRing, TheServersReasonReachesTheUser) {
    TempDir tmp;
    ring::Geometry g;
    g.data_bytes = 1 << 20;
    ring::Ring::create(tmp / "short", g);
    ASSERT_EQ(truncate((tmp / "short").c_str(), 100000), 0);
    spit(tmp / "junk", pattern(100000, 7));
    struct Case {
        std::string program, ring, reason;
    } cases[] = {
        {"orbstat", "./junk", "orbstat: forbserver *fatal*: ./junk: not a ring file (bad magic)"},
        {"orbstat", "./short", "orbstat: forbserver *fatal*: ./short: ring file is truncated (100000 bytes of "},
        {"ferrant2", "./junk", "ferrant2: forbserver *fatal*: ./junk: not a ring file (bad magic)"},
    };
    for (const auto& c : cases) {
        Child p({FERRANT_BUILD_DIR "/bin/" + c.program, c.ring}, tmp.path, tmp.path);
        EXPECT_EQ(p.wait(), 1);
        std::string err = p.err();
        auto reason = err.find(c.reason);
        EXPECT_NE(reason, std::string::npos) << err;
        EXPECT_LT(reason, err.find(c.program + " *fatal*")) << err;
    }
}

}  // namespace

// The lag throttle against a real orbserver: a writer is held back while a chosen
// reader lags and let go once it catches up; with no reader it waits for one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "orb/orb.h"
#include "orb/orb_support.h"
#include "stock/tbl.h"
#include "support/orbserver.h"

using orbtest::Reader;
using testsupport::OrbServer;

namespace {

// Measured (nearly) every time; the patterns are freed with the object.
struct Params : LagParams {
    Params(const char* match, const char* reject) {
        lag_trigger = 0.5;
        lag_reset = 0.2;
        wait_seconds = 1;
        wait_match = match ? strdup(match) : nullptr;
        wait_reject = reject ? strdup(reject) : nullptr;
    }
    ~Params() {
        free(wait_match);
        free(wait_reject);
    }
};

struct OrbLagThrottle : ::testing::Test {
    void SetUp() override {
        setenv("BNS_TIMEOUT", "5000", 1);
        ASSERT_TRUE(server.up()) << server.log();
        w = orbopen(server.name().c_str(), "w");
        ASSERT_GE(w, 0);
    }
    void TearDown() override {
        orbclose(w);
        unsetenv("BNS_TIMEOUT");
    }
    OrbServer server;
    int w = -1;
};

// Waits until the count stops moving for a while (bounded), and returns it.
int settled(const std::atomic<int>& count, const std::atomic<bool>& done) {
    int last = -1;
    for (int i = 0; i < 40 && !done; i++) {
        int now = count;
        if (now == last) return now;
        last = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    }
    return count;
}

}  // namespace

TEST(OrbLag, LagValueAcrossTheRingAndItsWrap) {
    // Unwrapped ring holding ids 10..19.
    EXPECT_DOUBLE_EQ(lagvalue(19, 10, 19, 100), 0.0);  // at the newest
    EXPECT_DOUBLE_EQ(lagvalue(10, 10, 19, 100), 0.9);  // at the oldest
    EXPECT_DOUBLE_EQ(lagvalue(5, 10, 19, 100), 1.0);   // its packet left the ring
    EXPECT_DOUBLE_EQ(lagvalue(25, 10, 19, 100), 1.0);
    // Wrapped ring holding 95..99 and 0..4 (maxpkt 100): ten packets.
    EXPECT_DOUBLE_EQ(lagvalue(4, 95, 4, 100), 0.0);
    EXPECT_DOUBLE_EQ(lagvalue(0, 95, 4, 100), 0.4);
    EXPECT_DOUBLE_EQ(lagvalue(97, 95, 4, 100), 0.7);
    EXPECT_DOUBLE_EQ(lagvalue(50, 95, 4, 100), 1.0);  // between newest and oldest: gone
}

// With oldest == newest the ids count as wrapped: the range is maxpkt + 1, so
// a reader one packet behind a one-packet ring lags 1/101, not 1.
TEST(OrbLag, OnePacketRingCountsAsWrapped) {
    EXPECT_DOUBLE_EQ(lagvalue(10, 10, 10, 100), 0.0);
    EXPECT_DOUBLE_EQ(lagvalue(9, 10, 10, 100), 1.0 / 101);
    EXPECT_DOUBLE_EQ(lagvalue(11, 10, 10, 100), 99.0 / 101);
}

TEST_F(OrbLagThrottle, HoldsTheWriterWhileAReaderLagsAndReleasesIt) {
    orbtest::put_run(w, "AA/lag", 1, 10);
    int r = orbopen(server.name().c_str(), "r");  // stands at the newest: lag 0
    ASSERT_GE(r, 0);
    Laggards* lg = nullptr;
    EXPECT_EQ(orblag(w, "orb_lag_test", nullptr, &lg), 0.0);
    ASSERT_NE(lg, nullptr);
    EXPECT_EQ(lg->range, 10);
    ASSERT_EQ(maxtbl(lg->list), 1);
    auto* entry = static_cast<ClientLag*>(gettbl(lg->list, 0));
    EXPECT_EQ(entry->lag, 0.0);
    EXPECT_NE(std::string(entry->what).find("orb_lag_test"), std::string::npos);
    EXPECT_NE(std::string(entry->who).find("@"), std::string::npos);
    EXPECT_EQ(orblag(w, "someone_else", nullptr, &lg), -1);       // nobody matches
    EXPECT_EQ(orblag(w, nullptr, "orb_lag_test", &lg), -1);       // rejected
    EXPECT_EQ(orblag(w, "orb_lag_t", nullptr, nullptr), -1);      // the whole name must match
    EXPECT_EQ(orblag(w, "(unclosed", nullptr, nullptr), -3);      // a bad pattern
    freeLaggards(lg);

    Params p("orb_lag_test", nullptr);
    std::atomic<int> count{0};
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 40; i++) {
            std::string body = "w" + std::to_string(i);
            if (orbput_nolag(w, "AA/lag", 100 + i, body.data(), static_cast<int>(body.size()), &p) < 0) break;
            count++;
        }
        done = true;
    });
    // The reader reads nothing: the writer stops once the lag passes the trigger.
    int held = settled(count, done);
    EXPECT_FALSE(done);
    EXPECT_LT(held, 40);
    EXPECT_GT(held, 0);
    // Catching up below the reset lets it go on.
    Reader rd(r);
    for (int got = 0; !done && got < 50 && rd.reap_timeout(5).rc == 0;) got++;
    writer.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(count, 40);
    orbclose(r);
}

TEST_F(OrbLagThrottle, WithNoReaderItWaitsForOneWithOneNotice) {
    orbtest::put_run(w, "AA/lag", 1, 3);
    // Without patterns nothing is measured: the write goes at once, reader or not.
    Params unmeasured(nullptr, nullptr);
    unmeasured.axe = 1;
    EXPECT_EQ(orbput_nolag(w, "AA/free", 1, "x", 1, &unmeasured), 0);
    Params p("orb_lag_test", nullptr);
    p.verbose = 1;
    std::atomic<bool> done{false};
    testing::internal::CaptureStderr();
    std::thread writer([&] {
        EXPECT_EQ(orbput_nolag(w, "AA/lag", 9, "x", 1, &p), 0);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // two or three checks in vain
    bool early = done;
    int r = orbopen(server.name().c_str(), "r");
    writer.join();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(early);
    ASSERT_GE(r, 0);
    const std::string notice = "No readers found on output orb; waiting for a reader";
    size_t at = err.find(notice);
    EXPECT_NE(at, std::string::npos) << err;
    EXPECT_EQ(err.find(notice, at + 1), std::string::npos) << err;
    EXPECT_NE(err.find("waited "), std::string::npos) << err;
    orbclose(r);
}

TEST(OrbLagThrottleDeathTest, BadPatternStopsTheWriter) {
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    std::string name = server.name();
    EXPECT_EXIT(
        {
            int w = orbopen(name.c_str(), "w");
            Params p("(unclosed", nullptr);
            orbput_nolag(w, "AA/bad", 1, "x", 1, &p);
            exit(0);
        },
        testing::ExitedWithCode(1), "Error in match or reject parameters");
}

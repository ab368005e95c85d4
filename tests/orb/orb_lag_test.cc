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

LagParams params(const char* match, const char* reject) {
    LagParams p;
    p.testfreq = 0;  // measure (nearly) every time
    p.lag_trigger = 0.5;
    p.lag_reset = 0.2;
    p.wait_seconds = 1;
    p.wait_match = match ? strdup(match) : nullptr;
    p.wait_reject = reject ? strdup(reject) : nullptr;
    return p;
}

void release(LagParams& p) {
    free(p.wait_match);
    free(p.wait_reject);
}

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

TEST(OrbLagThrottle, HoldsTheWriterWhileAReaderLagsAndReleasesIt) {
    setenv("BNS_TIMEOUT", "5000", 1);
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    int w = orbopen(server.name().c_str(), "w");
    ASSERT_GE(w, 0);
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
    freeLaggards(lg);

    LagParams p = params("orb_lag_test", nullptr);
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
    int got = 0;
    while (!done && got < 50) {
        orbtest::Got g = rd.reap_timeout(5);
        if (g.rc != 0) break;
        got++;
    }
    writer.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(count, 40);
    release(p);
    orbclose(r);
    orbclose(w);
    unsetenv("BNS_TIMEOUT");
}

TEST(OrbLagThrottle, WithNoReaderItWaitsForOneWithOneNotice) {
    setenv("BNS_TIMEOUT", "5000", 1);
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    int w = orbopen(server.name().c_str(), "w");
    ASSERT_GE(w, 0);
    orbtest::put_run(w, "AA/lag", 1, 3);
    // Without patterns nothing is measured: the write goes at once, reader or not.
    LagParams unmeasured = params(nullptr, nullptr);
    unmeasured.axe = 1;
    EXPECT_EQ(orbput_nolag(w, "AA/free", 1, "x", 1, &unmeasured), 0);
    LagParams p = params("orb_lag_test", nullptr);
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
    release(p);
    orbclose(r);
    orbclose(w);
    unsetenv("BNS_TIMEOUT");
}

TEST(OrbLagThrottleDeathTest, BadPatternStopsTheWriter) {
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    std::string name = server.name();
    EXPECT_EXIT(
        {
            int w = orbopen(name.c_str(), "w");
            LagParams p = params("(unclosed", nullptr);
            orbput_nolag(w, "AA/bad", 1, "x", 1, &p);
            exit(0);
        },
        testing::ExitedWithCode(1), "Error in match or reject parameters");
}

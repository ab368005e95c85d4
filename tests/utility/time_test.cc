// Times as text both ways, durations, numbers, and waiting for a time.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>

#include "stock/epoch.h"

namespace {
const char* StateFormat = "%E (%j) %Y-%m-%d  %H:%M:%S.%u %z %A";

std::string text(char* s) {
    std::string r = s;
    free(s);
    return r;
}
std::string z(double e, const char* fmt, const char* tz = nullptr) { return text(zepoch2str(e, fmt, tz)); }
}  // namespace

TEST(Epoch2str, KnownTimesOwnCodesZonesAndDurations) {
    struct Case {
        double e;
        const char *fmt, *tz, *text;
    } cases[] = {
        {0, StateFormat, nullptr, "0 (001) 1970-01-01  00:00:00.000000 +0000 Thursday"},
        {1700000000.123456, StateFormat, nullptr,
         "1700000000 (318) 2023-11-14  22:13:20.123456 +0000 Tuesday"},
        {-0.5, StateFormat, nullptr, "-1 (365) 1969-12-31  23:59:59.500000 +0000 Wednesday"},
        {951782400, "%Y-%m-%d %j", nullptr, "2000-02-29 060"},
        {1.9996, "%S.%s", nullptr, "02.000"},  // milliseconds round and carry
        {1.9996, "%S", nullptr, "01"},         // whole seconds truncate
        {1.25, "%E %s %u %%", nullptr, "1 250 250000 %"},
        {0, "", nullptr, ""},
        {NAN, "%Y", nullptr, "(invalid time)"},
        {0, "%H:%M %z", "+05:30", "05:30 +0530"},
        {0, "%Y-%m-%d %H %z", "-08", "1969-12-31 16 -0800"},
        {0, "%H %Z", "UTC", "00 UTC"},
        {1700000000, "%H %z", "EST5", "17 -0500"},  // a zone name, TZ style
    };
    for (const Case& c : cases) EXPECT_EQ(z(c.e, c.fmt, c.tz), c.text) << c.fmt;
    EXPECT_EQ(text(strtime(1700000000.5)), "2023-11-14 22:13:20.500");
    EXPECT_EQ(text(strdate(1700000000.5)), "2023-11-14");
    const std::pair<double, const char*> deltas[] = {{1.5, "1.500 s"}, {59.9996, "0:01:00.000"},
        {7384.5, "2:03:04.500"}, {3 * 86400 + 7384.5, "3d 02:03:04.500"}, {-1.5, "-1.500 s"}};
    for (auto [d, s] : deltas) EXPECT_EQ(text(strtdelta(d)), s) << d;
}

TEST(Str2epoch, ReadsBackTheStateFormatToTheMicrosecond) {
    std::mt19937_64 rng(12345);
    std::uniform_int_distribution<long long> secs(-4102444800LL, 7258118400LL);  // 1840 .. 2200
    std::uniform_int_distribution<int> micros(0, 999999);
    const char* zones[] = {nullptr, "+05:30", "-11:00", "+14", "-0330"};
    for (int i = 0; i < 3000; i++) {
        double t = double(secs(rng)) + micros(rng) / 1e6;
        std::string s = z(t, StateFormat, zones[i % 5]);
        double back = str2epoch(s.c_str());
        ASSERT_NEAR(back, t, 1e-6) << s;
        ASSERT_EQ(z(back, StateFormat, zones[i % 5]), s);
    }
}

TEST(Str2epoch, EdgesOfTheCalendarPlainNumbersNowAndGarbage) {
    const std::pair<const char*, double> good[] = {
        {"2000-02-29", 951782400}, {"2000-060", 951782400}, {"2000/02/29 00:00", 951782400},
        {"2000/060", 951782400}, {"2024-366 12:00:00", 1735646400}, {"2024-12-31T12:00:00Z", 1735646400},
        {"1970-01-01T00:00:00+01:00", -3600}, {"1970-01-01 00:00 GMT", 0},
        {"1970-01-01t01:00:00.25z", 3600.25}, {"  2023-11-14 22:13:20 Tuesday  ", 1700000000},
        {"2016-12-31 23:59:60", 1483228800},  // a leap second runs on
        {"1700000000", 1700000000}, {" -3.5 ", -3.5}, {"1.7e9", 1.7e9}, {".5", 0.5}};
    for (auto [s, e] : good) EXPECT_EQ(str2epoch(s), e) << s;
    double before = std_now(), now = str2epoch("NOW");
    EXPECT_GE(now, before);
    EXPECT_LE(now, std_now());
    for (const char* bad :
         {"", "   ", "garbage", "nan", "inf", "1e", "12abc", "0x10", "2023-13-01", "2023-02-29", "1900-02-29",
          "2023-00-10", "2023-01-32", "2023-000", "2023-366", "2023-11-14 24:00:00", "2023-11-14 12:60",
          "2023-11-14 12:00:61", "2023-11-14 12", "2023-11-14 12:00:00.", "2023-11-14 12:00:00 +25:00",
          "2023-11-14 12:00:00 Funday", "2023-11-14 12:00:00 x", "2023-11-14 12:00:00 UTC 5",
          "2023-11-14extra", "23-11-14", "2023-11/14", "2023-1114", "now please", "1700000000 (318)"}) {
        EXPECT_TRUE(std::isnan(str2epoch(bad))) << "'" << bad << "'";
        double e = 42;
        EXPECT_EQ(is_epoch_string(bad, &e), 0) << bad;
        EXPECT_EQ(e, 42);
    }
    EXPECT_TRUE(std::isnan(str2epoch(nullptr)));
    double e = 0;
    EXPECT_EQ(is_epoch_string("2023-11-14", &e), 1);
    EXPECT_EQ(e, 1699920000);
}

TEST(Strdbl, ShortestTextThatReadsBack) {
    const std::pair<double, const char*> shortest[] = {
        {0.1, "0.1"}, {1, "1"}, {-2.5, "-2.5"}, {1e300, "1e+300"}, {INFINITY, "inf"}};
    for (auto [v, s] : shortest) EXPECT_EQ(text(strdbl(v, nullptr)), s);
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> d(-1e12, 1e12);
    for (int i = 0; i < 2000; i++) {
        double v = d(rng) / double(i + 1);
        std::string s = text(strdbl(v, nullptr));
        ASSERT_EQ(atof(s.c_str()), v) << s;
    }
    EXPECT_EQ(text(strdbl(1.5, "%.4f")), "1.5");
    EXPECT_EQ(text(strdbl(2.0, "%.4f")), "2");
    EXPECT_EQ(text(strdbl(100, "%.0f")), "100");  // no point: zeros of the integer kept
    EXPECT_EQ(text(strdbl(1.5, "%.3f s")), "1.500 s");
}

TEST(WaitForTime, PastTimesReturnAtOnceFutureOnesAreReachedAndUnreachableOnesRefused) {
    EXPECT_EQ(wait_for_time(0, 0), 0);
    EXPECT_EQ(wait_for_time(NAN, 0), -1);
    double target = std_now() + 0.05;
    EXPECT_EQ(wait_for_time(target, 0.01), 0);
    EXPECT_GE(std_now(), target + 0.01);
    // Such a target once overflowed the sleep's seconds, every sleep failed
    // at once and the wait spun for ever; the child is killed if it hangs.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto refused = [] {
        alarm(25);
        return wait_for_time(1e300, 0) == -1 && wait_for_time(0, 1e20) == -1;
    };
    EXPECT_EXIT(exit(refused() ? 0 : 3), ::testing::ExitedWithCode(0), "");
}

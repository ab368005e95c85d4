#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>

#include <unistd.h>

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

TEST(Epoch2str, KnownTimesOwnCodesAndZones) {
    EXPECT_EQ(z(0, StateFormat), "0 (001) 1970-01-01  00:00:00.000000 +0000 Thursday");
    EXPECT_EQ(z(1700000000.123456, StateFormat), "1700000000 (318) 2023-11-14  22:13:20.123456 +0000 Tuesday");
    EXPECT_EQ(z(-0.5, StateFormat), "-1 (365) 1969-12-31  23:59:59.500000 +0000 Wednesday");
    EXPECT_EQ(z(951782400, "%Y-%m-%d %j"), "2000-02-29 060");
    EXPECT_EQ(z(1.9996, "%S.%s"), "02.000");  // milliseconds round and carry
    EXPECT_EQ(z(1.9996, "%S"), "01");         // whole seconds truncate
    EXPECT_EQ(z(1.25, "%E %s %u %%"), "1 250 250000 %");
    EXPECT_EQ(z(0, ""), "");
    EXPECT_EQ(z(NAN, "%Y"), "(invalid time)");
    EXPECT_EQ(text(strtime(1700000000.5)), "2023-11-14 22:13:20.500");
    EXPECT_EQ(text(strdate(1700000000.5)), "2023-11-14");
    EXPECT_EQ(z(0, "%H:%M %z", "+05:30"), "05:30 +0530");
    EXPECT_EQ(z(0, "%Y-%m-%d %H %z", "-08"), "1969-12-31 16 -0800");
    EXPECT_EQ(z(0, "%H %Z", "UTC"), "00 UTC");
    EXPECT_EQ(z(1700000000, "%H %z", "EST5"), "17 -0500");  // a zone name, TZ style
}

TEST(Str2epoch, ReadsBackTheStateFormatToTheMicrosecond) {
    std::mt19937_64 rng(12345);
    std::uniform_int_distribution<long long> secs(-4102444800LL, 7258118400LL);  // 1840 .. 2200
    std::uniform_int_distribution<int> micros(0, 999999);
    const char* zones[] = {nullptr, "+05:30", "-11:00", "+14", "-0330"};
    for (int i = 0; i < 3000; i++) {
        double t = (double)secs(rng) + micros(rng) / 1e6;
        const char* tz = zones[i % 5];
        std::string s = z(t, StateFormat, tz);
        double back = str2epoch(s.c_str());
        ASSERT_FALSE(std::isnan(back)) << s;
        ASSERT_NEAR(back, t, 1e-6) << s;
        ASSERT_EQ(z(back, StateFormat, tz), s);
    }
}

TEST(Str2epoch, EdgesOfTheCalendarPlainNumbersAndNow) {
    const double leapday = 951782400;  // 2000-02-29
    EXPECT_EQ(str2epoch("2000-02-29"), leapday);
    EXPECT_EQ(str2epoch("2000-060"), leapday);
    EXPECT_EQ(str2epoch("2000/02/29 00:00"), leapday);
    EXPECT_EQ(str2epoch("2000/060"), leapday);
    EXPECT_EQ(str2epoch("2024-366 12:00:00"), str2epoch("2024-12-31T12:00:00Z"));
    EXPECT_EQ(str2epoch("1970-01-01T00:00:00+01:00"), -3600);
    EXPECT_EQ(str2epoch("1970-01-01 00:00 GMT"), 0);
    EXPECT_EQ(str2epoch("1970-01-01t01:00:00.25z"), 3600.25);
    EXPECT_EQ(str2epoch("  2023-11-14 22:13:20 Tuesday  "), 1700000000);
    EXPECT_EQ(str2epoch("2016-12-31 23:59:60"), 1483228800);  // a leap second runs on
    EXPECT_EQ(str2epoch("1700000000"), 1700000000);
    EXPECT_EQ(str2epoch(" -3.5 "), -3.5);
    EXPECT_EQ(str2epoch("1.7e9"), 1.7e9);
    EXPECT_EQ(str2epoch(".5"), 0.5);
    double before = std_now();
    double now = str2epoch("NOW");
    EXPECT_GE(now, before);
    EXPECT_LE(now, std_now());
}

TEST(Str2epoch, RejectsGarbage) {
    for (const char* bad : {"", "   ", "garbage", "nan", "inf", "1e", "12abc", "0x10", "2023-13-01", "2023-02-29",
                            "1900-02-29", "2023-00-10", "2023-01-32", "2023-000", "2023-366", "2023-11-14 24:00:00",
                            "2023-11-14 12:60", "2023-11-14 12:00:61", "2023-11-14 12", "2023-11-14 12:00:00.",
                            "2023-11-14 12:00:00 +25:00", "2023-11-14 12:00:00 Funday", "2023-11-14 12:00:00 x",
                            "2023-11-14 12:00:00 UTC 5", "2023-11-14extra", "23-11-14", "2023-11/14", "2023-1114",
                            "now please", "1700000000 (318)"}) {
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
    EXPECT_EQ(text(strdbl(0.1, nullptr)), "0.1");
    EXPECT_EQ(text(strdbl(1, nullptr)), "1");
    EXPECT_EQ(text(strdbl(-2.5, nullptr)), "-2.5");
    EXPECT_EQ(text(strdbl(1e300, nullptr)), "1e+300");
    EXPECT_EQ(text(strdbl(INFINITY, nullptr)), "inf");
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> d(-1e12, 1e12);
    for (int i = 0; i < 2000; i++) {
        double v = d(rng) / (double)(i + 1);
        std::string s = text(strdbl(v, nullptr));
        ASSERT_EQ(atof(s.c_str()), v) << s;
    }
    EXPECT_EQ(text(strdbl(1.5, "%.4f")), "1.5");
    EXPECT_EQ(text(strdbl(2.0, "%.4f")), "2");
    EXPECT_EQ(text(strdbl(100, "%.0f")), "100");  // no point: zeros of the integer kept
    EXPECT_EQ(text(strdbl(1.5, "%.3f s")), "1.500 s");
}

TEST(Strtdelta, Durations) {
    EXPECT_EQ(text(strtdelta(1.5)), "1.500 s");
    EXPECT_EQ(text(strtdelta(59.9996)), "0:01:00.000");
    EXPECT_EQ(text(strtdelta(7384.5)), "2:03:04.500");
    EXPECT_EQ(text(strtdelta(3 * 86400 + 7384.5)), "3d 02:03:04.500");
    EXPECT_EQ(text(strtdelta(-1.5)), "-1.500 s");
}

TEST(WaitForTime, PastTimesReturnAtOnceAndFutureOnesAreReached) {
    EXPECT_EQ(wait_for_time(0, 0), 0);
    EXPECT_EQ(wait_for_time(NAN, 0), -1);
    double target = std_now() + 0.05;
    EXPECT_EQ(wait_for_time(target, 0.01), 0);
    EXPECT_GE(std_now(), target + 0.01);
}

TEST(WaitForTime, TimesNoClockReachesAreRefusedNotSpunOn) {
    // Such a target once overflowed the sleep's seconds, every sleep failed
    // at once and the wait spun for ever; the child is killed if it hangs.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            alarm(25);
            exit(wait_for_time(1e300, 0) == -1 && wait_for_time(0, 1e20) == -1 ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), "");
}

// The state file belongs to the whole process, so every case runs in a child
// (support/child.h), which exits 0 when its body returns.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

#include "stock/bury.h"
#include "stock/epoch.h"
#include "stock/pf.h"
#include "support/child.h"
#include "support/tempdir.h"

using ::testing::HasSubstr;

namespace {

#define CHILD_CHECK(c)                                                      \
    do {                                                                    \
        if (!(c)) {                                                         \
            fprintf(stderr, "check failed at line %d: %s\n", __LINE__, #c); \
            _exit(99);                                                      \
        }                                                                   \
    } while (0)

// The value of key in state text, or "<missing>" / "<unparsable>".
std::string value_of(const std::string& text, const char* key) {
    Pf* pf = nullptr;
    std::string r = "<unparsable>";
    if (pfcompile(text.c_str(), &pf) == 0) {
        char* v = pfget_string(pf, key);
        r = v ? v : "<missing>";
    }
    pffree(pf);
    return r;
}

}  // namespace

TEST(Bury, EveryKindOfVariableReadsBackExactlyAndFailuresKeepThePreviousState) {
    TempDir t;
    std::string state = t / "deep/er/state";
    const double when = 1700000000.123456, ratio = 0.1 + 0.2;
    auto r = child::run([&] {
        int count = 0, unused = -1;
        double rt = 0, tm = 0;
        char* name = nullptr;
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == -1);
        CHILD_CHECK(bury() == -1);
        auto mortician = [](Pf* pf) { pfput_string(pf, "added", "by mortician"); };
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, mortician) == 0);
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == -2);
        CHILD_CHECK(exhume((state + "2").c_str(), nullptr, 0, nullptr) == -2);
        CHILD_CHECK(resurrect("count", &unused, INT_RELIC) == 1);  // replaced by the next line
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == 1);
        CHILD_CHECK(resurrect("ratio", &rt, DOUBLE_RELIC) == 1);
        CHILD_CHECK(resurrect("name", &name, STRING_RELIC) == 1);
        CHILD_CHECK(resurrect("when", &tm, TIME_RELIC) == 1);
        static int pktid = 77;  // names as the ring client makes them
        CHILD_CHECK(resurrect("host:6510{last_pktid}", &pktid, INT_RELIC) == 1 && pktid == 77);
        count = -42;
        rt = ratio;
        name = const_cast<char*>("some file name.dat");
        tm = when;
        CHILD_CHECK(bury() == 0);
        CHILD_CHECK(mkdir((state + "+").c_str(), 0755) == 0);  // the alternate can't be opened
        count = 2;
        CHILD_CHECK(bury() == -1);
    });
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_THAT(r.err, HasSubstr("Can't write alternate state file " + state + "+"));
    struct stat st;
    EXPECT_NE(stat((state + "2").c_str(), &st), 0);  // the refused second call made nothing
    std::string text = slurp(state);
    EXPECT_EQ(value_of(text, "when"), "1700000000 (318) 2023-11-14  22:13:20.123456 +0000 Tuesday");
    EXPECT_EQ(value_of(text, "added"), "by mortician");
    EXPECT_LT(text.find("added"), text.find("count"));  // keys in order
    EXPECT_LT(text.find("count"), text.find("name"));
    EXPECT_LT(text.find("ratio"), text.find("when"));
    std::ofstream(state, std::ios::app) << "late garbage\n";  // a time that does not parse
    r = child::run([&] {
        int count = 0, pktid = 0;
        double rt = 0, tm = 0, untouched = 3, late = 9;
        char* name = nullptr;
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 1);
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == 0 && count == -42);
        CHILD_CHECK(resurrect("ratio", &rt, DOUBLE_RELIC) == 0 && rt == ratio);
        CHILD_CHECK(resurrect("name", &name, STRING_RELIC) == 0 && !strcmp(name, "some file name.dat"));
        CHILD_CHECK(resurrect("when", &tm, TIME_RELIC) == 0 && std::fabs(tm - when) < 1e-6);
        CHILD_CHECK(resurrect("absent", &untouched, DOUBLE_RELIC) == 1 && untouched == 3);
        CHILD_CHECK(resurrect("late", &late, TIME_RELIC) == 1 && late == 9);
        CHILD_CHECK(resurrect("host:6510{last_pktid}", &pktid, INT_RELIC) == 0 && pktid == 77);
    });
    EXPECT_TRUE(r.exited(0)) << r.err;
    // In a file that is not parameter text nothing is found; a good state replaces it.
    ASSERT_EQ(rmdir((state + "+").c_str()), 0);
    std::ofstream(state) << "x 5\nblock &Arr{\n y 1\n";
    r = child::run([&] {
        int x = 0;
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 2);
        CHILD_CHECK(resurrect("x", &x, INT_RELIC) == 1 && x == 0);
        x = 7;
        CHILD_CHECK(bury() == 0);
    });
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(value_of(slurp(state), "x"), "7");
    std::ofstream(t / "plainfile") << "";
    for (std::string p : {t.path, t / "plainfile/under"}) {
        r = child::run([&] { CHILD_CHECK(exhume(p.c_str(), nullptr, 0, nullptr) == -1); });
        EXPECT_TRUE(r.exited(0)) << p << r.err;
    }
}

// A second process is refused the file while the first holds it, even after
// its rewrites, and the next one gets it once the first is killed.
TEST(Bury, SurvivesBeingKilledAtAnyMomentAndIsHeldByOneProcess) {
    TempDir t;
    std::string state = t / "state";
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> pause_us(0, 4000);
    long last = -1;
    int saw_progress = 0;
    for (int round = 0; round < 60; round++) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {  // a child the test kills
            close(ready[0]);
            int r = exhume(state.c_str(), nullptr, 0, nullptr), count = 0;
            CHILD_CHECK(r == 0 || r == 1);
            double when = 0;
            char* tag = nullptr;
            resurrect("count", &count, INT_RELIC);
            resurrect("when", &when, TIME_RELIC);
            resurrect("tag", &tag, STRING_RELIC);
            std::string keep;
            CHILD_CHECK(write(ready[1], "r", 1) == 1);
            for (;;) {
                count++;
                when = 1e9 + count + count / 1e6;
                keep = "tag-" + std::to_string(count);
                tag = keep.data();
                bury();
            }
        }
        close(ready[1]);
        char b;
        ASSERT_EQ(read(ready[0], &b, 1), 1);
        close(ready[0]);
        if (round == 0) {
            for (int i = 0; i < 10000 && atol(value_of(slurp(state), "count").c_str()) < 2; i++) usleep(1000);
            auto second = child::run([&] { exhume(state.c_str(), nullptr, 0, nullptr); });
            EXPECT_TRUE(second.exited(1));
            EXPECT_THAT(second.err, HasSubstr("Can't lock state file '" + state +
                                              "' for exclusive use: it is already in use.\n"));
        }
        usleep(pause_us(rng));
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        std::string text = slurp(state);
        if (text.empty()) continue;  // killed before its first write
        std::string count = value_of(text, "count");
        ASSERT_NE(count, "<unparsable>") << text;
        long n = atol(count.c_str());
        ASSERT_GE(n, last) << text;
        ASSERT_EQ(value_of(text, "tag"), "tag-" + count) << text;
        ASSERT_NEAR(str2epoch(value_of(text, "when").c_str()), 1e9 + n + n / 1e6, 1e-6) << text;
        saw_progress += n > last;
        last = n;
    }
    EXPECT_GT(saw_progress, 0);
}

TEST(Signals, StopFlagGraceTimerImmediateSaveAndDieSoon) {
    TempDir t;
    std::string state = t / "state";
    struct Case {
        int sec, sig;
        bool bury_in_time;
        int exit_code;
        const char *saved, *message;
    } cases[] = {
        {0, SIGTERM, false, 1, "1", ""},                                 // saves and ends the process at once
        {-1, SIGINT, false, 0, "1", ""},                                 // only the flag
        {1, SIGHUP, false, 1, "3", "quitting from resurrection alarm"},  // the timer saves and dies
        {1, SIGQUIT, true, 0, "4", ""},                                  // the alarm finds nothing to do
    };
    for (int i = 0; i < 4; i++) {
        const Case& c = cases[i];
        auto r = child::run([&] {
            int stop = 5, x = 0;
            CHILD_CHECK(exhume(state.c_str(), &stop, c.sec, nullptr) == (i > 0) && stop == 0);
            resurrect("x", &x, INT_RELIC);
            x = i + 1;
            raise(c.sig);
            CHILD_CHECK(stop == c.sig);
            if (c.bury_in_time) CHILD_CHECK(bury() == 0);
            for (double until = std_now() + 1.5; c.sec > 0 && std_now() < until;) usleep(50000);
        });
        EXPECT_TRUE(r.exited(c.exit_code)) << c.sec << r.err;
        EXPECT_THAT(r.err, HasSubstr(c.message)) << c.sec;
        EXPECT_EQ(value_of(slurp(state), "x"), c.saved) << c.sec;
    }
    // die_soon ends the process with a fatal message of its own.
    auto r = child::run([&] {
        die_soon(1);
        for (;;) pause();
    });
    EXPECT_TRUE(r.exited(1));
    EXPECT_THAT(r.err, HasSubstr("quitting from die_soon alarm"));
}

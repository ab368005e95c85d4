#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "stock/bury.h"
#include "stock/epoch.h"
#include "stock/pf.h"
#include "support/tempdir.h"

namespace {

// The state file belongs to the whole process, so every case runs in a child,
// which exits 0 when its body returns.
struct Child {
    pid_t pid = -1;
    std::string errfile;
    int status = 0;
    void wait() {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    int code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }
    std::string err() const { return slurp(errfile); }
};

Child start(const std::string& errfile, const std::function<void()>& body) {
    Child c;
    c.errfile = errfile;
    fflush(nullptr);
    c.pid = fork();
    if (c.pid == 0) {
        FILE* e = freopen(errfile.c_str(), "w", stderr);
        setvbuf(e, nullptr, _IONBF, 0);
        body();
        _exit(0);
    }
    return c;
}

Child run(const std::string& errfile, const std::function<void()>& body) {
    Child c = start(errfile, body);
    c.wait();
    return c;
}

#define CHILD_CHECK(c)                                                     \
    do {                                                                   \
        if (!(c)) {                                                        \
            fprintf(stderr, "check failed at line %d: %s\n", __LINE__, #c); \
            _exit(99);                                                     \
        }                                                                  \
    } while (0)

// The value of key in state text, or "<missing>" / "<unparsable>".
std::string value_of(const std::string& text, const char* key) {
    Pf* pf = nullptr;
    if (pfcompile(text.c_str(), &pf) != 0) {
        pffree(pf);
        return "<unparsable>";
    }
    char* v = pfget_string(pf, key);
    std::string r = v ? v : "<missing>";
    pffree(pf);
    return r;
}

}  // namespace

TEST(Exhume, ResultsForNewReadBadAndUnopenableFiles) {
    TempDir t;
    std::string state = t / "deep/er/state";
    Child c = run(t / "err1", [&] {
        int x = 5;
        CHILD_CHECK(resurrect("x", &x, INT_RELIC) == -1);
        CHILD_CHECK(bury() == -1);
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 0);
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == -2);
        CHILD_CHECK(exhume((state + "2").c_str(), nullptr, 0, nullptr) == -2);
        CHILD_CHECK(resurrect("x", &x, INT_RELIC) == 1);
        CHILD_CHECK(x == 5);
        CHILD_CHECK(bury() == 0);
    });
    ASSERT_EQ(c.code(), 0) << c.err();
    EXPECT_EQ(value_of(slurp(state), "x"), "5");
    struct stat st;
    EXPECT_NE(stat((state + "2").c_str(), &st), 0);  // the refused second call made nothing

    std::string bad = t / "bad";
    std::ofstream(bad) << "x 5\nblock &Arr{\n y 1\n";  // never closed
    c = run(t / "err3", [&] {
        int x = 0;
        CHILD_CHECK(exhume(bad.c_str(), nullptr, 0, nullptr) == 2);
        CHILD_CHECK(resurrect("x", &x, INT_RELIC) == 1);
        CHILD_CHECK(x == 0);
        x = 7;
        CHILD_CHECK(bury() == 0);  // a good state replaces the bad one
    });
    EXPECT_EQ(c.code(), 0) << c.err();
    EXPECT_EQ(value_of(slurp(bad), "x"), "7");

    std::ofstream(t / "plainfile") << "";
    for (std::string p : {t.path, t / "plainfile/under"}) {
        c = run(t / "err4", [&] {
            CHILD_CHECK(exhume(p.c_str(), nullptr, 0, nullptr) == -1);
        });
        EXPECT_EQ(c.code(), 0) << p << c.err();
    }
}

TEST(Bury, EveryKindOfVariableReadsBackExactly) {
    TempDir t;
    std::string state = t / "state";
    const double when = 1700000000.123456, ratio = 0.1 + 0.2;
    Child c = run(t / "err1", [&] {
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, [](Pf* pf) { pfput_string(pf, "added", "by mortician"); }) == 0);
        int count = 0;
        double r = 0, tm = 0;
        char* name = nullptr;
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == 1);
        CHILD_CHECK(resurrect("ratio", &r, DOUBLE_RELIC) == 1);
        CHILD_CHECK(resurrect("name", &name, STRING_RELIC) == 1);
        CHILD_CHECK(resurrect("when", &tm, TIME_RELIC) == 1);
        int unused = -1;
        CHILD_CHECK(resurrect("count", &unused, INT_RELIC) == 1);  // replaced by the next line
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == 1);
        static int pktid = 77;  // names as the ring client makes them
        CHILD_CHECK(resurrect("host:6510{last_pktid}", &pktid, INT_RELIC) == 1);
        count = -42;
        r = ratio;
        name = const_cast<char*>("some file name.dat");
        tm = when;
        CHILD_CHECK(bury() == 0);
    });
    ASSERT_EQ(c.code(), 0) << c.err();
    std::string text = slurp(state);
    EXPECT_EQ(value_of(text, "when"), "1700000000 (318) 2023-11-14  22:13:20.123456 +0000 Tuesday");
    EXPECT_EQ(value_of(text, "added"), "by mortician");
    EXPECT_LT(text.find("added"), text.find("count"));  // keys in order
    EXPECT_LT(text.find("count"), text.find("name"));
    EXPECT_LT(text.find("ratio"), text.find("when"));

    c = run(t / "err2", [&] {
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 1);
        int count = 0;
        double r = 0, tm = 0, untouched = 3;
        char* name = nullptr;
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == 0 && count == -42);
        CHILD_CHECK(resurrect("ratio", &r, DOUBLE_RELIC) == 0 && r == ratio);
        CHILD_CHECK(resurrect("name", &name, STRING_RELIC) == 0 && name && !strcmp(name, "some file name.dat"));
        CHILD_CHECK(resurrect("when", &tm, TIME_RELIC) == 0 && std::fabs(tm - when) < 1e-6);
        CHILD_CHECK(resurrect("absent", &untouched, DOUBLE_RELIC) == 1 && untouched == 3);
        int pktid = 0;
        CHILD_CHECK(resurrect("host:6510{last_pktid}", &pktid, INT_RELIC) == 0 && pktid == 77);
    });
    EXPECT_EQ(c.code(), 0) << c.err();

    std::ofstream(state) << "when garbage\n";
    c = run(t / "err3", [&] {
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 1);
        double tm = 9;
        CHILD_CHECK(resurrect("when", &tm, TIME_RELIC) == 1 && tm == 9);
    });
    EXPECT_EQ(c.code(), 0) << c.err();
}

TEST(Bury, AWriteFailureLeavesThePreviousState) {
    TempDir t;
    std::string state = t / "state";
    Child c = run(t / "err", [&] {
        int x = 1;
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 0);
        resurrect("x", &x, INT_RELIC);
        CHILD_CHECK(bury() == 0);
        CHILD_CHECK(mkdir((state + "+").c_str(), 0755) == 0);  // the alternate can't be opened
        x = 2;
        CHILD_CHECK(bury() == -1);
    });
    ASSERT_EQ(c.code(), 0) << c.err();
    EXPECT_EQ(value_of(slurp(state), "x"), "1");
    EXPECT_THAT(c.err(), testing::HasSubstr("Can't write alternate state file " + state + "+"));
}

TEST(Exhume, ASecondProcessIsRefusedEvenAfterRewrites) {
    TempDir t;
    std::string state = t / "state";
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    Child holder = start(t / "err1", [&] {
        int x = 1;
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 0);
        resurrect("x", &x, INT_RELIC);
        CHILD_CHECK(bury() == 0);  // the file on disk is now a new one
        x = 2;
        CHILD_CHECK(bury() == 0);
        CHILD_CHECK(write(ready[1], "r", 1) == 1);
        char b;
        CHILD_CHECK(read(done[0], &b, 1) == 1);
    });
    char b;
    ASSERT_EQ(read(ready[0], &b, 1), 1);
    Child second = run(t / "err2", [&] {
        exhume(state.c_str(), nullptr, 0, nullptr);
    });
    ASSERT_EQ(write(done[1], "d", 1), 1);
    holder.wait();
    EXPECT_EQ(holder.code(), 0) << holder.err();
    EXPECT_EQ(second.code(), 1);
    EXPECT_THAT(second.err(), testing::HasSubstr("Can't lock state file '" + state +
                                                 "' for exclusive use: it is already in use.\n"));
    // Once the holder is gone the file is free again.
    Child third = run(t / "err3", [&] { CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == 1); });
    EXPECT_EQ(third.code(), 0) << third.err();
    for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
}

TEST(Bury, SurvivesBeingKilledAtAnyMoment) {
    TempDir t;
    std::string state = t / "state";
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> pause_us(0, 4000);
    long last = -1;
    int saw_progress = 0;
    for (int round = 0; round < 60; round++) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        Child c = start(t / "err", [&] {
            close(ready[0]);
            int r = exhume(state.c_str(), nullptr, 0, nullptr);
            CHILD_CHECK(r == 0 || r == 1);
            int count = 0;
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
        });
        close(ready[1]);
        char b;
        ASSERT_EQ(read(ready[0], &b, 1), 1);
        close(ready[0]);
        usleep(pause_us(rng));
        kill(c.pid, SIGKILL);
        c.wait();
        ASSERT_EQ(c.code(), -SIGKILL) << c.err();

        std::string text = slurp(state);
        if (text.empty()) continue;  // killed before its first write
        std::string count = value_of(text, "count");
        ASSERT_NE(count, "<unparsable>") << text;
        long n = atol(count.c_str());
        ASSERT_GE(n, last) << text;
        ASSERT_EQ(value_of(text, "tag"), "tag-" + count) << text;
        double when = str2epoch(value_of(text, "when").c_str());
        ASSERT_NEAR(when, 1e9 + n + n / 1e6, 1e-6) << text;
        if (n > last) saw_progress++;
        last = n;
    }
    EXPECT_GT(saw_progress, 0);
}

TEST(Signals, StopFlagGraceTimerImmediateSaveAndDieSoon) {
    TempDir t;
    std::string state = t / "state";
    // sec 0: the signal saves and ends the process at once.
    Child c = run(t / "err1", [&] {
        int stop = 5, x = 0;
        CHILD_CHECK(exhume(state.c_str(), &stop, 0, nullptr) == 0);
        CHILD_CHECK(stop == 0);
        resurrect("x", &x, INT_RELIC);
        x = 11;
        raise(SIGTERM);
    });
    EXPECT_EQ(c.code(), 1) << c.err();
    EXPECT_EQ(value_of(slurp(state), "x"), "11");

    // sec < 0: only the flag.
    c = run(t / "err2", [&] {
        int stop = 0;
        CHILD_CHECK(exhume(state.c_str(), &stop, -1, nullptr) == 1);
        raise(SIGINT);
        CHILD_CHECK(stop == SIGINT);
    });
    EXPECT_EQ(c.code(), 0) << c.err();

    // sec 1, no bury in time: the timer saves and dies.
    c = run(t / "err3", [&] {
        int stop = 0, x = 0;
        CHILD_CHECK(exhume(state.c_str(), &stop, 1, nullptr) == 1);
        resurrect("x", &x, INT_RELIC);
        x = 12;
        raise(SIGHUP);
        CHILD_CHECK(stop == SIGHUP);
        for (;;) pause();
    });
    EXPECT_EQ(c.code(), 1);
    EXPECT_THAT(c.err(), testing::HasSubstr("quitting from resurrection alarm"));
    EXPECT_EQ(value_of(slurp(state), "x"), "12");

    // sec 1 and a bury in time: the alarm finds nothing to do.
    c = run(t / "err4", [&] {
        int stop = 0, x = 0;
        CHILD_CHECK(exhume(state.c_str(), &stop, 1, nullptr) == 1);
        resurrect("x", &x, INT_RELIC);
        raise(SIGQUIT);
        x = 13;
        CHILD_CHECK(stop == SIGQUIT && bury() == 0);
        double until = std_now() + 1.5;
        while (std_now() < until) usleep(50000);
    });
    EXPECT_EQ(c.code(), 0) << c.err();
    EXPECT_EQ(value_of(slurp(state), "x"), "13");

    // die_soon ends the process with a fatal message of its own.
    c = run(t / "err5", [&] {
        die_soon(1);
        for (;;) pause();
    });
    EXPECT_EQ(c.code(), 1);
    EXPECT_THAT(c.err(), testing::HasSubstr("quitting from die_soon alarm"));
}

// The event log, watched from outside: every case runs in a forked child
// (the log reads its settings once per process, and dies and faults end it)
// and checks the exact bytes written and the way the child ended.
#include "stock/elog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "stock/tbl.h"
#include "support/child.h"
#include "support/tempdir.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace {

const std::string P = "elog_test";  // the tag %P gives this program

// Default settings, whatever the environment running the tests says.
child::Env env(child::Env extra = {}) {
    child::Env e = {{"ELOG_DELIVER", std::nullopt}, {"ELOG_TAG", std::nullopt}, {"ELOG_DEBUG", std::nullopt},
                    {"ELOG_SIGNALS", std::nullopt}, {"ELOG_WAIT", std::nullopt}, {"ELOG_MAXMSG", "0"}};
    e.insert(e.end(), extra.begin(), extra.end());
    return e;
}

// A check inside a child: a failure ends it with status 3 and says why.
void require(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "child check failed: %s\n", what);
        fflush(stderr);
        _exit(3);
    }
}

}  // namespace

TEST(ElogOutput, SeverityTagsSystemErrorsRepeatsAndTruncation) {
    auto r = child::run([] {
        elog_notify(0, "x");
        require(elog_mark() == 0, "delivered message left in the log");
        elog_debug(0, "d");
        elog_alert(0, "a");
        complain(0, "c");
        elog_notify(0, "\nx");  // the newline goes before the tag
        elog_notify(0, "\n");
        elog_notify(0, nullptr);
        elog_notify(0, "%s", "");
        errno = ENOENT;
        elog_complain(1, "Can't open '%s'", "f");
        require(errno == 0, "errno not cleared");
        errno = ENOENT;
        elog_complain(0, "no text wanted");
        errno = 0;
        elog_complain(1, "no error to tell");
        errno = 99999;
        elog_complain(1, "odd errno");
        elog_log(0, "same");
        elog_log(0, "same\n");
        elog_log(0, "same");
        require(elog_mark() == 1, "repeat stored twice");
        elog_complain(0, "other");
        // Delivered at once, so the next identical one starts afresh.
        elog_notify(0, "again");
        elog_notify(0, "again");
        for (int n : {10237, 10238, 10240, 10241, 50000}) elog_notify(0, "%s", std::string(n, 'x').c_str());
    }, env());
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(r.out, "");
    std::string x = P + ": ", fits = x + std::string(10237, 'x') + "\n";
    const std::string marker = "\n\t...  ** truncated by elog ***\n";
    std::string marked = x + std::string(10239 - marker.size(), 'x') + marker;
    // The second and third long ones are cut by the buffer alone.
    std::string expect = x + "x\n" + P + " *debug*: d\n" + P + " *alert*: a\n" + x + "c\n\n" +
                         x + "x\n\n\n\n" + x + "Can't open 'f'\n\t##=> No such file or directory\n" +
                         x + "no text wanted\n" + x + "no error to tell\n" +
                         x + "odd errno\n\t##=> Unknown error: 99999\n" +
                         x + "same\n\t** repeated 3 times\n" + x + "other\n" + x + "again\n" + x + "again\n" +
                         fits + fits + fits + marked + marked;
    EXPECT_EQ(r.err.size(), expect.size());
    EXPECT_TRUE(r.err == expect) << r.err.substr(0, 1000);
}

TEST(ElogLimit, FiftiethKeptMessageQuitsAndABadLimitIsIgnored) {
    auto r = child::run([] {
        for (int i = 1; i <= 49; i++) elog_log(0, "kept %d", i);
        printf("alive after 49\n");
        fflush(stdout);
        elog_log(0, "kept 50");
        printf("alive after 50\n");
    }, env({{"ELOG_MAXMSG", std::nullopt}}));
    EXPECT_TRUE(r.exited(1)) << r.status;
    EXPECT_EQ(r.out, "alive after 49\n");
    std::string expect;
    for (int i = 1; i <= 50; i++) expect += P + ": kept " + std::to_string(i) + "\n";
    EXPECT_EQ(r.err, expect + P + " *fatal*: quitting because log has 50 messages\n"
                                  "   eliminate this limit with\n      setenv ELOG_MAXMSG 0\n"
                                  "   or by editing elog.pf.  See elog(3).\n");
    for (const char* bad : {"abc", "", "12x", "99999999999999999999"}) {
        r = child::run([] {
            elog_notify(0, "still logging");
            int max = -1;
            require(elog_query(ELOG_MAXMSG, 0, &max) == 0 && max == 50, "limit not kept at its default");
        }, env({{"ELOG_MAXMSG", bad}}));
        EXPECT_TRUE(r.exited(0)) << bad << ": " << r.err;
        EXPECT_THAT(r.err, HasSubstr("ELOG_MAXMSG")) << bad;
        EXPECT_THAT(r.err, HasSubstr(P + ": still logging\n")) << bad;
    }
}

namespace {
int crash(int, const char*, Tbl*) {
    raise(SIGSEGV);
    return 0;
}
}  // namespace

// die exits with status 1; a fault, a fatal signal or a fault inside the log aborts.
TEST(ElogFatal, HowEachEndIsReported) {
    struct Case {
        const char* name;
        void (*body)();
        child::Env settings;
        int signal;  // 0: exits with status 1
        std::string err;
    } cases[] = {
        {"die", [] { elog_die(0, "cannot go on"); }, {}, 0, P + " *fatal*: cannot go on\n"},
        {"fault", [] { elog_fault(0, "broken"); }, {}, SIGABRT, P + " *fault*: broken\n"},
        {"SEGV", [] { elog_init(0, nullptr); raise(SIGSEGV); }, {}, SIGABRT,
         P + " *fault*: Signal SEGV : Segmentation fault\n"},
        // An interceptable signal chosen by the environment; the default set is replaced.
        {"USR1", [] { elog_init(0, nullptr); raise(SIGUSR1); }, {{"ELOG_SIGNALS", "USR1:ABRT"}}, SIGABRT,
         P + " *fault*: Signal USR1 : User defined signal 1\n"},
        // Reported without waiting for the log, which the faulting thread holds.
        {"fault inside the log", [] { elog_callback(crash); elog_notify(0, "x"); }, {}, SIGABRT,
         "Signal SEGV : Segmentation fault\n"},
        // The default for die names a debugger that is not installed: nothing is tried.
        {"die without its debugger", [] { elog_die(0, "end"); },
         {{"ELOG_DEBUG", "no-such-debugger-here %r %p &@d"}}, 0, P + " *fatal*: end\n"},
    };
    for (const Case& c : cases) {
        auto r = child::run(c.body, env(c.settings));
        EXPECT_TRUE(c.signal ? r.signaled(c.signal) : r.exited(1)) << c.name << ": " << r.status;
        EXPECT_EQ(r.err, c.err) << c.name;
    }
}

TEST(ElogFatal, SignalNamesAndBadNames) {
    // Old aliases, the SIG prefix, and names that are none.
    const std::pair<const char*, int> names[] = {
        {"IOT", 6}, {"CLD", 17}, {"SIGTERM", 15}, {"KILLME", -1}, {"", -1}};
    for (auto [name, number] : names) EXPECT_EQ(elog_signal_number(name), number) << name;
    EXPECT_EQ(elog_signal_number(nullptr), -1);
    auto r = child::run([] {
        require(elog_setup_fault_handler("SEGV:NOPE::") == 1, "bad name not counted");
        require(elog_setup_fault_handler("KILL") == 1, "unknown name accepted");
    }, env({{"ELOG_SIGNALS", "FOO"}}));
    EXPECT_TRUE(r.exited(0)) << r.err;
    std::string bad = P + ": Unrecognized signal name '";
    EXPECT_EQ(r.err, bad + "FOO'\n" + bad + "NOPE'\n" + bad + "KILL'\n");
}

TEST(ElogSettings, DeliveryValuesWordsAndEscapes) {
    auto r = child::run([] {
        elog_notify(0, "n");
        elog_complain(0, "c");
        elog_alert(0, "a");
        elog_debug(0, "d");
    }, env({{"ELOG_DELIVER", "stdout@na stdout stderr@complain"}, {"ELOG_TAG", "x\\@y@n [%P]@D"}}));
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(r.out, "x@y: n\n" + P + ": c\n" + P + " *alert*: a\n");
    EXPECT_EQ(r.err, P + ": c\n[" + P + "]: d\n");
    // Odd and wrong delivery values, each tried on a notice and a complaint.
    struct Case {
        std::string deliver, out, err;
        int kept;  // messages left in the log after the notice
    } cases[] = {
        {"stdout@nc @c", P + ": n\n", P + ": c\n", 0},  // an empty value restores the default
        {"stdout@qc", P + ": c\n", P + ": Unrecognized severity 'q'\n" + P + ": n\n", 0},
        // What no destination takes goes to stderr instead of piling up in the log.
        {"nowhere@n", "", "unrecognized delivery 'nowhere'\n" + P + ": n\n" + P + ": c\n", 0},
        {"other log@n", "", P + ": n\n" + P + ": c\n", 1},  // words beginning with o are ignored
    };
    for (const Case& c : cases) {
        r = child::run([&c] {
            elog_notify(0, "n");
            require(elog_mark() == c.kept, "messages left in the log");
            elog_complain(0, "c");
        }, env({{"ELOG_DELIVER", c.deliver}}));
        EXPECT_TRUE(r.exited(0)) << c.deliver << ": " << r.err;
        EXPECT_EQ(r.out, c.out) << c.deliver;
        EXPECT_EQ(r.err, c.err) << c.deliver;
    }
}

TEST(ElogDelivery, FilesAppendAreCreatedWithMode0664OrFallBackToStderr) {
    TempDir d;
    std::string file = d / "errors";
    auto r = child::run([] {
        umask(0);
        elog_complain(0, "one");
        errno = EACCES;
        elog_complain(1, "two");
        elog_notify(0, "elsewhere");
    }, env({{"ELOG_DELIVER", file + " stderr@c"}}));
    EXPECT_TRUE(r.exited(0)) << r.err;
    std::string both = P + ": one\n" + P + ": two\n\t##=> Permission denied\n";
    EXPECT_EQ(slurp(file), both);
    EXPECT_EQ(r.err, both + P + ": elsewhere\n");
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0664u);
    // One that can't be opened is reported and its message goes to stderr.
    std::string bad = d / "no/such/dir/log", good = d / "good";
    r = child::run([] {
        elog_complain(0, "fell back");
        require(elog_mark() == 0, "message kept");
        elog_notify(0, "one of two worked");
    }, env({{"ELOG_DELIVER", bad + "@c " + bad + " " + good + "@n"}}));
    EXPECT_TRUE(r.exited(0));
    std::string refused = "Can't open error file '" + bad + "'\n";
    EXPECT_EQ(r.err, refused + P + ": fell back\n" + refused);
    EXPECT_EQ(slurp(good), P + ": one of two worked\n");
}

namespace {
int Seen[ELOG_MAXSEVERITY];
int clear_on_alert(int severity, const char* log, Tbl* msgs) {
    Seen[severity]++;
    require(log && maxtbl(msgs) >= 1, "callback without the log");
    return severity == ELOG_ALERT;
}
}  // namespace

TEST(ElogList, MarkFlushCallbackQueryAndSet) {
    auto r = child::run([] {
        elog_log(0, "a");
        int mark = elog_mark();
        elog_log(0, "b");
        errno = EPERM;
        elog_log(1, "c");
        char* s = elog_string(mark);
        require(std::string(s) == P + ": b\n" + P + ": c\n\t##=> Operation not permitted\n", "elog_string");
        free(s);
        s = elog_string(99);
        require(std::string(s).empty(), "elog_string past the end");
        free(s);
        elog_flush(1, mark);  // b and c go out as complaints
        require(elog_mark() == 1, "flush");
        elog_log(0, "d");
        elog_truncate(1);
        require(elog_mark() == 1, "truncate");
        elog_truncate(-5);
        require(elog_mark() == 0, "truncate below 0");
        elog_log(0, "e");
        elog_clear_register(0);
        require(elog_mark() == 0, "clear_register without delivery");
        elog_log(0, "f");
        elog_clear_register(1);
        elog_log(0, "g");
        elog_clear();
        require(elog_mark() == 0, "clear");
        // The callback sees each message and may clear the log.
        elog_callback(clear_on_alert);
        elog_log(0, "kept");
        elog_alert(0, "cleared before delivery");
        require(elog_mark() == 0, "callback result ignored");
        elog_notify(0, "n");
        require(Seen[ELOG_LOG] == 1 && Seen[ELOG_ALERT] == 1 && Seen[ELOG_NOTIFY] == 1, "callback calls");
        Elog_callback cb = nullptr;
        require(elog_query(ELOG_CALLBACK, 0, &cb) == 0 && cb == clear_on_alert, "query callback");
        elog_callback(nullptr);
        s = nullptr;
        require(elog_query(ELOG_TAG, 7, &s) == -1, "severity out of range");
        require(elog_query(9999, 0, &s) == -1, "unknown code");
        require(elog_set(ELOG_TAG, ELOG_NOTIFY, "[%P]") == 0, "set tag");
        elog_notify(0, "tagged");
        require(elog_set(ELOG_TAG, ELOG_NOTIFY, nullptr) == 0, "reset tag");
        elog_notify(0, "plain");
        elog_log(0, "one");
        elog_log(0, "two");
        Tbl* t = nullptr;
        require(elog_query(ELOG_TBL, 0, &t) == 0 && maxtbl(t) == 2, "message list copy");
        Elog_msg* m = static_cast<Elog_msg*>(gettbl(t, 1));
        require(m->msg == std::string("two\n") && m->n == 1 && m->severity == ELOG_LOG && !m->sys, "copied");
        elog_free_msgs(t);
        int count = 0;
        require(elog_query(ELOG_COUNT, 0, &count) == 0 && count == 2, "count");
        require(elog_set(ELOG_MAXMSG, 3, nullptr) == 0, "set limit");
        elog_log(0, "three");
    }, env());
    EXPECT_TRUE(r.exited(1)) << r.err;
    EXPECT_THAT(r.err, StartsWith(P + ": b\n" + P + ": c\n\t##=> Operation not permitted\n" + P + ": f\n" +
                                  P + ": n\n" + "[" + P + "]: tagged\n" + P + ": plain\n"));
    EXPECT_THAT(r.err, HasSubstr("quitting because log has 3 messages"));
}

TEST(ElogTags, Expansion) {
    auto r = child::run([] {
        char prog[] = "/some/where/prog", v[] = "-v", file[] = "file";
        char* argv[] = {prog, v, file, nullptr};
        elog_init(3, argv);
        char buf[1024];
        for (const char* tag : {"%P|%a|%p|%q|%%|%", "%u", "%t", "%r", "%T", "%h"})
            printf("[%s]\n", elog_expand(tag, buf, sizeof buf));
    }, env());
    ASSERT_TRUE(r.exited(0)) << r.err;
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    const std::string clock = "[ 12][0-9]:[0-5][0-9]:[0-6][0-9]";
    const std::string lines[] = {
        "\\[" + P + "\\|-v file \\|[0-9]+\\|q\\|%\\|\\]",
        "\\[20[0-9][0-9]-[0-3][0-9][0-9] " + clock + "\\]",
        "\\[(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3][0-9] " +
            clock + " 20[0-9][0-9]\\]",
        "\\[" FERRANT_BUILD_DIR "/tests/elog_test\\]", "\\[[0-9]+\\]", std::string("\\[") + host + "\\]"};
    std::stringstream s(r.out);
    std::string l;
    for (const std::string& re : lines) {
        ASSERT_TRUE(std::getline(s, l)) << r.out;
        EXPECT_THAT(l, MatchesRegex(re));
    }
    // Too long for the buffer: cut, with a mark.
    std::string tag(3000, 'a');
    char buf[1024], small[8];
    std::string out = elog_expand(tag.c_str(), buf, sizeof buf);
    EXPECT_LE(out.size(), 1023u);
    EXPECT_GE(out.size(), 1023u - 100);
    EXPECT_THAT(out, EndsWith(" *..."));
    EXPECT_LE(strlen(elog_expand("%%%%", small, sizeof small)), 7u);
    EXPECT_STREQ(elog_expand(nullptr, buf, sizeof buf), "");
}

TEST(ElogSettings, ParameterFileThenEnvironmentAndBadFiles) {
    TempDir d;
    d.file("elog.pf", "ELOG_MAXMSG 2\nELOG_SIGNALS USR2\nELOG_TAG &Arr{\n    n [%P]\n    alert <%P>\n}\n"
                      "ELOG_DELIVER stdout@nc\n");
    auto r = child::run([] {
        elog_notify(0, "n");
        elog_complain(0, "c");
        elog_alert(0, "a");
        elog_log(0, "one");
        elog_log(0, "two");
    }, env({{"PFPATH", d.path}, {"ELOG_MAXMSG", std::nullopt}}));
    EXPECT_TRUE(r.exited(1)) << r.err;
    EXPECT_EQ(r.out, "[" + P + "]: n\n" + P + ": c\n");
    EXPECT_THAT(r.err, StartsWith("<" + P + ">: a\n" + P + ": one\n" + P + ": two\n"));
    EXPECT_THAT(r.err, HasSubstr("quitting because log has 2 messages"));
    // The environment wins over the file.
    r = child::run([] {
        elog_notify(0, "n");
        elog_init(0, nullptr);
        raise(SIGUSR2);
    }, env({{"PFPATH", d.path}, {"ELOG_DELIVER", "stderr@n"}, {"ELOG_TAG", "{%P}@n"}}));
    EXPECT_TRUE(r.signaled(SIGABRT)) << r.status;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "{" + P + "}: n\n" + P + " *fault*: Signal USR2 : User defined signal 2\n");
    // A bad file does not stop the log; the debugger runs once per process.
    d.file("elog.pf", "ELOG_MAXMSG lots\nELOG_DELIVER &Arr{\n    x stdout\n    n\n}\n}\n"
                      "ELOG_TAG &Tbl{\n\1\2\3\n");
    std::string ran = d / "ran";
    r = child::run([] {
        elog_notify(0, "one");
        elog_notify(0, "still here");
    }, env({{"PFPATH", d.path}, {"ELOG_DEBUG", "echo %p >>" + ran + "@n"}}));
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_THAT(r.err, HasSubstr("ELOG_MAXMSG 'lots' is not a number"));
    EXPECT_THAT(r.err, HasSubstr("Unrecognized severity 'x'"));
    EXPECT_THAT(r.err, EndsWith(P + ": still here\n"));
    EXPECT_THAT(slurp(ran), MatchesRegex("[0-9]+\n"));
    EXPECT_THAT(r.err, HasSubstr("Running debugger: 'echo "));
    EXPECT_EQ(r.err.find("Running debugger"), r.err.rfind("Running debugger"));
}

// The shipped parameter file reads without complaint and changes none of the
// built-in settings.
TEST(ElogSettings, ShippedParameterFileHoldsTheDefaults) {
    auto settings = [](const char* pfpath) {
        return child::run([] {
            for (int sev = 0; sev < ELOG_MAXSEVERITY; sev++)
                for (int code : {ELOG_TAG, ELOG_DELIVER, ELOG_DEBUG}) {
                    char* s = nullptr;
                    elog_query(code, sev, &s);
                    printf("%d %d: %s\n", sev, code, s);
                    free(s);
                }
            int max = 0, wait = 0;
            char* signals = nullptr;
            elog_query(ELOG_MAXMSG, 0, &max);
            elog_query(ELOG_WAIT, 0, &wait);
            elog_query(ELOG_SIGNALS, 0, &signals);
            printf("%d %d %s\n", max, wait, signals);
            free(signals);
        }, env({{"PFPATH", pfpath}, {"ELOG_MAXMSG", std::nullopt}}));
    };
    auto shipped = settings(FERRANT_SOURCE_DIR "/data/pf"), builtin = settings("/nonexistent");
    EXPECT_TRUE(shipped.exited(0) && builtin.exited(0)) << shipped.err << builtin.err;
    EXPECT_EQ(shipped.err, "");
    EXPECT_EQ(shipped.out, builtin.out);
}

TEST(ElogThreads, ConcurrentMessagesAreKeptAndDeliveredWhole) {
    auto r = child::run([] {
        auto in_threads = [](void (*body)(int)) {
            std::vector<std::thread> threads;
            for (int t = 0; t < 4; t++) threads.emplace_back(body, t);
            for (auto& th : threads) th.join();
        };
        in_threads([](int t) {
            for (int i = 0; i < 300; i++) elog_log(0, "thread %d message %d", t, i);
        });
        require(elog_mark() == 1200, "messages lost or merged");
        elog_flush(1, 600);
        require(elog_mark() == 600, "flush under threads");
        elog_clear();
        in_threads([](int t) {
            std::string z(300, 'z');
            for (int i = 0; i < 200; i++) elog_notify(0, "thread %d message %d %s", t, i, z.c_str());
        });
    }, env());
    ASSERT_TRUE(r.exited(0)) << r.err.substr(0, 200);
    // The 600 flushed messages, then 800 notices that must not interleave.
    std::stringstream s(r.err);
    int lines = 0;
    for (std::string l; std::getline(s, l); lines++)
        ASSERT_THAT(l, MatchesRegex(P + ": thread [0-3] message [0-9]+" + (lines < 600 ? "" : " z{300}")))
            << "line " << lines;
    EXPECT_EQ(lines, 1400);
}

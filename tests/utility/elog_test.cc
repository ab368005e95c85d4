// The event log and the state file, watched from outside: both belong to the whole process (the
// log reads its settings once per process, and dies and faults end it), so every case runs in a
// forked child (support/child.h) and checks the bytes written and the way the child ended.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "stock/bury.h"
#include "stock/elog.h"
#include "stock/epoch.h"
#include "stock/pf.h"
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

// The value of key in state text, or "<missing>" / "<unparsable>".
std::string value_of(const std::string& text, const char* key) {
    Pf* pf = nullptr;
    int rc = pfcompile(text.c_str(), &pf);
    char* v = rc == 0 ? pfget_string(pf, key) : nullptr;
    std::string r = rc != 0 ? "<unparsable>" : v ? v : "<missing>";
    pffree(pf);
    return r;
}

// A check inside a child: a failure ends it with status 99 and says why.
#define CHILD_CHECK(c) \
    do if (!(c)) fprintf(stderr, "check failed at line %d: %s\n", __LINE__, #c), _exit(99); while (0)

int crash(int, const char*, Tbl*) {
    raise(SIGSEGV);
    return 0;
}

}  // namespace

TEST(ElogOutput, SeverityTagsSystemErrorsRepeatsTruncationTagCodesAndHowEachEndIsReported) {
    auto r = child::run([] {
        elog_notify(0, "x");
        CHILD_CHECK(elog_mark() == 0);
        elog_debug(0, "d");
        elog_alert(0, "a");
        complain(0, "c");
        elog_notify(0, "\nx");  // the newline goes before the tag
        elog_notify(0, "\n");
        elog_notify(0, nullptr);
        elog_notify(0, "%s", "");
        errno = ENOENT;
        elog_complain(1, "Can't open '%s'", "f");
        CHILD_CHECK(errno == 0);
        errno = ENOENT;
        elog_complain(0, "no text wanted");
        errno = 0;
        elog_complain(1, "no error to tell");
        errno = 99999;
        elog_complain(1, "odd errno");
        elog_log(0, "same");
        elog_log(0, "same\n");
        elog_log(0, "same");
        CHILD_CHECK(elog_mark() == 1);
        elog_complain(0, "other");
        // Delivered at once, so the next identical one starts afresh.
        elog_notify(0, "again");
        elog_notify(0, "again");
        for (int n : {10237, 10238, 10240, 10241, 50000}) elog_notify(0, "%s", std::string(n, 'x').c_str());
    }, env());
    EXPECT_TRUE(r.exited(0) && r.out.empty()) << r.err;
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
    // What each tag code expands to.
    r = child::run([] {
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
    std::string all;
    for (const std::string& re : lines) all += re + "\n";
    EXPECT_THAT(r.out, MatchesRegex(all));
    // Too long for the buffer: cut, with a mark.
    std::string tag(3000, 'a');
    char buf[1024], small[8];
    std::string out = elog_expand(tag.c_str(), buf, sizeof buf);
    EXPECT_TRUE(out.size() <= 1023u && out.size() >= 1023u - 100) << out.size();
    EXPECT_THAT(out, EndsWith(" *..."));
    EXPECT_LE(strlen(elog_expand("%%%%", small, sizeof small)), 7u);
    EXPECT_STREQ(elog_expand(nullptr, buf, sizeof buf), "");
    // die exits with status 1; a fault, a fatal signal or a fault inside the log aborts.
    // What the child does, with what settings, the signal ending it (0: exit status 1), its errors.
    const std::tuple<const char*, void (*)(), child::Env, int, std::string> cases[] = {
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
    for (const auto& [name, body, settings, signal, err] : cases) {
        r = child::run(body, env(settings));
        EXPECT_TRUE(signal ? r.signaled(signal) : r.exited(1)) << name << ": " << r.status;
        EXPECT_EQ(r.err, err) << name;
    }
    // Signal names: old aliases, the SIG prefix, and names that are none.
    const std::pair<const char*, int> names[] = {
        {"IOT", 6}, {"CLD", 17}, {"SIGTERM", 15}, {"KILLME", -1}, {"", -1}};
    for (auto [name, number] : names) EXPECT_EQ(elog_signal_number(name), number) << name;
    EXPECT_EQ(elog_signal_number(nullptr), -1);
    r = child::run([] {
        CHILD_CHECK(elog_setup_fault_handler("SEGV:NOPE::") == 1);
        CHILD_CHECK(elog_setup_fault_handler("KILL") == 1);
    }, env({{"ELOG_SIGNALS", "FOO"}}));
    EXPECT_TRUE(r.exited(0)) << r.err;
    std::string bad = P + ": Unrecognized signal name '";
    EXPECT_EQ(r.err, bad + "FOO'\n" + bad + "NOPE'\n" + bad + "KILL'\n");
}

namespace {
int Seen[ELOG_MAXSEVERITY];
int clear_on_alert(int severity, const char* log, Tbl* msgs) {
    Seen[severity]++;
    CHILD_CHECK(log && maxtbl(msgs) >= 1);
    return severity == ELOG_ALERT;
}
}  // namespace

TEST(ElogList, MarkFlushCallbackQuerySetAndThreads) {
    auto r = child::run([] {
        elog_log(0, "a");
        int mark = elog_mark();
        elog_log(0, "b");
        errno = EPERM;
        elog_log(1, "c");
        auto text = [](int from) { return std::unique_ptr<char, decltype(&free)>(elog_string(from), free); };
        CHILD_CHECK(text(mark).get() == P + ": b\n" + P + ": c\n\t##=> Operation not permitted\n");
        CHILD_CHECK(!*text(99));
        elog_flush(1, mark);  // b and c go out as complaints
        CHILD_CHECK(elog_mark() == 1);
        elog_log(0, "d");
        elog_truncate(1);
        CHILD_CHECK(elog_mark() == 1);
        elog_truncate(-5);
        CHILD_CHECK(elog_mark() == 0);
        elog_log(0, "e");
        elog_clear_register(0);
        CHILD_CHECK(elog_mark() == 0);
        elog_log(0, "f");
        elog_clear_register(1);
        elog_log(0, "g");
        elog_clear();
        CHILD_CHECK(elog_mark() == 0);
        // The callback sees each message and may clear the log.
        elog_callback(clear_on_alert);
        elog_log(0, "kept");
        elog_alert(0, "cleared before delivery");
        CHILD_CHECK(elog_mark() == 0);
        elog_notify(0, "n");
        CHILD_CHECK(Seen[ELOG_LOG] == 1 && Seen[ELOG_ALERT] == 1 && Seen[ELOG_NOTIFY] == 1);
        Elog_callback cb = nullptr;
        CHILD_CHECK(elog_query(ELOG_CALLBACK, 0, &cb) == 0 && cb == clear_on_alert);
        elog_callback(nullptr);
        char* s = nullptr;
        CHILD_CHECK(elog_query(ELOG_TAG, 7, &s) == -1 && elog_query(9999, 0, &s) == -1);
        CHILD_CHECK(elog_set(ELOG_TAG, ELOG_NOTIFY, "[%P]") == 0);
        elog_notify(0, "tagged");
        CHILD_CHECK(elog_set(ELOG_TAG, ELOG_NOTIFY, nullptr) == 0);
        elog_notify(0, "plain");
        elog_log(0, "one");
        elog_log(0, "two");
        Tbl* t = nullptr;
        CHILD_CHECK(elog_query(ELOG_TBL, 0, &t) == 0 && maxtbl(t) == 2);
        Elog_msg* m = static_cast<Elog_msg*>(gettbl(t, 1));
        CHILD_CHECK(m->msg == std::string("two\n") && m->n == 1 && m->severity == ELOG_LOG && !m->sys);
        elog_free_msgs(t);
        int count = 0;
        CHILD_CHECK(elog_query(ELOG_COUNT, 0, &count) == 0 && count == 2);
        CHILD_CHECK(elog_set(ELOG_MAXMSG, 3, nullptr) == 0);
        elog_log(0, "three");
    }, env({{"PFPATH", "/nonexistent"}}));  // no parameter file: the built-in settings
    EXPECT_TRUE(r.exited(1)) << r.err;
    std::string x = P + ": ";
    EXPECT_EQ(r.err, x + "b\n" + x + "c\n\t##=> Operation not permitted\n" + x + "f\n" + x + "n\n[" + P +
                         "]: tagged\n" + x + "plain\n" + x + "one\n" + x + "two\n" + x + "three\n" + P +
                         " *fatal*: quitting because log has 3 messages\n   eliminate this limit with\n"
                         "      setenv ELOG_MAXMSG 0\n   or by editing elog.pf.  See elog(3).\n");
    // Messages from threads at once are all kept, and delivered whole.
    r = child::run([] {
        auto in_threads = [](void (*body)(int)) {
            std::vector<std::thread> threads;
            for (int t = 0; t < 4; t++) threads.emplace_back(body, t);
            for (auto& th : threads) th.join();
        };
        in_threads([](int t) { for (int i = 0; i < 300; i++) elog_log(0, "thread %d message %d", t, i); });
        CHILD_CHECK(elog_mark() == 1200);
        elog_flush(1, 600);
        CHILD_CHECK(elog_mark() == 600);
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

TEST(ElogSettings, DeliveryWordsEscapesAndFilesThenParameterFilesAndTheEnvironment) {
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
    // The delivery, what reaches stdout and stderr, and the messages left in the log after the notice.
    const std::tuple<std::string, std::string, std::string, int> cases[] = {
        {"stdout@nc @c", P + ": n\n", P + ": c\n", 0},  // an empty value restores the default
        {"stdout@qc", P + ": c\n", P + ": Unrecognized severity 'q'\n" + P + ": n\n", 0},
        // What no destination takes goes to stderr instead of piling up in the log.
        {"nowhere@n", "", "unrecognized delivery 'nowhere'\n" + P + ": n\n" + P + ": c\n", 0},
        {"other log@n", "", P + ": n\n" + P + ": c\n", 1},  // words beginning with o are ignored
    };
    for (const auto& [deliver, out, err, kept] : cases) {
        r = child::run([&] {
            elog_notify(0, "n");
            CHILD_CHECK(elog_mark() == kept);
            elog_complain(0, "c");
        }, env({{"ELOG_DELIVER", deliver}}));
        EXPECT_TRUE(r.exited(0)) << deliver << ": " << r.err;
        EXPECT_EQ(std::pair(r.out, r.err), std::pair(out, err)) << deliver;
    }
    // Files are appended to and created with mode 0664.
    TempDir logs;
    std::string file = logs / "errors";
    r = child::run([] {
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
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0664));
    // One that can't be opened is reported and its message goes to stderr.
    std::string bad = logs / "no/such/dir/log", good = logs / "good";
    r = child::run([] {
        elog_complain(0, "fell back");
        CHILD_CHECK(elog_mark() == 0);
        elog_notify(0, "one of two worked");
    }, env({{"ELOG_DELIVER", bad + "@c " + bad + " " + good + "@n"}}));
    EXPECT_TRUE(r.exited(0));
    std::string refused = "Can't open error file '" + bad + "'\n";
    EXPECT_EQ(r.err, refused + P + ": fell back\n" + refused);
    EXPECT_EQ(slurp(good), P + ": one of two worked\n");
    // Settings from a parameter file.
    TempDir d;
    d.file("elog.pf", "ELOG_MAXMSG 2\nELOG_SIGNALS USR2\nELOG_TAG &Arr{\n    n [%P]\n    alert <%P>\n}\n"
                      "ELOG_DELIVER stdout@nc\n");
    r = child::run([] {
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
    EXPECT_TRUE(r.signaled(SIGABRT) && r.out.empty()) << r.status;
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
    // The shipped file reads without complaint and changes none of the built-in settings.
    auto settings = [](const char* pfpath) {
        return child::run([] {
            for (int sev = 0; sev < ELOG_MAXSEVERITY; sev++)
                for (int code : {ELOG_TAG, ELOG_DELIVER, ELOG_DEBUG, ELOG_SIGNALS}) {
                    char* s = nullptr;
                    elog_query(code, sev, &s);
                    printf("%d %d: %s\n", sev, code, s);
                    free(s);
                }
            int max = 0, wait = 0;
            elog_query(ELOG_MAXMSG, 0, &max);
            elog_query(ELOG_WAIT, 0, &wait);
            printf("%d %d\n", max, wait);
        }, env({{"PFPATH", pfpath}, {"ELOG_MAXMSG", std::nullopt}}));
    };
    auto shipped = settings(FERRANT_SOURCE_DIR "/data/pf"), builtin = settings("/nonexistent");
    EXPECT_TRUE(shipped.exited(0) && builtin.exited(0)) << shipped.err << builtin.err;
    EXPECT_EQ(shipped.err, "");
    EXPECT_EQ(shipped.out, builtin.out);
    // A limit that is not a number is ignored, with a complaint, for the default of 50.
    for (const char* bad : {"abc", "", "12x", "99999999999999999999"}) {
        r = child::run([] {
            elog_notify(0, "still logging");
            int max = -1;
            CHILD_CHECK(elog_query(ELOG_MAXMSG, 0, &max) == 0 && max == 50);
        }, env({{"ELOG_MAXMSG", bad}}));
        EXPECT_TRUE(r.exited(0)) << bad << ": " << r.err;
        EXPECT_THAT(r.err, HasSubstr("ELOG_MAXMSG")) << bad;
        EXPECT_THAT(r.err, HasSubstr(P + ": still logging\n")) << bad;
    }
}

TEST(Bury, EveryKindReadsBackFailuresKeepThePreviousStateKillsDoNoHarmAndSignalsSave) {
    TempDir t;
    std::string state = t / "deep/er/state";
    const double when = 1700000000.123456, ratio = 0.1 + 0.2;
    auto r = child::run([&] {
        int count = 0, unused = -1;
        double rt = 0, tm = 0;
        char* name = nullptr;
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == -1 && bury() == -1);
        auto mortician = [](Pf* pf) { pfput_string(pf, "added", "by mortician"); };
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, mortician) == 0);
        CHILD_CHECK(exhume(state.c_str(), nullptr, 0, nullptr) == -2 &&
                    exhume((state + "2").c_str(), nullptr, 0, nullptr) == -2);
        CHILD_CHECK(resurrect("count", &unused, INT_RELIC) == 1);  // replaced by the next line
        CHILD_CHECK(resurrect("count", &count, INT_RELIC) == 1 && resurrect("ratio", &rt, DOUBLE_RELIC) == 1);
        CHILD_CHECK(resurrect("name", &name, STRING_RELIC) == 1 && resurrect("when", &tm, TIME_RELIC) == 1);
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
    EXPECT_FALSE(std::filesystem::exists(state + "2"));  // the refused second call made nothing
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
    // A second process is refused the file while the first holds it, even after
    // its rewrites, and the next one gets it once the first is killed.
    state = t / "state";
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> pause_us(0, 4000);
    long last = -1;
    int saw_progress = 0;
    for (int round = 0; round < 60; round++) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t pid = child::start([&]() -> int {  // a child the test kills
            close(ready[0]);
            int rc = exhume(state.c_str(), nullptr, 0, nullptr), count = 0;
            CHILD_CHECK(rc == 0 || rc == 1);
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
    // Signals: the stop flag, the grace timer, an immediate save, and die_soon.
    state = t / "signalled";
    // Grace seconds, the signal, a save in time, then the exit code, x as saved and a message.
    const std::tuple<int, int, bool, int, const char*, const char*> cases[] = {
        {0, SIGTERM, false, 1, "1", ""},                                 // saves and ends the process at once
        {-1, SIGINT, false, 0, "1", ""},                                 // only the flag
        {1, SIGHUP, false, 1, "3", "quitting from resurrection alarm"},  // the timer saves and dies
        {1, SIGQUIT, true, 0, "4", ""},                                  // the alarm finds nothing to do
    };
    for (int i = 0; i < 4; i++) {
        const auto& [sec, sig, bury_in_time, exit_code, saved, message] = cases[i];
        r = child::run([&] {
            int stop = 5, x = 0;
            CHILD_CHECK(exhume(state.c_str(), &stop, sec, nullptr) == (i > 0) && stop == 0);
            resurrect("x", &x, INT_RELIC);
            x = i + 1;
            raise(sig);
            CHILD_CHECK(stop == sig);
            if (bury_in_time) CHILD_CHECK(bury() == 0);
            for (double until = std_now() + 1.5; sec > 0 && std_now() < until;) usleep(50000);
        });
        EXPECT_TRUE(r.exited(exit_code)) << sec << r.err;
        EXPECT_THAT(r.err, HasSubstr(message)) << sec;
        EXPECT_EQ(value_of(slurp(state), "x"), saved) << sec;
    }
    // die_soon ends the process with a fatal message of its own.
    r = child::run([] { die_soon(1); for (;;) pause(); });
    EXPECT_TRUE(r.exited(1));
    EXPECT_THAT(r.err, HasSubstr("quitting from die_soon alarm"));
}


// Small parts of the stock library: containers, hooks, whole-string pattern matching, printable text, the
// out-of-memory end, facts of the process, times as text both ways, durations and numbers, waiting for a
// time, MD5, paths, file system helpers, mapped files and the installation root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "deviants/my.h"
#include "stock/allot.h"
#include "stock/epoch.h"
#include "stock/hook.h"
#include "stock/mapfile.h"
#include "stock/path.h"
#include "stock/printable.h"
#include "stock/quorvane.h"
#include "stock/rvm.h"
#include "stock/strmatches.h"
#include "stock/tbl.h"
#include "support/tempdir.h"

namespace {
using Names = std::vector<std::string>;
const char* StateFormat = "%E (%j) %Y-%m-%d  %H:%M:%S.%u %z %A";

// A string the caller must free, as a std::string; "(null)" for none.
std::string text(char* s) {
    std::string r = s ? s : "(null)";
    free(s);
    return r;
}
std::string z(double e, const char* fmt, const char* tz = nullptr) { return text(zepoch2str(e, fmt, tz)); }

// The strings of t, which is freed with them by free_value.
Names strings(Tbl* t, void (*free_value)(void*) = free) {
    Names v;
    for (long i = 0; i < maxtbl(t); i++) v.emplace_back(static_cast<char*>(gettbl(t, i)));
    freetbl(t, free_value);
    return v;
}
}  // namespace

// Arr and Tbl are everywhere; their behaviour is asserted through the parameter-file tree (keys in order,
// entries replaced, deleted and out of range).
TEST(Containers, HooksFreeOnceAndStrmatchesKeepsOne) {
    static int freed = 0;
    Hook* hook = new_hook([](void* p) { freed++, free(p); });
    hook->p = malloc(8);
    free_hook(&hook);
    free_hook(&hook);  // null by now
    EXPECT_TRUE(hook == nullptr && freed == 1);
    // strmatches, in order on one hook: each pattern that differs from the last is compiled anew.
    const std::tuple<const char*, const char*, int> cases[] = {
        {"abc", "a.c", 1}, {"xabcx", "a.c", 0}, {"abcx", "a.c", 0},
        // Alternation: the longer branch must be found even if a shorter one matches first.
        {"ab", "a|ab", 1}, {"", "x*", 1}, {"abc", "abc", 1}, {"abc", "abd", 0}, {"abd", "abd", 1},
        {"abc", "a(b", -1}, {"abc", "a(b", -1},  // the second is a cached failure
        {"abc", "[", -1}, {"abc", "abc", 1},     // recovers with a good one
        {nullptr, "abc", -1}, {"abc", nullptr, -1},
    };
    Hook *h = nullptr, *first = nullptr;
    for (auto [text, pattern, expected] : cases) {
        EXPECT_EQ(strmatches(text, pattern, &h), expected)
            << (text ? text : "(null)") << " ~ " << (pattern ? pattern : "(null)");
        if (!first) first = h;
    }
    EXPECT_EQ(h, first);  // the hook is reused, not replaced
    // A pattern in a buffer that changes in place is seen as changed.
    char buf[8];
    strcpy(buf, "a+");
    EXPECT_EQ(strmatches("aaa", buf, &h), 1);
    strcpy(buf, "b+");
    EXPECT_EQ(strmatches("aaa", buf, &h), 0);
    EXPECT_EQ(strmatches("abc", "abc", nullptr), -1);
    free_hook(&h);
}

TEST(Printable, RefusesControlDeleteAndHighBytesEscapesCutsDumpsAndDiesOfNoMemory) {
    EXPECT_TRUE(printable(' ') && printable('~'));
    // (char)0xe9 is a signed char below zero.
    for (int c : {0, 31, 127, 128, 255, (int)(char)0xe9}) EXPECT_FALSE(printable(c)) << c;
    const char data[] = "ab\n\t\\\x01\xff";
    EXPECT_EQ(text(strprintable(data, sizeof data - 1, -1)), "ab\\n\\t\\\\\\x01\\xff");
    EXPECT_EQ(text(strprintable(data, sizeof data - 1, 5)), "ab\\n");  // no escape is cut in half
    EXPECT_EQ(text(strprintable(nullptr, 10, 10)), "");
    unsigned char bytes[20];
    for (int i = 0; i < 20; i++) bytes[i] = (unsigned char)(i == 1 ? 'A' : i);
    char* dump = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&dump, &size);
    hexdump(f, bytes, 20);
    fclose(f);
    EXPECT_EQ(text(dump), "00000000  00 41 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  .A..............\n"
                          "00000010  10 11 12 13                                       ....\n");
    // The out-of-memory end and SIGPIPE ignored (the executable's name is elog_test's %r).
    EXPECT_EXIT(die_nomem(42, "bns", 1024, "bns->data"), testing::ExitedWithCode(1),
                "Out of memory at line 42 in 'bns'\n\tCan't malloc 1024 bytes for bns->data\n");
    EXPECT_STREQ(nomem_source("lib/utility/stock/bury.cc"), "bury");
    ASSERT_EQ(ignoreSIGPIPE(), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    EXPECT_EQ(write(fds[1], "x", 1), -1);  // still alive, told by EPIPE
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
    signal(SIGPIPE, SIG_DFL);
}

TEST(Epoch2str, TimesAsTextBothWaysDurationsNumbersAndWaitingForATime) {
    const std::tuple<double, const char*, const char*, const char*> cases[] = {
        {0, StateFormat, nullptr, "0 (001) 1970-01-01  00:00:00.000000 +0000 Thursday"},
        {1700000000.123456, StateFormat, nullptr,
         "1700000000 (318) 2023-11-14  22:13:20.123456 +0000 Tuesday"},
        {-0.5, StateFormat, nullptr, "-1 (365) 1969-12-31  23:59:59.500000 +0000 Wednesday"},
        {951782400, "%Y-%m-%d %j", nullptr, "2000-02-29 060"},
        {1.9996, "%S.%s", nullptr, "02.000"},  // milliseconds round and carry
        {1.9996, "%S", nullptr, "01"},         // whole seconds truncate
        {1.25, "%E %s %u %%", nullptr, "1 250 250000 %"}, {0, "", nullptr, ""},
        {NAN, "%Y", nullptr, "(invalid time)"}, {0, "%H:%M %z", "+05:30", "05:30 +0530"},
        {0, "%Y-%m-%d %H %z", "-08", "1969-12-31 16 -0800"}, {0, "%H %Z", "UTC", "00 UTC"},
        {1700000000, "%H %z", "EST5", "17 -0500"},  // a zone name, TZ style
    };
    for (auto [e, fmt, tz, want] : cases) EXPECT_EQ(z(e, fmt, tz), want) << fmt;
    EXPECT_EQ(text(strtime(1700000000.5)), "2023-11-14 22:13:20.500");
    EXPECT_EQ(text(strdate(1700000000.5)), "2023-11-14");
    const std::pair<double, const char*> deltas[] = {{1.5, "1.500 s"}, {59.9996, "0:01:00.000"},
        {7384.5, "2:03:04.500"}, {3 * 86400 + 7384.5, "3d 02:03:04.500"}, {-1.5, "-1.500 s"}};
    for (auto [d, s] : deltas) EXPECT_EQ(text(strtdelta(d)), s) << d;
    // Numbers: the shortest text that reads back, or a format's with trailing zeros cut (an integer's kept).
    const std::tuple<double, const char*, const char*> numbers[] = {
        {0.1, nullptr, "0.1"}, {1, nullptr, "1"}, {-2.5, nullptr, "-2.5"}, {1e300, nullptr, "1e+300"},
        {INFINITY, nullptr, "inf"}, {1.5, "%.4f", "1.5"}, {2.0, "%.4f", "2"}, {100, "%.0f", "100"},
        {1.5, "%.3f s", "1.500 s"}};
    for (auto [v, f, s] : numbers) EXPECT_EQ(text(strdbl(v, f)), s) << v << (f ? f : "");
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> d(-1e12, 1e12);
    for (int i = 0; i < 2000; i++) {
        double v = d(rng) / double(i + 1);
        std::string s = text(strdbl(v, nullptr));
        ASSERT_EQ(atof(s.c_str()), v) << s;
    }
    // Edges of the calendar, plain numbers, now, and garbage.
    const std::pair<const char*, double> good[] = {
        {"2000-02-29", 951782400}, {"2000-060", 951782400}, {"2000/02/29 00:00", 951782400},
        {"2000/060", 951782400}, {"2024-366 12:00:00", 1735646400}, {"2024-12-31T12:00:00Z", 1735646400},
        {"1970-01-01T00:00:00+01:00", -3600}, {"1970-01-01 00:00 GMT", 0},
        {"1970-01-01t01:00:00.25z", 3600.25}, {"  2023-11-14 22:13:20 Tuesday  ", 1700000000},
        {"2016-12-31 23:59:60", 1483228800},  // a leap second runs on
        {"1700000000", 1700000000}, {" -3.5 ", -3.5}, {"1.7e9", 1.7e9}, {".5", 0.5}};
    for (auto [s, e] : good) EXPECT_EQ(str2epoch(s), e) << s;
    double before = std_now(), now = str2epoch("NOW");
    EXPECT_TRUE(now >= before && now <= std_now()) << now;
    for (const char* bad :
         {"", "   ", "garbage", "nan", "inf", "1e", "12abc", "0x10", "2023-13-01", "2023-02-29", "1900-02-29",
          "2023-00-10", "2023-01-32", "2023-000", "2023-366", "2023-11-14 24:00:00", "2023-11-14 12:60",
          "2023-11-14 12:00:61", "2023-11-14 12", "2023-11-14 12:00:00.", "2023-11-14 12:00:00 +25:00",
          "2023-11-14 12:00:00 Funday", "2023-11-14 12:00:00 x", "2023-11-14 12:00:00 UTC 5",
          "2023-11-14extra", "23-11-14", "2023-11/14", "2023-1114", "now please", "1700000000 (318)"}) {
        double e = 42;
        EXPECT_TRUE(std::isnan(str2epoch(bad)) && is_epoch_string(bad, &e) == 0 && e == 42) << bad;
    }
    EXPECT_TRUE(std::isnan(str2epoch(nullptr)));
    double e = 0;
    EXPECT_TRUE(is_epoch_string("2023-11-14", &e) == 1 && e == 1699920000) << e;
    // wait_for_time: a past time returns at once, a future one is reached, an unreachable one refused.
    double target = std_now() + 0.05;
    EXPECT_EQ(std::tuple(wait_for_time(0, 0), wait_for_time(NAN, 0), wait_for_time(target, 0.01)),
              std::tuple(0, -1, 0));
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

// Prefixes at the block and padding edges, then megabytes, fed from an odd address in uneven
// chunks; each prefix's digest, from a copy of the running state, is compared with md5sum's.
TEST(Rvm, RunningDigestsOverUnevenChunksMatchMd5sumOfPrefixes) {
    TempDir d;
    std::mt19937 gen(3);
    std::vector<unsigned char> bytes(3 * 1024 * 1024 + 80);
    for (auto& b : bytes) b = static_cast<unsigned char>(gen());
    const unsigned char* data = bytes.data() + 3;
    size_t size = bytes.size() - 3;
    std::vector<size_t> cuts = {0, 1, 55, 56, 57, 63, 64, 65, 119, 120, 127, 128, 129, 1000, 4096, 65536 + 7};
    while (cuts.back() < size) cuts.push_back(std::min(size, cuts.back() + 1024 * 1024 - 13));
    std::string cmd = "md5sum", ours, theirs;
    Rvm ctx;
    char hex[33];
    inirvm(&ctx);
    size_t fed = 0;
    for (size_t cut : cuts) {
        for (size_t k; fed < cut; fed += k) {
            k = std::min<size_t>(cut - fed, gen() % 4 ? gen() % 150 : gen() % 70000);
            addrvm(&ctx, data + fed, k);
        }
        Rvm copy = ctx;
        endrvm(&copy);
        ascrvm(&copy, hex);
        ours += hex + std::string("\n");
        cmd += " '" + d.file("prefix" + std::to_string(cut), std::string(data, data + cut)) + "'";
    }
    FILE* p = popen((cmd + " | cut -c1-32").c_str(), "r");
    char line[64];
    while (fgets(line, sizeof line, p)) theirs += line;
    pclose(p);
    EXPECT_EQ(ours, theirs);
}

namespace {
Names Seen;
int record(const char* path, struct stat* st, void* arg) {
    EXPECT_TRUE(S_ISREG(st->st_mode));
    Seen.push_back(std::string(static_cast<const char*>(arg)) + path);
    return -1;  // a failing callback must not stop the walk
}
}  // namespace

TEST(Paths, AsTextTheInstallationRootMakedirFileTestsDirfilesGetalineFstraverseAndMapfile) {
    char abs[PATH_MAX], cwd[PATH_MAX], dir[PATH_MAX], base[PATH_MAX], suffix[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::string resolved[][2] = {
        {"a/./b//c/../d", std::string(cwd) + "/a/b/d"}, {"/x/../../y/", "/y"}, {"/", "/"}, {".", cwd}};
    for (const auto& r : resolved) EXPECT_STREQ(abspath(r[0].c_str(), abs), r[1].c_str()) << r[0];
    EXPECT_EQ(abspath(("/" + std::string(PATH_MAX + 10, 'x')).c_str(), abs), nullptr);
    EXPECT_EQ(abspath(nullptr, abs), nullptr);
    // path, dir, base, then parsepath's base and suffix
    const char* const splits[][5] = {
        {"a/b/c.txt", "a/b", "c.txt", "c", "txt"}, {"plain", ".", "plain", "plain", ""},
        {"/top", "/", "top", "top", ""}, {".hidden", ".", ".hidden", ".hidden", ""},
        {"a//b", "a", "b", "b", ""}, {"", ".", "", "", ""},
        {"/d/e/name.tar.gz", "/d/e", "name.tar.gz", "name.tar", "gz"}};
    for (const auto& c : splits) {
        dirbase(c[0], dir, base);
        EXPECT_EQ((Names{dir, base}), (Names{c[1], c[2]})) << c[0];
        parsepath(c[0], dir, base, suffix);
        EXPECT_EQ((Names{dir, base, suffix}), (Names{c[1], c[3], c[4]})) << c[0];
    }
    parsepath("x/noext", nullptr, base, nullptr);
    EXPECT_STREQ(base, "noext");
    const char* const joins[][3] = {{"a", "b", "a/b"}, {"a/", "b", "a/b"},   {".", "b", "./b"},
                                    {"", "b", "b"},    {nullptr, "b", "b"}, {"a", "/abs", "/abs"}};
    for (const auto& j : joins) EXPECT_EQ(text(concatpaths(j[0], j[1])), j[2]) << j[0] << " + " << j[1];
    // Data files under the installation root.
    TempDir root;
    root.sub("data/pf");
    std::string x = root.file("data/pf/x.pf", "a 1\n");
    setenv("QUORVANE", root.path.c_str(), 1);
    EXPECT_EQ(std::string(installation_root()), root.path);
    EXPECT_EQ(text(datapath(nullptr, "pf", "x", "pf")), x);
    EXPECT_EQ(text(datapath(nullptr, "pf", "x.pf", "pf")), x);  // suffix not doubled
    setenv("QUORVANE", "", 1);
    EXPECT_STREQ(installation_root(), FERRANT_PREFIX);
    setenv("QUORVANE", FERRANT_BUILD_DIR, 1);  // as the test runner sets it
    // The file system: directories made, kinds of file, listings.
    TempDir t;
    std::string deep = t / "x/y/z";
    for (std::string d : {deep, deep, deep + "/"}) EXPECT_EQ(makedir(d.c_str()), 0) << d;  // again, slashed
    EXPECT_TRUE(is_dir(deep.c_str()));
    t.file("f", "x");
    for (std::string bad : {t / "f", t / "f/sub", std::string()}) EXPECT_EQ(makedir(bad.c_str()), -1) << bad;
    ASSERT_EQ(symlink("nowhere", (t / "dangling").c_str()), 0);
    // path: is_file, is_dir, is_present
    const std::tuple<std::string, int, int, int> kinds[] = {
        {t / "f", 1, 0, 1}, {t.path, 0, 1, 1}, {t / "dangling", 0, 0, 1}, {t / "missing", 0, 0, 0}};
    for (const auto& [p, file, dir, present] : kinds)
        EXPECT_EQ(std::tuple(is_file(p.c_str()), is_dir(p.c_str()), is_present(p.c_str())),
                  std::tuple(file, dir, present)) << p;
    EXPECT_FALSE(is_file(nullptr));
    // Names sorted byte-wise.
    TempDir n;
    for (const char* name : {"b", "a", "B", ".dot", "a10", "a2"}) n.file(name, "");
    n.sub("sub");
    EXPECT_EQ(strings(dirfiles(n.path.c_str(), 0)), (Names{".dot", "B", "a", "a10", "a2", "b", "sub"}));
    EXPECT_EQ(strings(dirfiles(n.path.c_str(), DIRFILES_NODOT)), (Names{"B", "a", "a10", "a2", "b", "sub"}));
    EXPECT_EQ(dirfiles((n / "missing").c_str(), 0), nullptr);
    EXPECT_EQ(dirfiles((n / "b").c_str(), 0), nullptr);
    // Lines of any length; the last one lacks its newline.
    std::string longline(100000, 'q');
    FILE* f = fopen(t.file("in", "first\n\n" + longline + "\nlast-no-newline").c_str(), "r");
    char* buf = nullptr;
    size_t size = 0;
    Names lines;
    for (long k; lines.size() < 5 && (k = getaline(f, &buf, &size)) >= 0;) lines.emplace_back(buf, size_t(k));
    EXPECT_EQ(lines, (Names{"first", "", longline, "last-no-newline"}));
    fclose(f);
    free(buf);
    // fstraverse: files first, then subdirectories, in name order.
    TempDir w;
    w.sub("d2");
    w.sub("d1/inner");
    for (const char* name : {"z", "a", "d1/f", "d1/inner/g", "d2/h"}) w.file(name, "");
    mkfifo((w / "fifo").c_str(), 0600);
    ASSERT_EQ(symlink(w.path.c_str(), (w / "d1/loop").c_str()), 0);  // must not be entered
    ASSERT_EQ(symlink("a", (w / "link").c_str()), 0);               // a link to a file is a file
    std::string p = w.path;
    Seen.clear();
    EXPECT_EQ(fstraverse(w.path.c_str(), FSTRAVERSE_RECURSE, record, (void*)">"), 0);
    EXPECT_EQ(Seen, (Names{">" + p + "/a", ">" + p + "/link", ">" + p + "/z", ">" + p + "/d1/f",
                           ">" + p + "/d1/inner/g", ">" + p + "/d2/h"}));
    EXPECT_EQ(fstraverse((w / "missing").c_str(), 1, record, nullptr), -1);
    // Whole files mapped, released by name; anything else refused.
    TempDir m;
    std::string big(3 * 1024 * 1024 + 7, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = char(i * 131 + 7);
    std::string b = m.file("big", big);
    void *data = nullptr, *again = nullptr;
    ASSERT_EQ(mapfile(b.c_str(), 0, &data), long(big.size()));
    EXPECT_EQ(memcmp(data, big.data(), big.size()), 0);
    ASSERT_EQ(mapfile(b.c_str(), 0, &again), long(big.size()));  // twice at once
    EXPECT_EQ(unmapfile(b.c_str(), data), 0);
    EXPECT_EQ(static_cast<char*>(again)[big.size() - 1], big.back());  // the other one still readable
    EXPECT_EQ(unmapfile(b.c_str(), nullptr), 0);
    EXPECT_EQ(unmapfile(b.c_str(), nullptr), -1);
    EXPECT_EQ(mapfile((m / "missing").c_str(), 0, &data), -1);
    EXPECT_EQ(data, (void*)-1);
    EXPECT_EQ(mapfile(m.path.c_str(), 0, &data), -1);  // a directory
    EXPECT_EQ(unmapfile((m / "never").c_str(), nullptr), -1);
    // A fifo fails at once instead of waiting for a writer.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string fifo = t / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto refused = [&] {
        alarm(25);  // killed if the open waits for a writer
        void* data = nullptr;
        return mapfile(fifo.c_str(), 0, &data) == -1 && data == (void*)-1 && errno == ENODEV;
    };
    EXPECT_EXIT(exit(refused() ? 0 : 3), ::testing::ExitedWithCode(0), "");
}

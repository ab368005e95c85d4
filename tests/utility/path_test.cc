// Paths, directories and files: text operations on paths, the file system
// helpers, mapped files and the installation root.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "stock/mapfile.h"
#include "stock/path.h"
#include "stock/quorvane.h"
#include "stock/tbl.h"
#include "support/tempdir.h"

namespace {

using Names = std::vector<std::string>;

// The strings of t, which is freed with them.
Names strings(Tbl* t) {
    Names v;
    for (long i = 0; i < maxtbl(t); i++) v.emplace_back(static_cast<char*>(gettbl(t, i)));
    freetbl(t, free);
    return v;
}

// A string the caller must free, as a std::string; "(null)" for none.
std::string owned(char* s) {
    std::string r = s ? s : "(null)";
    free(s);
    return r;
}

}  // namespace

TEST(PathText, AbspathDirbaseParsepathConcatpaths) {
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
        EXPECT_STREQ(dir, c[1]) << c[0];
        EXPECT_STREQ(base, c[2]) << c[0];
        parsepath(c[0], dir, base, suffix);
        EXPECT_STREQ(dir, c[1]) << c[0];
        EXPECT_STREQ(base, c[3]) << c[0];
        EXPECT_STREQ(suffix, c[4]) << c[0];
    }
    parsepath("x/noext", nullptr, base, nullptr);
    EXPECT_STREQ(base, "noext");
    const char* const joins[][3] = {{"a", "b", "a/b"}, {"a/", "b", "a/b"},   {".", "b", "./b"},
                                    {"", "b", "b"},    {nullptr, "b", "b"}, {"a", "/abs", "/abs"}};
    for (const auto& j : joins) EXPECT_EQ(owned(concatpaths(j[0], j[1])), j[2]) << j[0] << " + " << j[1];
}

TEST(FileSystem, MakedirFileTestsAndDirfiles) {
    TempDir t;
    std::string deep = t / "x/y/z";
    EXPECT_EQ(makedir(deep.c_str()), 0);
    EXPECT_TRUE(is_dir(deep.c_str()));
    EXPECT_EQ(makedir(deep.c_str()), 0);          // already there
    EXPECT_EQ(makedir((deep + "/").c_str()), 0);  // trailing slash
    t.file("f", "x");
    for (std::string bad : {t / "f", t / "f/sub", std::string()}) EXPECT_EQ(makedir(bad.c_str()), -1) << bad;
    ASSERT_EQ(symlink("nowhere", (t / "dangling").c_str()), 0);
    // path: is_file, is_dir, is_present
    const std::tuple<std::string, int, int, int> kinds[] = {
        {t / "f", 1, 0, 1}, {t.path, 0, 1, 1}, {t / "dangling", 0, 0, 1}, {t / "missing", 0, 0, 0}};
    for (const auto& [p, file, dir, present] : kinds) {
        EXPECT_EQ(is_file(p.c_str()), file) << p;
        EXPECT_EQ(is_dir(p.c_str()), dir) << p;
        EXPECT_EQ(is_present(p.c_str()), present) << p;
    }
    EXPECT_FALSE(is_file(nullptr));

    // Names sorted byte-wise.
    TempDir n;
    for (const char* name : {"b", "a", "B", ".dot", "a10", "a2"}) n.file(name, "");
    n.sub("sub");
    EXPECT_EQ(strings(dirfiles(n.path.c_str(), 0)), (Names{".dot", "B", "a", "a10", "a2", "b", "sub"}));
    EXPECT_EQ(strings(dirfiles(n.path.c_str(), DIRFILES_NODOT)), (Names{"B", "a", "a10", "a2", "b", "sub"}));
    EXPECT_EQ(dirfiles((n / "missing").c_str(), 0), nullptr);
    EXPECT_EQ(dirfiles((n / "b").c_str(), 0), nullptr);
}

namespace {
Names Seen;
int record(const char* path, struct stat* st, void* arg) {
    EXPECT_TRUE(S_ISREG(st->st_mode));
    Seen.push_back(std::string(static_cast<const char*>(arg)) + path);
    return -1;  // a failing callback must not stop the walk
}
int record_int(const char* path, struct stat*, int arg) {
    Seen.push_back(std::to_string(arg) + path);
    return 0;
}
}  // namespace

TEST(Fstraverse, FilesFirstThenSubdirectoriesInNameOrder) {
    TempDir t;
    t.sub("d2");
    t.sub("d1/inner");
    for (const char* f : {"z", "a", "d1/f", "d1/inner/g", "d2/h"}) t.file(f, "");
    mkfifo((t / "fifo").c_str(), 0600);
    ASSERT_EQ(symlink(t.path.c_str(), (t / "d1/loop").c_str()), 0);  // must not be entered
    ASSERT_EQ(symlink("a", (t / "link").c_str()), 0);               // a link to a file is a file
    std::string p = t.path;
    Seen.clear();
    EXPECT_EQ(fstraverse(t.path.c_str(), FSTRAVERSE_RECURSE, record, (void*)">"), 0);
    EXPECT_EQ(Seen, (Names{">" + p + "/a", ">" + p + "/link", ">" + p + "/z", ">" + p + "/d1/f",
                           ">" + p + "/d1/inner/g", ">" + p + "/d2/h"}));
    Seen.clear();
    EXPECT_EQ(fstraverse(t.path.c_str(), 0, record_int, 7), 0);
    EXPECT_EQ(Seen, (Names{"7" + p + "/a", "7" + p + "/link", "7" + p + "/z"}));
    EXPECT_EQ(fstraverse((t / "missing").c_str(), 1, record_int, 0), -1);
}

TEST(Getaline, ReadsLinesOfAnyLength) {
    TempDir t;
    std::string longline(100000, 'q');
    FILE* f = fopen(t.file("in", "first\n\n" + longline + "\nlast-no-newline").c_str(), "r");
    char* buf = nullptr;
    size_t size = 0;
    for (const std::string& line : std::vector<std::string>{"first", "", longline, "last-no-newline"}) {
        EXPECT_EQ(getaline(f, &buf, &size), long(line.size()));
        EXPECT_EQ(buf, line);
    }
    EXPECT_EQ(getaline(f, &buf, &size), -1);
    fclose(f);
    free(buf);
}

TEST(Mapfile, MapsWholeFilesReleasesByNameAndRefusesOthers) {
    TempDir t;
    std::string big(3 * 1024 * 1024 + 7, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = char(i * 131 + 7);
    std::string b = t.file("big", big), e = t.file("empty", "");
    void *data = nullptr, *again = nullptr;
    ASSERT_EQ(mapfile(b.c_str(), 0, &data), long(big.size()));
    EXPECT_EQ(memcmp(data, big.data(), big.size()), 0);
    ASSERT_EQ(mapfile(b.c_str(), 0, &again), long(big.size()));  // twice at once
    EXPECT_EQ(unmapfile(b.c_str(), data), 0);
    EXPECT_EQ(static_cast<char*>(again)[big.size() - 1], big.back());  // the other one still readable
    EXPECT_EQ(unmapfile(b.c_str(), nullptr), 0);
    EXPECT_EQ(unmapfile(b.c_str(), nullptr), -1);
    EXPECT_EQ(mapfile(e.c_str(), 0, &data), 0);
    EXPECT_NE(data, nullptr);
    EXPECT_NE(data, (void*)-1);
    EXPECT_EQ(unmapfile(e.c_str(), nullptr), 0);
    EXPECT_EQ(mapfile((t / "missing").c_str(), 0, &data), -1);
    EXPECT_EQ(data, (void*)-1);
    EXPECT_EQ(mapfile(t.path.c_str(), 0, &data), -1);  // a directory
    EXPECT_EQ(unmapfile((t / "never").c_str(), nullptr), -1);
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

TEST(InstallationRoot, FindsDataFilesUnderTheRoot) {
    TempDir t;
    t.sub("data/pf");
    std::string x = t.file("data/pf/x.pf", "a 1\n");
    setenv("QUORVANE", t.path.c_str(), 1);
    EXPECT_EQ(std::string(installation_root()), t.path);
    EXPECT_EQ(owned(datapath(nullptr, "pf", "x", "pf")), x);
    EXPECT_EQ(owned(datapath(nullptr, "pf", "x.pf", "pf")), x);  // suffix not doubled
    EXPECT_EQ(datapath(nullptr, "pf", "y", "pf"), nullptr);
    EXPECT_EQ(owned(datapath(t.path.c_str(), "data/pf", "x", "pf")), x);
    unsetenv("SEARCHTEST");
    EXPECT_EQ(strings(datasearch("SEARCHTEST", "pf", "x.pf", 0)), (Names{x}));
    EXPECT_EQ(strings(datasearch("SEARCHTEST", "pf", "x.pf", 1)), (Names{x, "./x.pf"}));
    setenv("SEARCHTEST", ("/nonexistent::" + t.path + "/data/pf/").c_str(), 1);
    EXPECT_EQ(strings(datasearch("SEARCHTEST", "pf", "x.pf", 1)), (Names{"/nonexistent/x.pf", "./x.pf", x}));
    unsetenv("SEARCHTEST");
    setenv("QUORVANE", "", 1);
    EXPECT_STREQ(installation_root(), FERRANT_PREFIX);
    setenv("QUORVANE", FERRANT_BUILD_DIR, 1);  // as the test runner sets it
}

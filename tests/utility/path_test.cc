#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
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
    for (long i = 0; i < maxtbl(t); i++) v.emplace_back((char*)gettbl(t, i));
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

TEST(Abspath, ResolvesDotsAgainstTheCurrentDirectory) {
    char abs[PATH_MAX], cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_STREQ(abspath("a/./b//c/../d", abs), (std::string(cwd) + "/a/b/d").c_str());
    EXPECT_STREQ(abspath("/x/../../y/", abs), "/y");
    EXPECT_STREQ(abspath("/", abs), "/");
    EXPECT_STREQ(abspath(".", abs), cwd);
    std::string huge(PATH_MAX + 10, 'x');
    EXPECT_EQ(abspath(("/" + huge).c_str(), abs), nullptr);
    EXPECT_EQ(abspath(nullptr, abs), nullptr);
}

TEST(Dirbase, SplitsAtTheLastSlash) {
    char dir[PATH_MAX], base[PATH_MAX], suffix[PATH_MAX];
    const char* cases[][3] = {{"a/b/c.txt", "a/b", "c.txt"}, {"plain", ".", "plain"}, {"/top", "/", "top"},
                              {"a//b", "a", "b"},            {"", ".", ""}};
    for (auto& c : cases) {
        dirbase(c[0], dir, base);
        EXPECT_STREQ(dir, c[1]) << c[0];
        EXPECT_STREQ(base, c[2]) << c[0];
    }

    parsepath("/d/e/name.tar.gz", dir, base, suffix);
    EXPECT_STREQ(dir, "/d/e");
    EXPECT_STREQ(base, "name.tar");
    EXPECT_STREQ(suffix, "gz");
    parsepath(".hidden", dir, base, suffix);
    EXPECT_STREQ(base, ".hidden");
    EXPECT_STREQ(suffix, "");
    parsepath("x/noext", nullptr, base, nullptr);
    EXPECT_STREQ(base, "noext");
}

TEST(Concatpaths, JoinsWithOneSlash) {
    EXPECT_EQ(owned(concatpaths("a", "b")), "a/b");
    EXPECT_EQ(owned(concatpaths("a/", "b")), "a/b");
    EXPECT_EQ(owned(concatpaths(".", "b")), "./b");
    EXPECT_EQ(owned(concatpaths("", "b")), "b");
    EXPECT_EQ(owned(concatpaths(nullptr, "b")), "b");
    EXPECT_EQ(owned(concatpaths("a", "/abs")), "/abs");
}

TEST(FileSystem, MakedirCreatesParentsAndTheFileTestsTellKindsApart) {
    TempDir t;
    std::string deep = t / "x/y/z";
    EXPECT_EQ(makedir(deep.c_str()), 0);
    EXPECT_TRUE(is_dir(deep.c_str()));
    EXPECT_EQ(makedir(deep.c_str()), 0);            // already there
    EXPECT_EQ(makedir((deep + "/").c_str()), 0);    // trailing slash
    t.file("f", "x");
    EXPECT_EQ(makedir((t / "f").c_str()), -1);
    EXPECT_EQ(makedir((t / "f/sub").c_str()), -1);
    EXPECT_EQ(makedir(""), -1);

    ASSERT_EQ(symlink("nowhere", (t / "dangling").c_str()), 0);
    EXPECT_TRUE(is_file((t / "f").c_str()));
    EXPECT_FALSE(is_dir((t / "f").c_str()));
    EXPECT_TRUE(is_dir(t.path.c_str()));
    EXPECT_FALSE(is_file(t.path.c_str()));
    EXPECT_FALSE(is_file((t / "dangling").c_str()));
    EXPECT_TRUE(is_present((t / "dangling").c_str()));
    EXPECT_FALSE(is_present((t / "missing").c_str()));
    EXPECT_FALSE(is_file(nullptr));
}

TEST(Dirfiles, ListsNamesSortedByteWise) {
    TempDir t;
    for (const char* n : {"b", "a", "B", ".dot", "a10", "a2"}) t.file(n, "");
    mkdir((t / "sub").c_str(), 0755);
    EXPECT_EQ(strings(dirfiles(t.path.c_str(), 0)), (Names{".dot", "B", "a", "a10", "a2", "b", "sub"}));
    EXPECT_EQ(strings(dirfiles(t.path.c_str(), DIRFILES_NODOT)), (Names{"B", "a", "a10", "a2", "b", "sub"}));
    EXPECT_EQ(dirfiles((t / "missing").c_str(), 0), nullptr);
    EXPECT_EQ(dirfiles((t / "b").c_str(), 0), nullptr);
}

namespace {
Names Seen;
int record(const char* path, struct stat* st, void* arg) {
    EXPECT_TRUE(S_ISREG(st->st_mode));
    Seen.push_back(std::string((const char*)arg) + path);
    return -1;  // a failing callback must not stop the walk
}
int record_int(const char* path, struct stat*, int arg) {
    Seen.push_back(std::to_string(arg) + path);
    return 0;
}
}  // namespace

TEST(Fstraverse, FilesFirstThenSubdirectoriesInNameOrder) {
    TempDir t;
    mkdir((t / "d2").c_str(), 0755);
    mkdir((t / "d1").c_str(), 0755);
    mkdir((t / "d1/inner").c_str(), 0755);
    for (const char* f : {"z", "a", "d1/f", "d1/inner/g", "d2/h"}) t.file(f, "");
    mkfifo((t / "fifo").c_str(), 0600);
    ASSERT_EQ(symlink(t.path.c_str(), (t / "d1/loop").c_str()), 0);  // must not be entered
    ASSERT_EQ(symlink("a", (t / "link").c_str()), 0);               // a link to a file is a file

    Seen.clear();
    EXPECT_EQ(fstraverse(t.path.c_str(), FSTRAVERSE_RECURSE, record, (void*)">"), 0);
    std::string p = t.path;
    EXPECT_EQ(Seen, (Names{">" + p + "/a", ">" + p + "/link", ">" + p + "/z",
                           ">" + p + "/d1/f", ">" + p + "/d1/inner/g", ">" + p + "/d2/h"}));

    Seen.clear();
    EXPECT_EQ(fstraverse(t.path.c_str(), 0, record_int, 7), 0);
    EXPECT_EQ(Seen, (Names{"7" + p + "/a", "7" + p + "/link", "7" + p + "/z"}));

    EXPECT_EQ(fstraverse((t / "missing").c_str(), 1, record_int, 0), -1);
}

TEST(Getaline, ReadsLinesOfAnyLength) {
    TempDir t;
    std::string longline(100000, 'q');
    t.file("in", "first\n\n" + longline + "\nlast-no-newline");
    FILE* f = fopen((t / "in").c_str(), "r");
    char* buf = nullptr;
    size_t size = 0;
    EXPECT_EQ(getaline(f, &buf, &size), 5);
    EXPECT_STREQ(buf, "first");
    EXPECT_EQ(getaline(f, &buf, &size), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(getaline(f, &buf, &size), (long)longline.size());
    EXPECT_EQ(std::string(buf), longline);
    EXPECT_EQ(getaline(f, &buf, &size), 15);
    EXPECT_STREQ(buf, "last-no-newline");
    EXPECT_EQ(getaline(f, &buf, &size), -1);
    fclose(f);
    free(buf);
}

TEST(Mapfile, MapsWholeFilesReleasesByNameAndRefusesOthers) {
    TempDir t;
    std::string big(3 * 1024 * 1024 + 7, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = (char)(i * 131 + 7);
    t.file("big", big);
    t.file("empty", "");

    void* data = nullptr;
    std::string b = t / "big";
    ASSERT_EQ(mapfile(b.c_str(), 0, &data), (long)big.size());
    EXPECT_EQ(memcmp(data, big.data(), big.size()), 0);
    void* again = nullptr;
    ASSERT_EQ(mapfile(b.c_str(), 0, &again), (long)big.size());  // twice at once
    EXPECT_EQ(unmapfile(b.c_str(), data), 0);
    EXPECT_EQ(((char*)again)[big.size() - 1], big.back());       // the other one still readable
    EXPECT_EQ(unmapfile(b.c_str(), nullptr), 0);
    EXPECT_EQ(unmapfile(b.c_str(), nullptr), -1);

    std::string e = t / "empty";
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
    EXPECT_EXIT(
        {
            alarm(25);  // killed if the open waits for a writer
            void* data = nullptr;
            long n = mapfile(fifo.c_str(), 0, &data);
            exit(n == -1 && data == (void*)-1 && errno == ENODEV ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(InstallationRoot, FindsDataFilesUnderTheRoot) {
    TempDir t;
    makedir((t / "data/pf").c_str());
    t.file("data/pf/x.pf", "a 1\n");
    setenv("QUORVANE", t.path.c_str(), 1);
    EXPECT_EQ(std::string(installation_root()), t.path);

    EXPECT_EQ(owned(datapath(nullptr, "pf", "x", "pf")), t / "data/pf/x.pf");
    EXPECT_EQ(owned(datapath(nullptr, "pf", "x.pf", "pf")), t / "data/pf/x.pf");  // suffix not doubled
    EXPECT_EQ(datapath(nullptr, "pf", "y", "pf"), nullptr);
    EXPECT_EQ(owned(datapath(t.path.c_str(), "data/pf", "x", "pf")), t / "data/pf/x.pf");

    unsetenv("SEARCHTEST");
    EXPECT_EQ(strings(datasearch("SEARCHTEST", "pf", "x.pf", 0)), (Names{t / "data/pf/x.pf"}));
    EXPECT_EQ(strings(datasearch("SEARCHTEST", "pf", "x.pf", 1)), (Names{t / "data/pf/x.pf", "./x.pf"}));
    setenv("SEARCHTEST", ("/nonexistent::" + t.path + "/data/pf/").c_str(), 1);
    EXPECT_EQ(strings(datasearch("SEARCHTEST", "pf", "x.pf", 1)),
              (Names{"/nonexistent/x.pf", "./x.pf", t / "data/pf/x.pf"}));
    unsetenv("SEARCHTEST");

    setenv("QUORVANE", "", 1);
    EXPECT_STREQ(installation_root(), FERRANT_PREFIX);
    setenv("QUORVANE", FERRANT_BUILD_DIR, 1);  // as the test runner sets it
}

// Finding parameter files along the search path, merging them in order, and
// noticing when one of them changes, appears or disappears.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "stock/pf.h"
#include "support/tempdir.h"

namespace {

std::string write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
    return path;
}

// Sets a file's modification time without waiting for the clock.
void set_mtime(const std::string& path, time_t seconds) {
    struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

std::vector<std::string> files_of(const char* name, int all = 0) {
    Tbl* t = pffiles(name, all);
    std::vector<std::string> out;
    for (long i = 0; i < maxtbl(t); i++) out.emplace_back(static_cast<char*>(gettbl(t, i)));
    freepffiles(t);
    return out;
}

// Restores the environment and working directory a test changes.
class PfPath : public ::testing::Test {
protected:
    TempDir dir;
    std::string a, b;
    char cwd[4096];
    void SetUp() override {
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        a = dir.sub("a");
        b = dir.sub("b");
        setenv("PFPATH", (a + ":" + b).c_str(), 1);
    }
    void TearDown() override {
        unsetenv("PFPATH");
        setenv("QUORVANE", FERRANT_BUILD_DIR, 1);
        ASSERT_EQ(chdir(cwd), 0);
    }
};

TEST_F(PfPath, ExplicitDirectoriesComeLastAndLaterOnesWin) {
    write(a + "/app.pf", "k from a\nonly_a 1\narr &Arr{\n  x 1\n  y 1\n}\n");
    std::string other = dir.sub("other");
    write(other + "/app.pf", "k from other\n");
    std::string name = other + "/app";
    EXPECT_EQ(files_of(name.c_str()), (std::vector<std::string>{a + "/app.pf", other + "/app.pf"}));
    Pf* pf = nullptr;
    ASSERT_EQ(pfread(name.c_str(), &pf), 0);
    EXPECT_STREQ(pfget_string(pf, "k"), "from other");
    EXPECT_STREQ(pfget_string(pf, "only_a"), "1");
    pffree(pf);
    // A directory already on the path is not read twice.
    std::string in_path = a + "/app";
    EXPECT_EQ(files_of(in_path.c_str()), (std::vector<std::string>{a + "/app.pf"}));
    // A missing explicit file is listed only when every candidate is asked for.
    std::string nowhere = dir.path + "/nowhere/app";
    EXPECT_EQ(files_of(nowhere.c_str()), (std::vector<std::string>{a + "/app.pf"}));
    EXPECT_EQ(files_of(nowhere.c_str(), 1),
              (std::vector<std::string>{a + "/app.pf", b + "/app.pf", dir.path + "/nowhere/app.pf"}));

    write(b + "/app.pf", "k from b\narr &Arr{\n  x 2\n}\n");
    EXPECT_EQ(files_of("app"), (std::vector<std::string>{a + "/app.pf", b + "/app.pf"}));
    EXPECT_EQ(files_of("app.pf"), files_of("app"));
    pf = nullptr;
    ASSERT_EQ(pfread("app", &pf), 0);
    EXPECT_STREQ(pfget_string(pf, "k"), "from b");
    EXPECT_STREQ(pfget_string(pf, "only_a"), "1");
    EXPECT_STREQ(pfget_string(pf, "arr{x}"), "2");
    EXPECT_EQ(pfget_string(pf, "arr{y}"), nullptr);  // arrays are replaced whole
    Pf* k = nullptr;
    pfresolve(pf, "k", 0, &k);
    EXPECT_EQ(std::string(k->filename), b + "/app.pf");
    pffree(pf);
}

TEST_F(PfPath, DefaultPathIsInstallationThenCurrentDirectory) {
    unsetenv("PFPATH");
    std::string root = dir.sub("root");
    std::string data = dir.sub("root/data/pf");
    std::string work = dir.sub("work");
    setenv("QUORVANE", root.c_str(), 1);
    write(data + "/tool.pf", "k installed\nonly_installed 1\n");
    write(work + "/tool.pf", "k local\n");
    ASSERT_EQ(chdir(work.c_str()), 0);
    Pf* pf = nullptr;
    ASSERT_EQ(pfread("tool", &pf), 0);
    EXPECT_STREQ(pfget_string(pf, "k"), "local");
    EXPECT_STREQ(pfget_string(pf, "only_installed"), "1");
    pffree(pf);

    pf = nullptr;
    ASSERT_EQ(pfload(nullptr, "pf", "tool", &pf), 0);
    EXPECT_STREQ(pfget_string(pf, "k"), "installed");
    pffree(pf);
    pf = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(pfload(nullptr, "pf", "absent", &pf), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Can't find parameter file pf/absent"), std::string::npos) << err;
    pffree(pf);
}

TEST_F(PfPath, NothingReadIsFailure) {
    Pf* pf = nullptr;
    EXPECT_EQ(pfread("pfpath-none", &pf), -1);
    pffree(pf);
    write(a + "/comments.pf", "# only\n   # comments\n\n");
    pf = nullptr;
    EXPECT_EQ(pfread("comments", &pf), -1);
    pffree(pf);
    // A directory of that name is not a parameter file.
    dir.sub("b/adir.pf");
    EXPECT_TRUE(files_of("adir").empty());
    // A broken file still gives what it holds, with the failure counted.
    write(a + "/broken.pf", "k 1\nx &Arr{\n");
    write(b + "/broken.pf", "j 2\ny &Tbl{\n");
    pf = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(pfread("broken", &pf), -4);
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(pfget_string(pf, "k"), "1");
    EXPECT_STREQ(pfget_string(pf, "j"), "2");
    pffree(pf);
}

TEST_F(PfPath, UpdateNoticesChangedAppearingAndVanishingFiles) {
    std::string fa = write(a + "/upd.pf", "k 1\n");
    set_mtime(fa, 1000000);
    Pf* pf = nullptr;
    EXPECT_EQ(pfupdate("upd", &pf), 1);
    EXPECT_STREQ(pfget_string(pf, "k"), "1");
    EXPECT_EQ(pfupdate("upd", &pf), 0);
    Pf* same = pf;

    write(fa, "k 2\n");
    set_mtime(fa, 1000000);  // same time: not seen as a change
    EXPECT_EQ(pfupdate("upd", &pf), 0);
    EXPECT_EQ(pf, same);
    set_mtime(fa, 1000001);
    EXPECT_EQ(pfupdate("upd", &pf), 1);
    EXPECT_STREQ(pfget_string(pf, "k"), "2");
    EXPECT_EQ(pfupdate("upd", &pf), 0);

    std::string fb = write(b + "/upd.pf", "k 3\n");
    EXPECT_EQ(pfupdate("upd", &pf), 1);
    EXPECT_STREQ(pfget_string(pf, "k"), "3");
    EXPECT_EQ(pfupdate("upd", &pf), 0);

    unlink(fb.c_str());
    EXPECT_EQ(pfupdate("upd", &pf), 1);
    EXPECT_STREQ(pfget_string(pf, "k"), "2");

    // Another tree variable is tracked apart: its first call reads.
    Pf* other = nullptr;
    EXPECT_EQ(pfupdate("upd", &other), 1);
    EXPECT_EQ(pfupdate("upd", &pf), 0);

    unlink(fa.c_str());
    EXPECT_EQ(pfupdate("upd", &pf), -1);  // nothing left to read
    EXPECT_EQ(pfupdate("upd", &pf), 0);
    pffree(pf);
    pffree(other);
}

TEST_F(PfPath, CachedTreesFollowTheirFiles) {
    std::string fa = write(a + "/cached.pf", "k 1\n");
    set_mtime(fa, 2000000);
    Pf* pf = getPf("cached");
    ASSERT_NE(pf, nullptr);
    EXPECT_EQ(getPf("cached"), pf);
    EXPECT_EQ(updatePf("cached"), 1);  // first check reads
    EXPECT_EQ(updatePf("cached"), 0);
    write(fa, "k 5\n");
    set_mtime(fa, 2000001);
    EXPECT_EQ(updatePf("cached"), 1);
    EXPECT_EQ(pfget_int(getPf("cached"), "k"), 5);
    EXPECT_EQ(freePf("cached"), 0);
}

TEST_F(PfPath, RevisionRequirement) {
    write(a + "/rev.pf", "pf_revision_time 1700000000\n");
    write(b + "/rev.pf", "other 1\n");
    testing::internal::CaptureStderr();
    EXPECT_NE(pfrequire("rev", "1600000000"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("no pf_revision_time in the file '" + b + "/rev.pf'"), std::string::npos) << err;
    EXPECT_EQ(err.find(a + "/rev.pf"), std::string::npos) << err;

    write(b + "/rev.pf", "pf_revision_time 2020-01-01\n");
    testing::internal::CaptureStderr();
    EXPECT_NE(pfrequire("rev", "2021-06-01"), 0);
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("pf_revision_time in the file '" + b + "/rev.pf' has date 2020-01-01"), std::string::npos)
        << err;
    EXPECT_NE(err.find("but program requires date after 2021-06-01"), std::string::npos) << err;

    EXPECT_EQ(pfrequire("rev", "2019-01-01"), 0);
    testing::internal::CaptureStderr();
    EXPECT_NE(pfrequire("pfpath-none", "2019-01-01"), 0);
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("can't find parameter file pfpath-none"), std::string::npos) << err;
}

}  // namespace

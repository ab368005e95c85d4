// Start-up of ferrant2: options, usage, parameter file, fatal set-up errors.
#include "harness.h"

using namespace ferrant_test;

namespace {

const char* Usage =
    "Usage: ferrant2 [-p pf] [-v] [-w watchdir] [file ...] orb\n"
    "       ferrant2 [-p pf] [-S state] [-v] orb\n\n";

TEST(FerrantCli, DashVPrintsUsageBeforeAnyParameterFile) {
    TempDir tmp;
    Child c({ferrant2(), "-p", tmp / "nowhere/none", "-V", "orb"}, tmp.path());
    EXPECT_EQ(c.wait(), 1);
    std::string err = c.err();
    EXPECT_NE(err.find(Usage), std::string::npos) << err;
    EXPECT_EQ(err.find("Can't read parameter file"), std::string::npos) << err;
}

TEST(FerrantCli, UnknownOptionReadsTheParameterFileFirst) {
    TempDir tmp;
    Child missing({ferrant2(), "-p", tmp / "nowhere/none", "-x", "orb"}, tmp.path());
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_NE(missing.err().find("Can't read parameter file " + tmp / "nowhere/none"), std::string::npos)
        << missing.err();
    EXPECT_EQ(missing.err().find("Usage:"), std::string::npos);

    std::string pf = write_pf(tmp / "f.pf");
    Child bad({ferrant2(), "-p", pf, "-x", "orb"}, tmp.path());
    EXPECT_EQ(bad.wait(), 1);
    EXPECT_NE(bad.err().find(Usage), std::string::npos) << bad.err();
}

TEST(FerrantCli, NoRingNameIsUsage) {
    TempDir tmp;
    std::string pf = write_pf(tmp / "f.pf");
    Child c({ferrant2(), "-p", pf, "-v"}, tmp.path());
    EXPECT_EQ(c.wait(), 1);
    EXPECT_NE(c.err().find(Usage), std::string::npos) << c.err();
}

TEST(FerrantCli, CommentOnlyParameterFileIsFatal) {
    TempDir tmp;
    spit(tmp / "empty.pf", "# nothing here\n");
    Child c({ferrant2(), "-p", tmp / "empty.pf", "file", "orb"}, tmp.path());
    EXPECT_EQ(c.wait(), 1);
    EXPECT_NE(c.err().find("Can't read parameter file"), std::string::npos) << c.err();
}

TEST(FerrantCli, DefaultParameterFileIsFoundUnderTheInstallationRoot) {
    // Started as plain "ferrant2" it reads ferrant2.pf from $QUORVANE/data/pf;
    // "-V" after it proves options parsed, and a missing ring name ends in usage.
    TempDir tmp;
    Child c({ferrant2()}, tmp.path());
    EXPECT_EQ(c.wait(), 1);
    EXPECT_NE(c.err().find(Usage), std::string::npos) << c.err();
    EXPECT_EQ(c.err().find("Can't read parameter file"), std::string::npos) << c.err();
}

TEST(FerrantCli, MissingRingServerProgramIsNamed) {
    TempDir tmp;
    std::string pf = write_pf(tmp / "f.pf");
    spit(tmp / "a.txt", "x");
    Child c({ferrant2(), "-p", pf, tmp / "a.txt", tmp / "ring"}, tmp.path(), "", "",
            {{"QUORVANE", tmp.path()}, {"PATH", tmp / "nowhere"}});
    EXPECT_EQ(c.wait(), 1);
    EXPECT_NE(c.err().find("Can't run 'forbserver' for '" + tmp / "ring" + "'"), std::string::npos) << c.err();
    EXPECT_NE(c.err().find("No such file or directory"), std::string::npos) << c.err();
}

TEST(FerrantCli, RevisionLineIsLoggedFirst) {
    TempDir tmp;
    Child c({ferrant2(), "-V"}, tmp.path());
    EXPECT_EQ(c.wait(), 1);
    std::string err = c.err();
    EXPECT_EQ(err.find("$Revision: 1.7 $ $Date: 2007/01/17 18:24:39 $"), err.find("$Revision")) << err;
    EXPECT_LT(err.find("$Revision"), err.find("Usage:")) << err;
}

}  // namespace

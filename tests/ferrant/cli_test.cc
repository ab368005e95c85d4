// Start-up of ferrant2: options, usage, parameter file, fatal set-up errors.
#include "harness.h"

using namespace ferrant_test;

namespace {

const char* Usage =
    "Usage: ferrant2 [-p pf] [-v] [-w watchdir] [file ...] orb\n"
    "       ferrant2 [-p pf] [-S state] [-v] orb\n\n";

// Each fails with status 1, says what it must after the revision line, and
// says nothing of a step it must not have reached.
TEST(FerrantCli, StartUpErrorsAreFatalWithTheirMessage) {
    TempDir tmp;
    std::string none = tmp / "nowhere/none", pf = write_pf(tmp / "f.pf"), ring = tmp / "ring";
    spit(tmp / "empty.pf", "# nothing here\n");
    spit(tmp / "a.txt", "x");
    spit(tmp / "plain", "x");
    struct Case {
        std::vector<std::string> args, says, not_says;
        std::map<std::string, std::string> env = {};
    } cases[] = {
        // -V gives the usage before any parameter file is read.
        {{"-p", none, "-V", "orb"}, {Usage}, {"Can't read parameter file"}},
        // An unknown option only once the parameter file has been read.
        {{"-p", none, "-x", "orb"}, {"Can't read parameter file " + none}, {"Usage:"}},
        {{"-p", pf, "-x", "orb"}, {Usage}, {}},
        {{"-p", pf, "-v"}, {Usage}, {}},  // no ring name
        {{"-p", tmp / "empty.pf", "file", "orb"}, {"Can't read parameter file"}, {}},
        // Plain "ferrant2" reads ferrant2.pf from $QUORVANE/data/pf, then finds no ring name.
        {{}, {Usage}, {"Can't read parameter file"}},
        {{"-p", pf, tmp / "a.txt", ring},
         {"Can't run 'forbserver' for '" + ring + "'", "No such file or directory"}, {},
         {{"QUORVANE", tmp.path}, {"PATH", tmp / "nowhere"}}},
        {{"-p", pf, "-w", tmp / "missing", ring}, {"Can't cd to '" + tmp / "missing" + "'"}, {}},
        {{"-p", write_pf(tmp / "r.pf", {{"directory", tmp / "plain/in"}}), ring},
         {"Can't create directory '" + tmp / "plain/in" + "'"}, {}},
    };
    for (auto& c : cases) {
        std::vector<std::string> argv = {ferrant2()};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        std::string line = "ferrant2";
        for (auto& a : c.args) line += " " + a;
        SCOPED_TRACE(line);
        Child child(argv, tmp.path, tmp.path, "", c.env);
        EXPECT_EQ(child.wait(), 1);
        std::string err = child.err();
        for (auto& s : c.says) EXPECT_NE(err.find(s), std::string::npos) << s << "\n---\n" << err;
        for (auto& s : c.not_says) EXPECT_EQ(err.find(s), std::string::npos) << s << "\n---\n" << err;
        // The revision line comes first, whatever follows.
        EXPECT_LT(err.find("$Revision: 1.7 $ $Date: 2007/01/17 18:24:39 $"), err.find('\n')) << err;
    }
}

}  // namespace

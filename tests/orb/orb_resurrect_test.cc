// Resurrection: a reader process restarted with the same state file goes on from the
// packet it saved, and joins a re-created ring by time.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "orb/orb.h"
#include "orb/orb_support.h"
#include "stock/bury.h"
#include "stock/epoch.h"
#include "support/orbserver.h"

using testsupport::OrbServer;

namespace {

struct Life {
    int resurrected = -99;  // orbresurrect's result
    double first_time = -1;  // time of the first packet read after it
};

// One life of a reader process: exhume, open, resurrect, read two packets, bury.
Life reader_process(const std::string& orbname, const std::string& statefile) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        Life run;
        if (exhume(statefile.c_str(), nullptr, 0, nullptr) < 0) _exit(2);
        int orb = orbopen(orbname.c_str(), "r&");
        if (orb < 0) _exit(3);
        int pktid = -1;
        double pkttime = 0;
        run.resurrected = orbresurrect(orb, &pktid, &pkttime);
        if (pktid < 0) orbseek(orb, ORBOLDEST);
        orbtest::Reader rd(orb);
        for (int i = 0; i < 2; i++) {
            orbtest::Got g = rd.reap();
            if (g.rc != 0) _exit(4);
            if (i == 0) run.first_time = g.time;
            pktid = g.pktid;
            pkttime = g.time;
        }
        if (bury() != 0) _exit(5);
        if (write(fds[1], &run, sizeof run) != sizeof run) _exit(6);
        _exit(0);
    }
    close(fds[1]);
    Life run;
    EXPECT_EQ(read(fds[0], &run, sizeof run), static_cast<ssize_t>(sizeof run));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    return run;
}

}  // namespace

TEST(OrbResurrect, ReaderRestartedWithItsStateFileGoesOn) {
    setenv("BNS_TIMEOUT", "2000", 1);
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    int w = orbopen(server.name().c_str(), "w");
    ASSERT_GE(w, 0);
    orbtest::put_run(w, "AA/res", 10, 6);  // times 10..15
    orbclose(w);
    std::string state = server.dir() + "/state/reader";

    Life first = reader_process(server.name(), state);
    EXPECT_EQ(first.resurrected, 0);  // nothing saved yet: the open's position stands
    EXPECT_EQ(first.first_time, 10);  // it began at the oldest

    Life second = reader_process(server.name(), state);
    EXPECT_EQ(second.resurrected, 0);
    EXPECT_EQ(second.first_time, 12);  // the packet after the saved one (time 11)
    std::string text = testsupport::slurp(state);
    EXPECT_NE(text.find(server.name() + "{last_pktid"), std::string::npos) << text;
    EXPECT_NE(text.find(server.name() + "{orb_start"), std::string::npos) << text;

    // A re-created ring is joined by time.
    server.kill();
    unlink(server.ring().c_str());
    wait_for_time(std_now(), 1.1);  // the new ring starts a second or more later
    int f = orbopen((server.ring() + "@s8M").c_str(), "w");
    ASSERT_GE(f, 0);
    orbtest::put_run(f, "AA/res", 1, 4, "early");  // ids 0..3 with early times
    orbtest::put_run(f, "AA/res", 13, 4, "late");  // times 13..16
    orbclose(f);
    ASSERT_TRUE(server.start()) << server.log();
    Life third = reader_process(server.name(), state);
    EXPECT_EQ(third.resurrected, -2);  // by time: the right time, another packet
    EXPECT_EQ(third.first_time, 14);   // after the packet at the saved time 13
    unsetenv("BNS_TIMEOUT");
}

// Names listing front ends of one ring: open takes the first up, reconnection the next.
#include <gtest/gtest.h>
#include "orb/orb_support.h"
#include "support/orbserver.h"

TEST(OrbFailover, ReaderAndWriterGoOnThroughTheOtherFrontEnd) {
    setenv("BNS_TIMEOUT", "500", 1);
    testsupport::OrbServer a, b([&] { testsupport::OrbServer::Options o; o.ring = a.ring(); return o; }());
    ASSERT_TRUE(a.up() && b.up()) << a.log() << b.log();
    std::string both = a.name() + "," + b.name();
    int w = orbopen(both.c_str(), "w&"), r = orbopen(both.c_str(), "r&");
    ASSERT_GE(r, 0);
    std::vector<int> ids = orbtest::put_run(w, "AA/fo", 1000, 3, "a");
    orbtest::Reader rd(r);
    for (int id : ids) ASSERT_EQ(rd.reap().pktid, id);
    a.kill();
    // orbputx waits for each answer: what reached no live server is sent once, again.
    ids = orbtest::put_run(w, "AA/fo", 2000, 3, "b");
    for (int i = 0; i < 3; i++) {
        orbtest::Got g = rd.reap();
        EXPECT_TRUE(g.pktid == ids[i] && g.body == "b" + std::to_string(i)) << g.pktid << " " << g.body;
    }
    // The third open passes over the dead first address.
    for (int orb : {r, w, orbopen(both.c_str(), "r")}) EXPECT_EQ(orbclose(orb), 0);
    unsetenv("BNS_TIMEOUT");
}
TEST(OrbFailover, BadListsAreRefusedNamingTheName) {
    const char* cases[][2] = {
        {"localhost:1,,localhost:2", "empty address in server list 'localhost:1,,localhost:2'"},
        {"localhost:1,", "empty address in server list 'localhost:1,'"},
        {",localhost:1@", "empty address in server list ',localhost:1'"},
        {"localhost:1,./ring", "file path './ring' can't be one of the addresses in server list 'localhost:1,./ring'"},
    };
    for (auto& c : cases) {
        int orb = 0;
        std::string err = orbtest::stderr_of([&] { orb = orbopen(c[0], "r&"); });
        EXPECT_TRUE(orb == -1 && err.find(c[1]) != std::string::npos) << c[0] << ": " << orb << " " << err;
    }
}

// Server names listing several front ends of one ring file: the open takes the
// first that answers, a reconnection moves on to the next, and bad lists are refused.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "orb/orb.h"
#include "orb/orb_support.h"
#include "support/orbserver.h"

using orbtest::Got;
using orbtest::Reader;
using testsupport::OrbServer;

namespace {

// A loopback address where nothing listens (a port bound but never listened on).
struct DeadPort {
    DeadPort() {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        name = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    }
    ~DeadPort() { close(fd); }
    int fd;
    std::string name;
};

}  // namespace

TEST(OrbFailover, ReaderGoesOnThroughTheOtherFrontEnd) {
    setenv("BNS_TIMEOUT", "500", 1);
    OrbServer a;
    ASSERT_TRUE(a.up()) << a.log();
    OrbServer::Options o;
    o.ring = a.ring();
    OrbServer b(o);
    ASSERT_TRUE(b.up()) << b.log();
    std::string both = a.name() + "," + b.name();
    int w = orbopen(both.c_str(), "w&");
    int r = orbopen(both.c_str(), "r&");
    ASSERT_GE(w, 0);
    ASSERT_GE(r, 0);

    std::vector<int> ids = orbtest::put_run(w, "AA/fo", 1000, 5, "a");
    Reader rd(r);
    std::vector<Got> got;
    for (int i = 0; i < 5; i++) got.push_back(rd.reap());
    a.kill();
    // The writer fails over too; orbputx waits for each answer, so nothing is sent twice.
    for (int id : orbtest::put_run(w, "AA/fo", 2000, 5, "b")) ids.push_back(id);
    for (int i = 0; i < 5; i++) got.push_back(rd.reap());

    ASSERT_EQ(got.size(), ids.size());
    for (size_t i = 0; i < ids.size(); i++) {
        EXPECT_EQ(got[i].rc, 0);
        EXPECT_EQ(got[i].pktid, ids[i]) << i;
        EXPECT_EQ(got[i].body, (i < 5 ? "a" : "b") + std::to_string(i % 5)) << i;
    }
    orbclose(r);
    orbclose(w);
    unsetenv("BNS_TIMEOUT");
}

TEST(OrbFailover, ADeadFirstAddressIsSkippedAtOpen) {
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    DeadPort dead;
    std::string name = dead.name + "," + server.name();
    int orb = -1;
    std::string err = orbtest::stderr_of([&] { orb = orbopen(name.c_str(), "r"); });
    ASSERT_GE(orb, 0) << err;
    EXPECT_NE(err.find("Can't connect to server '" + dead.name + "'"), std::string::npos) << err;
    orbclose(orb);
}

TEST(OrbFailover, BadListsAreRefused) {
    struct Case {
        const char* name;
        const char* message;
    } cases[] = {
        {"localhost:1,,localhost:2", "empty address in server list 'localhost:1,,localhost:2'"},
        {"localhost:1,", "empty address in server list 'localhost:1,'"},
        {",localhost:1@", "empty address in server list ',localhost:1'"},
        {"localhost:1,./ring",
         "file path './ring' can't be one of the addresses in server list 'localhost:1,./ring'"},
        {"localhost:1,/tmp/r", "file path '/tmp/r' can't be one of the addresses in server list"},
    };
    for (const Case& c : cases) {
        int orb = 0;
        std::string err = orbtest::stderr_of([&] { orb = orbopen(c.name, "r&"); });
        EXPECT_EQ(orb, -1) << c.name;
        EXPECT_NE(err.find(c.message), std::string::npos) << c.name << ": " << err;
        EXPECT_EQ(err.find("Can't connect"), std::string::npos) << c.name << ": " << err;
    }
}

// The client library against a real orbserver (and forbserver) on loopback: naming,
// positioning, select and reject, streaming and bounded reads, writes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "orb/orb.h"
#include "orb/orb_support.h"
#include "stock/epoch.h"
#include "support/orbserver.h"

using orbtest::Got;
using orbtest::put_run;
using orbtest::Reader;
using orbtest::stderr_of;
using testsupport::OrbServer;
using testsupport::slurp;

namespace {

struct OrbServerTest : ::testing::Test {
    void SetUp() override {
        setenv("BNS_TIMEOUT", "2000", 1);
        ASSERT_TRUE(server.up()) << server.log();
    }
    void TearDown() override {
        for (int orb : opened) orbclose(orb);
        unsetenv("BNS_TIMEOUT");
    }
    // Opens the server's ring; closed in TearDown.
    int open(const char* perm) {
        int orb = orbopen(server.name().c_str(), perm);
        EXPECT_GE(orb, 0) << server.log();
        opened.push_back(orb);
        return orb;
    }
    OrbServer server;
    std::vector<int> opened;
};

}  // namespace

// ---- naming ----

TEST_F(OrbServerTest, HostPortAndNamedPortsConnect) {
    std::string dir = server.dir() + "/pf";
    std::filesystem::create_directories(dir);
    std::string port = std::to_string(server.port());
    std::ofstream(dir + "/orbserver_names.pf") << "testring " << port << "\nsigned " << port << " somebody\n";
    setenv("PFPATH", dir.c_str(), 1);
    for (std::string name : {server.name(), "localhost:" + port, std::string("localhost:testring")}) {
        int orb = orbopen(name.c_str(), "r");
        ASSERT_GE(orb, 0) << name;
        ASSERT_NE(orb2orbfile(orb), nullptr);
        EXPECT_STREQ(orb2orbfile(orb)->name, name.c_str());
        int version = -1;
        EXPECT_EQ(orbping(orb, &version), 0);
        EXPECT_GT(version, 0);
        EXPECT_EQ(orbclose(orb), 0);
        EXPECT_EQ(orb2orbfile(orb), nullptr);
    }
    // A port that names a signer asks for a signed open, which this server has no signers for.
    std::string err = stderr_of([] { EXPECT_EQ(orbopen("localhost:signed", "r"), -1); });
    EXPECT_NE(err.find("signed opens are not supported by this server"), std::string::npos) << err;
    unsetenv("PFPATH");
}

TEST_F(OrbServerTest, FilePathsStartAForbserver) {
    // An absolute path with an option for forbserver, which creates the ring; started
    // under a stand-in debugger that runs the program with the joined arguments.
    std::string dbg = server.dir() + "/dbg.sh";
    std::ofstream(dbg) << "#!/bin/sh\nprog=\"$1\"\nshift 2\nexec \"$prog\" $1\n";
    chmod(dbg.c_str(), 0755);
    setenv("FORB_DEBUGGER", dbg.c_str(), 1);
    std::string ring = server.dir() + "/local";
    int w = -1;
    std::string err = stderr_of([&] { w = orbopen((ring + "@s1M").c_str(), "w&"); });
    unsetenv("FORB_DEBUGGER");
    ASSERT_GE(w, 0) << err;
    EXPECT_NE(err.find(">> spawning \"" + dbg + " "), std::string::npos) << err;
    EXPECT_NE(err.find("forbserver -a '-s1M " + ring + "'\""), std::string::npos) << err;
    EXPECT_EQ(orb2orbfile(w)->reopen, 0);  // a file-backed server is never reconnected
    ASSERT_GE(orbputx(w, "AA_X/test", 10, "abc", 3), 0);
    EXPECT_EQ(orbclose(w), 0);

    // The same ring through a relative path, read back.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(server.dir().c_str()), 0);
    int r = orbopen("./local", "r");
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_GE(r, 0);
    ASSERT_GE(orbseek(r, ORBOLDEST), 0);
    Reader rd(r);
    Got g = rd.reap();
    EXPECT_EQ(g.rc, 0);
    EXPECT_EQ(g.src, "AA_X/test");
    EXPECT_EQ(g.body, "abc");
    EXPECT_EQ(orbclose(r), 0);

    // forbserver refuses a ring in a directory that does not exist; the open fails.
    std::string missing = server.dir() + "/no/such/dir/ring";
    err = stderr_of([&] { EXPECT_EQ(orbopen(missing.c_str(), "r"), -1); });
    EXPECT_NE(err.find("open negotiation fails"), std::string::npos) << err;
}

TEST_F(OrbServerTest, WaitingOpenRetriesUntilTheServerComes) {
    setenv("BNS_TIMEOUT", "100", 1);
    std::string name = server.name();
    server.stop();
    std::atomic<int> orb{-2};
    testing::internal::CaptureStderr();
    std::thread opener([&] { orb = orbopen((name + "@").c_str(), "r"); });
    // Let it fail at least nine times before the server returns.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    bool restarted = server.start();
    opener.join();
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(restarted) << server.log();
    ASSERT_GE(orb.load(), 0);
    for (int n : {1, 2, 4, 8})
        EXPECT_NE(err.find("can't open orbserver '" + name + "': attempt #" + std::to_string(n) + "\n"),
                  std::string::npos)
            << err;
    for (int n : {3, 5, 6, 7})
        EXPECT_EQ(err.find("attempt #" + std::to_string(n) + "\n"), std::string::npos) << err;
    EXPECT_EQ(err.find("Can't connect"), std::string::npos) << err;  // the retries stay quiet
    EXPECT_STREQ(orb2orbfile(orb)->name, name.c_str());              // without the "@"
    orbclose(orb);
}

TEST_F(OrbServerTest, PacketSizeLimitsAndLocalAddressFromTheEnvironment) {
    setenv("ORB_IP_ADDRESS", "127.0.0.1", 1);
    setenv("ORB_MAX_DATA_BYTES", "100", 1);
    int w = open("w");
    unsetenv("ORB_MAX_DATA_BYTES");
    EXPECT_EQ(Orb_max_data_bytes, 100);
    std::string body(101, 'b');
    std::string err = stderr_of([&] { EXPECT_EQ(orbput(w, "AA/lim", 1, body.data(), 101), -1); });
    EXPECT_NE(err.find("maximum packet size is 100"), std::string::npos) << err;
    EXPECT_EQ(orbput(w, "AA/lim", 1, body.data(), 100), 0);
    Orb_max_data_bytes = 4000000;
    err = stderr_of([&] { EXPECT_EQ(orbput(w, "AA/lim", 1, "x", -1), -1); });
    EXPECT_NE(err.find("minimum packet size is 0"), std::string::npos) << err;

    setenv("ORB_IP_ADDRESS", "not-an-address", 1);
    err = stderr_of([&] { EXPECT_EQ(orbopen(server.name().c_str(), "r"), -1); });
    unsetenv("ORB_IP_ADDRESS");
    EXPECT_NE(err.find("Failed to bind ip address 'not-an-address'"), std::string::npos) << err;
}

// ---- positioning ----

TEST_F(OrbServerTest, PositioningByWordTimeAndGarbage) {
    int w = open("w");
    std::vector<int> ids = put_run(w, "AA_B/pos", 1000, 5);
    ASSERT_GE(ids[0], 0);
    int r = open("r");
    Reader rd(r);

    EXPECT_GE(orbposition(r, "OlDeSt"), 0);
    Got g = rd.reap();
    EXPECT_EQ(g.pktid, ids[0]);
    EXPECT_EQ(g.body, "p0");

    EXPECT_EQ(orbposition(r, "newest"), ids[4]);
    put_run(w, "AA_B/pos", 1005, 1, "new");
    g = rd.reap();
    EXPECT_EQ(g.body, "new0");

    // A time stands at the first packet later than it; reading goes on after that one.
    char* when = epoch2str(1001.5, "%Y-%m-%d %H:%M:%S.%u");
    EXPECT_EQ(orbposition(r, when), ids[2]);
    free(when);
    EXPECT_EQ(orb2orbfile(r)->lastpkttime, 1001.5);
    g = rd.reap();
    EXPECT_EQ(g.pktid, ids[3]);

    // Garbage leaves the position where it was. (Seek first: a request sent while a
    // stream runs drops what the server pushed meanwhile, and moves the position.)
    EXPECT_EQ(orbseek(r, ids[1]), ids[1]);
    EXPECT_EQ(orbposition(r, "the day after tomorrow"), ids[1]);
    EXPECT_EQ(orbtell(r), ids[1]);
    g = rd.reap();
    EXPECT_EQ(g.rc, 0);
    EXPECT_EQ(g.pktid, ids[2]);
}

// ---- select and reject ----

TEST_F(OrbServerTest, SelectRejectAndPatternFiles) {
    int w = open("w");
    for (int i = 0; i < 3; i++)
        for (const char* src : {"AA_ONE/x", "BB_TWO/x", "CC_THREE/y"})
            ASSERT_GE(orbputx(w, src, 100 + i, "x", 1), 0);
    int r = open("r");
    Reader rd(r);

    // A pattern file: its lines, trimmed, joined as alternatives.
    std::string file = server.dir() + "/patterns";
    std::ofstream(file) << "  CC_THREE/y  \n\nBB_TWO/x\n";
    EXPECT_EQ(orbselect(r, ("@" + file).c_str()), 2);
    EXPECT_EQ(orbreject(r, ("@" + file).c_str()), 0);  // the same file rejects both
    EXPECT_EQ(orbreject(r, "XX"), 2);
    orbseek(r, ORBOLDEST);
    for (int i = 0; i < 6; i++) EXPECT_NE(rd.reap().src, "AA_ONE/x");

    std::string none = server.dir() + "/nothing-here";
    std::string err = stderr_of([&] { EXPECT_EQ(orbselect(r, ("@" + none).c_str()), -1); });
    EXPECT_NE(err.find("Can't open '" + none + "'"), std::string::npos) << err;
    EXPECT_EQ(orbselect(r, "(unclosed"), -1);  // the server refuses a bad pattern
}

// ---- streaming and bounded reads ----

TEST_F(OrbServerTest, ReapnEndsItsStreamAndTheNextCallStartsAnother) {
    std::vector<int> ids = put_run(open("w"), "AA/n", 50, 8);
    int r = open("r");
    orbseek(r, ORBOLDEST);
    Reader rd(r);
    for (int i = 0; i < 3; i++) {
        Got g = rd.reapn(3);
        ASSERT_EQ(g.rc, 0);
        EXPECT_EQ(g.pktid, ids[i]);
    }
    Got end = rd.reapn(3);
    EXPECT_EQ(end.rc, 0);
    EXPECT_EQ(end.pktid, -32);
    EXPECT_EQ(orb2orbfile(r)->reaped, 0);
    EXPECT_EQ(orb2orbfile(r)->lastpktid, ids[2]);  // the end marker moves nothing
    Got next = rd.reapn(3);
    EXPECT_EQ(next.rc, 0);
    EXPECT_EQ(next.pktid, ids[3]);
    EXPECT_EQ(orb2orbfile(r)->reaped, 1);

    // Headers only.
    int pktid;
    char src[ORB_SRCNAME_SIZE + 1];
    double t;
    orbseek(r, ORBOLDEST);
    EXPECT_EQ(orbreaphdr(r, &pktid, src, &t), 0);
    EXPECT_EQ(pktid, ids[0]);
    EXPECT_STREQ(src, "AA/n");
    EXPECT_EQ(t, 50);
}

TEST_F(OrbServerTest, BoundedReadsGiveUpQuietly) {
    int r = open("r&");
    Reader rd(r);
    std::string err = stderr_of([&] {
        EXPECT_EQ(rd.reap_nd().rc, -2);
        EXPECT_EQ(rd.reap_timeout(0.2).rc, -2);
    });
    EXPECT_EQ(err, "");
    EXPECT_GT(orb2orbfile(r)->first_nd_failure, 0);
    EXPECT_EQ(orb2orbfile(r)->reopen, 1);  // restored after the read

    put_run(open("w"), "AA/nd", 7, 2);
    Got g = rd.reap_timeout(10);
    EXPECT_EQ(g.rc, 0);
    EXPECT_EQ(g.body, "p0");
    EXPECT_EQ(orb2orbfile(r)->first_nd_failure, 0);
    Got k;
    for (int i = 0; i < 1000 && (k = rd.reap_nd()).rc == -2; i++) usleep(2000);
    EXPECT_EQ(k.rc, 0);
    EXPECT_EQ(k.body, "p1");
}

// ---- writes, status, stash ----

TEST_F(OrbServerTest, LongEmptyAndLongNamedPacketsAndRup) {
    int w = open("w");
    int r = open("r");
    std::string big(70000, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>(i * 7);
    ASSERT_EQ(orbput(w, "AA_BIG/xfer", 5, big.data(), static_cast<int>(big.size())), 0);
    EXPECT_EQ(orbput(w, "AA_SMALL/xfer", 6, "", 0), 0);
    // A source name past 63 characters is cut.
    std::string longname(80, 'L');
    EXPECT_GE(orbputx(w, longname.c_str(), 7, "q", 1), 0);
    Reader rd(r);
    orbseek(r, ORBOLDEST);
    Got g = rd.reap();
    EXPECT_EQ(g.src, "AA_BIG/xfer");
    EXPECT_EQ(g.body, big);
    g = rd.reap();
    EXPECT_EQ(g.src, "AA_SMALL/xfer");
    EXPECT_EQ(g.body, "");
    g = rd.reap();
    EXPECT_EQ(g.src, std::string(63, 'L'));
    EXPECT_EQ(orbrange(r), 3);

    // (Status, sources and clients are read through orbstat below.)
    int id = -1;
    EXPECT_EQ(orbid(r, &id), 0);
    double os, ss;
    int latest;
    EXPECT_EQ(orbrup(server.name().c_str(), id, &os, &ss, &latest), 1);
    EXPECT_EQ(os, orb2orbfile(r)->orb_start);
    EXPECT_EQ(ss, orb2orbfile(r)->server_start);
}

TEST_F(OrbServerTest, StashSelectAndAMissingStash) {
    int r = open("r");
    EXPECT_EQ(orbstashselect(r, 1), 1);
    EXPECT_EQ(orbstashselect(r, 3), 1);  // nothing sent; the last flag stands
    char src[ORB_SRCNAME_SIZE + 1] = "AA/none";
    int pktid, nbytes = 0, size = 0;
    double t;
    char* buf = nullptr;
    stderr_of([&] { EXPECT_EQ(orbgetstash(r, src, &pktid, &t, &buf, &nbytes, &size), -1); });
    EXPECT_STREQ(src, "");  // nothing stashed
    free(buf);
}

// ---- orbstat, orbelog, exchange logs ----

TEST_F(OrbServerTest, OrbstatShowsStatusSourcesAndClients) {
    put_run(open("w"), "AA_STAT/xfer", 1e9, 3);
    std::string out = server.dir() + "/orbstat.out";
    std::string orbstat = std::string(FERRANT_BUILD_DIR) + "/bin/orbstat";
    EXPECT_EQ(system((orbstat + " -s -c " + server.name() + " >" + out + " 2>&1").c_str()), 0);
    std::string text = slurp(out);
    EXPECT_NE(text.find("holding     3 packets from 1 sources"), std::string::npos) << text;
    EXPECT_NE(text.find("AA_STAT/xfer"), std::string::npos) << text;
    EXPECT_NE(text.find("orb_server_test"), std::string::npos) << text;  // this process's writer
    EXPECT_NE(system((orbstat + " -x >" + out + " 2>&1").c_str()), 0);
    EXPECT_NE(slurp(out).find("Usage: orbstat [-s] [-c] [-j] orb"), std::string::npos);
}

TEST_F(OrbServerTest, OrbelogPutsLogTextIntoARing) {
    Reader rd(open("r"));
    EXPECT_EQ(orbelog(server.name().c_str(), "prog", "something happened"), 0);
    EXPECT_EQ(orbelog(server.name().c_str(), "prog", "and again"), 0);  // the connection is kept
    Got g = rd.reap();
    EXPECT_EQ(g.src, "prog/log");
    EXPECT_EQ(g.body, "something happened");
    EXPECT_EQ(rd.reap().body, "and again");
}

TEST_F(OrbServerTest, ExchangeLogsUnderOrbDump) {
    std::string dir = server.dir() + "/dumps";
    setenv("ORB_DUMP", dir.c_str(), 1);
    int orb = orbopen(server.name().c_str(), "w");
    unsetenv("ORB_DUMP");
    ASSERT_GE(orb, 0);
    std::string path = orb2orbfile(orb)->PacketDump;
    EXPECT_EQ(path.rfind(dir + "/", 0), 0u) << path;
    EXPECT_EQ(path.find(':', dir.size()), std::string::npos) << path;  // the port's ":" became "#"
    EXPECT_GE(orbputx(orb, "AA/dump", 1, "hello", 5), 0);
    orbclose(orb);
    std::string text = slurp(path);
    EXPECT_NE(text.find("#orb x output-" + server.name() + " "), std::string::npos) << text;
    EXPECT_NE(text.find("#orb x input-" + server.name() + " "), std::string::npos) << text;
    EXPECT_NE(text.find("AA/dump"), std::string::npos) << text;
}

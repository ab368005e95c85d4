// The client library against a real orbserver (and forbserver) on loopback; against bad names and
// hostile peers (a plain socket in the test); and against servers killed and restarted under it, where
// readers go on where they were, writers resend what they kept and a re-created ring is joined by time.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "orb/orb_support.h"
#include "stock/bns.h"
#include "stock/bury.h"
#include "stock/epoch.h"
#include "stock/tbl.h"
#include "support/child.h"
#include "support/orbserver.h"

using namespace orbtest;
using testsupport::OrbServer;
using namespace std::string_literals;

namespace {

struct OrbServerTest : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(server.up()) << server.log(); }
    void TearDown() override { for (int orb : opened) orbclose(orb); }
    // Opens the server's ring; closed in TearDown.
    int open(const char* perm) {
        int orb = orbopen(server.name().c_str(), perm);
        EXPECT_GE(orb, 0) << server.log();
        opened.push_back(orb);
        return orb;
    }
    SetEnv timeout{"BNS_TIMEOUT", "2000"};
    OrbServer server;
    std::vector<int> opened;
};

// A TCP socket bound to an ephemeral loopback port; *name is "127.0.0.1:PORT".
int loopback_socket(std::string* name) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    *name = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    return fd;
}

// A one-connection peer on an ephemeral loopback port, running a script on its end; it speaks with our
// own encoders and decoders.
struct Peer {
    std::string name;
    int lfd = loopback_socket(&name), fd = -1;
    Bns *in = nullptr, *out = nullptr;
    Orbrequest* req = newOrbrequest();
    Orbresponse* resp = newOrbresponse();
    std::thread thread;
    explicit Peer(std::function<void(Peer&)> script) {
        EXPECT_EQ(listen(lfd, 4), 0);
        thread = std::thread([this, script] {
            pollfd p{lfd, POLLIN, 0};
            if (poll(&p, 1, 10000) != 1 || (fd = accept(lfd, nullptr, nullptr)) < 0) return;
            in = bnsnew(fd, 0), out = bnsnew(fd, 0);
            script(*this);
            close(fd);
        });
    }
    ~Peer() {
        shutdown(lfd, SHUT_RDWR);
        thread.join();
        close(lfd);
        freeOrbrequest(req), freeOrbresponse(resp), bnsfree(in), bnsfree(out);
    }
    bool read() { return gbnsSync(in, "orbm", 4, 1) == 0 && gbnsOrbrequest(in, req) == 0; }
    // Sends resp, the last cut bytes short.
    void send(int cut = 0) {
        bnsput(out, "orbm", BNS_BYTES, 4);
        pbnsOrbresponse(out, resp);
        out->lp -= cut;
        bnsflush(out);
    }
    // Answers the open (result 0 or a refusal), so that a test can be hostile later in the exchange.
    void answer_open(const char* refusal = nullptr) {
        ASSERT_TRUE(read());
        ASSERT_EQ(req->what, ORBOPEN);
        resp->what = ORBOPEN, resp->result = refusal ? -1 : 0;
        resp->orb_start = 1000, resp->server_start = 2000, resp->latest_pktid = 41;
        if (refusal) resp->nerr = static_cast<int>(strlen(strcpy(resp->errmsg, refusal)));
        send();
    }
};

// One life of a reader process: exhume, open, resurrect, read two packets, bury. It tells
// orbresurrect's result and the time of the first packet read after it.
std::string reader_life(const std::string& orbname, const std::string& statefile) {
    child::Result life = child::run([&] {
        if (exhume(statefile.c_str(), nullptr, 0, nullptr) < 0) _exit(2);
        int pktid = -1, orb = orbopen(orbname.c_str(), "r&");
        double pkttime = 0;
        if (orb < 0) _exit(2);
        int resurrected = orbresurrect(orb, &pktid, &pkttime);
        if (pktid < 0) orbseek(orb, ORBOLDEST);
        Reader rd(orb);
        Got first = rd.reap(), second = rd.reap();
        pktid = second.pktid, pkttime = second.time;  // what bury saves
        if (first.rc != 0 || second.rc != 0 || bury() != 0) _exit(3);
        printf("%s", words(resurrected, first.time).c_str());
    });
    EXPECT_TRUE(life.exited(0)) << life.status << life.err;
    return life.out;
}

}  // namespace

TEST_F(OrbServerTest, HostPortsNamedPortsFilePathsAndAWaitingOpen) {
    std::string dir = server.dir() + "/pf", port = std::to_string(server.port()), name = server.name();
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/orbserver_names.pf") << "testring " << port << "\nsigned " << port << " somebody\n";
    SetEnv pfpath("PFPATH", dir), local("ORB_IP_ADDRESS", "127.0.0.1");
    for (std::string name : {server.name(), "localhost:" + port, std::string("localhost:testring")}) {
        int orb = orbopen(name.c_str(), "r"), version = -1;
        ASSERT_GE(orb, 0) << name;
        EXPECT_STREQ(orb2orbfile(orb)->name, name.c_str());
        EXPECT_TRUE(orbping(orb, &version) == 0 && version > 0);
        EXPECT_TRUE(orbclose(orb) == 0 && orb2orbfile(orb) == nullptr);
    }
    // A port that names a signer asks for a signed open, which this server has no signers for.
    EXPECT_TRUE(fails_saying([] { return orbopen("localhost:signed", "r"); },
                             "signed opens are not supported by this server"));
    // An absolute path with an option for forbserver, which creates the ring; started under a
    // stand-in debugger that runs the program with the joined arguments.
    std::string dbg = server.dir() + "/dbg.sh", ring = server.dir() + "/local";
    std::ofstream(dbg) << "#!/bin/sh\nprog=\"$1\"\nshift 2\nexec \"$prog\" $1\n";
    chmod(dbg.c_str(), 0755);
    SetEnv debugger("FORB_DEBUGGER", dbg);
    int w = -1;
    std::string err = stderr_of([&] { w = orbopen((ring + "@s1M").c_str(), "w&"); });
    ASSERT_GE(w, 0) << err;
    EXPECT_TRUE(has(err, ">> spawning \"" + dbg + " "));
    EXPECT_TRUE(has(err, "forbserver -a '-s1M " + ring + "'\""));
    EXPECT_EQ(orb2orbfile(w)->reopen, 0);  // a file-backed server is never reconnected
    ASSERT_GE(orbputx(w, "AA_X/test", 10, "abc", 3), 0);
    EXPECT_EQ(orbclose(w), 0);
    // The same ring through a relative path, read back.
    auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(server.dir());
    int r = orbopen("./local", "r");
    std::filesystem::current_path(cwd);
    ASSERT_GE(r, 0);
    ASSERT_GE(orbseek(r, ORBOLDEST), 0);
    EXPECT_EQ(Reader(r).reap().str(), "0 0 AA_X/test 10 abc");
    EXPECT_EQ(orbclose(r), 0);
    setenv("ORB_IP_ADDRESS", "not-an-address", 1);
    EXPECT_TRUE(fails_saying([&] { return orbopen(name.c_str(), "r"); },
                             "Failed to bind ip address 'not-an-address'"));
    unsetenv("ORB_IP_ADDRESS");
    // A waiting open ("@") retries, quietly, until the server comes.
    setenv("BNS_TIMEOUT", "100", 1);
    server.stop();
    std::atomic<int> orb{-2};
    bool restarted = false;
    err = stderr_of([&] {
        std::thread opener([&] { orb = orbopen((name + "@").c_str(), "r"); });
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // nine failures or more
        restarted = server.start();
        opener.join();
    });
    ASSERT_TRUE(restarted) << server.log();
    ASSERT_GE(orb.load(), 0);
    for (int n = 1; n <= 8; n++)  // said at the powers of two only
        EXPECT_EQ(bool(has(err, "can't open orbserver '" + name + "': attempt #" + std::to_string(n) + "\n")),
                  (n & (n - 1)) == 0) << n;
    EXPECT_FALSE(has(err, "Can't connect"));             // the retries stay quiet
    EXPECT_STREQ(orb2orbfile(orb)->name, name.c_str());  // without the "@"
    orbclose(orb);
}

TEST_F(OrbServerTest, PositionsCountedAndBoundedReadsAndPatterns) {
    int w = open("w"), r = open("r&");
    std::vector<int> ids = put_run(w, "AA_B/pos", 1000, 5);
    ASSERT_EQ(ids, (std::vector<int>{0, 1, 2, 3, 4}));
    Reader rd(r);
    EXPECT_GE(orbposition(r, "OlDeSt"), 0);
    EXPECT_EQ(rd.reap().str(), "0 0 AA_B/pos 1000 p0");
    // A time stands at the first packet later than it; reading goes on after that one.
    char* when = epoch2str(1001.5, "%Y-%m-%d %H:%M:%S.%u");
    EXPECT_EQ(orbposition(r, when), 2);
    free(when);
    EXPECT_EQ(rd.reap().pktid, 3);
    // Garbage leaves the position where it was. (Seek first: a request sent while a stream runs
    // drops what the server pushed meanwhile, and moves the position.)
    EXPECT_EQ(orbseek(r, 1), 1);
    EXPECT_EQ(orbposition(r, "the day after tomorrow"), 1);
    EXPECT_EQ(rd.reap().str(), "0 2 AA_B/pos 1002 p2");
    // orbreapn ends its stream after n packets with an end marker, and the next call starts another.
    orbseek(r, ORBOLDEST);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(rd.reapn(3).str(), words(0, i, "AA_B/pos", 1000 + i, "p" + std::to_string(i)));
    Got g = rd.reapn(3);  // the end marker moves nothing
    EXPECT_EQ(words(g.rc, g.pktid, orb2orbfile(r)->reaped, orb2orbfile(r)->lastpktid), "0 -32 0 2");
    g = rd.reapn(3);
    EXPECT_EQ(words(g.rc, g.pktid, orb2orbfile(r)->reaped), "0 3 1");
    int pktid;  // headers only
    double t;
    char src[ORB_SRCNAME_SIZE + 1];
    orbseek(r, ORBOLDEST);
    EXPECT_EQ(orbreaphdr(r, &pktid, src, &t), 0);
    EXPECT_EQ(words(pktid, src, t), "0 AA_B/pos 1000");
    // Bounded reads at the newest give up quietly.
    orbseek(r, ORBNEWEST);
    std::string err = stderr_of([&] {
        EXPECT_EQ(rd.reap_nd().rc, -2);
        EXPECT_EQ(rd.reap_timeout(0.2).rc, -2);
    });
    EXPECT_EQ(err, "");
    EXPECT_GT(orb2orbfile(r)->first_nd_failure, 0);
    EXPECT_EQ(orb2orbfile(r)->reopen, 1);  // restored after the read
    put_run(w, "AA/nd", 7, 2);
    EXPECT_EQ(rd.reap_timeout(10).str(), "0 5 AA/nd 7 p0");
    EXPECT_EQ(orb2orbfile(r)->first_nd_failure, 0);
    Got k;
    for (int i = 0; i < 1000 && (k = rd.reap_nd()).rc == -2; i++) usleep(2000);
    EXPECT_EQ(k.str(), "0 6 AA/nd 8 p1");
    // Select with a pattern file: its lines, trimmed, joined as alternatives.
    for (int i = 0; i < 3; i++)
        for (const char* src : {"AA_ONE/x", "BB_TWO/x", "CC_THREE/y"})
            ASSERT_GE(orbputx(w, src, 100 + i, "x", 1), 0);
    std::string file = server.dir() + "/patterns", none = server.dir() + "/nothing-here";
    std::ofstream(file) << "  CC_THREE/y  \n\nBB_TWO/x\n";
    EXPECT_EQ(orbselect(r, ("@" + file).c_str()), 2);
    orbseek(r, ORBOLDEST);
    for (int i = 0; i < 6; i++) EXPECT_NE(rd.reap().src, "AA_ONE/x");
    EXPECT_TRUE(fails_saying([&] { return orbselect(r, ("@" + none).c_str()); }, "Can't open '" + none));
}

TEST_F(OrbServerTest, WritesAndStatusUnderOrbDumpRupStashAndElog) {
    std::string dir = server.dir() + "/dumps", out = server.dir() + "/orbstat.out";
    int r = open("r"), w;
    {
        SetEnv dump("ORB_DUMP", dir), limit("ORB_MAX_DATA_BYTES", "100");
        w = open("w");
    }
    std::string path = orb2orbfile(w)->PacketDump;
    // In the dump directory; the port's ":" became "#".
    EXPECT_TRUE(path.rfind(dir + "/", 0) == 0 && path.find(':', dir.size()) == std::string::npos) << path;
    std::string big(101, 'b'), longname(80, 'L');
    EXPECT_TRUE(fails_saying([&] { return orbput(w, "AA/lim", 1, big.data(), 101); },
                             "maximum packet size is 100\n"));
    EXPECT_EQ(orbput(w, "AA/lim", 1, big.data(), 100), 0);
    Orb_max_data_bytes = 4000000;
    EXPECT_TRUE(fails_saying([&] { return orbput(w, "AA/lim", 1, "x", -1); }, "minimum packet size is 0"));
    EXPECT_EQ(orbput(w, "AA_SMALL/xfer", 6, "", 0), 0);
    EXPECT_GE(orbputx(w, longname.c_str(), 7, "q", 1), 0);  // a source name past 63 characters is cut
    Reader rd(r);
    orbseek(r, ORBOLDEST);
    EXPECT_EQ(rd.reap().str(), "0 0 AA/lim 1 " + std::string(100, 'b'));
    EXPECT_EQ(rd.reap().str(), "0 1 AA_SMALL/xfer 6 ");
    EXPECT_EQ(rd.reap().src, std::string(63, 'L'));
    EXPECT_EQ(orbrange(r), 3);
    std::string orbstat = std::string(FERRANT_BUILD_DIR) + "/bin/orbstat";
    EXPECT_EQ(system((orbstat + " -s -c " + server.name() + " >" + out + " 2>&1").c_str()), 0);
    for (const char* part : {"holding     3 packets from 3 sources", "AA_SMALL/xfer", "orb_server_test"})
        EXPECT_TRUE(has(slurp(out), part));  // the last in this process's clients
    std::string text = slurp(path);  // the exchange log, with a packet in hex and text
    for (std::string part : {"#orb x output-" + server.name() + " ", "#orb x input-" + server.name() + " ",
                             "41 41 2f 6c 69 6d 62 62  ?.......AA/limbb"s})
        EXPECT_TRUE(has(text, part));
    int id = -1, latest;
    EXPECT_EQ(orbid(r, &id), 0);
    double os, ss;
    EXPECT_EQ(orbrup(server.name().c_str(), id, &os, &ss, &latest), 1);
    EXPECT_EQ(words(os, ss), words(orb2orbfile(r)->orb_start, orb2orbfile(r)->server_start));
    EXPECT_EQ(orbstashselect(r, 1), 1);
    char src[ORB_SRCNAME_SIZE + 1] = "AA/none";
    int pktid, nbytes = 0, size = 0;
    double t;
    char* buf = nullptr;
    stderr_of([&] { EXPECT_EQ(orbgetstash(r, src, &pktid, &t, &buf, &nbytes, &size), -1); });
    EXPECT_STREQ(src, "");  // nothing stashed
    free(buf);
    // orbelog puts log text into a ring, keeping its connection.
    EXPECT_EQ(orbelog(server.name().c_str(), "prog", "something happened"), 0);
    EXPECT_EQ(orbelog(server.name().c_str(), "prog", "and again"), 0);
    Got g = rd.reap();
    EXPECT_EQ(words(g.src, g.body), "prog/log something happened");
    EXPECT_EQ(rd.reap().body, "and again");
}

TEST(OrbLag, LagValueAcrossTheRingAndItsWrap) {
    struct { int pktid, oldest, newest; double want; } cases[] = {
        {19, 10, 19, 0.0}, {10, 10, 19, 0.9}, {5, 10, 19, 1.0}, {25, 10, 19, 1.0},  // ids 10..19; 5, 25 gone
        {4, 95, 4, 0.0}, {0, 95, 4, 0.4}, {97, 95, 4, 0.7}, {50, 95, 4, 1.0},        // wrapped: 95..99, 0..4
        // With oldest == newest the ids count as wrapped: the range is maxpkt + 1, so a reader one
        // packet behind a one-packet ring lags 1/101, not 1.
        {10, 10, 10, 0.0}, {9, 10, 10, 1.0 / 101}, {11, 10, 10, 99.0 / 101},
    };
    for (const auto& c : cases)
        EXPECT_DOUBLE_EQ(lagvalue(c.pktid, c.oldest, c.newest, 100), c.want) << words(c.pktid, c.oldest);
}

TEST_F(OrbServerTest, LagThrottleWaitsForAReaderThenHoldsTheWriterWhileItLags) {
    setenv("BNS_TIMEOUT", "5000", 1);
    std::string name = server.name();
    // Measured (nearly) every time.
    LagParams p{.lag_trigger = 0.5, .lag_reset = 0.2, .wait_seconds = 1}, unmeasured = p, bad = p;
    bad.wait_match = strdup("(unclosed");
    EXPECT_EXIT((orbput_nolag(orbopen(name.c_str(), "w"), "AA/bad", 1, "x", 1, &bad), exit(0)),
                testing::ExitedWithCode(1), "Error in match or reject parameters");
    free(bad.wait_match);
    int w = open("w");
    put_run(w, "AA/lag", 1, 3);
    // Without patterns nothing is measured: the write goes at once, reader or not.
    unmeasured.axe = 1;
    p.wait_match = strdup("orb_server_test");
    EXPECT_EQ(orbput_nolag(w, "AA/free", 1, "x", 1, &unmeasured), 0);
    // With no reader the writer waits for one, with one notice.
    p.verbose = 1;
    std::atomic<bool> done{false};
    testing::internal::CaptureStderr();
    std::thread waiting([&] {
        EXPECT_EQ(orbput_nolag(w, "AA/lag", 9, "x", 1, &p), 0);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // two or three checks in vain
    bool early = done;
    int r = open("r");  // stands at the newest, and lets the waiting write go
    waiting.join();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(early);
    const std::string notice = "No readers found on output orb; waiting for a reader";
    EXPECT_TRUE(has(err, notice));
    EXPECT_EQ(err.find(notice, err.find(notice) + 1), std::string::npos) << err;
    EXPECT_TRUE(has(err, "waited "));

    Laggards* lg = nullptr;  // the reader is one packet behind of five
    EXPECT_DOUBLE_EQ(orblag(w, "orb_server_test", nullptr, &lg), 0.2);
    ASSERT_TRUE(lg && lg->range == 5 && maxtbl(lg->list) == 1);
    auto* entry = static_cast<ClientLag*>(gettbl(lg->list, 0));
    EXPECT_DOUBLE_EQ(entry->lag, 0.2);
    EXPECT_TRUE(has(entry->what, "orb_server_test") && has(entry->who, "@")) << entry->what << entry->who;
    EXPECT_EQ(orblag(w, "someone_else", nullptr, &lg), -1);     // nobody matches
    EXPECT_EQ(orblag(w, nullptr, "orb_server_test", &lg), -1);  // rejected
    EXPECT_EQ(orblag(w, "orb_server_t", nullptr, nullptr), -1);  // the whole name must match
    EXPECT_EQ(orblag(w, "(unclosed", nullptr, nullptr), -3);     // a bad pattern
    freeLaggards(lg);
    // The reader reads nothing: the writer stops once the lag passes the trigger.
    p.verbose = 0;
    std::atomic<int> count{0};
    done = false;
    std::thread writer([&] {
        for (int i = 0; i < 40; i++, count++) {
            std::string body = "w" + std::to_string(i);
            if (orbput_nolag(w, "AA/lag", 100 + i, body.data(), static_cast<int>(body.size()), &p) < 0) break;
        }
        done = true;
    });
    int held = -1;  // once it stops moving for a while
    for (int i = 0; i < 40 && !done && held != count; i++)
        held = count, std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(done);
    EXPECT_TRUE(held > 0 && held < 40) << held;
    // Catching up below the reset lets it go on.
    Reader rd(r);
    for (int got = 0; !done && got < 50 && rd.reap_timeout(5).rc == 0;) got++;
    writer.join();
    EXPECT_EQ(count, 40);
    free(p.wait_match);
}

// Every failure comes back as a failure with its message, never a crash or a hang past the time-out.
TEST(OrbHostile, BadNamesHostilePeersUnknownDescriptorsAndCutMessagesFail) {
    SetEnv timeout("BNS_TIMEOUT", "300");
    std::string closed_port;
    close(loopback_socket(&closed_port));  // nobody listens there now
    // peer: ' ' none (the name is opened), 'c' closes at once, 's' says nothing, 'g' answers garbage,
    // 'r' refuses the open with a reason.
    struct { const char* what; std::string name; char peer; const char* perm, *message; } cases[] = {
        {"port too large", "127.0.0.1:70000", ' ', "r", "port number is 70000, but must be less than 65535"},
        {"port name unknown", "127.0.0.1:no_such_port_name", ' ', "r",
         "Don't understand orbserver port 'no_such_port_name'"},
        {"nobody listening", closed_port, ' ', "r", "Can't connect to server '"},
        {"peer closing at once", "", 'c', "r", "open negotiation fails: errno = "},
        {"silent peer", "", 's', "r", "open negotiation fails: errno = 0 eof=false"},
        {"garbage instead of a response", "", 'g', "r", "open negotiation fails"},
        {"refusal carries the server's reason", "", 'r', "w", "orbserver: address 127.0.0.1 may not write"},
        {"empty address", "localhost:1,,localhost:2", ' ', "r&",
         "empty address in server list 'localhost:1,,localhost:2'"},
        {"empty last address", "localhost:1,", ' ', "r&", "empty address in server list 'localhost:1,'"},
        {"empty first address", ",localhost:1@", ' ', "r&", "empty address in server list ',localhost:1'"},
        {"file path in a list", "localhost:1,./ring", ' ', "r&",
         "file path './ring' can't be one of the addresses in server list 'localhost:1,./ring'"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::unique_ptr<Peer> peer(c.peer == ' ' ? nullptr : new Peer([kind = c.peer](Peer& s) {
            char b[512];
            std::string junk = std::string(200, '\x5a') + "orbmorbm\xff\xff";
            if (kind == 's')
                for (pollfd p{s.fd, POLLIN, 0}; poll(&p, 1, 2000) == 1 && ::read(s.fd, b, sizeof b) > 0;) {
                }
            if (kind == 'g') ::send(s.fd, junk.data(), junk.size(), MSG_NOSIGNAL), usleep(500000);
            if (kind == 'r') s.answer_open("address 127.0.0.1 may not write"), usleep(200000);
        }));
        std::string name = peer ? peer->name : c.name;
        EXPECT_TRUE(fails_saying([&] { return orbopen(name.c_str(), c.perm); }, c.message));
    }
    int v = 7;
    EXPECT_TRUE(has(stderr_of([&] {
        EXPECT_EQ(orb2orbfile(12345), nullptr);
        EXPECT_EQ(words(orbclose(12345), orbseek(12345, ORBOLDEST), orbtell(12345), orbping(12345, &v),
                        orbput(12345, "a/b", 0, "x", 1)), "-1 -1 -1 -1 -1");
    }), "called with no open orb buffers"));
    EXPECT_EQ(v, -1);
    // After a proper open one peer sends one whole packet and half of the next, then closes: the first
    // is delivered, the read of the second fails, nothing hangs. Another cuts its answer to a seek.
    Peer half([](Peer& s) {
        s.answer_open();
        if (!s.read()) return;
        s.resp->what = ORBREAP, s.resp->sZpkg = 1;
        *(s.resp->pkg = newPktpkg()) = {.time = 0, .packet = static_cast<char*>(calloc(1000, 1)),
            .sZpacket = 1000, .pktid = 7, .packetsize = 1000, .srcnamesize = 10, .srcname = "AA_BB/xfer"};
        s.send();
        s.send(500);
        usleep(100000);
    });
    int orb = orbopen(half.name.c_str(), "r");
    ASSERT_GE(orb, 0);
    Orbfile* of = orb2orbfile(orb);
    EXPECT_EQ(words(of->lastpktid, of->orb_start, of->server_start), "41 1000 2000");
    Reader rd(orb);
    EXPECT_EQ(rd.reap().str(), "0 7 AA_BB/xfer 0 " + std::string(1000, '\0'));
    EXPECT_EQ(rd.reap().str(), "-1 -1  0 ");
    EXPECT_EQ(of->lastpktid, 7);
    orbclose(orb);

    Peer cut([](Peer& s) {
        s.answer_open();
        if (s.read()) ::send(s.fd, "orbm\x00\x00", 6, MSG_NOSIGNAL);
        usleep(600000);
    });
    ASSERT_GE(orb = orbopen(cut.name.c_str(), "r"), 0);
    EXPECT_EQ(orbseek(orb, ORBOLDEST), -2);  // a failed exchange, told apart from an unknown orb
    EXPECT_EQ(words(orb2orbfile(orb)->error, orb2orbfile(orb)->lastpktid), "1 41");
    orbclose(orb);
}

TEST(OrbRestart, ReaderAndWriterGoOnThroughTheOtherFrontEndAndAcrossARestart) {
    SetEnv timeout("BNS_TIMEOUT", "500");
    OrbServer a, b(OrbServer::Options{"", {}, "127.0.0.1", a.ring()});
    ASSERT_TRUE(a.up() && b.up()) << a.log() << b.log();
    std::string both = a.name() + "," + b.name();  // two front ends of one ring
    int w = orbopen(both.c_str(), "w&"), r = orbopen(both.c_str(), "r&");
    ASSERT_TRUE(w >= 0 && r >= 0);
    // Patterns and the stash flag are set again on every new connection.
    orbreject(r, "AA/no");
    orbstashselect(r, 1);
    Reader rd(r);
    std::vector<int> ids = put_run(w, "AA/fo", 1000, 3, "a");
    for (int id : ids) ASSERT_EQ(rd.reap().pktid, id);
    a.kill();
    // orbputx waits for each answer: what reached no live server is sent once, again.
    ids = put_run(w, "AA/fo", 2000, 3, "b");
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(rd.reap().str(), words(0, ids[i], "AA/fo", 2000 + i, "b" + std::to_string(i)));
    EXPECT_EQ(orbclose(orbopen(both.c_str(), "r")), 0);  // passes over the dead first address
    // No server at all for a while, then the first one back.
    int last = orb2orbfile(r)->lastpktid;
    double old_server_start = orb2orbfile(r)->server_start;
    b.kill();
    std::atomic<int> written{0};
    std::thread writer([&] {
        for (int i = 0; i < 10; i++) {
            std::string body = "s" + std::to_string(i);
            written += orbput(w, "AA/re", i, body.data(), static_cast<int>(body.size())) == 0;
            orbput(w, "AA/no", i, "rejected", 8);
        }
    });
    std::vector<Got> after;
    std::thread reader([&] {
        for (int n = 0; n < 40; n++) {
            after.push_back(rd.reap());
            if (after.back().rc != 0 || after.back().body == "s9") break;
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    bool restarted = a.start();
    writer.join();
    reader.join();
    ASSERT_TRUE(restarted) << a.log();
    EXPECT_EQ(written, 10);
    // The reader saw every packet after the last one it had read, in order (the writer may send
    // its last one again after reconnecting), and none rejected.
    std::set<std::string> bodies;
    for (const Got& g : after) {
        ASSERT_EQ(g.rc, 0);
        EXPECT_GT(g.pktid, last) << g.body;
        last = g.pktid;
        bodies.insert(g.body);
    }
    EXPECT_EQ(bodies.count("rejected"), 0u);
    for (int i = 0; i < 10; i++) EXPECT_TRUE(bodies.count("s" + std::to_string(i))) << "s" << i;
    EXPECT_NE(orb2orbfile(r)->server_start, old_server_start);
    EXPECT_EQ(orb2orbfile(r)->fd, r);  // the descriptor kept its number
    for (int orb : {r, w}) EXPECT_EQ(orbclose(orb), 0);
}

TEST(OrbRestart, AQuietReaderIsLeftAloneAndARecreatedRingIsJoinedByTimeByItAndAResurrectedOne) {
    SetEnv timeout("BNS_TIMEOUT", "100");
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    int w = orbopen(server.name().c_str(), "w"), r = orbopen(server.name().c_str(), "r&");
    ASSERT_TRUE(w >= 0 && r >= 0);
    put_run(w, "AA/old", 100, 5, "o");  // times 100..104
    double old_start = orb2orbfile(r)->orb_start;
    ASSERT_GE(orbseek(r, ORBOLDEST), 0);
    Reader rd(r);
    for (int i = 0; i < 5; i++) EXPECT_EQ(rd.reap().body, "o" + std::to_string(i));
    // A quiet reader is left alone for ten time-outs, then reconnects anyway. Verbose notes are on
    // while ./verbose exists: work in the server's directory.
    auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(server.dir());
    fclose(fopen("verbose", "w"));
    // Standard error into a file, to be watched as the reading thread writes to it.
    int saved = (fflush(stderr), dup(2)), fd = ::open("stderr", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2), close(fd);
    Got g;
    std::thread reader([&] { g = rd.reap(); });
    eventually([] { return has(slurp("stderr"), "reconnecting anyway"); });
    put_run(w, "AA/old", 105, 1, "wake");
    reader.join();
    fflush(stderr), dup2(saved, 2), close(saved);
    std::string text = slurp("stderr");
    EXPECT_EQ(words(g.rc, g.body), "0 wake0");
    unlink("verbose");
    std::filesystem::current_path(cwd);
    size_t first_reconnect = text.find("reconnecting anyway");
    ASSERT_NE(first_reconnect, std::string::npos) << text;
    EXPECT_EQ(count(text.substr(0, first_reconnect), "no reopen necessary"), 11u) << text;
    EXPECT_TRUE(has(text, "orbserver looks ok, reconnecting anyway cnt=11"));
    // A reader process restarted with the same state file goes on from the packet it saved.
    std::string state = server.dir() + "/state/reader";
    EXPECT_EQ(reader_life(server.name(), state), "0 100");  // nothing saved: from the oldest
    EXPECT_EQ(reader_life(server.name(), state), "0 102");  // after the saved one (101)
    for (const char* key : {"{last_pktid", "{orb_start"}) EXPECT_TRUE(has(slurp(state), server.name() + key));

    orbclose(w);
    server.kill();
    unlink(server.ring().c_str());
    wait_for_time(old_start, 1.2);  // a new ring must start a second or more later
    // The new ring gets packets whose ids would mislead a seek by id.
    int f = orbopen((server.ring() + "@s8M").c_str(), "w");
    ASSERT_GE(f, 0);
    put_run(f, "AA/new", 90, 6, "early");  // times 90..95, ids 0..5
    put_run(f, "AA/new", 103, 5, "n");     // times 103..107
    orbclose(f);
    ASSERT_TRUE(server.start()) << server.log();
    // The live reader goes on at the first packet later than the last one it read (105).
    EXPECT_EQ(rd.reap().str(), "0 9 AA/new 106 n3");
    EXPECT_EQ(rd.reap().body, "n4");
    EXPECT_GE(orb2orbfile(r)->orb_start - old_start, 1.0);
    orbclose(r);
    // The resurrected one by time too (the right time, another packet): after the saved 103.
    EXPECT_EQ(reader_life(server.name(), state), "-2 104");
}

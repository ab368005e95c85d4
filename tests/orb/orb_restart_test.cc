// Real orbservers killed and restarted under their clients: readers go on where they were,
// writers resend what they kept, a quiet reader is left alone, a name listing two front ends
// moves on to the live one, and a re-created ring is joined by time, by a reader that stayed
// and by one restarted with its state file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "orb/orb_support.h"
#include "stock/bury.h"
#include "stock/epoch.h"
#include "support/child.h"
#include "support/orbserver.h"

using namespace orbtest;
using testsupport::OrbServer;

namespace {

// Standard error into a file while the object lives, so that a test can watch it as other
// threads write to it.
struct StderrToFile {
    std::string path;
    int saved = (fflush(stderr), dup(2));
    explicit StderrToFile(std::string p) : path(std::move(p)) {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2), close(fd);
    }
    ~StderrToFile() { fflush(stderr), dup2(saved, 2), close(saved); }
};

// One life of a reader process: exhume, open, resurrect, read two packets, bury. It tells
// orbresurrect's result and the time of the first packet read after it.
std::string reader_life(const std::string& orbname, const std::string& statefile) {
    child::Result life = child::run([&] {
        int pktid = -1, orb = exhume(statefile.c_str(), nullptr, 0, nullptr) < 0 ? -1 : orbopen(orbname.c_str(), "r&");
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

TEST(OrbRestart, ReaderAndWriterGoOnThroughTheOtherFrontEndAndAcrossARestart) {
    SetEnv timeout("BNS_TIMEOUT", "500");
    OrbServer a, b([&] {
        OrbServer::Options o;
        o.ring = a.ring();
        return o;
    }());
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
    for (int i = 0; i < 3; i++) EXPECT_EQ(rd.reap().str(), words(0, ids[i], "AA/fo", 2000 + i, "b" + std::to_string(i)));
    int third = orbopen(both.c_str(), "r");  // passes over the dead first address
    EXPECT_EQ(orbclose(third), 0);

    // No server at all for a while, then the first one back.
    int last = orb2orbfile(r)->lastpktid;
    double old_server_start = orb2orbfile(r)->server_start;
    b.kill();
    auto put = [&](int i) {
        std::string body = "s" + std::to_string(i);
        return orbput(w, "AA/re", i, body.data(), static_cast<int>(body.size()));
    };
    std::atomic<int> written{0};
    std::thread writer([&] {
        for (int i = 0; i < 10; i++) {
            if (put(i) == 0) written++;
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
    std::string text;
    {
        StderrToFile capture(server.dir() + "/stderr");
        Got g;
        std::thread reader([&] { g = rd.reap(); });
        for (int i = 0; i < 250 && !has(testsupport::slurp(capture.path), "reconnecting anyway"); i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        put_run(w, "AA/old", 105, 1, "wake");
        reader.join();
        text = testsupport::slurp(capture.path);
        EXPECT_EQ(words(g.rc, g.body), "0 wake0");
    }
    unlink("verbose");
    std::filesystem::current_path(cwd);
    size_t first_reconnect = text.find("reconnecting anyway");
    ASSERT_NE(first_reconnect, std::string::npos) << text;
    std::string head = text.substr(0, first_reconnect);
    int ok = 0;
    for (size_t at = 0; (at = head.find("no reopen necessary", at)) != std::string::npos; at++) ok++;
    EXPECT_EQ(ok, 11) << text;
    EXPECT_TRUE(has(text, "orbserver looks ok, reconnecting anyway cnt=11"));

    // A reader process restarted with the same state file goes on from the packet it saved.
    std::string state = server.dir() + "/state/reader";
    EXPECT_EQ(reader_life(server.name(), state), "0 100");  // nothing saved: from the oldest
    EXPECT_EQ(reader_life(server.name(), state), "0 102");  // after the saved one (101)
    text = testsupport::slurp(state);
    EXPECT_TRUE(has(text, server.name() + "{last_pktid"));
    EXPECT_TRUE(has(text, server.name() + "{orb_start"));

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

TEST(OrbRestart, BadServerListsAreRefusedNamingTheName) {
    const char* cases[][2] = {
        {"localhost:1,,localhost:2", "empty address in server list 'localhost:1,,localhost:2'"},
        {"localhost:1,", "empty address in server list 'localhost:1,'"},
        {",localhost:1@", "empty address in server list ',localhost:1'"},
        {"localhost:1,./ring", "file path './ring' can't be one of the addresses in server list 'localhost:1,./ring'"},
    };
    for (auto& c : cases) EXPECT_TRUE(fails_saying([&] { return orbopen(c[0], "r&"); }, c[1])) << c[0];
}

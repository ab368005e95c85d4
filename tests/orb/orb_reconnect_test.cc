// Reconnection against a real orbserver that is killed and restarted under its
// clients: readers go on where they were, writers resend what they kept, a quiet
// reader is left alone, and a re-created ring is joined by time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orb/orb.h"
#include "orb/orb_support.h"
#include "stock/epoch.h"
#include "support/orbserver.h"

using orbtest::Got;
using orbtest::Reader;
using testsupport::OrbServer;

namespace {

struct Env {
    explicit Env(const char* timeout_ms) { setenv("BNS_TIMEOUT", timeout_ms, 1); }
    ~Env() { unsetenv("BNS_TIMEOUT"); }
};

// Standard error into a file for the life of the object, so that a test can watch
// the log while other threads write to it.
class StderrToFile {
  public:
    explicit StderrToFile(const std::string& path) : path_(path) {
        fflush(stderr);
        saved_ = dup(2);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        close(fd);
    }
    ~StderrToFile() {
        fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
    }
    std::string text() const { return testsupport::slurp(path_); }

  private:
    std::string path_;
    int saved_;
};

}  // namespace

TEST(OrbReconnect, ReaderAndWriterGoOnAcrossAServerRestart) {
    Env env("500");
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    int w = orbopen(server.name().c_str(), "w&");
    int r = orbopen(server.name().c_str(), "r&");
    ASSERT_GE(w, 0);
    ASSERT_GE(r, 0);
    auto put = [&](int i) {
        std::string body = "s" + std::to_string(i);
        return orbput(w, "AA/re", i, body.data(), static_cast<int>(body.size()));
    };
    for (int i = 0; i < 10; i++) ASSERT_EQ(put(i), 0);
    // Patterns and the stash flag are set again on the new connection.
    orbreject(r, "AA/no");
    orbstashselect(r, 1);
    Reader rd(r);
    for (int i = 0; i < 10; i++) ASSERT_EQ(rd.reap().body, "s" + std::to_string(i));
    int last = orb2orbfile(r)->lastpktid;
    double old_server_start = orb2orbfile(r)->server_start;

    server.kill();
    std::atomic<int> written{0};
    std::thread writer([&] {
        for (int i = 10; i < 20; i++) {
            if (put(i) == 0) written++;
            orbput(w, "AA/no", i, "rejected", 8);
        }
    });
    std::vector<Got> after;
    std::thread reader([&] {
        for (int n = 0; n < 40; n++) {
            after.push_back(rd.reap());
            if (after.back().rc != 0 || after.back().body == "s19") break;
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ASSERT_TRUE(server.start()) << server.log();
    writer.join();
    reader.join();

    EXPECT_EQ(written, 10);
    // The reader saw every packet after the last one it had read, in order (the
    // writer may send its last one again after reconnecting), and none rejected.
    std::set<std::string> bodies;
    for (const Got& g : after) {
        ASSERT_EQ(g.rc, 0);
        EXPECT_GT(g.pktid, last) << g.body;
        last = g.pktid;
        bodies.insert(g.body);
    }
    EXPECT_EQ(bodies.count("rejected"), 0u);
    for (int i = 10; i < 20; i++) EXPECT_TRUE(bodies.count("s" + std::to_string(i))) << "s" << i;
    EXPECT_NE(orb2orbfile(r)->server_start, old_server_start);
    EXPECT_EQ(orb2orbfile(r)->fd, r);  // the descriptor kept its number
    orbclose(r);
    orbclose(w);
}

TEST(OrbReconnect, QuietReaderIsLeftAloneForTenTimeouts) {
    Env env("100");
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    // Verbose notes are on while ./verbose exists: work in the server's directory.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(server.dir().c_str()), 0);
    fclose(fopen("verbose", "w"));
    int w0 = orbopen(server.name().c_str(), "w");
    orbput(w0, "AA/quiet", 0, "old", 3);  // an empty ring would never look stale
    orbclose(w0);
    int r = orbopen(server.name().c_str(), "r&");
    ASSERT_GE(r, 0);
    std::string text;
    {
        StderrToFile capture(server.dir() + "/stderr");
        Got g;
        std::thread reader([&] { g = Reader(r).reap(); });
        for (int i = 0; i < 250 && capture.text().find("reconnecting anyway") == std::string::npos; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        int w = orbopen(server.name().c_str(), "w");
        orbput(w, "AA/quiet", 1, "wake", 4);
        reader.join();
        orbclose(w);
        text = capture.text();
        EXPECT_EQ(g.rc, 0);
        EXPECT_EQ(g.body, "wake");
    }
    unlink("verbose");
    ASSERT_EQ(chdir(cwd), 0);
    size_t first_reconnect = text.find("reconnecting anyway");
    ASSERT_NE(first_reconnect, std::string::npos) << text;
    std::string head = text.substr(0, first_reconnect);
    int ok = 0;
    for (size_t at = 0; (at = head.find("no reopen necessary", at)) != std::string::npos; at++) ok++;
    EXPECT_EQ(ok, 11) << text;
    EXPECT_NE(text.find("orbserver looks ok, reconnecting anyway cnt=11"), std::string::npos) << text;
    orbclose(r);
}

TEST(OrbReconnect, RecreatedRingIsJoinedByTime) {
    Env env("500");
    OrbServer server;
    ASSERT_TRUE(server.up()) << server.log();
    int w = orbopen(server.name().c_str(), "w");
    ASSERT_GE(w, 0);
    orbtest::put_run(w, "AA/old", 100, 5, "o");  // times 100..104
    orbclose(w);
    int r = orbopen(server.name().c_str(), "r&");
    ASSERT_GE(r, 0);
    double old_start = orb2orbfile(r)->orb_start;
    ASSERT_GE(orbseek(r, ORBOLDEST), 0);
    Reader rd(r);
    for (int i = 0; i < 5; i++) EXPECT_EQ(rd.reap().body, "o" + std::to_string(i));

    server.kill();
    unlink(server.ring().c_str());
    wait_for_time(old_start, 1.2);  // a new ring must start a second or more later
    // The new ring gets packets whose ids would mislead a seek by id.
    int f = orbopen((server.ring() + "@s8M").c_str(), "w");
    ASSERT_GE(f, 0);
    orbtest::put_run(f, "AA/new", 90, 6, "early");  // times 90..95, ids 0..5
    orbtest::put_run(f, "AA/new", 104, 3, "n");     // times 104..106
    orbclose(f);
    ASSERT_TRUE(server.start()) << server.log();

    Got g = rd.reap();
    EXPECT_EQ(g.rc, 0);
    EXPECT_EQ(g.body, "n1");  // the first packet later than the last one read
    EXPECT_EQ(g.time, 105);
    EXPECT_EQ(rd.reap().body, "n2");
    EXPECT_GE(orb2orbfile(r)->orb_start - old_start, 1.0);
    orbclose(r);
}

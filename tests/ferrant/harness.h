// Test harness for running the real ferrant2 programs: child processes with captured output, files with
// chosen ages and modes, parameter files with every key written out, and checks of what arrived.
#pragma once

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "pkt/pkt.h"
#include "support/check.h"
#include "support/child.h"
#include "support/tempdir.h"

namespace ferrant_test {

using namespace testsupport;

inline std::string ferrant2() { return FERRANT_BUILD_DIR "/bin/ferrant2"; }

inline void spit(const std::string& path, const std::string& data, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
    chmod(path.c_str(), mode);
}
inline mode_t mode_of(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}
inline bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Deterministic content that differs from file to file and byte to byte.
inline std::string pattern(size_t n, unsigned seed) {
    std::string s(n, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; i++) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        s[i] = char(x);
    }
    return s;
}

// A file an hour old, so that the sender takes it at once; its directories made.
inline std::string make_old(const std::string& path, const std::string& data, mode_t mode = 0644) {
    std::filesystem::create_directories(path.substr(0, path.rfind('/')));
    spit(path, data, mode);
    auto hour_ago = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    std::filesystem::last_write_time(path, hour_ago);
    return path;
}

// A received file matches its source byte for byte and by mode.
inline void expect_same(const std::string& from, const std::string& to) {
    ASSERT_TRUE(exists(to)) << to;
    EXPECT_EQ(slurp(from), slurp(to)) << to;
    EXPECT_EQ(mode_of(from), mode_of(to)) << to;
}

#define EXPECT_SAID(log, text) EXPECT_NE((log).find(text), std::string::npos) << (text) << "\n---\n" << (log)

// A parameter file with every key; overrides replace the defaults below.
inline std::string write_pf(const std::string& path,
                            const std::map<std::string, std::string>& overrides = {}) {
    std::map<std::string, std::string> keys = {
        {"directory", ""}, {"starting_position", "oldest"}, {"match", ""}, {"reject", ""},
        {"preserve_directories", "yes"}, {"bytes_per_packet", "1000"}, {"file_match", ""},
        {"file_reject", ""}, {"test_freq", "0.1"}, {"lag_trigger", "0.5"}, {"lag_reset", "0.2"},
        {"wait_seconds", "1"}, {"wait_match", ""}, {"wait_reject", ""}, {"use_orbputx", "no"}};
    for (auto& [k, v] : overrides) keys[k] = v;
    std::string text;
    for (auto& [k, v] : keys) text += k + (v.empty() ? "" : " " + v) + "\n";
    spit(path, text);
    return path;
}

// An xfer packet as the sender packs it: its source name, time and body.
struct Stuffed {
    char srcname[PKT_SRCNAMESIZE];
    double time = 0;
    std::vector<char> body;
    int unstuff(Packet** got, int n = -1, bool in_place = false) {
        auto unstuff = in_place ? unstuffPktInPlace : unstuffPkt;
        return unstuff(srcname, 99, body.data(), n < 0 ? int(body.size()) : n, got);
    }
};

// Packs an xfer record around the caller's key (null: none) and data.
inline Stuffed pack(const char* net, const char* subcode, int seq, int mode, const char* key,
                    const std::string& data) {
    Packet* pkt = newPkt();
    snprintf(pkt->parts.src_net, PKT_NAMESIZE, "%s", net);
    snprintf(pkt->parts.src_subcode, PKT_NAMESIZE, "%s", subcode);
    pkt->pkttype = suffix2pkttype("xfer");
    pkt->time = 1234.5, pkt->string_size = seq, pkt->nchannels = mode;
    pkt->string = const_cast<char*>(key);
    pkt->dfile = data.empty() ? nullptr : const_cast<char*>(data.data());
    pkt->dfile_size = int(data.size());
    Stuffed s;
    char* buf = nullptr;
    int nbytes = 0, bufsize = 0;
    EXPECT_EQ(stuffPkt(pkt, s.srcname, &s.time, &buf, &nbytes, &bufsize), 0);
    EXPECT_GE(bufsize, nbytes);
    s.body.assign(buf, buf + nbytes);
    free(buf);
    pkt->string = pkt->dfile = nullptr;
    freePkt(pkt);
    return s;
}

// One child process, in its own process group, with stdout and stderr in
// files; killed (the whole group) when it goes out of scope.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::string& logdir, const std::string& cwd = "",
          const std::string& input = "", const std::map<std::string, std::string>& env = {}) {
        static int serial = 0;
        std::string tag = std::to_string(getpid()) + "." + std::to_string(serial++);
        out_ = logdir + "/stdout." + tag, err_ = logdir + "/stderr." + tag;
        child::Io io{logdir + "/stdin." + tag, out_, err_, cwd,
                     {{"QUORVANE", FERRANT_BUILD_DIR}, {"ELOG_MAXMSG", "0"}}, true};
        io.env.insert(io.env.end(), env.begin(), env.end());
        spit(io.in, input);
        group_ = pid_ = child::spawn(argv, io);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { stop(SIGKILL); }

    // Exit status (or 128 + signal); -1 when it is still running at the bound.
    int wait(double seconds = 25) {
        if (pid_ > 0) settle(child::reap(pid_, seconds));
        return pid_ > 0 ? -1 : status_;
    }
    void stop(int sig = SIGTERM) { if (pid_ > 0) settle(child::end(pid_, sig, true)); }
    bool running() const { return pid_ > 0; }
    std::string err() const { return slurp(err_); }
    std::string out() const { return slurp(out_); }

private:
    // Once it has ended, helpers it started (forbserver) go with it.
    void settle(int st) {
        if (st == -1) return;
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        pid_ = 0;
        kill(-group_, SIGKILL);
    }
    pid_t pid_ = -1, group_ = -1;
    int status_ = -1;
    std::string out_, err_;
};

// Files a receiver has completed, by its log; and waiting for n of them.
inline size_t received(const Child& r) { return count(r.err(), "ferrant2: received "); }
inline bool received(const Child& r, size_t n) { return eventually([&] { return received(r) >= n; }); }

// Waits until a receiver has taken its starting position in the ring.
inline bool started(const Child& r) {
    return eventually([&] { return r.err().find("Starting at pktid=") != std::string::npos; });
}

}  // namespace ferrant_test

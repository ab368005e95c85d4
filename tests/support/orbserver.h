// Test helper: a real orbserver (FERRANT_BUILD_DIR "/bin/orbserver") on an
// ephemeral loopback port, with its ring file, parameter file and log in a
// fresh temporary directory.
//
//   testsupport::OrbServer server;                 // started; ASSERT_TRUE(server.up())
//   orbopen(server.name().c_str(), "r");           // "127.0.0.1:PORT"
//   server.kill(); server.start();                 // same ring file, same port
//
// Options: extra parameter-file lines (e.g. "maxpkts 100\nwrite_allow 10.0.0.0/8\n"),
// extra command-line arguments (e.g. {"-s", "1M"}), the address to bind and
// the ring path. The ring defaults to <dir>/ring with 8 MiB of data.
// The server's standard error goes to <dir>/orbserver.log (log()).
// sanitizer_report() gives what a sanitizer said in that log, if anything.
// The destructor stops the server (SIGKILL if SIGTERM is not enough); the
// directory goes with it. One object, one server.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/tempdir.h"

#ifndef FERRANT_BUILD_DIR
#error "FERRANT_BUILD_DIR must name the build directory"
#endif

namespace testsupport {

using ::slurp;

class OrbServer {
public:
    struct Options {
        std::string pf;                 // parameter-file text for the server
        std::vector<std::string> args;  // extra options before the ring path
        std::string bind = "127.0.0.1";
        std::string ring;               // default: <dir>/ring
        bool start = true;              // start in the constructor
    };

    OrbServer() : OrbServer(Options{}) {}
    explicit OrbServer(Options o) : opt_(std::move(o)) {
        dir_ = tmp_.path;
        ring_ = opt_.ring.empty() ? dir_ + "/ring" : opt_.ring;
        std::ofstream(dir_ + "/orbserver.pf") << opt_.pf;
        if (opt_.start) start();
    }
    ~OrbServer() { stop(); }
    OrbServer(const OrbServer&) = delete;
    OrbServer& operator=(const OrbServer&) = delete;

    // Starts the server (again: same ring, same port once one was chosen).
    // False when it did not come up; log() tells why.
    bool start() {
        if (pid_ > 0) return true;
        std::string portfile = dir_ + "/port";
        unlink(portfile.c_str());
        std::vector<std::string> args = {std::string(FERRANT_BUILD_DIR) + "/bin/orbserver",
                                         "-p", dir_ + "/orbserver.pf",
                                         "-P", opt_.bind + ":" + std::to_string(port_ > 0 ? port_ : 0),
                                         "-o", portfile, "-s", "8M"};
        args.insert(args.end(), opt_.args.begin(), opt_.args.end());
        args.push_back(ring_);
        pid_ = spawn(args, dir_ + "/orbserver.log");
        if (pid_ < 0) return false;
        // Ready once the port file appears; give up if the server exits.
        auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < give_up) {
            std::string text = slurp(portfile);
            if (!text.empty() && text.back() == '\n') {
                name_ = text.substr(0, text.size() - 1);
                port_ = std::atoi(name_.substr(name_.rfind(':') + 1).c_str());
                return true;
            }
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                status_ = status;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        kill();
        return false;
    }
    // SIGTERM, then SIGKILL when it lingers; returns the wait status.
    int stop() { return end(SIGTERM); }
    int kill() { return end(SIGKILL); }
    bool restart() {
        stop();
        return start();
    }
    bool up() const { return pid_ > 0; }
    // True while the process exists (reaps it when it has exited).
    bool running() {
        if (pid_ <= 0) return false;
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            status_ = status;
            return false;
        }
        return true;
    }
    // Waits (without a time limit) for the server to exit by itself.
    int wait_exit() {
        if (pid_ > 0) {
            waitpid(pid_, &status_, 0);
            pid_ = -1;
        }
        return status_;
    }

    const std::string& name() const { return name_; }  // "127.0.0.1:PORT"
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    const std::string& dir() const { return dir_; }
    const std::string& ring() const { return ring_; }
    std::string pf_path() const { return dir_ + "/orbserver.pf"; }
    std::string log() const { return slurp(dir_ + "/orbserver.log"); }
    // Lines of the log that a sanitizer wrote ("" when there are none).
    std::string sanitizer_report() const {
        std::string all = log(), found;
        std::istringstream in(all);
        for (std::string line; std::getline(in, line);)
            if (line.find("Sanitizer") != std::string::npos || line.find("runtime error:") != std::string::npos)
                found += line + "\n";
        return found;
    }

    // Starts a program with stdin from /dev/null and stderr (and stdout) to
    // logfile; -1 when it cannot be started.
    static pid_t spawn(const std::vector<std::string>& args, const std::string& logfile) {
        std::vector<char*> argv;
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int null = open("/dev/null", O_RDONLY);
            int log = open(logfile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (null >= 0) dup2(null, 0);
            if (log >= 0) {
                dup2(log, 1);
                dup2(log, 2);
            }
            execv(argv[0], argv.data());
            _exit(127);
        }
        return pid;
    }

private:
    int end(int sig) {
        if (pid_ <= 0) return status_;
        ::kill(pid_, sig);
        auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (;;) {
            int status = 0;
            pid_t r = waitpid(pid_, &status, WNOHANG);
            if (r == pid_ || (r < 0 && errno == ECHILD)) {
                status_ = status;
                break;
            }
            if (std::chrono::steady_clock::now() > give_up) {
                ::kill(pid_, SIGKILL);
                waitpid(pid_, &status_, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        pid_ = -1;
        return status_;
    }

    Options opt_;
    TempDir tmp_{"orbserver-test"};
    std::string dir_, ring_, name_;
    int port_ = 0;
    pid_t pid_ = -1;
    int status_ = 0;
};

}  // namespace testsupport

// Test helper: a real orbserver on an ephemeral loopback port ("127.0.0.1:PORT", name()), with its ring file
// (8 MiB of data unless the options say otherwise), parameter file and log (log()) in a fresh temporary
// directory. Started again, it has the same ring file and port. Stopped when it goes.
#pragma once

#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/check.h"
#include "support/child.h"
#include "support/tempdir.h"

namespace testsupport {

class OrbServer {
public:
    struct Options {
        std::string pf;                 // parameter-file text for the server
        std::vector<std::string> args;  // extra options before the ring path
        std::string bind = "127.0.0.1";
        std::string ring = "";          // default: <dir>/ring
        bool start = true;              // start in the constructor
    };

    OrbServer() : OrbServer(Options{}) {}
    explicit OrbServer(Options o) : opt_(std::move(o)), dir_(tmp_.path) {
        ring_ = opt_.ring.empty() ? dir_ + "/ring" : opt_.ring;
        std::ofstream(pf_path()) << opt_.pf;
        if (opt_.start) start();
    }
    ~OrbServer() { stop(); }
    OrbServer(const OrbServer&) = delete;
    OrbServer& operator=(const OrbServer&) = delete;

    // Starts the server (again: same ring, same port once one was chosen). False when it did not come up;
    // log() tells why.
    bool start() {
        if (pid_ > 0) return true;
        std::string portfile = dir_ + "/port";
        unlink(portfile.c_str());
        std::vector<std::string> args = {FERRANT_BUILD_DIR "/bin/orbserver", "-p", pf_path(), "-P",
                                         opt_.bind + ":" + std::to_string(port_), "-o", portfile, "-s", "8M"};
        args.insert(args.end(), opt_.args.begin(), opt_.args.end());
        args.push_back(ring_);
        std::string log = dir_ + "/orbserver.log";
        if ((pid_ = child::spawn(args, {.out = log, .err = log})) < 0) return false;
        // Ready once the port file is written; given up on if the server exits first.
        std::string text;
        auto written = [&] { return !(text = slurp(portfile)).empty() && text.back() == '\n'; };
        if (!eventually([&] { return written() || !running(); }) || !written()) return kill(), false;
        name_ = text.substr(0, text.size() - 1);
        port_ = std::atoi(name_.substr(name_.rfind(':') + 1).c_str());
        return true;
    }
    int stop() { return end(SIGTERM); }  // then SIGKILL when it lingers; the wait status
    int kill() { return end(SIGKILL); }
    bool restart() { return stop(), start(); }
    bool up() const { return pid_ > 0; }
    // True while the process exists (reaps it when it has exited).
    bool running() {
        int status = pid_ > 0 ? child::reap(pid_, 0.005) : -1;
        if (status != -1) status_ = status, pid_ = -1;
        return pid_ > 0;
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
        std::istringstream in(log());
        std::string found;
        for (std::string line; std::getline(in, line);)
            if (line.find("Sanitizer") != line.npos || line.find("runtime error:") != line.npos)
                found += line + "\n";
        return found;
    }

private:
    int end(int sig) {
        if (pid_ > 0) status_ = child::end(pid_, sig), pid_ = -1;
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

// Child processes for tests: a piece of a test run in a forked child with its output captured, so that exits,
// aborts and process-wide state (the log's settings are read once per process) stay out of the test program;
// and programs started with their output in files, waited for with a bound.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace child {

struct Result {
    int status = -1;
    std::string out, err;
    bool exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    bool signaled(int sig) const { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }
};

// Environment changes applied in the child: a value sets, nullopt unsets.
using Env = std::vector<std::pair<std::string, std::optional<std::string>>>;

inline void apply(const Env& env) {
    for (const auto& [name, value] : env)
        value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
}

// The child runs body and exits 0 when it returns. It is killed by SIGALRM after limit seconds, so a hang
// fails the test instead of stalling it.
inline Result run(const std::function<void()>& body, const Env& env = {}, unsigned limit = 20) {
    FILE *out = tmpfile(), *err = tmpfile();
    fflush(stdout), fflush(stderr);
    pid_t pid = out && err ? fork() : -1;
    if (pid == 0) {
        dup2(fileno(out), 1), dup2(fileno(err), 2);
        struct rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        apply(env);
        alarm(limit);
        body();
        fflush(stdout), fflush(stderr);
        _exit(0);
    }
    Result r;
    while (pid > 0 && waitpid(pid, &r.status, 0) < 0 && errno == EINTR) continue;
    for (auto [f, sink] : {std::pair{out, &r.out}, {err, &r.err}}) {
        if (!f) continue;
        rewind(f);
        char buf[65536];
        for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) sink->append(buf, n);
        fclose(f);
    }
    return r;
}

// A forked child that exits with what body returns; its pid, -1 when fork fails.
template <class F>
pid_t start(F body) {
    fflush(stdout), fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

// How spawn starts a program: standard input from the file in, output and errors appended to the files out
// and err (which may be the same).
struct Io {
    std::string in = "/dev/null", out = "/dev/null", err = "/dev/null", cwd = "";
    Env env = {};
    bool group = false;            // its own process group, so that what it starts goes with it
    bool die_with_parent = false;  // nothing outlives a crashed test
    int fd = -1;                   // when set, standard input and output instead of in and out
};

// The pid of argv[0] started with io (exit 127 when it cannot be run); -1 when fork fails.
inline pid_t spawn(const std::vector<std::string>& argv, const Io& io) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (io.group) setpgid(0, 0);
        if (io.die_with_parent) prctl(PR_SET_PDEATHSIG, SIGKILL);
        int out = io.fd >= 0 ? io.fd : open(io.out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(io.fd >= 0 ? io.fd : open(io.in.c_str(), O_RDONLY), 0), dup2(out, 1);
        dup2(io.err == io.out ? out : open(io.err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 2);
        if (!io.cwd.empty() && chdir(io.cwd.c_str()) != 0) _exit(127);
        apply(io.env);
        execv(args[0], args.data());
        _exit(127);
    }
    if (pid > 0 && io.group) setpgid(pid, pid);
    return pid;
}

// The wait status of pid once it has ended, waiting at most seconds; -1 while it still runs.
inline int reap(pid_t pid, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (int status;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno == ECHILD) return 0;
        if (std::chrono::steady_clock::now() > end) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// Sends sig (to the process group of pid too when group), then SIGKILL when the process lingers for 10 s; its
// wait status.
inline int end(pid_t pid, int sig, bool group = false) {
    if (group) kill(-pid, sig);
    kill(pid, sig);
    int status = reap(pid, 10);
    if (status != -1) return status;
    kill(group ? -pid : pid, SIGKILL);
    return reap(pid, 1e9);
}

}  // namespace child

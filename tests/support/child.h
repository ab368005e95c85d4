// Child processes for tests: a piece of a test run in a forked child with its output captured, so that exits,
// aborts and process-wide state (the log's settings are read once per process) stay out of the test program;
// and programs started with their output in files, waited for with a bound.
#pragma once

#include <fcntl.h>
#include <poll.h>
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
    int out[2], err[2];
    if (pipe(out) != 0 || pipe(err) != 0) return {};
    fflush(stdout), fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return {};
    if (pid == 0) {
        dup2(out[1], 1), dup2(err[1], 2);
        for (int fd : {out[0], out[1], err[0], err[1]}) close(fd);
        struct rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        apply(env);
        alarm(limit);
        body();
        fflush(stdout), fflush(stderr);
        _exit(0);
    }
    close(out[1]), close(err[1]);
    Result r;
    struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&r.out, &r.err};
    char buf[65536];
    for (int open = 2; open > 0;) {
        if (poll(fds, 2, -1) < 0) continue;
        for (int i = 0; i < 2; i++) {
            ssize_t n = fds[i].fd < 0 || !fds[i].revents ? -2 : read(fds[i].fd, buf, sizeof buf);
            if (n > 0) sinks[i]->append(buf, size_t(n));
            if (n == 0 || (n == -1 && errno != EINTR)) close(fds[i].fd), fds[i].fd = -1, open--;
        }
    }
    while (waitpid(pid, &r.status, 0) < 0 && errno == EINTR) continue;
    return r;
}

// How spawn starts a program: standard input from the file in, output and errors appended to the files out
// and err (which may be the same).
struct Io {
    std::string in = "/dev/null", out = "/dev/null", err = "/dev/null", cwd;
    Env env;
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

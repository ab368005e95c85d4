// Runs a piece of a test in a forked child with its standard output and
// error captured, so that exits, aborts and process-wide state (the log's
// settings are read once per process) stay out of the test program.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
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

// The child runs body and exits 0 when it returns. It is killed by SIGALRM
// after limit seconds, so a hang fails the test instead of stalling it.
inline Result run(const std::function<void()>& body, const Env& env = {}, unsigned limit = 20) {
    int out[2], err[2];
    if (pipe(out) != 0 || pipe(err) != 0) return {};
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return {};
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        close(out[0]);
        close(out[1]);
        close(err[0]);
        close(err[1]);
        struct rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        for (const auto& [name, value] : env) {
            if (value)
                setenv(name.c_str(), value->c_str(), 1);
            else
                unsetenv(name.c_str());
        }
        alarm(limit);
        body();
        fflush(stdout);
        fflush(stderr);
        _exit(0);
    }
    close(out[1]);
    close(err[1]);
    Result r;
    struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&r.out, &r.err};
    int open = 2;
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) continue;
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || !fds[i].revents) continue;
            char buf[65536];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, size_t(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                open--;
            }
        }
    }
    while (waitpid(pid, &r.status, 0) < 0 && errno == EINTR) {
    }
    return r;
}

}  // namespace child

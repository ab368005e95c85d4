// What a spawned file server writes to its standard error, passed on through
// this process's log: a server that cannot open its ring says why before it
// exits, and the user must see that reason wherever this program's log goes,
// not only on a terminal they may not be watching.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "orb/orbpriv.h"
#include "stock/elog.h"

namespace {

std::mutex Relay_mutex;
std::condition_variable Relay_done;
std::set<pid_t>* Relaying;  // children whose output is still being read; never freed

void relay(pid_t child, int fd) {
    std::string pending;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        pending.append(buf, size_t(n));
        for (size_t nl; (nl = pending.find('\n')) != std::string::npos; pending.erase(0, nl + 1))
            elog_complain(0, "%s\n", pending.substr(0, nl).c_str());
    }
    if (!pending.empty()) elog_complain(0, "%s\n", pending.c_str());
    close(fd);
    {
        std::lock_guard<std::mutex> lock(Relay_mutex);
        Relaying->erase(child);
    }
    Relay_done.notify_all();
}

}  // namespace

void orb_relay_start(pid_t child, int fd) {
    {
        std::lock_guard<std::mutex> lock(Relay_mutex);
        if (!Relaying) Relaying = new std::set<pid_t>;
        Relaying->insert(child);
    }
    std::thread(relay, child, fd).detach();
}

void orb_relay_finish(pid_t child) {
    std::unique_lock<std::mutex> lock(Relay_mutex);
    if (!Relaying) return;
    Relay_done.wait_for(lock, std::chrono::seconds(5), [&] { return Relaying->count(child) == 0; });
}

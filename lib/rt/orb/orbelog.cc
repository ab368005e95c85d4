// The log's ring-buffer delivery: each text becomes one packet in the named ring.
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "orb/orbpriv.h"
#include "stock/epoch.h"

namespace {
std::mutex Elog_orbs_mutex;
std::map<std::string, int> Elog_orbs;  // ring name -> open descriptor
thread_local bool Delivering;          // opening a ring may itself log: don't recurse
}  // namespace

extern "C" int orbelog(const char* orbname, const char* program, const char* text) {
    if (!orbname || !text || Delivering) return -1;
    Delivering = true;
    std::lock_guard<std::mutex> lock(Elog_orbs_mutex);
    int r = -1;
    auto it = Elog_orbs.find(orbname);
    int orb = it != Elog_orbs.end() ? it->second : orbopen(orbname, "w");
    if (orb >= 0) {
        Elog_orbs[orbname] = orb;
        std::string src = std::string(program && *program ? program : "elog") + "/log";
        r = orbput(orb, src.c_str(), std_now(), text, static_cast<int>(strlen(text)));
        if (r < 0) {
            orbclose(orb);  // a fresh connection is tried with the next message
            Elog_orbs.erase(orbname);
        }
    }
    Delivering = false;
    return r;
}

// How far the chosen readers of a ring lag behind its newest packet.
#include <regex.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orb/orbpriv.h"
#include "stock/elog.h"
#include "stock/tbl.h"

namespace {

struct Pattern {
    regex_t re{};
    bool made = false;
    ~Pattern() {
        if (made) regfree(&re);
    }
    bool compile(const char* p) {
        int e = regcomp(&re, p, REG_EXTENDED);
        if (e != 0) {
            char msg[256];
            regerror(e, &re, msg, sizeof msg);
            elog_complain(0, "couldn't compile pattern '%s' : %s\n", p, msg);
            return false;
        }
        made = true;
        return true;
    }
    bool whole(const std::string& s) const {
        regmatch_t m;
        return regexec(&re, s.c_str(), 1, &m, 0) == 0 && m.rm_so == 0 &&
               m.rm_eo == static_cast<regoff_t>(s.size());
    }
};

// The program a client runs: the first word of its command line, less any directory.
std::string program_name(const char* what) {
    std::string w = what;
    w = w.substr(0, w.find(' '));
    if (auto s = w.rfind('/'); s != std::string::npos) w = w.substr(s + 1);
    return w;
}

int cmp_lag(const void* a, const void* b) {
    double x = static_cast<const ClientLag*>(a)->lag, y = static_cast<const ClientLag*>(b)->lag;
    return x < y ? -1 : x > y ? 1 : 0;
}

}  // namespace

double lagvalue(int pktid, int oldest, int newest, int maxpkt) {
    double lag, range;
    if (newest > oldest) {
        range = newest - oldest + 1;
        lag = (pktid >= oldest && pktid <= newest) ? newest - pktid : range;
    } else {
        range = static_cast<double>(maxpkt) - oldest + newest + 1;
        if (pktid < oldest && pktid > newest)
            lag = range;
        else if (pktid > newest)
            lag = static_cast<double>(maxpkt) + newest - pktid;
        else
            lag = newest - pktid;
    }
    return range > 0 ? lag / range : 0;
}

double orblag(int orb, const char* match, const char* reject, Laggards** laggards) {
    double result = -1;
    if (laggards && !*laggards) {
        *laggards = new Laggards;
        (*laggards)->list = newtbl();
    }
    Pattern mp, rp;
    if (match && !mp.compile(match)) return -3;
    if (reject && !rp.compile(reject)) return -3;

    int oldest = orbseek(orb, ORBOLDEST);
    int newest = orbseek(orb, ORBNEWEST);
    double when;
    Orbclient* cl = nullptr;
    int n = 0;
    if (orbclients(orb, &when, &cl, &n) != 0) return -2;
    std::vector<Orbclient> clients(cl, cl + n);  // the next exchange reuses the response
    Orbstat* st = nullptr;
    if (orbstat(orb, &st) != 0 || !st) return -2;
    int maxpkts = st->maxpkts;
    unsigned maxdata = st->maxdata;
    newest = orbseek(orb, ORBNEWEST);

    int range;
    if (newest < 0) {
        range = static_cast<int>(maxdata / 32767);
        if (range > 100) range = 100;
    } else {
        range = (newest > oldest ? newest - oldest : maxpkts - oldest + newest) + 1;
    }
    if (laggards) {
        Laggards* l = *laggards;
        l->oldest = oldest;
        l->newest = newest;
        l->maxpktid = maxpkts;
        l->range = range;
        clrtbl(l->list, free);
    }
    for (const Orbclient& c : clients) {
        if (c.perm != 'r') continue;
        std::string prog = program_name(c.what);
        if (match && !mp.whole(prog)) continue;
        if (reject && rp.whole(prog)) continue;
        double lag = lagvalue(c.pktid, oldest, newest, maxpkts);
        if (laggards) {
            auto* e = static_cast<ClientLag*>(calloc(1, sizeof(ClientLag)));
            if (!e)
                elog_die(1, "Out of memory at line %d in '%s'\n\tCan't malloc %u bytes for laggard\n", __LINE__,
                         "orblag", static_cast<unsigned>(sizeof(ClientLag)));
            e->lag = lag;
            e->thread = c.thread;
            e->pktid = c.pktid;
            std::string who = std::string(c.who) + "@" + c.host;
            who.copy(e->who, sizeof e->who - 1);  // calloc left the terminating NULs
            std::string(c.what).copy(e->what, sizeof e->what - 1);
            pushtbl((*laggards)->list, e);
        }
        if (lag > result) result = lag;
    }
    if (laggards) sorttbl((*laggards)->list, cmp_lag);
    return result;
}

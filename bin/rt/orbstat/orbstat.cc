// orbstat: a ring-buffer server's status, its sources and its clients at a glance.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orb/orb.h"
#include "status/status.h"
#include "stock/elog.h"
#include "stock/epoch.h"

namespace {

void usage() {
    fprintf(stderr, "Usage: orbstat [-s] [-c] [-j] orb\n");
    exit(1);
}

std::string when(double t) {
    if (t < 0) return "-";
    char* s = strtime(t);
    std::string r = s ? s : "-";
    free(s);
    return r;
}

std::string duration(double d) {
    char* s = strtdelta(d);
    std::string r = s ? s : "-";
    free(s);
    return r;
}

std::string address(const unsigned char* a) {
    char buf[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, a, buf, sizeof buf) ? buf : "?";
}

void print_status(const char* name, const Orbstat* st, int range) {
    printf("%s\n", name);
    printf("  server      %s pid %d on %s port %d (%s)\n", st->version, st->pid, st->host, st->port,
           address(st->address).c_str());
    printf("  run by      %s\n", st->who);
    printf("  started     %s  (up %s)\n", when(st->started).c_str(), duration(st->when - st->started).c_str());
    printf("  ring made   %s\n", when(st->orb_start).c_str());
    printf("  status at   %s\n", when(st->when).c_str());
    printf("  capacity    %u bytes, packet ids 0..%d\n", st->maxdata, st->maxpkts - 1);
    printf("  holding     %d packets from %d sources\n", range, st->nsources);
    printf("  clients     %d now, %d opens, %d closes, %d connections\n", st->nclients, st->opens, st->closes,
           st->connections);
    printf("  requests    %d messages, %d errors, %d rejected\n", st->messages, st->errors, st->rejected);
}

void print_sources(const status::Snapshot& snap) {
    printf("\n%-32s %8s %12s  %-23s  %-23s\n", "source", "packets", "bytes", "oldest", "latest");
    for (const Orbsrc& s : snap.sources)
        printf("%-32s %8d %12d  %-23s  %-23s\n", s.srcname, s.npkts, s.nbytes, when(s.soldest_time).c_str(),
               when(s.slatest_time).c_str());
}

void print_clients(const status::Snapshot& snap) {
    printf("\n%6s %-4s %-16s %-16s %-28s %8s %6s  %s\n", "thread", "perm", "who", "host", "address", "pktid", "lag",
           "what");
    for (const Orbclient& c : snap.clients) {
        std::string lag = "-";
        if (c.perm == 'r' && snap.newest >= 0) {
            char b[16];
            snprintf(b, sizeof b, "%.2f", lagvalue(c.pktid, snap.oldest, snap.newest, snap.stat.maxpkts));
            lag = b;
        }
        std::string addr = address(c.address) + ":" + std::to_string(c.port);
        printf("%6d %-4c %-16s %-16s %-28s %8d %6s  %s\n", c.thread, c.perm ? c.perm : '-', c.who, c.host,
               addr.c_str(), c.pktid, lag.c_str(), c.what);
    }
}

// Everything in one pass, copied out: each exchange reuses the response.
status::Snapshot collect(int orb, const char* name, bool sources, bool clients) {
    status::Snapshot snap;
    snap.name = name;
    snap.oldest = orbseek(orb, ORBOLDEST);
    snap.newest = orbseek(orb, ORBNEWEST);
    Orbstat* st = nullptr;
    if (orbstat(orb, &st) != 0 || !st) elog_die(0, "orbstat fails on '%s'\n", name);
    snap.stat = *st;
    double at;
    Orbsrc* src = nullptr;
    Orbclient* cl = nullptr;
    int n = 0;
    if (sources) {
        if (orbsources(orb, &at, &src, &n) == 0) snap.sources.assign(src, src + n);
        else elog_complain(0, "orbsources fails\n");
    }
    if (clients) {
        if (orbclients(orb, &at, &cl, &n) == 0) snap.clients.assign(cl, cl + n);
        else elog_complain(0, "orbclients fails\n");
    }
    return snap;
}

}  // namespace

int main(int argc, char** argv) {
    elog_init(argc, argv);
    bool sources = false, clients = false, json = false;
    int c;
    while ((c = getopt(argc, argv, "csj")) != -1) {
        switch (c) {
            case 's': sources = true; break;
            case 'c': clients = true; break;
            case 'j': json = true; break;
            default: usage();
        }
    }
    if (argc - optind != 1) usage();
    const char* name = argv[optind];
    int orb = orbopen(name, "r");
    if (orb < 0) elog_die(0, "Can't open ring buffer '%s'\n", name);
    status::Snapshot snap = collect(orb, name, sources || json, clients || json);
    orbclose(orb);
    if (json) {
        printf("%s\n", status::status_json(snap).dump(2).c_str());
        return 0;
    }
    print_status(name, &snap.stat, status::ring_npkts(snap.oldest, snap.newest, snap.stat.maxpkts));
    if (sources) print_sources(snap);
    if (clients) print_clients(snap);
    return 0;
}

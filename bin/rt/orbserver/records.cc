#include "records.h"

#include <algorithm>
#include <cstring>

namespace {

template <size_t N, size_t M>
void copy_field(char (&dst)[N], const char (&src)[M]) {
    size_t len = strnlen(src, std::min(N - 1, M));
    std::memcpy(dst, src, len);
    dst[len] = 0;
}

}  // namespace

void fill_orbsrc(Orbsrc& o, const ring::Source& k) {
    initOrbsrc(&o);
    copy_field(o.srcname, k.srcname);
    o.active = 1;
    o.soldest = k.soldest;
    o.slatest = k.slatest;
    o.npkts = int(std::min<uint64_t>(k.npkts, 0x7fffffff));
    o.nbytes = int(std::min<uint64_t>(k.nbytes, 0x7fffffff));
    o.soldest_time = k.soldest_time;
    o.slatest_time = k.slatest_time;
}

void fill_orbclient(Orbclient& o, const ring::Client& k) {
    initOrbclient(&o);
    o.lastpkt = k.lastpkt;
    o.started = k.started;
    o.read = k.read;
    o.pid = k.pid;
    o.bytes = k.bytes;
    o.packets = k.packets;
    o.pktid = k.pktid;
    o.port = k.port;
    std::memcpy(o.address, k.address, 4);
    o.thread = k.thread;
    o.fd = k.fd;
    o.nselect = k.nselect;
    o.nreject = k.nreject;
    o.errors = k.errors;
    o.priority = k.priority;
    o.lastrequest = k.lastrequest;
    o.mymessages = k.mymessages;
    o.nrequests = k.nrequests;
    o.nwrites = k.nwrites;
    o.nreads = k.nreads;
    o.written = k.written;
    o.perm = k.perm;
    copy_field(o.what, k.what);
    copy_field(o.host, k.host);
    copy_field(o.who, k.who);
    copy_field(o.select, k.select);
    copy_field(o.reject, k.reject);
}

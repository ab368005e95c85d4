// Reading packets: one at a time (orbget) or as a stream the server pushes (the reap
// family), with bounded variants that give up after a time-out without a fuss.
#include <cmath>
#include <cstring>

#include "orb/orbpriv.h"
#include "stock/bns.h"
#include "stock/elog.h"
#include "stock/epoch.h"

namespace {

// The caller's buffer is lent to the response package for one exchange so that the
// packet is decoded straight into it; the package's own buffer is put back afterwards.
struct LentBuffer {
    Pktpkg* pkg;
    char** packet;
    int* bufsize;
    char* own;
    int ownsz;
    LentBuffer(Pktpkg* p, char** pk, int* bs) : pkg(p), packet(pk), bufsize(bs), own(p->packet), ownsz(p->sZpacket) {
        if (packet) {
            pkg->packet = *packet;
            pkg->sZpacket = *bufsize;
        }
    }
    ~LentBuffer() {
        if (packet) {
            *packet = pkg->packet;
            *bufsize = pkg->sZpacket;
            pkg->packet = own;
            pkg->sZpacket = ownsz;
        }
    }
};

void hand_back(Pktpkg* pkg, int* pktid, char* srcname, double* time, int* nbytes) {
    *pktid = pkg->pktid;
    if (srcname) {
        memcpy(srcname, pkg->srcname, ORB_SRCNAME_SIZE);
        srcname[ORB_SRCNAME_SIZE - 1] = '\0';
    }
    *time = pkg->time;
    if (nbytes) *nbytes = pkg->packetsize;
}

void clear_out(int* pktid, char* srcname, double* time, int* nbytes) {
    *pktid = -1;
    if (srcname) srcname[0] = '\0';
    *time = 0;
    if (nbytes) *nbytes = 0;
}

Pktpkg* reply_pkg(Orbfile* of) {
    if (!of->reply->pkg) {
        of->reply->pkg = newPktpkg();
        of->reply->sZpkg = 1;
    }
    return of->reply->pkg;
}

int bounded_reap(int orb, double seconds, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
                 int* bufsize) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    if (!of->reaped && orb_start_reap(of, 0.0, -1, -1) < 0) return -2;
    if (of->first_nd_failure > 0 && of->reopen) {
        if (of->in->eof || (std_now() - of->first_nd_failure) * 1000 > orb_bns_timeout_ms()) {
            of->error = 1;
            orbreopen(of);
            of->first_nd_failure = 0;
        }
    }
    int ms = static_cast<int>(std::lround(seconds * 1000));
    int old = bnstimeout(of->in, ms < 0 ? 0 : ms);
    int mark = elog_mark();
    int reopen = of->reopen;
    of->reopen = 0;
    int r = orb_reap_packet(of, pktid, srcname, time, packet, nbytes, bufsize);
    if (r < 0) {
        r = -2;
        elog_truncate(mark);
        of->error = 0;
        if (of->first_nd_failure == 0) of->first_nd_failure = static_cast<int>(std_now());
    } else {
        of->first_nd_failure = 0;
    }
    bnstimeout(of->in, old);
    of->reopen = reopen;
    return r;
}

}  // namespace

int orb_start_reap(Orbfile* of, double maxtime, int maxbytes, int maxpkts) {
    Orbrequest* r = of->req;
    r->what = ORBREAP;
    r->reap_maxtime = maxtime;
    r->reap_maxbytes = maxbytes;
    r->reap_maxpkts = maxpkts;
    if (orbclient(of, r, nullptr) != 0) return -1;
    OrbExtra* x = orb_extra(of);
    x->reap_maxtime = maxtime;
    x->reap_maxbytes = maxbytes;
    x->reap_maxpkts = maxpkts;
    of->reaped = 1;
    return 0;
}

int orb_reap_packet(Orbfile* of, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
                    int* bufsize) {
    Pktpkg* pkg = reply_pkg(of);
    int r;
    {
        LentBuffer lend(pkg, packet, bufsize);
        r = orbclient(of, nullptr, of->reply);
    }
    if (r == -1 && of->error) {
        clear_out(pktid, srcname, time, nbytes);
        return -1;
    }
    if (of->reply->what != ORBREAP && of->reply->what != ORBREAPL)
        elog_die(0, "Unexpected failure: file %s, line %d\n", __FILE__, __LINE__);
    if (r != 0) {
        clear_out(pktid, srcname, time, nbytes);
        return -1;
    }
    hand_back(pkg, pktid, srcname, time, nbytes);
    if (pkg->pktid >= 0) {
        of->lastpktid = pkg->pktid;
        of->lastpkttime = pkg->time;
    } else if (pkg->pktid == -32) {
        of->reaped = 0;  // the server ended the stream; the next read starts another
    }
    return 0;
}

// Sends the prepared request and hands the packet of the answer back through
// the caller's buffer; 0, or -1 with the outputs cleared.
static int packet_exchange(Orbfile* of, Pktpkg* pkg, int* pktid, char* srcname, double* time, char** packet,
                           int* nbytes, int* bufsize) {
    int r;
    {
        LentBuffer lend(pkg, packet, bufsize);
        r = orbclient(of, of->req, of->reply);
    }
    if (r != 0) {
        clear_out(pktid, srcname, time, nbytes);
        return -1;
    }
    hand_back(pkg, pktid, srcname, time, nbytes);
    return 0;
}

int orb_get(Orbfile* of, int which, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
            int* bufsize) {
    Pktpkg* pkg = reply_pkg(of);
    of->req->what = ORBGET;
    of->req->pktcode = which;
    if (packet_exchange(of, pkg, pktid, srcname, time, packet, nbytes, bufsize) != 0) return -1;
    if (pkg->pktid >= 0) {
        of->lastpktid = pkg->pktid;
        of->lastpkttime = pkg->time;
    }
    return 0;
}

int orbget(int orb, int which, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
           int* bufsize) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) {
        clear_out(pktid, srcname, time, nbytes);
        return -1;
    }
    return orb_get(of, which, pktid, srcname, time, packet, nbytes, bufsize);
}

int orbgetstash(int orb, char* srcname, int* pktid, double* time, char** packet, int* nbytes, int* bufsize) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) {
        clear_out(pktid, srcname, time, nbytes);
        return -1;
    }
    Pktpkg* pkg = reply_pkg(of);
    memset(of->req->srcname, 0, sizeof of->req->srcname);
    strncpy(of->req->srcname, srcname, ORB_SRCNAME_SIZE - 1);
    of->req->what = ORBGETSTASH;
    return packet_exchange(of, pkg, pktid, srcname, time, packet, nbytes, bufsize);
}

static int reap_with(int orb, double maxtime, int maxbytes, int maxpkts, int* pktid, char* srcname, double* time,
                     char** packet, int* nbytes, int* bufsize) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) {
        clear_out(pktid, srcname, time, nbytes);
        return -1;
    }
    if (!of->reaped && orb_start_reap(of, maxtime, maxbytes, maxpkts) < 0) {
        clear_out(pktid, srcname, time, nbytes);
        return -1;
    }
    int r = orb_reap_packet(of, pktid, srcname, time, packet, nbytes, bufsize);
    if (r < 0)
        of->error = 1;
    else if (maxtime == 0.0 && maxbytes < 0 && maxpkts < 0)
        of->first_nd_failure = 0;
    return r;
}

int orbreap(int orb, int* pktid, char* srcname, double* time, char** packet, int* nbytes, int* bufsize) {
    return reap_with(orb, 0.0, -1, -1, pktid, srcname, time, packet, nbytes, bufsize);
}

int orbreapn(int orb, int n, int* pktid, char* srcname, double* time, char** packet, int* nbytes, int* bufsize) {
    return reap_with(orb, 0.0, -1, n, pktid, srcname, time, packet, nbytes, bufsize);
}

int orbreaphdr(int orb, int* pktid, char* srcname, double* time) {
    return reap_with(orb, 0.0, 0, -1, pktid, srcname, time, nullptr, nullptr, nullptr);
}

int orbreapt(int orb, double maxtime, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
             int* bufsize) {
    return reap_with(orb, maxtime, -1, -1, pktid, srcname, time, packet, nbytes, bufsize);
}

int orbreap_timeout(int orb, double seconds, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
                    int* bufsize) {
    return bounded_reap(orb, seconds, pktid, srcname, time, packet, nbytes, bufsize);
}

int orbreap_nd(int orb, int* pktid, char* srcname, double* time, char** packet, int* nbytes, int* bufsize) {
    return bounded_reap(orb, 0.0, pktid, srcname, time, packet, nbytes, bufsize);
}

int get_pkttime(Orbfile* of, double* time) {
    int pktid, nbytes = 0, bufsize = 0;
    char srcname[ORB_SRCNAME_SIZE + 1];
    char* packet = nullptr;
    *time = 0;
    int r = orb_get(of, ORBCURRENT, &pktid, srcname, time, &packet, &nbytes, &bufsize);
    if (r < 0) {
        if (OrbVerbose) elog_debug(0, "orbget ORBCURRENT during from %s fails\n", of->name);
        r = orb_get(of, ORBNEXT, &pktid, srcname, time, &packet, &nbytes, &bufsize);
        if (r < 0 && OrbVerbose) elog_debug(0, "orbget ORBNEXT during from %s fails\n", of->name);
    }
    free(packet);
    if (r < 0) *time = 0;
    return r < 0 ? -1 : 0;
}

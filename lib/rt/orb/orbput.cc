// Writing packets, the size of the ring, and the lag-throttle settings.
#include <cstdlib>
#include <cstring>

#include "orb/orbpriv.h"
#include "stock/allot.h"
#include "stock/elog.h"
#include "stock/pf.h"
#include "stock/tbl.h"

namespace {

// Fills the request package; the caller's bytes are lent, never copied.
int fill_put(Orbfile* of, int what, const char* srcname, double time, const char* packet, int nbytes) {
    if (nbytes < 0) {
        elog_complain(0, "minimum packet size is 0");
        return -1;
    }
    if (nbytes > Orb_max_data_bytes) {
        elog_complain(0, "maximum packet size is %ld", static_cast<long>(Orb_max_data_bytes));
        return -1;
    }
    Orbrequest* r = of->req;
    if (!r->pkg) {
        r->pkg = newPktpkg();
        r->sZpkg = 1;
    }
    Pktpkg* p = r->pkg;
    p->pktid = -1;
    p->packetsize = nbytes;
    memset(p->srcname, 0, sizeof p->srcname);
    strncpy(p->srcname, srcname ? srcname : "", ORB_SRCNAME_SIZE - 1);
    p->srcnamesize = static_cast<unsigned short>(strlen(p->srcname));
    p->time = time;
    p->packet = const_cast<char*>(packet);
    p->sZpacket = nbytes;
    r->what = what;
    return 0;
}

void detach(Orbfile* of) {
    of->req->pkg->packet = nullptr;
    of->req->pkg->sZpacket = 0;
}

}  // namespace

int orbput(int orb, const char* srcname, double time, const char* packet, int nbytes) {
    Orbfile* of = orb2orbfile(orb);
    if (!of || fill_put(of, ORBPUT, srcname, time, packet, nbytes) < 0) return -1;
    int r = orbclient(of, of->req, nullptr);
    detach(of);
    return r == 0 ? 0 : -1;
}

int orbputx(int orb, const char* srcname, double time, const char* packet, int nbytes) {
    Orbfile* of = orb2orbfile(orb);
    if (!of || fill_put(of, ORBPUTX, srcname, time, packet, nbytes) < 0) return -1;
    int r = orbclient(of, of->req, of->reply);
    detach(of);
    return r == 0 ? of->reply->pktid : -1;
}

int orbrange(int orb) {
    int here = orbtell(orb);
    int oldest = orbseek(orb, ORBOLDEST);
    int newest = orbseek(orb, ORBNEWEST);
    Orbstat* st = nullptr;
    int maxpkts = orbstat(orb, &st) == 0 && st ? st->maxpkts : 1;
    if (here >= 0) orbseek(orb, here);  // leave the reader where it stood
    if (newest < 0 || oldest < 0) return 0;
    // One packet (newest == oldest) is a ring of one, not a wrapped full ring.
    return (newest >= oldest ? newest - oldest : maxpkts - oldest + newest) + 1;
}

LagParams* pfget_orblag_params(Pf* pf) {
    LagParams* p = new LagParams;
    p->testfreq = pfget_double(pf, "test_freq");
    p->lag_trigger = pfget_double(pf, "lag_trigger");
    p->lag_reset = pfget_double(pf, "lag_reset");
    p->wait_seconds = pfget_int(pf, "wait_seconds");
    const char* m = pfget_string(pf, "wait_match");
    const char* r = pfget_string(pf, "wait_reject");
    p->wait_match = m && *m ? allot_strdup(m, "wait_match") : nullptr;
    p->wait_reject = r && *r ? allot_strdup(r, "wait_reject") : nullptr;
    p->axe = pfget_boolean(pf, "use_orbputx") ? 1 : 0;
    p->verbose = 0;
    return p;
}

void freeLagParams(LagParams* p) {
    if (!p) return;
    free(p->wait_match);
    free(p->wait_reject);
    delete p;
}

void freeLaggards(Laggards* l) {
    if (!l) return;
    freetbl(l->list, free);
    delete l;
}

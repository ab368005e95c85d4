// Reconnection: keeps a connection opened with "&" alive across server restarts and
// network failures, on the same descriptor number, and puts a reader back where it was.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "orb/orbpriv.h"
#include "stock/allot.h"
#include "stock/bns.h"
#include "stock/elog.h"
#include "stock/epoch.h"

#define NOTE(...)                                     \
    do {                                              \
        if (OrbVerbose) elog_debug(0, __VA_ARGS__);   \
    } while (0)

namespace {

ssize_t send_nosignal(int fd, const void* buf, size_t n, int flags) { return send(fd, buf, n, flags | MSG_NOSIGNAL); }

// Whether a reader that merely timed out still has a sound connection: 1 sound,
// 0 reconnect.
bool connection_sound(Orbfile* of) {
    double orb_start, server_start;
    int latest;
    OrbExtra* x = orb_extra(of);
    int active = orbrup(x->addresses[x->current].c_str(), x->thread, &orb_start, &server_start, &latest);
    if (active != 1 || server_start != of->server_start) return false;
    if (of->in->eof) {
        NOTE("orbserver connection returns eof, reconnecting cnt=%d lastpkt prev=%d now=%d", of->cnt, of->prevlast,
             latest);
        return false;
    }
    if ((of->cnt < 4 || of->prevlast < 0 || of->prevlast == latest) && (of->cnt < 11 || of->prevlast < 0)) {
        NOTE("orbserver connection ok, no reopen necessary cnt=%d lastpkt prev=%d now=%d", of->cnt, of->prevlast,
             latest);
        if (of->prevlast < 0) of->prevlast = latest;
        of->cnt++;
        return true;
    }
    if (of->prevlast == latest)
        NOTE("orbserver looks ok, reconnecting anyway cnt=%d lastpkt prev=%d now=%d", of->cnt, of->prevlast, latest);
    else
        NOTE("orbserver connection ok, reconnecting anyway cnt=%d lastpkt prev=%d now=%d", of->cnt, of->prevlast,
             latest);
    return false;
}

void position_by_time(Orbfile* of, double lastpkttime) {
    double t = lastpkttime - 0.00001;
    int r = orbafter(of->fd, t);
    if (r >= 0)
        NOTE("after reconnection to %s, orbafter returns pktid #%d @%s\n", of->name, r, orb_time(t).c_str());
    else
        NOTE("after reconnection to %s, orbafter to %s returns %d errno=%d eof=%d\n", of->name, orb_time(t).c_str(), r,
             of->in->syserrno, of->in->eof);
    int pktid = -1;
    char name[ORB_SRCNAME_SIZE + 1];
    double when;
    int nbytes = 0, bufsize = 0;
    char* packet = nullptr;
    if (orb_get(of, ORBCURRENT, &pktid, name, &when, &packet, &nbytes, &bufsize) == 0)
        NOTE("after reconnect to %s, current packet (#%d) time is %s, previously %s", of->name, pktid,
             orb_time(when).c_str(), orb_time(lastpkttime).c_str());
    else
        NOTE("no current packet after reconnection");
    free(packet);
}

void reposition_reader(Orbfile* of, double orb_start, int latest) {
    int lastpktid = of->lastpktid;
    double lastpkttime = of->lastpkttime;
    NOTE("attempt to reposition %s (#%d) to packet #%d or time=%s\n", of->name, of->fd, lastpktid,
         orb_time(lastpkttime).c_str());
    bool by_time = false;
    if (std::fabs(orb_start - of->orb_start) >= 1) {
        NOTE("orb has been reinitialized: old=%s, new=%s", orb_time(of->orb_start).c_str(), orb_time(orb_start).c_str());
        by_time = true;
    } else if (latest == lastpktid) {
        NOTE("orbseek unnecessary, pktid correct\n");
    } else {
        int r = orbseek(of->fd, lastpktid);
        if (r != lastpktid) {
            NOTE("orbseek to pktid #%d on %s fails\n", lastpktid, of->name);
            by_time = true;
        } else {
            int pktid = -1, nbytes = 0, bufsize = 0;
            char name[ORB_SRCNAME_SIZE + 1];
            double when;
            char* packet = nullptr;
            if (orb_get(of, ORBCURRENT, &pktid, name, &when, &packet, &nbytes, &bufsize) != 0) {
                NOTE("orbget of pktid #%d from %s fails\n", lastpktid, of->name);
                by_time = true;
            } else if (pktid != lastpktid) {
                NOTE("asked for pktid #%d, but got pktid #%d\n", lastpktid, pktid);
                by_time = true;
            } else if (std::fabs(when - lastpkttime) > 0.0001) {
                NOTE("orbseek to pktid #%d succeeds, but packet has wrong time %s, not %s\n", lastpktid,
                     orb_time(when).c_str(), orb_time(lastpkttime).c_str());
                by_time = true;
            } else {
                NOTE("orbseek found correct previous packet\n");
            }
            free(packet);
            of->lastpktid = lastpktid;
            of->lastpkttime = lastpkttime;
        }
    }
    if (by_time) position_by_time(of, lastpkttime);
    of->error = 0;  // a failed look here does not fail the reconnection
}

}  // namespace

int orbreopen(Orbfile* of) {
    orb_check_verbose();
    OrbExtra* x = orb_extra(of);
    if (x->file_backed) return -1;  // its server lives and dies with the connection
    double gap = std::max(1.0, orb_bns_timeout_ms() / 1000.0);
    double entry = std_now();
    if (entry - of->opentime < gap) {
        NOTE("attempted reopen on %s = #%d too early\n", of->name, of->fd);
        wait_for_time(of->opentime, gap);
    }
    of->opentime = entry;
    NOTE("attempting to reopen %s\n", of->name);

    if (of->perm == 'r' && of->error == 1 && connection_sound(of)) {
        of->error = 0;
        return 0;
    }

    of->cnt = 0;
    of->prevlast = -1;
    Bns* oldout = of->out;
    Orbrequest saved = *of->req;  // owned buffers are not reallocated below, so a shallow copy restores it
    int reaped = of->reaped;

    auto fail = [&]() {
        of->reopen = 1;
        of->reaped = reaped;
        bnsfree(of->out);
        of->out = oldout;
        *of->req = saved;
        return -1;
    };

    // The addresses in turn, starting with the one after the address that failed.
    size_t n = x->addresses.size();
    bool connected = false;
    for (size_t k = 1; k <= n && !connected; k++) {
        size_t at = (x->current + k) % n;
        const char* address = x->addresses[at].c_str();
        OrbPeer peer;
        int fd = orb_open_socket(address, true, &peer);
        if (fd < 0) {
            NOTE("Can't reopen socket for '%s'\n", address);
            continue;
        }
        if (fd == of->fd) elog_die(0, "Couldn't dup2 fd #%d\n", of->fd);
        if (dup2(fd, of->fd) < 0) elog_die(1, "Couldn't dup2 fd #%d\n", of->fd);
        close(fd);
        if (peer.tls) peer.tls->set_fd(of->fd);
        of->nonblocking = 0;  // the new socket starts out blocking
        bnsclr(of->in);
        memcpy(of->signer, peer.signer, sizeof of->signer);

        of->out = bnsnew(of->fd, ORB_BUF_SIZE);
        of->out->write_routine = send_nosignal;
        orb_use_tls(of, std::move(peer.tls));
        oldout->transport = of->in->transport;
        free(bnsid(of->out, allot_strdup(of->name, "bnsid")));
        of->reaped = 0;
        of->error = 0;
        of->reopen = 0;

        if (orb_send_open(of) != 0) {
            NOTE("reopen negotiation fails for %s = #%d:errno = %d eof=%s\n", address, of->fd, of->in->syserrno,
                 of->in->eof ? "true" : "false");
            fail();
            continue;
        }
        x->current = at;
        connected = true;
    }
    if (!connected) return -1;
    double orb_start = of->reply->orb_start, server_start = of->reply->server_start;
    int latest = of->reply->latest_pktid;
    if (of->perm == 'r') reposition_reader(of, orb_start, latest);

    Orbrequest* r = of->req;
    if (saved.nselect > 0 && saved.select) {
        NOTE("attempting to select '%s' during reopen of %s\n", saved.select, of->name);
        r->what = ORBSELECT;
        if (orbclient(of, r, of->reply) != 0) {
            NOTE("reopen fails at select: errno = %d eof=%s\n", of->in->syserrno, of->in->eof ? "true" : "false");
            return fail();
        }
    }
    if (saved.nreject > 0 && saved.reject) {
        NOTE("attempting to reject '%s' during reopen of %s\n", saved.reject, of->name);
        r->what = ORBREJECT;
        if (orbclient(of, r, of->reply) != 0) {
            NOTE("reopen fails at reject: errno = %d eof=%s\n", of->in->syserrno, of->in->eof ? "true" : "false");
            return fail();
        }
    }
    if (saved.stashflag == 1 || saved.stashflag == 2) {
        NOTE("attempting to set stashflag to '%d' during reopen of %s\n", saved.stashflag, of->name);
        r->what = ORBSTASHSELECT;
        r->stashflag = saved.stashflag;
        if (orbclient(of, r, of->reply) != 0) {
            NOTE("reopen fails at setting stashflag: errno = %d eof=%s\n", of->in->syserrno,
                 of->in->eof ? "true" : "false");
            return fail();
        }
    }
    r->what = ORBPING;
    if (orbclient(of, r, of->reply) == 0 && of->reply->version > 5) {
        r->what = ORBID;
        if (orbclient(of, r, of->reply) == 0) x->thread = of->reply->thread;
    }
    if (reaped) {
        if (orb_start_reap(of, x->reap_maxtime, x->reap_maxbytes, x->reap_maxpkts) == 0) {
            NOTE("reap restarted for %s\n", of->name);
        } else {
            NOTE("attempt to restart reap fails during reopen of %s = #%d : errno=%d eof=%d\n", of->name, of->fd,
                 of->in->syserrno, of->in->eof);
            return fail();
        }
    }

    bnsfree(of->out);
    of->out = oldout;
    oldout->fd = of->fd;
    if (of->perm == 'w') {
        int n = oldout->mark >= 0 ? oldout->fp - oldout->mark : 0;
        NOTE("resending last %d bytes\n", n);
        if (bnsresend(oldout) < 0) {
            NOTE("failed to resend saved last bytes\n");
            of->reopen = 1;
            of->reaped = reaped;
            *of->req = saved;
            return -1;
        }
    }

    double now = std_now();
    char* latency = strtdelta(now - of->lastpkttime);
    NOTE("orbreopen of %s at %s -- packet latency = %s\n", of->name, orb_time(now).c_str(), latency ? latency : "");
    free(latency);
    of->once = 0;
    of->first_nd_failure = 0;
    of->reopen = 1;
    *of->req = saved;
    of->orb_start = orb_start;
    of->server_start = server_start;
    orb_note_orb_start(of);
    return 1;
}

// The simple requests: each fills the connection's request record, exchanges it and
// hands back fields of the response.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orb/orbpriv.h"
#include "stock/allot.h"
#include "stock/bns.h"
#include "stock/elog.h"
#include "stock/epoch.h"

namespace {

int exchange(Orbfile* of, int what) {
    of->req->what = what;
    return orbclient(of, of->req, of->reply);
}

// A pattern "@file" stands for the file's lines, trimmed, joined with "|".
bool expand_pattern(const char* pattern, std::string& out) {
    if (pattern[0] != '@') {
        out = pattern;
        return true;
    }
    FILE* f = fopen(pattern + 1, "r");
    if (!f) {
        elog_complain(1, "Can't open '%s'", pattern + 1);
        return false;
    }
    out.clear();
    char line[8192];
    while (fgets(line, sizeof line, f)) {
        std::string s = line;
        size_t b = 0;
        while (b < s.size() && isspace(static_cast<unsigned char>(s[b]))) b++;
        size_t e = s.size();
        while (e > b && isspace(static_cast<unsigned char>(s[e - 1]))) e--;
        s = s.substr(b, e - b);
        if (s.empty()) continue;
        if (!out.empty()) out += "|";
        out += s;
    }
    fclose(f);
    return true;
}

// Stores pattern in one of the request's owned, only-growing pattern buffers.
void store_pattern(const std::string& p, char** buf, int* sz, int* n, const char* what) {
    int need = static_cast<int>(p.size()) + 1;
    if (*sz < need) {
        char* nb = static_cast<char*>(realloc(*buf, need));
        if (!nb) die_nomem(__LINE__, "orb", static_cast<size_t>(need), what);
        *buf = nb;
        *sz = need;
    }
    memcpy(*buf, p.c_str(), need);
    *n = need;
}

int select_or_reject(int orb, const char* pattern, bool select) {
    Orbfile* of = orb2orbfile(orb);
    if (!of || !pattern) return -1;
    std::string p;
    if (!expand_pattern(pattern, p)) return -1;
    Orbrequest* r = of->req;
    if (select)
        store_pattern(p, &r->select, &r->sZselect, &r->nselect, "s->select");
    else
        store_pattern(p, &r->reject, &r->sZreject, &r->nreject, "s->reject");
    if (exchange(of, select ? ORBSELECT : ORBREJECT) != 0) return -1;
    return of->reply->nselections;
}

}  // namespace

int orbseek(int orb, int which) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    of->req->pktcode = which;
    if (exchange(of, ORBSEEK) != 0) return -2;
    int pktid = of->reply->pktid;
    if (pktid >= 0) of->lastpktid = pktid;
    return pktid;
}

int orbtell(int orb) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    if (exchange(of, ORBTELL) != 0) return -1;
    int pktid = of->reply->pktid;
    if (pktid >= 0) of->lastpktid = pktid;
    return pktid;
}

int orbafter(int orb, double time) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    of->req->time = time;
    if (exchange(of, ORBAFTER) != 0) return -1;
    int pktid = of->reply->pktid;
    if (pktid >= 0) {
        of->lastpktid = pktid;
        of->lastpkttime = time;
    }
    return pktid;
}

int orbselect(int orb, const char* pattern) { return select_or_reject(orb, pattern, true); }
int orbreject(int orb, const char* pattern) { return select_or_reject(orb, pattern, false); }

int orbping(int orb, int* version) {
    *version = -1;
    Orbfile* of = orb2orbfile(orb);
    if (!of || exchange(of, ORBPING) != 0) return -1;
    *version = of->reply->version;
    return 0;
}

int orbid(int orb, int* id) {
    *id = -1;
    Orbfile* of = orb2orbfile(orb);
    if (!of || exchange(of, ORBID) != 0) return -1;
    *id = of->reply->thread;
    return 0;
}

int orbstat(int orb, Orbstat** status) {
    *status = nullptr;
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    int r = exchange(of, ORBSTAT);
    if (r != 0) return r;
    *status = &of->reply->orbstat;
    return 0;
}

int orbclients(int orb, double* when, Orbclient** clients, int* n) {
    *clients = nullptr;
    *n = 0;
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    int r = exchange(of, ORBCLIENTS);
    if (r != 0) return r;
    *when = of->reply->client_when;
    *clients = of->reply->client;
    *n = of->reply->nclient < 0 ? 0 : of->reply->nclient;
    return 0;
}

int orbsources(int orb, double* when, Orbsrc** sources, int* n) {
    *sources = nullptr;
    *n = 0;
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    int r = exchange(of, ORBSOURCES);
    if (r != 0) return r;
    *when = of->reply->source_when;
    *sources = of->reply->source;
    *n = of->reply->nsource < 0 ? 0 : of->reply->nsource;
    return 0;
}

int orbsetpri(int orb, int thread, int priority) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    of->req->thread = thread;
    of->req->newpri = priority;
    return exchange(of, ORBSETPRI);
}

int orbkill(int orb, int thread) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    of->req->thread = thread;
    return exchange(of, ORBKILL);
}

int orbhalt(int orb) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    return exchange(of, ORBHALT);
}

int orbset_logging(int orb, int flag) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    of->req->logflag = flag;
    return exchange(of, ORBSETLOGGING);
}

int orbstashselect(int orb, int flag) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    if (flag >= 0 && flag <= 2) {
        of->req->stashflag = flag;
        if (exchange(of, ORBSTASHSELECT) != 0) return -1;
    }
    return of->reply->stashflag;
}

int orbrup(const char* name, int thread, double* orb_start, double* server_start, int* latest) {
    OrbPeer peer;
    int fd = orb_open_socket(name, true, &peer);
    if (fd < 0) return -1;
    // A short-lived handle, outside the table: it must not disturb the caller's connection.
    Orbfile* of = newOrbfile();
    of->fd = fd;
    of->name = allot_strdup(name, "name");
    of->req = newOrbrequest();
    of->req->hello = newOrbOpenString();
    of->req->sZhello = 1;
    memcpy(&of->req->hello->handshake, "orbm", 4);
    of->req->hello->perm = 'r';
    of->req->hello->pid = getpid();
    of->reply = newOrbresponse();
    of->in = bnsnew(fd, ORB_BUF_SIZE);
    of->out = bnsnew(fd, ORB_BUF_SIZE);
    of->out->write_routine = [](int f, const void* b, size_t n, int fl) -> ssize_t {
        return send(f, b, n, fl | MSG_NOSIGNAL);
    };
    of->in->transport = of->out->transport = peer.tls.get();
    memcpy(of->signer, peer.signer, sizeof of->signer);
    of->req->athread = thread;
    int result = -1;
    // Opened like any session first: a server may refuse other requests before that.
    if (orb_send_open(of) == 0 && exchange(of, ORBRUP) == 0) {
        result = of->reply->active;
        *orb_start = of->reply->orb_start;
        *server_start = of->reply->server_start;
        *latest = of->reply->latest_pktid;
        of->req->what = ORBCLOSE;
        orbclient(of, of->req, nullptr);
    }
    close(fd);
    freeOrbfile(of);
    if (peer.child > 0) {
        waitpid(peer.child, nullptr, 0);
        orb_relay_finish(peer.child);
    }
    return result;
}

int orbposition(int orb, const char* text) {
    std::string up = text ? text : "";
    for (char& c : up) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (up == "OLDEST") return orbseek(orb, ORBOLDEST);
    if (up == "NEWEST") return orbseek(orb, ORBNEWEST);
    double t;
    if (!up.empty() && is_epoch_string(up.c_str(), &t)) return orbafter(orb, t);
    return orbtell(orb);
}

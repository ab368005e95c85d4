#include "orb/orbfile.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "stock/allot.h"
#include "stock/bns.h"
#include "stock/elog.h"

int Orb_max_data_bytes = 4000000;

namespace {

struct Name {
    int code;
    const char* name;
};

const Name Names[] = {
    {ORBPUT, "ORBPUT"}, {ORBGET, "ORBGET"}, {ORBREAP, "ORBREAP"}, {ORBSTAT, "ORBSTAT"},
    {ORBCLIENTS, "ORBCLIENTS"}, {ORBSOURCES, "ORBSOURCES"}, {ORBSEEK, "ORBSEEK"}, {ORBTELL, "ORBTELL"},
    {ORBSELECT, "ORBSELECT"}, {ORBREJECT, "ORBREJECT"}, {ORBCLOSE, "ORBCLOSE"}, {ORBAFTER, "ORBAFTER"},
    {ORBBEFORE, "ORBBEFORE"}, {ORBPING, "ORBPING"}, {ORBHDR, "ORBHDR"}, {ORBSETPRI, "ORBSETPRI"},
    {ORBHALT, "ORBHALT"}, {ORBSETLOGGING, "ORBSETLOGGING"}, {ORBERROR, "ORBERROR"}, {ORBOPEN, "ORBOPEN"},
    {ORBKILL, "ORBKILL"}, {ORBID, "ORBID"}, {ORBRUP, "ORBRUP"}, {ORBPUTL, "ORBPUTL"}, {ORBGETL, "ORBGETL"},
    {ORBREAPL, "ORBREAPL"}, {ORBSTASHSELECT, "ORBSTASHSELECT"}, {ORBGETSTASH, "ORBGETSTASH"},
    {ORBPUTX, "ORBPUTX"}, {ORBPUTXL, "ORBPUTXL"}, {ORBCHALLENGE, "ORBCHALLENGE"},
    {ORBSIGNEDOPEN, "ORBSIGNEDOPEN"}, {ORBSTASH, "ORBSTASH"}, {ORBPREVT, "ORBPREVT"},
    {ORBNEXTT, "ORBNEXTT"}, {ORBNEXT_WAIT, "ORBNEXT_WAIT"}, {ORBNEWEST, "ORBNEWEST"},
    {ORBOLDEST, "ORBOLDEST"}, {ORBPREV, "ORBPREV"}, {ORBNEXT, "ORBNEXT"}, {ORBCURRENT, "ORBCURRENT"},
    {ORB_EOF, "ORB_EOF"}, {ORB_INCOMPLETE, "ORB_INCOMPLETE"}, {ORB_BUF_SIZE, "ORB_BUF_SIZE"},
    {ORB_MAX_DATA_BYTES, "ORB_MAX_DATA_BYTES"},
};

[[noreturn]] void nomem(int line, size_t n, const char* what) { die_nomem(line, "orbprot", n, what); }

template <typename T>
T* make(const char* what) {
    T* p = new (std::nothrow) T();
    if (!p) nomem(__LINE__, sizeof(T), what);
    return p;
}

// Grows an owned malloc'd buffer to n bytes, keeping its contents.
void* grow(void* p, size_t n, int line, const char* what) {
    void* q = realloc(p, n ? n : 1);
    if (!q) nomem(line, n, what);
    return q;
}

int put_i(Bns* b, int v) { return bnsput(b, &v, BNS_INT, 1); }
int put_u(Bns* b, unsigned v) { return bnsput(b, &v, BNS_INT, 1); }
int put_s(Bns* b, unsigned short v) { return bnsput(b, &v, BNS_SHORT, 1); }
int put_d(Bns* b, double v) { return bnsput(b, &v, BNS_DOUBLE, 1); }
int put_b(Bns* b, const void* p, int n) { return bnsput(b, p, BNS_BYTES, n); }

int get_i(Bns* b, int* v) { return bnsget(b, v, BNS_INT, 1); }
int get_u(Bns* b, unsigned* v) { return bnsget(b, v, BNS_INT, 1); }
int get_s(Bns* b, unsigned short* v) { return bnsget(b, v, BNS_SHORT, 1); }
int get_d(Bns* b, double* v) { return bnsget(b, v, BNS_DOUBLE, 1); }
int get_b(Bns* b, void* p, int n) { return bnsget(b, p, BNS_BYTES, n); }

// A fixed text field: exactly n bytes on the wire; the spare byte behind stays NUL.
template <size_t N>
int get_text(Bns* b, char (&field)[N], int n) {
    static_assert(N > 0);
    int r = get_b(b, field, n);
    field[N - 1] = 0;
    return r;
}

bool short_form(int code) { return code == ORBPUT || code == ORBGET || code == ORBREAP || code == ORBPUTX; }
bool long_form(int code) {
    return code == ORBPUTL || code == ORBGETL || code == ORBREAPL || code == ORBGETSTASH || code == ORBPUTXL;
}

}  // namespace

const char* orbreq2name(int code) {
    for (const Name& n : Names)
        if (n.code == code) return n.name;
    return nullptr;
}

int orbname2req(const char* name) {
    if (!name) return 0;
    for (const Name& n : Names)
        if (strcmp(n.name, name) == 0) return n.code;
    return 0;
}

// ---- initial values ----

void initPktpkg(Pktpkg* p) {
    p->time = 0;
    p->pktid = -1;
    p->packetsize = 0;
    p->srcnamesize = 0;
    memset(p->srcname, 0, sizeof p->srcname);
}

void initOrbsrc(Orbsrc* s) {
    *s = Orbsrc{};
    s->slatest_time = s->soldest_time = -1.0;
    s->nbytes = s->npkts = s->slatest = s->soldest = s->active = -1;
}

void initOrbclient(Orbclient* c) {
    *c = Orbclient{};
    c->lastpkt = c->started = -1.0;
    c->pid = c->pktid = c->port = c->thread = c->fd = -1;
    memset(c->address, 0xFF, sizeof c->address);
    c->perm = 'n';
}

void initOrbOpenString(OrbOpenString* o) {
    *o = OrbOpenString{};
    o->pid = -1;
    o->perm = 'n';
}

void initOrbstat(Orbstat* s) {
    *s = Orbstat{};
    s->when = s->started = s->orb_start = -1.0;
    s->pid = s->port = s->nsources = s->maxsrc = s->maxpkts = -1;
    memset(s->address, 0xFF, sizeof s->address);
}

void initOrbrequest(Orbrequest* r) {
    Orbrequest keep = *r;
    *r = Orbrequest{};
    r->reject = keep.reject;
    r->sZreject = keep.sZreject;
    r->select = keep.select;
    r->sZselect = keep.sZselect;
    r->pkg = keep.pkg;
    r->sZpkg = keep.sZpkg;
    r->hello = keep.hello;
    r->sZhello = keep.sZhello;
    r->what = -1;
}

void initOrbresponse(Orbresponse* r) {
    Orbresponse keep = *r;
    *r = Orbresponse{};
    r->source = keep.source;
    r->sZsource = keep.sZsource;
    r->client = keep.client;
    r->sZclient = keep.sZclient;
    r->pkg = keep.pkg;
    r->sZpkg = keep.sZpkg;
    initOrbstat(&r->orbstat);
}

// ---- constructors and destructors ----

Pktpkg* newPktpkg() {
    Pktpkg* p = make<Pktpkg>("s");
    initPktpkg(p);
    return p;
}
Orbsrc* newOrbsrc() {
    Orbsrc* s = make<Orbsrc>("s");
    initOrbsrc(s);
    return s;
}
Orbclient* newOrbclient() {
    Orbclient* c = make<Orbclient>("s");
    initOrbclient(c);
    return c;
}
OrbOpenString* newOrbOpenString() {
    OrbOpenString* o = make<OrbOpenString>("s");
    initOrbOpenString(o);
    return o;
}
Orbstat* newOrbstat() {
    Orbstat* s = make<Orbstat>("s");
    initOrbstat(s);
    return s;
}
Orbrequest* newOrbrequest() {
    Orbrequest* r = make<Orbrequest>("s");
    initOrbrequest(r);
    return r;
}
Orbresponse* newOrbresponse() {
    Orbresponse* r = make<Orbresponse>("s");
    initOrbresponse(r);
    return r;
}
Orbfile* newOrbfile() {
    Orbfile* f = make<Orbfile>("s");
    f->lastpktid = -1;
    f->prevlast = -1;
    return f;
}

void freePktpkg(Pktpkg* p) {
    if (!p) return;
    free(p->packet);
    delete p;
}
void freeOrbsrc(Orbsrc* s) { delete s; }
void freeOrbclient(Orbclient* c) { delete c; }
void freeOrbOpenString(OrbOpenString* o) { delete o; }
void freeOrbstat(Orbstat* s) { delete s; }

void freeOrbrequest(Orbrequest* r) {
    if (!r) return;
    delete r->hello;
    free(r->select);
    free(r->reject);
    freePktpkg(r->pkg);
    delete r;
}

void freeOrbresponse(Orbresponse* r) {
    if (!r) return;
    freePktpkg(r->pkg);
    free(r->client);
    free(r->source);
    delete r;
}

void freeOrbfile(Orbfile* f) {
    if (!f) return;
    free(f->name);
    bnsfree(f->in);
    bnsfree(f->out);
    freeOrbrequest(f->req);
    freeOrbresponse(f->reply);
    free(f->PacketDump);
    if (f->dump) fclose(f->dump);
    delete f;
}

// ---- Pktpkg ----

// body false: everything but the packet bytes, which the caller sends itself.
static int put_pkg(Bns* b, int code, Pktpkg* p, bool body) {
    int r = put_i(b, p->pktid);
    bool size_ok = p->packetsize >= 0 && (p->packetsize == 0 || p->packet);
    if (short_form(code)) {
        // A short size that cannot hold the packet would desynchronise the peer.
        if (p->packetsize > 0xFFFF) size_ok = false;
        r |= put_s(b, (unsigned short)(p->packetsize & 0xFFFF));
    } else if (long_form(code)) {
        if (p->packetsize > Orb_max_data_bytes) size_ok = false;
        else r |= put_i(b, p->packetsize);
    } else {
        elog_die(0, "bad what code %d in pbnsPktpkg", code);
    }
    if (!size_ok) r |= -1;
    r |= put_s(b, p->srcnamesize);
    r |= put_d(b, p->time);
    if (p->srcnamesize > ORB_SRCNAME_SIZE) r |= -1;
    else r |= put_b(b, p->srcname, p->srcnamesize);
    if (size_ok && body) r |= put_b(b, p->packet, p->packetsize);
    return r;
}

int pbnsPktpkg(Bns* b, int code, Pktpkg* p) { return put_pkg(b, code, p, true); }

// lend true: the packet bytes are left in the stream's buffer and p->packet
// points at them (p then owns no buffer).
static int get_pkg(Bns* b, int code, Pktpkg* p, bool lend) {
    if (get_i(b, &p->pktid)) return -1;
    int size;
    if (short_form(code)) {
        unsigned short s;
        if (get_s(b, &s)) return -1;
        size = s;
    } else if (long_form(code)) {
        if (get_i(b, &size)) return -1;
    } else {
        elog_die(0, "bad what code %d in gbnsPktpkg", code);
    }
    if (get_s(b, &p->srcnamesize) || get_d(b, &p->time)) return -1;
    int n = std::min<int>(p->srcnamesize, ORB_SRCNAME_SIZE);
    if (get_b(b, p->srcname, n)) return -1;
    p->srcname[n] = 0;
    // The size is checked before anything is allocated for it; the packet
    // bytes of a refused size stay in the stream.
    if (size < 0 || size > Orb_max_data_bytes) return -1;
    p->packetsize = size;
    if (lend) {
        const char* bytes = bnsview(b, size);
        if (!bytes) return -1;
        if (p->sZpacket > 0) free(p->packet);
        p->packet = const_cast<char*>(bytes);
        p->sZpacket = 0;
        return 0;
    }
    if (p->sZpacket < size) {
        p->packet = static_cast<char*>(grow(p->packet, size, __LINE__, "s->packet"));
        p->sZpacket = size;
    }
    return get_b(b, p->packet, size);
}

int gbnsPktpkg(Bns* b, int code, Pktpkg* p) { return get_pkg(b, code, p, false); }

// ---- Orbsrc ----

int pbnsOrbsrc(Bns* b, Orbsrc* s) {
    int r = put_b(b, s->srcname, ORB_SRCNAME_SIZE);
    r |= put_i(b, s->active);
    r |= put_i(b, s->soldest);
    r |= put_i(b, s->slatest);
    r |= put_i(b, s->npkts);
    r |= put_i(b, s->nbytes);
    r |= put_d(b, s->soldest_time);
    r |= put_d(b, s->slatest_time);
    return r;
}

int gbnsOrbsrc(Bns* b, Orbsrc* s) {
    if (get_text(b, s->srcname, ORB_SRCNAME_SIZE) || get_i(b, &s->active) || get_i(b, &s->soldest) ||
        get_i(b, &s->slatest) || get_i(b, &s->npkts) || get_i(b, &s->nbytes) || get_d(b, &s->soldest_time) ||
        get_d(b, &s->slatest_time))
        return -1;
    return 0;
}

// ---- Orbstat ----

int pbnsOrbstat(Bns* b, Orbstat* s) {
    int r = put_u(b, s->maxdata);
    r |= put_i(b, s->maxpkts);
    r |= put_i(b, s->maxsrc);
    r |= put_i(b, s->nclients);
    r |= put_i(b, s->nsources);
    r |= put_d(b, s->started);
    r |= put_d(b, s->when);
    r |= put_i(b, s->pid);
    r |= put_b(b, s->address, 4);
    r |= put_i(b, s->port);
    r |= put_i(b, s->opens);
    r |= put_i(b, s->closes);
    r |= put_i(b, s->rejected);
    r |= put_i(b, s->errors);
    r |= put_b(b, s->host, 128);
    r |= put_b(b, s->who, 24);
    r |= put_b(b, s->version, 128);
    r |= put_d(b, s->orb_start);
    r |= put_i(b, s->messages);
    r |= put_i(b, s->connections);
    return r;
}

int gbnsOrbstat(Bns* b, Orbstat* s) {
    if (get_u(b, &s->maxdata) || get_i(b, &s->maxpkts) || get_i(b, &s->maxsrc) || get_i(b, &s->nclients) ||
        get_i(b, &s->nsources) || get_d(b, &s->started) || get_d(b, &s->when) || get_i(b, &s->pid) ||
        get_b(b, s->address, 4) || get_i(b, &s->port) || get_i(b, &s->opens) || get_i(b, &s->closes) ||
        get_i(b, &s->rejected) || get_i(b, &s->errors) || get_text(b, s->host, 128) ||
        get_text(b, s->who, 24) || get_text(b, s->version, 128) || get_d(b, &s->orb_start) ||
        get_i(b, &s->messages) || get_i(b, &s->connections))
        return -1;
    return 0;
}

// ---- Orbclient ----

int pbnsOrbclient(Bns* b, Orbclient* c) {
    // The reader takes at most 96 pattern bytes and would lose its place on
    // more, so longer lengths go out cut to 96.
    int nselect = std::min(c->nselect, ORB_CLIENT_PATTERN_SIZE);
    int nreject = std::min(c->nreject, ORB_CLIENT_PATTERN_SIZE);
    int r = put_d(b, c->started);
    r |= put_d(b, c->lastpkt);
    r |= put_i(b, c->pktid);
    r |= put_u(b, c->packets);
    r |= put_u(b, c->bytes);
    r |= put_u(b, c->read);
    r |= put_u(b, c->written);
    r |= put_u(b, c->nreads);
    r |= put_u(b, c->nwrites);
    r |= put_u(b, c->nrequests);
    r |= put_i(b, c->mymessages);
    r |= put_i(b, c->lastrequest);
    r |= put_i(b, c->priority);
    r |= put_i(b, c->errors);
    r |= put_i(b, nselect);
    if (nselect > 0) r |= put_b(b, c->select, nselect);
    r |= put_i(b, nreject);
    if (nreject > 0) r |= put_b(b, c->reject, nreject);
    r |= put_i(b, c->fd);
    r |= put_i(b, c->thread);
    r |= put_b(b, c->address, 4);
    r |= put_i(b, c->port);
    r |= put_b(b, c->who, 24);
    r |= put_b(b, c->host, 128);
    r |= put_b(b, c->what, 128);
    r |= put_i(b, c->pid);
    r |= put_b(b, &c->perm, 1);
    return r;
}

static int get_pattern(Bns* b, int* len, char (&field)[ORB_CLIENT_PATTERN_SIZE + 1]) {
    if (get_i(b, len)) return -1;
    int n = std::clamp(*len, 0, ORB_CLIENT_PATTERN_SIZE);
    if (get_b(b, field, n)) return -1;
    field[n] = 0;
    return 0;
}

int gbnsOrbclient(Bns* b, Orbclient* c) {
    if (get_d(b, &c->started) || get_d(b, &c->lastpkt) || get_i(b, &c->pktid) || get_u(b, &c->packets) ||
        get_u(b, &c->bytes) || get_u(b, &c->read) || get_u(b, &c->written) || get_u(b, &c->nreads) ||
        get_u(b, &c->nwrites) || get_u(b, &c->nrequests) || get_i(b, &c->mymessages) ||
        get_i(b, &c->lastrequest) || get_i(b, &c->priority) || get_i(b, &c->errors) ||
        get_pattern(b, &c->nselect, c->select) || get_pattern(b, &c->nreject, c->reject) ||
        get_i(b, &c->fd) || get_i(b, &c->thread) || get_b(b, c->address, 4) || get_i(b, &c->port) ||
        get_text(b, c->who, 24) || get_text(b, c->host, 128) || get_text(b, c->what, 128) ||
        get_i(b, &c->pid) || get_b(b, &c->perm, 1))
        return -1;
    return 0;
}

// ---- OrbOpenString ----

int pbnsOrbOpenString(Bns* b, OrbOpenString* o) {
    int r = put_i(b, o->handshake);
    r |= put_b(b, o->who, 24);
    r |= put_b(b, o->what, 128);
    r |= put_i(b, o->pid);
    r |= put_b(b, &o->perm, 1);
    return r;
}

int gbnsOrbOpenString(Bns* b, OrbOpenString* o) {
    if (get_i(b, &o->handshake) || get_text(b, o->who, 24) || get_text(b, o->what, 128) ||
        get_i(b, &o->pid) || get_b(b, &o->perm, 1))
        return -1;
    return 0;
}

// ---- Orbrequest ----

static int put_hello(Bns* b, OrbOpenString* hello) {
    if (hello) return pbnsOrbOpenString(b, hello);
    OrbOpenString blank;
    initOrbOpenString(&blank);
    return pbnsOrbOpenString(b, &blank) | -1;
}

static int put_request_pattern(Bns* b, int n, const char* text) {
    int r = put_i(b, n);
    if (n < 0 || n > ORB_MAX_PATTERN || (n > 0 && !text)) return r | -1;
    return r | put_b(b, text, n);
}

int pbnsOrbrequest(Bns* b, Orbrequest* q) {
    if (q->pkg && q->pkg->packetsize > 0xFFFF) {
        if (q->what == ORBPUT) q->what = ORBPUTL;
        else if (q->what == ORBPUTX) q->what = ORBPUTXL;
    }
    int r = put_i(b, q->what);
    switch (q->what) {
        case ORBPUT: case ORBPUTL: case ORBPUTX: case ORBPUTXL:
            if (!q->pkg) return r | -1;
            r |= pbnsPktpkg(b, q->what, q->pkg);
            break;
        case ORBGET: case ORBSEEK:
            r |= put_i(b, q->pktcode);
            break;
        case ORBREAP: case ORBREAPL:
            r |= put_d(b, q->reap_maxtime);
            r |= put_i(b, q->reap_maxbytes);
            r |= put_i(b, q->reap_maxpkts);
            break;
        case ORBSELECT: r |= put_request_pattern(b, q->nselect, q->select); break;
        case ORBREJECT: r |= put_request_pattern(b, q->nreject, q->reject); break;
        case ORBAFTER: r |= put_d(b, q->time); break;
        case ORBSETPRI:
            r |= put_i(b, q->newpri);
            r |= put_i(b, q->thread);
            break;
        case ORBSETLOGGING: r |= put_i(b, q->logflag); break;
        case ORBOPEN: r |= put_hello(b, q->hello); break;
        case ORBKILL: r |= put_i(b, q->thread); break;
        case ORBRUP:
            r |= put_i(b, q->athread);
            r |= put_hello(b, q->hello);
            break;
        case ORBSTASHSELECT: r |= put_i(b, q->stashflag); break;
        case ORBGETSTASH: r |= put_b(b, q->srcname, ORB_SRCNAME_SIZE); break;
        case ORBSIGNEDOPEN:
            r |= put_hello(b, q->hello);
            r |= put_b(b, q->challenge, ORB_CHALLENGE_SIZE);
            r |= put_b(b, q->signer, ORB_SIGNER_SIZE);
            r |= put_b(b, q->signature, ORB_SIGNATURE_SIZE);
            break;
        default: break;
    }
    return r;
}

static Pktpkg* request_pkg(Orbrequest* q) {
    if (!q->pkg) {
        q->pkg = newPktpkg();
        q->sZpkg = 1;
    }
    return q->pkg;
}

static OrbOpenString* request_hello(Orbrequest* q) {
    if (!q->hello) {
        q->hello = newOrbOpenString();
        q->sZhello = 1;
    }
    return q->hello;
}

// Reads a pattern with its length; the text is kept NUL-terminated even when
// the peer left the NUL out.
static int get_request_pattern(Bns* b, int* n, char** text, int* sz, const char* what) {
    if (get_i(b, n)) return -1;
    if (*n < 0 || *n > ORB_MAX_PATTERN) return -1;
    if (*sz < *n + 1) {
        *text = static_cast<char*>(grow(*text, *n + 1, __LINE__, what));
        *sz = *n + 1;
    }
    if (get_b(b, *text, *n)) return -1;
    (*text)[*n] = 0;
    return 0;
}

static int get_request(Bns* b, Orbrequest* q, bool lend) {
    if (get_i(b, &q->what)) return -1;
    switch (q->what) {
        case ORBPUT: case ORBPUTL: case ORBPUTX: case ORBPUTXL:
            return get_pkg(b, q->what, request_pkg(q), lend);
        case ORBGET: case ORBSEEK:
            return get_i(b, &q->pktcode);
        case ORBREAP: case ORBREAPL:
            return get_d(b, &q->reap_maxtime) || get_i(b, &q->reap_maxbytes) || get_i(b, &q->reap_maxpkts)
                       ? -1 : 0;
        case ORBSELECT: return get_request_pattern(b, &q->nselect, &q->select, &q->sZselect, "s->select");
        case ORBREJECT: return get_request_pattern(b, &q->nreject, &q->reject, &q->sZreject, "s->reject");
        case ORBAFTER: return get_d(b, &q->time);
        case ORBSETPRI: return get_i(b, &q->newpri) || get_i(b, &q->thread) ? -1 : 0;
        case ORBSETLOGGING: return get_i(b, &q->logflag);
        case ORBOPEN: return gbnsOrbOpenString(b, request_hello(q));
        case ORBKILL: return get_i(b, &q->thread);
        case ORBRUP: return get_i(b, &q->athread) || gbnsOrbOpenString(b, request_hello(q)) ? -1 : 0;
        case ORBSTASHSELECT: return get_i(b, &q->stashflag);
        case ORBGETSTASH: return get_text(b, q->srcname, ORB_SRCNAME_SIZE);
        case ORBSIGNEDOPEN:
            if (gbnsOrbOpenString(b, request_hello(q)) || get_b(b, q->challenge, ORB_CHALLENGE_SIZE) ||
                get_b(b, q->signer, ORB_SIGNER_SIZE) || get_b(b, q->signature, ORB_SIGNATURE_SIZE))
                return -1;
            q->challenge[ORB_CHALLENGE_SIZE] = 0;
            q->signer[ORB_SIGNER_SIZE] = 0;
            q->signature[ORB_SIGNATURE_SIZE] = 0;
            return 0;
        default: return 0;
    }
}

int gbnsOrbrequest(Bns* b, Orbrequest* q) { return get_request(b, q, false); }
int gbnsOrbrequestLent(Bns* b, Orbrequest* q) { return get_request(b, q, true); }

// ---- Orbresponse ----

static int put_response(Bns* b, Orbresponse* s, bool body) {
    if (s->pkg && s->pkg->packetsize > 0xFFFF) {
        if (s->what == ORBREAP) s->what = ORBREAPL;
        else if (s->what == ORBGET) s->what = ORBGETL;
    }
    int r = put_i(b, s->what);
    r |= put_i(b, s->result);
    if (s->result != 0) {
        r |= put_i(b, s->nerr);
        // errmsg cannot hold more; a longer length would send what is not there.
        if (s->nerr < 0 || s->nerr > ORB_ERRMSG_SIZE) return r | -1;
        return r | put_b(b, s->errmsg, s->nerr);
    }
    switch (s->what) {
        case ORBGET: case ORBREAP: case ORBGETL: case ORBREAPL: case ORBGETSTASH:
            if (!s->pkg) return r | -1;
            r |= put_pkg(b, s->what, s->pkg, body);
            break;
        case ORBSTAT: r |= pbnsOrbstat(b, &s->orbstat); break;
        case ORBCLIENTS:
            r |= put_d(b, s->client_when);
            r |= put_i(b, s->nclient);
            if (s->nclient > 0 && !s->client) return r | -1;
            for (int i = 0; i < s->nclient; i++) r |= pbnsOrbclient(b, &s->client[i]);
            break;
        case ORBSOURCES:
            r |= put_d(b, s->source_when);
            r |= put_i(b, s->nsource);
            if (s->nsource > 0 && !s->source) return r | -1;
            for (int i = 0; i < s->nsource; i++) r |= pbnsOrbsrc(b, &s->source[i]);
            break;
        case ORBSEEK: case ORBTELL: case ORBAFTER: case ORBPUTX: case ORBPUTXL:
            r |= put_i(b, s->pktid);
            break;
        case ORBSELECT: case ORBREJECT: r |= put_i(b, s->nselections); break;
        case ORBPING: r |= put_i(b, s->version); break;
        case ORBOPEN: case ORBSIGNEDOPEN:
            r |= put_d(b, s->orb_start);
            r |= put_d(b, s->server_start);
            r |= put_i(b, s->latest_pktid);
            break;
        case ORBID: r |= put_i(b, s->thread); break;
        case ORBRUP:
            r |= put_i(b, s->active);
            r |= put_d(b, s->orb_start);
            r |= put_d(b, s->server_start);
            r |= put_i(b, s->latest_pktid);
            break;
        case ORBSTASHSELECT: r |= put_i(b, s->stashflag); break;
        case ORBCHALLENGE: r |= put_b(b, s->challenge, ORB_CHALLENGE_SIZE); break;
        default: break;
    }
    return r;
}

int pbnsOrbresponse(Bns* b, Orbresponse* s) { return put_response(b, s, true); }
int pbnsOrbresponseHead(Bns* b, Orbresponse* s) { return put_response(b, s, false); }

// Decodes count records into an array that grows as records actually arrive,
// so a hostile count costs no more memory than the bytes sent for it.
template <typename T>
static int get_array(Bns* b, int count, T** array, int* sz, int (*decode)(Bns*, T*), void (*init)(T*),
                     const char* what) {
    for (int i = 0; i < count; i++) {
        if (i >= *sz) {
            int n = std::min(count, std::max(8, 2 * *sz));
            *array = static_cast<T*>(grow(*array, sizeof(T) * n, __LINE__, what));
            for (int k = *sz; k < n; k++) init(&(*array)[k]);
            *sz = n;
        }
        if (decode(b, &(*array)[i])) return -1;
    }
    return 0;
}

int gbnsOrbresponse(Bns* b, Orbresponse* s) {
    if (get_i(b, &s->what) || get_i(b, &s->result)) return -1;
    if (s->result != 0) {
        if (get_i(b, &s->nerr)) return -1;
        int n = std::clamp(s->nerr, 0, ORB_ERRMSG_SIZE);
        if (get_b(b, s->errmsg, n)) return -1;
        if (n < ORB_ERRMSG_SIZE) s->errmsg[n] = 0;
        s->errmsg[ORB_ERRMSG_SIZE] = 0;
        return 0;
    }
    switch (s->what) {
        case ORBGET: case ORBREAP: case ORBGETL: case ORBREAPL: case ORBGETSTASH:
            if (!s->pkg) {
                s->pkg = newPktpkg();
                s->sZpkg = 1;
            }
            return gbnsPktpkg(b, s->what, s->pkg);
        case ORBSTAT: return gbnsOrbstat(b, &s->orbstat);
        case ORBCLIENTS:
            if (get_d(b, &s->client_when) || get_i(b, &s->nclient)) return -1;
            return get_array(b, s->nclient, &s->client, &s->sZclient, gbnsOrbclient, initOrbclient, "s->client");
        case ORBSOURCES:
            if (get_d(b, &s->source_when) || get_i(b, &s->nsource)) return -1;
            return get_array(b, s->nsource, &s->source, &s->sZsource, gbnsOrbsrc, initOrbsrc, "s->source");
        case ORBSEEK: case ORBTELL: case ORBAFTER: case ORBPUTX: case ORBPUTXL:
            return get_i(b, &s->pktid);
        case ORBSELECT: case ORBREJECT: return get_i(b, &s->nselections);
        case ORBPING: return get_i(b, &s->version);
        case ORBOPEN: case ORBSIGNEDOPEN:
            return get_d(b, &s->orb_start) || get_d(b, &s->server_start) || get_i(b, &s->latest_pktid) ? -1 : 0;
        case ORBID: return get_i(b, &s->thread);
        case ORBRUP:
            return get_i(b, &s->active) || get_d(b, &s->orb_start) || get_d(b, &s->server_start) ||
                           get_i(b, &s->latest_pktid)
                       ? -1 : 0;
        case ORBSTASHSELECT: return get_i(b, &s->stashflag);
        case ORBCHALLENGE:
            if (get_b(b, s->challenge, ORB_CHALLENGE_SIZE)) return -1;
            s->challenge[ORB_CHALLENGE_SIZE] = 0;
            return 0;
        default: return 0;
    }
}

// ---- printers ----

static void addr(FILE* f, const char* rec, const unsigned char* a, const char* comment) {
    fprintf(f, "\t%s->address = %u.%u.%u.%u # %s\n", rec, a[0], a[1], a[2], a[3], comment);
}

void dumpPktpkg(FILE* f, const Pktpkg* p) {
    fprintf(f, "\tPktpkg->time = %17.5f # packet time\n", p->time);
    fprintf(f, "\tPktpkg->pktid = %d # packet id on the orb\n", p->pktid);
    fprintf(f, "\tPktpkg->packetsize = %d # bytes of packet in use\n", p->packetsize);
    fprintf(f, "\tPktpkg->sZpacket = %d # bytes allocated for packet\n", p->sZpacket);
    fprintf(f, "\tPktpkg->srcnamesize = %u # length of source name\n", (unsigned)p->srcnamesize);
    fprintf(f, "\tPktpkg->srcname = %s # source name\n", p->srcname);
}

void dumpOrbsrc(FILE* f, const Orbsrc* s) {
    fprintf(f, "\tOrbsrc->srcname = %s # source name\n", s->srcname);
    fprintf(f, "\tOrbsrc->active = %d # data originating now on this port\n", s->active);
    fprintf(f, "\tOrbsrc->soldest = %d # pktid of oldest packet on orb\n", s->soldest);
    fprintf(f, "\tOrbsrc->slatest = %d # pktid of latest packet on orb\n", s->slatest);
    fprintf(f, "\tOrbsrc->npkts = %d # packets of this source on orb\n", s->npkts);
    fprintf(f, "\tOrbsrc->nbytes = %d # bytes of this source on orb\n", s->nbytes);
    fprintf(f, "\tOrbsrc->soldest_time = %12g # time of oldest packet on orb\n", s->soldest_time);
    fprintf(f, "\tOrbsrc->slatest_time = %12g # time of latest packet on orb\n", s->slatest_time);
}

void dumpOrbclient(FILE* f, const Orbclient* c) {
    fprintf(f, "\tOrbclient->started = %12g # time client was connected\n", c->started);
    fprintf(f, "\tOrbclient->lastpkt = %12g # time of latest packet to or from client\n", c->lastpkt);
    fprintf(f, "\tOrbclient->pktid = %d # current packet id\n", c->pktid);
    fprintf(f, "\tOrbclient->packets = %u # packets to or from client\n", c->packets);
    fprintf(f, "\tOrbclient->bytes = %u # packet bytes to or from client\n", c->bytes);
    fprintf(f, "\tOrbclient->read = %u # bytes read from client\n", c->read);
    fprintf(f, "\tOrbclient->written = %u # bytes written to client\n", c->written);
    fprintf(f, "\tOrbclient->nreads = %u # reads from client\n", c->nreads);
    fprintf(f, "\tOrbclient->nwrites = %u # writes to client\n", c->nwrites);
    fprintf(f, "\tOrbclient->nrequests = %u # requests from client\n", c->nrequests);
    fprintf(f, "\tOrbclient->mymessages = %d # messages about client\n", c->mymessages);
    fprintf(f, "\tOrbclient->lastrequest = %d # last request code\n", c->lastrequest);
    fprintf(f, "\tOrbclient->priority = %d # priority\n", c->priority);
    fprintf(f, "\tOrbclient->errors = %d # errors\n", c->errors);
    fprintf(f, "\tOrbclient->nselect = %d # length of select with its NUL\n", c->nselect);
    fprintf(f, "\tOrbclient->select = %s # select pattern\n", c->select);
    fprintf(f, "\tOrbclient->nreject = %d # length of reject with its NUL\n", c->nreject);
    fprintf(f, "\tOrbclient->reject = %s # reject pattern\n", c->reject);
    fprintf(f, "\tOrbclient->fd = %d # server descriptor for client\n", c->fd);
    fprintf(f, "\tOrbclient->thread = %d # server thread for client\n", c->thread);
    addr(f, "Orbclient", c->address, "client ip address");
    fprintf(f, "\tOrbclient->port = %d # client port\n", c->port);
    fprintf(f, "\tOrbclient->who = %s # who runs the client\n", c->who);
    fprintf(f, "\tOrbclient->host = %s # client host\n", c->host);
    fprintf(f, "\tOrbclient->what = %s # what the client is\n", c->what);
    fprintf(f, "\tOrbclient->pid = %d # client process id\n", c->pid);
    fprintf(f, "\tOrbclient->perm = %c # permission (r or w)\n", c->perm ? c->perm : ' ');
}

void dumpOrbOpenString(FILE* f, const OrbOpenString* o) {
    fprintf(f, "\tOrbOpenString->handshake = %d # sanity check value\n", o->handshake);
    fprintf(f, "\tOrbOpenString->who = %s # who runs the client\n", o->who);
    fprintf(f, "\tOrbOpenString->what = %s # what the client is\n", o->what);
    fprintf(f, "\tOrbOpenString->pid = %d # client process id\n", o->pid);
    fprintf(f, "\tOrbOpenString->perm = %c # permission (r or w)\n", o->perm ? o->perm : ' ');
}

void dumpOrbstat(FILE* f, const Orbstat* s) {
    fprintf(f, "\tOrbstat->maxdata = %u # largest packet\n", s->maxdata);
    fprintf(f, "\tOrbstat->maxpkts = %d # packet id modulus\n", s->maxpkts);
    fprintf(f, "\tOrbstat->maxsrc = %d # most sources\n", s->maxsrc);
    fprintf(f, "\tOrbstat->nclients = %d # clients connected\n", s->nclients);
    fprintf(f, "\tOrbstat->nsources = %d # sources on orb\n", s->nsources);
    fprintf(f, "\tOrbstat->started = %12g # time orbserver started\n", s->started);
    fprintf(f, "\tOrbstat->when = %12g # time of this status\n", s->when);
    fprintf(f, "\tOrbstat->pid = %d # pid for orbserver\n", s->pid);
    addr(f, "Orbstat", s->address, "orbserver ip address");
    fprintf(f, "\tOrbstat->port = %d # orbserver port\n", s->port);
    fprintf(f, "\tOrbstat->opens = %d # opens\n", s->opens);
    fprintf(f, "\tOrbstat->closes = %d # closes\n", s->closes);
    fprintf(f, "\tOrbstat->rejected = %d # rejected connections\n", s->rejected);
    fprintf(f, "\tOrbstat->errors = %d # errors\n", s->errors);
    fprintf(f, "\tOrbstat->host = %s # orbserver host\n", s->host);
    fprintf(f, "\tOrbstat->who = %s # who runs orbserver\n", s->who);
    fprintf(f, "\tOrbstat->version = %s # orbserver version\n", s->version);
    fprintf(f, "\tOrbstat->orb_start = %12g # time the ring buffer was created\n", s->orb_start);
    fprintf(f, "\tOrbstat->messages = %d # messages\n", s->messages);
    fprintf(f, "\tOrbstat->connections = %d # connections\n", s->connections);
}

void dumpOrbrequest(FILE* f, const Orbrequest* r) {
    fprintf(f, "\tOrbrequest->what = %d # = -1 request code\n", r->what);
    fprintf(f, "\tOrbrequest->time = %17.5f # time for ORBAFTER\n", r->time);
    fprintf(f, "\tOrbrequest->reap_maxtime = %17.5f # time limit of a streaming read\n", r->reap_maxtime);
    fprintf(f, "\tOrbrequest->reap_maxbytes = %d # packet bytes per streamed packet\n", r->reap_maxbytes);
    fprintf(f, "\tOrbrequest->reap_maxpkts = %d # packets of a streaming read\n", r->reap_maxpkts);
    fprintf(f, "\tOrbrequest->srcname = %s # source name for ORBGETSTASH\n", r->srcname);
    fprintf(f, "\tOrbrequest->pktcode = %d # packet id or position\n", r->pktcode);
    fprintf(f, "\tOrbrequest->nselect = %d # length of select with its NUL\n", r->nselect);
    fprintf(f, "\tOrbrequest->select = %s # select pattern\n", r->select ? r->select : "");
    fprintf(f, "\tOrbrequest->nreject = %d # length of reject with its NUL\n", r->nreject);
    fprintf(f, "\tOrbrequest->reject = %s # reject pattern\n", r->reject ? r->reject : "");
    fprintf(f, "\tOrbrequest->thread = %d # server thread\n", r->thread);
    fprintf(f, "\tOrbrequest->athread = %d # server thread asked about\n", r->athread);
    fprintf(f, "\tOrbrequest->stashflag = %d # stash selection\n", r->stashflag);
    fprintf(f, "\tOrbrequest->newpri = %d # new priority\n", r->newpri);
    fprintf(f, "\tOrbrequest->logflag = %d # server logging\n", r->logflag);
    fprintf(f, "\tOrbrequest->signer = %s # signer name\n", r->signer);
    if (r->pkg) dumpPktpkg(f, r->pkg);
    if (r->hello) dumpOrbOpenString(f, r->hello);
}

void dumpOrbresponse(FILE* f, const Orbresponse* r) {
    fprintf(f, "\tOrbresponse->what = %d # request code\n", r->what);
    fprintf(f, "\tOrbresponse->result = %d # result code\n", r->result);
    if (r->result != 0) {
        fprintf(f, "\tOrbresponse->nerr = %d # length of error message\n", r->nerr);
        fprintf(f, "\tOrbresponse->errmsg = %s # error message\n", r->errmsg);
        return;
    }
    fprintf(f, "\tOrbresponse->pktid = %d # packet id\n", r->pktid);
    fprintf(f, "\tOrbresponse->latest_pktid = %d # latest packet id on orb\n", r->latest_pktid);
    fprintf(f, "\tOrbresponse->orb_start = %12g # time the ring buffer was created\n", r->orb_start);
    fprintf(f, "\tOrbresponse->server_start = %12g # time orbserver started\n", r->server_start);
    fprintf(f, "\tOrbresponse->nselections = %d # sources selected\n", r->nselections);
    fprintf(f, "\tOrbresponse->version = %d # orbserver protocol version\n", r->version);
    fprintf(f, "\tOrbresponse->thread = %d # server thread\n", r->thread);
    fprintf(f, "\tOrbresponse->active = %d # 1 if thread is active\n", r->active);
    fprintf(f, "\tOrbresponse->stashflag = %d # stash selection\n", r->stashflag);
    fprintf(f, "\tOrbresponse->nclient = %d # clients\n", r->nclient);
    fprintf(f, "\tOrbresponse->nsource = %d # sources\n", r->nsource);
    if (r->pkg) dumpPktpkg(f, r->pkg);
    if (r->what == ORBSTAT) dumpOrbstat(f, &r->orbstat);
    for (int i = 0; r->what == ORBCLIENTS && i < r->nclient && i < r->sZclient; i++) dumpOrbclient(f, &r->client[i]);
    for (int i = 0; r->what == ORBSOURCES && i < r->nsource && i < r->sZsource; i++) dumpOrbsrc(f, &r->source[i]);
}

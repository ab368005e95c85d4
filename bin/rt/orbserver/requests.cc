// Each request and its answer. Errors go back to the client as error results;
// nothing a request carries can stop the loop.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "frontend_impl.h"
#include "records.h"
#include "stock/allot.h"
#include "stock/elog.h"

using namespace fe;

void Frontend::Impl::send_error(Client& c, int what, const std::string& msg) {
    Orbresponse* r = c.resp;
    r->what = what;
    r->result = -1;
    copy_text(r->errmsg, sizeof r->errmsg, msg.c_str());
    r->nerr = int(std::strlen(r->errmsg));
    put_response(c);
    errors++;
    if (c.counters) c.counters->errors++;
    if (settings.verbose || c.logflag)
        elog_notify(0, "%s from %s:%d: %s\n", orbreq2name(what) ? orbreq2name(what) : "request",
                    c.host.c_str(), c.port, msg.c_str());
}

Orbresponse* Frontend::Impl::start(Client& c, int what) {
    Orbresponse* r = c.resp;
    r->what = what;
    r->result = 0;
    r->nerr = 0;
    return r;
}

int Frontend::Impl::put_response(Client& c) {
    buf2bns(c.out, "orbm", 4);
    return pbnsOrbresponse(c.out, c.resp);
}

void Frontend::Impl::handle_open(Client& c, Orbrequest* q) {
    OrbOpenString* h = q->hello;
    if (q->what == ORBSIGNEDOPEN || (auth && auth->needs_signature(h && h->perm == 'w' ? 'w' : 'r'))) {
        std::string why = q->what != ORBSIGNEDOPEN ? std::string("opens for ") +
                              (h && h->perm == 'w' ? "writing" : "reading") + " must be signed on this server"
                          : auth ? auth->verify(c.challenge, q, monotonic())
                                 : "signed opens are not supported by this server";
        if (!why.empty()) return refuse_open(c, q, why);
    }
    char perm = h && h->perm == 'w' ? 'w' : 'r';
    bool allowed = perm == 'w' ? c.may_write : c.may_read;
    if (!allowed) {
        rejected++;
        std::string why = "address " + addr_text(c.addr) + " may not " +
                          (perm == 'w' ? "write to" : "read from") + " this ring";
        elog_complain(0, "rejected open from %s:%d (%s): %s\n", c.host.c_str(), c.port,
                      h ? h->what : "", why.c_str());
        send_error(c, q->what, why);
        c.closing = true;
        return;
    }
    if (c.slot < 0) {
        ring::Client rc;
        rc.fd = c.in_fd;
        rc.port = c.port;
        uint32_t na = htonl(c.addr);
        std::memcpy(rc.address, &na, 4);
        rc.perm = perm;
        if (h) {
            copy_text(rc.who, sizeof rc.who, h->who);
            copy_text(rc.what, sizeof rc.what, h->what);
        }
        copy_text(rc.host, sizeof rc.host, c.host.c_str());
        c.slot = ring->client_add(rc);
        if (c.slot < 0) {
            rejected++;
            elog_complain(0, "rejected open from %s:%d: the client table is full\n",
                          c.host.c_str(), c.port);
            send_error(c, q->what, "too many clients of this ring");
            c.closing = true;
            return;
        }
        c.counters = ring->counters(c.slot);
        for (const auto& rcl : ring->clients())
            if (rcl.slot == c.slot) c.thread = rcl.thread;
    }
    c.opened = true;
    c.perm = perm;
    opens++;
    stand(c, int64_t(ring->head()) - 1);
    Orbresponse* r = start(c, q->what);
    r->orb_start = ring->status().orb_start;
    r->server_start = server_start;
    r->latest_pktid = latest_pktid();
    finish(c);
    if (settings.verbose)
        elog_notify(0, "open from %s:%d by %s running %s (%c), session %d\n", c.host.c_str(),
                    c.port, h ? h->who : "", h ? h->what : "", perm, c.thread);
}

void Frontend::Impl::handle_put(Client& c, Orbrequest* q) {
    Pktpkg* p = q->pkg;
    bool answer = q->what == ORBPUTX || q->what == ORBPUTXL;
    if (!c.may_write) {
        rejected++;
        elog_complain(0, "refused put from %s:%d: address may not write\n", c.host.c_str(), c.port);
        if (answer) send_error(c, q->what, "address " + addr_text(c.addr) + " may not write");
        return;
    }
    PutDone d{c.id, q->what, p ? p->srcname : "", p ? p->time : 0,
              p ? uint32_t(std::max(p->packetsize, 0)) : 0, -1, {}};
    if (!p || p->packetsize < 0) {
        d.why = "bad packet";
    } else if (p->pktid == ORBSTASH) {
        if (!ring->stash_put(p->srcname, p->time, p->packet, size_t(p->packetsize), &d.why) && d.why.empty())
            d.why = "stash refused";
        d.seq = -2;
    } else {
        // A store that completes later (a replicated one) answers through
        // the loop; until then the client's further requests wait, so its
        // answers keep their order.
        auto loop = std::this_thread::get_id();
        bool inline_done = false;
        ring->put_async(p->srcname, p->time, p->packet, size_t(p->packetsize),
                        [this, d, loop, &inline_done](int64_t seq, const std::string& why) mutable {
                            d.seq = seq;
                            d.why = seq < 0 && why.empty() ? "put refused" : why;
                            if (std::this_thread::get_id() == loop) {
                                inline_done = true;
                                return complete_put(d);
                            }
                            std::lock_guard lk(puts_mu);
                            puts_done.push_back(std::move(d));
                            uint64_t one = 1;
                            ssize_t r = write(wake_fd, &one, sizeof one);
                            (void)r;
                        });
        if (!inline_done && answer) c.awaiting_put = true;
        return;
    }
    complete_put(d);
}

void Frontend::Impl::complete_put(const PutDone& d) {
    auto it = clients.find(d.client);
    Client* c = it == clients.end() || it->second->dead ? nullptr : it->second.get();
    bool answer = d.what == ORBPUTX || d.what == ORBPUTXL;
    if (c) c->awaiting_put = false;
    if (!d.why.empty()) {
        errors++;
        if (c && c->counters) c->counters->errors++;
        elog_complain(0, "put of '%s' from %s:%d refused: %s\n", d.srcname.c_str(), c ? c->host.c_str() : "?",
                      c ? c->port : 0, d.why.c_str());
        if (c && answer) send_error(*c, d.what, d.why);
        return;
    }
    if (c && c->counters) {
        c->counters->written += d.size;
        c->counters->bytes += d.size;
        c->counters->packets++;
        c->counters->nwrites++;
        c->counters->lastpkt = d.time;
    }
    count_written(d.srcname.c_str(), d.size);
    if (c && answer) {
        Orbresponse* r = start(*c, d.what);
        r->pktid = d.seq >= 0 ? ring->pktid(uint64_t(d.seq)) : ORBSTASH;
        finish(*c);
    }
}

// Puts the store completed on its own threads, answered from the loop; a
// client that waited on one reads its next requests.
void Frontend::Impl::finish_puts() {
    std::vector<PutDone> done;
    {
        std::lock_guard lk(puts_mu);
        done.swap(puts_done);
    }
    for (const PutDone& d : done) {
        complete_put(d);
        auto it = clients.find(d.client);
        if (it == clients.end() || it->second->dead || it->second->awaiting_put) continue;
        read_requests(*it->second);
        if (!it->second->dead) flush_out(*it->second);
    }
}

void Frontend::Impl::handle_get(Client& c, Orbrequest* q) {
    int code = q->pktcode;
    if (code == ORBNEXT_WAIT) {
        c.stream = Stream::get_wait;
        c.get_code = ORBGET;
        return;
    }
    ring::Entry e;
    std::string why;
    for (int tries = 0; tries < 8 && !c.dead; tries++) {
        auto s = locate(c, code, &e, why);
        if (!s) break;
        if (encode_packet(c, ORBGET, *s, -1, &e)) {
            stand(c, int64_t(*s));
            return;
        }
        why = "packet left the ring";
    }
    if (!c.dead) send_error(c, ORBGET, why);
}

void Frontend::Impl::handle_seek(Client& c, Orbrequest* q) {
    int code = q->pktcode;
    ring::Entry e;
    std::string why;
    int pktid;
    if (code == ORBOLDEST) {
        uint64_t t = ring->tail();
        c.pos = int64_t(t) - 1;
        c.at_oldest = true;
        c.scan_from = 0;
        pktid = ring->head() > t ? ring->pktid(t) : -1;
        if (c.counters) c.counters->pktid = pktid;
    } else if (code == ORBNEWEST && !ring->newest()) {
        stand(c, int64_t(ring->head()) - 1);
        pktid = -1;
    } else {
        auto s = locate(c, code, &e, why);
        if (!s) {
            send_error(c, ORBSEEK, why);
            return;
        }
        stand(c, int64_t(*s));
        pktid = e.pktid;
    }
    Orbresponse* r = start(c, ORBSEEK);
    r->pktid = pktid;
    finish(c);
}

int Frontend::Impl::count_selected(Client& c) {
    int n = 0;
    for (const auto& s : ring->sources()) {
        ring::Entry e;
        e.src = s.index;
        copy_text(e.srcname, sizeof e.srcname, s.srcname);
        if (selected(c, e)) n++;
    }
    return n;
}

void Frontend::Impl::handle_pattern(Client& c, Orbrequest* q) {
    bool sel = q->what == ORBSELECT;
    const char* raw = sel ? q->select : q->reject;
    int n = sel ? q->nselect : q->nreject;
    std::string text = raw && n > 0 ? std::string(raw, strnlen(raw, size_t(n))) : std::string();
    Pattern& p = sel ? c.select : c.reject;
    if (text.empty()) {
        p.clear();
    } else if (std::string err = p.set(text); !err.empty()) {
        send_error(c, q->what, "bad pattern '" + text + "': " + err);
        return;
    }
    c.verdicts.clear();
    c.scan_from = 0;
    if (c.slot >= 0) {
        if (sel) ring->client_set_select(c.slot, p.text());
        else ring->client_set_reject(c.slot, p.text());
    }
    Orbresponse* r = start(c, q->what);
    r->nselections = count_selected(c);
    finish(c);
}

void Frontend::Impl::handle_stat(Client& c) {
    fill_stat(start(c, ORBSTAT)->orbstat);
    finish(c);
}

void Frontend::Impl::fill_stat(Orbstat& s) {
    ring::Status st = ring->status();
    s.when = std_now();
    s.started = server_start;
    s.orb_start = st.orb_start;
    s.maxdata = st.data_bytes > 0xffffffffull ? 0xffffffffu : unsigned(st.data_bytes);
    s.maxpkts = st.maxpkts;
    s.maxsrc = int(st.maxsrc);
    s.nclients = int(st.nclients);
    s.nsources = int(st.nsources);
    s.pid = getpid();
    uint32_t na = htonl(listen_addr);
    std::memcpy(s.address, &na, 4);
    s.port = listen_port;
    s.opens = opens;
    s.closes = closes;
    s.rejected = rejected;
    s.errors = errors;
    s.messages = messages;
    s.connections = nlocal;
    copy_text(s.host, sizeof s.host, hostname.c_str());
    copy_text(s.who, sizeof s.who, user.c_str());
    copy_text(s.version, sizeof s.version, "ferrant2 ring server 1.0");
}

void Frontend::Impl::count_written(const char* srcname, uint64_t bytes) {
    totals.packets_written++;
    totals.bytes_written += bytes;
    auto it = totals.by_source.find(std::string_view(srcname));
    if (it == totals.by_source.end()) it = totals.by_source.emplace(srcname, status::Totals::Source{}).first;
    it->second.packets++;
    it->second.bytes += bytes;
}

status::Snapshot Frontend::Impl::snapshot() {
    status::Snapshot snap;
    snap.name = ring_name;
    snap.store = ring->describe();
    fill_stat(snap.stat);
    auto oldest = ring->oldest(), newest = ring->newest();
    snap.oldest = oldest ? ring->pktid(*oldest) : -1;
    snap.newest = newest ? ring->pktid(*newest) : -1;
    for (const auto& k : ring->sources()) fill_orbsrc(snap.sources.emplace_back(), k);
    for (const auto& k : ring->clients()) fill_orbclient(snap.clients.emplace_back(), k);
    snap.totals = totals;
    return snap;
}

void Frontend::Impl::handle_clients(Client& c) {
    std::vector<ring::Client> list = ring->clients();
    Orbresponse* r = start(c, ORBCLIENTS);
    r->client_when = std_now();
    if (r->sZclient < int(list.size())) {
        reallot(Orbclient*, r->client, list.size());
        r->sZclient = int(list.size());
    }
    r->nclient = int(list.size());
    for (size_t i = 0; i < list.size(); i++) fill_orbclient(r->client[i], list[i]);
    finish(c);
}

void Frontend::Impl::handle_sources(Client& c) {
    std::vector<ring::Source> list = ring->sources();
    Orbresponse* r = start(c, ORBSOURCES);
    r->source_when = std_now();
    if (r->sZsource < int(list.size())) {
        reallot(Orbsrc*, r->source, list.size());
        r->sZsource = int(list.size());
    }
    r->nsource = int(list.size());
    for (size_t i = 0; i < list.size(); i++) fill_orbsrc(r->source[i], list[i]);
    finish(c);
}

Client* Frontend::Impl::local_by_thread(int thread) {
    for (auto& [id, k] : clients)
        if (!k->dead && k->thread == thread && k->opened) return k.get();
    return nullptr;
}

void Frontend::Impl::handle(Client& c, Orbrequest* q) {
    int what = q->what;
    messages++;
    c.last_request = monotonic();
    if (c.counters) {
        c.counters->nrequests++;
        c.counters->lastrequest = what;
    }
    if (c.logflag || settings.verbose > 1)
        elog_notify(0, "request %s (%d) from %s:%d\n", orbreq2name(what) ? orbreq2name(what) : "?",
                    what, c.host.c_str(), c.port);
    // Any request ends a stream; the client discards what was pushed before.
    if (what != ORBREAP && what != ORBREAPL) c.stream = Stream::none;

    if (!c.opened && what != ORBOPEN && what != ORBPING && what != ORBCHALLENGE &&
        what != ORBSIGNEDOPEN) {
        rejected++;
        elog_complain(0, "%s from %s:%d before ORBOPEN refused\n",
                      orbreq2name(what) ? orbreq2name(what) : "unknown request", c.host.c_str(), c.port);
        if (what != ORBPUT && what != ORBPUTL) send_error(c, what, "open the connection first");
        return;
    }
    switch (what) {
    case ORBOPEN:
        handle_open(c, q);
        break;
    case ORBPUT:
    case ORBPUTL:
    case ORBPUTX:
    case ORBPUTXL:
        handle_put(c, q);
        break;
    case ORBGET:
        if (check_rights(c, what, c.may_read, "read")) handle_get(c, q);
        break;
    case ORBREAP:
    case ORBREAPL:
        if (!check_rights(c, what, c.may_read, "read")) break;
        c.stream = Stream::reap;
        c.reap_maxtime = q->reap_maxtime;
        c.reap_maxbytes = q->reap_maxbytes;
        c.reap_left = q->reap_maxpkts > 0 ? q->reap_maxpkts : -1;
        push(c);
        break;
    case ORBSEEK:
        handle_seek(c, q);
        break;
    case ORBTELL: {
        Orbresponse* r = start(c, what);
        r->pktid = tell(c);
        finish(c);
        break;
    }
    case ORBAFTER: {
        auto s = ring->after_time(q->time);
        if (!s) {
            char buf[64];
            std::snprintf(buf, sizeof buf, "%.5f", q->time);
            send_error(c, what, std::string("no packet after ") + buf);
            break;
        }
        stand(c, int64_t(*s));
        Orbresponse* r = start(c, what);
        r->pktid = ring->pktid(*s);
        finish(c);
        break;
    }
    case ORBSELECT:
    case ORBREJECT:
        handle_pattern(c, q);
        break;
    case ORBSTAT:
        handle_stat(c);
        break;
    case ORBCLIENTS:
        handle_clients(c);
        break;
    case ORBSOURCES:
        handle_sources(c);
        break;
    case ORBPING: {
        Orbresponse* r = start(c, what);
        r->version = kVersion;
        finish(c);
        break;
    }
    case ORBID: {
        Orbresponse* r = start(c, what);
        r->thread = c.thread;
        finish(c);
        break;
    }
    case ORBRUP: {
        Orbresponse* r = start(c, what);
        r->active = q->athread >= 0 && ring->session_active(q->athread) ? 1 : 0;
        r->orb_start = ring->status().orb_start;
        r->server_start = server_start;
        r->latest_pktid = latest_pktid();
        finish(c);
        break;
    }
    case ORBCLOSE:
        start(c, what);
        finish(c);
        c.closing = true;
        break;
    case ORBSTASHSELECT:
        if (q->stashflag < 0 || q->stashflag > 2) {
            send_error(c, what, "stash flag must be 0, 1 or 2");
            break;
        }
        c.stashflag = q->stashflag;
        start(c, what)->stashflag = c.stashflag;
        finish(c);
        break;
    case ORBGETSTASH: {
        if (!check_rights(c, what, c.may_read, "read")) break;
        ring::Entry e;
        std::vector<char> buf;
        char name[ORB_SRCNAME_SIZE + 1];
        copy_text(name, sizeof name, q->srcname);
        if (!ring->stash_get(name, &e, buf)) {
            send_error(c, what, std::string("no stash for '") + name + "'");
            break;
        }
        Orbresponse* r = start(c, what);
        Pktpkg* p = r->pkg;
        p->pktid = ORBSTASH;
        p->time = e.time;
        copy_text(p->srcname, sizeof p->srcname, e.srcname);
        p->srcnamesize = static_cast<unsigned short>(std::strlen(p->srcname));
        p->packet = buf.data();
        p->packetsize = p->sZpacket = int(buf.size());
        finish(c);
        p->packet = nullptr;
        p->sZpacket = 0;
        break;
    }
    case ORBSETPRI: {
        Client* k = local_by_thread(q->thread);
        if (k != &c && !check_rights(c, what, c.may_admin, "change another client")) break;
        if (!k) {
            send_error(c, what, "no client with session " + std::to_string(q->thread) + " here");
            break;
        }
        k->priority = q->newpri;
        if (k->counters) k->counters->priority = q->newpri;
        start(c, what);
        finish(c);
        break;
    }
    case ORBSETLOGGING:
        c.logflag = q->logflag;
        start(c, what);
        finish(c);
        break;
    case ORBKILL: {
        if (!check_rights(c, what, c.may_admin, "kill clients")) break;
        Client* k = local_by_thread(q->thread);
        if (!k) {
            send_error(c, what, "no client with session " + std::to_string(q->thread) + " here");
            break;
        }
        elog_notify(0, "session %d killed on request of %s:%d\n", q->thread, c.host.c_str(), c.port);
        start(c, what);
        finish(c);
        if (k == &c) c.closing = true;
        else drop(*k, "killed by an administrator");
        break;
    }
    case ORBHALT:
        if (!check_rights(c, what, c.may_admin, "halt the server")) break;
        elog_notify(0, "halt requested by %s:%d\n", c.host.c_str(), c.port);
        start(c, what);
        finish(c);
        flush_out(c);
        stopping = true;
        break;
    case ORBCHALLENGE:
        handle_challenge(c, q);
        break;
    case ORBSIGNEDOPEN:
        handle_open(c, q);
        break;
    default:
        send_error(c, what, std::string("unknown or unsupported request ") +
                                (orbreq2name(what) ? orbreq2name(what) : std::to_string(what)));
        break;
    }
}

// Readers' positions and streams: resolving position codes, applying select
// and reject, encoding packets (large ones written straight from the ring),
// and pushing reaps and waiting gets as packets arrive.
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "frontend_impl.h"
#include "stock/elog.h"

using namespace fe;

// Encodes one packet as a response with code; false (nothing encoded) when
// the packet left the ring meanwhile or cannot be encoded. A large packet
// for a client with nothing pending is written straight from the ring, and
// only what the socket did not take is copied to the output.
bool Frontend::Impl::encode_packet(Client& c, int code, uint64_t seq, int maxbytes, ring::Entry* e) {
    const char* data = nullptr;
    if (c.dead) return false;
    if (!ring->view(seq, e, &data)) {
        // Still indexed yet unreadable: a replicated store between leaders.
        // Streams wait for it rather than pass over it.
        if (ring->entry(seq, e)) read_stalled = true;
        return false;
    }
    size_t n = e->size;
    if (maxbytes >= 0 && size_t(maxbytes) < n) n = size_t(maxbytes);
    Orbresponse* r = start(c, code);
    Pktpkg* p = r->pkg;
    p->pktid = e->pktid;
    p->time = e->time;
    copy_text(p->srcname, sizeof p->srcname, e->srcname);
    p->srcnamesize = static_cast<unsigned short>(std::strlen(p->srcname));
    p->packet = const_cast<char*>(data);
    p->packetsize = int(n);
    p->sZpacket = int(n);
    Bns* o = c.out;
    int mark = o->lp;
    bool direct = n >= kDirectSend && c.pending() == 0 && !c.tls;
    int bad = buf2bns(o, "orbm", 4);
    bad |= direct ? pbnsOrbresponseHead(o, r) : pbnsOrbresponse(o, r);
    p->packet = nullptr;
    p->sZpacket = 0;
    if (bad || !ring->still_valid(seq)) {
        o->lp = mark;
        if (bad) elog_complain(0, "can't encode packet #%d (%u bytes) for %s:%d\n", e->pktid,
                               e->size, c.host.c_str(), c.port);
        return false;
    }
    if (direct && !send_direct(c, seq, data, n, mark)) return false;
    if (c.counters) {
        c.counters->read += uint32_t(n);
        c.counters->bytes += uint32_t(n);
        c.counters->packets++;
        c.counters->nreads++;
        c.counters->lastpkt = e->time;
    }
    totals.packets_sent++;
    totals.bytes_sent += n;
    return true;
}

bool Frontend::Impl::send_direct(Client& c, uint64_t seq, const char* data, size_t n, int mark) {
    Bns* o = c.out;
    size_t head = size_t(o->lp - o->fp);
    iovec iov[2] = {{o->data + o->fp, head}, {const_cast<char*>(data), n}};
    ssize_t w;
    do w = writev(c.out_fd, iov, 2);
    while (w < 0 && errno == EINTR);
    if (w < 0) w = 0;  // a broken connection shows at the next flush
    size_t body = size_t(w) > head ? size_t(w) - head : 0;
    o->fp += int(size_t(w) - body);
    o->nbytes += w;
    if (body < n) buf2bns(o, data + body, int(n - body));
    if (ring->still_valid(seq)) return true;
    if (w == 0) {
        o->lp = mark;
        return false;
    }
    drop(c, "its packet was overwritten while being sent");
    return false;
}

void Frontend::Impl::encode_end(Client& c) {
    Orbresponse* r = start(c, ORBREAP);
    Pktpkg* p = r->pkg;
    p->pktid = kEndOfStream;
    p->time = 0;
    p->srcname[0] = 0;
    p->srcnamesize = 0;
    p->packet = nullptr;
    p->packetsize = 0;
    p->sZpacket = 0;
    put_response(c);
}

void Frontend::Impl::stand(Client& c, int64_t seq) {
    c.pos = seq;
    c.at_oldest = false;
    c.scan_from = 0;
    if (c.counters) c.counters->pktid = seq >= 0 ? ring->pktid(uint64_t(seq)) : -1;
}

bool Frontend::Impl::selected(Client& c, const ring::Entry& e) {
    if (!c.select.active() && !c.reject.active()) return true;
    auto judge = [&](const char* name) {
        bool ok = !c.select.active() || c.select.matches(name);
        if (ok && c.reject.active() && c.reject.matches(name)) ok = false;
        return ok;
    };
    if (e.src < 0) return judge(e.srcname);
    if (size_t(e.src) >= c.verdicts.size()) c.verdicts.resize(size_t(e.src) + 1, {"", -1});
    auto& v = c.verdicts[size_t(e.src)];
    if (v.second < 0 || v.first != e.srcname) {
        v.first = e.srcname;
        v.second = judge(e.srcname) ? 1 : 0;
    }
    return v.second == 1;
}

uint64_t Frontend::Impl::first_candidate(const Client& c) const {
    if (c.at_oldest || c.pos < 0) return ring->tail();
    return ring->next_seq(uint64_t(c.pos));
}

std::optional<uint64_t> Frontend::Impl::next_selected(Client& c, uint64_t seq, ring::Entry* e, uint64_t* end) {
    for (;;) {
        uint64_t tail = ring->tail();
        if (seq < tail) seq = tail;
        if (seq >= ring->head()) {
            if (end) *end = seq;
            return std::nullopt;
        }
        if (!ring->entry(seq, e)) {
            if (seq >= ring->tail()) seq++;  // else evicted meanwhile: from the new tail
            continue;
        }
        if (selected(c, *e)) return seq;
        seq++;
    }
}

std::optional<uint64_t> Frontend::Impl::prev_selected(Client& c, int64_t from, ring::Entry* e) {
    if (from < 0) return std::nullopt;
    uint64_t at = uint64_t(from);
    for (;;) {
        auto p = ring->prev_seq(at);
        if (!p) return std::nullopt;
        if (ring->entry(*p, e) && selected(c, *e)) return p;
        at = *p;
    }
}

std::optional<uint64_t> Frontend::Impl::current(Client& c, ring::Entry* e) {
    if (c.at_oldest) {
        auto o = ring->oldest();
        if (o && ring->entry(*o, e)) return o;
        return std::nullopt;
    }
    if (c.pos >= 0 && ring->entry(uint64_t(c.pos), e)) return uint64_t(c.pos);
    return std::nullopt;
}

int Frontend::Impl::tell(Client& c) {
    if (c.at_oldest) {
        auto o = ring->oldest();
        return o ? ring->pktid(*o) : -1;
    }
    return c.pos >= 0 ? ring->pktid(uint64_t(c.pos)) : -1;
}

int Frontend::Impl::latest_pktid() {
    auto n = ring->newest();
    return n ? ring->pktid(*n) : -1;
}

std::optional<uint64_t> Frontend::Impl::locate(Client& c, int code, ring::Entry* e, std::string& why) {
    std::optional<uint64_t> s;
    switch (code) {
    case ORBCURRENT:
        s = current(c, e);
        if (!s) why = "no current packet";
        return s;
    case ORBNEXT:
        s = next_selected(c, first_candidate(c), e);
        if (!s) why = "no next packet";
        return s;
    case ORBPREV:
        s = prev_selected(c, c.at_oldest ? int64_t(ring->tail()) : c.pos, e);
        if (!s) why = "no previous packet";
        return s;
    case ORBOLDEST:
        s = next_selected(c, ring->tail(), e);
        if (!s) why = "no packets";
        return s;
    case ORBNEWEST: {
        uint64_t h = ring->head();
        s = h > 0 ? prev_selected(c, int64_t(h), e) : std::nullopt;
        if (!s) why = "no packets";
        return s;
    }
    case ORBNEXTT:
    case ORBPREVT: {
        ring::Entry cur;
        auto at = current(c, &cur);
        if (!at) {
            why = "no current packet";
            return std::nullopt;
        }
        if (code == ORBNEXTT) {
            for (s = next_selected(c, *at + 1, e); s; s = next_selected(c, *s + 1, e))
                if (e->time > cur.time) return s;
            why = "no later packet";
        } else {
            for (s = prev_selected(c, int64_t(*at), e); s; s = prev_selected(c, int64_t(*s), e))
                if (e->time < cur.time) return s;
            why = "no earlier packet";
        }
        return std::nullopt;
    }
    default:
        if (code >= 0) {
            if (code < ring->maxpkts()) s = ring->find(code);
            if (s && ring->entry(*s, e)) return s;
            why = "pktid " + std::to_string(code) + " is not in the ring";
            return std::nullopt;
        }
        why = "bad position code " + std::to_string(code);
        return std::nullopt;
    }
}

void Frontend::Impl::pass_over(Client& c, uint64_t seq) {
    if (ring->still_valid(seq)) stand(c, int64_t(seq));
}

bool Frontend::Impl::push(Client& c) {
    if (c.dead || c.stream == Stream::none) return false;
    ring::Entry e;
    while (!c.dead && c.pending() < kOutHigh) {
        // Packets the patterns skipped are not looked at twice.
        uint64_t from = std::max(first_candidate(c), c.scan_from);
        auto s = next_selected(c, from, &e, &c.scan_from);
        if (!s) return true;
        if (c.stream == Stream::get_wait) {
            if (!encode_packet(c, c.get_code, *s, -1, &e)) {
                if (read_stalled) return true;
                pass_over(c, *s);
                continue;
            }
            stand(c, int64_t(*s));
            c.stream = Stream::none;
            return false;
        }
        if (c.reap_maxtime > 0 && e.time > c.reap_maxtime) {
            encode_end(c);
            c.stream = Stream::none;
            return false;
        }
        if (!encode_packet(c, ORBREAP, *s, c.reap_maxbytes, &e)) {
            if (read_stalled) return true;
            pass_over(c, *s);
            continue;
        }
        stand(c, int64_t(*s));
        if (c.reap_left > 0 && --c.reap_left == 0) {
            encode_end(c);
            c.stream = Stream::none;
            return false;
        }
    }
    return false;
}

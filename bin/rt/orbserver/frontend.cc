#include "frontend.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <regex.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <thread>
#include <vector>

#include "auth.h"
#include "board.h"
#include "orb/orbfile.h"
#include "records.h"
#include "stock/bns.h"
#include "deviants/my.h"
#include "stock/elog.h"
#include "stock/epoch.h"

namespace {

constexpr int kVersion = 7;              // protocol version answered to ORBPING
constexpr int kEndOfStream = -32;        // pktid of the package that ends a counted stream
constexpr int kOutHigh = 256 * 1024;     // stop pushing packets above this much pending output
constexpr int kOutStopReading = 4 << 20; // stop reading requests above this much
constexpr int kGarbageLimit = 1024;      // bytes skipped in a row before a client is dropped
constexpr int kInBuffer = 16384;      // initial stream buffers; they grow as needed
constexpr size_t kDirectSend = 64 * 1024;  // packets from this size go out straight from the ring

double monotonic() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

int Stop_fd = -1;  // eventfd written by the signal handler

void on_stop_signal(int) {
    if (Stop_fd >= 0) {
        uint64_t one = 1;
        ssize_t r = write(Stop_fd, &one, sizeof one);
        (void)r;
    }
}

std::string addr_text(uint32_t addr) {
    in_addr a{htonl(addr)};
    char buf[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

void copy_text(char* dst, size_t n, const char* src) {
    size_t len = src ? strnlen(src, n - 1) : 0;
    if (len) std::memcpy(dst, src, len);
    dst[len] = 0;
}

// A compiled select or reject pattern matched against whole source names.
class Pattern {
public:
    Pattern() = default;
    ~Pattern() { clear(); }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    // "" on success, else the compiler's message; the old pattern stays on failure.
    std::string set(const std::string& text) {
        if (std::string why = too_costly(text); !why.empty()) return why;
        regex_t re;
        std::string anchored = "^(" + text + ")$";
        int r = regcomp(&re, anchored.c_str(), REG_EXTENDED | REG_NOSUB);
        if (r != 0) {
            char msg[256];
            regerror(r, &re, msg, sizeof msg);
            return msg;
        }
        clear();
        re_ = re;
        set_ = true;
        text_ = text;
        return "";
    }
    void clear() {
        if (set_) regfree(&re_);
        set_ = false;
        text_.clear();
    }
    bool active() const { return set_; }
    bool matches(const char* name) const { return regexec(&re_, name, 0, nullptr, 0) == 0; }
    const std::string& text() const { return text_; }

private:
    // A client's pattern is compiled and run by the server, so patterns whose
    // cost can explode are refused: back-references (exponential matching)
    // and counted repetitions whose bounds multiply past a few thousand (each
    // one copies what it repeats when compiled). Names are matched once per
    // source and pattern, so an accepted pattern costs little afterwards.
    static std::string too_costly(const std::string& text) {
        double copies = 1;
        for (size_t i = 0; i < text.size(); i++) {
            if (text[i] == '\\' && i + 1 < text.size()) {
                if (text[i + 1] >= '1' && text[i + 1] <= '9') return "back-references are not allowed";
                i++;
            } else if (text[i] == '{') {
                size_t close = text.find('}', i);
                if (close == std::string::npos) break;
                std::string body = text.substr(i + 1, close - i - 1);
                size_t comma = body.find(',');
                std::string hi = comma == std::string::npos ? body : body.substr(comma + 1);
                if (hi.empty()) hi = body.substr(0, comma);
                if (hi.empty() || hi.find_first_not_of("0123456789") != std::string::npos) continue;
                copies *= std::max(1.0, std::stod(hi.substr(0, 6)));
                if (copies > 4096) return "counted repetitions too large";
            }
        }
        return "";
    }

    regex_t re_{};
    bool set_ = false;
    std::string text_;
};

enum class Stream { none, reap, get_wait };

struct Client {
    uint64_t id = 0;
    int in_fd = -1, out_fd = -1;
    bool stdio = false;
    uint32_t addr = 0x7f000001;  // host order
    int port = 0;
    std::string host;
    bool may_read = true, may_write = false, may_admin = false;

    Bns* in = nullptr;
    Bns* out = nullptr;
    Orbrequest* req = nullptr;
    Orbresponse* resp = nullptr;

    bool opened = false;
    char perm = 'r';
    int32_t slot = -1;        // entry in the ring's client table
    int32_t thread = -1;      // session id
    ring::ClientCounters* counters = nullptr;
    int logflag = 0;
    int stashflag = 0;
    int priority = 0;

    // Read position: the seq stood at (may be evicted, or -1 before the first
    // packet); at_oldest after ORBSEEK ORBOLDEST, when the current packet is
    // whatever is oldest and the next read yields it.
    int64_t pos = -1;
    bool at_oldest = false;

    Pattern select, reject;
    std::vector<std::pair<std::string, signed char>> verdicts;  // by source-table index

    uint64_t scan_from = 0;   // no selected packet before this seq (0: unknown)
    Stream stream = Stream::none;
    double reap_maxtime = 0;
    int reap_maxbytes = -1;
    int reap_left = -1;       // packets still to send before the end package; -1 unlimited
    int get_code = ORBGET;

    bool synced = false;      // marker of the current request already read
    int garbage = 0;          // bytes skipped since the last good request
    double partial_since = 0; // monotonic time a partial request started, 0 none
    double last_request = 0;  // monotonic
    bool closing = false;     // drop once the output is written
    bool dead = false;
    uint32_t events = 0;      // registered epoll interest on in_fd
    uint32_t out_events = 0;  // on out_fd when it differs
    std::unique_ptr<TlsSession> tls;  // under in and out on a TLS port
    OpenChallenge challenge;

    ~Client() {
        freeOrbrequest(req);
        freeOrbresponse(resp);
        bnsfree(in);
        bnsfree(out);
    }
    int pending() const { return out ? out->lp - out->fp : 0; }
};

}  // namespace

struct Frontend::Impl {
    Settings settings;
    std::unique_ptr<ring::Ring> ring;
    double server_start = std_now();
    int epfd = -1;
    int listen_fd = -1;
    int wake_fd = -1;    // the waiter thread and stop() write here
    uint32_t listen_addr = 0;
    int listen_port = 0;
    bool stdio_mode = false;
    bool stopping = false;
    int exit_status = 0;

    std::map<uint64_t, std::unique_ptr<Client>> clients;
    uint64_t next_id = 1;
    int nlocal = 0;

    // Statistics for ORBSTAT and the status page.
    int opens = 0, closes = 0, rejected = 0, errors = 0, messages = 0, connections = 0;
    status::Totals totals;
    std::shared_ptr<StatusBoard> board;

    // Waiter thread: sleeps on the ring while armed.
    std::thread waiter;
    std::atomic<bool> armed{false};
    std::atomic<uint64_t> armed_head{0};
    std::atomic<bool> quit{false};

    std::string user = my_username(), hostname = my_hostname();
    std::unique_ptr<TlsContext> tls;  // the port's, when it serves TLS
    std::unique_ptr<Auth> auth;       // signed opens, for TCP clients

    Impl(const Settings& s, std::unique_ptr<ring::Ring> r) : settings(s), ring(std::move(r)) {
        epfd = epoll_create1(EPOLL_CLOEXEC);
        wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (Stop_fd < 0) Stop_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = kWakeTag;
        epoll_ctl(epfd, EPOLL_CTL_ADD, wake_fd, &ev);
        ev.data.u64 = kStopTag;
        epoll_ctl(epfd, EPOLL_CTL_ADD, Stop_fd, &ev);
        waiter = std::thread([this] { wait_loop(); });
    }

    ~Impl() {
        quit = true;
        armed = true;
        armed.notify_all();
        ring->wake_all();
        waiter.join();
        clients.clear();
        if (listen_fd >= 0) close(listen_fd);
        close(wake_fd);
        close(epfd);
    }

    static constexpr uint64_t kListenTag = 1;
    static constexpr uint64_t kWakeTag = 2;
    static constexpr uint64_t kStopTag = 3;
    static constexpr uint64_t kOutFlag = 1ull << 63;

    // ---------------------------------------------------------------- waiting

    void wait_loop() {
        while (!quit) {
            armed.wait(false);
            // The count is taken before quit is looked at: the destructor's
            // wake_all() after setting quit then either shows in the count or
            // comes after a look that sees quit, so it is never slept through.
            uint32_t since = ring->wake_count();
            if (quit) break;
            uint64_t h = armed_head.load();
            ring->wait_since(h, since, 2000);
            if (quit) break;
            if (ring->head() > h) {
                armed = false;
                uint64_t one = 1;
                ssize_t r = write(wake_fd, &one, sizeof one);
                (void)r;
            }
        }
    }

    void arm(uint64_t head) {
        armed_head = head;
        if (!armed.exchange(true)) armed.notify_one();
    }

    // ---------------------------------------------------------------- clients

    Client* add_client(int in, int out, bool stdio) {
        auto c = std::make_unique<Client>();
        c->id = ++next_id + 16;
        c->in_fd = in;
        c->out_fd = out;
        c->stdio = stdio;
        c->in = bnsnew(in, kInBuffer);
        bnstimeout(c->in, 0);
        c->out = bnsnew(out, kInBuffer);
        c->req = newOrbrequest();
        c->resp = newOrbresponse();
        if (!c->resp->pkg) {
            c->resp->pkg = newPktpkg();
            c->resp->sZpkg = 1;
        }
        c->last_request = monotonic();
        fcntl(in, F_SETFL, fcntl(in, F_GETFL) | O_NONBLOCK);
        if (out != in) fcntl(out, F_SETFL, fcntl(out, F_GETFL) | O_NONBLOCK);
        // Registered with no interest first; update_events sets what is wanted.
        epoll_event ev{};
        ev.data.u64 = c->id;
        epoll_ctl(epfd, EPOLL_CTL_ADD, in, &ev);
        if (out != in) {
            ev.data.u64 = c->id | kOutFlag;
            epoll_ctl(epfd, EPOLL_CTL_ADD, out, &ev);
        }
        Client* raw = c.get();
        clients[c->id] = std::move(c);
        nlocal++;
        connections++;
        update_events(*raw);
        return raw;
    }

    void update_events(Client& c) {
        if (c.dead) return;
        bool want_out = c.pending() > 0;
        bool want_in = !c.closing && c.pending() < kOutStopReading;
        bool shared = c.out_fd == c.in_fd;
        uint32_t ev_in = (want_in ? uint32_t(EPOLLIN) : 0u) | (want_out && shared ? uint32_t(EPOLLOUT) : 0u);
        if (ev_in != c.events) {
            epoll_event ev{};
            ev.events = ev_in;
            ev.data.u64 = c.id;
            epoll_ctl(epfd, EPOLL_CTL_MOD, c.in_fd, &ev);
            c.events = ev_in;
        }
        uint32_t ev_out = want_out && !shared ? uint32_t(EPOLLOUT) : 0u;
        if (!shared && ev_out != c.out_events) {
            epoll_event ev{};
            ev.events = ev_out;
            ev.data.u64 = c.id | kOutFlag;
            epoll_ctl(epfd, EPOLL_CTL_MOD, c.out_fd, &ev);
            c.out_events = ev_out;
        }
    }

    void drop(Client& c, const char* why) {
        if (c.dead) return;
        if (why) {
            elog_complain(0, "dropping client %s:%d: %s\n", c.host.c_str(), c.port, why);
        } else if (settings.verbose) {
            elog_notify(0, "client %s:%d closed\n", c.host.c_str(), c.port);
        }
        if (c.slot >= 0) ring->client_remove(c.slot);
        c.slot = -1;
        c.counters = nullptr;
        epoll_ctl(epfd, EPOLL_CTL_DEL, c.in_fd, nullptr);
        if (c.out_fd != c.in_fd) epoll_ctl(epfd, EPOLL_CTL_DEL, c.out_fd, nullptr);
        close(c.in_fd);
        if (c.out_fd != c.in_fd) close(c.out_fd);
        c.dead = true;
        nlocal--;
        if (c.opened) closes++;
        if (stdio_mode) stopping = true;
    }

    void reap_dead() {
        for (auto it = clients.begin(); it != clients.end();)
            it = it->second->dead ? clients.erase(it) : std::next(it);
    }

    // Writes what the client's output holds without blocking. false when the
    // client has gone.
    bool flush_out(Client& c) {
        if (c.dead) return false;
        Bns* o = c.out;
        while (o->lp > o->fp) {
            ssize_t n = bnssend(o, o->data + o->fp, size_t(o->lp - o->fp));
            if (n > 0) {
                o->fp += int(n);
                o->nbytes += n;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
            drop(c, nullptr);
            return false;
        }
        if (o->fp == o->lp) {
            o->fp = o->lp = 0;
        } else if (o->fp > o->sz / 2) {
            std::memmove(o->data, o->data + o->fp, size_t(o->lp - o->fp));
            o->lp -= o->fp;
            o->fp = 0;
        }
        if (c.closing && o->fp == o->lp) {
            drop(c, nullptr);
            return false;
        }
        update_events(c);
        return true;
    }

    // ---------------------------------------------------------------- responses

    void send_error(Client& c, int what, const std::string& msg) {
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

    // Starts a success response; the caller sets the body fields and calls finish().
    Orbresponse* start(Client& c, int what) {
        Orbresponse* r = c.resp;
        r->what = what;
        r->result = 0;
        r->nerr = 0;
        return r;
    }
    void finish(Client& c) { put_response(c); }

    // Every response goes out behind the marker the client synchronises on.
    int put_response(Client& c) {
        buf2bns(c.out, "orbm", 4);
        return pbnsOrbresponse(c.out, c.resp);
    }

    // Encodes one packet as a response with code; false (nothing encoded) when
    // the packet left the ring meanwhile or cannot be encoded. A large packet
    // for a client with nothing pending is written straight from the ring, and
    // only what the socket did not take is copied to the output.
    bool encode_packet(Client& c, int code, uint64_t seq, int maxbytes, ring::Entry* e) {
        const char* data = nullptr;
        if (c.dead || !ring->view(seq, e, &data)) return false;
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

    // Writes the encoded head in the output and then n bytes at data, as far
    // as the socket takes them now; the rest of the body joins the output.
    // The ring entry must still be intact after that copy too. If it is not
    // and nothing went out, the response is taken back (mark: where the
    // output ended before it); bytes already sent cannot be, so that client
    // is dropped.
    bool send_direct(Client& c, uint64_t seq, const char* data, size_t n, int mark) {
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

    void encode_end(Client& c) {
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

    // ---------------------------------------------------------------- positions

    void stand(Client& c, int64_t seq) {
        c.pos = seq;
        c.at_oldest = false;
        c.scan_from = 0;
        if (c.counters) c.counters->pktid = seq >= 0 ? ring->pktid(uint64_t(seq)) : -1;
    }

    bool selected(Client& c, const ring::Entry& e) {
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

    // First candidate seq a reader at c's position reads next.
    uint64_t first_candidate(const Client& c) const {
        if (c.at_oldest || c.pos < 0) return ring->tail();
        return ring->next_seq(uint64_t(c.pos));
    }

    // The first selected packet at or after seq; fills e. Without one, *end
    // (when given) is where a later search may start.
    std::optional<uint64_t> next_selected(Client& c, uint64_t seq, ring::Entry* e,
                                          uint64_t* end = nullptr) {
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

    std::optional<uint64_t> prev_selected(Client& c, int64_t from, ring::Entry* e) {
        if (from < 0) return std::nullopt;
        uint64_t at = uint64_t(from);
        for (;;) {
            auto p = ring->prev_seq(at);
            if (!p) return std::nullopt;
            if (ring->entry(*p, e) && selected(c, *e)) return p;
            at = *p;
        }
    }

    // The packet the client stands at.
    std::optional<uint64_t> current(Client& c, ring::Entry* e) {
        if (c.at_oldest) {
            auto o = ring->oldest();
            if (o && ring->entry(*o, e)) return o;
            return std::nullopt;
        }
        if (c.pos >= 0 && ring->entry(uint64_t(c.pos), e)) return uint64_t(c.pos);
        return std::nullopt;
    }

    int tell(Client& c) {
        if (c.at_oldest) {
            auto o = ring->oldest();
            return o ? ring->pktid(*o) : -1;
        }
        return c.pos >= 0 ? ring->pktid(uint64_t(c.pos)) : -1;
    }

    int latest_pktid() {
        auto n = ring->newest();
        return n ? ring->pktid(*n) : -1;
    }

    // Resolves a position code or pktid to a seq for ORBGET and ORBSEEK.
    // Returns nullopt with why set when there is no such packet.
    std::optional<uint64_t> locate(Client& c, int code, ring::Entry* e, std::string& why) {
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

    // ---------------------------------------------------------------- streaming

    // After a packet could not be encoded: one evicted meanwhile is followed
    // by whatever is oldest now; one that is still there can never be sent
    // (it was logged), so the stream passes over it rather than retry forever.
    void pass_over(Client& c, uint64_t seq) {
        if (ring->still_valid(seq)) stand(c, int64_t(seq));
    }

    // Pushes what the client's stream can take now. Returns true when the client
    // is streaming and has caught up (so wants a wake-up on the next packet).
    bool push(Client& c) {
        if (c.dead || c.stream == Stream::none) return false;
        ring::Entry e;
        while (!c.dead && c.pending() < kOutHigh) {
            // Packets the patterns skipped are not looked at twice.
            uint64_t from = std::max(first_candidate(c), c.scan_from);
            auto s = next_selected(c, from, &e, &c.scan_from);
            if (!s) return true;
            if (c.stream == Stream::get_wait) {
                if (!encode_packet(c, c.get_code, *s, -1, &e)) {
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

    // ---------------------------------------------------------------- requests

    bool check_rights(Client& c, int what, bool right, const char* action) {
        if (right) return true;
        send_error(c, what, std::string("address ") + addr_text(c.addr) + " may not " + action);
        rejected++;
        elog_complain(0, "refused %s from %s:%d: not allowed to %s\n", orbreq2name(what),
                      c.host.c_str(), c.port, action);
        return false;
    }

    void refuse_open(Client& c, Orbrequest* q, const std::string& why) {
        rejected++;
        std::string by = q->what == ORBSIGNEDOPEN ? std::string("signer '") + q->signer + "'" : "unsigned";
        elog_complain(0, "refused %s from %s:%d (%s): %s\n", orbreq2name(q->what), c.host.c_str(), c.port,
                      by.c_str(), why.c_str());
        send_error(c, q->what, why);
        c.closing = !c.opened;  // a session already open keeps what it had
    }

    void handle_challenge(Client& c, Orbrequest* q) {
        if (!auth || !auth->issue(c.challenge, monotonic())) {
            send_error(c, q->what, "signed opens are not supported by this server");
            return;
        }
        std::memcpy(start(c, q->what)->challenge, c.challenge.bytes, ORB_CHALLENGE_SIZE);
        finish(c);
    }

    void handle_open(Client& c, Orbrequest* q) {
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

    void handle_put(Client& c, Orbrequest* q) {
        Pktpkg* p = q->pkg;
        bool answer = q->what == ORBPUTX || q->what == ORBPUTXL;
        if (!c.may_write) {
            rejected++;
            elog_complain(0, "refused put from %s:%d: address may not write\n", c.host.c_str(), c.port);
            if (answer) send_error(c, q->what, "address " + addr_text(c.addr) + " may not write");
            return;
        }
        std::string why;
        int64_t seq = -1;
        if (!p || p->packetsize < 0) {
            why = "bad packet";
        } else if (p->pktid == ORBSTASH) {
            if (!ring->stash_put(p->srcname, p->time, p->packet, size_t(p->packetsize), &why) &&
                why.empty())
                why = "stash refused";
        } else {
            seq = ring->put(p->srcname, p->time, p->packet, size_t(p->packetsize), &why);
            if (seq < 0 && why.empty()) why = "put refused";
        }
        if (!why.empty()) {
            errors++;
            if (c.counters) c.counters->errors++;
            elog_complain(0, "put of '%s' from %s:%d refused: %s\n", p ? p->srcname : "",
                          c.host.c_str(), c.port, why.c_str());
            if (answer) send_error(c, q->what, why);
            return;
        }
        if (c.counters) {
            c.counters->written += uint32_t(p->packetsize);
            c.counters->bytes += uint32_t(p->packetsize);
            c.counters->packets++;
            c.counters->nwrites++;
            c.counters->lastpkt = p->time;
        }
        count_written(p->srcname, uint64_t(p->packetsize));
        if (answer) {
            Orbresponse* r = start(c, q->what);
            r->pktid = seq >= 0 ? ring->pktid(uint64_t(seq)) : ORBSTASH;
            finish(c);
        }
    }

    void handle_get(Client& c, Orbrequest* q) {
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

    void handle_seek(Client& c, Orbrequest* q) {
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

    int count_selected(Client& c) {
        int n = 0;
        for (const auto& s : ring->sources()) {
            ring::Entry e;
            e.src = s.index;
            copy_text(e.srcname, sizeof e.srcname, s.srcname);
            if (selected(c, e)) n++;
        }
        return n;
    }

    void handle_pattern(Client& c, Orbrequest* q) {
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

    void handle_stat(Client& c) {
        fill_stat(start(c, ORBSTAT)->orbstat);
        finish(c);
    }

    void fill_stat(Orbstat& s) {
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

    void count_written(const char* srcname, uint64_t bytes) {
        totals.packets_written++;
        totals.bytes_written += bytes;
        auto it = totals.by_source.find(std::string_view(srcname));
        if (it == totals.by_source.end()) it = totals.by_source.emplace(srcname, status::Totals::Source{}).first;
        it->second.packets++;
        it->second.bytes += bytes;
    }

    status::Snapshot snapshot() {
        status::Snapshot snap;
        snap.name = ring->path();
        fill_stat(snap.stat);
        auto oldest = ring->oldest(), newest = ring->newest();
        snap.oldest = oldest ? ring->pktid(*oldest) : -1;
        snap.newest = newest ? ring->pktid(*newest) : -1;
        for (const auto& k : ring->sources()) fill_orbsrc(snap.sources.emplace_back(), k);
        for (const auto& k : ring->clients()) fill_orbclient(snap.clients.emplace_back(), k);
        snap.totals = totals;
        return snap;
    }

    void handle_clients(Client& c) {
        std::vector<ring::Client> list = ring->clients();
        Orbresponse* r = start(c, ORBCLIENTS);
        r->client_when = std_now();
        if (r->sZclient < int(list.size())) {
            auto* grown = static_cast<Orbclient*>(
                std::realloc(r->client, sizeof(Orbclient) * std::max<size_t>(list.size(), 1)));
            if (!grown) elog_die(1, "Out of memory at line %d in '%s'\n\tCan't malloc %u bytes for s->client\n",
                                 __LINE__, __FILE__, unsigned(sizeof(Orbclient) * list.size()));
            r->client = grown;
            r->sZclient = int(list.size());
        }
        r->nclient = int(list.size());
        for (size_t i = 0; i < list.size(); i++) fill_orbclient(r->client[i], list[i]);
        finish(c);
    }

    void handle_sources(Client& c) {
        std::vector<ring::Source> list = ring->sources();
        Orbresponse* r = start(c, ORBSOURCES);
        r->source_when = std_now();
        if (r->sZsource < int(list.size())) {
            auto* grown = static_cast<Orbsrc*>(
                std::realloc(r->source, sizeof(Orbsrc) * std::max<size_t>(list.size(), 1)));
            if (!grown) elog_die(1, "Out of memory at line %d in '%s'\n\tCan't malloc %u bytes for s->source\n",
                                 __LINE__, __FILE__, unsigned(sizeof(Orbsrc) * list.size()));
            r->source = grown;
            r->sZsource = int(list.size());
        }
        r->nsource = int(list.size());
        for (size_t i = 0; i < list.size(); i++) fill_orbsrc(r->source[i], list[i]);
        finish(c);
    }

    Client* local_by_thread(int thread) {
        for (auto& [id, k] : clients)
            if (!k->dead && k->thread == thread && k->opened) return k.get();
        return nullptr;
    }

    void handle(Client& c, Orbrequest* q) {
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

    // ---------------------------------------------------------------- input

    // Why the bytes of an incomplete request can never complete, or "".
    static std::string hopeless(const char* b, int n) {
        auto i32 = [&](int off) {
            uint32_t v;
            std::memcpy(&v, b + off, 4);
            return int32_t(ntohl(v));
        };
        if (n < 4) return "";
        int what = i32(0);
        switch (what) {
        case ORBPUT:
        case ORBPUTX:
            return "";  // 16-bit sizes are always within the limit
        case ORBPUTL:
        case ORBPUTXL:
            if (n >= 12) {
                int size = i32(8);
                if (size < 0 || size > Orb_max_data_bytes)
                    return "packet size " + std::to_string(size) + " beyond the limit of " +
                           std::to_string(Orb_max_data_bytes);
            }
            return "";
        case ORBSELECT:
        case ORBREJECT:
            if (n >= 8) {
                int len = i32(4);
                if (len < 0 || len > ORB_MAX_PATTERN)
                    return "pattern length " + std::to_string(len) + " beyond the limit of " +
                           std::to_string(ORB_MAX_PATTERN);
            }
            return "";
        default:
            return "";
        }
    }

    // Longest tail of the consumed bytes that could start the marker.
    static int marker_prefix(const char* b, int n) {
        static const char m[] = "orbm";
        for (int k = std::min(n, 3); k > 0; k--)
            if (std::memcmp(b + n - k, m, size_t(k)) == 0) return k;
        return 0;
    }

    // One read of what the descriptor holds, straight into the input buffer, so
    // that decoding starts on bytes at hand. false once the client has gone.
    bool fill(Client& c) {
        Bns* in = c.in;
        if (in->fp == in->lp) {
            in->fp = in->lp = 0;
        } else if (in->fp > in->sz / 2) {
            std::memmove(in->data, in->data + in->fp, size_t(in->lp - in->fp));
            in->lp -= in->fp;
            in->fp = 0;
        }
        if (in->sz - in->lp < 4096) bnsresize(in, in->sz);
        if (c.tls && !c.tls->established() && refused_plain(c)) return false;
        for (;;) {
            ssize_t n = bnsrecv(in, in->data + in->lp, size_t(in->sz - in->lp));
            if (n > 0 && !c.tls && in->nbytes == 0 && tls_looks_like_hello(in->data + in->lp, int(n))) {
                rejected++;
                drop(c, "a TLS handshake on a plain port");
                return false;
            }
            if (n > 0) {
                in->lp += int(n);
                in->nbytes += n;
                // Bytes the session decrypted but did not hand over would never wake epoll.
                if (int more = bnspending(in); more > 0) {
                    if (in->sz - in->lp < more) bnsresize(in, more);
                    continue;
                }
            }
            // Once the handshake is through, its time limit gives way to the request's.
            if (c.tls && c.tls->established() && !c.synced && in->lp == in->fp) c.partial_since = 0;
            if (n > 0) return true;
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
            if (n < 0 && errno == EPROTO && c.tls) {
                rejected++;
                drop(c, c.tls->why().c_str());
                return false;
            }
            if (n == 0) in->eof = 1;
            else in->err++, in->syserrno = errno;
            return false;
        }
    }

    // A plain client on a TLS port gets an answer it can read, then is dropped.
    bool refused_plain(Client& c) {
        char head[8];
        ssize_t k = recv(c.in_fd, head, sizeof head, MSG_PEEK);
        if (k < 4 || std::memcmp(head, "orbm", 4) != 0) return false;
        std::string answer = plain_client_refusal(head, int(k));
        // Its request is taken first: closing on unread bytes would reset the
        // connection and could lose the answer.
        char sink[4096];
        ssize_t w = recv(c.in_fd, sink, sizeof sink, MSG_DONTWAIT);
        w = send(c.in_fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        (void)w;
        rejected++;
        drop(c, "a plain client on a TLS port");
        return true;
    }

    void read_requests(Client& c) {
        Bns* in = c.in;
        while (!c.dead && !c.closing && !stopping && c.pending() < kOutStopReading) {
            // Nothing buffered: wait for the descriptor rather than ask it again
            // (unless a TLS session holds whole records, which epoll cannot see).
            if (in->lp == in->fp && bnspending(in) == 0) return;
            if (!c.synced) {
                if (in->lp - in->fp >= 4 && std::memcmp(in->data + in->fp, "orbm", 4) == 0) {
                    in->fp += 4;
                    c.synced = true;
                } else {
                    in->mark = in->fp;
                    int r = gbnsSync(in, "orbm", 4, 0);
                    int skipped = in->fp - in->mark;
                    if (r == 0) {
                        in->mark = -1;
                        c.synced = true;
                        c.garbage += skipped - 4;
                    } else if (r == -2) {
                        in->mark = -1;
                        c.garbage += skipped;
                    } else if (in->eof || in->err) {
                        if (skipped > 0 || in->lp > in->fp) drop(c, "connection lost mid-request");
                        else drop(c, nullptr);
                        return;
                    } else {
                        // Ran out of input: keep what may be the start of the marker.
                        int keep = marker_prefix(in->data + in->mark, skipped);
                        c.garbage += skipped - keep;
                        in->fp -= keep;
                        in->mark = -1;
                        if (c.garbage > kGarbageLimit) break;
                        if (in->lp > in->fp && !c.partial_since) c.partial_since = monotonic();
                        return;
                    }
                    if (c.garbage > kGarbageLimit) break;
                    if (!c.synced) continue;
                }
            }
            in->mark = in->fp;
            int r = gbnsOrbrequestLent(in, c.req);
            if (r == 0) {
                in->mark = -1;
                c.synced = false;
                c.garbage = 0;
                c.partial_since = 0;
                handle(c, c.req);
                if (c.req->pkg) c.req->pkg->packet = nullptr;  // lent from the input buffer
                continue;
            }
            if (in->eof || in->err) {
                drop(c, "connection lost mid-request");
                return;
            }
            std::string why = hopeless(in->data + in->mark, in->lp - in->mark);
            in->fp = in->mark;
            in->mark = -1;
            if (!why.empty()) {
                rejected++;
                drop(c, why.c_str());
                return;
            }
            if (!c.partial_since) c.partial_since = monotonic();
            return;
        }
        if (c.garbage > kGarbageLimit && !c.dead) {
            rejected++;
            drop(c, "sends garbage instead of requests");
        }
    }

    void on_input(Client& c) {
        if (!fill(c)) {
            // Whatever complete requests arrived before the end are still served.
            read_requests(c);
            if (c.dead) return;
            if (!c.closing && c.pending() >= kOutStopReading && c.in->lp > c.in->fp) {
                // Backed up, not cut short: the rest is read once the answers
                // have gone, as the end of input stays readable.
                flush_out(c);
                return;
            }
            if (c.synced || c.in->lp > c.in->fp) drop(c, "connection lost mid-request");
            else if (c.pending() > 0 && !c.closing) {
                c.closing = true;  // the answers already made still go out
                flush_out(c);
            } else drop(c, nullptr);
            return;
        }
        read_requests(c);
        if (!c.dead) flush_out(c);
    }

    void accept_all() {
        for (;;) {
            sockaddr_in sa{};
            socklen_t len = sizeof sa;
            int fd = accept4(listen_fd, reinterpret_cast<sockaddr*>(&sa), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR) continue;
                if (errno != EAGAIN && errno != EWOULDBLOCK)
                    elog_complain(1, "accept failed\n");
                return;
            }
            uint32_t addr = ntohl(sa.sin_addr.s_addr);
            int port = ntohs(sa.sin_port);
            if (nlocal >= settings.max_clients) {
                rejected++;
                elog_complain(0, "too many clients (%d): refusing connection from %s:%d\n", nlocal,
                              addr_text(addr).c_str(), port);
                close(fd);
                continue;
            }
            int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            Client* c = add_client(fd, fd, false);
            c->addr = addr;
            c->port = port;
            c->host = addr_text(addr);
            c->may_read = cidr_allows(settings.read_allow, addr);
            c->may_write = cidr_allows(settings.write_allow, addr);
            c->may_admin = cidr_allows(settings.admin_allow, addr);
            if (tls) {
                c->tls = tls_accept(*tls, fd);
                c->in->transport = c->out->transport = c->tls.get();
                c->partial_since = monotonic();  // the handshake has the time of a request
            }
            if (settings.verbose) elog_notify(0, "connection from %s:%d\n", c->host.c_str(), port);
        }
    }

    // Drops clients that stalled mid-request or idled too long; returns the
    // epoll time-out until the next such check (-1: none needed).
    int check_timeouts() {
        double t = monotonic();
        int next = -1;
        for (auto& [id, cp] : clients) {
            Client& c = *cp;
            if (c.dead) continue;
            if (c.partial_since) {
                double left = c.partial_since + settings.request_timeout - t;
                if (left <= 0) {
                    rejected++;
                    drop(c, c.tls && !c.tls->established() ? "TLS handshake not completed in time"
                                                           : "stalled in the middle of a request");
                    continue;
                }
                int ms = int(left * 1000) + 1;
                next = next < 0 ? ms : std::min(next, ms);
            }
            if (settings.idle_timeout > 0 && c.stream == Stream::none && !c.stdio) {
                double left = c.last_request + settings.idle_timeout - t;
                if (left <= 0) {
                    drop(c, "idle too long");
                    continue;
                }
                int ms = int(left * 1000) + 1;
                next = next < 0 ? ms : std::min(next, ms);
            }
        }
        return next;
    }

    int run() {
        std::vector<epoll_event> events(256);
        while (!stopping) {
            if (board && board->wanted()) board->publish(snapshot());
            // Push to streaming clients whenever the ring grew; arm the waiter
            // for the ones that have caught up.
            uint64_t h = ring->head();
            bool want_wake = false;
            for (auto& [id, c] : clients) {
                // Push, write, and push again while the socket takes it all.
                while (!c->dead && c->stream != Stream::none) {
                    bool caught_up = push(*c);
                    if (!flush_out(*c)) break;
                    if (caught_up && c->stream != Stream::none) want_wake = true;
                    if (caught_up || c->pending() >= kOutHigh) break;
                }
            }
            reap_dead();
            if (stdio_mode && nlocal == 0) break;
            if (stopping) break;
            if (want_wake) arm(h);
            int timeout = check_timeouts();
            reap_dead();
            if (stopping) break;
            int n = epoll_wait(epfd, events.data(), int(events.size()), timeout);
            if (n < 0) {
                if (errno == EINTR) continue;
                elog_complain(1, "epoll_wait failed\n");
                exit_status = 1;
                break;
            }
            for (int i = 0; i < n && !stopping; i++) {
                uint64_t tag = events[i].data.u64;
                if (tag == kListenTag) {
                    accept_all();
                } else if (tag == kWakeTag) {
                    uint64_t v;
                    ssize_t r = read(wake_fd, &v, sizeof v);
                    (void)r;
                } else if (tag == kStopTag) {
                    elog_notify(0, "stopping on a signal\n");
                    stopping = true;
                } else {
                    auto it = clients.find(tag & ~kOutFlag);
                    if (it == clients.end() || it->second->dead) continue;
                    Client& c = *it->second;
                    uint32_t ev = events[i].events;
                    if (ev & EPOLLOUT) {
                        if (!flush_out(c)) continue;
                    }
                    if (ev & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                        if (tag & kOutFlag) {
                            if (ev & (EPOLLHUP | EPOLLERR)) drop(c, nullptr);
                        } else {
                            on_input(c);
                        }
                    }
                }
            }
            reap_dead();
        }
        // Let answers already encoded (such as ORBHALT's) reach their clients.
        for (auto& [id, c] : clients)
            if (!c->dead && c->pending() > 0) {
                int fl = fcntl(c->out_fd, F_GETFL);
                fcntl(c->out_fd, F_SETFL, fl & ~O_NONBLOCK);
                flush_out(*c);
            }
        for (auto& [id, c] : clients)
            if (!c->dead) drop(*c, nullptr);
        reap_dead();
        return exit_status;
    }
};

Frontend::Frontend(const Settings& settings, std::unique_ptr<ring::Ring> ring)
    : impl_(std::make_unique<Impl>(settings, std::move(ring))) {}

Frontend::~Frontend() = default;

double Frontend::server_start() const { return impl_->server_start; }

std::string Frontend::listen_tcp() {
    Impl& m = *impl_;
    // Many clients means many descriptors.
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    in_addr a{};
    if (inet_pton(AF_INET, m.settings.bind_address.c_str(), &a) != 1)
        return "bad address '" + m.settings.bind_address + "'";
    std::string why;
    m.tls = port_tls(m.settings, &why);
    if (!why.empty()) return why;
    if (!(m.auth = Auth::make(m.settings, &why))) return why;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::string("can't open a socket: ") + std::strerror(errno);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr = a;
    sa.sin_port = htons(uint16_t(m.settings.port));
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0 || listen(fd, 512) < 0) {
        std::string e = std::strerror(errno);
        close(fd);
        return "can't listen on " + m.settings.bind_address + ":" + std::to_string(m.settings.port) +
               ": " + e;
    }
    socklen_t len = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
    m.listen_fd = fd;
    m.listen_addr = ntohl(sa.sin_addr.s_addr);
    m.listen_port = port_ = ntohs(sa.sin_port);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = Impl::kListenTag;
    epoll_ctl(m.epfd, EPOLL_CTL_ADD, fd, &ev);
    std::string name = m.settings.bind_address + ":" + std::to_string(port_);
    elog_notify(0, "listening on %s%s, ring '%s'\n", name.c_str(), m.tls ? " (TLS)" : "", m.ring->path().c_str());
    if (!m.settings.port_file.empty()) {
        // Written whole under another name first, so a reader never sees half.
        std::string tmp = m.settings.port_file + ".tmp";
        FILE* f = std::fopen(tmp.c_str(), "w");
        if (!f) return "can't write '" + tmp + "'";
        std::fprintf(f, "%s\n", name.c_str());
        bool ok = std::fclose(f) == 0;
        if (!ok || std::rename(tmp.c_str(), m.settings.port_file.c_str()) != 0)
            return "can't write '" + m.settings.port_file + "'";
    }
    return "";
}

void Frontend::add_stdio_client(int in, int out) {
    Impl& m = *impl_;
    m.stdio_mode = true;
    Client* c = m.add_client(in, out, true);
    c->host = "localhost";
    c->may_read = c->may_write = c->may_admin = true;
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (getpeername(in, reinterpret_cast<sockaddr*>(&sa), &len) == 0 && sa.sin_family == AF_INET) {
        c->addr = ntohl(sa.sin_addr.s_addr);
        c->host = addr_text(c->addr);
    }
}

int Frontend::run() { return impl_->run(); }

void Frontend::publish_status(std::shared_ptr<StatusBoard> board) {
    Impl& m = *impl_;
    m.board = std::move(board);
    int fd = m.wake_fd;
    m.board->set_wake([fd] {
        uint64_t one = 1;
        ssize_t r = write(fd, &one, sizeof one);
        (void)r;
    });
}

void Frontend::stop() { on_stop_signal(0); }

void Frontend::install_signal_handlers() {
    if (Stop_fd < 0) Stop_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

std::unique_ptr<ring::Ring> open_ring(const std::string& path, const Settings& s, std::string* why) {
    ring::Geometry g;
    g.data_bytes = uint64_t(s.ring_size);
    g.nslots = uint32_t(s.ring_packets);
    g.maxpkts = s.maxpkts;
    g.maxclients = uint32_t(std::clamp(s.max_clients + 16, 256, 4096));
    try {
        return ring::Ring::open_or_create(path, g);
    } catch (const ring::Error& e) {
        *why = e.what();
    } catch (const std::exception& e) {
        *why = std::string("can't open ring '") + path + "': " + e.what();
    }
    return nullptr;
}

std::string front_end_args(int argc, char** argv, const char* optstring, Settings& s, std::string* why) {
    why->clear();
    // The parameter file comes first so that options override it.
    std::string pfname = "orbserver";
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--") break;
        if (a.rfind("-p", 0) == 0) {
            if (a.size() > 2) pfname = a.substr(2);
            else if (i + 1 < argc) pfname = argv[i + 1];
            break;
        }
    }
    if (std::string e = load_settings(pfname, s); !e.empty()) {
        *why = e;
        return "";
    }
    optind = 1;
    opterr = 0;
    int opt;
    while ((opt = getopt(argc, argv, optstring)) != -1) {
        if (opt == 'p') continue;
        if (opt == '?' || opt == ':') return "";
        if (std::string e = apply_option(opt, optarg, s); !e.empty()) {
            *why = e;
            return "";
        }
    }
    if (argc - optind != 1) return "";
    return argv[optind];
}

// Connections and the event loop: accepting, reading and framing requests,
// writing answers without blocking, time-outs, and the waiter thread that
// wakes the loop when the ring grows.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "frontend_impl.h"
#include "stock/elog.h"

namespace fe {

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

}  // namespace fe

using namespace fe;

Frontend::Impl::Impl(const Settings& s, std::unique_ptr<ring::RingStore> r, std::string name)
    : settings(s), ring(std::move(r)), ring_name(std::move(name)) {
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

Frontend::Impl::~Impl() {
    quit = true;
    armed = true;
    armed.notify_all();
    ring->wake_all();
    waiter.join();
    clients.clear();
    ring.reset();  // while wake_fd and puts_done still take what its last puts report
    if (listen_fd >= 0) close(listen_fd);
    close(wake_fd);
    close(epfd);
}

void Frontend::Impl::wait_loop() {
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

void Frontend::Impl::arm(uint64_t head) {
    armed_head = head;
    if (!armed.exchange(true)) armed.notify_one();
}

Client* Frontend::Impl::add_client(int in, int out, bool stdio) {
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

void Frontend::Impl::update_events(Client& c) {
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

void Frontend::Impl::drop(Client& c, const char* why) {
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

void Frontend::Impl::reap_dead() {
    for (auto it = clients.begin(); it != clients.end();)
        it = it->second->dead ? clients.erase(it) : std::next(it);
}

bool Frontend::Impl::flush_out(Client& c) {
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

std::string Frontend::Impl::hopeless(const char* b, int n) {
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

int Frontend::Impl::marker_prefix(const char* b, int n) {
    static const char m[] = "orbm";
    for (int k = std::min(n, 3); k > 0; k--)
        if (std::memcmp(b + n - k, m, size_t(k)) == 0) return k;
    return 0;
}

bool Frontend::Impl::fill(Client& c) {
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

bool Frontend::Impl::refused_plain(Client& c) {
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

void Frontend::Impl::read_requests(Client& c) {
    Bns* in = c.in;
    while (!c.dead && !c.closing && !stopping && !c.awaiting_put && c.pending() < kOutStopReading) {
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

void Frontend::Impl::on_input(Client& c) {
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

void Frontend::Impl::accept_all() {
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

int Frontend::Impl::check_timeouts() {
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

int Frontend::Impl::run() {
    std::vector<epoll_event> events(256);
    while (!stopping) {
        if (board && board->wanted()) board->publish(snapshot());
        // Push to streaming clients whenever the ring grew; arm the waiter
        // for the ones that have caught up.
        uint64_t h = ring->head();
        bool want_wake = false;
        read_stalled = false;
        finish_puts();
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
        if (read_stalled) timeout = timeout < 0 ? 100 : std::min(timeout, 100);
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
    ring->flush();  // puts still with the store are answered too
    finish_puts();
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

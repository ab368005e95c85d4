// Frontend itself (frontend.h): listening, the stdio client, signals, the
// status board; opening the ring and reading the command line for both
// programs. The work is done by Frontend::Impl (frontend_impl.h).
#include <arpa/inet.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frontend_impl.h"
#include "stock/elog.h"

using namespace fe;

Frontend::Frontend(const Settings& settings, std::unique_ptr<ring::RingStore> ring, std::string name)
    : impl_(std::make_unique<Impl>(settings, std::move(ring), std::move(name))) {}

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
    elog_notify(0, "listening on %s%s, ring '%s'\n", name.c_str(), m.tls ? " (TLS)" : "", m.ring_name.c_str());
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

std::unique_ptr<ring::RingStore> open_ring(const std::string& path, const Settings& s, std::string* why) {
    ring::Geometry g;
    g.data_bytes = uint64_t(s.ring_size);
    g.nslots = uint32_t(s.ring_packets);
    g.maxpkts = s.maxpkts;
    g.maxclients = uint32_t(std::clamp(s.max_clients + 16, 256, 4096));
    try {
        return ring::open_file_store(path, g);
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


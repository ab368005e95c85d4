// Connections: naming a server, opening and closing, the table of open
// connections, and orbclient, through which every exchange passes.
#include "orb/orb.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "deviants/my.h"
#include "orb/orbpriv.h"
#include "orb/orbsign.h"
#include "stock/allot.h"
#include "stock/bns.h"
#include "stock/elog.h"
#include "stock/epoch.h"
#include "stock/quorvane.h"

int OrbVerbose = 0;

namespace {

std::mutex Orb_mutex;                 // the table and the extras
std::vector<Orbfile*>* Orbtable;      // indexed by descriptor; made on the first open
int Open_count;                       // handles in the table
std::unordered_map<const Orbfile*, OrbExtra> Extras;

constexpr int DEFAULT_PORT = 6510;

// The stream routines: send never raises SIGPIPE, so a writer whose server went away
// gets a failure it can act on instead of dying.
ssize_t orb_recv(int fd, void* buf, size_t n, int flags) { return recv(fd, buf, n, flags); }
ssize_t orb_send(int fd, const void* buf, size_t n, int flags) {
    return send(fd, buf, n, flags | MSG_NOSIGNAL);
}

// The forbserver program: under the installation root when it is there, else on PATH.
std::string forbserver_program() {
    std::string p = std::string(installation_root()) + "/bin/forbserver";
    if (access(p.c_str(), X_OK) == 0) return p;
    return "forbserver";
}

int spawn_file_server(const char* name, bool quiet, pid_t* child) {
    std::string program = forbserver_program();
    std::vector<std::string> args{program};
    std::string n = name;
    if (auto at = n.rfind('@'); at != std::string::npos) {
        args.push_back("-" + n.substr(at + 1));
        args.push_back(n.substr(0, at));
    } else {
        args.push_back(n);
    }
    if (const char* dbg = getenv("FORB_DEBUGGER")) {
        std::string debugger = *dbg ? dbg : "ups";
        std::string joined;
        for (size_t i = 1; i < args.size(); i++) joined += (i > 1 ? " " : "") + args[i];
        elog_notify(0, ">> spawning \"%s %s %s '%s'\"\n", debugger.c_str(), program.c_str(), "-a",
                    joined.c_str());
        args = {debugger, program, "-a", joined};
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) {
        if (!quiet) elog_complain(1, "Couldn't open socketpair for subprocess '%s'\n", name);
        return -1;
    }
    // Room for several 1 MB packets in flight, so that the client and the
    // server copy in parallel rather than in turns through a small buffer.
    for (int fd : sv) {
        int size = 4 << 20;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    // The child reports a failed exec through a pipe that a successful exec
    // closes; otherwise the caller would see only a connection that ended
    // during the open.
    int status[2], err[2];
    if (pipe2(status, O_CLOEXEC) < 0) status[0] = status[1] = -1;
    if (pipe2(err, O_CLOEXEC) < 0) err[0] = err[1] = -1;
    pid_t pid = fork();
    if (pid < 0) {
        if (!quiet) elog_complain(1, "Couldn't open socketpair for subprocess '%s'\n", name);
        close(sv[0]);
        close(sv[1]);
        if (status[0] >= 0) close(status[0]), close(status[1]);
        if (err[0] >= 0) close(err[0]), close(err[1]);
        return -1;
    }
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        close(sv[0]);
        if (dup2(sv[1], 0) < 0 || dup2(sv[1], 1) < 0) _exit(1);
        if (err[1] >= 0) dup2(err[1], 2);
        execvp(argv[0], argv.data());
        int e = errno;
        if (status[1] >= 0 && write(status[1], &e, sizeof e) < 0) _exit(1);
        _exit(1);
    }
    close(sv[1]);
    if (err[0] >= 0) {
        close(err[1]);
        orb_relay_start(pid, err[0]);
    }
    if (status[0] >= 0) {
        close(status[1]);
        int e = 0;
        ssize_t n;
        while ((n = read(status[0], &e, sizeof e)) < 0 && errno == EINTR) {
        }
        close(status[0]);
        if (n == sizeof e) {
            waitpid(pid, nullptr, 0);
            orb_relay_finish(pid);
            close(sv[0]);
            errno = e;
            if (!quiet) elog_complain(1, "Can't run '%s' for '%s'", program.c_str(), name);
            return -1;
        }
    }
    *child = pid;
    return sv[0];
}

int connect_server(const char* name, bool quiet, OrbPeer* peer) {
    std::string full = name;
    std::string host = "localhost", porttext;
    auto colon = full.find(':');
    if (!full.empty() && full[0] != ':') host = full.substr(0, colon);
    if (colon != std::string::npos) porttext = full.substr(colon + 1);

    long port = DEFAULT_PORT;
    bool tls = false;
    if (!porttext.empty()) {
        char* end = nullptr;
        errno = 0;
        long p = strtol(porttext.c_str(), &end, 10);
        if (*end == '\0' && p != 0 && errno == 0 && isdigit(static_cast<unsigned char>(porttext[0]))) {
            port = p;
        } else {
            int named = orb_named_port(porttext.c_str(), peer->signer, &tls);
            if (named < 0) {
                if (!quiet) elog_complain(0, "Don't understand orbserver port '%s'", porttext.c_str());
                named = 0;
            }
            port = named;
        }
    }
    if (port > 65535) {
        if (!quiet) elog_complain(0, "port number is %d, but must be less than %d", static_cast<int>(port), 65535);
        return -1;
    }

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) {
        if (!quiet) elog_complain(0, "Can't locate server by name of '%s'\n", host.c_str());
        return -1;
    }
    sockaddr_in addr = *reinterpret_cast<sockaddr_in*>(res->ai_addr);
    freeaddrinfo(res);
    addr.sin_port = htons(static_cast<uint16_t>(port));

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (!quiet) elog_complain(1, "Can't open stream socket\n");
        return -1;
    }
    if (const char* ip = getenv("ORB_IP_ADDRESS")) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = 0;
        if (inet_pton(AF_INET, ip, &local.sin_addr) != 1 ||
            bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
            if (!quiet) elog_complain(1, "Failed to bind ip address '%s'", ip);
            close(fd);
            return -1;
        }
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        if (!quiet) elog_complain(1, "Can't connect to server '%s'\n", name);
        close(fd);
        return -1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (tls) {
        ignoreSIGPIPE();  // the session writes with write(2), which would raise it
        const char* ca = getenv("ORB_TLS_CA");
        std::string why;
        peer->tls = tls_connect(fd, host, ca ? ca : "", orb_bns_timeout_ms(), &why);
        if (!peer->tls) {
            if (!quiet) elog_complain(0, "TLS handshake with server '%s' failed: %s\n", name, why.c_str());
            close(fd);
            return -1;
        }
    }
    return fd;
}

// "what" of the hello: the command line while it fits in 127 characters, else the
// program's path.
void command_line(char* what, size_t size) {
    what[0] = '\0';
    FILE* f = fopen("/proc/self/cmdline", "r");
    std::vector<std::string> args;
    if (f) {
        std::string cur;
        int c;
        while ((c = fgetc(f)) != EOF) {
            if (c == 0) {
                args.push_back(cur);
                cur.clear();
            } else {
                cur += static_cast<char>(c);
            }
        }
        fclose(f);
    }
    std::string line;
    if (!args.empty() && args[0].size() < size) {
        line = args[0];
        for (size_t i = 1; i < args.size(); i++) {
            if (line.size() + 1 + args[i].size() > size - 1) break;
            line += " " + args[i];
        }
    } else {
        line = myexecname();
        if (line.size() > size - 1) line.clear();
    }
    memcpy(what, line.c_str(), line.size() + 1);
}

void set_blocking(Orbfile* of, bool blocking) {
    if (!blocking == static_cast<bool>(of->nonblocking)) return;
    int fl = fcntl(of->fd, F_GETFL);
    if (fl < 0 || fcntl(of->fd, F_SETFL, blocking ? (fl & ~O_NONBLOCK) : (fl | O_NONBLOCK)) < 0) {
        if (blocking)
            elog_complain(1, "Can't clear non-blocking mode for orbfile fd #%d", of->fd);
        else
            elog_complain(1, "Can't set orbfile fd #%d to non-blocking mode", of->fd);
        return;
    }
    of->nonblocking = blocking ? 0 : 1;
}

const char* reqname(int code) {
    const char* n = orbreq2name(code);
    return n ? n : "unknown";
}

void free_handle(Orbfile* of) {
    {
        std::lock_guard<std::mutex> lock(Orb_mutex);
        Extras.erase(of);
    }
    freeOrbfile(of);
}

// A handle named name, connected to address (one of the name's addresses).
Orbfile* setup_open(const char* name, const char* address, const char* mode, bool quiet) {
    OrbPeer peer;
    int fd = orb_open_socket(address, quiet, &peer);
    if (fd < 0) return nullptr;
    Orbfile* of = newOrbfile();
    OrbExtra* x = orb_extra(of);
    x->child = peer.child;
    x->file_backed = orb_is_file_name(address);
    memcpy(of->signer, peer.signer, sizeof of->signer);
    of->fd = fd;
    of->perm = mode[0];
    of->name = allot_strdup(name, "name");
    of->sZname = static_cast<int>(strlen(name)) + 1;
    of->opentime = std_now();
    of->req = newOrbrequest();
    of->sZreq = 1;
    of->req->hello = newOrbOpenString();
    of->req->sZhello = 1;
    of->reply = newOrbresponse();
    of->sZreply = 1;
    of->reply->pkg = newPktpkg();
    of->reply->sZpkg = 1;
    OrbOpenString* hello = of->req->hello;
    memcpy(&hello->handshake, "orbm", 4);
    snprintf(hello->who, sizeof hello->who, "%s", my_username());
    hello->pid = getpid();
    hello->perm = mode[0];
    command_line(hello->what, 128);
    of->in = bnsnew(fd, ORB_BUF_SIZE);
    of->out = bnsnew(fd, ORB_BUF_SIZE);
    of->sZin = of->sZout = 1;
    of->in->read_routine = orb_recv;
    of->out->write_routine = orb_send;
    orb_use_tls(of, std::move(peer.tls));
    const char* r = getenv("BNS_RESEND");
    of->resend = r && *r ? atoi(r) : 2;
    return of;
}

void reap_child(pid_t pid) {
    if (pid <= 0) return;
    // The server ends when its end of the socket pair closes; don't wait for ever if it won't.
    for (int i = 0; i < 200; i++) {
        pid_t r = waitpid(pid, nullptr, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR)) {
            orb_relay_finish(pid);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// Opens and negotiates a handle at one address; null when that fails (logged unless
// quiet). *fatal: no signature could be made, which no other try would mend.
Orbfile* open_at(const char* name, const char* address, const char* mode, bool quiet, bool* fatal) {
    Orbfile* of = setup_open(name, address, mode, quiet);
    if (!of) return nullptr;
    bool sign_failed = false;
    int r = orb_send_open(of, &sign_failed);
    if (sign_failed) {
        elog_complain(0, "failed to create signature for orb open request");
        close(of->fd);
        reap_child(orb_extra(of)->child);
        free_handle(of);
        *fatal = true;
        return nullptr;
    }
    if (r == 0) return of;
    // A file server that failed says why as it exits: that comes first.
    close(of->fd);
    reap_child(orb_extra(of)->child);
    if (!quiet) {
        if (of->reply->result != 0 && of->reply->nerr > 0)
            elog_complain(0, "orbserver: %s", of->reply->errmsg);
        else
            elog_complain(0, "open negotiation fails: errno = %d eof=%s\n", of->in->syserrno,
                          of->in->eof ? "true" : "false");
    }
    free_handle(of);
    return nullptr;
}

}  // namespace

OrbExtra* orb_extra(Orbfile* orbfile) {
    std::lock_guard<std::mutex> lock(Orb_mutex);
    return &Extras[orbfile];
}

bool orb_is_file_name(const char* name) {
    return name[0] == '/' || strncmp(name, "./", 2) == 0 || strncmp(name, "../", 3) == 0;
}

int orb_open_socket(const char* name, bool quiet, OrbPeer* peer) {
    if (orb_is_file_name(name)) return spawn_file_server(name, quiet, &peer->child);
    return connect_server(name, quiet, peer);
}

void orb_use_tls(Orbfile* of, std::unique_ptr<TlsSession> tls) {
    OrbExtra* x = orb_extra(of);
    x->tls = std::move(tls);
    of->in->transport = of->out->transport = x->tls.get();
}

void orb_check_verbose() {
    struct stat st;
    OrbVerbose = stat("verbose", &st) == 0 ? 1 : 0;
}

int orb_bns_timeout_ms() {
    const char* t = getenv("BNS_TIMEOUT");
    return t && *t ? atoi(t) : 60000;
}

std::string orb_time(double t) {
    char* s = strtime(t);
    std::string r = s ? s : "?";
    free(s);
    return r;
}

int orb_send_open(Orbfile* of, bool* sign_failed) {
    Orbrequest* q = of->req;
    if (!of->signer[0]) {
        q->what = ORBOPEN;
        return orbclient(of, q, of->reply);
    }
    // The challenge field stays empty until the server's challenge is known, so
    // that the server can rebuild the signed block.
    memset(q->challenge, 0, sizeof q->challenge);
    q->what = ORBCHALLENGE;
    if (int r = orbclient(of, q, of->reply); r != 0) return r;
    unsigned char block[ORB_SIGNED_BLOCK];
    orbsign_block(q->hello, q->challenge, block);
    memcpy(q->challenge, of->reply->challenge, ORB_CHALLENGE_SIZE);
    snprintf(q->signer, sizeof q->signer, "%s", of->signer);
    std::string why;
    if (orbsign(of->signer, block, ORB_SIGNED_BLOCK, q->challenge, q->signature, &why) != 0) {
        elog_complain(0, "can't sign as '%s': %s\n", of->signer, why.c_str());
        if (sign_failed) *sign_failed = true;
        return -1;
    }
    q->what = ORBSIGNEDOPEN;
    return orbclient(of, q, of->reply);
}

int orbopen(const char* name, const char* mode) {
    std::string n = name ? name : "";
    if (!mode || (mode[0] != 'r' && mode[0] != 'w')) {
        elog_complain(0, "orbopen: bad mode '%s'\n", mode ? mode : "");
        return -1;
    }
    bool waiting = false;
    if (!n.empty() && n.back() == '@') {
        waiting = true;
        n.pop_back();
    }
    std::vector<std::string> addresses = orb_server_addresses(n);
    if (addresses.empty()) return -1;
    orb_check_verbose();
    double pause = std::max(orb_bns_timeout_ms() / 1000.0, 0.01);
    double attempts = 0, report = 1;
    Orbfile* of = nullptr;
    size_t at = 0;
    for (;;) {
        bool fatal = false;
        for (at = 0; at < addresses.size(); at++) {
            of = open_at(n.c_str(), addresses[at].c_str(), mode, waiting, &fatal);
            if (of || fatal) break;
        }
        if (fatal) return -1;
        if (of) break;
        if (!waiting) return -1;
        if (attempts >= report) {
            elog_notify(0, "can't open orbserver '%s': attempt #%.0f", n.c_str(), attempts);
            report *= 2;
        }
        attempts++;
        std::this_thread::sleep_for(std::chrono::duration<double>(pause));
    }

    of->orb_start = of->reply->orb_start;
    of->server_start = of->reply->server_start;
    {
        std::lock_guard<std::mutex> lock(Orb_mutex);
        if (!Orbtable) Orbtable = new std::vector<Orbfile*>;
        if (static_cast<size_t>(of->fd) >= Orbtable->size()) Orbtable->resize(of->fd + 1, nullptr);
        (*Orbtable)[of->fd] = of;
        Open_count++;
    }
    of->lastpktid = of->reply->latest_pktid;
    of->lastpkttime = of->opentime;
    OrbExtra* x = orb_extra(of);
    x->addresses = std::move(addresses);
    x->current = at;
    if (mode[1] == '&' && !x->file_backed) {
        of->reopen = 1;
        ignoreSIGPIPE();
        int version = -1;
        if (orbping(of->fd, &version) == 0 && version > 5) {
            int id;
            if (orbid(of->fd, &id) == 0) x->thread = id;
        }
    }
    free(bnsid(of->in, allot_strdup(n.c_str(), "bnsid")));
    free(bnsid(of->out, allot_strdup(n.c_str(), "bnsid")));
    if (const char* m = getenv("ORB_MAX_DATA_BYTES"); m && *m) Orb_max_data_bytes = atoi(m);
    if (getenv("ORB_DUMP")) orb_open_dump(of);
    return of->fd;
}

Orbfile* orb2orbfile(int orb) {
    std::lock_guard<std::mutex> lock(Orb_mutex);
    if (Open_count == 0) {
        elog_complain(0, "called with no open orb buffers\n");
        return nullptr;
    }
    if (orb < 0 || static_cast<size_t>(orb) >= Orbtable->size() || !(*Orbtable)[orb]) {
        elog_complain(0, "no orbserver open on fd #%d\n", orb);
        return nullptr;
    }
    return (*Orbtable)[orb];
}

int orbclose(int orb) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    int result = 0;
    OrbExtra* x = orb_extra(of);
    if (!x->file_backed) {
        of->reopen = 0;
        of->req->what = ORBCLOSE;
        if (orbclient(of, of->req, nullptr) != 0) {
            elog_complain(0, "close on fd #%d failed\n", orb);
            result = 1;
        }
    }
    close(of->fd);
    {
        std::lock_guard<std::mutex> lock(Orb_mutex);
        (*Orbtable)[orb] = nullptr;
        Open_count--;
    }
    if (of->req->pkg) of->req->pkg->packet = nullptr;  // the caller's bytes, never ours to free
    if (of->req->pkg) of->req->pkg->sZpacket = 0;
    reap_child(x->child);
    free_handle(of);
    return result;
}

// Reads responses until one answers the request (stale reap pushes are dropped).
static int read_response(Orbfile* of, Orbrequest* request, Orbresponse* response) {
    Bns* in = of->in;
    in->direct = !of->dump;  // the exchange log shows whole messages from the buffer
    for (;;) {
        set_blocking(of, false);
        in->mark = in->fp;
        int r = gbnsSync(in, "orbm", 4, 0);
        if (r == 0) r = gbnsOrbresponse(in, response);
        if (r != 0) {
            in->fp = in->mark;
            in->mark = -1;
            of->error = 1;
            return -1;
        }
        if (of->dump) orb_exchange_log(of, "input", in->id, in->data + in->mark, in->fp - in->mark);
        in->mark = -1;
        if (!request) return response->result;
        int want = request->what, got = response->what;
        if (got == want || (want == ORBREAP && got == ORBREAPL) || (want == ORBGET && got == ORBGETL) ||
            (want == ORBPUTX && got == ORBPUTXL) || (want == ORBPUTXL && got == ORBPUTX))
            return response->result;
    }
}

int orbclient(Orbfile* of, Orbrequest* request, Orbresponse* response) {
    if (!of) return -1;
send:
    if (request) {
        int what = request->what;
        bnskeep(of->out, (what == ORBPUT || what == ORBPUTL) ? of->resend : 0);
    }
    while (of->error && of->reopen) {
        if (orbreopen(of) == 0 || !of->error) break;
    }
    if (request) {
        of->reaped = 0;
        set_blocking(of, true);
        Bns* out = of->out;
        int start = out->lp;
        int bad = bnsput(out, "orbm", BNS_BYTES, 4);
        bad |= pbnsOrbrequest(out, request);
        if (bad) {
            out->lp = start;  // never send half a message
            return -1;
        }
        if (of->dump) orb_exchange_log(of, "output", out->id, out->data + start, out->lp - start);
        if (bnsflush(out) < 0) {
            if (OrbVerbose)
                elog_debug(0, "sending message %s to orb %s = #%d fails\n", reqname(request->what), of->name,
                           of->fd);
            if (!of->reopen) {
                of->error = 2;
                return -1;
            }
            do {
                of->error = 2;
                while (orbreopen(of) != 1) {
                }
            } while (bnsflush(of->out) < 0);
            of->error = 0;
        }
    }
    if (!response) return 0;
    for (;;) {
        int r = read_response(of, request, response);
        if (r != -1 || of->error == 0) return r;
        if (OrbVerbose && (of->reopen || !of->nonblocking)) {
            if (of->reopen)
                elog_debug(0, "reading response to message %s to orb %s = #%d fails\n",
                           request ? reqname(request->what) : "", of->name, of->fd);
            else
                elog_debug(0, "reading response to message %sto orb %s = #%d fails\n",
                           request ? reqname(request->what) : "", of->name, of->fd);
        }
        if (!of->reopen) return -1;
        int rr;
        while ((rr = orbreopen(of)) < 0) {
        }
        if (rr == 1) goto send;
    }
}

// A bare protocol client for the server tests: requests encoded and responses decoded with our
// own records, over TCP or over a socketpair to a forbserver child, with nothing of the client
// library in between (so the tests see exactly what the server answers). And a fixture that runs
// one orbserver at a time.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cstring>
#include <initializer_list>

#include "orb/orb_support.h"
#include "orb/orbfile.h"
#include "stock/bns.h"
#include "support/orbserver.h"

namespace testsupport {

using orbtest::words;

struct Pkt {
    int pktid = -1;
    double time = 0;
    std::string srcname, data;
    std::string str() const { return words(pktid, time, srcname, data); }
};

class WireClient {
public:
    static constexpr int kFailed = -1000;
    WireClient() = default;
    ~WireClient() { disconnect(); }
    WireClient(const WireClient&) = delete;
    WireClient& operator=(const WireClient&) = delete;

    // Connects to "host:port" (from local_addr when given); false on failure.
    bool connect_tcp(const std::string& name, const char* local_addr = nullptr) {
        auto colon = name.rfind(':');
        sockaddr_in sa{AF_INET, htons(uint16_t(std::stoi(name.substr(colon + 1)))), {}, {}};
        sockaddr_in la{AF_INET, 0, {}, {}};
        inet_pton(AF_INET, name.substr(0, colon).c_str(), &sa.sin_addr);
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (local_addr && inet_pton(AF_INET, local_addr, &la.sin_addr) == 1)
            bind(fd, reinterpret_cast<sockaddr*>(&la), sizeof la);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) return close(fd), false;
        return attach(fd), true;
    }
    // Starts forbserver with args (e.g. {"-s64M", "./ring"}) on a socketpair, its standard error
    // appended to logfile.
    bool spawn_forb(std::vector<std::string> args, const std::string& logfile) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) return false;
        args.insert(args.begin(), std::string(FERRANT_BUILD_DIR) + "/bin/forbserver");
        if ((child_ = fork()) == 0) {
            dup2(sv[1], 0), dup2(sv[1], 1);
            int log = ::open(logfile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (log >= 0) dup2(log, 2);
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(sv[1]);
        return attach(sv[0]), child_ > 0;
    }
    void disconnect() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
        bnsfree(in_), bnsfree(out_), freeOrbrequest(req_), freeOrbresponse(resp_);
        in_ = out_ = nullptr, req_ = nullptr, resp_ = nullptr;
        if (child_ > 0) {  // forbserver ends when its client leaves; make sure of it
            for (int i = 0; i < 2000 && waitpid(child_, &child_exit_, WNOHANG) == 0; i++) usleep(2000);
            if (waitpid(child_, &child_exit_, WNOHANG) == 0)
                kill(child_, SIGKILL), waitpid(child_, &child_exit_, 0);
        }
        child_ = -1;
    }
    int child_status() const { return child_exit_; }
    int fd() const { return fd_; }
    Orbrequest* req() { return req_; }
    Orbresponse* resp() { return resp_; }
    void set_timeout(int ms) { bnstimeout(in_, ms); }

    // Sends raw bytes as they are.
    bool raw(const std::string& s) {
        return ::send(fd_, s.data(), s.size(), MSG_NOSIGNAL) == ssize_t(s.size());
    }
    // Sends req_ (what set by the caller) preceded by the marker.
    bool send() { return buf2bns(out_, "orbm", 4), pbnsOrbrequest(out_, req_) == 0 && bnsflush(out_) == 0; }
    // Reads the next response whatever it is: 0, or -1.
    int recv_any() { return gbnsSync(in_, "orbm", 4, 1) != 0 ? -1 : gbnsOrbresponse(in_, resp_); }
    // Reads responses until one answers `what` (streamed pushes before it are skipped, as the
    // library does, and counted). Result field, or kFailed when reading fails.
    int recv(int what) {
        for (;; skipped_++) {
            if (recv_any() < 0) return kFailed;
            int w = resp_->what;
            if (w == what || (what == ORBGET && w == ORBGETL) || (what == ORBREAP && w == ORBREAPL) ||
                (what == ORBPUTX && w == ORBPUTXL))
                return resp_->result;
        }
    }
    int skipped() const { return skipped_; }
    int exchange(int what) { return req_->what = what, send() ? recv(what) : kFailed; }

    // ---- requests ----
    int open(char perm = 'r', const char* what = "server_test") {
        if (!req_->hello) req_->hello = newOrbOpenString(), req_->sZhello = 1;
        std::memcpy(&req_->hello->handshake, "orbm", 4);
        req_->hello->pid = getpid(), req_->hello->perm = perm;
        std::snprintf(req_->hello->what, sizeof req_->hello->what, "%s", what);
        std::snprintf(req_->hello->who, sizeof req_->hello->who, "tester");
        return exchange(ORBOPEN);
    }
    // ORBPUT: no answer.
    bool put(const std::string& src, double time, const std::string& data, int pktid = -1) {
        return send_pkg(ORBPUT, src, time, data, pktid);
    }
    // ORBPUTX: the new pktid, or a negative failure.
    int putx(const std::string& src, double time, const std::string& data) {
        int r = send_pkg(ORBPUTX, src, time, data, -1) ? recv(ORBPUTX) : kFailed;
        return r == 0 ? resp_->pktid : r;
    }
    // ORBGET: 0 with pkt filled, else the failure.
    int get(int code, Pkt* pkt = nullptr) {
        req_->pktcode = code;
        int r = exchange(ORBGET);
        if (r == 0 && pkt) *pkt = packet();
        return r;
    }
    // ORBSEEK/ORBTELL/ORBAFTER: the pktid, or kFailed.
    int seek(int code) { return req_->pktcode = code, pktid_or_failed(exchange(ORBSEEK)); }
    int tell() { return pktid_or_failed(exchange(ORBTELL)); }
    int after(double t) { return req_->time = t, pktid_or_failed(exchange(ORBAFTER)); }
    // ORBSELECT/ORBREJECT: the number of sources selected, or kFailed.
    int select(const std::string& pattern, int what = ORBSELECT) {
        bool sel = what == ORBSELECT;
        char*& field = sel ? req_->select : req_->reject;
        std::free(field);
        field = strdup(pattern.c_str());
        int n = int(pattern.size() + 1);
        (sel ? req_->sZselect : req_->sZreject) = (sel ? req_->nselect : req_->nreject) = n;
        return exchange(what) == 0 ? resp_->nselections : kFailed;
    }
    int reject(const std::string& pattern) { return select(pattern, ORBREJECT); }
    // Starts a stream; read it with next().
    bool reap(int maxpkts = -1, int maxbytes = -1, double maxtime = 0) {
        req_->reap_maxpkts = maxpkts, req_->reap_maxbytes = maxbytes, req_->reap_maxtime = maxtime;
        return req_->what = ORBREAP, send();
    }
    // Next streamed packet: 0 and pkt, -1 when reading fails, -2 for another answer.
    int next(Pkt* pkt) {
        if (recv_any() < 0) return -1;
        if (resp_->what != ORBREAP && resp_->what != ORBREAPL) return -2;
        if (pkt) *pkt = packet();
        return resp_->result;
    }
    // The next streamed packet, or what ORBGET code yields; its pktid is kFailed when there is none.
    Pkt next_pkt() { return next(nullptr) == 0 ? packet() : Pkt{kFailed, 0, {}, {}}; }
    Pkt get_pkt(int code) { return get(code) == 0 ? packet() : Pkt{kFailed, 0, {}, {}}; }
    int next_id() { return next_pkt().pktid; }
    int get_id(int code) { return get_pkt(code).pktid; }
    Pkt packet() const {
        Pktpkg* g = resp_->pkg;
        return {g->pktid, g->time, g->srcname,
                std::string(g->packet ? g->packet : "", size_t(g->packetsize))};
    }
    // Positioning steps, each 's'eek, 'g'et, 't'ell or 'a'fter with its argument, and the pktid
    // (or kFailed) it must yield; run in order.
    struct Step { char op; double arg; int want; };
    void expect_steps(std::initializer_list<Step> steps) {
        int i = 0;
        for (auto [op, x, want] : steps) {
            int got = op == 's' ? seek(int(x)) : op == 'g' ? get_id(int(x)) : op == 't' ? tell() : after(x);
            EXPECT_EQ(got, want) << "step " << i++ << ": " << op << x;
        }
    }

private:
    int pktid_or_failed(int r) const { return r == 0 ? resp_->pktid : kFailed; }
    // The packet is sent from data itself and forgotten before the request is reused.
    bool send_pkg(int what, const std::string& src, double time, const std::string& data, int pktid) {
        if (!req_->pkg) req_->pkg = newPktpkg(), req_->sZpkg = 1;
        Pktpkg* p = req_->pkg;
        p->pktid = pktid, p->time = time;
        std::snprintf(p->srcname, sizeof p->srcname, "%s", src.c_str());
        p->srcnamesize = static_cast<unsigned short>(std::strlen(p->srcname));
        p->packet = const_cast<char*>(data.data()), p->packetsize = int(data.size()), p->sZpacket = 0;
        req_->what = what;
        bool ok = send();
        p->packet = nullptr;
        return ok;
    }
    void attach(int fd) {
        signal(SIGPIPE, SIG_IGN);  // a server killed under a test must fail its writes, not kill it
        fd_ = fd;
        in_ = bnsnew(fd, 8192), out_ = bnsnew(fd, 8192);
        bnstimeout(in_, 10000);
        req_ = newOrbrequest(), resp_ = newOrbresponse();
    }

    int fd_ = -1, child_exit_ = 0, skipped_ = 0;
    pid_t child_ = -1;
    Bns *in_ = nullptr, *out_ = nullptr;
    Orbrequest* req_ = nullptr;
    Orbresponse* resp_ = nullptr;
};

// A fixture with one orbserver at a time, started by start(). On tear-down a server that came up
// must stop cleanly on SIGTERM (or have halted cleanly), with no sanitizer report in its log.
class ServerTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (!server) return;
        int status = server->stop();
        EXPECT_TRUE(server->port() == 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
        EXPECT_EQ(server->sanitizer_report(), "");
    }
    // Starts a server (on ring, when given); false when it does not come up.
    bool start(const std::string& pf = "", std::vector<std::string> args = {}, const std::string& ring = "") {
        server = std::make_unique<OrbServer>(OrbServer::Options{pf, std::move(args), "127.0.0.1", ring});
        return server->up();
    }
    // Connects c (from the local address, when given) and opens it; false if either fails.
    bool join(WireClient& c, char perm = 'r', const char* what = "server_test", const char* local = nullptr) {
        return c.connect_tcp(server->name(), local) && c.open(perm, what) == 0;
    }
    void expect_logged(std::initializer_list<const char*> lines) {
        std::string log = server->log();
        for (const char* line : lines) EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    }
    std::unique_ptr<OrbServer> server;
};

}  // namespace testsupport

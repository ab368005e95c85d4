// The client library against bad names and hostile peers: a plain socket in the test that answers
// garbage, closes mid-response or says nothing. Every failure must come back as a failure with its
// message, never a crash or a hang past the time-out.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "orb/orb_support.h"
#include "stock/bns.h"

using namespace orbtest;

namespace {

// A TCP socket bound to an ephemeral loopback port; *name is "127.0.0.1:PORT".
int loopback_socket(std::string* name) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    *name = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    return fd;
}

// A one-connection peer on an ephemeral loopback port running a script.
class Peer {
  public:
    explicit Peer(std::function<void(int fd)> script) {
        lfd_ = loopback_socket(&name_);
        EXPECT_EQ(listen(lfd_, 4), 0);
        thread_ = std::thread([this, script] {
            pollfd p{lfd_, POLLIN, 0};
            int fd = poll(&p, 1, 10000) == 1 ? accept(lfd_, nullptr, nullptr) : -1;
            if (fd >= 0) script(fd), close(fd);
        });
    }
    ~Peer() {
        shutdown(lfd_, SHUT_RDWR);
        thread_.join();
        close(lfd_);
    }
    const std::string& name() const { return name_; }

  private:
    int lfd_ = -1;
    std::string name_;
    std::thread thread_;
};

// The peer's end of a connection, speaking with our own encoders and decoders.
struct PeerSide {
    Bns *in, *out;
    Orbrequest* req = newOrbrequest();
    Orbresponse* resp = newOrbresponse();
    explicit PeerSide(int fd) : in(bnsnew(fd, 0)), out(bnsnew(fd, 0)) {}
    ~PeerSide() {
        freeOrbrequest(req), freeOrbresponse(resp);
        bnsfree(in), bnsfree(out);
    }
    // Reads one request (marker and record); false when none came.
    bool read() { return gbnsSync(in, "orbm", 4, 1) == 0 && gbnsOrbrequest(in, req) == 0; }
    // Sends resp, the last cut bytes short.
    void send(int cut = 0) {
        bnsput(out, "orbm", BNS_BYTES, 4);
        pbnsOrbresponse(out, resp);
        out->lp -= cut;
        bnsflush(out);
    }
    // Answers the open (result 0 or a refusal), so that a test can be hostile later in the exchange.
    void answer_open(const char* refusal = nullptr) {
        ASSERT_TRUE(read());
        ASSERT_EQ(req->what, ORBOPEN);
        resp->what = ORBOPEN;
        resp->result = refusal ? -1 : 0;
        resp->orb_start = 1000, resp->server_start = 2000, resp->latest_pktid = 41;
        if (refusal) resp->nerr = static_cast<int>(strlen(strcpy(resp->errmsg, refusal)));
        send();
    }
};

struct OrbOpen : ::testing::Test {
    SetEnv timeout{"BNS_TIMEOUT", "300"};
};

}  // namespace

TEST_F(OrbOpen, BadNamesAndHostilePeersFailWithTheirMessages) {
    std::string closed_port;
    close(loopback_socket(&closed_port));  // nobody listens there now
    struct Case {
        const char* what;
        std::string name;  // opened when there is no peer
        std::function<void(int fd)> peer;
        const char* perm;
        std::string message;
    } cases[] = {
        {"port too large", "127.0.0.1:70000", nullptr, "r", "port number is 70000, but must be less than 65535"},
        {"port name unknown", "127.0.0.1:no_such_port_name", nullptr, "r",
         "Don't understand orbserver port 'no_such_port_name'"},
        {"nobody listening", closed_port, nullptr, "r", "Can't connect to server '"},
        {"peer closing at once", "", [](int) {}, "r", "open negotiation fails: errno = "},
        {"silent peer", "",
         [](int fd) {
             char b[512];
             for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 2000) == 1 && read(fd, b, sizeof b) > 0;) {
             }
         },
         "r", "open negotiation fails: errno = 0 eof=false"},
        {"garbage instead of a response", "",
         [](int fd) {
             std::string junk = std::string(200, '\x5a') + "orbmorbm\xff\xff";
             send(fd, junk.data(), junk.size(), MSG_NOSIGNAL);
             usleep(500000);
         },
         "r", "open negotiation fails"},
        {"refusal carries the server's reason", "",
         [](int fd) {
             PeerSide(fd).answer_open("address 127.0.0.1 may not write");
             usleep(200000);
         },
         "w", "orbserver: address 127.0.0.1 may not write"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::unique_ptr<Peer> peer(c.peer ? new Peer(c.peer) : nullptr);
        std::string name = peer ? peer->name() : c.name;
        EXPECT_TRUE(fails_saying([&] { return orbopen(name.c_str(), c.perm); }, c.message));
    }
}

TEST_F(OrbOpen, UnknownDescriptorsAreRefused) {
    int v = 7;
    EXPECT_TRUE(has(stderr_of([&] {
        EXPECT_EQ(orb2orbfile(12345), nullptr);
        EXPECT_EQ(orbclose(12345), -1);
        EXPECT_EQ(orbseek(12345, ORBOLDEST), -1);
        EXPECT_EQ(orbtell(12345), -1);
        EXPECT_EQ(orbping(12345, &v), -1);
        EXPECT_EQ(orbput(12345, "a/b", 0, "x", 1), -1);
    }), "called with no open orb buffers"));
    EXPECT_EQ(v, -1);
}

// After a proper open one peer sends one whole packet and half of the next, then closes: the
// first is delivered, the read of the second fails, nothing hangs. Another cuts its answer to a seek.
TEST_F(OrbOpen, HalfAPacketOrATruncatedAnswerAfterTheOpen) {
    Peer half([](int fd) {
        PeerSide s(fd);
        s.answer_open();
        if (!s.read()) return;
        Orbresponse* p = s.resp;
        p->what = ORBREAP;
        p->pkg = newPktpkg();
        p->sZpkg = 1;
        p->pkg->packet = static_cast<char*>(calloc(1000, 1));
        p->pkg->sZpacket = p->pkg->packetsize = 1000;
        p->pkg->pktid = 7;
        p->pkg->srcnamesize = static_cast<unsigned short>(strlen(strcpy(p->pkg->srcname, "AA_BB/xfer")));
        s.send();
        s.send(500);
        usleep(100000);
    });
    int orb = orbopen(half.name().c_str(), "r");
    ASSERT_GE(orb, 0);
    Orbfile* of = orb2orbfile(orb);
    EXPECT_EQ(words(of->lastpktid, of->orb_start, of->server_start), "41 1000 2000");
    Reader rd(orb);
    EXPECT_EQ(rd.reap().str(), "0 7 AA_BB/xfer 0 " + std::string(1000, '\0'));
    EXPECT_EQ(rd.reap().str(), "-1 -1  0 ");
    EXPECT_EQ(of->lastpktid, 7);
    orbclose(orb);

    Peer cut([](int fd) {
        PeerSide s(fd);
        s.answer_open();
        if (s.read()) send(fd, "orbm\x00\x00", 6, MSG_NOSIGNAL);
        usleep(600000);
    });
    ASSERT_GE(orb = orbopen(cut.name().c_str(), "r"), 0);
    EXPECT_EQ(orbseek(orb, ORBOLDEST), -2);  // a failed exchange, told apart from an unknown orb
    EXPECT_EQ(words(orb2orbfile(orb)->error, orb2orbfile(orb)->lastpktid), "1 41");
    orbclose(orb);
}

// The client library against bad names and hostile peers: a plain socket in the test
// that answers garbage, closes mid-response or says nothing. Every failure must come
// back as a failure with its message, never a crash or a hang past the time-out.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "orb/orb.h"
#include "stock/bns.h"

namespace {

// A one-connection peer on an ephemeral loopback port running a script.
class Peer {
  public:
    explicit Peer(std::function<void(int fd)> script) : script_(std::move(script)) {
        lfd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = 0;
        EXPECT_EQ(bind(lfd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        EXPECT_EQ(listen(lfd_, 4), 0);
        socklen_t len = sizeof a;
        getsockname(lfd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] {
            pollfd p{lfd_, POLLIN, 0};
            if (poll(&p, 1, 10000) != 1) return;
            int fd = accept(lfd_, nullptr, nullptr);
            if (fd < 0) return;
            script_(fd);
            close(fd);
        });
    }
    ~Peer() {
        shutdown(lfd_, SHUT_RDWR);
        thread_.join();
        close(lfd_);
    }
    std::string name() const { return "127.0.0.1:" + std::to_string(port_); }

  private:
    std::function<void(int)> script_;
    int lfd_ = -1;
    int port_ = 0;
    std::thread thread_;
};

// Reads one request (marker and record) with our own decoder; false when none came.
bool read_request(Bns* in, Orbrequest* req) {
    return gbnsSync(in, "orbm", 4, 1) == 0 && gbnsOrbrequest(in, req) == 0;
}

void send_response(Bns* out, Orbresponse* r) {
    bnsput(out, "orbm", BNS_BYTES, 4);
    pbnsOrbresponse(out, r);
    bnsflush(out);
}

// Answers the open properly, so that a test can be hostile later in the exchange.
void answer_open(Bns* in, Bns* out, Orbresponse* resp) {
    Orbrequest* req = newOrbrequest();
    ASSERT_TRUE(read_request(in, req));
    ASSERT_EQ(req->what, ORBOPEN);
    resp->what = ORBOPEN;
    resp->result = 0;
    resp->orb_start = 1000;
    resp->server_start = 2000;
    resp->latest_pktid = 41;
    send_response(out, resp);
    freeOrbrequest(req);
}

struct Fixture : ::testing::Test {
    void SetUp() override { setenv("BNS_TIMEOUT", "300", 1); }
    void TearDown() override { unsetenv("BNS_TIMEOUT"); }
};

std::string closed_port_name() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);  // nobody listens there now
    return "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
}

}  // namespace

using OrbNaming = Fixture;

TEST_F(OrbNaming, BadNamesFailWithTheirMessages) {
    struct Case {
        std::string name, message;
    } cases[] = {
        {"127.0.0.1:70000", "port number is 70000, but must be less than 65535"},
        {"127.0.0.1:no_such_port_name", "Don't understand orbserver port 'no_such_port_name'"},
        {closed_port_name(), "Can't connect to server '"},
    };
    for (auto& c : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(orbopen(c.name.c_str(), "r"), -1) << c.name;
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(c.message), std::string::npos) << c.name << ": " << err;
    }
}

TEST_F(OrbNaming, UnknownDescriptorsAreRefused) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(orb2orbfile(12345), nullptr);
    EXPECT_EQ(orbclose(12345), -1);
    EXPECT_EQ(orbseek(12345, ORBOLDEST), -1);
    EXPECT_EQ(orbtell(12345), -1);
    int v = 7;
    EXPECT_EQ(orbping(12345, &v), -1);
    EXPECT_EQ(v, -1);
    EXPECT_EQ(orbput(12345, "a/b", 0, "x", 1), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("called with no open orb buffers"), std::string::npos) << err;
}

TEST(OrbLag, LagValueAcrossTheRingAndItsWrap) {
    // Unwrapped ring holding ids 10..19.
    EXPECT_DOUBLE_EQ(lagvalue(19, 10, 19, 100), 0.0);   // at the newest
    EXPECT_DOUBLE_EQ(lagvalue(10, 10, 19, 100), 0.9);   // at the oldest
    EXPECT_DOUBLE_EQ(lagvalue(5, 10, 19, 100), 1.0);    // its packet left the ring
    EXPECT_DOUBLE_EQ(lagvalue(25, 10, 19, 100), 1.0);
    // Wrapped ring holding 95..99 and 0..4 (maxpkt 100): ten packets.
    EXPECT_DOUBLE_EQ(lagvalue(4, 95, 4, 100), 0.0);
    EXPECT_DOUBLE_EQ(lagvalue(0, 95, 4, 100), 0.4);
    EXPECT_DOUBLE_EQ(lagvalue(97, 95, 4, 100), 0.7);
    EXPECT_DOUBLE_EQ(lagvalue(50, 95, 4, 100), 1.0);  // between newest and oldest: gone
}

using OrbHostile = Fixture;

TEST_F(OrbHostile, PeerClosingAtOnceFailsTheOpen) {
    Peer peer([](int) {});
    testing::internal::CaptureStderr();
    EXPECT_EQ(orbopen(peer.name().c_str(), "r"), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("open negotiation fails: errno = "), std::string::npos) << err;
}

TEST_F(OrbHostile, SilentPeerTimesOut) {
    Peer peer([](int fd) {
        char b[512];
        pollfd p{fd, POLLIN, 0};
        while (poll(&p, 1, 2000) == 1 && read(fd, b, sizeof b) > 0) {
        }
    });
    testing::internal::CaptureStderr();
    EXPECT_EQ(orbopen(peer.name().c_str(), "r"), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("open negotiation fails: errno = 0 eof=false"), std::string::npos) << err;
}

TEST_F(OrbHostile, GarbageInsteadOfAResponse) {
    Peer peer([](int fd) {
        std::string junk(200, '\x5a');
        junk += "orbmorbm\xff\xff";
        send(fd, junk.data(), junk.size(), MSG_NOSIGNAL);
        usleep(500000);
    });
    testing::internal::CaptureStderr();
    EXPECT_EQ(orbopen(peer.name().c_str(), "r"), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("open negotiation fails"), std::string::npos) << err;
}

TEST_F(OrbHostile, RefusalCarriesTheServersReason) {
    Peer peer([](int fd) {
        Bns* in = bnsnew(fd, 0);
        Bns* out = bnsnew(fd, 0);
        Orbrequest* req = newOrbrequest();
        if (read_request(in, req)) {
            Orbresponse* r = newOrbresponse();
            r->what = ORBOPEN;
            r->result = -1;
            const char* why = "address 127.0.0.1 may not write";
            r->nerr = static_cast<int>(strlen(why));
            strcpy(r->errmsg, why);
            send_response(out, r);
            freeOrbresponse(r);
        }
        freeOrbrequest(req);
        bnsfree(in);
        bnsfree(out);
        usleep(200000);
    });
    testing::internal::CaptureStderr();
    EXPECT_EQ(orbopen(peer.name().c_str(), "w"), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("orbserver: address 127.0.0.1 may not write"), std::string::npos) << err;
}

// After a proper open the peer misbehaves; the reads and requests fail, nothing hangs.
TEST_F(OrbHostile, MisbehaviourAfterTheOpen) {
    Peer peer([](int fd) {
        Bns* in = bnsnew(fd, 0);
        Bns* out = bnsnew(fd, 0);
        Orbresponse* r = newOrbresponse();
        answer_open(in, out, r);
        Orbrequest* req = newOrbrequest();
        // ORBREAP start, then half a packet and close.
        if (read_request(in, req)) {
            Orbresponse* p = newOrbresponse();
            p->what = ORBREAP;
            p->pkg = newPktpkg();
            p->sZpkg = 1;
            static char body[1000];
            p->pkg->packet = body;
            p->pkg->packetsize = sizeof body;
            p->pkg->pktid = 7;
            strcpy(p->pkg->srcname, "AA_BB/xfer");
            p->pkg->srcnamesize = 10;
            bnsput(out, "orbm", BNS_BYTES, 4);
            pbnsOrbresponse(out, p);
            bnsflush(out);  // the whole packet first: it must be delivered
            bnsput(out, "orbm", BNS_BYTES, 4);
            pbnsOrbresponse(out, p);
            out->lp -= 500;  // then half of the next one
            bnsflush(out);
            p->pkg->packet = nullptr;
            freeOrbresponse(p);
        }
        freeOrbrequest(req);
        freeOrbresponse(r);
        bnsfree(in);
        bnsfree(out);
        usleep(100000);
    });
    int orb = orbopen(peer.name().c_str(), "r");
    ASSERT_GE(orb, 0);
    Orbfile* of = orb2orbfile(orb);
    ASSERT_NE(of, nullptr);
    EXPECT_EQ(of->lastpktid, 41);
    EXPECT_EQ(of->orb_start, 1000);
    EXPECT_EQ(of->server_start, 2000);

    int pktid;
    char src[ORB_SRCNAME_SIZE + 1];
    double t;
    char* pkt = nullptr;
    int nbytes = 0, bufsize = 0;
    EXPECT_EQ(orbreap(orb, &pktid, src, &t, &pkt, &nbytes, &bufsize), 0);
    EXPECT_EQ(pktid, 7);
    EXPECT_STREQ(src, "AA_BB/xfer");
    EXPECT_EQ(nbytes, 1000);
    EXPECT_GE(bufsize, 1000);
    EXPECT_EQ(orbreap(orb, &pktid, src, &t, &pkt, &nbytes, &bufsize), -1);
    EXPECT_EQ(pktid, -1);
    EXPECT_STREQ(src, "");
    EXPECT_EQ(of->lastpktid, 7);
    free(pkt);
    orbclose(orb);
}

TEST_F(OrbHostile, TruncatedAnswerToASeek) {
    Peer peer([](int fd) {
        Bns* in = bnsnew(fd, 0);
        Bns* out = bnsnew(fd, 0);
        Orbresponse* r = newOrbresponse();
        answer_open(in, out, r);
        Orbrequest* req = newOrbrequest();
        if (read_request(in, req)) send(fd, "orbm\x00\x00", 6, MSG_NOSIGNAL);
        usleep(600000);
        freeOrbrequest(req);
        freeOrbresponse(r);
        bnsfree(in);
        bnsfree(out);
    });
    int orb = orbopen(peer.name().c_str(), "r");
    ASSERT_GE(orb, 0);
    EXPECT_EQ(orbseek(orb, ORBOLDEST), -2);  // a failed exchange, told apart from an unknown orb
    EXPECT_EQ(orb2orbfile(orb)->error, 1);
    EXPECT_EQ(orb2orbfile(orb)->lastpktid, 41);
    orbclose(orb);
}

TEST_F(OrbHostile, PutSizesAreChecked) {
    Peer peer([](int fd) {
        Bns* in = bnsnew(fd, 0);
        Bns* out = bnsnew(fd, 0);
        Orbresponse* r = newOrbresponse();
        answer_open(in, out, r);
        Orbrequest* req = newOrbrequest();
        while (read_request(in, req)) {
        }
        freeOrbrequest(req);
        freeOrbresponse(r);
        bnsfree(in);
        bnsfree(out);
    });
    int orb = orbopen(peer.name().c_str(), "w");
    ASSERT_GE(orb, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(orbput(orb, "a/b", 0, "x", -1), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("minimum packet size is 0"), std::string::npos) << err;
    std::string big(Orb_max_data_bytes + 1, 'x');
    testing::internal::CaptureStderr();
    EXPECT_EQ(orbput(orb, "a/b", 0, big.data(), static_cast<int>(big.size())), -1);
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("maximum packet size is " + std::to_string(Orb_max_data_bytes)), std::string::npos) << err;
    EXPECT_EQ(orbput(orb, "a/b", 0, "", 0), 0);  // an empty packet is allowed
    EXPECT_EQ(orbclose(orb), 0);
}

// Every request code against a real orbserver over loopback, with requests
// made by our own encoders.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/orbserver.h"
#include "wire_client.h"

using testsupport::OrbServer;
using testsupport::Pkt;
using testsupport::WireClient;

namespace {

constexpr int kFailed = WireClient::kFailed;

std::string payload(int i, size_t n = 32) {
    std::string s = "packet " + std::to_string(i) + " ";
    while (s.size() < n) s += char('a' + (s.size() + i) % 26);
    s.resize(n);
    return s;
}

class Requests : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.up()) << server.log();
        ASSERT_TRUE(join(writer, 'w', "writer"));
    }
    void TearDown() override {
        writer.disconnect();
        server.stop();
        EXPECT_EQ(server.sanitizer_report(), "");
    }
    // Connects c and opens it; false if either fails.
    bool join(WireClient& c, char perm = 'r', const char* what = "server_test") {
        return c.connect_tcp(server.name()) && c.open(perm, what) == 0;
    }
    // Puts n packets of source src with times base+i; returns their pktids.
    std::vector<int> put_n(int n, const std::string& src = "AA_X/pf", double base = 1000) {
        std::vector<int> ids;
        for (int i = 0; i < n; i++) ids.push_back(writer.putx(src, base + i, payload(i)));
        return ids;
    }
    OrbServer server;
    WireClient writer;
};

TEST_F(Requests, OpenIdSessionsAndTheEmptyRing) {
    WireClient c;
    ASSERT_TRUE(c.connect_tcp(server.name()));
    // Before the open only a ping is answered.
    EXPECT_EQ(c.exchange(ORBPING), 0);
    EXPECT_NE(c.exchange(ORBSTAT), 0);
    EXPECT_NE(c.tell(), 0);
    ASSERT_EQ(c.open('r'), 0);
    EXPECT_EQ(c.resp()->latest_pktid, -1);
    EXPECT_EQ(c.tell(), -1);
    EXPECT_EQ(c.seek(ORBOLDEST), -1);
    EXPECT_EQ(c.seek(ORBNEWEST), -1);
    for (int code : {ORBCURRENT, ORBNEXT, 0}) EXPECT_NE(c.get(code), 0) << code;

    ASSERT_EQ(c.exchange(ORBID), 0);
    int id = c.resp()->thread;
    EXPECT_GE(id, 0);
    ASSERT_EQ(writer.exchange(ORBID), 0);
    EXPECT_NE(writer.resp()->thread, id);

    // ORBNEXT_WAIT is answered with the first packet that arrives.
    c.req()->pktcode = ORBNEXT_WAIT;
    c.req()->what = ORBGET;
    ASSERT_TRUE(c.send());
    writer.putx("W/x", 1, "waited for");
    ASSERT_EQ(c.recv(ORBGET), 0);
    EXPECT_EQ(c.packet().data, "waited for");
    EXPECT_EQ(c.tell(), 0);

    // Another connection asks whether that session is alive: yes, then no once it has gone.
    WireClient asker;
    ASSERT_TRUE(join(asker));
    asker.req()->athread = id;
    ASSERT_EQ(asker.exchange(ORBRUP), 0);
    EXPECT_EQ(asker.resp()->active, 1);
    EXPECT_EQ(asker.resp()->latest_pktid, 0);
    c.disconnect();
    int active = 1;
    for (int i = 0; i < 500 && active == 1; i++) {  // the server notices the close asynchronously
        ASSERT_EQ(asker.exchange(ORBRUP), 0);
        active = asker.resp()->active;
        if (active) usleep(2000);
    }
    EXPECT_EQ(active, 0);
    asker.req()->athread = 99999;
    ASSERT_EQ(asker.exchange(ORBRUP), 0);
    EXPECT_EQ(asker.resp()->active, 0);
}

TEST_F(Requests, ReadPositionRules) {
    ASSERT_EQ(put_n(5), (std::vector<int>{0, 1, 2, 3, 4}));
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_EQ(r.resp()->latest_pktid, 4);
    // Open stands at the newest: nothing to read until something arrives.
    EXPECT_EQ(r.tell(), 4);
    EXPECT_NE(r.get(ORBNEXT), 0);
    writer.putx("AA_X/pf", 1005, payload(5));
    Pkt p;
    ASSERT_EQ(r.get(ORBNEXT, &p), 0);
    EXPECT_EQ(p.pktid, 5);
    EXPECT_EQ(p.data, payload(5));
    EXPECT_EQ(p.srcname, "AA_X/pf");
    EXPECT_DOUBLE_EQ(p.time, 1005);

    // ORBOLDEST: the next read yields the oldest itself, and so does ORBCURRENT.
    EXPECT_EQ(r.seek(ORBOLDEST), 0);
    EXPECT_EQ(r.get_id(ORBCURRENT), 0);
    EXPECT_EQ(r.seek(ORBOLDEST), 0);
    EXPECT_EQ(r.get_id(ORBNEXT), 0);

    // Seeks by pktid and by code; the result is where the client now stands.
    EXPECT_EQ(r.seek(3), 3);
    EXPECT_EQ(r.get_id(ORBNEXT), 4);
    EXPECT_EQ(r.seek(ORBPREV), 3);
    EXPECT_EQ(r.seek(ORBNEXT), 4);
    EXPECT_EQ(r.seek(ORBNEWEST), 5);
    EXPECT_EQ(r.seek(ORBCURRENT), 5);
    EXPECT_EQ(r.seek(77), kFailed);       // not in the ring
    EXPECT_EQ(r.tell(), 5);               // a failed seek leaves the position
    EXPECT_EQ(r.seek(-5), kFailed);       // not a position code
    EXPECT_EQ(r.seek(ORBNEXT), kFailed);  // nothing after the newest
    EXPECT_EQ(r.get_id(2), 2);            // ORBGET by pktid stands there too
    EXPECT_EQ(r.tell(), 2);
    EXPECT_EQ(r.get_id(ORBPREV), 1);
    EXPECT_EQ(r.get_id(ORBOLDEST), 0);
    EXPECT_NE(r.get(ORBPREV), 0);
    EXPECT_EQ(r.get_id(ORBNEWEST), 5);

    // ORBAFTER stands at the first packet later than t; reading goes on after it.
    EXPECT_EQ(r.after(1002 - 1e-5), 2);
    EXPECT_EQ(r.get_id(ORBNEXT), 3);
    EXPECT_EQ(r.after(1002), 3);
    EXPECT_EQ(r.after(0), 0);
    EXPECT_EQ(r.after(5000), kFailed);

    // Time steps follow packet times, not ring order.
    for (double t : {2010, 2030, 2020, 2040}) writer.putx("AA_X/pf", t, "t");  // pktids 6..9
    EXPECT_EQ(r.seek(7), 7);
    EXPECT_EQ(r.seek(ORBNEXTT), 9);  // 8 is in between in ring order but earlier
    EXPECT_EQ(r.seek(ORBPREVT), 8);
    EXPECT_EQ(r.seek(ORBPREVT), 6);
    EXPECT_EQ(r.seek(0), 0);
    EXPECT_EQ(r.seek(ORBPREVT), kFailed);
}

TEST_F(Requests, ReapStreams) {
    put_n(6);
    WireClient r;
    ASSERT_TRUE(join(r));
    ASSERT_EQ(r.seek(ORBOLDEST), 0);

    // Counted: n packets, then the end package.
    ASSERT_TRUE(r.reap(3));
    Pkt p;
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(r.next(&p), 0);
        EXPECT_EQ(p.pktid, i);
        EXPECT_EQ(p.data, payload(i));
    }
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(p.pktid, -32);
    EXPECT_EQ(p.data.size(), 0u);
    EXPECT_EQ(r.tell(), 2);  // stands at the last packet delivered

    // Headers only.
    ASSERT_TRUE(r.reap(2, 0));
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(p.pktid, 3);
    EXPECT_DOUBLE_EQ(p.time, 1003);
    EXPECT_EQ(p.data.size(), 0u);
    for (int want : {4, -32}) ASSERT_EQ(r.next_id(), want);

    // Up to a time: the stream ends at the first later packet, which stays unread.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(-1, -1, 1001.5));
    for (int want : {0, 1, -32}) ASSERT_EQ(r.next_id(), want);
    EXPECT_EQ(r.tell(), 1);

    // Unlimited stream that waits for packets put later.
    ASSERT_TRUE(r.reap());
    for (int want : {2, 3, 4, 5}) ASSERT_EQ(r.next_id(), want);
    writer.putx("AA_X/pf", 2000, "late");
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(p.pktid, 6);
    EXPECT_EQ(p.data, "late");
}

TEST_F(Requests, RequestMidStreamEndsTheStream) {
    WireClient r;
    ASSERT_TRUE(join(r));
    ASSERT_TRUE(r.reap());
    put_n(200);
    ASSERT_EQ(r.next_id(), 0);  // a reader of an empty ring gets the first packet that arrives
    // The answer comes after whatever was already pushed; those pushes are skipped.
    int at = r.tell();
    EXPECT_GE(at, 0);
    EXPECT_LE(at, 199);
    // Nothing is pushed any more: the next thing to arrive is the ping's answer.
    writer.putx("AA_X/pf", 3000, "after");
    ASSERT_EQ(r.exchange(ORBPING), 0);
    int skipped_before = r.skipped();
    ASSERT_EQ(r.exchange(ORBPING), 0);
    EXPECT_EQ(r.skipped(), skipped_before);
    EXPECT_EQ(r.tell(), at);
    // And a new stream carries on after the position.
    ASSERT_TRUE(r.reap(1));
    EXPECT_EQ(r.next_id(), at + 1);
}

TEST_F(Requests, SelectAndRejectMatchWholeNames) {
    const char* srcs[] = {"AA_X/pf", "BB_Y/pf", "AA_Z/wf", "AA_X/pf"};
    for (int i = 0; i < 4; i++) writer.putx(srcs[i], i + 1, std::to_string(i + 1));
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_EQ(r.select("AA"), 0);  // whole names only
    EXPECT_EQ(r.select("AA_.*"), 2);
    EXPECT_EQ(r.reject(".*/wf"), 1);
    EXPECT_EQ(r.select("("), kFailed);  // bad pattern: error, old pattern kept
    EXPECT_NE(std::string(r.resp()->errmsg).find("bad pattern"), std::string::npos);
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(2));
    Pkt p;
    std::vector<std::string> got;
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(r.next(&p), 0);
        got.push_back(p.data + "@" + std::to_string(p.pktid));
    }
    EXPECT_EQ(got, (std::vector<std::string>{"1@0", "4@3", "@-32"}));
    // Selected steps skip the others.
    EXPECT_EQ(r.seek(0), 0);
    EXPECT_EQ(r.seek(ORBNEXT), 3);
    EXPECT_EQ(r.seek(ORBPREV), 0);
    // Clearing the patterns.
    EXPECT_EQ(r.select(""), 2);  // the reject still holds
    EXPECT_EQ(r.reject(""), 3);
    // Packets of a source that arrives later are judged too.
    ASSERT_EQ(r.select("CC.*"), 0);
    ASSERT_TRUE(r.reap(1));
    writer.putx("DD/x", 5, "no");
    writer.putx("CC/x", 6, "yes");
    ASSERT_EQ(r.next(&p), 0) << server.log();
    EXPECT_EQ(p.data, "yes");
}

TEST_F(Requests, StatSourcesAndClients) {
    writer.putx("AA/x", 10, "12345");
    writer.putx("AA/x", 11, "123");
    writer.putx("BB/y", 12, "1");
    WireClient r;
    ASSERT_TRUE(join(r, 'r', "reader_program -x"));
    ASSERT_EQ(r.select("AA/x"), 1);

    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    Orbstat& s = r.resp()->orbstat;
    EXPECT_EQ(s.nsources, 2);
    EXPECT_GE(s.nclients, 2);
    EXPECT_EQ(s.port, server.port());
    EXPECT_EQ(s.pid, server.pid());

    ASSERT_EQ(r.exchange(ORBSOURCES), 0);
    ASSERT_EQ(r.resp()->nsource, 2);
    Orbsrc* aa = &r.resp()->source[0];
    Orbsrc* bb = &r.resp()->source[1];
    if (std::string(aa->srcname) != "AA/x") std::swap(aa, bb);
    EXPECT_STREQ(aa->srcname, "AA/x");
    EXPECT_EQ(aa->npkts, 2);
    EXPECT_EQ(aa->nbytes, 8);
    EXPECT_EQ(aa->soldest, 0);
    EXPECT_EQ(aa->slatest, 1);
    EXPECT_DOUBLE_EQ(aa->soldest_time, 10);
    EXPECT_DOUBLE_EQ(aa->slatest_time, 11);
    EXPECT_STREQ(bb->srcname, "BB/y");
    EXPECT_EQ(bb->npkts, 1);

    ASSERT_EQ(r.seek(1), 1);
    ASSERT_EQ(r.exchange(ORBCLIENTS), 0);
    auto client = [&](const std::string& what) -> Orbclient* {
        for (int i = 0; i < r.resp()->nclient; i++)
            if (what == r.resp()->client[i].what) return &r.resp()->client[i];
        return nullptr;
    };
    Orbclient* k = client("reader_program -x");
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(k->perm, 'r');
    EXPECT_EQ(k->pktid, 1);
    EXPECT_STREQ(k->select, "AA/x");
    EXPECT_STREQ(k->host, "127.0.0.1");
    ASSERT_NE(k = client("writer"), nullptr);
    EXPECT_EQ(k->packets, 3u);
}

TEST_F(Requests, StashIsKeptOutsideTheSequence) {
    writer.putx("S/x", 1, "in ring");
    ASSERT_TRUE(writer.put("S/x", 2, "stashed", ORBSTASH));
    ASSERT_EQ(writer.exchange(ORBPING), 0);  // the put has been handled
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_EQ(r.resp()->latest_pktid, 0);
    std::snprintf(r.req()->srcname, sizeof r.req()->srcname, "S/x");
    ASSERT_EQ(r.exchange(ORBGETSTASH), 0);
    EXPECT_EQ(r.packet().data, "stashed");
    std::snprintf(r.req()->srcname, sizeof r.req()->srcname, "T/none");
    EXPECT_NE(r.exchange(ORBGETSTASH), 0);

    r.req()->stashflag = 2;
    ASSERT_EQ(r.exchange(ORBSTASHSELECT), 0);
    EXPECT_EQ(r.resp()->stashflag, 2);
    r.req()->stashflag = 3;
    EXPECT_NE(r.exchange(ORBSTASHSELECT), 0);
}

TEST_F(Requests, LongPacketsUseTheLongForms) {
    std::string big(100000, 'L');
    big[0] = 'A';
    big[99999] = 'Z';
    EXPECT_EQ(writer.putx("L/x", 1, big), 0);
    ASSERT_TRUE(writer.put("L/x", 2, big + "!"));
    std::string edge(65535, 'e');
    EXPECT_EQ(writer.putx("L/x", 3, edge), 2);

    WireClient r;
    ASSERT_TRUE(join(r));
    Pkt p;
    ASSERT_EQ(r.get(0, &p), 0);
    EXPECT_EQ(r.resp()->what, ORBGETL);
    EXPECT_EQ(p.data, big);
    ASSERT_TRUE(r.reap(3));
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(r.resp()->what, ORBREAPL);
    EXPECT_EQ(p.data, big + "!");
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(r.resp()->what, ORBREAP);
    EXPECT_EQ(p.data, edge);
    // A reap that asks for fewer bytes gets packets cut to that size.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(1, 10));
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(p.data, big.substr(0, 10));
}

TEST_F(Requests, UnknownCodesKillPriorityAndClose) {
    for (int code : {13, 15, 19, 22, 26, 33, 34, 35, 99, -4, 0x7fffffff}) {
        EXPECT_NE(writer.exchange(code), 0) << "code " << code;
        EXPECT_GT(writer.resp()->nerr, 0) << "code " << code;
    }
    // Still served after all that.
    EXPECT_EQ(writer.exchange(ORBPING), 0);
    EXPECT_EQ(writer.exchange(ORBSETLOGGING), 0);

    WireClient victim;
    ASSERT_TRUE(join(victim, 'r', "victim"));
    ASSERT_EQ(victim.exchange(ORBID), 0);
    int id = victim.resp()->thread;

    writer.req()->thread = id;
    writer.req()->newpri = 5;
    EXPECT_EQ(writer.exchange(ORBSETPRI), 0);
    writer.req()->thread = id;
    EXPECT_EQ(writer.exchange(ORBKILL), 0);
    victim.set_timeout(5000);
    EXPECT_EQ(victim.exchange(ORBPING), -1000);  // dropped
    writer.req()->thread = 424242;
    EXPECT_NE(writer.exchange(ORBKILL), 0);

    // ORBCLOSE is answered and the connection then closed.
    EXPECT_EQ(writer.exchange(ORBCLOSE), 0);
    EXPECT_EQ(writer.exchange(ORBPING), -1000);
    EXPECT_NE(server.log().find("killed"), std::string::npos);
}

TEST(RequestsAdmin, AdminRequestsNeedAnAdminAddress) {
    OrbServer::Options o;
    o.pf = "admin_allow 10.0.0.0/8\n";
    OrbServer server(o);
    ASSERT_TRUE(server.up()) << server.log();
    WireClient c;
    ASSERT_TRUE(c.connect_tcp(server.name()));
    ASSERT_EQ(c.open('w'), 0);
    EXPECT_NE(c.exchange(ORBHALT), 0);
    c.req()->thread = 0;
    EXPECT_NE(c.exchange(ORBKILL), 0);
    EXPECT_TRUE(server.running());
    EXPECT_NE(server.log().find("not allowed"), std::string::npos);
}

// ORBHALT, and SIGTERM with a client in mid-stream, both end the server cleanly.
TEST(RequestsAdmin, HaltAndSigtermStopTheServerCleanly) {
    for (bool halt : {true, false}) {
        SCOPED_TRACE(halt ? "ORBHALT" : "SIGTERM");
        OrbServer server;
        ASSERT_TRUE(server.up()) << server.log();
        WireClient c;
        ASSERT_TRUE(c.connect_tcp(server.name()));
        ASSERT_EQ(c.open(halt ? 'w' : 'r'), 0);
        int status;
        if (halt) {
            EXPECT_EQ(c.exchange(ORBHALT), 0);
            status = server.wait_exit();
        } else {
            ASSERT_TRUE(c.reap());
            status = server.stop();
            EXPECT_NE(server.log().find("stopping on a signal"), std::string::npos);
        }
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
}

}  // namespace

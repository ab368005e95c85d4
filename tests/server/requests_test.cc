// Every request code against a real orbserver over loopback, with requests made by our own
// encoders.
#include <gtest/gtest.h>

#include <algorithm>

#include "wire_client.h"

using testsupport::Pkt;
using testsupport::WireClient;
using testsupport::words;

namespace {

constexpr int kFailed = WireClient::kFailed;

std::string payload(int i) {
    std::string s = "packet " + std::to_string(i) + " ";
    while (s.size() < 32) s += char('a' + (s.size() + i) % 26);
    return s;
}

class Requests : public testsupport::ServerTest {
protected:
    void SetUp() override { ASSERT_TRUE(start() && join(writer, 'w', "writer")) << server->log(); }
    // Puts n packets of AA_X/pf with times 1000+i; returns their pktids.
    std::vector<int> put_n(int n) {
        std::vector<int> ids;
        for (int i = 0; i < n; i++) ids.push_back(writer.putx("AA_X/pf", 1000 + i, payload(i)));
        return ids;
    }
    static int thread_id(WireClient& c) { return c.exchange(ORBID) == 0 ? c.resp()->thread : kFailed; }
    WireClient writer;
};

TEST_F(Requests, OpenIdSessionsAndTheEmptyRing) {
    WireClient c, asker;
    ASSERT_TRUE(c.connect_tcp(server->name()));
    // Before the open only a ping is answered.
    EXPECT_EQ(c.exchange(ORBPING), 0);
    EXPECT_NE(c.exchange(ORBSTAT), 0);
    EXPECT_NE(c.tell(), 0);
    ASSERT_EQ(c.open('r'), 0);
    EXPECT_EQ(c.resp()->latest_pktid, -1);
    c.expect_steps({{'t', 0, -1}, {'s', ORBOLDEST, -1}, {'s', ORBNEWEST, -1}, {'g', ORBCURRENT, kFailed},
                    {'g', ORBNEXT, kFailed}, {'g', 0, kFailed}});
    int id = thread_id(c);
    EXPECT_GE(id, 0);
    EXPECT_NE(thread_id(writer), id);
    // ORBNEXT_WAIT is answered with the first packet that arrives.
    c.req()->pktcode = ORBNEXT_WAIT;
    c.req()->what = ORBGET;
    ASSERT_TRUE(c.send());
    writer.putx("W/x", 1, "waited for");
    ASSERT_EQ(c.recv(ORBGET), 0);
    EXPECT_EQ(c.packet().data, "waited for");
    EXPECT_EQ(c.tell(), 0);
    // Another connection asks whether that session is alive: yes, then no once it has gone.
    ASSERT_TRUE(join(asker));
    auto active = [&](int thread) {
        asker.req()->athread = thread;
        return asker.exchange(ORBRUP) == 0 ? asker.resp()->active : kFailed;
    };
    EXPECT_EQ(active(id), 1);
    EXPECT_EQ(asker.resp()->latest_pktid, 0);
    c.disconnect();
    for (int i = 0; i < 500 && active(id) == 1; i++) usleep(2000);  // the server notices the close later
    EXPECT_EQ(active(id), 0);
    EXPECT_EQ(active(99999), 0);
}

TEST_F(Requests, ReadPositionRules) {
    ASSERT_EQ(put_n(5), (std::vector<int>{0, 1, 2, 3, 4}));
    WireClient r;
    ASSERT_TRUE(join(r));
    EXPECT_EQ(r.resp()->latest_pktid, 4);
    // Open stands at the newest: nothing to read until something arrives.
    r.expect_steps({{'t', 0, 4}, {'g', ORBNEXT, kFailed}});
    writer.putx("AA_X/pf", 1005, payload(5));
    Pkt p;
    ASSERT_EQ(r.get(ORBNEXT, &p), 0);
    EXPECT_EQ(p.str(), "5 1005 AA_X/pf " + payload(5));
    r.expect_steps({
        {'s', ORBOLDEST, 0}, {'g', ORBCURRENT, 0},  // the next read yields the oldest itself
        {'s', ORBOLDEST, 0}, {'g', ORBNEXT, 0},     // and so does ORBNEXT
        // Seeks by pktid and by code; the result is where the client now stands.
        {'s', 3, 3}, {'g', ORBNEXT, 4}, {'s', ORBPREV, 3}, {'s', ORBNEXT, 4}, {'s', ORBNEWEST, 5},
        {'s', ORBCURRENT, 5}, {'s', 77, kFailed}, {'t', 0, 5},  // not in the ring: the position stays
        {'s', -5, kFailed}, {'s', ORBNEXT, kFailed},             // not a code; nothing after the newest
        {'g', 2, 2}, {'t', 0, 2},                                 // ORBGET by pktid stands there too
        {'g', ORBPREV, 1}, {'g', ORBOLDEST, 0}, {'g', ORBPREV, kFailed}, {'g', ORBNEWEST, 5},
        // ORBAFTER stands at the first packet later than t; reading goes on after it.
        {'a', 1002 - 1e-5, 2}, {'g', ORBNEXT, 3}, {'a', 1002, 3}, {'a', 0, 0}, {'a', 5000, kFailed},
    });
    // Time steps follow packet times, not ring order.
    for (double t : {2010, 2030, 2020, 2040}) writer.putx("AA_X/pf", t, "t");  // pktids 6..9
    r.expect_steps({{'s', 7, 7}, {'s', ORBNEXTT, 9}, {'s', ORBPREVT, 8}, {'s', ORBPREVT, 6}, {'s', 0, 0},
                    {'s', ORBPREVT, kFailed}});
}

TEST_F(Requests, ReapStreams) {
    WireClient r;
    ASSERT_TRUE(join(r));
    ASSERT_TRUE(r.reap());
    put_n(200);
    ASSERT_EQ(r.next_id(), 0);  // a reader of an empty ring gets the first packet that arrives
    // A request mid-stream ends it: its answer comes after what was already pushed (skipped).
    int at = r.tell();
    EXPECT_TRUE(at >= 0 && at <= 199) << at;
    writer.putx("AA_X/pf", 3000, "after");
    ASSERT_EQ(r.exchange(ORBPING), 0);
    int skipped_before = r.skipped();
    ASSERT_EQ(r.exchange(ORBPING), 0);
    EXPECT_EQ(r.skipped(), skipped_before);  // nothing is pushed any more
    EXPECT_EQ(r.tell(), at);
    ASSERT_TRUE(r.reap(1));  // a new stream carries on after the position
    for (int want : {at + 1, -32}) EXPECT_EQ(r.next_id(), want);
    // Counted: n packets, then the end package, standing at the last packet delivered.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(3));
    Pkt p;
    for (int i = 0; i < 3 && r.next(&p) == 0; i++) EXPECT_EQ(p.str(), words(i, 1000 + i, "AA_X/pf", payload(i)));
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(words(p.pktid, p.data), "-32 ");
    EXPECT_EQ(r.tell(), 2);
    ASSERT_TRUE(r.reap(2, 0));  // headers only
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(p.str(), "3 1003 AA_X/pf ");
    for (int want : {4, -32}) ASSERT_EQ(r.next_id(), want);
    // Up to a time: the stream ends at the first later packet, which stays unread.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(-1, -1, 1001.5));
    for (int want : {0, 1, -32}) ASSERT_EQ(r.next_id(), want);
    EXPECT_EQ(r.tell(), 1);
    // Unlimited, waiting for packets put later.
    ASSERT_EQ(r.seek(199), 199);
    ASSERT_TRUE(r.reap());
    ASSERT_EQ(r.next_id(), 200);
    writer.putx("AA_X/pf", 4000, "late");
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(p.str(), "201 4000 AA_X/pf late");
    server->stop();  // SIGTERM with a client in mid-stream
    expect_logged({"stopping on a signal"});
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
    for (int i = 0; i < 3 && r.next(&p) == 0; i++) got.push_back(p.data + "@" + std::to_string(p.pktid));
    EXPECT_EQ(got, (std::vector<std::string>{"1@0", "4@3", "@-32"}));
    r.expect_steps({{'s', 0, 0}, {'s', ORBNEXT, 3}, {'s', ORBPREV, 0}});  // selected steps skip the others
    EXPECT_EQ(r.select(""), 2);  // cleared; the reject still holds
    EXPECT_EQ(r.reject(""), 3);
    // Packets of a source that arrives later are judged too.
    ASSERT_EQ(r.select("CC.*"), 0);
    ASSERT_TRUE(r.reap(1));
    writer.putx("DD/x", 5, "no");
    writer.putx("CC/x", 6, "yes");
    ASSERT_EQ(r.next(&p), 0) << server->log();
    EXPECT_EQ(p.data, "yes");
}

TEST_F(Requests, StatSourcesClientsAndStash) {
    writer.putx("AA/x", 10, "12345");
    writer.putx("AA/x", 11, "123");
    writer.putx("BB/y", 12, "1");
    WireClient r, s;
    ASSERT_TRUE(join(r, 'r', "reader_program -x"));
    ASSERT_EQ(r.select("AA/x"), 1);
    ASSERT_EQ(r.exchange(ORBSTAT), 0);
    const Orbstat& st = r.resp()->orbstat;
    EXPECT_EQ(words(st.nsources, st.port, st.pid), words(2, server->port(), server->pid()));
    EXPECT_GE(st.nclients, 2);
    ASSERT_EQ(r.exchange(ORBSOURCES), 0);
    std::vector<std::string> sources;  // name, packets, bytes, oldest and latest ids and times
    for (const Orbsrc* o = r.resp()->source; o < r.resp()->source + r.resp()->nsource; o++)
        sources.push_back(words(o->srcname, o->npkts, o->nbytes, o->soldest, o->slatest, o->soldest_time, o->slatest_time));
    std::sort(sources.begin(), sources.end());
    EXPECT_EQ(sources, (std::vector<std::string>{"AA/x 2 8 0 1 10 11", "BB/y 1 1 2 2 12 12"}));
    ASSERT_EQ(r.seek(1), 1);
    ASSERT_EQ(r.exchange(ORBCLIENTS), 0);
    std::vector<std::string> clients;  // what, perm, position, select, host, packets written
    for (const Orbclient* k = r.resp()->client; k < r.resp()->client + r.resp()->nclient; k++)
        clients.push_back(words(k->what, k->perm, k->pktid, k->select, k->host, k->packets));
    std::sort(clients.begin(), clients.end());
    EXPECT_EQ(clients, (std::vector<std::string>{"reader_program -x r 1 AA/x 127.0.0.1 0",
                                                 "writer w -1  127.0.0.1 3"}));

    ASSERT_TRUE(writer.put("BB/y", 13, "stashed", ORBSTASH));
    ASSERT_EQ(writer.exchange(ORBPING), 0);  // the put has been handled
    ASSERT_TRUE(join(s));                    // the stash is kept outside the sequence
    EXPECT_EQ(s.resp()->latest_pktid, 2);
    std::snprintf(r.req()->srcname, sizeof r.req()->srcname, "BB/y");
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
    std::string big(100000, 'L'), edge(65535, 'e');
    big[0] = 'A', big[99999] = 'Z';
    EXPECT_EQ(writer.putx("L/x", 1, big), 0);
    ASSERT_TRUE(writer.put("L/x", 2, big + "!"));
    EXPECT_EQ(writer.putx("L/x", 3, edge), 2);
    WireClient r;
    ASSERT_TRUE(join(r));
    Pkt p;
    ASSERT_EQ(r.get(0, &p), 0);
    EXPECT_EQ(r.resp()->what, ORBGETL);
    EXPECT_TRUE(p.data == big);
    ASSERT_TRUE(r.reap(3));
    for (auto [what, data] : {std::pair{ORBREAPL, big + "!"}, {ORBREAP, edge}}) {
        ASSERT_EQ(r.next(&p), 0);
        EXPECT_EQ(r.resp()->what, what);
        EXPECT_TRUE(p.data == data);
    }
    // A reap that asks for fewer bytes gets packets cut to that size.
    ASSERT_EQ(r.seek(ORBOLDEST), 0);
    ASSERT_TRUE(r.reap(1, 10));
    ASSERT_EQ(r.next(&p), 0);
    EXPECT_EQ(p.data, big.substr(0, 10));
}

TEST_F(Requests, UnknownCodesKillPriorityCloseAndHalt) {
    for (int code : {13, 15, 19, 22, 26, 33, 34, 35, 99, -4, 0x7fffffff}) {
        EXPECT_NE(writer.exchange(code), 0) << "code " << code;
        EXPECT_GT(writer.resp()->nerr, 0) << "code " << code;
    }
    // Still served after all that.
    EXPECT_EQ(writer.exchange(ORBPING), 0);
    EXPECT_EQ(writer.exchange(ORBSETLOGGING), 0);
    WireClient victim, admin;
    ASSERT_TRUE(join(victim, 'r', "victim"));
    writer.req()->thread = thread_id(victim);
    writer.req()->newpri = 5;
    EXPECT_EQ(writer.exchange(ORBSETPRI), 0);
    writer.req()->thread = thread_id(victim);
    EXPECT_EQ(writer.exchange(ORBKILL), 0);
    victim.set_timeout(5000);
    EXPECT_EQ(victim.exchange(ORBPING), kFailed);  // dropped
    writer.req()->thread = 424242;
    EXPECT_NE(writer.exchange(ORBKILL), 0);
    // ORBCLOSE is answered and the connection then closed.
    EXPECT_EQ(writer.exchange(ORBCLOSE), 0);
    EXPECT_EQ(writer.exchange(ORBPING), kFailed);
    expect_logged({"killed"});
    // ORBHALT ends the server cleanly (its exit status is checked on tear-down).
    ASSERT_TRUE(join(admin, 'w'));
    EXPECT_EQ(admin.exchange(ORBHALT), 0);
    server->wait_exit();
}

}  // namespace

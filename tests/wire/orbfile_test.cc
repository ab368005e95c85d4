// Protocol records on the wire: exact bytes for every request and response
// code, decode(encode(x)) == x, and the length limits under hostile input.
#include "orb/orbfile.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "stock/bns.h"
#include "wire/wire_support.h"

namespace {

const double T0 = 1700000000.25;

std::string hello_bytes() {
    return Wire().i(0x6f72626d).text("alice", 24).text("ferrant2 -v x", 128).i(4242).b("w").s;
}

void fill_hello(OrbOpenString* o) {
    o->handshake = 0x6f72626d;
    strcpy(o->who, "alice");
    strcpy(o->what, "ferrant2 -v x");
    o->pid = 4242;
    o->perm = 'w';
}

void fill_pkg(Pktpkg* p, int size) {
    p->pktid = 77;
    p->time = T0;
    strcpy(p->srcname, "AK_ABC/xfer");
    p->srcnamesize = 11;
    p->packet = static_cast<char*>(realloc(p->packet, size ? size : 1));
    p->sZpacket = size;
    for (int i = 0; i < size; i++) p->packet[i] = (char)(i * 7);
    p->packetsize = size;
}

std::string packet_bytes(int size) {
    std::string s(size, '\0');
    for (int i = 0; i < size; i++) s[i] = (char)(i * 7);
    return s;
}

// The bytes of fill_pkg's package, its size in the short (16-bit) or long (32-bit) form.
std::string pkg_bytes(int size, bool long_form) {
    Wire w = Wire().i(77);
    if (long_form)
        w.i(size);
    else
        w.h(size);
    return w.h(11).d(T0).b("AK_ABC/xfer").b(packet_bytes(size)).s;
}

// A filler of a record's package of the given size.
template <class Rec>
std::function<void(Rec*)> with_pkg(int size) {
    return [size](Rec* r) {
        r->pkg = newPktpkg();
        fill_pkg(r->pkg, size);
    };
}

std::string encode(Orbrequest* r) {
    OutStream o;
    EXPECT_EQ(pbnsOrbrequest(o.b, r), 0);
    return pending(o.b);
}

std::string encode(Orbresponse* r) {
    OutStream o;
    EXPECT_EQ(pbnsOrbresponse(o.b, r), 0);
    return pending(o.b);
}

int decode(Bns* b, Orbrequest* r) { return gbnsOrbrequest(b, r); }
int decode(Bns* b, Orbresponse* r) { return gbnsOrbresponse(b, r); }

// A record as filled in by a program, and its exact bytes on the wire.
template <class Rec>
struct Case {
    const char* name;
    int what;
    std::function<void(Rec*)> fill;  // the fields other than what
    std::string bytes;
};

// Where to cut a message short: every byte of a small one, about 37 places in a large one.
std::vector<size_t> cuts(const std::string& bytes) {
    std::vector<size_t> v;
    for (size_t cut = 0; cut < bytes.size(); cut += std::max<size_t>(1, bytes.size() / 37)) v.push_back(cut);
    return v;
}

// Exact bytes, a decode that reads no further than the message and encodes back to
// the same bytes, and a failure at end of file wherever the message is cut short.
template <class Rec>
void check_cases(const std::vector<Case<Rec>>& cases, Rec* (*make)(), void (*release)(Rec*)) {
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        Rec* r = make();
        r->what = c.what;
        c.fill(r);
        EXPECT_EQ(encode(r), c.bytes);
        InStream in(c.bytes + "orbm");  // the marker behind the message must be what is left
        Rec* d = make();
        EXPECT_EQ(decode(in.b, d), 0);
        EXPECT_EQ(in.rest(), "orbm");
        EXPECT_EQ(d->what, r->what);
        EXPECT_EQ(encode(d), c.bytes);
        release(d);
        release(r);
        for (size_t cut : cuts(c.bytes)) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            InStream part(c.bytes.substr(0, cut));
            Rec* t = make();
            EXPECT_EQ(decode(part.b, t), -1);
            EXPECT_EQ(part.b->eof, 1);
            release(t);
        }
    }
}

std::vector<Case<Orbrequest>> request_cases() {
    std::vector<Case<Orbrequest>> v;
    v.push_back({"put", ORBPUT, with_pkg<Orbrequest>(5), Wire().i(1).b(pkg_bytes(5, false)).s});
    v.push_back({"putx", ORBPUTX, with_pkg<Orbrequest>(0), Wire().i(30).b(pkg_bytes(0, false)).s});
    // The short size holds 65535; one byte more promotes the code to its long form.
    for (int size : {65535, 65536}) {
        v.push_back({"put at 64 KiB", ORBPUT, with_pkg<Orbrequest>(size),
                     Wire().i(size > 65535 ? ORBPUTL : ORBPUT).b(pkg_bytes(size, size > 65535)).s});
        v.push_back({"putx at 64 KiB", ORBPUTX, with_pkg<Orbrequest>(size),
                     Wire().i(size > 65535 ? ORBPUTXL : ORBPUTX).b(pkg_bytes(size, size > 65535)).s});
    }
    v.push_back({"get", ORBGET, [](Orbrequest* r) { r->pktcode = ORBCURRENT; },
                 std::string("\x00\x00\x00\x02\xff\xff\xff\xf6", 8)});
    v.push_back({"seek", ORBSEEK, [](Orbrequest* r) { r->pktcode = ORBOLDEST; },
                 std::string("\x00\x00\x00\x07\xff\xff\xff\xf3", 8)});
    v.push_back({"reap", ORBREAP,
                 [](Orbrequest* r) { r->reap_maxtime = 2.5; r->reap_maxbytes = 9; r->reap_maxpkts = 3; },
                 std::string("\x00\x00\x00\x03" "\x40\x04\x00\x00\x00\x00\x00\x00"
                             "\x00\x00\x00\x09" "\x00\x00\x00\x03", 20)});
    v.push_back({"reapl", ORBREAPL,
                 [](Orbrequest* r) { r->reap_maxtime = -1; r->reap_maxbytes = 0; r->reap_maxpkts = -32; },
                 Wire().i(27).d(-1).i(0).i((uint32_t)-32).s});
    v.push_back({"select", ORBSELECT,
                 [](Orbrequest* r) { r->select = strdup(".*/xfer"); r->sZselect = 8; r->nselect = 8; },
                 Wire().i(9).i(8).b(std::string(".*/xfer\0", 8)).s});
    v.push_back({"reject", ORBREJECT,
                 [](Orbrequest* r) { r->reject = strdup("X"); r->sZreject = 2; r->nreject = 2; },
                 Wire().i(10).i(2).b(std::string("X\0", 2)).s});
    v.push_back({"after", ORBAFTER, [](Orbrequest* r) { r->time = T0; }, Wire().i(12).d(T0).s});
    v.push_back({"setpri", ORBSETPRI, [](Orbrequest* r) { r->newpri = 5; r->thread = 6; },
                 Wire().i(16).i(5).i(6).s});
    v.push_back({"setlogging", ORBSETLOGGING, [](Orbrequest* r) { r->logflag = 1; }, Wire().i(18).i(1).s});
    v.push_back({"open", ORBOPEN, [](Orbrequest* r) { r->hello = newOrbOpenString(); fill_hello(r->hello); },
                 Wire().i(20).b(hello_bytes()).s});
    v.push_back({"kill", ORBKILL, [](Orbrequest* r) { r->thread = 12; }, Wire().i(21).i(12).s});
    v.push_back({"rup", ORBRUP,
                 [](Orbrequest* r) { r->athread = 3; r->hello = newOrbOpenString(); fill_hello(r->hello); },
                 Wire().i(24).i(3).b(hello_bytes()).s});
    v.push_back({"stashselect", ORBSTASHSELECT, [](Orbrequest* r) { r->stashflag = 2; },
                 Wire().i(28).i(2).s});
    v.push_back({"getstash", ORBGETSTASH, [](Orbrequest* r) { strcpy(r->srcname, "AK_ABC/xfer"); },
                 Wire().i(29).text("AK_ABC/xfer", 64).s});
    v.push_back({"signedopen", ORBSIGNEDOPEN,
                 [](Orbrequest* r) {
                     r->hello = newOrbOpenString();
                     fill_hello(r->hello);
                     memcpy(r->challenge, "0123456789ab", 12);
                     strcpy(r->signer, "operator");
                     memset(r->signature, 's', 512);
                 },
                 Wire().i(34).b(hello_bytes()).b("0123456789ab").text("operator", 64)
                     .b(std::string(512, 's')).s});
    for (int code : {4, 5, 6, 8, 11, 13, 14, 15, 17, 19, 23, 26, 33, 35, 99, -5})
        v.push_back({"bodiless", code, [](Orbrequest* r) { r->pktcode = 1234; r->time = 5; },
                     Wire().i(code).s});
    return v;
}

TEST(OrbrequestWire, EveryCodeHasItsExactBytesDecodesBackAndFailsWhenCut) {
    check_cases(request_cases(), newOrbrequest, freeOrbrequest);
}

struct MaxData {
    int saved = Orb_max_data_bytes;
    explicit MaxData(int n) { Orb_max_data_bytes = n; }
    ~MaxData() { Orb_max_data_bytes = saved; }
};

TEST(OrbrequestWire, PacketOneByteOverTheLimit) {
    MaxData limit(70000);
    Orbrequest* r = newOrbrequest();
    r->pkg = newPktpkg();
    r->what = ORBPUT;
    fill_pkg(r->pkg, 70000);
    EXPECT_EQ(encode(r).size(), 4u + 4 + 4 + 2 + 8 + 11 + 70000);

    fill_pkg(r->pkg, 70001);
    r->what = ORBPUT;
    OutStream o;
    EXPECT_NE(pbnsOrbrequest(o.b, r), 0);
    EXPECT_EQ(r->what, ORBPUTL);

    // Decoding refuses the size before reading any packet byte.
    std::string body = packet_bytes(70001);
    InStream in(Wire().i(ORBPUTL).i(5).i(70001).h(2).d(T0).b("ab").s + body, 8192);
    Orbrequest* d = newOrbrequest();
    EXPECT_EQ(gbnsOrbrequest(in.b, d), -1);
    EXPECT_EQ(in.rest(), body);
    EXPECT_LT(d->pkg->sZpacket, 70001);

    // The short form cannot exceed 65535, but a small limit holds it too.
    MaxData tiny(10);
    InStream in2(Wire().i(ORBPUT).i(5).h(11).h(0).d(T0).b("hello world").s);
    EXPECT_EQ(gbnsOrbrequest(in2.b, d), -1);
    EXPECT_EQ(in2.rest(), "hello world");
    freeOrbrequest(d);
    freeOrbrequest(r);
}

TEST(OrbrequestWire, PatternLengths) {
    Orbrequest* d = newOrbrequest();
    std::string pat(16383, 'a');
    pat.push_back('\0');
    InStream ok(Wire().i(ORBSELECT).i(16384).b(pat).s);
    ASSERT_EQ(gbnsOrbrequest(ok.b, d), 0);
    EXPECT_EQ(d->nselect, 16384);
    EXPECT_EQ(strlen(d->select), 16383u);

    InStream big(Wire().i(ORBSELECT).i(16385).b(pat + "b").s);
    EXPECT_EQ(gbnsOrbrequest(big.b, d), -1);
    EXPECT_EQ(big.rest().size(), 16385u) << "pattern bytes must stay unread";

    InStream neg(Wire().i(ORBREJECT).i((uint32_t)-1).s);
    EXPECT_EQ(gbnsOrbrequest(neg.b, d), -1);

    // A pattern sent without its NUL is still a terminated text.
    InStream nonul(Wire().i(ORBREJECT).i(3).b("abc").s);
    ASSERT_EQ(gbnsOrbrequest(nonul.b, d), 0);
    EXPECT_STREQ(d->reject, "abc");
    freeOrbrequest(d);
}

// Every field a different value, so that a field sent in the wrong place shows.
void fill_stat(Orbstat* s) {
    s->maxdata = 4000000; s->maxpkts = 1000; s->maxsrc = 50; s->nclients = 2; s->nsources = 3;
    s->started = T0 - 10; s->when = T0; s->pid = 99;
    memcpy(s->address, "\x7f\x00\x00\x01", 4);
    s->port = 6510; s->opens = 4; s->closes = 5; s->rejected = 6; s->errors = 7;
    strcpy(s->host, "ringhost");
    strcpy(s->who, "bob");
    strcpy(s->version, "ferrant2 0.1");
    s->orb_start = T0 - 100; s->messages = 8; s->connections = 9;
}

std::string stat_bytes() {
    return Wire().i(4000000).i(1000).i(50).i(2).i(3).d(T0 - 10).d(T0).i(99)
        .b(std::string("\x7f\x00\x00\x01", 4)).i(6510).i(4).i(5).i(6).i(7)
        .text("ringhost", 128).text("bob", 24).text("ferrant2 0.1", 128)
        .d(T0 - 100).i(8).i(9).s;
}

void fill_client(Orbclient* c, const char* select, const char* reject) {
    c->started = T0 - 5; c->lastpkt = T0;
    c->pktid = 11; c->packets = 12; c->bytes = 13; c->read = 14; c->written = 15;
    c->nreads = 16; c->nwrites = 17; c->nrequests = 18; c->mymessages = 19;
    c->lastrequest = ORBREAP; c->priority = 20; c->errors = 21;
    strcpy(c->select, select);
    c->nselect = (int)strlen(select) + 1;
    strcpy(c->reject, reject);
    c->nreject = (int)strlen(reject) + 1;
    c->fd = 22; c->thread = 23;
    memcpy(c->address, "\x0a\x00\x00\x02", 4);
    c->port = 40000;
    strcpy(c->who, "carol");
    strcpy(c->host, "client.example");
    strcpy(c->what, "ferrant2 -S state");
    c->pid = 24; c->perm = 'r';
}

std::string client_bytes(const char* select, const char* reject) {
    std::string sel(select, strlen(select) + 1), rej(reject, strlen(reject) + 1);
    return Wire().d(T0 - 5).d(T0).i(11).i(12).i(13).i(14).i(15).i(16).i(17).i(18).i(19).i(ORBREAP).i(20).i(21)
        .i((uint32_t)sel.size()).b(sel).i((uint32_t)rej.size()).b(rej).i(22).i(23)
        .b(std::string("\x0a\x00\x00\x02", 4)).i(40000).text("carol", 24).text("client.example", 128)
        .text("ferrant2 -S state", 128).i(24).b("r").s;
}

void fill_src(Orbsrc* s, const char* name, int n) {
    strcpy(s->srcname, name);
    s->active = 1; s->soldest = n; s->slatest = n + 10; s->npkts = 11; s->nbytes = 5000;
    s->soldest_time = T0 - n; s->slatest_time = T0;
}

std::string src_bytes(const char* name, int n) {
    return Wire().text(name, 64).i(1).i(n).i(n + 10).i(11).i(5000).d(T0 - n).d(T0).s;
}

std::vector<Case<Orbresponse>> response_cases() {
    std::vector<Case<Orbresponse>> v;
    for (int code : {ORBGET, ORBREAP})
        v.push_back({"short pkg", code, with_pkg<Orbresponse>(40),
                     Wire().i(code).i(0).b(pkg_bytes(40, false)).s});
    for (int code : {ORBGETL, ORBREAPL, ORBGETSTASH})
        v.push_back({"long pkg", code, with_pkg<Orbresponse>(40),
                     Wire().i(code).i(0).b(pkg_bytes(40, true)).s});
    // Past 65535 bytes the short codes are promoted; ORBGETSTASH is always long, never renamed.
    for (auto [code, sent] : {std::pair{ORBGET, ORBGETL}, {ORBREAP, ORBREAPL}, {ORBGETSTASH, ORBGETSTASH}})
        v.push_back({"pkg past 64 KiB", code, with_pkg<Orbresponse>(65536),
                     Wire().i(sent).i(0).b(pkg_bytes(65536, true)).s});
    v.push_back({"stat", ORBSTAT, [](Orbresponse* r) { fill_stat(&r->orbstat); },
                 Wire().i(4).i(0).b(stat_bytes()).s});
    // A fresh record says "unknown" (-1) for what a server has not filled in.
    v.push_back({"stat of a fresh record", ORBSTAT, [](Orbresponse*) {},
                 Wire().i(4).i(0).i(0).i(-1).i(-1).i(0).i(-1).d(-1).d(-1).i(-1).i(-1).i(-1).i(0).i(0)
                     .i(0).i(0).text("", 128 + 24 + 128).d(-1).i(0).i(0).s});
    v.push_back({"clients", ORBCLIENTS,
                 [](Orbresponse* r) {
                     r->client_when = T0;
                     r->nclient = r->sZclient = 2;
                     r->client = static_cast<Orbclient*>(calloc(2, sizeof(Orbclient)));
                     fill_client(&r->client[0], ".*", "AK_X.*");
                     fill_client(&r->client[1], "", "");
                 },
                 Wire().i(5).i(0).d(T0).i(2).b(client_bytes(".*", "AK_X.*")).b(client_bytes("", "")).s});
    v.push_back({"sources", ORBSOURCES,
                 [](Orbresponse* r) {
                     r->source_when = T0;
                     r->nsource = r->sZsource = 3;
                     r->source = static_cast<Orbsrc*>(calloc(3, sizeof(Orbsrc)));
                     fill_src(&r->source[0], "AK_A/xfer", 1);
                     fill_src(&r->source[1], "AK_B/xfer", 2);
                     fill_src(&r->source[2], "/pf/ch", 3);
                 },
                 Wire().i(6).i(0).d(T0).i(3).b(src_bytes("AK_A/xfer", 1)).b(src_bytes("AK_B/xfer", 2))
                     .b(src_bytes("/pf/ch", 3)).s});
    for (int code : {ORBSEEK, ORBTELL, ORBAFTER, ORBPUTX, ORBPUTXL})
        v.push_back({"pktid", code, [](Orbresponse* r) { r->pktid = 123456; },
                     Wire().i(code).i(0).i(123456).s});
    for (int code : {ORBSELECT, ORBREJECT})
        v.push_back({"nselections", code, [](Orbresponse* r) { r->nselections = 4; },
                     Wire().i(code).i(0).i(4).s});
    v.push_back({"ping", ORBPING, [](Orbresponse* r) { r->version = 7; },
                 std::string("\0\0\0\x0e\0\0\0\0\0\0\0\x07", 12)});
    for (int code : {ORBOPEN, ORBSIGNEDOPEN})
        v.push_back({"open", code,
                     [](Orbresponse* r) {
                         r->orb_start = T0 - 100;
                         r->server_start = T0 - 1;
                         r->latest_pktid = 41;
                     },
                     Wire().i(code).i(0).d(T0 - 100).d(T0 - 1).i(41).s});
    v.push_back({"id", ORBID, [](Orbresponse* r) { r->thread = 17; }, Wire().i(23).i(0).i(17).s});
    v.push_back({"rup", ORBRUP,
                 [](Orbresponse* r) {
                     r->active = 1;
                     r->orb_start = T0 - 100;
                     r->server_start = T0 - 1;
                     r->latest_pktid = 41;
                 },
                 Wire().i(24).i(0).i(1).d(T0 - 100).d(T0 - 1).i(41).s});
    v.push_back({"stashselect", ORBSTASHSELECT, [](Orbresponse* r) { r->stashflag = 1; },
                 Wire().i(28).i(0).i(1).s});
    v.push_back({"challenge", ORBCHALLENGE, [](Orbresponse* r) { memcpy(r->challenge, "abcdefghijkl", 12); },
                 Wire().i(33).i(0).b("abcdefghijkl").s});
    for (int code : {1, 11, 13, 15, 16, 17, 18, 19, 21, 25, 35, 100})
        v.push_back({"bodiless", code, [](Orbresponse* r) { r->pktid = 5; r->version = 3; },
                     Wire().i(code).i(0).s});
    v.push_back({"error", ORBSEEK,
                 [](Orbresponse* r) { r->result = -1; strcpy(r->errmsg, "no such packet"); r->nerr = 15; },
                 Wire().i(7).i((uint32_t)-1).i(15).b(std::string("no such packet", 15)).s});
    v.push_back({"error on a package code", ORBGET, [](Orbresponse* r) { r->result = 3; r->nerr = 0; },
                 Wire().i(2).i(3).i(0).s});
    return v;
}

TEST(OrbresponseWire, EveryCodeHasItsExactBytesDecodesBackAndFailsWhenCut) {
    check_cases(response_cases(), newOrbresponse, freeOrbresponse);
}

TEST(OrbresponseWire, ErrorTextLengths) {
    Orbresponse* d = newOrbresponse();
    std::string text(600, 'e');
    InStream big(Wire().i(ORBGET).i(-1).i(600).b(text).s);
    ASSERT_EQ(gbnsOrbresponse(big.b, d), 0);
    EXPECT_EQ(d->nerr, 600);
    EXPECT_EQ(std::string(d->errmsg, 512), std::string(512, 'e'));
    EXPECT_EQ(big.rest().size(), 88u);

    memset(d->errmsg, 'x', 512);
    InStream small(Wire().i(ORBGET).i(-1).i(20).b(std::string(20, 'f')).s);
    ASSERT_EQ(gbnsOrbresponse(small.b, d), 0);
    EXPECT_EQ(std::string(d->errmsg), std::string(20, 'f'));
    EXPECT_EQ(d->errmsg[21], 'x');

    // The record holds 512 bytes of text: a longer length cannot be sent.
    OutStream o;
    d->nerr = 513;
    EXPECT_NE(pbnsOrbresponse(o.b, d), 0);
    bnsclr(o.b);
    d->nerr = 512;
    EXPECT_EQ(pbnsOrbresponse(o.b, d), 0);
    EXPECT_EQ(bnscnt(o.b), 8 + 4 + 512);

    InStream neg(Wire().i(ORBGET).i(-1).i((uint32_t)-9).b("orbm").s);
    ASSERT_EQ(gbnsOrbresponse(neg.b, d), 0);
    EXPECT_STREQ(d->errmsg, "");
    EXPECT_EQ(neg.rest(), "orbm");
    freeOrbresponse(d);
}

TEST(OrbresponseWire, BodilessResponseFromExactlyEightBytes) {
    // Over a live socket: any read beyond the eight bytes would wait out the
    // time-out and fail the decode.
    SocketPair sp;
    Bns* in = bnsnew(sp.fd[0], 64);
    bnstimeout(in, 200);
    sp.send(Wire().i(ORBCLOSE).i(0).s);
    Orbresponse* d = newOrbresponse();
    ASSERT_EQ(gbnsOrbresponse(in, d), 0);
    EXPECT_EQ(d->what, ORBCLOSE);
    EXPECT_EQ(bnscnt(in), 0);
    EXPECT_EQ(in->eof, 0);
    freeOrbresponse(d);
    bnsfree(in);
}

// An oversized source name leaves its surplus unread.
TEST(OrbresponseWire, LongSourceName) {
    Orbresponse* d = newOrbresponse();
    std::string name(70, 'n');
    InStream in(Wire().i(ORBREAP).i(0).i(1).h(0).h(70).d(T0).b(name).s);
    ASSERT_EQ(gbnsOrbresponse(in.b, d), 0);
    EXPECT_EQ(std::string(d->pkg->srcname), std::string(64, 'n'));
    EXPECT_EQ(in.rest(), "nnnnnn");
    freeOrbresponse(d);
}

TEST(RecordWire, EncodersRefuseWhatCannotBeReadBack) {
    Pktpkg* p = newPktpkg();
    fill_pkg(p, 70000);
    OutStream o;
    EXPECT_NE(pbnsPktpkg(o.b, ORBPUT, p), 0);  // no room in a short size
    bnsclr(o.b);
    EXPECT_EQ(pbnsPktpkg(o.b, ORBPUTL, p), 0);
    bnsclr(o.b);
    fill_pkg(p, 10);
    p->srcnamesize = 65;
    EXPECT_NE(pbnsPktpkg(o.b, ORBPUT, p), 0);
    bnsclr(o.b);
    p->srcnamesize = 64;
    EXPECT_EQ(pbnsPktpkg(o.b, ORBPUT, p), 0);
    bnsclr(o.b);
    p->packetsize = -1;
    EXPECT_NE(pbnsPktpkg(o.b, ORBPUTL, p), 0);
    freePktpkg(p);

    Orbrequest* q = newOrbrequest();
    q->what = ORBSELECT;
    q->nselect = 5;  // no text to send
    EXPECT_NE(pbnsOrbrequest(o.b, q), 0);
    q->what = ORBPUT;  // no package
    EXPECT_NE(pbnsOrbrequest(o.b, q), 0);
    freeOrbrequest(q);

    // A client's long pattern goes out cut to what the reader takes.
    Orbclient c;
    initOrbclient(&c);
    memset(c.select, 'p', 96);
    c.nselect = 200;
    bnsclr(o.b);
    ASSERT_EQ(pbnsOrbclient(o.b, &c), 0);
    EXPECT_EQ(bnscnt(o.b), 373 + 96);
    InStream in(pending(o.b) + "orbm");
    Orbclient d;
    ASSERT_EQ(gbnsOrbclient(in.b, &d), 0);
    EXPECT_EQ(d.nselect, 96);
    EXPECT_EQ(in.rest(), "orbm");
}

TEST(OrbresponseWire, EntryCountsZeroNegativeAndHostile) {
    Orbresponse* d = newOrbresponse();
    InStream one(Wire().i(ORBSOURCES).i(0).d(T0).i(1).b(src_bytes("/pf/ch", 3)).s);
    ASSERT_EQ(gbnsOrbresponse(one.b, d), 0);
    Orbsrc* kept = d->source;

    // No sources: the array stays as it was.
    InStream none(Wire().i(ORBSOURCES).i(0).d(T0).i(0).s);
    ASSERT_EQ(gbnsOrbresponse(none.b, d), 0);
    EXPECT_EQ(d->nsource, 0);
    EXPECT_EQ(d->source, kept);
    EXPECT_STREQ(d->source[0].srcname, "/pf/ch");

    // A negative count reads no entries.
    InStream neg(Wire().i(ORBCLIENTS).i(0).d(T0).i((uint32_t)-4).b("orbm").s);
    ASSERT_EQ(gbnsOrbresponse(neg.b, d), 0);
    EXPECT_EQ(neg.rest(), "orbm");

    // A huge count costs no more memory than the entries actually sent.
    InStream in(Wire().i(ORBCLIENTS).i(0).d(T0).i(0x7fffffff).b(std::string(373, '\0')).s);
    EXPECT_EQ(gbnsOrbresponse(in.b, d), -1);
    EXPECT_LE(d->sZclient, 16);

    InStream src(Wire().i(ORBSOURCES).i(0).d(T0).i(2000000000).s);
    EXPECT_EQ(gbnsOrbresponse(src.b, d), -1);
    EXPECT_LE(d->sZsource, 16);

    // A client's pattern longer than its field: 96 bytes read, the rest left.
    InStream cl(Wire().d(0).d(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(100)
                    .b(std::string(100, 'p')).s);
    Orbclient c;
    initOrbclient(&c);
    EXPECT_EQ(gbnsOrbclient(cl.b, &c), -1);  // what follows is garbage and runs out
    EXPECT_EQ(std::string(c.select), std::string(96, 'p'));
    freeOrbresponse(d);
}

TEST(OrbNames, CodesAndPositions) {
    EXPECT_STREQ(orbreq2name(ORBPUT), "ORBPUT");
    EXPECT_STREQ(orbreq2name(34), "ORBSIGNEDOPEN");
    EXPECT_EQ(orbreq2name(22), nullptr);
    EXPECT_STREQ(orbreq2name(-14), "ORBNEWEST");
    EXPECT_EQ(orbname2req("ORBOLDEST"), -13);
    EXPECT_EQ(orbname2req("ORBREAPL"), 27);
    EXPECT_EQ(orbname2req("nonsense"), 0);
}

TEST(OrbPktpkgDeathTest, CodeWithoutPackageIsFatal) {
    Pktpkg* p = newPktpkg();
    OutStream o;
    EXPECT_EXIT(pbnsPktpkg(o.b, ORBSTAT, p), testing::ExitedWithCode(1), "bad what code 4 in pbnsPktpkg");
    InStream in(Wire().i(1).h(0).h(0).d(0).s);
    EXPECT_EXIT(gbnsPktpkg(in.b, 40, p), testing::ExitedWithCode(1), "bad what code 40 in gbnsPktpkg");
    freePktpkg(p);
}

}  // namespace

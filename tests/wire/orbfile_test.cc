// Protocol records on the wire: exact bytes for every request and response
// code, decode(encode(x)) == x, and the length limits under hostile input.
#include "orb/orbfile.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "wire/wire_support.h"

namespace {

const double T0 = 1700000000.25;
using Req = Orbrequest*;
using Resp = Orbresponse*;

struct MaxData {
    int saved = Orb_max_data_bytes;
    explicit MaxData(int n) { Orb_max_data_bytes = n; }
    ~MaxData() { Orb_max_data_bytes = saved; }
};

// Every field a different value, so that a field sent in the wrong place shows.
OrbOpenString* hello() {
    auto o = newOrbOpenString();
    *o = {.pid = 4242, .handshake = 0x6f72626d, .perm = 'w', .what = "ferrant2 -v x", .who = "alice"};
    return o;
}
const std::string hello_bytes = Wire().i(0x6f72626d).text("alice", 24).text("ferrant2 -v x", 128).i(4242).b("w").s;

void fill_pkg(Pktpkg* p, int size) {
    *p = {.time = T0, .packet = static_cast<char*>(realloc(p->packet, size ? size : 1)), .sZpacket = size,
          .pktid = 77, .packetsize = size, .srcnamesize = 11, .srcname = "AK_ABC/xfer"};
    for (int i = 0; i < size; i++) p->packet[i] = (char)(i * 7);
}

std::string packet_bytes(int size) {
    std::string s(size, '\0');
    for (int i = 0; i < size; i++) s[i] = (char)(i * 7);
    return s;
}

// The bytes of fill_pkg's package, its size in the short (16-bit) or long (32-bit) form.
std::string pkg_bytes(int size, bool long_form) {
    Wire w = Wire().i(77);
    return (long_form ? w.i(size) : w.h(size)).h(11).d(T0).b("AK_ABC/xfer").b(packet_bytes(size)).s;
}

// A filler of a record's package of the given size.
template <class Rec>
std::function<void(Rec*)> with_pkg(int size) {
    return [size](Rec* r) { fill_pkg(r->pkg = newPktpkg(), size); };
}

std::string encode(Req r) {
    OutStream o;
    EXPECT_EQ(pbnsOrbrequest(o.b, r), 0);
    return pending(o.b);
}

std::string encode(Resp r) {
    OutStream o;
    EXPECT_EQ(pbnsOrbresponse(o.b, r), 0);
    return pending(o.b);
}

int decode(Bns* b, Req r) { return gbnsOrbrequest(b, r); }
int decode(Bns* b, Resp r) { return gbnsOrbresponse(b, r); }

// A record as filled in by a program, and its exact bytes on the wire.
template <class Rec>
struct Case {
    const char* name;
    int what;
    std::function<void(Rec*)> fill;  // the fields other than what
    std::string bytes;
};

// Exact bytes, a decode that reads no further than the message and encodes back
// to the same bytes, and a failure at end of file wherever the message is cut
// short (at every byte of a small one, about 37 places in a large one).
template <class Rec>
void check_cases(const std::vector<Case<Rec>>& cases, Rec* (*make)(), void (*release)(Rec*)) {
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        Rec *r = make(), *d = make();
        r->what = c.what;
        c.fill(r);
        EXPECT_EQ(encode(r), c.bytes);
        InStream in(c.bytes + "orbm");  // the marker behind the message must be what is left
        EXPECT_EQ(decode(in.b, d), 0);
        EXPECT_EQ(in.rest(), "orbm");
        EXPECT_EQ(d->what, r->what);
        EXPECT_EQ(encode(d), c.bytes);
        for (size_t cut = 0; cut < c.bytes.size(); cut += std::max<size_t>(1, c.bytes.size() / 37)) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            InStream part(c.bytes.substr(0, cut));
            EXPECT_EQ(decode(part.b, d), -1);
            EXPECT_EQ(part.b->eof, 1);
        }
        release(d);
        release(r);
    }
}

TEST(OrbrequestWire, EveryCodeHasItsExactBytesDecodesBackAndFailsWhenCut) {
    std::vector<Case<Orbrequest>> v = {
        {"put", ORBPUT, with_pkg<Orbrequest>(5), Wire().i(1).b(pkg_bytes(5, false)).s},
        {"putx", ORBPUTX, with_pkg<Orbrequest>(0), Wire().i(30).b(pkg_bytes(0, false)).s},
        {"get", ORBGET, [](Req r) { r->pktcode = ORBCURRENT; }, "\x00\x00\x00\x02\xff\xff\xff\xf6"s},
        {"seek", ORBSEEK, [](Req r) { r->pktcode = ORBOLDEST; }, "\x00\x00\x00\x07\xff\xff\xff\xf3"s},
        {"reap", ORBREAP, [](Req r) { r->reap_maxtime = 2.5; r->reap_maxbytes = 9; r->reap_maxpkts = 3; },
         "\x00\x00\x00\x03" "\x40\x04\x00\x00\x00\x00\x00\x00" "\x00\x00\x00\x09" "\x00\x00\x00\x03"s},
        {"reapl", ORBREAPL, [](Req r) { r->reap_maxtime = -1; r->reap_maxbytes = 0; r->reap_maxpkts = -32; },
         Wire().i(27).d(-1).i(0).i((uint32_t)-32).s},
        {"select", ORBSELECT, [](Req r) { r->select = strdup(".*/xfer"); r->sZselect = r->nselect = 8; },
         Wire().i(9).i(8).b(".*/xfer\0"s).s},
        {"reject", ORBREJECT, [](Req r) { r->reject = strdup("X"); r->sZreject = r->nreject = 2; },
         Wire().i(10).i(2).b("X\0"s).s},
        {"after", ORBAFTER, [](Req r) { r->time = T0; }, Wire().i(12).d(T0).s},
        {"setpri", ORBSETPRI, [](Req r) { r->newpri = 5; r->thread = 6; }, Wire().i(16).i(5).i(6).s},
        {"setlogging", ORBSETLOGGING, [](Req r) { r->logflag = 1; }, Wire().i(18).i(1).s},
        {"open", ORBOPEN, [](Req r) { r->hello = hello(); }, Wire().i(20).b(hello_bytes).s},
        {"kill", ORBKILL, [](Req r) { r->thread = 12; }, Wire().i(21).i(12).s},
        {"rup", ORBRUP, [](Req r) { r->athread = 3; r->hello = hello(); }, Wire().i(24).i(3).b(hello_bytes).s},
        {"stashselect", ORBSTASHSELECT, [](Req r) { r->stashflag = 2; }, Wire().i(28).i(2).s},
        {"getstash", ORBGETSTASH, [](Req r) { strcpy(r->srcname, "AK_ABC/xfer"); },
         Wire().i(29).text("AK_ABC/xfer", 64).s},
        {"signedopen", ORBSIGNEDOPEN,
         [](Req r) {
             r->hello = hello();
             memcpy(r->challenge, "0123456789ab", 12);
             strcpy(r->signer, "operator");
             memset(r->signature, 's', 512);
         },
         Wire().i(34).b(hello_bytes).b("0123456789ab").text("operator", 64).b(std::string(512, 's')).s},
    };
    // The short size holds 65535; one byte more promotes the code to its long form.
    for (int size : {65535, 65536}) {
        for (auto [code, longcode] : {std::pair{ORBPUT, ORBPUTL}, {ORBPUTX, ORBPUTXL}})
            v.push_back({"put at 64 KiB", code, with_pkg<Orbrequest>(size),
                         Wire().i(size > 65535 ? longcode : code).b(pkg_bytes(size, size > 65535)).s});
    }
    for (int code : {4, 5, 6, 8, 11, 13, 14, 15, 17, 19, 23, 26, 33, 35, 99, -5})
        v.push_back({"bodiless", code, [](Req r) { r->pktcode = 1234; r->time = 5; }, Wire().i(code).s});
    check_cases(v, newOrbrequest, freeOrbrequest);
}

void fill_stat(Orbstat* s) {
    *s = {.when = T0, .started = T0 - 10, .orb_start = T0 - 100, .connections = 9, .messages = 8, .maxdata = 4000000,
          .errors = 7, .rejected = 6, .closes = 5, .opens = 4, .port = 6510, .address = {127, 0, 0, 1}, .pid = 99,
          .nsources = 3, .nclients = 2, .maxsrc = 50, .maxpkts = 1000, .version = "ferrant2 0.1", .who = "bob",
          .host = "ringhost"};
}
const std::string stat_bytes = Wire().i(4000000).i(1000).i(50).i(2).i(3).d(T0 - 10).d(T0).i(99)
    .b("\x7f\x00\x00\x01"s).i(6510).i(4).i(5).i(6).i(7).text("ringhost", 128).text("bob", 24)
    .text("ferrant2 0.1", 128).d(T0 - 100).i(8).i(9).s;

void fill_client(Orbclient* c, const char* select, const char* reject) {
    *c = {.lastpkt = T0, .started = T0 - 5, .read = 14, .pid = 24, .bytes = 13, .packets = 12, .pktid = 11,
          .port = 40000, .address = {10, 0, 0, 2}, .thread = 23, .fd = 22, .nreject = (int)strlen(reject) + 1,
          .nselect = (int)strlen(select) + 1, .errors = 21, .priority = 20, .lastrequest = ORBREAP,
          .mymessages = 19, .nrequests = 18, .nwrites = 17, .nreads = 16, .written = 15, .perm = 'r',
          .what = "ferrant2 -S state", .host = "client.example", .who = "carol", .select = {}, .reject = {}};
    strcpy(c->select, select);
    strcpy(c->reject, reject);
}

std::string client_bytes(const char* select, const char* reject) {
    std::string sel(select, strlen(select) + 1), rej(reject, strlen(reject) + 1);
    return Wire().d(T0 - 5).d(T0).i(11).i(12).i(13).i(14).i(15).i(16).i(17).i(18).i(19).i(ORBREAP).i(20).i(21)
        .i((uint32_t)sel.size()).b(sel).i((uint32_t)rej.size()).b(rej).i(22).i(23).b("\x0a\x00\x00\x02"s)
        .i(40000).text("carol", 24).text("client.example", 128).text("ferrant2 -S state", 128).i(24).b("r").s;
}

void fill_src(Orbsrc* s, const char* name, int n) {
    *s = {.slatest_time = T0, .soldest_time = T0 - n, .nbytes = 5000, .npkts = 11, .slatest = n + 10, .soldest = n,
          .active = 1, .srcname = {}};
    strcpy(s->srcname, name);
}

std::string src_bytes(const char* name, int n) {
    return Wire().text(name, 64).i(1).i(n).i(n + 10).i(11).i(5000).d(T0 - n).d(T0).s;
}

TEST(OrbresponseWire, EveryCodeHasItsExactBytesDecodesBackAndFailsWhenCut) {
    auto opened = [](Resp r) { r->orb_start = T0 - 100; r->server_start = T0 - 1; r->latest_pktid = 41; };
    std::vector<Case<Orbresponse>> v = {
        {"stat", ORBSTAT, [](Resp r) { fill_stat(&r->orbstat); }, Wire().i(4).i(0).b(stat_bytes).s},
        // A fresh record says "unknown" (-1) for what a server has not filled in.
        {"stat of a fresh record", ORBSTAT, [](Resp) {},
         Wire().i(4).i(0).i(0).i(-1).i(-1).i(0).i(-1).d(-1).d(-1).i(-1).i(-1).i(-1).i(0).i(0).i(0).i(0)
             .text("", 128 + 24 + 128).d(-1).i(0).i(0).s},
        {"clients", ORBCLIENTS,
         [](Resp r) {
             r->client_when = T0;
             r->nclient = r->sZclient = 2;
             r->client = static_cast<Orbclient*>(calloc(2, sizeof(Orbclient)));
             fill_client(&r->client[0], ".*", "AK_X.*");
             fill_client(&r->client[1], "", "");
         },
         Wire().i(5).i(0).d(T0).i(2).b(client_bytes(".*", "AK_X.*")).b(client_bytes("", "")).s},
        {"sources", ORBSOURCES,
         [](Resp r) {
             r->source_when = T0;
             r->nsource = r->sZsource = 3;
             r->source = static_cast<Orbsrc*>(calloc(3, sizeof(Orbsrc)));
             fill_src(&r->source[0], "AK_A/xfer", 1);
             fill_src(&r->source[1], "AK_B/xfer", 2);
             fill_src(&r->source[2], "/pf/ch", 3);
         },
         Wire().i(6).i(0).d(T0).i(3).b(src_bytes("AK_A/xfer", 1)).b(src_bytes("AK_B/xfer", 2))
             .b(src_bytes("/pf/ch", 3)).s},
        {"ping", ORBPING, [](Resp r) { r->version = 7; }, "\0\0\0\x0e\0\0\0\0\0\0\0\x07"s},
        {"open", ORBOPEN, opened, Wire().i(ORBOPEN).i(0).d(T0 - 100).d(T0 - 1).i(41).s},
        {"signedopen", ORBSIGNEDOPEN, opened, Wire().i(ORBSIGNEDOPEN).i(0).d(T0 - 100).d(T0 - 1).i(41).s},
        {"id", ORBID, [](Resp r) { r->thread = 17; }, Wire().i(23).i(0).i(17).s},
        {"rup", ORBRUP, [&](Resp r) { opened(r); r->active = 1; },
         Wire().i(24).i(0).i(1).d(T0 - 100).d(T0 - 1).i(41).s},
        {"stashselect", ORBSTASHSELECT, [](Resp r) { r->stashflag = 1; }, Wire().i(28).i(0).i(1).s},
        {"challenge", ORBCHALLENGE, [](Resp r) { memcpy(r->challenge, "abcdefghijkl", 12); },
         Wire().i(33).i(0).b("abcdefghijkl").s},
        {"error", ORBSEEK, [](Resp r) { r->result = -1; strcpy(r->errmsg, "no such packet"); r->nerr = 15; },
         Wire().i(7).i((uint32_t)-1).i(15).b("no such packet\0"s).s},
        {"error on a package code", ORBGET, [](Resp r) { r->result = 3; r->nerr = 0; }, Wire().i(2).i(3).i(0).s},
    };
    for (int code : {ORBGET, ORBREAP})
        v.push_back({"short pkg", code, with_pkg<Orbresponse>(40), Wire().i(code).i(0).b(pkg_bytes(40, false)).s});
    for (int code : {ORBGETL, ORBREAPL, ORBGETSTASH})
        v.push_back({"long pkg", code, with_pkg<Orbresponse>(40), Wire().i(code).i(0).b(pkg_bytes(40, true)).s});
    // Past 65535 bytes the short codes are promoted; ORBGETSTASH is always long, never renamed.
    for (auto [code, sent] : {std::pair{ORBGET, ORBGETL}, {ORBREAP, ORBREAPL}, {ORBGETSTASH, ORBGETSTASH}})
        v.push_back({"pkg past 64 KiB", code, with_pkg<Orbresponse>(65536),
                     Wire().i(sent).i(0).b(pkg_bytes(65536, true)).s});
    for (int code : {ORBSEEK, ORBTELL, ORBAFTER, ORBPUTX, ORBPUTXL})
        v.push_back({"pktid", code, [](Resp r) { r->pktid = 123456; }, Wire().i(code).i(0).i(123456).s});
    for (int code : {ORBSELECT, ORBREJECT})
        v.push_back({"nselections", code, [](Resp r) { r->nselections = 4; }, Wire().i(code).i(0).i(4).s});
    for (int code : {1, 11, 13, 15, 16, 17, 18, 19, 21, 25, 35, 100})
        v.push_back({"bodiless", code, [](Resp r) { r->pktid = 5; r->version = 3; }, Wire().i(code).i(0).s});
    check_cases(v, newOrbresponse, freeOrbresponse);
}

// Unusual or hostile input, decoded in turn into one request or response
// record: the result, the bytes left unread and what the record then holds.
template <class Rec>
struct Hostile {
    const char* name;
    std::string bytes;
    int result;
    std::string rest;
    std::function<void(Rec*)> check = nullptr;
    int max_data = 70000;
};

template <class Rec>
void check_hostile(const std::vector<Hostile<Rec>>& rows, Rec* d) {
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        MaxData limit(row.max_data);
        InStream in(row.bytes, 8192);
        EXPECT_EQ(decode(in.b, d), row.result);
        EXPECT_EQ(in.rest(), row.rest);
        if (row.check) row.check(d);
    }
}

TEST(OrbrequestWire, HostileInput) {
    std::string body = packet_bytes(70001), pat = std::string(16383, 'a') + '\0';
    Req d = newOrbrequest();
    check_hostile<Orbrequest>({
        // Sizes are refused before any packet byte is read; the short form, which
        // cannot exceed 65535, is held to a small limit too.
        {"packet one byte over the limit", Wire().i(ORBPUTL).i(5).i(70001).h(2).d(T0).b("ab").s + body, -1, body,
         [](Req d) { EXPECT_LT(d->pkg->sZpacket, 70001); }},
        {"short packet over a small limit", Wire().i(ORBPUT).i(5).h(11).h(0).d(T0).b("hello world").s, -1,
         "hello world", nullptr, 10},
        {"longest pattern", Wire().i(ORBSELECT).i(16384).b(pat).s, 0, "",
         [](Req d) { EXPECT_EQ(std::pair(d->nselect, strlen(d->select)), std::pair(16384, size_t(16383))); }},
        {"pattern too long", Wire().i(ORBSELECT).i(16385).b(pat + "b").s, -1, pat + "b"},
        {"negative pattern length", Wire().i(ORBREJECT).i((uint32_t)-1).s, -1, ""},
        {"pattern without its NUL", Wire().i(ORBREJECT).i(3).b("abc").s, 0, "",
         [](Req d) { EXPECT_STREQ(d->reject, "abc"); }},
    }, d);
    freeOrbrequest(d);
}

TEST(OrbresponseWire, HostileInput) {
    Resp d = newOrbresponse();
    std::string client = Wire().d(0).d(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).s;
    std::string e512(512, 'e');
    check_hostile<Orbresponse>({
        // Error text: 512 bytes kept of a longer one, the rest unread; a shorter
        // one ends in a NUL and leaves what is behind it alone.
        {"long error text", Wire().i(ORBGET).i(-1).i(600).b(std::string(600, 'e')).s, 0, std::string(88, 'e'),
         [&](Resp d) { EXPECT_EQ(std::pair(d->nerr, std::string(d->errmsg, 512)), std::pair(600, e512)); }},
        {"short error text", Wire().i(ORBGET).i(-1).i(20).b(std::string(20, 'f')).s, 0, "",
         [](Resp d) { EXPECT_EQ(std::string(d->errmsg, 22), std::string(20, 'f') + '\0' + 'e'); }},
        {"negative error length", Wire().i(ORBGET).i(-1).i((uint32_t)-9).b("orbm").s, 0, "orbm",
         [](Resp d) { EXPECT_STREQ(d->errmsg, ""); }},
        {"long source name", Wire().i(ORBREAP).i(0).i(1).h(0).h(70).d(T0).b(std::string(70, 'n')).s, 0, "nnnnnn",
         [](Resp d) { EXPECT_EQ(std::string(d->pkg->srcname), std::string(64, 'n')); }},
        {"one source", Wire().i(ORBSOURCES).i(0).d(T0).i(1).b(src_bytes("/pf/ch", 3)).s, 0, ""},
        {"no sources: the array stays as it was", Wire().i(ORBSOURCES).i(0).d(T0).i(0).s, 0, "",
         [](Resp d) { EXPECT_EQ(std::pair(d->nsource, std::string(d->source[0].srcname)), std::pair(0, "/pf/ch"s)); }},
        {"negative count: no entries", Wire().i(ORBCLIENTS).i(0).d(T0).i((uint32_t)-4).b("orbm").s, 0, "orbm"},
        // A huge count costs no more memory than the entries actually sent.
        {"huge client count", Wire().i(ORBCLIENTS).i(0).d(T0).i(0x7fffffff).b(std::string(373, '\0')).s, -1, "",
         [](Resp d) { EXPECT_LE(d->sZclient, 16); }},
        {"huge source count", Wire().i(ORBSOURCES).i(0).d(T0).i(2000000000).s, -1, "",
         [](Resp d) { EXPECT_LE(d->sZsource, 16); }},
        // A client's pattern longer than its field: 96 bytes read, the rest left
        // (then read as the fields after it, which run out).
        {"client pattern too long", Wire().i(ORBCLIENTS).i(0).d(T0).i(1).b(client).i(100).b(std::string(100, 'p')).s,
         -1, "", [](Resp d) { EXPECT_EQ(std::string(d->client[0].select), std::string(96, 'p')); }},
    }, d);
    freeOrbresponse(d);
}

// Over a live socket: any read beyond the eight bytes would wait out the
// time-out and fail the decode.
TEST(OrbresponseWire, BodilessResponseFromExactlyEightBytes) {
    SocketPair sp;
    Bns* in = bnsnew(sp.fd[0], 64);
    bnstimeout(in, 200);
    sp.send(Wire().i(ORBCLOSE).i(0).s);
    Resp d = newOrbresponse();
    ASSERT_EQ(gbnsOrbresponse(in, d), 0);
    EXPECT_EQ(std::tuple(d->what, bnscnt(in), in->eof), std::tuple(ORBCLOSE, 0, 0));
    freeOrbresponse(d);
    bnsfree(in);
}

TEST(RecordWire, EncodersRefuseWhatCannotBeReadBack) {
    OutStream o;
    auto encodes = [&](auto encoder, auto* record, auto... code) {
        bnsclr(o.b);
        return encoder(o.b, code..., record) == 0;
    };
    Pktpkg* p = newPktpkg();
    fill_pkg(p, 70000);
    EXPECT_FALSE(encodes(pbnsPktpkg, p, ORBPUT));  // no room in a short size
    EXPECT_TRUE(encodes(pbnsPktpkg, p, ORBPUTL));
    p->srcnamesize = 65;
    EXPECT_FALSE(encodes(pbnsPktpkg, p, ORBPUTL));
    p->srcnamesize = 64;
    EXPECT_TRUE(encodes(pbnsPktpkg, p, ORBPUTL));
    p->packetsize = -1;
    EXPECT_FALSE(encodes(pbnsPktpkg, p, ORBPUTL));
    freePktpkg(p);

    // A request promoted to the long form is still held to the limit.
    MaxData limit(70000);
    Req q = newOrbrequest();
    q->what = ORBPUT;
    fill_pkg(q->pkg = newPktpkg(), 70000);
    EXPECT_EQ(encode(q).size(), 4u + 4 + 4 + 2 + 8 + 11 + 70000);
    fill_pkg(q->pkg, 70001);
    q->what = ORBPUT;
    EXPECT_FALSE(encodes(pbnsOrbrequest, q));
    EXPECT_EQ(q->what, ORBPUTL);
    freePktpkg(q->pkg);
    q->pkg = nullptr;
    q->what = ORBPUT;
    EXPECT_FALSE(encodes(pbnsOrbrequest, q));  // no package
    q->what = ORBSELECT;
    q->nselect = 5;  // no text to send
    EXPECT_FALSE(encodes(pbnsOrbrequest, q));
    freeOrbrequest(q);

    // The record holds 512 bytes of error text: a longer length cannot be sent.
    Resp r = newOrbresponse();
    r->what = ORBGET;
    r->result = -1;
    r->nerr = 513;
    EXPECT_FALSE(encodes(pbnsOrbresponse, r));
    r->nerr = 512;
    EXPECT_TRUE(encodes(pbnsOrbresponse, r));
    EXPECT_EQ(bnscnt(o.b), 8 + 4 + 512);
    freeOrbresponse(r);

    // A client's long pattern goes out cut to what the reader takes.
    Orbclient c, d;
    initOrbclient(&c);
    memset(c.select, 'p', 96);
    c.nselect = 200;
    ASSERT_TRUE(encodes(pbnsOrbclient, &c));
    EXPECT_EQ(bnscnt(o.b), 373 + 96);
    InStream in(pending(o.b) + "orbm");
    ASSERT_EQ(gbnsOrbclient(in.b, &d), 0);
    EXPECT_EQ(d.nselect, 96);
    EXPECT_EQ(in.rest(), "orbm");
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

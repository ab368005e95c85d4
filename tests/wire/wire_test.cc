// The buffered stream over real socket pairs and the byte-order conversions under it; then the
// protocol records on the wire: exact bytes for every request and response code, decode(encode(x)) == x,
// and the limits under hostile input.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <functional>
#include <memory>
#include <tuple>

#include "deviants/swap.h"
#include "orb/orbfile.h"
#include "stock/bns.h"
#include "stock/h2e.h"
#include "support/check.h"

using namespace std::string_literals;

namespace {

// Big-endian bytes, written out independently of the stream code.
struct Wire {
    std::string s;
    Wire& be(uint64_t v, int n) {  // the low n bytes of v, most significant first
        while (n--) s.push_back(char(v >> (8 * n)));
        return *this;
    }
    Wire& i(uint32_t v) { return be(v, 4); }
    Wire& h(uint16_t v) { return be(v, 2); }
    Wire& d(double v) { return be(std::bit_cast<uint64_t>(v), 8); }
    Wire& b(const std::string& t) { s += t; return *this; }
    Wire& text(const char* t, size_t n) { return b(std::string(t).append(n - strlen(t), '\0')); }
};

std::string pending(const Bns* b) { return std::string(b->data + b->fp, b->lp - b->fp); }

void write_all(int fd, const std::string& bytes) {
    for (ssize_t off = 0, n = 1; n > 0 && off < ssize_t(bytes.size()); off += n)
        n = write(fd, bytes.data() + off, bytes.size() - off);
}

// An output stream that is never flushed (its descriptor is unused).
struct OutStream {
    Bns* b = bnsnew(-1, 256);
    ~OutStream() { bnsfree(b); }
};

// An input stream over a memory file holding exactly `bytes`: reads past the end see end of file, never
// a wait.
struct InStream {
    int fd = memfd_create("wire", MFD_CLOEXEC);
    Bns* b = nullptr;
    explicit InStream(const std::string& bytes, int size = 256) {
        write_all(fd, bytes);
        lseek(fd, 0, SEEK_SET);
        bnstimeout(b = bnsnew(fd, size), 1000);
    }
    ~InStream() { bnsfree(b), close(fd); }
    std::string rest() {
        std::string r = pending(b);
        char buf[4096];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) r.append(buf, n);
        return r;
    }
};

// A connected pair of stream sockets, closed on destruction, and a stream b over fd[0]; the tests play
// the peer at fd[1].
struct BnsSocket : testing::Test {
    int fd[2] = {-1, -1};
    Bns* b = nullptr;
    BnsSocket() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd); }
    ~BnsSocket() override { bnsfree(b), closeend(0), closeend(1); }
    void stream(int size, int timeout_ms) { bnstimeout(b = bnsnew(fd[0], size), timeout_ms); }
    void closeend(int i) {
        if (fd[i] >= 0) close(fd[i]);
        fd[i] = -1;
    }
    void send(const std::string& s) const { write_all(fd[1], s); }
    std::string drain() const {
        std::string r;
        char buf[65536];
        for (ssize_t n; (n = recv(fd[1], buf, sizeof buf, MSG_DONTWAIT)) > 0;) r.append(buf, n);
        return r;
    }
    void message(const std::string& m) {
        buf2bns(b, m.data(), int(m.size()));
        ASSERT_EQ(bnsflush(b), 0);
    }
};

TEST(Bns, PutsEveryTypeBigEndianAndGetsItBack) {
    int saved = Bns_timeout;
    setenv("BNS_TIMEOUT", "1234", 1);
    OutStream o{bnsnew(-1, -5)};  // a bad size gets the default; the time-out comes from the environment
    unsetenv("BNS_TIMEOUT"), Bns_timeout = saved;
    EXPECT_EQ(std::pair(o.b->sz, o.b->timeout), std::pair(32767, 1234));
    bnsfree(nullptr);
    // One value of each type, in the order of the type codes BNS_SHORT .. BNS_DOUBLE.
    std::tuple<short, int, int64_t, float, double> v{-2, INT32_MIN, 0x0102030405060708LL, 1, -2}, back;
    int failed = 0, t = BNS_SHORT;
    std::apply([&](auto&... x) { ((failed -= bnsput(o.b, &x, t++, 1)), ...); }, v);
    ASSERT_EQ(buf2bns(o.b, "xyz", 3) + failed, 0);
    std::string bytes = pending(o.b);
    EXPECT_EQ(bytes, "\xff\xfe" "\x80\x00\x00\x00" "\x01\x02\x03\x04\x05\x06\x07\x08"
                     "\x3f\x80\x00\x00" "\xc0\x00\x00\x00\x00\x00\x00\x00" "xyz"s);
    EXPECT_EQ(bnsout(o.b), 29);
    EXPECT_EQ(bnsout(o.b), 0);
    for (int bad : {6, -1}) EXPECT_EQ(bnsput(o.b, &t, bad, 1), -1) << bad;
    EXPECT_EQ(bnscnt(o.b), 29);
    InStream in(bytes);
    t = BNS_SHORT;
    std::apply([&](auto&... x) { ((failed -= bnsget(in.b, &x, t++, 1)), ...); }, back);
    EXPECT_EQ(std::tuple(failed, back, bnsin(in.b)), std::tuple(0, v, 26L));
    EXPECT_EQ(bnsget(in.b, &t, 9, 1), -1);
}

// A time-out is not the end of the input: what has arrived stays for the next call. A pipe whose writer is
// gone is an end of file (a hang-up without input), a closed descriptor an error.
TEST_F(BnsSocket, ReadsSurviveTheTimeoutAndTellEndOfFileApart) {
    auto after = [&](int rc) { return std::tuple(rc, b->eof, b->err, bnscnt(b)); };  // a call's result
    stream(16, 0);
    EXPECT_EQ(bnswait(b), 0);
    send("\x12\x34");
    EXPECT_TRUE(bnswait(b) == 1 && (b->revents & POLLRDNORM));
    bnstimeout(b, 30);
    int v = 0;
    char buf[4];
    EXPECT_EQ(after(bnsget(b, &v, BNS_INT, 1)), std::tuple(-1, 0, 0, 2));
    send("\x56\x78");
    ASSERT_EQ(bnsget(b, &v, BNS_INT, 1), 0);
    EXPECT_EQ(v, 0x12345678);
    EXPECT_EQ(after(bnsget(b, &v, BNS_INT, 1)), std::tuple(-1, 0, 0, 0));  // nothing at all
    bnstimeout(b, 5000);
    send("ab");
    closeend(1);  // what came is still there
    EXPECT_EQ(after(bnsget(b, &v, BNS_INT, 1)), std::tuple(-1, 1, 0, 2));
    EXPECT_EQ(bnsget(b, buf, BNS_BYTES, 2), 0);
    bnsfree(b);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    bnstimeout(b = bnsnew(p[0], 64), 5000);
    close(p[1]);
    EXPECT_EQ(after(bnsget(b, buf, BNS_BYTES, 1)), std::tuple(-1, 1, 0, 0));
    bnsfree(b);
    close(p[0]);
    b = bnsnew(p[0], 64);
    EXPECT_EQ(after(bnswait(b)), std::tuple(-1, 0, 1, 0));
    EXPECT_EQ(after(bnsget(b, buf, BNS_BYTES, 1)), std::tuple(-1, 0, 2, 0));
}

// A large run read straight into the destination still consumes nothing when it cannot complete, on its
// own or behind a marked message head.
TEST_F(BnsSocket, DirectRunSurvivesTheTimeoutAndTheMark) {
    std::string body(300000, '\0'), got;
    for (size_t i = 0; i < body.size(); i++) body[i] = char(i * 7 + i / 251);
    int big = 1 << 20;
    setsockopt(fd[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    for (bool marked : {false, true}) {
        stream(64, 30);
        b->direct = 1;
        send("HEAD" + body.substr(0, 100000));
        char head[4];
        ASSERT_EQ(bnsget(b, head, BNS_BYTES, 4), 0);
        if (marked) b->mark = 0;
        got.assign(body.size(), 'x');
        EXPECT_EQ(bnsget(b, got.data(), BNS_BYTES, int(got.size())), -1);
        EXPECT_EQ(std::pair(b->eof + b->err, bnscnt(b)), std::pair(0, 100000));
        if (marked) {
            EXPECT_EQ(std::string(b->data, 4), "HEAD");
            b->fp = b->mark;  // start the message again, as the client does
            ASSERT_EQ(bnsget(b, head, BNS_BYTES, 4), 0);
        }
        send(body.substr(100000));
        ASSERT_EQ(bnsget(b, got.data(), BNS_BYTES, int(got.size())), 0);
        EXPECT_TRUE(got == body && bnscnt(b) == 0);
        EXPECT_TRUE(!marked || std::string(b->data + b->mark, 4) == "HEAD");
        bnsfree(b), b = nullptr;
    }
}

// Kept messages are resent, and stay bounded however many pass; a failed flush keeps the bytes. Callers undo
// a message they could not finish by restoring the end they saved before putting it: a put must never move
// what is already buffered, or what is kept for resending.
TEST_F(BnsSocket, ResendAndAPutNeverMovesKeptBytes) {
    stream(8, 5000);
    bnskeep(b, 2);
    for (const char* m : {"aaa", "bbbb", "ccccc"}) message(m);
    EXPECT_EQ(drain(), "aaabbbbccccc");
    ASSERT_EQ(bnsresend(b), 0);
    EXPECT_EQ(drain(), "bbbbccccc");
    for (int k = 0; k < 200; k++) message("0123456789");
    EXPECT_TRUE(b->lp - b->mark == 20 && b->sz <= 64) << b->lp - b->mark << " " << b->sz;
    for (char c : {'a', 'b', 'c'}) message(std::string(300, c));
    buf2bns(b, "pending", 7);
    int end = b->lp;
    std::string big = "orbmHEAD" + std::string(5000, 'B');
    buf2bns(b, big.data(), int(big.size()));
    b->lp = end;
    EXPECT_EQ(pending(b), "pending");
    ASSERT_EQ(bnsflush(b), 0);
    drain();
    ASSERT_EQ(bnsresend(b), 0);
    EXPECT_EQ(drain(), std::string(300, 'c') + "pending");
    closeend(1);
    signal(SIGPIPE, SIG_IGN);
    buf2bns(b, "abc", 3);
    EXPECT_EQ(bnsflush(b), -1);
    EXPECT_EQ(std::tuple(b->err, b->syserrno, pending(b)), std::tuple(1, EPIPE, "abc"s));
}

// bnsview gives bytes in place or nothing, bns2buf hands out what is buffered and empties the buffer,
// bnsgetc leaves the terminator and drops what overflows.
TEST_F(BnsSocket, ViewBns2bufAndGetc) {
    stream(4, 30);  // smaller than a line: the terminator comes in a later read
    send("abcdefghij");
    EXPECT_EQ(bnsview(b, 20), nullptr);  // not all there
    EXPECT_EQ(bnscnt(b), 10);
    send("klmnopqrstuvwxyz");
    const char* v = bnsview(b, 20);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(std::pair(std::string(v, 20), bnscnt(b)), std::pair("abcdefghijklmnopqrst"s, 6));
    EXPECT_EQ(bnsview(b, -1), nullptr);
    char buf[16] = {}, nl;
    EXPECT_EQ(bns2buf(b, buf, 4), 4);
    EXPECT_EQ(std::tuple(std::string(buf, 4), bnscnt(b), b->fp), std::tuple("uvwx"s, 0, 0));
    EXPECT_EQ(bns2buf(b, buf, 4), 0);
    bnstimeout(b, 5000);
    send("abcdefghij\ndef");
    EXPECT_EQ(bnsgetc(b, buf, 16, '\n'), 10);
    EXPECT_EQ(std::pair(std::string(buf, 10), pending(b)[0]), std::pair("abcdefghij"s, '\n'));
    bnsget(b, &nl, BNS_BYTES, 1);
    send("ghijkl\nX");
    EXPECT_EQ(bnsgetc(b, buf, 2, '\n'), 2);
    EXPECT_EQ(std::pair(std::string(buf, 2), pending(b)[0]), std::pair("de"s, '\n'));
    bnsget(b, &nl, BNS_BYTES, 1);
    closeend(1);
    memset(buf, 0, sizeof buf);
    EXPECT_EQ(bnsgetc(b, buf, 16, '\n'), -1);
    EXPECT_EQ(std::pair(std::string(buf), bnscnt(b)), std::pair("X"s, 0));
}

TEST_F(BnsSocket, SyncFindsThePatternAfterGarbageOrGivesUp) {
    stream(64, 5000);
    std::string err;
    auto sync = [&](const std::string& input, int strict) {
        bnsclr(b);
        send(input);
        int r = 0;
        err = testsupport::stderr_of([&] { r = gbnsSync(b, "orbm", 4, strict); });
        return r;
    };
    EXPECT_EQ(sync("xxorbmDATA", 0), 0);
    EXPECT_NE(err.find("skipped 2 bytes looking for sync 'orbm'"), std::string::npos) << err;
    EXPECT_EQ(pending(b), "DATA");
    EXPECT_EQ(sync("oorbmZ", 0), 0);  // a repeated first byte begins the match again
    EXPECT_EQ(pending(b), "Z");
    EXPECT_EQ(sync("orbm" + Wire().i(ORBCLOSE).i(0).s, 1), 0);
    EXPECT_EQ(err, "") << "clean input says nothing";
    // A bodiless response from exactly its eight bytes: reading beyond them would wait out the time-out.
    Orbresponse* d = newOrbresponse();
    EXPECT_EQ(gbnsOrbresponse(b, d), 0);
    EXPECT_EQ(std::tuple(d->what, bnscnt(b), b->eof), std::tuple(ORBCLOSE, 0, 0));
    freeOrbresponse(d);
    EXPECT_EQ(sync("xorbm", 1), -2);  // strict: the first stray byte ends it
    EXPECT_EQ(pending(b), "orbm");
    EXPECT_EQ(sync(std::string(40, 'z') + "orbm", 0), -2);
    EXPECT_NE(err.find("skipped 32 bytes"), std::string::npos) << err;
    send("orb");  // then end of file part way through the pattern
    closeend(1);
    EXPECT_EQ(sync("", 0), -1);
}

// Doubles that have no exact wire form are told, and still converted (the other forms are covered through
// the stream above); byte reversal in place and between unaligned buffers.
TEST(ByteOrder, NanNegativeZeroAndSwaps) {
    unsigned char buf[24], *c = buf;
    auto bytes = [&](size_t n, size_t at = 0) { return std::string((char*)buf + at, n); };
    double d[3] = {1.5, NAN, -0.0}, e[3];
    EXPECT_EQ(hd2md(d, &c, 3), -1);
    EXPECT_EQ(c - buf, 24);
    c = buf;
    EXPECT_EQ(md2hd(&c, e, 3), -1);
    EXPECT_TRUE(e[0] == 1.5 && std::isnan(e[1]) && std::signbit(e[2]));
    c = buf;
    EXPECT_EQ(hd2md(d, &c, 1), 0);
    memcpy(buf, "\0\1\2\3\4", 5);
    swap2(buf + 1, buf + 1, 2);
    swap4(buf + 1, buf + 9, 1);
    EXPECT_EQ(std::pair(bytes(5), bytes(4, 9)), std::pair("\0\2\1\4\3"s, "\3\4\1\2"s));
    memcpy(buf, "\1\2\3\4\5\6\7\10", 8);
    swap8(buf, buf, 1);
    EXPECT_EQ(bytes(8), "\10\7\6\5\4\3\2\1");
}

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
const std::string hello_bytes =
    Wire().i(0x6f72626d).text("alice", 24).text("ferrant2 -v x", 128).i(4242).b("w").s;

std::string packet_bytes(int size) {
    std::string s(size, '\0');
    for (int i = 0; i < size; i++) s[i] = (char)(i * 7);
    return s;
}

void fill_pkg(Pktpkg* p, int size) {
    *p = {.time = T0, .packet = static_cast<char*>(realloc(p->packet, size ? size : 1)), .sZpacket = size,
          .pktid = 77, .packetsize = size, .srcnamesize = 11, .srcname = "AK_ABC/xfer"};
    if (size) memcpy(p->packet, packet_bytes(size).data(), size);
}

// The bytes of fill_pkg's package, its size in the short (16-bit) or long (32-bit) form.
std::string pkg_bytes(int size, bool long_form) {
    Wire w = Wire().i(77);
    return (long_form ? w.i(size) : w.h(size)).h(11).d(T0).b("AK_ABC/xfer").b(packet_bytes(size)).s;
}

template <class Rec>
std::function<void(Rec*)> with_pkg(int size) {
    return [size](Rec* r) { fill_pkg(r->pkg = newPktpkg(), size); };
}

int put(Bns* b, Req r) { return pbnsOrbrequest(b, r); }
int put(Bns* b, Resp r) { return pbnsOrbresponse(b, r); }
int decode(Bns* b, Req r) { return gbnsOrbrequest(b, r); }
int decode(Bns* b, Resp r) { return gbnsOrbresponse(b, r); }

template <class Rec>
std::string encode(Rec* r) {
    OutStream o;
    EXPECT_EQ(put(o.b, r), 0);
    return pending(o.b);
}

// A row of a record table, one of three kinds:
// - fill and bytes: a record as a program fills it in and its exact bytes on the wire; the decode reads
//   no further, encodes back the same, and fails at end of file wherever the bytes are cut short (at
//   every byte of a short message, about 37 places in a long one);
// - fill without bytes: a record the encoder refuses, as it could not be read back;
// - bytes alone: unusual or hostile input, decoded into the one record reused from row to row.
// rest is left unread behind the bytes; check looks at the decoded (or the refused) record.
template <class Rec>
struct Row {
    const char* name;
    int what;
    std::function<void(Rec*)> fill;  // the fields other than what
    std::string bytes = "";
    int result = 0;
    std::string rest = "orbm";
    std::function<void(Rec*)> check = nullptr;
    int max_data = 70000;
};

template <class Rec>
void check_rows(const std::vector<Row<Rec>>& rows, Rec* (*make)(), void (*release)(Rec*)) {
    Rec* d = make();
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        MaxData limit(row.max_data);
        std::unique_ptr<Rec, void (*)(Rec*)> r(make(), release);
        r->what = row.what;
        if (row.fill) row.fill(r.get());
        if (row.fill && row.bytes.empty()) {  // refused
            OutStream o;
            EXPECT_NE(put(o.b, r.get()), 0);
            if (row.check) row.check(r.get());
            continue;
        }
        EXPECT_EQ(row.fill ? encode(r.get()) : row.bytes, row.bytes);
        InStream in(row.bytes + row.rest, row.fill ? 256 : 8192);
        EXPECT_EQ(decode(in.b, d), row.result);
        EXPECT_EQ(in.rest(), row.rest);
        if (row.check) row.check(d);
        if (!row.fill) continue;
        EXPECT_EQ(d->what, r->what);
        EXPECT_EQ(encode(d), row.bytes);
        for (size_t cut = 0; cut < row.bytes.size(); cut += std::max<size_t>(1, row.bytes.size() / 37)) {
            InStream part(row.bytes.substr(0, cut));
            EXPECT_EQ(decode(part.b, d), -1) << "cut at " << cut;
            EXPECT_EQ(part.b->eof, 1) << "cut at " << cut;
        }
    }
    release(d);
}

TEST(OrbrequestWire, EveryCodeHasItsExactBytesAndHostileInputFails) {
    std::string body = packet_bytes(70001), pat = std::string(16383, 'a') + '\0';
    std::vector<Row<Orbrequest>> v = {
        {"put", ORBPUT, with_pkg<Orbrequest>(5), Wire().i(1).b(pkg_bytes(5, false)).s},
        {"putx", ORBPUTX, with_pkg<Orbrequest>(0), Wire().i(30).b(pkg_bytes(0, false)).s},
        {"longest source name", ORBPUTX,
         [](Req r) {
             fill_pkg(r->pkg = newPktpkg(), 1);
             memset(r->pkg->srcname, 'n', r->pkg->srcnamesize = 64);
         },
         Wire().i(30).i(77).h(1).h(64).d(T0).b(std::string(64, 'n')).b(packet_bytes(1)).s},
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
        {"rup", ORBRUP, [](Req r) { r->athread = 3, r->hello = hello(); },
         Wire().i(24).i(3).b(hello_bytes).s},
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
        // Refused: a put without a package or past the limit (promoted to the long form even so), a source
        // name over 64 bytes, a negative size, a pattern length without its text.
        {"put without a package", ORBPUT, [](Req) {}},
        {"put past the limit", ORBPUT, with_pkg<Orbrequest>(70001), "", 0, "",
         [](Req r) { EXPECT_EQ(r->what, ORBPUTL); }},
        {"source name too long", ORBPUTL,
         [](Req r) { fill_pkg(r->pkg = newPktpkg(), 1); r->pkg->srcnamesize = 65; }},
        {"negative size", ORBPUTL, [](Req r) { fill_pkg(r->pkg = newPktpkg(), 0), r->pkg->packetsize = -1; }},
        {"select without text", ORBSELECT, [](Req r) { r->nselect = 5; }},
    };
    // The short size holds 65535; one byte more promotes the code to its long form; the limit is let in.
    for (int size : {65535, 65536, 70000})
        for (auto [code, longcode] : {std::pair{ORBPUT, ORBPUTL}, {ORBPUTX, ORBPUTXL}})
            v.push_back({"put at 64 KiB", code, with_pkg<Orbrequest>(size),
                         Wire().i(size > 65535 ? longcode : code).b(pkg_bytes(size, size > 65535)).s});
    for (int code : {4, 5, 6, 8, 11, 13, 14, 15, 17, 19, 23, 26, 33, 35, 99, -5})
        v.push_back({"bodiless", code, [](Req r) { r->pktcode = 1234; r->time = 5; }, Wire().i(code).s});
    // Sizes are refused before any packet byte is read; the short form, which cannot exceed 65535, is
    // held to a small limit too.
    v.insert(v.end(), {
        {"packet one byte over the limit", 0, nullptr,
         Wire().i(ORBPUTL).i(5).i(70001).h(2).d(T0).b("ab").s, -1, body,
         [](Req d) { EXPECT_LT(d->pkg->sZpacket, 70001); }},
        {"short packet over a small limit", 0, nullptr, Wire().i(ORBPUT).i(5).h(11).h(0).d(T0).s, -1,
         "hello world", nullptr, 10},
        {"longest pattern", 0, nullptr, Wire().i(ORBSELECT).i(16384).b(pat).s, 0, "",
         [](Req d) { EXPECT_EQ(std::pair(d->nselect, strlen(d->select)), std::pair(16384, size_t(16383))); }},
        {"pattern too long", 0, nullptr, Wire().i(ORBSELECT).i(16385).s, -1, pat + "b"},
        {"negative pattern length", 0, nullptr, Wire().i(ORBREJECT).i((uint32_t)-1).s, -1, ""},
        {"pattern without its NUL", 0, nullptr, Wire().i(ORBREJECT).i(3).b("abc").s, 0, "",
         [](Req d) { EXPECT_STREQ(d->reject, "abc"); }},
    });
    check_rows(v, newOrbrequest, freeOrbrequest);
}

void fill_stat(Orbstat* s) {
    *s = {.when = T0, .started = T0 - 10, .orb_start = T0 - 100, .connections = 9, .messages = 8,
          .maxdata = 4000000, .errors = 7, .rejected = 6, .closes = 5, .opens = 4, .port = 6510,
          .address = {127, 0, 0, 1}, .pid = 99, .nsources = 3, .nclients = 2, .maxsrc = 50, .maxpkts = 1000,
          .version = "ferrant2 0.1", .who = "bob", .host = "ringhost"};
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

// The bytes of fill_client's client whose patterns go out as sel and rej.
std::string client_bytes(const std::string& sel, const std::string& rej) {
    return Wire().d(T0 - 5).d(T0).i(11).i(12).i(13).i(14).i(15).i(16).i(17).i(18).i(19).i(ORBREAP).i(20).i(21)
        .i((uint32_t)sel.size()).b(sel).i((uint32_t)rej.size()).b(rej).i(22).i(23).b("\x0a\x00\x00\x02"s)
        .i(40000).text("carol", 24).text("client.example", 128).text("ferrant2 -S state", 128).i(24).b("r").s;
}

void fill_src(Orbsrc* s, const char* name, int n) {
    *s = {.slatest_time = T0, .soldest_time = T0 - n, .nbytes = 5000, .npkts = 11, .slatest = n + 10,
          .soldest = n, .active = 1, .srcname = {}};
    strcpy(s->srcname, name);
}

std::string src_bytes(const char* name, int n) {
    return Wire().text(name, 64).i(1).i(n).i(n + 10).i(11).i(5000).d(T0 - n).d(T0).s;
}

TEST(OrbresponseWire, EveryCodeHasItsExactBytesAndHostileInputFails) {
    auto opened = [](Resp r) { r->orb_start = T0 - 100; r->server_start = T0 - 1; r->latest_pktid = 41; };
    std::string empty_client = Wire().d(0).d(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).i(0).s;
    std::string e512(512, 'e'), p96(96, 'p');
    std::vector<Row<Orbresponse>> v = {
        {"stat", ORBSTAT, [](Resp r) { fill_stat(&r->orbstat); }, Wire().i(4).i(0).b(stat_bytes).s},
        // A fresh record says "unknown" (-1) for what a server has not filled in.
        {"stat of a fresh record", ORBSTAT, [](Resp) {},
         Wire().i(4).i(0).i(0).i(-1).i(-1).i(0).i(-1).d(-1).d(-1).i(-1).i(-1).i(-1).i(0).i(0).i(0).i(0)
             .text("", 128 + 24 + 128).d(-1).i(0).i(0).s},
        // A client's pattern longer than the reader takes goes out cut to 96 bytes.
        {"clients", ORBCLIENTS,
         [&](Resp r) {
             r->client_when = T0;
             r->nclient = r->sZclient = 3;
             r->client = static_cast<Orbclient*>(calloc(3, sizeof(Orbclient)));
             fill_client(&r->client[0], ".*", "AK_X.*");
             fill_client(&r->client[1], "", "");
             fill_client(&r->client[2], p96.c_str(), "");
             r->client[2].nselect = 200;
         },
         Wire().i(5).i(0).d(T0).i(3).b(client_bytes(".*\0"s, "AK_X.*\0"s)).b(client_bytes("\0"s, "\0"s))
             .b(client_bytes(p96, "\0"s)).s},
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
        // The record holds 512 bytes of error text: a longer length cannot be sent.
        {"longest error", ORBGET,
         [&](Resp r) { r->result = -1; memcpy(r->errmsg, e512.data(), r->nerr = 512); },
         Wire().i(2).i((uint32_t)-1).i(512).b(e512).s},
        {"error too long", ORBGET, [](Resp r) { r->result = -1; r->nerr = 513; }},
        {"error on a package code", ORBGET, [](Resp r) { r->result = 3; r->nerr = 0; },
         Wire().i(2).i(3).i(0).s},
    };
    for (int code : {ORBGET, ORBREAP, ORBGETL, ORBREAPL, ORBGETSTASH})
        v.push_back({"pkg", code, with_pkg<Orbresponse>(40),
                     Wire().i(code).i(0).b(pkg_bytes(40, code != ORBGET && code != ORBREAP)).s});
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
    v.insert(v.end(), {
        // Error text: 512 bytes kept of a longer one, the rest unread; a shorter one ends in a NUL and
        // leaves what is behind it alone.
        {"long error text", 0, nullptr, Wire().i(ORBGET).i(-1).i(600).b(e512).s, 0, std::string(88, 'e'),
         [&](Resp d) { EXPECT_EQ(std::pair(d->nerr, std::string(d->errmsg, 512)), std::pair(600, e512)); }},
        {"short error text", 0, nullptr, Wire().i(ORBGET).i(-1).i(20).b(std::string(20, 'f')).s, 0, "",
         [](Resp d) { EXPECT_EQ(std::string(d->errmsg, 22), std::string(20, 'f') + '\0' + 'e'); }},
        {"negative error length", 0, nullptr, Wire().i(ORBGET).i(-1).i((uint32_t)-9).s, 0, "orbm",
         [](Resp d) { EXPECT_STREQ(d->errmsg, ""); }},
        {"long source name", 0, nullptr,
         Wire().i(ORBREAP).i(0).i(1).h(0).h(70).d(T0).b(std::string(64, 'n')).s, 0, "nnnnnn",
         [](Resp d) { EXPECT_EQ(std::string(d->pkg->srcname), std::string(64, 'n')); }},
        {"one source", 0, nullptr, Wire().i(ORBSOURCES).i(0).d(T0).i(1).b(src_bytes("/pf/ch", 3)).s, 0, ""},
        {"no sources: the array stays as it was", 0, nullptr, Wire().i(ORBSOURCES).i(0).d(T0).i(0).s, 0, "",
         [](Resp d) { EXPECT_TRUE(d->nsource == 0 && d->source[0].srcname == "/pf/ch"s); }},
        {"negative count: no entries", 0, nullptr, Wire().i(ORBCLIENTS).i(0).d(T0).i(-4).s, 0, "orbm"},
        // A huge count costs no more memory than the entries actually sent.
        {"huge client count", 0, nullptr,
         Wire().i(ORBCLIENTS).i(0).d(T0).i(0x7fffffff).b(std::string(373, '\0')).s, -1, "",
         [](Resp d) { EXPECT_LE(d->sZclient, 16); }},
        {"huge source count", 0, nullptr, Wire().i(ORBSOURCES).i(0).d(T0).i(2000000000).s, -1, "",
         [](Resp d) { EXPECT_LE(d->sZsource, 16); }},
        // A client's pattern longer than its field: 96 bytes read, the rest left (then read as the fields
        // after it, which run out).
        {"client pattern too long", 0, nullptr,
         Wire().i(ORBCLIENTS).i(0).d(T0).i(1).b(empty_client).i(100).b(std::string(100, 'p')).s, -1, "",
         [](Resp d) { EXPECT_EQ(std::string(d->client[0].select), std::string(96, 'p')); }},
    });
    check_rows(v, newOrbresponse, freeOrbresponse);
}

TEST(OrbNames, CodesAndPositions) {
    for (auto [code, name] : {std::pair{ORBPUT, "ORBPUT"}, {34, "ORBSIGNEDOPEN"}, {27, "ORBREAPL"},
                              {-14, "ORBNEWEST"}, {-13, "ORBOLDEST"}}) {
        EXPECT_STREQ(orbreq2name(code), name);
        EXPECT_EQ(orbname2req(name), code);
    }
    EXPECT_EQ(orbreq2name(22), nullptr);
    EXPECT_EQ(orbname2req("nonsense"), 0);
}

// A package's size has no room in the short form above 65535; a code without a package is a bug.
TEST(OrbPktpkgDeathTest, CodeWithoutPackageIsFatal) {
    Pktpkg* p = newPktpkg();
    OutStream o;
    fill_pkg(p, 70000);
    EXPECT_EQ(pbnsPktpkg(o.b, ORBPUT, p), -1);
    EXPECT_EXIT(pbnsPktpkg(o.b, ORBSTAT, p), testing::ExitedWithCode(1), "bad what code 4 in pbnsPktpkg");
    InStream in(Wire().i(1).h(0).h(0).d(0).s);
    EXPECT_EXIT(gbnsPktpkg(in.b, 40, p), testing::ExitedWithCode(1), "bad what code 40 in gbnsPktpkg");
    freePktpkg(p);
}

}  // namespace

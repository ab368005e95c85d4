// The buffered stream over real socket pairs, and the byte-order conversions under it.
#include "stock/bns.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <cmath>
#include <string>
#include <tuple>

#include "deviants/swap.h"
#include "stock/h2e.h"
#include "support/tempdir.h"
#include "wire/wire_support.h"

namespace {

// A stream b over one end of a socket pair; the test plays the peer at sp.fd[1].
struct BnsSocket : testing::Test {
    SocketPair sp;
    Bns* b = nullptr;
    void stream(int size, int timeout_ms = -2) {
        b = bnsnew(sp.fd[0], size);
        if (timeout_ms != -2) bnstimeout(b, timeout_ms);
    }
    // Puts a message and flushes it.
    void message(const std::string& m) {
        buf2bns(b, m.data(), int(m.size()));
        ASSERT_EQ(bnsflush(b), 0);
    }
    void TearDown() override { bnsfree(b); }
};

TEST(Bns, BadSizeAndTimeoutFromTheEnvironment) {
    int saved = Bns_timeout;
    setenv("BNS_TIMEOUT", "1234", 1);
    Bns* c = bnsnew(-1, -5);
    unsetenv("BNS_TIMEOUT");
    EXPECT_EQ(std::pair(c->sz, c->timeout), std::pair(32767, 1234));
    Bns_timeout = saved;
    bnsfree(c);
    bnsfree(nullptr);
}

TEST(Bns, PutsEveryTypeBigEndianAndGetsItBack) {
    OutStream o;
    short s = -2;
    int i = INT32_MIN;
    int64_t l = 0x0102030405060708LL;
    float f = 1.0f;
    double d = -2.0;
    void* at[] = {&s, &i, &l, &f, &d};  // in the order of the type codes BNS_SHORT .. BNS_DOUBLE
    for (int t = BNS_SHORT; t <= BNS_DOUBLE; t++) ASSERT_EQ(bnsput(o.b, at[t - 1], t, 1), 0);
    ASSERT_EQ(buf2bns(o.b, "xyz", 3), 0);
    std::string bytes = pending(o.b);
    EXPECT_EQ(bytes, "\xff\xfe" "\x80\x00\x00\x00" "\x01\x02\x03\x04\x05\x06\x07\x08"
                     "\x3f\x80\x00\x00" "\xc0\x00\x00\x00\x00\x00\x00\x00" "xyz"s);
    EXPECT_EQ(bnsout(o.b), 29);
    EXPECT_EQ(bnsout(o.b), 0);
    EXPECT_EQ(bnsput(o.b, &i, 6, 1), -1);
    EXPECT_EQ(bnsput(o.b, &i, -1, 1), -1);
    EXPECT_EQ(bnscnt(o.b), 29);
    InStream in(bytes);
    s = 0, i = 0, l = 0, f = 0, d = 0;
    for (int t = BNS_SHORT; t <= BNS_DOUBLE; t++) ASSERT_EQ(bnsget(in.b, at[t - 1], t, 1), 0);
    EXPECT_EQ(std::tuple(s, i, l, f, d), std::tuple(short(-2), INT32_MIN, 0x0102030405060708LL, 1.0f, -2.0));
    EXPECT_EQ(bnsin(in.b), 26);
    EXPECT_EQ(bnsget(in.b, &i, 9, 1), -1);
}

TEST_F(BnsSocket, FlushWritesEverythingInOneCallAndAFailureKeepsTheBytes) {
    stream(16);
    std::string expect;
    for (int k = 0; k < 50; k++) {
        bnsput(b, &k, BNS_INT, 1);
        expect += Wire().i(k).s;
    }
    ASSERT_EQ(bnsflush(b), 0);
    EXPECT_EQ(sp.drain(), expect);
    EXPECT_EQ(bnsflush(b), 0);  // nothing to write, and no call made for it
    EXPECT_EQ(b->nsys, 1);
    sp.closeend(1);
    signal(SIGPIPE, SIG_IGN);
    buf2bns(b, "abc", 3);
    EXPECT_EQ(bnsflush(b), -1);
    EXPECT_EQ(std::tuple(b->err, b->syserrno, pending(b)), std::tuple(1, EPIPE, "abc"s));
}

// A time-out is not the end of the input: what has arrived stays for the next call.
TEST_F(BnsSocket, PartialArrivalSurvivesTheTimeoutAndEndOfFileIsToldApart) {
    stream(64, 30);
    int v = 0;
    EXPECT_EQ(bnsget(b, &v, BNS_INT, 1), -1);  // nothing at all
    EXPECT_EQ(b->eof + b->err, 0);
    sp.send("\x12\x34");
    EXPECT_EQ(bnsget(b, &v, BNS_INT, 1), -1);
    EXPECT_EQ(std::pair(b->eof + b->err, bnscnt(b)), std::pair(0, 2));
    sp.send("\x56\x78");
    ASSERT_EQ(bnsget(b, &v, BNS_INT, 1), 0);
    EXPECT_EQ(v, 0x12345678);
    bnstimeout(b, 5000);
    sp.send("ab");
    sp.closeend(1);
    EXPECT_EQ(bnsget(b, &v, BNS_INT, 1), -1);
    EXPECT_EQ(std::tuple(b->eof, b->err, bnscnt(b)), std::tuple(1, 0, 2));  // what came is still there
    char c[2];
    EXPECT_EQ(bnsget(b, c, BNS_BYTES, 2), 0);
}

// A pipe whose writer is gone reports a hang-up without input; a closed
// descriptor is an error, not an end of file.
TEST(Bns, HangUpAndClosedDescriptor) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    Bns* b = bnsnew(p[0], 64);
    bnstimeout(b, 5000);
    close(p[1]);
    char c;
    EXPECT_EQ(bnsget(b, &c, BNS_BYTES, 1), -1);
    EXPECT_EQ(b->eof, 1);
    bnsfree(b);
    close(p[0]);
    b = bnsnew(p[0], 64);
    EXPECT_EQ(bnswait(b), -1);
    EXPECT_EQ(b->err, 1);
    EXPECT_EQ(bnsget(b, &c, BNS_BYTES, 1), -1);
    EXPECT_EQ(std::pair(b->eof, b->err), std::pair(0, 2));
    bnsfree(b);
}

TEST_F(BnsSocket, WaitTellsReadyAndTimeout) {
    stream(64, 0);
    EXPECT_EQ(bnswait(b), 0);
    sp.send("x");
    EXPECT_EQ(bnswait(b), 1);
    EXPECT_NE(b->revents & POLLRDNORM, 0);
}

// A large run read straight into the destination still consumes nothing
// when it cannot complete, on its own or behind a marked message head.
TEST(Bns, DirectRunSurvivesTheTimeoutAndTheMark) {
    std::string body(300000, '\0');
    for (size_t i = 0; i < body.size(); i++) body[i] = char(i * 7 + i / 251);
    for (bool marked : {false, true}) {
        SocketPair sp;
        int big = 1 << 20;
        setsockopt(sp.fd[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        Bns* b = bnsnew(sp.fd[0], 64);
        b->direct = 1;
        bnstimeout(b, 30);
        sp.send("HEAD" + body.substr(0, 100000));
        char head[4];
        ASSERT_EQ(bnsget(b, head, BNS_BYTES, 4), 0);
        if (marked) b->mark = 0;
        std::string got(body.size(), 'x');
        EXPECT_EQ(bnsget(b, got.data(), BNS_BYTES, int(got.size())), -1);
        EXPECT_EQ(std::pair(b->eof + b->err, bnscnt(b)), std::pair(0, 100000));
        if (marked) {
            EXPECT_EQ(std::string(b->data, 4), "HEAD");
            b->fp = b->mark;  // start the message again, as the client does
            ASSERT_EQ(bnsget(b, head, BNS_BYTES, 4), 0);
        }
        sp.send(body.substr(100000));
        ASSERT_EQ(bnsget(b, got.data(), BNS_BYTES, int(got.size())), 0);
        EXPECT_TRUE(got == body);
        EXPECT_EQ(bnscnt(b), 0);
        if (marked) {
            EXPECT_EQ(std::string(b->data + b->mark, 4), "HEAD");
        }
        bnsfree(b);
    }
}

// bnsview gives bytes in place or nothing, bns2buf hands out what is buffered
// and empties the buffer, bnsclose flushes before it closes.
TEST_F(BnsSocket, ViewBns2bufAndClose) {
    stream(16, 30);
    sp.send("abcdefghij");
    EXPECT_EQ(bnsview(b, 20), nullptr);  // not all there
    EXPECT_EQ(bnscnt(b), 10);
    sp.send("klmnopqrstuvwxyz");
    const char* v = bnsview(b, 20);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(std::string(v, 20), "abcdefghijklmnopqrst");
    EXPECT_EQ(bnscnt(b), 6);
    EXPECT_EQ(bnsview(b, -1), nullptr);
    char buf[8];
    EXPECT_EQ(bns2buf(b, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "uvwx");
    EXPECT_EQ(std::pair(bnscnt(b), b->fp), std::pair(0, 0));
    EXPECT_EQ(bns2buf(b, buf, 4), 0);
    buf2bns(b, "bye", 3);
    EXPECT_EQ(bnsclose(b), 0);
    b = nullptr;
    EXPECT_EQ(fcntl(sp.fd[0], F_GETFD), -1);
    sp.fd[0] = -1;
    EXPECT_EQ(sp.drain(), "bye");
}

// Reads take all there is in one call, and grow the buffer by twice the
// shortfall once consumed bytes have been moved out.
TEST_F(BnsSocket, ReadsFillTheFreeSpaceAndGrowByTwiceTheShortfall) {
    stream(16);
    std::string msg(100, 'g');
    sp.send(msg);
    char buf[100];
    ASSERT_EQ(bnsget(b, buf, BNS_BYTES, 100), 0);
    EXPECT_EQ(b->sz, 16 + 2 * (100 - 16));
    EXPECT_EQ(std::string(buf, 100), msg);
    sp.send(std::string(150, 'h'));
    ASSERT_EQ(bnsget(b, buf, BNS_BYTES, 100), 0);
    EXPECT_EQ(std::tuple(b->sz, b->nsys, bnscnt(b)), std::tuple(184, 2L, 50));
}

TEST_F(BnsSocket, ResendWritesExactlyTheLastMessagesKept) {
    stream(8);
    message("once");  // nothing kept, nothing resent
    sp.drain();
    long calls = b->nsys;
    EXPECT_EQ(bnsresend(b), 0);
    EXPECT_EQ(b->nsys, calls);
    EXPECT_EQ(sp.drain(), "");
    bnskeep(b, 2);
    for (const char* m : {"aaa", "bbbb", "ccccc"}) message(m);
    EXPECT_EQ(sp.drain(), "aaabbbbccccc");
    ASSERT_EQ(bnsresend(b), 0);
    EXPECT_EQ(sp.drain(), "bbbbccccc");
    // The kept bytes stay bounded however many messages pass.
    for (int k = 0; k < 200; k++) message("0123456789");
    EXPECT_EQ(b->lp - b->mark, 20);
    EXPECT_LE(b->sz, 64);
    sp.drain();
    message("tail");
    ASSERT_EQ(bnsresend(b), 0);
    EXPECT_EQ(sp.drain(), "tail0123456789tail");
    bnsclr(b);  // after a clear nothing is resent either
    EXPECT_EQ(bnsresend(b), 0);
    EXPECT_EQ(sp.drain(), "");
}

// Callers undo a message they could not finish by restoring the end they
// saved before putting it: a put must never move what is already buffered.
TEST_F(BnsSocket, APutNeverMovesKeptOrBufferedBytes) {
    stream(1000);
    bnskeep(b, 2);
    for (char c : {'a', 'b', 'c'}) message(std::string(300, c));
    buf2bns(b, "pending", 7);
    int end = b->lp;
    std::string big(5000, 'B');
    buf2bns(b, "orbmHEAD", 8);
    buf2bns(b, big.data(), int(big.size()));
    b->lp = end;
    EXPECT_EQ(pending(b), "pending");
    ASSERT_EQ(bnsflush(b), 0);
    sp.drain();
    ASSERT_EQ(bnsresend(b), 0);
    EXPECT_EQ(sp.drain(), std::string(300, 'c') + "pending");
}

TEST_F(BnsSocket, GetcLeavesTheTerminatorAndDropsTheOverflow) {
    stream(4, 5000);  // smaller than a line: the terminator comes in a later read
    sp.send("abcdefghij\ndef");
    char buf[16] = {}, nl;
    EXPECT_EQ(bnsgetc(b, buf, 16, '\n'), 10);
    EXPECT_EQ(std::string(buf, 10), "abcdefghij");
    EXPECT_EQ(pending(b)[0], '\n');
    bnsget(b, &nl, BNS_BYTES, 1);
    sp.send("ghijkl\nX");
    EXPECT_EQ(bnsgetc(b, buf, 2, '\n'), 2);
    EXPECT_EQ(std::string(buf, 2), "de");
    EXPECT_EQ(pending(b)[0], '\n');
    bnsget(b, &nl, BNS_BYTES, 1);
    sp.closeend(1);
    memset(buf, 0, sizeof buf);
    EXPECT_EQ(bnsgetc(b, buf, 16, '\n'), -1);
    EXPECT_STREQ(buf, "X");
    EXPECT_EQ(bnscnt(b), 0);
}

TEST(Bns, SnoopTracesBothDirections) {
    TempDir dir;
    std::string trace = dir / "trace";
    SocketPair sp;
    Bns* out = bnsnew(sp.fd[0], 64);
    bnsid(out, strdup("wire-out"));
    ASSERT_EQ(bnssnoop(out, trace.c_str()), 0);
    buf2bns(out, "hello", 5);
    bnsflush(out);
    bnssnoop(out, nullptr);
    Bns* in = bnsnew(sp.fd[1], 64);
    ASSERT_EQ(bnssnoop(in, trace.c_str()), 0);
    char buf[5];
    ASSERT_EQ(bnsget(in, buf, BNS_BYTES, 5), 0);
    std::string t = slurp(trace);
    EXPECT_EQ(t.find("\n\n#msg > wire-out 5 "), 0u) << t;
    EXPECT_NE(t.find("\nhello\n\n#msg < anon 5 "), std::string::npos) << t;
    EXPECT_EQ(t.substr(t.size() - 6), "\nhello");
    struct stat st;
    ASSERT_EQ(stat(trace.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777 & ~0664, 0u);
    EXPECT_EQ(bnssnoop(in, (dir / "no/such/dir").c_str()), -1);
    EXPECT_EQ(in->snoopfd, -1);
    bnsfree(in);
    bnsfree(out);
}

TEST_F(BnsSocket, SyncFindsThePatternAfterGarbageOrGivesUp) {
    stream(64, 5000);
    std::string err;
    auto sync = [&](const std::string& input, int strict) {
        bnsclr(b);
        sp.send(input);
        testing::internal::CaptureStderr();
        int r = gbnsSync(b, "orbm", 4, strict);
        err = testing::internal::GetCapturedStderr();
        return r;
    };
    EXPECT_EQ(sync("xxorbmDATA", 0), 0);
    EXPECT_NE(err.find("skipped 2 bytes looking for sync 'orbm'"), std::string::npos) << err;
    EXPECT_EQ(pending(b), "DATA");
    EXPECT_EQ(sync("oorbmZ", 0), 0);  // a repeated first byte begins the match again
    EXPECT_EQ(pending(b), "Z");
    EXPECT_EQ(sync("orbm", 1), 0);
    EXPECT_EQ(err, "") << "clean input says nothing";
    EXPECT_EQ(sync("xorbm", 1), -2);  // strict: the first stray byte ends it
    EXPECT_EQ(pending(b), "orbm");
    EXPECT_EQ(sync(std::string(40, 'z') + "orbm", 0), -2);
    EXPECT_NE(err.find("skipped 32 bytes"), std::string::npos) << err;
    sp.send("orb");  // then end of file part way through the pattern
    sp.closeend(1);
    EXPECT_EQ(sync("", 0), -1);
}

// The big-endian forms are covered through the stream above.
TEST(ByteOrder, LittleEndianWideningNanAndSwaps) {
    unsigned char buf[64], *c = buf;
    auto from = [&] { c = buf; return &c; };  // converts from or to the start of buf
    auto bytes = [&](size_t n, size_t at = 0) { return std::string((char*)buf + at, n); };
    short s[2] = {1, -1}, back[2];
    EXPECT_EQ(hs2as(s, from(), 2), 0);
    EXPECT_EQ(c - buf, 4);
    EXPECT_EQ(bytes(4), "\x01\x00\xff\xff"s);
    as2hs(from(), back, 2);
    EXPECT_EQ(back[1], -1);
    unsigned short u = 0xfffe;  // a 16-bit field widens with or without its sign
    int wide[2];
    uhs2ms(&u, from(), 1);
    ums2hi(from(), &wide[0], 1);
    ms2hi(from(), &wide[1], 1);
    EXPECT_EQ(std::pair(wide[0], wide[1]), std::pair(0xfffe, -2));
    double d[3] = {1.5, NAN, -0.0}, e[3];
    EXPECT_EQ(hd2md(d, from(), 3), -1);
    EXPECT_EQ(c - buf, 24);
    EXPECT_EQ(md2hd(from(), e, 3), -1);
    EXPECT_EQ(e[0], 1.5);
    EXPECT_TRUE(std::isnan(e[1]));
    EXPECT_TRUE(std::signbit(e[2]));
    EXPECT_EQ(hd2md(d, from(), 1), 0);
    // Byte reversal in place and between unaligned buffers.
    memcpy(buf, "\0\1\2\3\4", 5);
    swap2(buf + 1, buf + 1, 2);
    EXPECT_EQ(bytes(5), "\0\2\1\4\3"s);
    swap4(buf + 1, buf + 9, 1);
    EXPECT_EQ(bytes(4, 9), "\3\4\1\2");
    memcpy(buf, "\1\2\3\4\5\6\7\10", 8);
    swap8(buf, buf, 1);
    EXPECT_EQ(bytes(8), "\10\7\6\5\4\3\2\1");
}

}  // namespace

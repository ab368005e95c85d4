#include "pkt/pkt.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Stuffed {
    char srcname[PKT_SRCNAMESIZE];
    double time = 0;
    std::vector<char> body;
};

Stuffed stuff(Packet* pkt) {
    Stuffed s;
    char* buf = nullptr;
    int nbytes = 0, bufsize = 0;
    EXPECT_EQ(stuffPkt(pkt, s.srcname, &s.time, &buf, &nbytes, &bufsize), 0);
    EXPECT_GE(bufsize, nbytes);
    s.body.assign(buf, buf + nbytes);
    free(buf);
    return s;
}

Packet* xferPkt(const char* net, const char* subcode) {
    Packet* pkt = newPkt();
    snprintf(pkt->parts.src_net, PKT_NAMESIZE, "%s", net);
    snprintf(pkt->parts.src_subcode, PKT_NAMESIZE, "%s", subcode);
    pkt->pkttype = suffix2pkttype("xfer");
    return pkt;
}

// A data packet whose key holds NULs and high bytes, as binary digests do.
Stuffed dataPacket() {
    Packet* pkt = xferPkt("host", "43200/report.csv");
    static char key[16] = {0, 1, 2, '\xff', 0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, '\x80'};
    static char data[] = "some\0bytes\n";
    pkt->string = key;
    pkt->string_size = 7;
    pkt->nchannels = 0100644;
    pkt->dfile = data;
    pkt->dfile_size = sizeof data - 1;
    Stuffed s = stuff(pkt);
    pkt->string = pkt->dfile = nullptr;
    freePkt(pkt);
    return s;
}

TEST(PktSrcname, JoinLeavesOutEmptyPartsAndSplitUndoesIt) {
    Srcname parts{}, back{};
    char name[PKT_SRCNAMESIZE];
    join_srcname(&parts, "ch", name);
    EXPECT_STREQ(name, "/ch");
    strcpy(parts.src_net, "net");
    strcpy(parts.src_subcode, "12/a.txt");
    join_srcname(&parts, "xfer", name);
    EXPECT_STREQ(name, "net/xfer/12/a.txt");
    strcpy(parts.src_chan, "chan");
    strcpy(parts.src_loc, "00");
    join_srcname(&parts, "xfer", name);
    EXPECT_STREQ(name, "net_chan_00/xfer/12/a.txt");

    strcpy(parts.src_net, "AK");
    strcpy(parts.src_sta, "STA");
    strcpy(parts.src_chan, "BHZ");
    strcpy(parts.src_subcode, "86399/x/y");  // the subcode keeps its own slashes
    join_srcname(&parts, "xfer", name);
    split_srcname(name, &back);
    EXPECT_STREQ(back.src_net, "AK");
    EXPECT_STREQ(back.src_sta, "STA");
    EXPECT_STREQ(back.src_chan, "BHZ");
    EXPECT_STREQ(back.src_loc, "00");
    EXPECT_STREQ(back.src_suffix, "xfer");
    EXPECT_STREQ(back.src_subcode, "86399/x/y");
}

TEST(PktSrcname, JoinCutsAt63Bytes) {
    Srcname parts{};
    char name[PKT_SRCNAMESIZE];
    memset(parts.src_net, 'n', 31);
    memset(parts.src_subcode, 's', 31);
    join_srcname(&parts, "xfer", name);
    EXPECT_EQ(strlen(name), 63u);
    EXPECT_EQ(std::string(name, 37), std::string(31, 'n') + "/xfer/");
}

TEST(PktSrcname, SplitSurvivesOddNames) {
    Srcname p{};
    split_srcname("", &p);
    EXPECT_STREQ(p.src_net, "");
    EXPECT_STREQ(p.src_suffix, "");
    split_srcname("noslash", &p);
    EXPECT_STREQ(p.src_net, "noslash");
    EXPECT_STREQ(p.src_suffix, "");
    split_srcname("a_b_c_d_e/xfer", &p);
    EXPECT_STREQ(p.src_loc, "d_e");
    EXPECT_STREQ(p.src_subcode, "");
    std::string longpart(60, 'x');
    split_srcname(("/" + longpart).c_str(), &p);
    EXPECT_EQ(strlen(p.src_suffix), 31u);
    split_srcname(nullptr, &p);
    EXPECT_STREQ(p.src_net, "");
}

TEST(PktTypes, KnowsXferAndMarkers) {
    ASSERT_NE(suffix2pkttype("xfer"), nullptr);
    EXPECT_EQ(suffix2pkttype("xfer")->content, PKT_XFER_TYPE);
    ASSERT_NE(suffix2pkttype("ch"), nullptr);
    EXPECT_EQ(suffix2pkttype("ch")->content, 0);
    EXPECT_EQ(suffix2pkttype("XFER"), nullptr);
    EXPECT_EQ(suffix2pkttype(""), nullptr);
    EXPECT_EQ(suffix2pkttype(nullptr), nullptr);
}

TEST(PktXfer, InitialPacketRoundTrips) {
    Packet* pkt = xferPkt("host", "43200/station_report_2007_017.c");
    char digest[] = "0123456789abcdef0123456789abcdef";
    char name[] = "/data/incoming/station_report_2007_017.csv";
    pkt->time = 1234.5;
    pkt->nchannels = 0100640;
    pkt->string = digest;
    pkt->dfile = name;
    pkt->dfile_size = sizeof name;
    Stuffed s = stuff(pkt);
    pkt->string = pkt->dfile = nullptr;
    freePkt(pkt);
    EXPECT_STREQ(s.srcname, "host/xfer/43200/station_report_2007_017.c");
    EXPECT_EQ(s.time, 1234.5);

    Packet* got = nullptr;
    ASSERT_EQ(unstuffPkt(s.srcname, 99.0, s.body.data(), int(s.body.size()), &got), PKT_XFER_TYPE);
    EXPECT_EQ(got->time, 99.0);
    EXPECT_STREQ(got->parts.src_net, "host");
    EXPECT_STREQ(got->parts.src_subcode, "43200/station_report_2007_017.c");
    EXPECT_EQ(got->pkttype, suffix2pkttype("xfer"));
    EXPECT_EQ(got->string_size, 0);
    EXPECT_EQ(got->nchannels, 0100640);
    EXPECT_EQ(std::string(got->string, 16), "0123456789abcdef");
    EXPECT_EQ(got->dfile_size, int(sizeof name));
    EXPECT_STREQ(got->dfile, name);
    freePkt(got);
}

// A copying unpack keeps the binary key and data whole. In place, the data is
// the packet's own bytes; a record may switch between in-place and copying
// unpacks and is freed without touching the packet.
TEST(PktXfer, DataPacketCopiedOrInPlace) {
    Stuffed s = dataPacket();
    Packet* got = nullptr;
    const char key[16] = {0, 1, 2, '\xff', 0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, '\x80'};
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(unstuffPktInPlace(s.srcname, 0, s.body.data(), int(s.body.size()), &got), PKT_XFER_TYPE);
        ASSERT_EQ(got->dfile_size, 11);
        EXPECT_EQ(got->dfile, s.body.data() + s.body.size() - 11);
        EXPECT_EQ(got->string_size, 7);
        ASSERT_EQ(unstuffPkt(s.srcname, 0, s.body.data(), int(s.body.size()), &got), PKT_XFER_TYPE);
        EXPECT_NE(got->dfile, s.body.data() + s.body.size() - 11);
        EXPECT_EQ(memcmp(got->dfile, "some\0bytes\n", 12), 0);  // NUL-terminated copy
        EXPECT_EQ(memcmp(got->string, key, 16), 0);
        EXPECT_EQ(got->string_size, 7);
    }
    ASSERT_EQ(unstuffPktInPlace(s.srcname, 0, s.body.data(), int(s.body.size()), &got), PKT_XFER_TYPE);
    std::vector<char> before = s.body;
    freePkt(got);
    EXPECT_EQ(s.body, before);
    got = nullptr;
    EXPECT_EQ(unstuffPktInPlace(s.srcname, 0, s.body.data(), int(s.body.size()) - 1, &got), -1);
    freePkt(got);
}

TEST(PktXfer, FinalPacketWithFailureSequenceAndNoData) {
    Packet* pkt = xferPkt("", "1/e");
    char digest[] = "d41d8cd98f00b204e9800998ecf8427e";
    pkt->string = digest;
    pkt->string_size = -1;
    Stuffed s = stuff(pkt);
    pkt->string = nullptr;
    freePkt(pkt);
    EXPECT_STREQ(s.srcname, "/xfer/1/e");
    Packet* got = nullptr;
    ASSERT_EQ(unstuffPkt(s.srcname, 0, s.body.data(), int(s.body.size()), &got), PKT_XFER_TYPE);
    EXPECT_EQ(got->string_size, -1);
    EXPECT_EQ(got->dfile_size, 0);
    EXPECT_STREQ(got->parts.src_net, "");
    freePkt(got);
}

TEST(PktXfer, ReusedRecordForgetsThePreviousPacket) {
    Stuffed data = dataPacket();
    Packet* pkt = xferPkt("h", "2/n");
    pkt->string_size = 3;  // no key, no data
    Stuffed bare = stuff(pkt);
    freePkt(pkt);

    Packet* got = nullptr;
    ASSERT_EQ(unstuffPkt(data.srcname, 0, data.body.data(), int(data.body.size()), &got), PKT_XFER_TYPE);
    ASSERT_EQ(unstuffPkt(bare.srcname, 0, bare.body.data(), int(bare.body.size()), &got), PKT_XFER_TYPE);
    EXPECT_EQ(got->string, nullptr);
    EXPECT_EQ(got->dfile_size, 0);
    EXPECT_EQ(got->string_size, 3);

    // Other types give 0 with the parts filled in.
    EXPECT_EQ(unstuffPkt("h/ch/ferrant_start", 0, nullptr, 0, &got), 0);
    EXPECT_EQ(got->dfile_size, 0);
    EXPECT_STREQ(got->parts.src_suffix, "ch");
    EXPECT_STREQ(got->parts.src_subcode, "ferrant_start");
    EXPECT_EQ(unstuffPkt("net/waveform/x", 5.0, "abc", 3, &got), 0);
    EXPECT_EQ(got->pkttype, nullptr);
    freePkt(got);
}

TEST(PktXfer, LargestChunkFitsAndBufferGrows) {
    std::vector<char> big(PKT_XFER_MAXDATA, 'z');
    char key[16] = {};
    Packet* pkt = xferPkt("h", "3/b");
    pkt->string = key;
    pkt->dfile = big.data();
    pkt->dfile_size = PKT_XFER_MAXDATA;
    char srcname[PKT_SRCNAMESIZE];
    double t;
    int nbytes = 0, bufsize = 8;
    char* buf = static_cast<char*>(malloc(8));
    ASSERT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), 0);
    EXPECT_GE(bufsize, PKT_XFER_MAXDATA);
    int grown = bufsize;
    pkt->dfile_size = 10;  // a smaller packet reuses the buffer
    ASSERT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), 0);
    EXPECT_EQ(bufsize, grown);
    pkt->dfile_size = PKT_XFER_MAXDATA + 1;
    EXPECT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), -1);
    pkt->dfile_size = -1;  // packs as an empty chunk
    ASSERT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), 0);
    Packet* got = nullptr;
    ASSERT_EQ(unstuffPkt(srcname, 0, buf, nbytes, &got), PKT_XFER_TYPE);
    EXPECT_EQ(got->dfile_size, 0);
    freePkt(got);
    pkt->dfile = nullptr;
    pkt->dfile_size = 1;
    EXPECT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), -1);
    pkt->string = nullptr;
    free(buf);
    freePkt(pkt);
}

TEST(PktStuff, RefusesRecordsWithoutAKnownType) {
    Packet* pkt = newPkt();
    char srcname[PKT_SRCNAMESIZE];
    double t;
    char* buf = nullptr;
    int nbytes = 0, bufsize = 0;
    EXPECT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), -1);
    PacketType bogus{"bogus", 0, ""};
    pkt->pkttype = &bogus;
    EXPECT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), -1);
    pkt->pkttype = suffix2pkttype("ch");
    EXPECT_EQ(stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize), 0);
    EXPECT_EQ(nbytes, 0);
    EXPECT_STREQ(srcname, "/ch");
    free(buf);
    freePkt(pkt);
    EXPECT_EQ(stuffPkt(nullptr, srcname, &t, &buf, &nbytes, &bufsize), -1);
}

TEST(PktUnstuff, EveryTruncationAndExtensionIsMalformed) {
    Stuffed s = dataPacket();
    Packet* got = nullptr;
    for (size_t n = 0; n < s.body.size(); n++) {
        EXPECT_EQ(unstuffPkt(s.srcname, 0, s.body.data(), int(n), &got), -1) << n;
        EXPECT_STREQ(got->parts.src_suffix, "xfer");
    }
    std::vector<char> longer = s.body;
    longer.push_back('x');
    EXPECT_EQ(unstuffPkt(s.srcname, 0, longer.data(), int(longer.size()), &got), -1);
    EXPECT_EQ(unstuffPkt(s.srcname, 0, nullptr, 100, &got), -1);
    EXPECT_EQ(unstuffPkt(s.srcname, 0, s.body.data(), -5, &got), -1);
    freePkt(got);
}

TEST(PktUnstuff, HostileHeaderFieldsAreMalformed) {
    Stuffed s = dataPacket();
    Packet* got = nullptr;
    auto tryit = [&](size_t at, unsigned char v) {
        std::vector<char> b = s.body;
        b[at] = char(v);
        return unstuffPkt(s.srcname, 0, b.data(), int(b.size()), &got);
    };
    EXPECT_EQ(tryit(0, 'Y'), -1);   // magic
    EXPECT_EQ(tryit(3, 2), -1);     // body format from the future
    EXPECT_EQ(tryit(16, 5), -1);    // key length neither 0 nor 16
    EXPECT_EQ(tryit(16, 0), -1);    // key gone but the bytes still there
    EXPECT_EQ(tryit(33, 0xff), -1); // data length high byte: huge
    EXPECT_EQ(tryit(36, 12), -1);   // data length one more than present
    EXPECT_EQ(tryit(36, 10), -1);   // one less: a trailing byte left over

    // A length just over the limit is refused even when the bytes are all there.
    std::vector<char> b(21 + PKT_XFER_MAXDATA + 1, 0);
    b[0] = 'X', b[1] = 'F', b[3] = 1;
    uint32_t n = PKT_XFER_MAXDATA + 1;
    b[17] = char(n >> 24), b[18] = char(n >> 16), b[19] = char(n >> 8), b[20] = char(n);
    EXPECT_EQ(unstuffPkt("h/xfer/1/a", 0, b.data(), int(b.size()), &got), -1);
    freePkt(got);
}

TEST(PktShow, DumpsDecodedFieldsAndMalformedBodies) {
    Stuffed s = dataPacket();
    char* text = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&text, &len);
    showPkt(42, s.srcname, 1.5, s.body.data(), int(s.body.size()), f, 5);
    showPkt(43, s.srcname, 1.5, s.body.data(), 3, f, 5);
    showPkt(44, "h/ch/ferrant_start", 1.5, nullptr, 0, f, 5);
    fclose(f);
    std::string out(text, len);
    free(text);
    EXPECT_NE(out.find("#42 host/xfer/43200/report.csv"), std::string::npos);
    EXPECT_NE(out.find("sequence 7 mode 100644 data 11 bytes"), std::string::npos);
    EXPECT_NE(out.find("some.bytes."), std::string::npos);
    EXPECT_NE(out.find("malformed xfer body"), std::string::npos);
    EXPECT_NE(out.find("type 'ch'"), std::string::npos);
}

}  // namespace

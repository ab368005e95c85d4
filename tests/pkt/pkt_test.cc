#include "pkt/pkt.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "ferrant/harness.h"

using namespace std::string_literals;

namespace {

using ferrant_test::pack;
using ferrant_test::Stuffed;

// A binary key with NULs and high bytes, as digests are.
const char Key[16] = {0, 1, 2, '\xff', 0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, '\x80'};

Stuffed dataPacket() { return pack("host", "43200/report.csv", 7, 0100644, Key, "some\0bytes\n"s); }

// Source names both ways: empty parts are left out of a joined name, the last
// part of a split takes the underscores left over, the subcode keeps its slashes.
TEST(PktSrcname, JoinAndSplit) {
    enum Way { Join = 1, Split = 2, Both = 3 };
    std::string n31(31, 'n'), s31(31, 's'), x60(60, 'x');
    struct Row {
        Way way;
        std::string name;
        std::vector<std::string> parts;  // net, sta, chan, loc, suffix, subcode
    } rows[] = {
        {Both, "/ch", {"", "", "", "", "ch", ""}},
        {Both, "net/xfer/12/a.txt", {"net", "", "", "", "xfer", "12/a.txt"}},
        {Join, "net_chan_00/xfer/12/a.txt", {"net", "", "chan", "00", "xfer", "12/a.txt"}},
        {Both, "AK_STA_BHZ_00/xfer/86399/x/y", {"AK", "STA", "BHZ", "00", "xfer", "86399/x/y"}},
        {Join, n31 + "/xfer/" + s31.substr(0, 26), {n31, "", "", "", "xfer", s31}},  // cut at 63 bytes
        {Split, "", {"", "", "", "", "", ""}},
        {Split, "noslash", {"noslash", "", "", "", "", ""}},
        {Split, "a_b_c_d_e/xfer", {"a", "b", "c", "d_e", "xfer", ""}},
        {Split, "/" + x60, {"", "", "", "", x60.substr(0, 31), ""}},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        Srcname p{};
        char* f[6] = {p.src_net, p.src_sta, p.src_chan, p.src_loc, p.src_suffix, p.src_subcode};
        if (row.way & Join) {
            for (int i : {0, 1, 2, 3, 5}) strcpy(f[i], row.parts[i].c_str());
            char name[PKT_SRCNAMESIZE];
            join_srcname(&p, row.parts[4].c_str(), name);
            EXPECT_EQ(std::string(name), row.name);
        }
        if (row.way & Split) {
            strcpy(p.src_net, "stale");
            split_srcname(row.name.c_str(), &p);
            for (int i = 0; i < 6; i++) EXPECT_EQ(std::string(f[i]), row.parts[i]) << "part " << i;
        }
    }
    Srcname p{};
    strcpy(p.src_net, "stale");
    split_srcname(nullptr, &p);
    EXPECT_STREQ(p.src_net, "");
}

// Each kind of xfer packet packs to its exact bytes and unpacks, copied or in
// place, into one reused record, which must forget what the packet before had.
TEST(PktXfer, PacketsPackToExactBytesAndUnpackIntoAReusedRecord) {
    const char* digest = "0123456789abcdef0123456789abcdef";  // only the first 16 bytes go
    struct Row {
        const char *net, *subcode;
        int seq, mode;
        const char* key;
        std::string data, srcname;
        std::string head, length;  // magic, format, version, sequence, mode, key length; data length
    } rows[] = {
        {"host", "43200/station_report_2007_017.c", 0, 0100640, digest,
         "/data/incoming/station_report_2007_017.csv\0"s, "host/xfer/43200/station_report_2007_017.c",
         "XF\0\1" "\0\0\0\0" "\0\0\0\0" "\0\0\x81\xa0" "\x10"s, "\0\0\0\x2b"s},
        {"host", "43200/report.csv", 7, 0100644, Key, "some\0bytes\n"s, "host/xfer/43200/report.csv",
         "XF\0\1" "\0\0\0\0" "\0\0\0\7" "\0\0\x81\xa4" "\x10"s, "\0\0\0\x0b"s},
        {"", "1/e", -1, 0, digest, "", "/xfer/1/e",  // a failed send's final packet
         "XF\0\1" "\0\0\0\0" "\xff\xff\xff\xff" "\0\0\0\0" "\x10"s, "\0\0\0\0"s},
        {"h", "2/n", 3, 0, nullptr, "", "h/xfer/2/n",
         "XF\0\1" "\0\0\0\0" "\0\0\0\3" "\0\0\0\0" "\0"s, "\0\0\0\0"s},
    };
    Packet* got = nullptr;
    for (auto& row : rows) {
        SCOPED_TRACE(row.srcname);
        Stuffed s = pack(row.net, row.subcode, row.seq, row.mode, row.key, row.data);
        EXPECT_EQ(s.srcname, row.srcname);
        EXPECT_EQ(s.time, 1234.5);
        std::string body = row.head + (row.key ? std::string(row.key, 16) : "") + row.length + row.data;
        EXPECT_EQ(std::string(s.body.begin(), s.body.end()), body);
        for (bool in_place : {true, false}) {
            ASSERT_EQ(s.unstuff(&got, -1, in_place), PKT_XFER_TYPE);
            std::string net = got->parts.src_net, subcode = got->parts.src_subcode;
            EXPECT_EQ(std::tuple(got->time, net, subcode, got->pkttype, got->string_size, got->nchannels),
                      std::tuple(99.0, row.net, row.subcode, suffix2pkttype("xfer"), row.seq, row.mode));
            EXPECT_EQ(got->string ? std::string(got->string, 17) : "none",
                      row.key ? std::string(row.key, 16) + '\0' : "none");
            ASSERT_EQ(got->dfile_size, int(row.data.size()));
            const char* own = s.body.data() + s.body.size() - row.data.size();  // the packet's own bytes
            EXPECT_TRUE(!in_place || row.data.empty() || got->dfile == own);
            if (!in_place) {  // a NUL-terminated copy
                EXPECT_NE(got->dfile, own);
                EXPECT_EQ(std::string(got->dfile, row.data.size() + 1), row.data + '\0');
            }
        }
    }
    // Freeing a record unpacked in place leaves the packet alone.
    Stuffed s = dataPacket();
    std::vector<char> before = s.body;
    ASSERT_EQ(s.unstuff(&got, -1, true), PKT_XFER_TYPE);
    freePkt(got);
    EXPECT_EQ(s.body, before);
    got = nullptr;
    EXPECT_EQ(s.unstuff(&got, int(s.body.size()) - 1, true), -1);

    // Other types give 0 with the parts filled in; only "xfer" and "ch" are known, as spelt.
    EXPECT_EQ(unstuffPkt("h/ch/ferrant_start", 0, nullptr, 0, &got), 0);
    EXPECT_EQ(std::tuple(got->dfile_size, got->parts.src_suffix + ""s, got->parts.src_subcode + ""s),
              std::tuple(0, "ch"s, "ferrant_start"s));
    EXPECT_TRUE(got->pkttype && got->pkttype == suffix2pkttype("ch"));
    for (const char* other : {"net/waveform/x", "h/XFER/1/a", "h//1/a"}) {
        EXPECT_EQ(unstuffPkt(other, 5.0, "abc", 3, &got), 0) << other;
        EXPECT_EQ(got->pkttype, nullptr) << other;
    }
    EXPECT_EQ(suffix2pkttype(nullptr), nullptr);
    freePkt(got);
}

TEST(PktStuff, RefusesWhatCannotBePackedAndGrowsTheBuffer) {
    Packet* pkt = newPkt();
    char srcname[PKT_SRCNAMESIZE];
    double t;
    int nbytes = 0, bufsize = 8;
    char* buf = static_cast<char*>(malloc(8));
    auto stuff = [&](int size) {
        pkt->dfile_size = size;
        return stuffPkt(pkt, srcname, &t, &buf, &nbytes, &bufsize);
    };
    EXPECT_EQ(stuffPkt(nullptr, srcname, &t, &buf, &nbytes, &bufsize), -1);
    EXPECT_EQ(stuff(0), -1);  // no type
    PacketType bogus{"bogus", 0, ""};
    pkt->pkttype = &bogus;
    EXPECT_EQ(stuff(0), -1);
    pkt->pkttype = suffix2pkttype("ch");
    EXPECT_EQ(stuff(0), 0);
    EXPECT_EQ(std::pair(nbytes, std::string(srcname)), std::pair(0, "/ch"s));
    std::vector<char> big(PKT_XFER_MAXDATA, 'z');
    char key[16] = {};
    strcpy(pkt->parts.src_subcode, "3/b");
    pkt->pkttype = suffix2pkttype("xfer");
    pkt->string = key;
    pkt->dfile = big.data();
    ASSERT_EQ(stuff(PKT_XFER_MAXDATA), 0);
    EXPECT_GE(bufsize, PKT_XFER_MAXDATA);
    int grown = bufsize;
    EXPECT_TRUE(stuff(10) == 0 && bufsize == grown);  // a smaller packet reuses the buffer
    EXPECT_EQ(stuff(PKT_XFER_MAXDATA + 1), -1);
    EXPECT_TRUE(stuff(-1) == 0 && nbytes == 21 + 16);  // packs as an empty chunk
    pkt->dfile = nullptr;
    EXPECT_EQ(stuff(1), -1);
    pkt->string = nullptr;
    free(buf);
    freePkt(pkt);
}

TEST(PktUnstuff, TruncatedExtendedAndHostileBodiesAreMalformedAndDumpedAsSuch) {
    Stuffed s = dataPacket();
    Packet* got = nullptr;
    for (int n = 0; n < int(s.body.size()); n++) {
        EXPECT_EQ(s.unstuff(&got, n), -1) << n;
        EXPECT_STREQ(got->parts.src_suffix, "xfer");
    }
    EXPECT_EQ(unstuffPkt(s.srcname, 0, nullptr, 100, &got), -1);
    EXPECT_EQ(unstuffPkt(s.srcname, 0, s.body.data(), -5, &got), -1);
    // A byte after the data; the magic; a body format from the future; a key length neither 0 nor 16, or
    // 0 with the key's bytes still there; a huge data length, one more than present, one less.
    for (auto [at, v] : {std::pair<size_t, int>{s.body.size(), 'x'}, {0, 'Y'}, {3, 2}, {16, 5}, {16, 0},
                         {33, 0xff}, {36, 12}, {36, 10}}) {
        Stuffed t = s;
        t.body.resize(std::max(t.body.size(), at + 1));
        t.body[at] = char(v);
        EXPECT_EQ(t.unstuff(&got), -1) << at << " " << v;
    }
    // A length just over the limit is refused even when the bytes are all there.
    std::vector<char> b(21 + PKT_XFER_MAXDATA + 1, 0);
    b[0] = 'X', b[1] = 'F', b[3] = 1;
    uint32_t n = PKT_XFER_MAXDATA + 1;
    b[17] = char(n >> 24), b[18] = char(n >> 16), b[19] = char(n >> 8), b[20] = char(n);
    EXPECT_EQ(unstuffPkt("h/xfer/1/a", 0, b.data(), int(b.size()), &got), -1);
    freePkt(got);

    char* text = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&text, &len);
    showPkt(42, s.srcname, 1.5, s.body.data(), int(s.body.size()), f, 5);
    showPkt(43, s.srcname, 1.5, s.body.data(), 3, f, 5);
    showPkt(44, "h/ch/ferrant_start", 1.5, nullptr, 0, f, 5);
    fclose(f);
    std::string out(text, len);
    free(text);
    for (const char* want : {"#42 host/xfer/43200/report.csv", "sequence 7 mode 100644 data 11 bytes",
                             "some.bytes.", "malformed xfer body", "type 'ch'"})
        EXPECT_NE(out.find(want), std::string::npos) << want;
}

}  // namespace

// ferrant2 sender and receiver end to end, through a file-backed ring.
#include <memory>
#include <set>

#include "harness.h"
#include "orb/orb.h"
#include "pkt/pkt.h"

using namespace ferrant_test;

namespace {

struct Seen {
    std::string srcname;
    std::vector<char> body;
};

// Everything in the ring from the oldest packet on, until nothing more
// arrives for a second.
std::vector<Seen> read_ring(const std::string& name) {
    std::vector<Seen> seen;
    int orb = orbopen(name.c_str(), "r");
    if (orb < 0) return seen;
    orbposition(orb, "oldest");
    char* packet = nullptr;
    int bufsize = 0, nbytes = 0, pktid = 0;
    char srcname[PKT_SRCNAMESIZE];
    double time;
    while (orbreap_timeout(orb, 1.0, &pktid, srcname, &time, &packet, &nbytes, &bufsize) == 0) {
        seen.push_back({srcname, std::vector<char>(packet, packet + nbytes)});
    }
    free(packet);
    orbclose(orb);
    return seen;
}

class FerrantTransfer : public ::testing::Test {
protected:
    TempDir tmp;
    std::string src = tmp / "src";
    std::string in = tmp / "in";
    std::string ring = tmp / "ring";

    std::string make(const std::string& rel, const std::string& data, mode_t mode = 0644) {
        return make_old(src + "/" + rel, data, mode);
    }

    std::unique_ptr<Child> send(std::vector<std::string> args, const std::string& pf,
                                const std::string& input = "") {
        std::vector<std::string> argv = {ferrant2(), "-p", pf};
        argv.insert(argv.end(), args.begin(), args.end());
        argv.push_back(ring);
        return std::make_unique<Child>(argv, tmp.path, src, input);
    }

    std::unique_ptr<Child> receive(const std::string& pf) {
        return std::make_unique<Child>(std::vector<std::string>{ferrant2(), "-p", pf, ring}, tmp.path,
                                       tmp.path);
    }

    void same(const std::string& rel) { expect_same(src + "/" + rel, in + "/" + rel); }
};

// Full-size packets go through the sender's packing ahead and the
// receiver's background writes; files of many megabytes also through the
// receiver's drop-behind of written pages, which holds descriptors of files
// already renamed into place.
TEST_F(FerrantTransfer, LargePacketsAndLongFilesArriveWhole) {
    ring = tmp / "ring@s160M";
    std::vector<std::pair<std::string, std::string>> files = {
        {"exact.bin", pattern(3000000, 1)},  {"tail.bin", pattern(2500001, 2)},
        {"long/a.bin", pattern(17000003, 3)}, {"long/b.bin", pattern(16000000, 4)},
        {"long/c.bin", pattern(9000000, 5)},  {"small.txt", "small\n"},
        {"empty.bin", ""},
    };
    for (auto& [name, data] : files) make(name, data, name == "small.txt" ? 0600 : 0644);
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"bytes_per_packet", "1000000"}});
    auto s = send({"."}, pf);
    EXPECT_EQ(s->wait(120), 0) << s->err();
    auto r = receive(pf);
    ASSERT_TRUE(received(*r, files.size())) << r->err();
    for (auto& [name, data] : files) same(name);
    EXPECT_NE(r->err().find("received ./long/a.bin (17000003 bytes, 19 packets)"), std::string::npos) << r->err();
}

// A file still being written is sent only once it has been quiet for a while,
// and then whole.
TEST_F(FerrantTransfer, FilesDirectoriesStandardInputAndAGrowingFileArriveWhole) {
    make("a.txt", "alpha\n", 0640);
    make("empty.dat", "", 0600);
    make("exact.bin", pattern(3000, 1));          // exactly three packets of 1000
    make("odd.bin", pattern(10001, 2), 0755);     // ten full packets and one byte
    make("tree/one.txt", pattern(1500, 3));
    make("tree/deeper/two.txt", pattern(999, 4), 0444);
    make("tree/name with spaces;&'.txt", "odd name\n");
    make("listed.txt", pattern(2048, 5));
    make("listed dir/inside.txt", "not walked\n");
    std::string growing = src + "/growing.log";
    spit(growing, "line 0\n");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}});

    auto s = send({"growing.log", "a.txt", "empty.dat", "exact.bin", "odd.bin", "tree", "-"}, pf,
                  "listed.txt\nlisted dir\nno such file\n");
    for (int i = 1; i <= 6; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::ofstream(growing, std::ios::app) << "line " << i << "\n";
    }
    EXPECT_EQ(s->wait(), 0) << s->err();
    auto r = receive(pf);
    ASSERT_TRUE(received(*r, 9)) << r->err();

    for (auto f : {"growing.log", "a.txt", "empty.dat", "exact.bin", "odd.bin", "tree/one.txt",
                   "tree/deeper/two.txt", "tree/name with spaces;&'.txt", "listed.txt"}) {
        same(f);
        EXPECT_FALSE(exists(in + "/" + f + "-")) << f;
    }
    EXPECT_FALSE(exists(in + "/listed dir"));  // directories on standard input are not walked
    std::string log = r->err();
    EXPECT_NE(log.find("received exact.bin (3000 bytes, 4 packets)"), std::string::npos) << log;
    EXPECT_NE(log.find("received empty.dat (0 bytes, 1 packets)"), std::string::npos) << log;
    EXPECT_NE(log.find("received odd.bin (10001 bytes, 12 packets)"), std::string::npos) << log;
    EXPECT_NE(log.find("receiving 'tree/deeper/two.txt'"), std::string::npos) << log;
    std::string slog = s->err();
    EXPECT_NE(slog.find("starting 'a.txt'"), std::string::npos) << slog;
    EXPECT_NE(slog.find("finished 'listed.txt'"), std::string::npos) << slog;
}

TEST_F(FerrantTransfer, PacketRunsAreFramedByMarkersAndNumberedInOrder) {
    std::string longname = "a_very_long_base_name_that_will_not_fit.txt";
    make("exact.bin", pattern(2000, 9), 0640);
    make("empty", "");
    make(longname, "x");
    auto s = send({"-N", "testnet", "exact.bin", "empty", longname}, write_pf(tmp / "t.pf"));
    ASSERT_EQ(s->wait(), 0) << s->err();

    std::vector<Seen> seen = read_ring(ring);
    ASSERT_EQ(seen.size(), 1u + 4 + 2 + 3 + 1) << "markers, 3 runs";
    EXPECT_EQ(seen.front().srcname, "testnet/ch/ferrant_start");
    EXPECT_TRUE(seen.front().body.empty());
    EXPECT_EQ(seen.back().srcname, "testnet/ch/ferrant_finish");
    struct Run {
        std::string base;
        int packets;
        int mode;
    } runs[] = {{"exact.bin", 4, 0640}, {"empty", 2, 0644}, {longname, 3, 0644}};
    Packet* pkt = nullptr;
    size_t at = 1;
    std::set<int> ids;
    for (auto& run : runs) {
        std::string tag;
        for (int seq = 0; seq < run.packets; seq++, at++) {
            SCOPED_TRACE(run.base + " #" + std::to_string(seq));
            const Seen& p = seen[at];
            int r = unstuffPkt(p.srcname.c_str(), 0, p.body.data(), int(p.body.size()), &pkt);
            ASSERT_EQ(r, PKT_XFER_TYPE);
            EXPECT_STREQ(pkt->parts.src_net, "testnet");
            EXPECT_EQ(pkt->string_size, seq);
            EXPECT_EQ(pkt->nchannels, S_IFREG | run.mode);
            if (seq == 0) tag = pkt->parts.src_subcode;
            EXPECT_EQ(pkt->parts.src_subcode, tag);
        }
        // The tag is "id/" and as much of the base name as keeps 31 characters.
        std::string id = tag.substr(0, tag.find('/'));
        EXPECT_EQ(tag, (id + "/" + run.base).substr(0, 31));
        ids.insert(std::stoi(id));
    }
    freePkt(pkt);
    EXPECT_EQ(ids.size(), 3u);
}

TEST_F(FerrantTransfer, FilePatternsRefuseOnceAndSetTheExitStatus) {
    make("a.txt", "refused\n");
    make("b.dat", "sent\n");
    make("keep/c.dat", "sent too\n");
    make("keep/skip.dat", "rejected in the walk\n");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"file_match", ".*\\.dat"},
                                             {"file_reject", ".*skip.*"}});
    auto s = send({"a.txt", "a.txt", "b.dat", "keep"}, pf);
    EXPECT_EQ(s->wait(), 1) << s->err();
    std::string slog = s->err();
    EXPECT_EQ(count(slog, "'a.txt' not sent; doesn't match file_match/file_reject criteria."), 1u) << slog;
    EXPECT_EQ(count(slog, "'keep/skip.dat' not sent"), 1u) << slog;

    auto r = receive(pf);
    ASSERT_TRUE(received(*r, 2)) << r->err();
    same("b.dat");
    same("keep/c.dat");
    EXPECT_FALSE(exists(in + "/a.txt"));
    EXPECT_FALSE(exists(in + "/keep/skip.dat"));

    // Files found by walking a directory do not count in the exit status.
    auto walk = send({"keep"}, pf);
    EXPECT_EQ(walk->wait(), 0) << walk->err();
}

TEST_F(FerrantTransfer, PreserveDirectoriesOffFlattensAndOnKeepsAbsoluteNamesBelow) {
    std::string one = make("one/same.txt", "first\n");
    std::string two = make("two/same.txt", "second\n", 0600);
    std::string pf_flat = write_pf(tmp / "flat.pf", {{"directory", in}, {"preserve_directories", "no"}});
    auto s = send({"one/same.txt", "two/same.txt"}, pf_flat);
    ASSERT_EQ(s->wait(), 0) << s->err();
    auto r = receive(pf_flat);
    ASSERT_TRUE(received(*r, 2)) << r->err();
    r->stop();
    // Same base names overwrite each other: the later one wins.
    expect_same(two, in + "/same.txt");
    EXPECT_FALSE(exists(in + "/one"));

    // An absolute name loses its leading "/" and lands below the receive directory.
    std::string in2 = tmp / "in2";
    std::string pf_deep = write_pf(tmp / "deep.pf", {{"directory", in2}, {"starting_position", "newest"}});
    auto r2 = receive(pf_deep);
    ASSERT_TRUE(started(*r2)) << r2->err();
    auto s2 = send({one}, pf_deep);
    ASSERT_EQ(s2->wait(), 0) << s2->err();
    ASSERT_TRUE(received(*r2, 1)) << r2->err();
    expect_same(one, in2 + one);
}

TEST_F(FerrantTransfer, TwoSendersInterleaveWithoutHarm) {
    std::vector<std::string> names;
    for (int i = 0; i < 4; i++) {
        make(names.emplace_back("a/f" + std::to_string(i)), pattern(20000 + i, 100 + i));
        make(names.emplace_back("b/f" + std::to_string(i)), pattern(20000 + i, 200 + i));
    }
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"bytes_per_packet", "100"}});
    auto r = receive(pf);
    auto sa = send({"-N", "alpha", "a"}, pf);
    auto sb = send({"-N", "beta", "b"}, pf);
    EXPECT_EQ(sa->wait(), 0) << sa->err();
    EXPECT_EQ(sb->wait(), 0) << sb->err();
    ASSERT_TRUE(received(*r, 8)) << r->err();
    for (auto& n : names) same(n);
    EXPECT_EQ(r->err().find("out of sequence"), std::string::npos) << r->err();
}

TEST_F(FerrantTransfer, WatchModeSendsAndDeletesWhatItSent) {
    std::string watchdir = src + "/spool";
    mkdirs(watchdir + "/sub");
    mkdirs(watchdir + "/private");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"file_reject", ".*private.*|.*\\.part"}});
    auto r = receive(pf);
    auto w = send({"-w", watchdir}, pf);
    std::map<std::string, std::string> files = {
        {"one.txt", pattern(5000, 1)}, {"sub/two.txt", pattern(10, 2)}, {"empty", ""}};
    for (auto& [name, data] : files)  // made elsewhere and moved in whole, already old enough to be taken
        ASSERT_EQ(rename(make_old(tmp / "staged", data).c_str(), (watchdir + "/" + name).c_str()), 0) << name;
    make_old(watchdir + "/private/secret", "stays\n");
    make_old(watchdir + "/held.part", "stays too\n");
    ASSERT_TRUE(received(*r, 3)) << r->err() << w->err();
    for (auto& [name, data] : files) {
        EXPECT_EQ(slurp(in + "/" + name), data) << name;
        EXPECT_EQ(mode_of(in + "/" + name), 0644u) << name;
        EXPECT_TRUE(eventually([&] { return !exists(watchdir + "/" + name); })) << name;
    }
    // Two more passes: refused paths stay and are reported once.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_TRUE(exists(watchdir + "/private/secret"));
    EXPECT_TRUE(exists(watchdir + "/held.part"));
    EXPECT_TRUE(w->running());
    std::string wlog = w->err();
    EXPECT_EQ(count(wlog, "ignoring directory './private': doesn't match file_match/file_reject criteria."), 1u)
        << wlog;
    EXPECT_EQ(count(wlog, "'./held.part' not sent"), 1u) << wlog;
    EXPECT_EQ(wlog.find("ferrant_finish"), std::string::npos);
}

TEST_F(FerrantTransfer, AChunkTooLargeFailsTheFileWithFinalSequenceMinusOne) {
    make("huge.bin", pattern(1500000, 7));
    make("small.txt", "still sent\n");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"bytes_per_packet", "2000000"}});
    auto s = send({"huge.bin", "small.txt"}, pf);
    // A file whose sending failed still counts as handled.
    EXPECT_EQ(s->wait(), 0) << s->err();
    std::string slog = s->err();
    EXPECT_NE(slog.find("bytes2send = 1500000 > 1000000 (should never happen)"), std::string::npos) << slog;
    EXPECT_NE(slog.find("failed to transmit 'huge.bin'"), std::string::npos) << slog;
    EXPECT_NE(slog.find("finished 'small.txt'"), std::string::npos) << slog;

    auto r = receive(pf);
    ASSERT_TRUE(received(*r, 1)) << r->err();
    EXPECT_NE(r->err().find("/huge.bin:  #-1 -> #-1"), std::string::npos) << r->err();
    EXPECT_FALSE(exists(in + "/huge.bin-"));
    EXPECT_FALSE(exists(in + "/huge.bin"));
    same("small.txt");
}

}  // namespace

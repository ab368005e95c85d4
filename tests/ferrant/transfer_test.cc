// ferrant2 sender and receiver end to end, through a file-backed ring.
#include <set>

#include "harness.h"
#include "ring.h"

using namespace ferrant_test;

namespace {

class FerrantTransfer : public ::testing::Test {
protected:
    TempDir tmp;
    std::string src = tmp / "src";
    std::string in = tmp / "in";
    std::string ring = tmp / "ring";

    void SetUp() override {
        mkdirs(src);
    }

    std::string make(const std::string& rel, const std::string& data, mode_t mode = 0644) {
        std::string p = src + "/" + rel;
        mkdirs(p.substr(0, p.rfind('/')));
        spit(p, data, mode);
        age(p);
        return p;
    }

    std::unique_ptr<Child> send(std::vector<std::string> args, const std::string& pf,
                                const std::string& input = "") {
        std::vector<std::string> argv = {ferrant2(), "-p", pf};
        argv.insert(argv.end(), args.begin(), args.end());
        argv.push_back(ring);
        return std::make_unique<Child>(argv, tmp.path(), src, input);
    }

    std::unique_ptr<Child> receive(const std::string& pf, std::vector<std::string> opts = {}) {
        std::vector<std::string> argv = {ferrant2(), "-p", pf};
        argv.insert(argv.end(), opts.begin(), opts.end());
        argv.push_back(ring);
        return std::make_unique<Child>(argv, tmp.path(), tmp.path());
    }

    // Waits for n completed files in the receiver's log.
    bool received(Child& r, size_t n) {
        return eventually([&] { return count(r.err(), "ferrant2: received ") >= n || !r.running(); }) &&
               count(r.err(), "ferrant2: received ") >= n;
    }

    void same(const std::string& from, const std::string& to) {
        ASSERT_TRUE(exists(to)) << to;
        EXPECT_EQ(slurp(from), slurp(to)) << to;
        EXPECT_EQ(mode_of(from), mode_of(to)) << to;
    }
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
    for (auto& [name, data] : files) same(src + "/" + name, in + "/" + name);
    EXPECT_NE(r->err().find("received ./long/a.bin (17000003 bytes, 19 packets)"), std::string::npos) << r->err();
}

TEST_F(FerrantTransfer, FilesDirectoriesAndStandardInputArriveWhole) {
    make("a.txt", "alpha\n", 0640);
    make("empty.dat", "", 0600);
    make("exact.bin", pattern(3000, 1));          // exactly three packets of 1000
    make("odd.bin", pattern(10001, 2), 0755);     // ten full packets and one byte
    make("tree/one.txt", pattern(1500, 3));
    make("tree/deeper/two.txt", pattern(999, 4), 0444);
    make("tree/name with spaces;&'.txt", "odd name\n");
    make("listed.txt", pattern(2048, 5));
    make("listed dir/inside.txt", "not walked\n");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}});

    auto s = send({"a.txt", "empty.dat", "exact.bin", "odd.bin", "tree", "-"}, pf,
                  "listed.txt\nlisted dir\nno such file\n");
    EXPECT_EQ(s->wait(), 0) << s->err();
    auto r = receive(pf);
    ASSERT_TRUE(received(*r, 8)) << r->err();

    for (auto f : {"a.txt", "empty.dat", "exact.bin", "odd.bin", "tree/one.txt", "tree/deeper/two.txt",
                   "tree/name with spaces;&'.txt", "listed.txt"}) {
        same(src + "/" + f, in + "/" + f);
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
    make("exact.bin", pattern(2000, 9), 0640);
    make("empty", "");
    make("a_very_long_base_name_that_will_not_fit.txt", "x");
    std::string pf = write_pf(tmp / "t.pf");
    auto s = send({"-N", "testnet", "exact.bin", "empty", "a_very_long_base_name_that_will_not_fit.txt"}, pf);
    ASSERT_EQ(s->wait(), 0) << s->err();

    std::vector<Seen> seen = read_ring(ring);
    auto start = std::find_if(seen.begin(), seen.end(), [](const Seen& p) {
        return p.srcname == "testnet/ch/ferrant_start";
    });
    ASSERT_NE(start, seen.end());
    std::vector<Seen> run(start, seen.end());
    ASSERT_EQ(run.size(), 1u + 4 + 2 + 3 + 1) << "markers, 3 runs";
    EXPECT_EQ(run.back().srcname, "testnet/ch/ferrant_finish");
    EXPECT_TRUE(run.front().body.empty());

    Packet* pkt = nullptr;
    std::vector<int> seqs;
    std::set<std::string> names;
    for (size_t i = 1; i + 1 < run.size(); i++) {
        ASSERT_EQ(unstuffPkt(run[i].srcname.c_str(), 0, run[i].body.data(), int(run[i].body.size()), &pkt),
                  PKT_XFER_TYPE);
        seqs.push_back(pkt->string_size);
        names.insert(run[i].srcname);
        EXPECT_STREQ(pkt->parts.src_net, "testnet");
        if (i <= 4) {
            EXPECT_EQ(pkt->nchannels & 07777, 0640);
        }
        EXPECT_EQ(pkt->nchannels & S_IFMT, S_IFREG);
    }
    freePkt(pkt);
    EXPECT_EQ(seqs, (std::vector<int>{0, 1, 2, 3, 0, 1, 0, 1, 2}));
    ASSERT_EQ(names.size(), 3u);
    // Tags: "id/" and as much of the base name as keeps 31 characters;
    // ids rise strictly within the run.
    std::vector<int> ids;
    for (auto& n : names) {
        std::string tag = n.substr(std::string("testnet/xfer/").size());
        EXPECT_LE(tag.size(), 31u) << tag;
        ids.push_back(std::stoi(tag));
        std::string base = tag.substr(tag.find('/') + 1);
        EXPECT_TRUE(std::string("a_very_long_base_name_that_will_not_fit.txt").rfind(base, 0) == 0 ||
                    base == "exact.bin" || base == "empty")
            << tag;
        if (base.rfind("a_very", 0) == 0) {
            EXPECT_EQ(tag.size(), 31u);
        }
    }
    std::set<int> distinct(ids.begin(), ids.end());
    EXPECT_EQ(distinct.size(), 3u);
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
    same(src + "/b.dat", in + "/b.dat");
    same(src + "/keep/c.dat", in + "/keep/c.dat");
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
    same(two, in + "/same.txt");
    EXPECT_FALSE(exists(in + "/one"));

    // An absolute name loses its leading "/" and lands below the receive directory.
    std::string in2 = tmp / "in2";
    std::string pf_deep = write_pf(tmp / "deep.pf", {{"directory", in2}, {"starting_position", "newest"}});
    auto r2 = receive(pf_deep);
    ASSERT_TRUE(eventually([&] { return r2->err().find("Starting at pktid=") != std::string::npos; }))
        << r2->err();
    auto s2 = send({one}, pf_deep);
    ASSERT_EQ(s2->wait(), 0) << s2->err();
    ASSERT_TRUE(received(*r2, 1)) << r2->err();
    same(one, in2 + one);
}

TEST_F(FerrantTransfer, TwoSendersInterleaveWithoutHarm) {
    std::vector<std::string> a, b;
    for (int i = 0; i < 4; i++) {
        a.push_back(make("a/f" + std::to_string(i), pattern(20000 + i, 100 + i)));
        b.push_back(make("b/f" + std::to_string(i), pattern(20000 + i, 200 + i)));
    }
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"bytes_per_packet", "100"}});
    auto r = receive(pf);
    auto sa = send({"-N", "alpha", "a"}, pf);
    auto sb = send({"-N", "beta", "b"}, pf);
    EXPECT_EQ(sa->wait(), 0) << sa->err();
    EXPECT_EQ(sb->wait(), 0) << sb->err();
    ASSERT_TRUE(received(*r, 8)) << r->err();
    for (auto& f : a) same(f, in + "/a" + f.substr(f.rfind('/')));
    for (auto& f : b) same(f, in + "/b" + f.substr(f.rfind('/')));
    EXPECT_EQ(r->err().find("out of sequence"), std::string::npos) << r->err();
}

TEST_F(FerrantTransfer, AFileStillBeingWrittenIsSentOnlyOnceQuiet) {
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}});
    std::string path = src + "/growing.log";
    spit(path, "line 0\n");
    auto s = send({"growing.log"}, pf);
    std::string all = "line 0\n";
    for (int i = 1; i <= 6; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::string more = "line " + std::to_string(i) + "\n";
        all += more;
        std::ofstream(path, std::ios::app) << more;
    }
    ASSERT_EQ(s->wait(), 0) << s->err();
    auto r = receive(pf);
    ASSERT_TRUE(received(*r, 1)) << r->err();
    EXPECT_EQ(slurp(in + "/growing.log"), all);
}

TEST_F(FerrantTransfer, WatchModeSendsAndDeletesWhatItSent) {
    std::string watchdir = src + "/spool";
    mkdirs(watchdir + "/sub");
    mkdirs(watchdir + "/private");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"file_reject", ".*private.*|.*\\.part"}});
    auto r = receive(pf);
    auto w = std::make_unique<Child>(std::vector<std::string>{ferrant2(), "-p", pf, "-w", watchdir, ring},
                                     tmp.path(), src);
    std::map<std::string, std::string> files = {
        {"one.txt", pattern(5000, 1)}, {"sub/two.txt", pattern(10, 2)}, {"empty", ""}};
    // Made elsewhere and moved in whole, already old enough to be taken.
    for (auto& [name, data] : files) {
        std::string staged = tmp / "staged";
        spit(staged, data);
        age(staged);
        ASSERT_EQ(rename(staged.c_str(), (watchdir + "/" + name).c_str()), 0) << name;
    }
    spit(watchdir + "/private/secret", "stays\n");
    age(watchdir + "/private/secret");
    spit(watchdir + "/held.part", "stays too\n");
    age(watchdir + "/held.part");
    ASSERT_TRUE(received(*r, 3)) << r->err() << w->err();
    for (auto& [name, data] : files) {
        EXPECT_EQ(slurp(in + "/" + name), data) << name;
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
    std::string log = r->err();
    EXPECT_NE(log.find("/huge.bin:  #-1 -> #-1"), std::string::npos) << log;
    EXPECT_FALSE(exists(in + "/huge.bin-"));
    EXPECT_FALSE(exists(in + "/huge.bin"));
    same(src + "/small.txt", in + "/small.txt");
}

TEST_F(FerrantTransfer, WatchDirectoryThatCannotBeEnteredIsFatal) {
    std::string pf = write_pf(tmp / "t.pf");
    auto w = std::make_unique<Child>(
        std::vector<std::string>{ferrant2(), "-p", pf, "-w", tmp / "missing", ring}, tmp.path());
    EXPECT_EQ(w->wait(), 1);
    EXPECT_NE(w->err().find("Can't cd to '" + tmp / "missing" + "'"), std::string::npos) << w->err();
}

}  // namespace

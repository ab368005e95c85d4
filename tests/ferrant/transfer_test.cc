// ferrant2 sender and receiver end to end, through a file-backed ring (an
// orbserver restart is in orbserver_test).
#include <memory>
#include <set>

#include "harness.h"
#include "orb/orb_support.h"
#include "pkt/pkt.h"

using namespace ferrant_test;
using orbtest::Got;

namespace {

// Senders one after the other into one ring, each with settings of its own (the first one's runs
// are checked as they lie in the ring), then one receiver for everything. Full-size packets go
// through the sender's packing ahead and the receiver's background writes; files of many megabytes
// also through its drop-behind of written pages, which holds descriptors of files already renamed
// into place. A file still being written is sent only once it has been quiet for a while, and then
// whole. Then the receiver is killed and resumes from its state file, now not keeping directories
// (the later of two same base names wins), while a watching sender and two others send at once.
TEST(FerrantTransfer, FilesOfEveryKindArriveWholeAndAReceiverResumes) {
    TempDir tmp;
    std::string src = tmp / "src", in = tmp / "in", ring = tmp / "ring@s160M";
    auto make = [&](const std::string& rel, const std::string& data, mode_t mode = 0644) {
        return make_old(src + "/" + rel, data, mode);
    };
    auto pf = [&](const std::string& name, std::map<std::string, std::string> keys = {}) {
        keys.emplace("directory", in);
        return write_pf(tmp / name, keys);
    };
    // ferrant2 -p pf args ring, sending from src or receiving from tmp.
    auto send = [&](std::vector<std::string> args, const std::string& pf, const std::string& input = "",
                    const std::string& cwd = "") {
        args.insert(args.begin(), {ferrant2(), "-p", pf});
        args.push_back(ring);
        return std::make_unique<Child>(args, tmp.path, cwd.empty() ? src : cwd, input);
    };
    auto same = [&](const std::string& rel) { expect_same(src + "/" + rel, in + "/" + rel); };
    std::string longname = "a_very_long_base_name_that_will_not_fit.txt";
    make("runs/exact.bin", pattern(2000, 9), 0640);
    make("runs/nothing", "");
    make("runs/" + longname, "x");
    make("one/same.txt", "first\n");
    make("two/same.txt", "second\n", 0600);
    auto s = send({"-N", "testnet", "runs/exact.bin", "runs/nothing", "runs/" + longname, "one/same.txt",
                   "two/same.txt"}, pf("t.pf"));
    ASSERT_EQ(s->wait(), 0) << s->err();
    // Everything in the ring, until nothing more arrives for a second.
    int orb = orbopen(ring.c_str(), "r");
    orbposition(orb, "oldest");
    std::vector<Got> seen;
    for (orbtest::Reader rd{orb}; seen.emplace_back(rd.reap_timeout(1.0)).rc == 0;) continue;
    seen.pop_back();
    orbclose(orb);
    ASSERT_EQ(seen.size(), 1u + 4 + 2 + 3 + 3 + 3 + 1) << "markers, 5 runs";
    EXPECT_EQ(seen.front().src + "|" + seen.front().body, "testnet/ch/ferrant_start|");
    EXPECT_EQ(seen.back().src, "testnet/ch/ferrant_finish");
    struct Run { std::string base; int packets, mode; } runs[] = {
        {"exact.bin", 4, 0640}, {"nothing", 2, 0644}, {longname, 3, 0644}, {"same.txt", 3, 0644},
        {"same.txt", 3, 0600}};
    Packet* pkt = nullptr;
    size_t at = 1;
    std::set<int> ids;
    for (auto& run : runs) {
        std::string tag;
        for (int seq = 0; seq < run.packets; seq++, at++) {
            SCOPED_TRACE(run.base + " #" + std::to_string(seq));
            const Got& g = seen[at];
            ASSERT_EQ(unstuffPkt(g.src.c_str(), 0, g.body.data(), int(g.body.size()), &pkt), PKT_XFER_TYPE);
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
    EXPECT_EQ(ids.size(), 5u);
    struct File { std::string name, data; mode_t mode = 0644; };
    std::vector<File> files = {
        {"a.txt", "alpha\n", 0640}, {"empty.dat", "", 0600},
        {"exact.bin", pattern(3000, 1)},       // exactly three packets of 1000
        {"odd.bin", pattern(10001, 2), 0755},  // ten full packets and one byte
        {"tree/one.txt", pattern(1500, 3)}, {"tree/deeper/two.txt", pattern(999, 4), 0444},
        {"tree/name with spaces;&'.txt", "odd name\n"}, {"listed.txt", pattern(2048, 5)},
        {"large/exact.bin", pattern(3000000, 1)},   {"large/tail.bin", pattern(2500001, 2)},
        {"large/long/a.bin", pattern(17000003, 3)}, {"large/long/b.bin", pattern(16000000, 4)},
        {"large/long/c.bin", pattern(9000000, 5)},  {"large/small.txt", "small\n", 0600},
        {"large/empty.bin", ""}};
    for (auto& f : files) make(f.name, f.data, f.mode);
    make("listed dir/inside.txt", "not walked\n");
    std::string absolute = make("abs/x.txt", "absolute\n");
    std::string growing = src + "/growing.log";
    spit(growing, "line 0\n");
    files.push_back({"growing.log", ""});
    s = send({"growing.log", "a.txt", "empty.dat", "exact.bin", "odd.bin", "tree", absolute, "-"}, pf("t.pf"),
             "listed.txt\nlisted dir\nno such file\n");
    for (int i = 1; i <= 6; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::ofstream(growing, std::ios::app) << "line " << i << "\n";
    }
    EXPECT_EQ(s->wait(), 0) << s->err();
    // File patterns: a refused name given is told once and sets the exit status;
    // files found by walking a directory do not count in it.
    for (auto f : {"refused.txt", "b.dat", "keep/c.dat", "keep/skip.dat"}) make(f, std::string(f) + "\n");
    std::string patterns = pf("p.pf", {{"file_match", ".*\\.dat"}, {"file_reject", ".*skip.*"}});
    s = send({"refused.txt", "refused.txt", "b.dat", "keep"}, patterns);
    EXPECT_EQ(s->wait(), 1) << s->err();
    EXPECT_EQ(count(s->err(), "'refused.txt' not sent; doesn't match file_match/file_reject criteria."), 1u)
        << s->err();
    EXPECT_EQ(count(s->err(), "'keep/skip.dat' not sent"), 1u) << s->err();
    s = send({"keep"}, patterns);
    EXPECT_EQ(s->wait(), 0) << s->err();
    s = send({"large"}, pf("l.pf", {{"bytes_per_packet", "1000000"}}));
    EXPECT_EQ(s->wait(120), 0) << s->err();
    // A chunk too large fails its file, which still counts as handled.
    make("huge.bin", pattern(1500000, 7));
    make("after.txt", "still sent\n");
    s = send({"huge.bin", "after.txt"}, pf("h.pf", {{"bytes_per_packet", "2000000"}}));
    EXPECT_EQ(s->wait(), 0) << s->err();
    for (auto said : {"bytes2send = 1500000 > 1000000 (should never happen)", "failed to transmit 'huge.bin'",
                      "finished 'after.txt'"})
        EXPECT_SAID(s->err(), said);
    // Relative -S: taken from the start directory, not the receive directory.
    auto r = send({"-S", "state"}, pf("t.pf"), "", tmp.path);
    ASSERT_TRUE(eventually([&] { return received(*r) == 5 + files.size() + 1 + 3 + 1; })) << r->err();
    for (auto& f : files) same(f.name);
    for (auto& f : {"b.dat", "keep/c.dat", "after.txt", "runs/exact.bin", "runs/nothing", "two/same.txt"})
        same(f);
    // An absolute name loses its leading "/" and lands below the receive directory.
    expect_same(absolute, in + absolute);
    // Directories on standard input are not walked.
    for (auto& f : {"listed dir", "refused.txt", "keep/skip.dat", "huge.bin", "huge.bin-"})
        EXPECT_FALSE(exists(in + "/" + f)) << f;
    for (auto said : {"received exact.bin (3000 bytes, 4 packets)", "received empty.dat (0 bytes, 1 packets)",
                      "received odd.bin (10001 bytes, 12 packets)", "/huge.bin:  #-1 -> #-1",
                      "receiving 'tree/deeper/two.txt'", "failed to read old state file",
                      "resurrection unsuccessful\nferrant2: Starting at pktid=0\n"})
        EXPECT_SAID(r->err(), said);
    // Killed and started again with its state file, the receiver resumes after the last completed file. What
    // it received is gone from the receive side: a receiver that read it again would bring it back.
    r->stop(SIGKILL);
    ASSERT_TRUE(exists(tmp / "state"));
    EXPECT_FALSE(exists(in + "/state"));
    std::filesystem::remove_all(in);
    for (unsigned i : {0, 1}) make("second" + std::to_string(i), pattern(2500, 10 + i));
    ASSERT_EQ(send({"second0", "one/same.txt", "second1", "two/same.txt"}, pf("t.pf"))->wait(), 0);
    r = send({"-S", "state"}, pf("f.pf", {{"preserve_directories", "no"}}), "", tmp.path);
    ASSERT_TRUE(received(*r, 4)) << r->err();
    for (auto said : {"read old state file", "resurrection successful: repositioned to pktid #"})
        EXPECT_SAID(r->err(), said);
    EXPECT_EQ(r->err().find("Starting at pktid="), std::string::npos) << r->err();
    for (auto f : {"second0", "second1"}) same(f);
    expect_same(src + "/two/same.txt", in + "/same.txt");
    std::vector<std::string> names;
    for (int i = 0; i < 4; i++) {
        make(names.emplace_back("a/f" + std::to_string(i)), pattern(20000 + i, 100 + i));
        make(names.emplace_back("b/g" + std::to_string(i)), pattern(20000 + i, 200 + i));
    }
    std::string watchdir = src + "/spool";
    for (auto d : {"/sub", "/private"}) std::filesystem::create_directories(watchdir + d);
    std::string p = pf("w.pf", {{"file_reject", ".*private.*|.*\\.part"}, {"bytes_per_packet", "100"}});
    auto w = send({"-w", watchdir}, p);
    auto sa = send({"-N", "alpha", "a"}, p);
    auto sb = send({"-N", "beta", "b"}, p);
    std::map<std::string, std::string> watched = {
        {"one.txt", pattern(5000, 1)}, {"sub/two.txt", pattern(10, 2)}, {"empty", ""}};
    for (auto& [name, data] : watched)  // made elsewhere and moved in whole, already old enough to be taken
        ASSERT_EQ(rename(make_old(tmp / "staged", data).c_str(), (watchdir + "/" + name).c_str()), 0) << name;
    make_old(watchdir + "/private/secret", "stays\n");
    make_old(watchdir + "/held.part", "stays too\n");
    EXPECT_EQ(sa->wait(), 0) << sa->err();
    EXPECT_EQ(sb->wait(), 0) << sb->err();
    ASSERT_TRUE(received(*r, 4 + watched.size() + names.size())) << r->err() << w->err();
    for (auto& n : names) expect_same(src + "/" + n, in + "/" + n.substr(2));
    EXPECT_EQ(r->err().find("out of sequence"), std::string::npos) << r->err();
    for (auto& [name, data] : watched) {
        std::string base = name.substr(name.find('/') + 1);
        EXPECT_EQ(slurp(in + "/" + base), data) << name;
        EXPECT_EQ(mode_of(in + "/" + base), 0644u) << name;
        EXPECT_TRUE(eventually([&] { return !exists(watchdir + "/" + name); })) << name;
    }
    // Two more passes: refused paths stay and are reported once; nothing
    // received before the restart came again.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_TRUE(exists(watchdir + "/private/secret") && exists(watchdir + "/held.part"));
    EXPECT_TRUE(w->running());
    std::string wlog = w->err();
    EXPECT_EQ(count(wlog, "ignoring directory './private': doesn't match file_match/file_reject criteria."),
              1u) << wlog;
    EXPECT_EQ(count(wlog, "'./held.part' not sent"), 1u) << wlog;
    EXPECT_EQ(wlog.find("ferrant_finish"), std::string::npos);
    EXPECT_EQ(received(*r), 4 + watched.size() + names.size()) << r->err();
    EXPECT_FALSE(exists(in + "/one") || exists(in + "/a") || exists(in + "/after.txt"));
}

}  // namespace

// The receiver against forged packet runs: every failure is reported, the interim file is removed
// or kept as it should be, and the next file still arrives.
#include "harness.h"
#include "orb/orb.h"
#include "stock/rvm.h"

using namespace ferrant_test;
using namespace std::string_literals;

namespace {

std::string md5hex(const std::string& data) {
    Rvm r;
    inirvm(&r), addrvm(&r, data.data(), data.size()), endrvm(&r);
    char text[33];
    ascrvm(&r, text);
    return text;
}

// Running keys of data split into chunks of n bytes.
std::vector<std::string> keys(const std::string& data, size_t n) {
    std::vector<std::string> out;
    Rvm r;
    inirvm(&r);
    for (size_t off = 0; off < data.size(); off += n) {
        addrvm(&r, data.data() + off, std::min(n, data.size() - off));
        Rvm copy = r;
        endrvm(&copy);
        out.emplace_back(reinterpret_cast<char*>(copy.digest), 16);
    }
    return out;
}

std::string chunk(const std::string& data, int k, size_t n) { return data.substr((k - 1) * n, n); }

// A receiver on a ring of its own, writing below tmp/top/in under a limit on the size of the files
// it writes, and a forger of packets for that ring, which it makes before the receiver opens it.
struct Forged {
    explicit Forged(long limit)
        : orb_(orbopen(ring.c_str(), "w")),
          r({"/bin/sh", "-c", "trap '' XFSZ; exec prlimit --fsize=" + std::to_string(limit) + " \"$@\"", "sh",
             ferrant2(), "-p", write_pf(tmp / "r.pf", {{"directory", in}}), ring}, tmp.path, tmp.path) {}
    ~Forged() { if (orb_ >= 0) orbclose(orb_); }
    bool received(const std::string& name) {
        return eventually([&] { return r.err().find("received " + name) != std::string::npos; });
    }

    // One xfer packet; the key must hold 16 bytes. Returns the pktid.
    int put(const std::string& tag, int seq, const std::string& key, const std::string* data) {
        Stuffed s = pack("forge", tag.c_str(), seq, mode, key.data(), data ? *data : "");
        return orbputx(orb_, s.srcname, 1000.0 + seq, s.body.data(), int(s.body.size()));
    }
    int raw(const std::string& srcname, const std::string& body) {
        return orbputx(orb_, srcname.c_str(), 1000.0, body.data(), int(body.size()));
    }
    // The initial packet names the file; the final one carries no data.
    int initial(const std::string& tag, const std::string& name, const std::string& hex) {
        std::string named = name + '\0';
        return put(tag, 0, hex, &named);
    }
    int final(const std::string& tag, int seq, const std::string& hex) { return put(tag, seq, hex, nullptr); }
    // A whole run of data in chunks of n bytes, but chunk number bad carries the first one's key;
    // between(i) may put other packets after chunk i.
    void run(const std::string& tag, const std::string& name, const std::string& data, size_t n,
             int bad = 0, const std::function<void(int)>& between = {}) {
        auto k = keys(data, n);
        initial(tag, name, md5hex(data));
        for (int i = 1; i <= int(k.size()); i++) {
            std::string c = chunk(data, i, n);
            put(tag, i, k[i == bad ? 0 : i - 1], &c);
            if (between) between(i);
        }
        final(tag, int(k.size()) + 1, md5hex(data));
    }

    TempDir tmp;
    std::string ring = tmp / "ring@s64M", in = tmp / "top/in";
    int mode = S_IFREG | 0640;  // st_mode sent with the next runs
    int orb_ = -1;
    Child r;
};

// Whoever writes to the ring names the files: nothing may land outside the receive directory, go through a
// link waiting there, or keep privilege bits. Then packets large enough to be written in the background while
// the next one is digested: a bad key and a failed write still give up just their file. A direct write cut by
// the file-size limit inside a block is refused whole (EINVAL); the error told must still be the limit's.
TEST(FerrantReceiver, BrokenAndHostileRunsAreReportedAndTheNextFileArrives) {
    Forged f(500000);
    ASSERT_GE(f.orb_, 0);
    auto [r, in, tmp] = std::tie(f.r, f.in, f.tmp);  // references
    std::filesystem::create_directories(in + "/taken-");  // the interim name is taken by a directory
    std::filesystem::create_directories(in + "/isdir/x");  // and the final name by one that is not empty
    spit(in + "/blocker", "a plain file where a directory is wanted\n");
    spit(tmp / "victim", "precious\n");
    symlink((tmp / "victim").c_str(), (in + "/interim.txt-").c_str());
    symlink((tmp / "victim").c_str(), (in + "/final.txt").c_str());
    const size_t B = 100;
    std::string data = pattern(350, 42), hex = md5hex(data), one = data.substr(0, B);  // chunks 1..4
    auto k = keys(data, B);
    auto part = [&](const std::string& tag, int seq) {  // chunk seq of data, with its running key
        std::string c = chunk(data, seq, B);
        return f.put(tag, seq, k[seq - 1], &c);
    };
    // A run under tag: the initial packet naming name, the chunks seqs (0: the
    // initial packet again), the final packet numbered last; their pktids.
    auto forge = [&](const std::string& tag, const std::string& name, std::vector<int> seqs, int last,
                     std::string first = "", std::string end = "") {
        if (first.empty()) first = end = hex;
        std::vector<int> ids = {f.initial(tag, name, first)};
        for (int seq : seqs) ids.push_back(seq ? part(tag, seq) : f.initial(tag, name, first));
        ids.push_back(f.final(tag, last, end));
        return ids;
    };
    int lost3 = forge("1/lost.txt", "lost.txt", {1, 3, 4}, 5)[2];  // never ends, its interim file stays
    int repeat = forge("2/repeat.txt", "repeat.txt", {1, 1, 2}, 3)[2];  // dropped, its interim file removed
    int failed = forge("3/failed.txt", "failed.txt", {1}, -1)[2];  // a sender that failed ends with -1
    f.run("4/badkey.txt", "badkey.txt", data, B, 2);  // a data packet whose running key disagrees
    // Every data packet right, but the final digest is not the initial one.
    forge("5/changed.txt", "changed.txt", {1}, 2, md5hex(one), md5hex("something else"));
    // Names the receiver refuses: control bytes, non-ASCII bytes, nothing; then
    // directories and files that cannot be made.
    forge("6/ctl", "bad\001name", {1}, 2);
    for (auto [tag, name] : std::map<std::string, std::string>{
             {"7/hi", "caf\xc3\xa9"}, {"8/empty", ""}, {"9/blocked", "blocker/sub/x"}, {"10/taken", "taken"}})
        forge(tag, name, {}, 1);
    // A body that does not unpack, a packet of no known run, a second initial packet.
    int junk = f.raw("forge/xfer/11/junk", "junk");
    int orphan = part("12/orphan", 1);
    int dup = forge("13/dup.txt", "dup.txt", {0, 1}, 2, md5hex(one), md5hex(one))[1];
    // Other packet types are passed over.
    f.raw("forge/ch/ferrant_start", "");
    f.raw("forge/waveform/x", "whatever");
    // Names that would leave the receive directory or follow the links.
    const char* refused[] = {"../escape", "a/../../escape", "..", "sub/..", "//top/escape", "/",
                             "/../escape"};
    int tag = 0;
    auto send = [&](const std::string& name) { f.run("c" + std::to_string(++tag) + "/x", name, data, B); };
    for (const char* name : refused) send(name);
    send("interim.txt");
    send("final.txt");
    f.mode = S_IFREG | 07755;
    send("/abs/setid");
    f.mode = S_IFREG | 0640;
    f.run("15/isdir", "isdir", data, B);
    f.run("2/repeat.txt", "again.txt", data, B);  // the tag of a run dropped and ended is free again
    f.run("14/good.txt", "good.txt", data, B);
    const size_t L = 300000;
    std::string small = pattern(L + 100000, 8), mixed = pattern(L + 100005, 10);
    f.run("21/badkey.bin", "badkey.bin", pattern(3 * L, 9), L, 2);
    f.run("22/toolong.bin", "toolong.bin", pattern(4 * L, 7), L);
    // Packets of other types between the data packets: the write of each
    // data packet must be over before the buffer it reads from is reused.
    f.run("23/mixed.bin", "mixed.bin", mixed, L, 0, [&](int i) {
        for (int j = 0; j < 7; j++) f.raw("forge/ch/ferrant_start", pattern(L, unsigned(i * 10 + j)));
    });
    // A write that fails while the packets behind it are digested is told, not a bad key found after it.
    f.run("25/both.bin", "both.bin", pattern(5 * L, 11), L, 4);
    f.run("24/fits.bin", "fits.bin", small, L);
    ASSERT_TRUE(f.received("fits.bin")) << r.err();
    std::string log = r.err();
    auto id = [](int pktid) { return std::to_string(pktid); };
    for (const std::string& said : {
             "received old sequence #3 in pktid #" + id(lost3) +
                 " forge/xfer/1/lost.txt, expected sequence #1",
             "received old sequence #5 in pktid"s,
             "out of sequence at pktid #" + id(repeat) + " for forge/xfer/2/repeat.txt:  #0 -> #1",
             "out of sequence at pktid #" + id(failed) + " for forge/xfer/3/failed.txt:  #0 -> #-1",
             "digest mismatch at sequence #2 for file badkey.txt"s, "locally computed:\n"s, "packet key:\n"s,
             "digest mismatch at last packet for file changed.txt-\n      file changed during transmission"s,
             "received packet with invalid filename 'bad\001name'"s,
             "received packet with invalid filename 'caf\xc3\xa9'"s,
             "received packet with invalid filename ''"s, "Can't open bad\001name to write"s,
             "Can't create directory 'blocker/sub'\n\t##=> Not a directory"s,
             "Can't open taken- to write\n\t##=> Is a directory"s,
             "failed to unstuff xfer packet #" + id(junk) + " forge/xfer/11/junk",
             "pktid #" + id(orphan) + " is sequence #1 of forge/xfer/12/orphan, but no previous packets seen",
             "received duplicate sequence 0 pktid #" + id(dup) + " packet 'forge/xfer/13/dup.txt'",
             "failed to rename completed file isdir-"s,
             "received again.txt (350 bytes, 5 packets)"s, "received good.txt (350 bytes, 5 packets)"s,
             "digest mismatch at sequence #2 for file badkey.bin-"s,
             "failed writing sequence #2 of toolong.bin-\n\t##=> File too large"s,
             "failed writing sequence #2 of both.bin-\n\t##=> File too large"s})
        EXPECT_SAID(log, said);
    for (const char* name : refused)
        EXPECT_SAID(log, "received packet with invalid filename '"s + name + "'");
    for (std::string name : {"bad\001name", "caf\xc3\xa9", ""})  // refused names are no system error
        EXPECT_EQ(log.find("invalid filename '" + name + "'\n\t##=>"), std::string::npos) << name;
    // Only the first write of a file to fail is told, though later ones were queued behind it.
    EXPECT_EQ(count(log, "failed writing sequence #"), 2u) << log;
    EXPECT_EQ(log.find("digest mismatch at sequence #4 for file both.bin-"), std::string::npos) << log;
    // The interim file of a run that never ends stays open; the others go.
    EXPECT_TRUE(exists(in + "/lost.txt-"));
    for (auto name : {"lost.txt", "repeat.txt-", "repeat.txt", "failed.txt-", "badkey.txt-", "changed.txt-",
                      "changed.txt", "interim.txt-", "both.bin-", "badkey.bin-", "badkey.bin", "toolong.bin-",
                      "toolong.bin"})
        EXPECT_FALSE(exists(in + "/" + name)) << name;
    EXPECT_EQ(slurp(tmp / "victim"), "precious\n");
    for (const char* name : {"escape", "escape-", "top/escape", "top/escape-", "in/escape"})
        EXPECT_FALSE(exists(tmp / name)) << name;
    for (const char* name : {"interim.txt", "final.txt", "abs/setid", "good.txt"}) {
        EXPECT_FALSE(std::filesystem::is_symlink(in + "/" + name)) << name;
        EXPECT_EQ(slurp(in + "/" + name), data) << name;
    }
    EXPECT_EQ(mode_of(in + "/abs/setid"), 0755u);
    EXPECT_EQ(mode_of(in + "/good.txt"), 0640u);
    EXPECT_EQ(slurp(in + "/dup.txt"), one);
    EXPECT_TRUE(slurp(in + "/fits.bin") == small);
    EXPECT_TRUE(slurp(in + "/mixed.bin") == mixed);
    EXPECT_TRUE(r.running());
}

// Bytes still in the stream's buffer at the end are lost when the last flush
// fails; that file must not be renamed into place as if whole.
TEST(FerrantReceiver, FailedLastFlushKeepsTheFileOut) {
    Forged f(1000);  // the receiver's log must stay below it too
    std::string ok = pattern(500, 2);
    f.run("1/over.bin", "over.bin", pattern(2000, 1), 2000);
    f.run("2/ok.bin", "ok.bin", ok, 500);
    ASSERT_TRUE(f.received("ok.bin")) << f.r.err();
    EXPECT_SAID(f.r.err(), "failed to close file over.bin-");
    EXPECT_FALSE(exists(f.in + "/over.bin") || exists(f.in + "/over.bin-"));
    EXPECT_EQ(slurp(f.in + "/ok.bin"), ok);
}

}  // namespace

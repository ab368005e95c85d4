// MD5: the RFC 1321 suite, and running digests taken by finishing copies,
// checked against the system's md5sum over real files.
#include "stock/rvm.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "support/tempdir.h"

namespace {

std::string hex(const Rvm& r) {
    char text[33];
    ascrvm(&r, text);
    return text;
}

std::string md5(const void* data, size_t n) {
    Rvm r;
    inirvm(&r);
    addrvm(&r, data, n);
    endrvm(&r);
    return hex(r);
}

std::string md5(const std::string& s) { return md5(s.data(), s.size()); }

// The running digest of ctx, leaving ctx as it was.
std::string running(const Rvm& ctx) {
    Rvm copy = ctx;
    endrvm(&copy);
    return hex(copy);
}

std::vector<unsigned char> bytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<unsigned char> v(n);
    for (auto& b : v) b = static_cast<unsigned char>(gen());
    return v;
}

// md5sum's digest of each file, in order.
std::vector<std::string> md5sum(const std::vector<std::string>& files) {
    std::string cmd = "md5sum";
    for (const auto& f : files) cmd += " '" + f + "'";
    std::vector<std::string> out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char line[4096];
    while (fgets(line, sizeof line, p)) out.emplace_back(line, 32);
    pclose(p);
    return out;
}

}  // namespace

TEST(Rvm, Rfc1321Suite) {
    EXPECT_EQ(md5(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(md5("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(md5("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(md5("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(md5("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Rvm, SplitsAndAlignmentDoNotMatter) {
    auto data = bytes(4096 + 200, 7);
    std::mt19937 gen(11);
    for (size_t n : {0u, 1u, 55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 127u, 128u, 129u, 4096u}) {
        for (size_t offset = 0; offset < 8; offset++) {
            const unsigned char* p = data.data() + offset;
            std::string whole = md5(p, n);
            Rvm r;
            inirvm(&r);
            for (size_t done = 0; done < n;) {
                size_t k = std::min<size_t>(n - done, gen() % 150);
                addrvm(&r, p + done, k);
                done += k;
            }
            endrvm(&r);
            EXPECT_EQ(hex(r), whole) << n << " bytes at offset " << offset;
        }
    }
}

TEST(Rvm, RunningDigestsMatchMd5sumOfPrefixes) {
    TempDir d;
    // Sizes around the block and padding edges, then a few megabytes in
    // uneven chunks whose every prefix is checked.
    auto data = bytes(3 * 1024 * 1024 + 77, 3);
    std::vector<size_t> cuts = {0, 1, 63, 64, 65, 1000, 65536 + 7};
    while (cuts.back() < data.size()) cuts.push_back(std::min(data.size(), cuts.back() + 1024 * 1024 - 13));

    std::vector<std::string> files, ours;
    Rvm ctx;
    inirvm(&ctx);
    size_t fed = 0;
    for (size_t cut : cuts) {
        addrvm(&ctx, data.data() + fed, cut - fed);
        fed = cut;
        ours.push_back(running(ctx));
        ours.push_back(running(ctx));  // finishing a copy twice changes nothing
        files.push_back(d.file("prefix" + std::to_string(cut), std::string(data.begin(), data.begin() + cut)));
        files.push_back(files.back());
    }
    endrvm(&ctx);
    EXPECT_EQ(hex(ctx), ours.back());

    auto theirs = md5sum(files);
    ASSERT_EQ(theirs.size(), files.size());
    for (size_t i = 0; i < files.size(); i++) EXPECT_EQ(ours[i], theirs[i]) << files[i];
}

// MD5: the RFC 1321 suite, and running digests taken by finishing copies,
// checked against the system's md5sum over real files.
#include "stock/rvm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/tempdir.h"

namespace {

std::string hex(Rvm r, bool finish = true) {
    char text[33];
    if (finish) endrvm(&r);
    ascrvm(&r, text);
    return text;
}

}  // namespace

TEST(Rvm, Rfc1321Suite) {
    const char* const suite[][2] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& s : suite) {
        Rvm r;
        inirvm(&r);
        addrvm(&r, s[0], strlen(s[0]));
        EXPECT_EQ(hex(r), s[1]) << s[0];
    }
}

// Prefixes at the block and padding edges, then a few megabytes, fed from an
// odd address in uneven chunks; the digest of each prefix is taken twice from
// the running state (finishing a copy changes nothing) and compared with
// md5sum's over a file of that prefix.
TEST(Rvm, RunningDigestsOverUnevenChunksMatchMd5sumOfPrefixes) {
    TempDir d;
    std::mt19937 gen(3);
    std::vector<unsigned char> bytes(3 * 1024 * 1024 + 80);
    for (auto& b : bytes) b = static_cast<unsigned char>(gen());
    const unsigned char* data = bytes.data() + 3;
    size_t size = bytes.size() - 3;
    std::vector<size_t> cuts = {0, 1, 55, 56, 57, 63, 64, 65, 119, 120, 127, 128, 129, 1000, 4096, 65536 + 7};
    while (cuts.back() < size) cuts.push_back(std::min(size, cuts.back() + 1024 * 1024 - 13));
    std::string cmd = "md5sum";
    std::vector<std::string> ours;
    Rvm ctx;
    inirvm(&ctx);
    size_t fed = 0;
    for (size_t cut : cuts) {
        while (fed < cut) {
            size_t k = std::min<size_t>(cut - fed, gen() % 4 ? gen() % 150 : gen() % 70000);
            addrvm(&ctx, data + fed, k);
            fed += k;
        }
        ours.push_back(hex(ctx));
        ours.push_back(hex(ctx));
        std::string file = d.file("prefix" + std::to_string(cut), std::string(data, data + cut));
        cmd += " '" + file + "' '" + file + "'";
    }
    endrvm(&ctx);
    EXPECT_EQ(hex(ctx, false), ours.back());
    std::vector<std::string> theirs;
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[4096];
    while (fgets(line, sizeof line, p)) theirs.emplace_back(line, 32);
    pclose(p);
    ASSERT_EQ(theirs.size(), ours.size());
    for (size_t i = 0; i < ours.size(); i++) EXPECT_EQ(ours[i], theirs[i]) << "prefix " << cuts[i / 2];
}

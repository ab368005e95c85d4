// Direct appends: whatever the sizes of the pieces, the file holds exactly
// their bytes, and what went out in whole blocks never entered the page cache.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "direct.h"
#include "support/tempdir.h"

namespace {

std::string piece(size_t n, unsigned seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) s[i] = char((i * 131 + seed * 7) >> 3);
    return s;
}

// Pages of the file's first n bytes that are in the page cache.
size_t cached_pages(int fd, size_t n) {
    size_t page = size_t(sysconf(_SC_PAGESIZE)), pages = (n + page - 1) / page;
    void* m = mmap(nullptr, n, PROT_READ, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) return size_t(-1);
    std::vector<unsigned char> in(pages);
    size_t cached = 0;
    if (mincore(m, n, in.data()) == 0)
        for (unsigned char c : in) cached += c & 1;
    munmap(m, n);
    return cached;
}

TEST(DirectAppender, PiecesOfAnySizeLandWholeAroundThePageCache) {
    TempDir tmp;
    std::string path = tmp / "out";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    auto d = DirectAppender::start(fd);
    if (!d) {
        close(fd);
        GTEST_SKIP() << "no direct writes on the filesystem of " << tmp.path;
    }
    std::string all;
    unsigned seed = 0;
    for (size_t n : {size_t(1), size_t(4095), size_t(4097), size_t(0), size_t(300000), size_t(7), size_t(1) << 20,
                     size_t(3)}) {
        std::string p = piece(n, ++seed);
        ASSERT_TRUE(d->append(p.data(), p.size())) << n;
        all += p;
        EXPECT_LT(d->ncarried(), 4096u);
        EXPECT_EQ(size_t(lseek(fd, 0, SEEK_CUR)) + d->ncarried(), all.size());
    }
    size_t whole = all.size() - d->ncarried();
    EXPECT_EQ(cached_pages(fd, whole), 0u);

    ASSERT_TRUE(d->end());
    ASSERT_EQ(write(fd, d->carried(), d->ncarried()), ssize_t(d->ncarried()));
    close(fd);
    std::ifstream f(path, std::ios::binary);
    std::stringstream back;
    back << f.rdbuf();
    EXPECT_TRUE(back.str() == all) << back.str().size() << " bytes, expected " << all.size();
}

}  // namespace

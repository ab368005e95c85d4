// Direct appends as the receiver makes them: whatever the sizes of the pieces, the file holds exactly
// their bytes once the stream on the same descriptor has written the rest, and what went out in whole
// blocks never entered the page cache. (A file-size limit inside a block is in receiver_test.)
#include <sys/mman.h>

#include "direct.h"
#include "harness.h"

using namespace ferrant_test;

namespace {

// Whether the filesystem of dir says it takes direct writes (it says so for
// regular files only): then the appender must start there.
bool takes_direct_writes(const std::string& dir) {
#ifdef STATX_DIOALIGN
    int fd = open((dir + "/probe").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    struct statx sx{};
    bool yes = fd >= 0 && statx(fd, "", AT_EMPTY_PATH, STATX_DIOALIGN, &sx) == 0 &&
               (sx.stx_mask & STATX_DIOALIGN) && sx.stx_dio_offset_align > 0 &&
               sx.stx_dio_offset_align <= 4096 && sx.stx_dio_mem_align <= 4096;
    close(fd);
    return yes;
#else
    (void)dir;
    return false;
#endif
}

TEST(DirectAppenderTest, PiecesOfAnySizeLandWholeAroundThePageCache) {
    TempDir tmp;
    if (!takes_direct_writes(tmp.path)) GTEST_SKIP() << "no direct writes in " << tmp.path;
    FILE* f = fopen((tmp / "out").c_str(), "w+");
    ASSERT_NE(f, nullptr);
    auto d = DirectAppender::start(fileno(f));
    ASSERT_TRUE(d);
    std::string all;
    unsigned seed = 0;
    for (size_t n : {1, 4095, 4097, 0, 300000, 7, 3 << 20, 3}) {  // larger than the bounce buffer, too
        std::string p = pattern(n, ++seed);
        ASSERT_TRUE(d->append(p.data(), p.size())) << n;
        all += p;
        EXPECT_LT(d->ncarried(), 4096u);
        EXPECT_EQ(size_t(lseek(fileno(f), 0, SEEK_CUR)) + d->ncarried(), all.size());
    }
    // Pages of the blocks written that are in the page cache.
    size_t written = all.size() - d->ncarried(), cached = 0;
    void* m = mmap(nullptr, written, PROT_READ, MAP_SHARED, fileno(f), 0);
    ASSERT_NE(m, MAP_FAILED);
    std::vector<unsigned char> pages((written + sysconf(_SC_PAGESIZE) - 1) / sysconf(_SC_PAGESIZE));
    ASSERT_EQ(mincore(m, written, pages.data()), 0);
    for (unsigned char c : pages) cached += c & 1;
    munmap(m, written);
    EXPECT_EQ(cached, 0u);
    // The rest of the file goes through the stream, as when a file's packets turn small.
    ASSERT_TRUE(d->end());
    std::string rest = pattern(5000, 99);
    ASSERT_EQ(fwrite(d->carried(), 1, d->ncarried(), f), d->ncarried());
    ASSERT_EQ(fwrite(rest.data(), 1, rest.size(), f), rest.size());
    all += rest;
    ASSERT_EQ(fclose(f), 0);
    EXPECT_TRUE(slurp(tmp / "out") == all) << slurp(tmp / "out").size() << " bytes, expected " << all.size();
}

}  // namespace

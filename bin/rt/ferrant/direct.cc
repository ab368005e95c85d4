#include "direct.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// Larger alignments are possible in principle but not worth a special case.
constexpr size_t Max_align = 4096;
// Whole blocks go out at most this many at a time.
constexpr size_t Bounce = 1 << 20;

// The alignment the filesystem asks of direct writes to fd, or 0 when it
// does not take them.
size_t alignment(int fd) {
#ifdef STATX_DIOALIGN
    struct statx sx{};
    if (statx(fd, "", AT_EMPTY_PATH, STATX_DIOALIGN, &sx) != 0) return 0;
    if (!(sx.stx_mask & STATX_DIOALIGN) || sx.stx_dio_offset_align == 0) return 0;
    size_t a = std::max(sx.stx_dio_offset_align, sx.stx_dio_mem_align);
    return a <= Max_align ? Max_align : 0;  // 4096 bytes satisfy any smaller power of two
#else
    (void)fd;
    return 0;
#endif
}

bool direct_off(int fd) {
    int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags & ~O_DIRECT) == 0;
}

// This thread's aligned buffer of Bounce bytes, or null.
char* bounce() {
    struct Buffer {
        char* p = nullptr;
        ~Buffer() { free(p); }
    };
    thread_local Buffer b;
    if (b.p == nullptr) {
        void* p = nullptr;
        if (posix_memalign(&p, Max_align, Bounce) == 0) b.p = static_cast<char*>(p);
    }
    return b.p;
}

}  // namespace

std::unique_ptr<DirectAppender> DirectAppender::start(int fd) {
    size_t align = alignment(fd);
    if (align == 0) return nullptr;
    off_t at = lseek(fd, 0, SEEK_CUR);
    int flags = fcntl(fd, F_GETFL);
    if (at < 0 || size_t(at) % align != 0 || flags < 0) return nullptr;
    void* carry = nullptr;
    if (posix_memalign(&carry, align, align) != 0) return nullptr;
    if (fcntl(fd, F_SETFL, flags | O_DIRECT) != 0) {
        free(carry);
        return nullptr;
    }
    return std::unique_ptr<DirectAppender>(new DirectAppender(fd, align, static_cast<char*>(carry)));
}

DirectAppender::~DirectAppender() { free(carry_); }

bool DirectAppender::write_blocks(const char* p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd_, p, n);
        if (w > 0) {
            p += w;  // a short write: the next one says why
            n -= size_t(w);
        } else if (w == 0) {
            errno = EIO;
            return false;
        } else if (errno == EINVAL && direct_) {
            // A direct write cut short where no block ends (a file-size
            // limit) is refused whole; through the cache the bytes up to the
            // cut land, and the next write gives the real reason.
            if (!direct_off(fd_)) return false;
            direct_ = false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool DirectAppender::append(const char* data, size_t n) {
    char* b = nullptr;
    while (ncarry_ + n >= align_) {
        if (b == nullptr && (b = bounce()) == nullptr) {
            errno = ENOMEM;
            return false;
        }
        size_t whole = std::min(ncarry_ + n, Bounce) / align_ * align_, take = whole - ncarry_;
        memcpy(b, carry_, ncarry_);
        memcpy(b + ncarry_, data, take);
        ncarry_ = 0;
        data += take;
        n -= take;
        if (!write_blocks(b, whole)) return false;
    }
    memcpy(carry_ + ncarry_, data, n);
    ncarry_ += n;
    return true;
}

bool DirectAppender::end() { return direct_off(fd_); }

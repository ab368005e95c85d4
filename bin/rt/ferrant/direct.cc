#include "direct.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// Larger alignments are possible in principle but not worth a special case.
constexpr size_t Max_align = 4096;

// The alignment the filesystem asks of direct writes to fd, or 0 when it
// does not take them.
size_t alignment(int fd) {
#ifdef STATX_DIOALIGN
    struct statx sx{};
    if (statx(fd, "", AT_EMPTY_PATH, STATX_DIOALIGN, &sx) != 0) return 0;
    if (!(sx.stx_mask & STATX_DIOALIGN) || sx.stx_dio_offset_align == 0) return 0;
    size_t a = sx.stx_dio_offset_align > sx.stx_dio_mem_align ? sx.stx_dio_offset_align : sx.stx_dio_mem_align;
    return a <= Max_align ? Max_align : 0;  // one page satisfies any smaller power of two
#else
    (void)fd;
    return 0;
#endif
}

bool write_all(int fd, const char* p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (w == 0) {
            errno = EIO;
            return false;
        }
        // A short direct write ends on a block boundary (a file-size limit
        // cuts it there); the retry reports why.
        p += w;
        n -= size_t(w);
    }
    return true;
}

// This thread's aligned buffer for one append, at least n bytes.
char* bounce(size_t n) {
    struct Buffer {
        char* p = nullptr;
        size_t size = 0;
        ~Buffer() { free(p); }
    };
    thread_local Buffer b;
    if (b.size < n) {
        size_t size = (n + Max_align - 1) / Max_align * Max_align;
        void* p = nullptr;
        if (posix_memalign(&p, Max_align, size) != 0) return nullptr;
        free(b.p);
        b.p = static_cast<char*>(p);
        b.size = size;
    }
    return b.p;
}

}  // namespace

std::unique_ptr<DirectAppender> DirectAppender::start(int fd) {
    size_t align = alignment(fd);
    if (align == 0) return nullptr;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return nullptr;
    void* carry = nullptr;
    if (posix_memalign(&carry, align, align) != 0) return nullptr;
    if (fcntl(fd, F_SETFL, flags | O_DIRECT) != 0) {
        free(carry);
        return nullptr;
    }
    return std::unique_ptr<DirectAppender>(new DirectAppender(fd, align, static_cast<char*>(carry)));
}

DirectAppender::~DirectAppender() { free(carry_); }

bool DirectAppender::append(const char* data, size_t n) {
    size_t total = ncarry_ + n, whole = total / align_ * align_;
    if (whole == 0) {
        memcpy(carry_ + ncarry_, data, n);
        ncarry_ = total;
        return true;
    }
    char* b = bounce(whole);
    if (b == nullptr) {
        errno = ENOMEM;
        return false;
    }
    size_t from_data = whole - ncarry_;
    memcpy(b, carry_, ncarry_);
    memcpy(b + ncarry_, data, from_data);
    ncarry_ = n - from_data;
    memcpy(carry_, data + from_data, ncarry_);
    return write_all(fd_, b, whole);
}

bool DirectAppender::end() {
    int flags = fcntl(fd_, F_GETFL);
    return flags >= 0 && fcntl(fd_, F_SETFL, flags & ~O_DIRECT) == 0;
}

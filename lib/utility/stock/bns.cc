#include "stock/bns.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "stock/allot.h"
#include "stock/elog.h"
#include "stock/h2e.h"
#include "stock/printable.h"

// Verbose tracing of the client library (set by it; in the same library).
extern int OrbVerbose;

std::atomic<int> Bns_timeout{60000};

static const int Widths[] = {1, 2, 4, 8, 4, 8};

static ssize_t plain_read(int fd, void* buf, size_t n, int) { return read(fd, buf, n); }
static ssize_t plain_write(int fd, const void* buf, size_t n, int) { return write(fd, buf, n); }

[[noreturn]] static void nomem(int line, size_t n, const char* what) { die_nomem(line, "bns", n, what); }

Bns* bnsnew(int fd, int size) {
    if (size < 1) size = BNS_DEFAULT_SIZE;
    if (const char* t = getenv("BNS_TIMEOUT"); t && *t) Bns_timeout = atoi(t);
    Bns* bns = new (std::nothrow) Bns;
    if (!bns) nomem(__LINE__, sizeof(Bns), "bns");
    bns->data = static_cast<char*>(malloc(size));
    if (!bns->data) nomem(__LINE__, size, "bns->data");
    bns->sz = size;
    bns->fd = fd;
    bns->timeout = Bns_timeout;
    bns->read_routine = plain_read;
    bns->write_routine = plain_write;
    return bns;
}

void bnsresize(Bns* bns, int n) {
    long grown = (long)bns->sz + std::max(n, bns->sz);
    if (grown > INT_MAX) grown = INT_MAX;
    bool empty = bns->fp == bns->lp && (bns->mark == -1 || bns->mark == bns->fp);
    if (empty) {
        // Nothing to keep: skip the copy a reallocation would make.
        free(bns->data);
        bns->data = static_cast<char*>(malloc(grown));
    } else {
        char* p = static_cast<char*>(realloc(bns->data, grown));
        if (!p) free(bns->data);
        bns->data = p;
    }
    if (!bns->data) nomem(__LINE__, grown, "bns->data");
    bns->sz = (int)grown;
}

// Appends the bytes of one traced system call to the trace file.
static void trace(Bns* bns, const char* dir, const char* p, ssize_t n) {
    if (bns->snoopfd < 0) return;
    int e = errno;
    char hdr[256];
    int h = snprintf(hdr, sizeof hdr, "\n\n#msg %s %s %d %ld\n", dir, bns->id ? bns->id : "anon", (int)n,
                     (long)time(nullptr));
    h = std::min(h, (int)sizeof hdr - 1);
    struct iovec iov[2] = {{hdr, (size_t)h}, {const_cast<char*>(p), n > 0 ? (size_t)n : 0}};
    ssize_t w = writev(bns->snoopfd, iov, n > 0 ? 2 : 1);
    (void)w;
    errno = e;
}

int bnsput(Bns* bns, const void* address, int type, int count) {
    if (type < 0 || type > 5) {
        elog_log(0, "unrecognized type %d\n", type);
        return -1;
    }
    long size = (long)count * Widths[type];
    if (count < 0 || size > INT_MAX / 2) return -1;
    if (size > bns->sz - bns->lp) bnsresize(bns, (int)(size - (bns->sz - bns->lp)));
    unsigned char* cursor = reinterpret_cast<unsigned char*>(bns->data + bns->lp);
    switch (type) {
        case BNS_BYTES: if (size) memcpy(cursor, address, size); break;
        case BNS_SHORT: hs2ms(static_cast<const short*>(address), &cursor, count); break;
        case BNS_INT: hi2mi(static_cast<const int*>(address), &cursor, count); break;
        case BNS_LONG: hl2ml(static_cast<const int64_t*>(address), &cursor, count); break;
        case BNS_FLOAT: hf2mf(static_cast<const float*>(address), &cursor, count); break;
        case BNS_DOUBLE: hd2md(static_cast<const double*>(address), &cursor, count); break;
    }
    bns->lp += (int)size;
    bns->outcount += size;
    return 0;
}

int buf2bns(Bns* bns, const void* buffer, int n) { return bnsput(bns, buffer, BNS_BYTES, n); }

ssize_t bnsrecv(Bns* bns, void* buf, size_t n) {
    return bns->transport ? bns->transport->read(buf, n) : bns->read_routine(bns->fd, buf, n, bns->flags);
}

ssize_t bnssend(Bns* bns, const void* buf, size_t n) {
    return bns->transport ? bns->transport->write(buf, n) : bns->write_routine(bns->fd, buf, n, bns->flags);
}

// A session may need to wait for room even on a blocking descriptor.
static bool wait_writable(Bns* bns) {
    struct pollfd p = {bns->fd, POLLOUT, 0};
    int r;
    do r = poll(&p, 1, bns->timeout);
    while (r < 0 && errno == EINTR);
    if (r == 0) errno = ETIMEDOUT;
    return r == 1 && (p.revents & POLLOUT);
}

// Writes n bytes from p, resuming after interrupts and short writes.
static bool write_all(Bns* bns, const char* p, int n) {
    int done = 0;
    while (done < n) {
        bns->nsys++;
        ssize_t w = bnssend(bns, p + done, n - done);
        trace(bns, ">", p + done, w);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0 && errno == EAGAIN && bns->transport && wait_writable(bns)) continue;
        if (w <= 0) {
            if (w == 0) errno = EIO;
            bns->err++;
            bns->syserrno = errno;
            return false;
        }
        done += (int)w;
    }
    return true;
}

int bnsflush(Bns* bns) {
    int n = bns->lp - bns->fp;
    if (n < 1) return 0;
    if (!write_all(bns, bns->data + bns->fp, n)) return -1;
    bns->nbytes += n;
    if (bns->mark == -1) {
        bns->fp = bns->lp = 0;
        return 0;
    }
    if (bns->marktbl) {
        auto& kept = *bns->marktbl;
        kept.push_back(bns->fp);
        while ((int)kept.size() >= std::max(bns->keep, 1)) {
            bns->mark = kept.front();
            kept.pop_front();
        }
    }
    bns->fp += n;
    // Kept messages move down only once the space before them is at least
    // what they fill, so that a stream keeping its last large messages moves
    // each byte about once, not at every flush. Only here, between messages:
    // a caller may hold an offset into the message it is putting.
    int m = bns->mark;
    if (m > 0 && m >= bns->lp - m) {
        memmove(bns->data, bns->data + m, bns->lp - m);
        if (bns->marktbl)
            for (int& off : *bns->marktbl) off -= m;
        bns->fp -= m;
        bns->lp -= m;
        bns->mark = 0;
    }
    return 0;
}

void bnskeep(Bns* bns, int n) {
    bns->keep = n;
    if (!bns->marktbl) {
        bns->marktbl = std::make_unique<std::deque<int>>();
        bns->mark = bns->fp;
    }
}

int bnsresend(Bns* bns) {
    if (bns->mark < 0 || bns->keep <= 0 || bns->fp - bns->mark <= 0) return 0;
    return write_all(bns, bns->data + bns->mark, bns->fp - bns->mark) ? 0 : -1;
}

int bnswait(Bns* bns) {
    if (bnspending(bns) > 0) return 1;
    struct pollfd p = {bns->fd, POLLIN | POLLPRI | POLLERR | POLLRDNORM | POLLRDBAND, 0};
    int r;
    do {
        p.revents = 0;
        r = poll(&p, 1, bns->timeout);
    } while (r < 0 && errno == EINTR);
    bns->revents = p.revents;
    if (r == 0) return 0;
    // Readable input comes first even beside an error; a hang-up alone is end
    // of file to come (a pipe reports no POLLIN then): let the read tell it.
    if (r == 1 && (p.revents & (POLLRDNORM | POLLIN))) return 1;
    if (r == 1 && (p.revents & POLLHUP) && !(p.revents & (POLLERR | POLLNVAL))) return 1;
    if (r == 1 && (p.revents & POLLERR)) {
        int e = 0;
        socklen_t len = sizeof e;
        if (getsockopt(bns->fd, SOL_SOCKET, SO_ERROR, &e, &len) == 0 && e) errno = e;
        else errno = EIO;
    } else if (r == 1) {
        errno = EBADF;
    }
    bns->err++;
    bns->syserrno = errno;
    return -1;
}

// One wait and one read of at most n bytes into dst: the count read, 0 when
// the time-out expired, -1 on error or end of file (recorded in the stream).
static int read_some(Bns* bns, char* dst, int n) {
    ssize_t r;
    do {
        int w = bnswait(bns);
        if (w < 1) {
            if (w == 0 && OrbVerbose && bns->timeout >= 1)
                elog_debug(0, "%d msec timeout on read from fd #%d\n", bns->timeout, bns->fd);
            return w;
        }
        bns->nsys++;
        r = bnsrecv(bns, dst, n);
        trace(bns, "<", dst, r);
        // A session that took only part of a record waits for the rest.
    } while (r < 0 && (errno == EINTR || (errno == EAGAIN && bns->transport)));
    if (r < 0) {
        bns->eof = 0;
        bns->err++;
        bns->syserrno = errno;
        if (OrbVerbose) {
            elog_debug(0, "bns->read_routine returned %d on fd #%d\n", (int)r, bns->fd);
            bnsdump(stderr, bns);
        }
        return -1;
    }
    if (r == 0) {
        bns->eof = 1;
        if (OrbVerbose) elog_debug(0, "bns->read_routine returned eof on fd #%d\n", bns->fd);
        return -1;
    }
    bns->eof = 0;
    bns->nbytes += r;
    return (int)r;
}

int bnsmore(Bns* bns, int need) {
    if (bns->mark == -1) {
        if (bns->fp > 0) {
            memmove(bns->data, bns->data + bns->fp, bns->lp - bns->fp);
            bns->lp -= bns->fp;
            bns->fp = 0;
        }
    } else if (bns->mark > 0) {
        int m = bns->mark;
        memmove(bns->data, bns->data + m, bns->lp - m);
        bns->fp -= m;
        bns->lp -= m;
        if (bns->marktbl)
            for (int& off : *bns->marktbl) off -= m;
        bns->mark = 0;
    }
    int room = bns->sz - bns->lp;
    if (need > room) bnsresize(bns, 2 * (need - room));

    int r = read_some(bns, bns->data + bns->lp, bns->sz - bns->lp);
    if (r > 0) bns->lp += r;
    return r > 0 ? 1 : r;
}

// Reads until n bytes are buffered; false when the input fails first.
static bool buffered(Bns* bns, int n) {
    while (bns->lp - bns->fp < n)
        if (bnsmore(bns, n - (bns->lp - bns->fp)) < 1) return false;
    return true;
}

// Large byte runs skip the buffer: what it holds is copied out and the rest
// read straight into the destination. Should the input fail part way, the
// bytes already read go back into the buffer, so the get consumes nothing.
static const int Direct_read = 64 * 1024;

static int get_direct(Bns* bns, char* dst, int size) {
    int have = bns->lp - bns->fp;
    memcpy(dst, bns->data + bns->fp, have);
    int got = have;
    while (got < size) {
        int r = read_some(bns, dst + got, size - got);
        if (r < 1) {
            int extra = got - have;
            if (extra > bns->sz - bns->lp) bnsresize(bns, extra - (bns->sz - bns->lp));
            memcpy(bns->data + bns->lp, dst + have, extra);
            bns->lp += extra;
            return -1;
        }
        got += r;
    }
    bns->fp = bns->lp;
    if (bns->mark == -1) bns->fp = bns->lp = 0;
    bns->incount += size;
    return 0;
}

int bnsget(Bns* bns, void* address, int type, int count) {
    if (type < 0 || type > 5) {
        elog_log(0, "unrecognized type %d\n", type);
        return -1;
    }
    long size = (long)count * Widths[type];
    if (count < 0 || size > INT_MAX / 2) return -1;
    // Once an attempt has put a large part back, the rest collects in the
    // buffer: repeated attempts would copy it out and back each time.
    int have = bns->lp - bns->fp;
    if (type == BNS_BYTES && bns->direct && size - have >= Direct_read && have < Direct_read)
        return get_direct(bns, static_cast<char*>(address), (int)size);
    if (!buffered(bns, (int)size)) return -1;
    unsigned char* cursor = reinterpret_cast<unsigned char*>(bns->data + bns->fp);
    switch (type) {
        case BNS_BYTES: if (size) memcpy(address, cursor, size); break;
        case BNS_SHORT: ms2hs(&cursor, static_cast<short*>(address), count); break;
        case BNS_INT: mi2hi(&cursor, static_cast<int*>(address), count); break;
        case BNS_LONG: ml2hl(&cursor, static_cast<int64_t*>(address), count); break;
        case BNS_FLOAT: mf2hf(&cursor, static_cast<float*>(address), count); break;
        case BNS_DOUBLE: md2hd(&cursor, static_cast<double*>(address), count); break;
    }
    bns->fp += (int)size;
    bns->incount += size;
    return 0;
}

const char* bnsview(Bns* bns, int n) {
    if (n < 0 || !buffered(bns, n)) return nullptr;
    const char* p = bns->data + bns->fp;
    bns->fp += n;
    bns->incount += n;
    return p;
}

int bnsgetc(Bns* bns, char* buffer, int max, int terminator) {
    if (max < 0) max = 0;
    int scanned = 0;
    for (;;) {
        int have = bns->lp - bns->fp;
        const char* start = bns->data + bns->fp;
        const void* hit = have > scanned ? memchr(start + scanned, (unsigned char)terminator, have - scanned)
                                         : nullptr;
        if (hit) {
            int i = (int)(static_cast<const char*>(hit) - start);
            int n = std::min(i, max);
            memcpy(buffer, start, n);
            bns->fp += i;
            bns->incount += i;
            return n;
        }
        scanned = have;
        if (bnsmore(bns, 1) < 1) {
            have = bns->lp - bns->fp;
            int n = std::min(have, max);
            memcpy(buffer, bns->data + bns->fp, n);
            bns->fp = bns->lp;
            bns->incount += have;
            return -1;
        }
    }
}

int bns2buf(Bns* bns, void* buffer, int max) {
    int n = std::max(0, std::min(max, bns->lp - bns->fp));
    memcpy(buffer, bns->data + bns->fp, n);
    bns->incount += n;
    bns->fp = bns->lp = 0;
    return n;
}

int bnstimeout(Bns* bns, int ms) {
    int old = bns->timeout;
    bns->timeout = ms;
    return old;
}

char* bnsid(Bns* bns, char* id) {
    char* old = bns->id;
    if (id) bns->id = id;
    return old;
}

long bnsin(Bns* bns) {
    long n = bns->incount;
    bns->incount = 0;
    return n;
}

long bnsout(Bns* bns) {
    long n = bns->outcount;
    bns->outcount = 0;
    return n;
}

void bnsclr(Bns* bns) {
    bns->fp = bns->lp = 0;
    bns->eof = bns->err = bns->syserrno = 0;
    bns->incount = bns->outcount = 0;
    bns->mark = -1;
}

int bnssnoop(Bns* bns, const char* filename) {
    if (bns->snoopfd >= 0) close(bns->snoopfd);
    bns->snoopfd = -1;
    free(bns->snoop);
    bns->snoop = nullptr;
    if (!filename) return 0;
    int fd = open(filename, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0664);
    if (fd < 0) return -1;
    bns->snoopfd = fd;
    bns->snoop = allot_strdup(filename, "snoop");
    return 0;
}

void bnsdump(FILE* file, Bns* bns) {
    fprintf(file, "  id='%s'\n", bns->id ? bns->id : "");
    fprintf(file, "  fp=%d", bns->fp);
    fprintf(file, "  lp=%d", bns->lp);
    fprintf(file, "  mark=%d", bns->mark);
    fprintf(file, "  sz=%8d\n", bns->sz);
    fprintf(file, "  eof=%d", bns->eof);
    fprintf(file, "  err=%d", bns->err);
    fprintf(file, "  syserrno=%d", bns->syserrno);
    fprintf(file, "  flags=%d\n", bns->flags);
    fprintf(file, "  timeout=%d", bns->timeout);
    fprintf(file, "  nbytes=%d", (int)bns->nbytes);
    fprintf(file, "  nsys=%d", (int)bns->nsys);
    if (bns->marktbl) {
        fprintf(file, "marktbl has %d entries:", (int)bns->marktbl->size());
        for (int off : *bns->marktbl) fprintf(file, " %d", off);
        fprintf(file, "\n data+mark=%d\n", bns->mark);
    }
    fprintf(file, "\ndata+fp : %d bytes\n", bns->lp - bns->fp);
    hexdump(file, bns->data + bns->fp, bns->lp - bns->fp);
    if (bns->snoopfd >= 0) fprintf(file, "  snoop=%s (fd=%d)\n", bns->snoop ? bns->snoop : "", bns->snoopfd);
}

void bnsfree(Bns* bns) {
    if (!bns) return;
    if (bns->snoopfd >= 0) close(bns->snoopfd);
    free(bns->snoop);
    free(bns->data);
    free(bns->id);
    delete bns;
}

int bnsclose(Bns* bns) {
    int r = bnsflush(bns);
    r |= close(bns->fd);
    bnsfree(bns);
    return r;
}

int gbnsSync(Bns* bns, const char* pattern, int n, int strict) {
    std::string skipped;
    int matched = 0, result = 0;
    while (matched < n) {
        unsigned char c;
        if (bnsget(bns, &c, BNS_BYTES, 1) < 0) {
            result = -1;
            break;
        }
        if (c == (unsigned char)pattern[matched]) {
            matched++;
            continue;
        }
        // The partial match is lost; the byte itself may begin a new one.
        skipped.append(pattern, matched);
        matched = 0;
        if (c == (unsigned char)pattern[0] && !strict) {
            matched = 1;
        } else {
            skipped.push_back((char)c);
        }
        if (strict || skipped.size() > 31) {
            result = -2;
            break;
        }
    }
    if (!skipped.empty()) {
        char* shown = strprintable(pattern, n, 256);
        elog_complain(0, "skipped %d bytes looking for sync '%s'\n", (int)skipped.size(), shown);
        free(shown);
        hexdump(stderr, skipped.data(), (long)std::min<size_t>(skipped.size(), 1024));
    }
    return result;
}

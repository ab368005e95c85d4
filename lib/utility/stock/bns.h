// Bns: a buffered, typed byte stream over one descriptor.
//
// Puts append typed values to the buffer most significant byte first and never
// touch the descriptor; bnsflush writes everything unflushed in one write call.
// Gets take typed values out, reading (with a poll time-out) as much as the
// buffer has room for whenever too few bytes are buffered.  With `direct` set,
// a run of 64 KiB or more bytes still to come is read straight into the
// destination instead (a stream read in small non-blocking steps leaves it
// off: each failed attempt would copy the bytes back).  A get that cannot
// complete consumes nothing, so a value that arrives in pieces is never lost.
//
// Results: 0 success, -1 failure.  After a failed get, eof == 1 means the peer
// closed, err/syserrno record a failed system call, and eof == 0 with err
// unchanged means the time-out expired.
//
// A stream may keep its last `keep` flushed messages (bnskeep) so that
// bnsresend can write them again on a new descriptor, and may copy all traffic
// to a trace file (bnssnoop).  One thread at a time per stream.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <memory>

// Element types of bnsput/bnsget and their widths on the wire.
#define BNS_BYTES 0   // raw bytes, 1
#define BNS_SHORT 1   // 16-bit integer, 2
#define BNS_INT 2     // 32-bit integer, 4
#define BNS_LONG 3    // 64-bit integer, 8
#define BNS_FLOAT 4   // 32-bit IEEE float, 4
#define BNS_DOUBLE 5  // 64-bit IEEE double, 8

#define BNS_DEFAULT_SIZE 32767

typedef ssize_t (*Bns_read)(int fd, void* buf, size_t n, int flags);
typedef ssize_t (*Bns_write)(int fd, const void* buf, size_t n, int flags);

// A session layered on the descriptor (TLS). When a stream has one, its reads
// and writes go through it instead of read_routine/write_routine. read and
// write behave as read(2) and write(2); -1 with errno EAGAIN means the session
// needs the descriptor to become ready first. pending() counts bytes that can
// be read without waiting on the descriptor (a poll would not see them).
struct BnsTransport {
    virtual ~BnsTransport() = default;
    virtual ssize_t read(void* buf, size_t n) = 0;
    virtual ssize_t write(const void* buf, size_t n) = 0;
    virtual int pending() const = 0;
};

struct Bns {
    char* data = nullptr;  // owned (malloc)
    int fp = 0;            // first unconsumed / unflushed byte
    int lp = 0;            // one past the last valid byte
    int mark = -1;         // oldest byte kept for resending, -1 when nothing is kept
    int sz = 0;            // capacity of data

    int fd = -1;
    int eof = 0;       // 1 after a read saw end of file
    int err = 0;       // count of failed system calls
    int revents = 0;   // events of the last poll
    int syserrno = 0;  // errno of the last failure

    int flags = 0;    // fourth argument of read_routine/write_routine
    int timeout = 0;  // poll time-out for reads, milliseconds (negative: wait for ever)
    int direct = 0;   // 1: large byte gets may read straight into the destination

    long nbytes = 0;  // bytes moved through the descriptor
    long nsys = 0;    // read/write system calls

    int keep = 0;                                // flushed messages to keep
    std::unique_ptr<std::deque<int>> marktbl;    // start offsets of kept messages, oldest first

    Bns_read read_routine = nullptr;    // default: read(2), flags ignored
    Bns_write write_routine = nullptr;  // default: write(2), flags ignored
    BnsTransport* transport = nullptr;  // not owned; null: the routines above

    long incount = 0;   // bytes taken by gets since bnsin
    long outcount = 0;  // bytes added by puts since bnsout

    char* snoop = nullptr;  // owned name of the trace file
    int snoopfd = -1;
    char* id = nullptr;  // owned label used in traces
};

// Time-out given to new streams: BNS_TIMEOUT from the environment when set, else 60000.
// Re-read at each bnsnew; atomic because connections may be opened from several threads.
extern std::atomic<int> Bns_timeout;

Bns* bnsnew(int fd, int size);  // size < 1 means BNS_DEFAULT_SIZE; out of memory is fatal
int bnsput(Bns* bns, const void* address, int type, int count);  // 0, or -1 for a bad type
int buf2bns(Bns* bns, const void* buffer, int n);
int bnsflush(Bns* bns);  // 0, or -1 with the bytes left unflushed
int bnsget(Bns* bns, void* address, int type, int count);  // 0, or -1 consuming nothing
// Copies bytes up to (not including) the terminator, at most max of them; the
// terminator stays buffered and bytes beyond max before it are dropped.  Returns
// the count copied, or -1 when the input fails first (then everything buffered is
// consumed and up to max bytes of it copied).
int bnsgetc(Bns* bns, char* buffer, int max, int terminator);
// Takes n bytes without copying them: a pointer to them inside the buffer,
// valid until the stream is next read, or null (consuming nothing) when they
// cannot all be read.
const char* bnsview(Bns* bns, int n);
int bns2buf(Bns* bns, void* buffer, int max);  // hands out up to max bytes, empties the buffer
int bnswait(Bns* bns);                          // 1 ready, 0 time-out, -1 error
int bnsmore(Bns* bns, int need);                // one read: >0 ok, 0 time-out, -1 error or eof
void bnsresize(Bns* bns, int n);                // capacity becomes sz + max(n, sz)
void bnskeep(Bns* bns, int n);
int bnsresend(Bns* bns);
int bnstimeout(Bns* bns, int ms);       // returns the previous time-out
char* bnsid(Bns* bns, char* id);        // returns the previous id (caller's now if replaced); takes id
long bnsin(Bns* bns);                   // incount, then zeroed
long bnsout(Bns* bns);                  // outcount, then zeroed
void bnsclr(Bns* bns);
int bnssnoop(Bns* bns, const char* filename);  // null ends tracing
void bnsdump(FILE* file, Bns* bns);
void bnsfree(Bns* bns);   // null accepted; does not close fd
int bnsclose(Bns* bns);   // flush, close fd, free
// Skips input up to the n-byte pattern: 0 found, -1 read failure, -2 gave up
// (strict and a mismatch, or more than 31 bytes skipped).
int gbnsSync(Bns* bns, const char* pattern, int n, int strict);

// One read or write of the descriptor through the stream's transport or
// routines, as read(2)/write(2); no buffering, no counting.
ssize_t bnsrecv(Bns* bns, void* buf, size_t n);
ssize_t bnssend(Bns* bns, const void* buf, size_t n);
// Bytes the transport holds that a poll of the descriptor would not report.
inline int bnspending(const Bns* bns) { return bns->transport ? bns->transport->pending() : 0; }

// Bytes buffered and not yet taken (input) or flushed (output).
inline int bnscnt(const Bns* bns) { return bns->lp - bns->fp; }

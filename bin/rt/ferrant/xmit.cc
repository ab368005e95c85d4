// Send mode: each file goes out as one run of xfer packets, bracketed per
// sending run by the start and finish marker packets.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "ferrant2.h"
#include "orb/orb.h"
#include "pkt/pkt.h"
#include "stock/allot.h"
#include "stock/arr.h"
#include "stock/elog.h"
#include "stock/epoch.h"
#include "stock/hook.h"
#include "stock/mapfile.h"
#include "stock/path.h"
#include "stock/strmatches.h"
#include "stock/tbl.h"
#include "worker.h"

namespace {

constexpr int MaxChunk = 1000000;
constexpr int MaxSequence = 0x100000;

using Key = std::array<unsigned char, 16>;

// Files up to this size are read into one buffer kept from file to file
// instead of being mapped: a mapping costs an mmap, a munmap and page
// faults per file, and each unmap in this two-threaded process interrupts
// the other core to flush its TLB, which on a virtual machine is an exit to
// the host. Copying a file this small costs less than all that; above it,
// the mapping's drop-behind keeps the sender's memory bounded.
constexpr long Read_limit = 2L << 20;

// Pages already digested or sent are dropped from the mapping (they stay in
// the page cache), so the sender's resident size does not grow with the file.
constexpr long Window = 16L << 20;

void release(const char* base, long done, long& released) {
    if (done <= Read_limit) return;  // read, not mapped, or not yet a window
    long upto = done / Window * Window;  // whole windows: base is page aligned
    if (upto > released) {
        madvise(const_cast<char*>(base) + released, static_cast<size_t>(upto - released), MADV_DONTNEED);
        released = upto;
    }
}


// The whole of a file that stat gave as size bytes, in a reused buffer: its
// data, or null with errno set (EAGAIN when the file turned out shorter).
const char* read_whole(const char* filename, long size) {
    static std::vector<char>& buf = *new std::vector<char>;  // never freed: bounded by Read_limit
    int fd = open(filename, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    if (buf.size() < static_cast<size_t>(size)) buf.resize(static_cast<size_t>(Read_limit));
    long got = 0;
    while (got < size) {
        ssize_t n = read(fd, buf.data() + got, static_cast<size_t>(size - got));
        if (n <= 0) {
            if (n == 0) errno = EAGAIN;
            break;
        }
        got += n;
    }
    int e = errno;
    close(fd);
    errno = e;
    return got == size ? buf.data() : nullptr;
}

// Maps the window holding [off, off + n) in one call rather than taking a
// fault every few pages; mapped is how far that has been done. Data read
// into memory is all there already.
void prefault(const char* base, long size, long off, long n, long& mapped) {
#ifdef MADV_POPULATE_READ
    if (size <= Read_limit) {
        mapped = size;
        return;
    }
    while (off + n > mapped && mapped < size) {
        madvise(const_cast<char*>(base) + mapped, static_cast<size_t>(std::min(Window, size - mapped)),
                MADV_POPULATE_READ);
        mapped += Window;
    }
#endif
}

// A file cut short while it is mapped raises SIGBUS at the first page past
// its new end; the reads of the mapping are guarded so that this fails the
// file rather than the sender.
// Per thread: data packets are packed on a worker thread.
thread_local sigjmp_buf Shrunk;
thread_local volatile sig_atomic_t Guarded = 0;

void on_sigbus(int sig) {
    if (Guarded) siglongjmp(Shrunk, 1);
    signal(sig, SIG_DFL);
    raise(sig);
}

void guard_mappings() {
    struct sigaction sa {};
    sa.sa_handler = on_sigbus;
    sa.sa_flags = SA_NODEFER;  // the jump leaves the handler: keep SIGBUS deliverable
    sigaction(SIGBUS, &sa, nullptr);
}

// One packing buffer for the marker-free initial and final packets of the run.
char* Packet_buf = nullptr;
int Packet_bufsize = 0;

constexpr int Cut_short = -100;

// A data packet packed ahead: while one is written to the ring, the worker
// packs the next. Buffers are kept from file to file.
struct Staged {
    int number = 0;  // sequence number
    int chunk = 0;   // data bytes
    long end = 0;    // file offset just past its data
    Key key{};
    char srcname[PKT_SRCNAMESIZE] = {};
    double time = 0;
    char* buf = nullptr;
    int bufsize = 0, nbytes = 0;
    int packed = 0;  // stuffPkt's result, or Cut_short
};

// stuffPkt reading from the mapping; Cut_short when the file shrank under it.
int stuff_guarded(Packet* pkt, Staged& st) {
    if (sigsetjmp(Shrunk, 0) != 0) {
        Guarded = 0;
        return Cut_short;
    }
    Guarded = 1;
    int r = stuffPkt(pkt, st.srcname, &st.time, &st.buf, &st.nbytes, &st.bufsize);
    Guarded = 0;
    return r;
}

// Below this a hand-over to the worker costs more than it saves.
constexpr int Parallel_pack = 256 << 10;

Worker& packer() {
    static Worker* w = new Worker;  // never joined: it outlives every exit path
    return *w;
}

Hook* File_match_hook = nullptr;
Hook* File_reject_hook = nullptr;
int Previous_id = 0;
Arr* Complained_files = nullptr;
Arr* Complained_dirs = nullptr;

// Once per path per process: watch passes would repeat it every second.
bool first_complaint(Arr*& seen, const char* path) {
    if (seen == nullptr) seen = newarr();
    if (getarr(seen, path) != nullptr) return false;
    setarr(seen, path, reinterpret_cast<void*>(1));
    return true;
}

// Up to 32 bytes and not always terminated within them, as src_net holds it.
const char* network_part() {
    static char net[PKT_NAMESIZE + 1];
    static bool done = false;
    if (!done) {
        done = true;
        if (Net_sta != nullptr) {
            strncpy(net, Net_sta, PKT_NAMESIZE);
        } else {
            struct utsname u;
            if (uname(&u) == 0) {
                size_t n = std::min(strcspn(u.nodename, "."), size_t(PKT_NAMESIZE - 1));
                memcpy(net, u.nodename, n);
            }
        }
    }
    return net;
}

int send_marker(int orb, const char* which) {
    char srcname[PKT_SRCNAMESIZE];
    snprintf(srcname, sizeof srcname, "%s/ch/%s", network_part(), which);
    return orbput(orb, srcname, std_now(), "", 0);
}

int send_leading_packet(int orb) { return send_marker(orb, "ferrant_start"); }
int send_trailing_packet(int orb) { return send_marker(orb, "ferrant_finish"); }

int send_initial_packet(const char* filename, char* digest, Packet* pkt, int orb) {
    char srcname[PKT_SRCNAMESIZE];
    double time;
    int nbytes;
    pkt->string_size = 0;
    pkt->string = digest;
    pkt->dfile = const_cast<char*>(filename);
    pkt->dfile_size = static_cast<int>(strlen(filename)) + 1;
    pkt->time = std_now();
    if (stuffPkt(pkt, srcname, &time, &Packet_buf, &nbytes, &Packet_bufsize) < 0) {
        elog_complain(0, "stuffPkt fails for first xfer packet");
        return -1;
    }
    if (orbput_nolag(orb, srcname, time, Packet_buf, nbytes, Lag) < 0) {
        elog_complain(0, "Couldn't send first xfer packet");
        return -1;
    }
    return 0;
}

// The running keys come from the pass that made the whole-file digest; only
// when bytes_per_packet consumes nothing are they missing, and then the key is
// that of no bytes at all. Each data packet is packed while the one before it
// is being written.
int send_file(const char* filename, const char* data, long size, const std::vector<Key>& keys, Packet* pkt,
              int orb) {
    Rvm running;
    inirvm(&running);
    long left = size;
    const char* p = data;
    int seq = 1;
    long released = 0, mapped = 0;
    static Staged staged[2];
    enum { Ok, Too_many, Too_big };

    // Describes the next data packet and starts packing it into st; on a
    // failed check nothing is started.
    auto plan = [&](Staged& st) {
        st.number = seq++;
        if (seq > MaxSequence) return Too_many;
        st.chunk = left < Params.bytes_per_packet ? static_cast<int>(left) : Params.bytes_per_packet;
        if (st.chunk > MaxChunk) return Too_big;
        size_t k = static_cast<size_t>(st.number) - 1;
        if (k < keys.size()) {
            st.key = keys[k];
        } else {
            if (st.chunk > 0) addrvm(&running, p, static_cast<size_t>(st.chunk));
            Rvm copy = running;
            endrvm(&copy);
            memcpy(st.key.data(), copy.digest, st.key.size());
        }
        const char* at = p;
        p += st.chunk;
        left -= st.chunk;
        st.end = p - data;
        auto pack = [&st, &released, &mapped, pkt, at, data, size] {
            // Every earlier packet is in the ring's stream: its pages can go.
            release(data, at - data, released);
            prefault(data, size, at - data, st.chunk, mapped);
            pkt->string_size = st.number;
            pkt->string = reinterpret_cast<char*>(st.key.data());
            pkt->dfile = const_cast<char*>(at);
            pkt->dfile_size = st.chunk;
            st.packed = stuff_guarded(pkt, st);
        };
        if (st.chunk < Parallel_pack) pack();
        else packer().start(pack);
        return Ok;
    };
    auto refuse = [](int why, const Staged& st) {
        if (why == Too_many) elog_complain(0, "exceeded maximum sequence #%d (should never happen)", st.number + 1);
        else elog_complain(0, "bytes2send = %d > %d (should never happen)", st.chunk, MaxChunk);
        return -1;
    };

    if (Verbose) elog_notify(0, "starting '%s'", filename);
    int cur = 0;
    if (left > 0) {
        if (int why = plan(staged[cur])) return refuse(why, staged[cur]);
    }
    for (bool more = size > 0; more;) {
        packer().wait();
        Staged& st = staged[cur];
        if (st.packed == Cut_short) {
            elog_complain(0, "'%s' shrank while it was being sent", filename);
            return -1;
        }
        if (st.packed < 0) {
            elog_complain(0, "stuffPkt fails for xfer data packet #%d", st.number);
            return -1;
        }
        more = left > 0;
        int next = more ? plan(staged[cur ^ 1]) : Ok;  // packed while this one is written
        if (orbput_nolag(orb, st.srcname, std_now(), st.buf, st.nbytes, Lag) < 0) {
            packer().wait();
            elog_complain(0, "Couldn't send data packet #%d", st.number);
            return -1;
        }
        if (Verbose) elog_notify(0, "sent pkt #%d of '%s'", st.number + 1, filename);
        if (Verbose > 1) fprintf(stderr, "#%5d %10ld bytes left\n", st.number, size - st.end);
        if (next != Ok) return refuse(next, staged[cur ^ 1]);
        cur ^= 1;
    }
    if (Verbose) elog_notify(0, "finishing '%s'", filename);
    return seq;
}

int send_final_packet(int seq, char* digest, Packet* pkt, int orb) {
    char srcname[PKT_SRCNAMESIZE];
    double time;
    int nbytes;
    pkt->string_size = seq;
    pkt->string = digest;
    pkt->dfile = nullptr;
    pkt->dfile_size = 0;
    if (stuffPkt(pkt, srcname, &time, &Packet_buf, &nbytes, &Packet_bufsize) < 0) {
        elog_complain(0, "stuffPkt fails for xfer final packet");
        return -1;
    }
    if (orbput_nolag(orb, srcname, std_now(), Packet_buf, nbytes, Lag) < 0) {
        elog_complain(0, "Couldn't send final xfer packet");
        return -1;
    }
    return 0;
}

// How far the digest pass has dropped its pages; the worker's, so that it
// outlives a digest pass cut short by SIGBUS.
long Digest_released = 0;

// One pass over the data gives the whole-file digest and, chunk by chunk,
// every data packet's running key. False when the file shrank under it.
void digest_pass(const char* data, long size, Rvm* whole, std::vector<Key>& keys) {
    inirvm(whole);
    long step = Params.bytes_per_packet;
    if (step <= 0) {
        if (size > 0) addrvm(whole, data, static_cast<size_t>(size));
        return;
    }
    keys.reserve(static_cast<size_t>(std::min<long>((size + step - 1) / step, MaxSequence)));
    long mapped = 0;
    Digest_released = 0;
    for (long off = 0; off < size; off += step) {
        long n = std::min(step, size - off);
        if (off + n > mapped) {
            // While this window is digested, the worker maps the next one
            // and drops those already digested.
            prefault(data, size, off, n, mapped);  // unless the worker got there first
            if (mapped < size) {
                long ahead = mapped;
                packer().start([data, size, off, ahead] {
                    release(data, off, Digest_released);
                    long m = ahead;
                    prefault(data, size, ahead, 1, m);
                });
            }
        }
        addrvm(whole, data + off, static_cast<size_t>(n));
        if (keys.size() < MaxSequence - 1) {
            Rvm copy = *whole;
            endrvm(&copy);
            Key k;
            memcpy(k.data(), copy.digest, k.size());
            keys.push_back(k);
        }
    }
}

bool digest_file(const char* data, long size, Rvm* whole, std::vector<Key>& keys) {
    if (sigsetjmp(Shrunk, 0) != 0) {
        Guarded = 0;
        packer().wait();
        return false;
    }
    Guarded = 1;
    digest_pass(data, size, whole, keys);
    Guarded = 0;
    packer().wait();
    // The sending pass maps the file again from its start.
    if (size > Window) madvise(const_cast<char*>(data), static_cast<size_t>(size), MADV_DONTNEED);
    return true;
}

}  // namespace

int next_xfer_id() {
    int id = static_cast<int>(static_cast<long long>(std_now()) % 86400);
    while (id <= Previous_id) id++;
    Previous_id = id;
    return id;
}

void xfer_tag(int id, const char* filename, char* tag) {
    int n = snprintf(tag, PKT_NAMESIZE, "%d/", id);
    if (n >= PKT_NAMESIZE - 1) return;
    const char* slash = strrchr(filename, '/');
    const char* base = slash ? slash + 1 : filename;
    snprintf(tag + n, PKT_NAMESIZE - n, "%s", base);
}

int matches(const char* path) {
    if (Params.file_match && strmatches(path, Params.file_match, &File_match_hook) != 1) return 0;
    if (Params.file_reject && strmatches(path, Params.file_reject, &File_reject_hook) == 1) return 0;
    return 1;
}

int xfer_filename(const char* filename, struct stat*, int orb) {
    if (!matches(filename)) {
        if (first_complaint(Complained_files, filename)) {
            elog_complain(1, "'%s' not sent; doesn't match file_match/file_reject criteria.", filename);
        }
        return 1;
    }

    struct stat st;
    bool changing = true;
    off_t last = 0;
    while (changing) {
        if (stat(filename, &st) != 0) {
            elog_complain(1, "Can't stat %s", filename);
            return -1;
        }
        if (time(nullptr) - st.st_mtime > 2 && (last == 0 || last == st.st_size)) {
            changing = false;
        } else {
            last = st.st_size;
            sleep(1);
        }
    }
    if (!S_ISREG(st.st_mode)) {
        elog_complain(0, "%s is not a plain file", filename);
        return -1;
    }

    void* mapped = nullptr;
    const char* data = nullptr;
    long size = st.st_size;
    if (size > Read_limit) {
        size = mapfile(filename, 0, &mapped);
        if (size == -1 || mapped == reinterpret_cast<void*>(-1)) {
            elog_complain(1, "Can't mmap file '%s'; **not transferred**", filename);
            return 0;
        }
        data = static_cast<const char*>(mapped);
    } else if (size > 0) {
        data = read_whole(filename, size);
        if (data == nullptr && errno == EAGAIN) {
            elog_complain(0, "'%s' shrank while it was being read; not sent", filename);
            return -1;
        }
        if (data == nullptr) {
            elog_complain(1, "Can't mmap file '%s'; **not transferred**", filename);
            return 0;
        }
    }

    elog_notify(0, "starting '%s'", filename);
    Rvm whole;
    std::vector<Key> keys;
    if (!digest_file(data, size, &whole, keys)) {
        // Still changing: left for a later pass rather than sent or deleted.
        elog_complain(0, "'%s' shrank while it was being read; not sent", filename);
        unmapfile(filename, mapped);
        return -1;
    }
    endrvm(&whole);
    char digest[33];
    ascrvm(&whole, digest);

    Packet* pkt = newPkt();
    memcpy(pkt->parts.src_net, network_part(), PKT_NAMESIZE);
    xfer_tag(next_xfer_id(), filename, pkt->parts.src_subcode);
    pkt->pkttype = suffix2pkttype("xfer");
    pkt->version = 0;
    pkt->nchannels = static_cast<int>(st.st_mode);

    send_initial_packet(filename, digest, pkt, orb);
    int seq = send_file(filename, data, size, keys, pkt, orb);
    send_final_packet(seq, digest, pkt, orb);
    if (seq < 0) elog_notify(0, "failed to transmit '%s'", filename);
    else elog_notify(0, "finished '%s'", filename);

    pkt->string = nullptr;
    pkt->dfile = nullptr;
    freePkt(pkt);
    if (mapped) unmapfile(filename, mapped);
    return 0;
}

int xfer_dir(const char* dir, int orb) {
    if (strcmp(dir, ".") != 0 && !matches(dir)) {
        if (first_complaint(Complained_dirs, dir)) {
            elog_complain(1, "ignoring directory '%s': doesn't match file_match/file_reject criteria.",
                          dir);
        }
        return 0;
    }
    Tbl* names = dirfiles(dir, 0);  // unreadable: null, nothing to do
    for (long i = 0; i < maxtbl(names); i++) {
        char* path = concatpaths(dir, static_cast<char*>(gettbl(names, i)));
        if (path == nullptr) die_nomem(__LINE__, nomem_source(__FILE__), strlen(dir) + 2, "path");
        if (is_dir(path)) {
            xfer_dir(path, orb);
        } else if (xfer_filename(path, nullptr, orb) == 0) {
            unlink(path);
        }
        free(path);
    }
    freetbl(names, free);
    return 0;
}

void watch(const char* watchdir, int orb) {
    if (chdir(watchdir) != 0) elog_die(1, "Can't cd to '%s'", watchdir);
    for (;;) {
        xfer_dir(".", orb);
        sleep(1);
    }
}

int xmit_files(int argc, char** argv, const char* watchdir) {
    const char* name = argv[argc - 1];
    guard_mappings();
    int orb = orbopen(name, "w&");
    if (orb < 0) elog_die(0, "Can't open output '%s'", name);
    if (send_leading_packet(orb) < 0) elog_die(0, "Failed to send initial ferrant packet");

    int total = 0;
    for (int i = optind; i < argc - 1; i++) {
        char* arg = argv[i];
        if (strcmp(arg, "-") == 0) {
            // A directory listed here is deliberately not walked: the walk is
            // of "-" itself, which finds nothing unless such a directory exists.
            char* line = nullptr;
            size_t size = 0;
            while (getaline(stdin, &line, &size) >= 0) {
                if (is_file(line)) {
                    total += xfer_filename(line, nullptr, orb);
                } else if (is_dir(line)) {
                    fstraverse(arg, FSTRAVERSE_RECURSE, xfer_filename, orb);
                }
            }
            free(line);
        } else if (is_file(arg)) {
            total += xfer_filename(arg, nullptr, orb);
        } else if (is_dir(arg)) {
            fstraverse(arg, FSTRAVERSE_RECURSE, xfer_filename, orb);
        }
    }

    if (watchdir != nullptr) watch(watchdir, orb);

    if (send_trailing_packet(orb) < 0) elog_die(0, "Failed to send final ferrant packet");
    orbclose(orb);
    return total;
}

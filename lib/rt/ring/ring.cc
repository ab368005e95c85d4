// The ring store. The file layout is described in docs/ring-format.md; keep the
// two in step (and bump kVersion when a record changes).
#include "ring/ring.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unordered_map>

namespace ring {

namespace {

constexpr char kMagic[8] = {'f', 'r', 'n', 'g', 'r', 'i', 'n', 'g'};
constexpr uint32_t kVersion = 1;
constexpr uint32_t kEndian = 0x01020304;
constexpr uint64_t kHeaderBytes = 4096;

// Geometry and layout: written once at creation, covered by `check`.
struct Geo {
    char magic[8];
    uint32_t version;
    uint32_t endian;
    uint32_t header_bytes, entry_bytes, source_bytes, stash_head_bytes, client_bytes;
    uint32_t nslots;
    int32_t maxpkts;
    uint32_t maxsrc, maxclients, nstash, stash_bytes, stash_stride;
    uint64_t data_bytes;
    uint64_t index_off, sources_off, stash_off, clients_off, data_off, file_bytes;
    double orb_start;
    uint64_t check;
};

struct Header {
    Geo g;
    alignas(64) pthread_mutex_t lock;
    // Changed under the lock; head and tail are also read without it.
    alignas(64) std::atomic<uint64_t> head;
    std::atomic<uint64_t> tail;
    std::atomic<uint64_t> disorder;   // 1 + latest seq whose time fell below its predecessor's
    uint64_t data_head;               // logical data offset where the next packet goes
    uint64_t bytes_used;
    uint64_t puts;
    uint64_t recoveries;
    uint64_t stash_clock;
    double last_time;
    uint32_t nsources;
    uint32_t dirty;                   // set while a change is under way
    int32_t next_session;
    // Waiting: the futex word is bumped on every put and wake_all.
    alignas(64) std::atomic<uint32_t> wakeword;
    std::atomic<uint32_t> waiters;
    // The client table has its own lock so that client bookkeeping never
    // holds up a put.
    alignas(64) pthread_mutex_t client_lock;
};
static_assert(sizeof(Header) <= kHeaderBytes);

struct IndexEntry {
    std::atomic<uint64_t> seq1;       // seq + 1 of the packet held, 0 for none; written last
    double time;
    uint64_t offset;                  // logical data offset (physical = offset % data_bytes)
    uint32_t size;
    int32_t src;
    uint64_t next_same1;              // seq + 1 of the next packet of the same source, 0 for none
    char srcname[kNameBytes];
};

struct SourceRec {
    char name[kNameBytes];
    uint64_t npkts, nbytes;
    uint64_t oldest, latest;          // seqs
    double oldest_time, latest_time;
    uint32_t used;
    uint32_t pad;
};

struct StashHead {
    char name[kNameBytes];
    double time;
    uint64_t stamp;
    uint32_t size;
    uint32_t used;
    char pad[40];
};
static_assert(sizeof(StashHead) == 128);

struct ClientSlot {
    std::atomic<uint32_t> state;      // 0 free, 1 live
    int32_t pid, thread, fd, port;
    uint8_t address[4];
    char perm;
    char pad[3];
    uint64_t pid_start;
    double started;
    char who[24], what[128], host[128], select[96], reject[96];
    int32_t nselect, nreject;
    ClientCounters c;
};

// The documented layout (docs/ring-format.md); a change here is a new format version.
static_assert(sizeof(Geo) == 136 && offsetof(Geo, data_bytes) == 64 && offsetof(Geo, orb_start) == 120);
static_assert(offsetof(Header, lock) == 192 && offsetof(Header, head) == 256 && offsetof(Header, tail) == 264 &&
              offsetof(Header, disorder) == 272 && offsetof(Header, data_head) == 280 &&
              offsetof(Header, dirty) == 332 && offsetof(Header, next_session) == 336 &&
              offsetof(Header, wakeword) == 384 && offsetof(Header, waiters) == 388 &&
              offsetof(Header, client_lock) == 448);
static_assert(sizeof(IndexEntry) == 104 && offsetof(IndexEntry, srcname) == 40);
static_assert(sizeof(SourceRec) == 120 && offsetof(SourceRec, used) == 112);
static_assert(sizeof(ClientSlot) == 584 && offsetof(ClientSlot, pid_start) == 32 && offsetof(ClientSlot, who) == 48 &&
              offsetof(ClientSlot, nselect) == 520 && offsetof(ClientSlot, c) == 528);
static_assert(offsetof(ClientCounters, lastpkt) == 48 && sizeof(ClientCounters) == 56);

static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<double>::is_always_lock_free,
              "the file is shared between processes: atomics must not hide a lock");

uint64_t fnv(const void* p, size_t n) {
    auto b = static_cast<const unsigned char*>(p);
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < n; i++) h = (h ^ b[i]) * 1099511628211ull;
    return h;
}

uint64_t round_up(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }

double wall_now() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

std::string errtext(int e) { return std::strerror(e); }

// Fills in the layout from the counts; false with *why when out of bounds.
bool layout(Geo& g, std::string* why) {
    auto bad = [&](const char* m) { *why = m; return false; };
    if (g.data_bytes < 4096 || g.data_bytes > (1ull << 40)) return bad("data size out of range (4 KiB to 1 TiB)");
    if (g.nslots < 1 || g.nslots > (1u << 26)) return bad("index slot count out of range (1 to 2^26)");
    if (g.maxpkts < 1) return bad("packet id modulus below 1");
    if (uint64_t(g.nslots) > uint64_t(g.maxpkts)) return bad("more index slots than packet ids");
    if (g.maxsrc < 1 || g.maxsrc > (1u << 20)) return bad("source table size out of range (1 to 2^20)");
    if (g.maxclients < 1 || g.maxclients > (1u << 16)) return bad("client table size out of range (1 to 65536)");
    if (g.nstash > (1u << 16)) return bad("stash count out of range (0 to 65536)");
    if (g.stash_bytes > (64u << 20)) return bad("stash packet size out of range (0 to 64 MiB)");
    g.header_bytes = kHeaderBytes;
    g.entry_bytes = sizeof(IndexEntry);
    g.source_bytes = sizeof(SourceRec);
    g.stash_head_bytes = sizeof(StashHead);
    g.client_bytes = sizeof(ClientSlot);
    g.stash_stride = uint32_t(round_up(sizeof(StashHead) + uint64_t(g.stash_bytes), 64));
    g.index_off = kHeaderBytes;
    g.sources_off = round_up(g.index_off + uint64_t(g.nslots) * sizeof(IndexEntry), 64);
    g.stash_off = round_up(g.sources_off + uint64_t(g.maxsrc) * sizeof(SourceRec), 64);
    g.clients_off = round_up(g.stash_off + uint64_t(g.nstash) * g.stash_stride, 64);
    g.data_off = round_up(g.clients_off + uint64_t(g.maxclients) * sizeof(ClientSlot), 4096);
    g.file_bytes = g.data_off + g.data_bytes;
    return true;
}

// Start time of a process (clock ticks since boot), 0 when unknown; guards
// against a dead client's pid having been given to a new process.
uint64_t proc_start(int pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE* f = std::fopen(path, "re");
    if (!f) return 0;
    char buf[1024];
    size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    buf[n] = 0;
    const char* p = std::strrchr(buf, ')');
    if (!p) return 0;
    p++;
    // After the command come state (field 3) ... starttime (field 22).
    for (int field = 3; field < 22 && *p; field++) {
        while (*p == ' ') p++;
        while (*p && *p != ' ') p++;
    }
    return std::strtoull(p, nullptr, 10);
}

bool alive(int pid, uint64_t start) {
    if (pid <= 0) return false;
    if (kill(pid, 0) != 0 && errno == ESRCH) return false;
    if (start) {
        uint64_t now = proc_start(pid);
        if (now && now != start) return false;
    }
    return true;
}

long futex(std::atomic<uint32_t>* word, int op, uint32_t val, const timespec* ts) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op, val, ts, nullptr, 0);
}

void copy_name(char (&dst)[kNameBytes], std::string_view s) {
    std::memset(dst, 0, kNameBytes);
    std::memcpy(dst, s.data(), std::min(s.size(), kNameBytes - 1));
}

template <size_t N>
void copy_text(char (&dst)[N], const char* src) {
    size_t n = strnlen(src, N - 1);
    std::memcpy(dst, src, n);
    std::memset(dst + n, 0, N - n);
}

bool name_is(const char (&field)[kNameBytes], std::string_view s) {
    size_t n = s.size();
    if (n >= kNameBytes || field[n] != 0) return false;
    // Names from one sender share long prefixes and differ at the end (a
    // transfer tag per file): look there first, as a new name is compared
    // with every entry of the source table.
    if (n > 0 && field[n - 1] != s[n - 1]) return false;
    return std::memcmp(field, s.data(), n) == 0;
}

void init_mutex(pthread_mutex_t* m) {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(m, &a);
    pthread_mutexattr_destroy(&a);
}

// Byte-range locks on the ring file tell whether any other process has it open
// (byte 1, shared while open) and keep openers from racing on that test (byte 0).
bool range_lock(int fd, short type, off_t at, bool wait) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = at;
    fl.l_len = 1;
    while (fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &fl) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

// The process's umask without changing it (umask() would, for every thread).
mode_t current_umask() {
    mode_t m = 022;
    if (FILE* f = std::fopen("/proc/self/status", "re")) {
        char line[256];
        while (std::fgets(line, sizeof line, f))
            if (std::strncmp(line, "Umask:", 6) == 0) m = mode_t(std::strtoul(line + 6, nullptr, 8));
        std::fclose(f);
    }
    return m;
}

struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd() { if (fd >= 0) ::close(fd); }
    int release() { int f = fd; fd = -1; return f; }
};

struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};

}  // namespace

void (*Ring::test_hook_before_publish)() = nullptr;

struct Ring::Impl {
    int fd = -1;
    void* map = MAP_FAILED;
    Geo g{};                       // validated copy; bounds come from here, never from the file
    Header* h = nullptr;
    IndexEntry* idx = nullptr;
    SourceRec* src = nullptr;
    char* stash = nullptr;
    ClientSlot* cl = nullptr;
    char* data = nullptr;
    // Source-table index by name, this process's guess, checked against the
    // file before use. Touched only under the ring lock.
    std::unordered_map<std::string, int32_t, NameHash, std::equal_to<>> src_cache;
    int32_t last_src = -1;

    ~Impl() {
        if (map != MAP_FAILED) munmap(map, g.file_bytes);
        if (fd >= 0) ::close(fd);
    }

    void attach(int f, void* m, const Geo& geo) {
        fd = f;
        map = m;
        g = geo;
        auto base = static_cast<char*>(m);
        h = reinterpret_cast<Header*>(base);
        idx = reinterpret_cast<IndexEntry*>(base + g.index_off);
        src = reinterpret_cast<SourceRec*>(base + g.sources_off);
        stash = base + g.stash_off;
        cl = reinterpret_cast<ClientSlot*>(base + g.clients_off);
        data = base + g.data_off;
    }

    StashHead* stash_at(uint32_t i) { return reinterpret_cast<StashHead*>(stash + uint64_t(i) * g.stash_stride); }
    IndexEntry& slot(uint64_t seq) const { return idx[seq % g.nslots]; }

    // Rebuilds everything derived from the index after a lock holder died
    // mid-change: the source table, byte count and bounds.
    void recover() {
        uint64_t head = h->head.load(), tail = h->tail.load();
        if (tail > head) tail = head;
        if (head - tail > g.nslots) tail = head - g.nslots;
        h->tail.store(tail);
        for (uint32_t i = 0; i < g.maxsrc; i++) {
            SourceRec& s = src[i];
            s.name[kNameBytes - 1] = 0;
            s.npkts = s.nbytes = 0;
        }
        uint32_t nsources = 0;
        uint64_t bytes = 0, disorder = 0;
        double last = -HUGE_VAL;
        for (uint64_t seq = tail; seq < head; seq++) {
            IndexEntry& e = slot(seq);
            if (e.seq1.load() != seq + 1) {
                disorder = seq + 1;   // a hole: no promise of order across it
                continue;
            }
            if (!(e.time >= last)) disorder = seq + 1;
            last = e.time;
            e.next_same1 = 0;
            bytes += e.size;
            if (e.src < 0 || uint32_t(e.src) >= g.maxsrc || !src[e.src].used ||
                std::memcmp(src[e.src].name, e.srcname, kNameBytes) != 0) {
                e.src = -1;
                continue;
            }
            SourceRec& s = src[e.src];
            if (s.npkts == 0) {
                nsources++;
                s.oldest = seq;
                s.oldest_time = e.time;
            } else {
                slot(s.latest).next_same1 = seq + 1;
            }
            s.npkts++;
            s.nbytes += e.size;
            s.latest = seq;
            s.latest_time = e.time;
        }
        h->nsources = nsources;
        h->bytes_used = bytes;
        h->disorder.store(disorder);
        h->last_time = head > tail ? last : 0;
        h->recoveries++;
        src_cache.clear();
        last_src = -1;
    }
};

namespace {

// The ring lock, held for the scope. A dead holder is recovered from here.
class Locked {
public:
    explicit Locked(Ring::Impl& im) : m_(&im.h->lock) {
        int r = pthread_mutex_lock(m_);
        if (r == EOWNERDEAD) {
            im.recover();
            im.h->dirty = 0;
            pthread_mutex_consistent(m_);
            r = 0;
        }
        ok_ = r == 0;
    }
    ~Locked() { if (ok_) pthread_mutex_unlock(m_); }
    bool ok() const { return ok_; }

protected:
    explicit Locked(pthread_mutex_t* m) : m_(m) {}
    pthread_mutex_t* m_;
    bool ok_ = false;
};

// The client-table lock. Every change to an entry is a single store of its
// state word, so a dead holder leaves nothing to repair.
class ClientsLocked : public Locked {
public:
    explicit ClientsLocked(Ring::Impl& im) : Locked(&im.h->client_lock) {
        int r = pthread_mutex_lock(m_);
        if (r == EOWNERDEAD) r = pthread_mutex_consistent(m_);
        ok_ = r == 0;
    }
};

// Reads and checks the header of an open ring file; throws Error.
Geo check_header(int fd, const std::string& path) {
    struct stat st;
    if (fstat(fd, &st) != 0) throw Error(path + ": " + errtext(errno));
    if (!S_ISREG(st.st_mode)) throw Error(path + ": not a regular file");
    if (uint64_t(st.st_size) < kHeaderBytes)
        throw Error(path + ": not a ring file or truncated (" + std::to_string(st.st_size) +
                    " bytes, shorter than a ring header)");
    Geo g;
    if (pread(fd, &g, sizeof g, 0) != ssize_t(sizeof g)) throw Error(path + ": cannot read ring header: " + errtext(errno));
    if (std::memcmp(g.magic, kMagic, sizeof kMagic) != 0) throw Error(path + ": not a ring file (bad magic)");
    if (g.endian != kEndian) throw Error(path + ": ring file of another machine byte order");
    if (g.version != kVersion)
        throw Error(path + ": ring file format version " + std::to_string(g.version) + ", this program reads " +
                    std::to_string(kVersion));
    if (g.check != fnv(&g, offsetof(Geo, check))) throw Error(path + ": ring header is corrupt (checksum mismatch)");
    Geo want = g;
    std::string why;
    if (!layout(want, &why)) throw Error(path + ": ring header is corrupt (" + why + ")");
    if (std::memcmp(&want, &g, offsetof(Geo, orb_start)) != 0)
        throw Error(path + ": ring header is corrupt (inconsistent layout)");
    if (uint64_t(st.st_size) < g.file_bytes)
        throw Error(path + ": ring file is truncated (" + std::to_string(st.st_size) + " bytes of " +
                    std::to_string(g.file_bytes) + ")");
    return g;
}

void* map_file(int fd, uint64_t bytes, const std::string& path) {
    void* m = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) throw Error(path + ": cannot map ring file: " + errtext(errno));
    return m;
}

}  // namespace

Ring::Ring(std::string path, std::unique_ptr<Impl> impl) : path_(std::move(path)), impl_(std::move(impl)) {}
Ring::~Ring() = default;

namespace {

// Opens an existing file; returns null (errno set) only when it does not exist.
std::unique_ptr<Ring::Impl> open_impl(const std::string& path) {
    Fd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (fd.fd < 0) {
        if (errno == ENOENT) return nullptr;
        throw Error(path + ": " + errtext(errno));
    }
    if (!range_lock(fd.fd, F_WRLCK, 0, true)) throw Error(path + ": cannot lock ring file: " + errtext(errno));
    Geo g = check_header(fd.fd, path);
    auto im = std::make_unique<Ring::Impl>();
    void* m = map_file(fd.fd, g.file_bytes, path);
    im->attach(fd.release(), m, g);
    Header* h = im->h;
    bool alone = range_lock(im->fd, F_WRLCK, 1, false);
    uint64_t head = h->head.load(), tail = h->tail.load();
    if (tail > head || head - tail > g.nslots) {
        range_lock(im->fd, F_UNLCK, 0, false);
        throw Error(path + ": ring header is corrupt (packet bounds " + std::to_string(tail) + ".." +
                    std::to_string(head) + ")");
    }
    if (alone) {
        // Nobody else has the file open, so nobody can hold the lock or wait:
        // whatever the lock word says is left over from a crash.
        init_mutex(&h->lock);
        init_mutex(&h->client_lock);
        h->waiters.store(0);
        if (h->dirty) {
            im->recover();
            h->dirty = 0;
        }
    }
    range_lock(im->fd, F_RDLCK, 1, false);
    range_lock(im->fd, F_UNLCK, 0, false);
    return im;
}

Geo normalise(const Geometry& in) {
    Geo g{};
    std::memcpy(g.magic, kMagic, sizeof kMagic);
    g.version = kVersion;
    g.endian = kEndian;
    Geometry r = resolve_geometry(in);
    g.data_bytes = r.data_bytes;
    g.nslots = r.nslots;
    g.maxpkts = r.maxpkts;
    g.maxsrc = r.maxsrc;
    g.maxclients = r.maxclients;
    g.nstash = r.nstash;
    g.stash_bytes = r.stash_bytes;
    return g;
}

// Builds a complete ring in a temporary file beside path; returns its name
// and the attached Impl (the file is already marked open by this process).
std::pair<std::string, std::unique_ptr<Ring::Impl>> build_temp(const std::string& path, const Geometry& geometry) {
    Geo g = normalise(geometry);
    std::string why;
    if (g.maxpkts < 1) throw Error(path + ": cannot create ring: packet id modulus below 1");
    if (!layout(g, &why)) throw Error(path + ": cannot create ring: " + why);
    g.orb_start = wall_now();
    g.check = fnv(&g, offsetof(Geo, check));

    std::string tmp = path + ".XXXXXX";
    std::vector<char> name(tmp.begin(), tmp.end());
    name.push_back(0);
    Fd fd(mkostemp(name.data(), O_CLOEXEC));
    if (fd.fd < 0) throw Error(path + ": cannot create ring: " + errtext(errno));
    tmp.assign(name.data());
    auto fail = [&](const std::string& what, int e) {
        ::unlink(tmp.c_str());
        throw Error(path + ": cannot create ring: " + what + ": " + errtext(e));
    };
    if (fchmod(fd.fd, 0666 & ~current_umask()) != 0) fail("chmod", errno);
    if (ftruncate(fd.fd, off_t(g.file_bytes)) != 0) fail("resize", errno);
    // Reserve the space now: running out of disk later would kill writers
    // with SIGBUS in the middle of a put.
    int r = posix_fallocate(fd.fd, 0, off_t(g.file_bytes));
    if (r != 0 && r != EOPNOTSUPP && r != EINVAL) fail("allocate " + std::to_string(g.file_bytes) + " bytes", r);
    range_lock(fd.fd, F_RDLCK, 1, false);
    void* m = mmap(nullptr, g.file_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.fd, 0);
    if (m == MAP_FAILED) fail("map", errno);
    // Bring every page into the page cache now, once per ring: claiming a
    // fresh page in the middle of a put costs far more than a copy, and puts
    // would stall on it until the ring has wrapped once. Best effort, and
    // only for a ring that the page cache can comfortably hold.
#ifdef MADV_POPULATE_READ
    if (g.file_bytes <= uint64_t(sysconf(_SC_PHYS_PAGES)) * uint64_t(sysconf(_SC_PAGESIZE)) / 4)
        madvise(m, g.file_bytes, MADV_POPULATE_READ);
#endif
    auto im = std::make_unique<Ring::Impl>();
    im->attach(fd.release(), m, g);
    Header* h = im->h;
    init_mutex(&h->lock);
    init_mutex(&h->client_lock);
    h->next_session = 1;
    h->g = g;   // last: the file is a ring only once its header is whole
    return {tmp, std::move(im)};
}

}  // namespace

Geometry resolve_geometry(const Geometry& in) {
    Geometry g;
    g.data_bytes = in.data_bytes ? in.data_bytes : (64ull << 20);
    uint64_t slots = in.nslots ? in.nslots : std::max<uint64_t>(64, std::min<uint64_t>(g.data_bytes / 512, 1u << 26));
    g.maxpkts = in.maxpkts ? in.maxpkts : INT32_MAX;
    if (g.maxpkts > 0 && slots > uint64_t(g.maxpkts)) slots = uint64_t(g.maxpkts);
    g.nslots = uint32_t(std::min<uint64_t>(slots, UINT32_MAX));
    if (in.nslots > (1u << 26)) g.nslots = in.nslots;   // let layout() refuse it
    g.maxsrc = in.maxsrc ? in.maxsrc : 1024;
    g.maxclients = in.maxclients ? in.maxclients : 256;
    g.nstash = in.nstash ? in.nstash : 64;
    g.stash_bytes = in.stash_bytes ? in.stash_bytes : 65536;
    return g;
}

std::unique_ptr<Ring> Ring::open(const std::string& path) {
    auto im = open_impl(path);
    if (!im) throw Error(path + ": " + errtext(ENOENT));
    return std::unique_ptr<Ring>(new Ring(path, std::move(im)));
}

std::unique_ptr<Ring> Ring::create(const std::string& path, const Geometry& g) {
    auto [tmp, im] = build_temp(path, g);
    if (::rename(tmp.c_str(), path.c_str()) != 0) {
        int e = errno;
        ::unlink(tmp.c_str());
        throw Error(path + ": cannot create ring: " + errtext(e));
    }
    return std::unique_ptr<Ring>(new Ring(path, std::move(im)));
}

std::unique_ptr<Ring> Ring::open_or_create(const std::string& path, const Geometry& g) {
    if (auto im = open_impl(path)) return std::unique_ptr<Ring>(new Ring(path, std::move(im)));
    auto [tmp, im] = build_temp(path, g);
    int r = ::link(tmp.c_str(), path.c_str());
    int e = errno;
    ::unlink(tmp.c_str());
    if (r == 0) return std::unique_ptr<Ring>(new Ring(path, std::move(im)));
    if (e != EEXIST) throw Error(path + ": cannot create ring: " + errtext(e));
    im.reset();   // another process made it first: use theirs
    return open(path);
}

// ---------------------------------------------------------------- writing

namespace {

// The source-table entry for a name not in the cache: its own, else a free
// one, else one whose packets have all gone; -1 when the table is full of
// sources with packets present (that packet then goes uncounted).
int32_t take_source(Ring::Impl& im, std::string_view name) {
    int32_t si = -1, freei = -1, idle = -1;
    for (uint32_t i = 0; i < im.g.maxsrc; i++) {
        SourceRec& s = im.src[i];
        if (!s.used) {
            if (freei < 0) freei = int32_t(i);
        } else if (name_is(s.name, name)) {
            si = int32_t(i);
            break;
        } else if (s.npkts == 0 && idle < 0) {
            idle = int32_t(i);
        }
    }
    if (si < 0) si = freei >= 0 ? freei : idle;
    if (si < 0) return -1;
    SourceRec& s = im.src[si];
    if (!s.used || !name_is(s.name, name)) {
        std::memset(&s, 0, sizeof s);
        copy_name(s.name, name);
        s.used = 1;
    }
    // Entries get reused for other names (a sender of many files brings a
    // new one with every file), so cached names go stale; a stale one only
    // costs a table scan, and past a bound the cache starts afresh.
    if (im.src_cache.size() >= 2 * size_t(im.g.maxsrc)) im.src_cache.clear();
    im.src_cache[std::string(name)] = si;
    return si;
}

}  // namespace

int64_t Ring::put(std::string_view name, double time, const void* bytes, size_t size, std::string* why) {
    Impl& im = *impl_;
    const Geo& g = im.g;
    if (name.size() >= kNameBytes || std::memchr(name.data(), 0, name.size())) {
        if (why) *why = "source name longer than 63 bytes or containing NUL";
        return -1;
    }
    if (size > g.data_bytes || size > UINT32_MAX) {
        if (why) *why = "packet of " + std::to_string(size) + " bytes exceeds the ring's data area";
        return -1;
    }
    Header* h = im.h;
    {
        Locked lk(im);
        if (!lk.ok()) {
            if (why) *why = "ring lock unusable";
            return -1;
        }
        h->dirty = 1;
        const uint64_t cap = g.data_bytes;
        const uint64_t seq = h->head.load(std::memory_order_relaxed);
        uint64_t pos = h->data_head;
        if (size && pos % cap + size > cap) pos += cap - pos % cap;   // packets never straddle the end
        const uint64_t end = pos + size;

        // Evict what the new packet's index slot or bytes would overwrite.
        uint64_t tail = h->tail.load(std::memory_order_relaxed);
        if (tail > seq) tail = seq;
        if (seq - tail > g.nslots) tail = seq - g.nslots;   // damaged bounds: don't walk them
        while (tail < seq) {
            IndexEntry& e = im.slot(tail);
            bool intact = e.seq1.load(std::memory_order_relaxed) == tail + 1;
            if (intact && seq - tail < g.nslots && !(end > cap && e.offset + cap < end)) break;
            if (intact) {
                h->bytes_used -= std::min<uint64_t>(h->bytes_used, e.size);
                if (e.src >= 0 && uint32_t(e.src) < g.maxsrc) {
                    SourceRec& s = im.src[e.src];
                    if (s.npkts > 0 && s.oldest == tail) {
                        s.npkts--;
                        s.nbytes -= std::min<uint64_t>(s.nbytes, e.size);
                        if (s.npkts == 0) {
                            h->nsources -= h->nsources > 0;
                        } else if (e.next_same1) {
                            s.oldest = e.next_same1 - 1;
                            s.oldest_time = im.slot(s.oldest).time;
                        }
                    }
                }
            }
            tail++;
        }
        h->tail.store(tail, std::memory_order_release);
        // Readers check the tail after copying: it must move before the bytes do.
        std::atomic_thread_fence(std::memory_order_seq_cst);

        if (size) std::memcpy(im.data + pos % cap, bytes, size);

        // Find or take the source's table entry.
        int32_t si = im.last_src;
        if (si < 0 || uint32_t(si) >= g.maxsrc || !im.src[si].used || !name_is(im.src[si].name, name)) {
            si = -1;
            auto it = im.src_cache.find(name);
            if (it != im.src_cache.end() && im.src[it->second].used && name_is(im.src[it->second].name, name)) {
                si = it->second;
            } else {
                si = take_source(im, name);
            }
            im.last_src = si;
        }

        IndexEntry& e = im.slot(seq);
        e.time = time;
        e.offset = pos;
        e.size = uint32_t(size);
        e.src = si;
        e.next_same1 = 0;
        copy_name(e.srcname, name);
        if (si >= 0) {
            SourceRec& s = im.src[si];
            if (s.npkts == 0) {
                h->nsources++;
                s.oldest = seq;
                s.oldest_time = time;
                s.nbytes = 0;
            } else {
                im.slot(s.latest).next_same1 = seq + 1;
            }
            s.npkts++;
            s.nbytes += size;
            s.latest = seq;
            s.latest_time = time;
        }

        if (seq > tail && !(time >= h->last_time)) h->disorder.store(seq + 1, std::memory_order_relaxed);
        h->last_time = time;
        h->data_head = end;
        h->bytes_used += size;
        h->puts++;
        if (test_hook_before_publish) test_hook_before_publish();
        e.seq1.store(seq + 1, std::memory_order_release);
        h->head.store(seq + 1, std::memory_order_release);
        h->dirty = 0;
        h->wakeword.fetch_add(1, std::memory_order_seq_cst);
        if (h->waiters.load(std::memory_order_seq_cst) > 0) futex(&h->wakeword, FUTEX_WAKE, INT_MAX, nullptr);
        return int64_t(seq);
    }
}

// ---------------------------------------------------------------- positions

uint64_t Ring::head() const { return impl_->h->head.load(std::memory_order_acquire); }
uint64_t Ring::tail() const { return impl_->h->tail.load(std::memory_order_acquire); }
int32_t Ring::maxpkts() const { return impl_->g.maxpkts; }

std::optional<uint64_t> Ring::oldest() const {
    uint64_t t = tail();
    if (t >= head()) return {};
    return t;
}

std::optional<uint64_t> Ring::newest() const {
    uint64_t hd = head();
    if (hd == 0 || hd - 1 < tail()) return {};
    return hd - 1;
}

std::optional<uint64_t> Ring::find(int32_t id) const {
    uint64_t hd = head(), t = tail();
    return seq_of_pktid(id, t, hd, maxpkts());
}

std::optional<uint64_t> seq_of_pktid(int32_t id, uint64_t t, uint64_t hd, int32_t maxpkts) {
    const uint64_t m = uint64_t(maxpkts);
    if (id < 0 || uint64_t(id) >= m || hd <= t) return {};
    uint64_t newest = hd - 1;
    uint64_t back = (newest % m + m - uint64_t(id)) % m;
    if (back > newest - t) return {};
    return newest - back;
}

std::optional<uint64_t> Ring::after_time(double t) const {
    Entry e;
    uint64_t hi = head(), lo = std::max(tail(), hi - std::min<uint64_t>(hi, impl_->g.nslots));
    if (impl_->h->disorder.load(std::memory_order_relaxed) <= lo) {
        // Times rise through the ring: halve to the first later one. A packet
        // evicted meanwhile moves the bottom up; a damaged one ends the search
        // and the scan below takes over from where it got.
        while (lo < hi) {
            uint64_t mid = lo + (hi - lo) / 2;
            if (!entry(mid, &e)) {
                uint64_t t0 = tail();
                if (mid >= t0) break;
                lo = t0;
                hi = std::max(hi, lo);
                continue;
            }
            if (e.time > t) hi = mid; else lo = mid + 1;
        }
    }
    for (uint64_t s = lo; s < head() && s - lo <= impl_->g.nslots; s++) {
        s = std::max(s, tail());
        if (entry(s, &e) && e.time > t) return s;
    }
    return {};
}

uint64_t Ring::next_seq(uint64_t at) const { return std::max(at + 1, tail()); }

std::optional<uint64_t> Ring::prev_seq(uint64_t at) const {
    uint64_t t = tail(), hd = head();
    if (at > hd) at = hd;
    if (at == 0 || at - 1 < t) return {};
    return at - 1;
}

// ---------------------------------------------------------------- reading

namespace {

// Copies the index data of seq; false if absent. Caller re-checks the tail.
bool copy_entry(const Ring::Impl& im, uint64_t seq, Entry* e, uint64_t* phys) {
    const Header* h = im.h;
    if (seq >= h->head.load(std::memory_order_acquire) || seq < h->tail.load(std::memory_order_acquire)) return false;
    const IndexEntry& x = im.slot(seq);
    if (x.seq1.load(std::memory_order_acquire) != seq + 1) return false;
    e->seq = seq;
    e->pktid = fold_pktid(seq, im.g.maxpkts);
    e->time = x.time;
    e->size = x.size;
    e->src = x.src;
    std::memcpy(e->srcname, x.srcname, kNameBytes);
    e->srcname[kNameBytes - 1] = 0;
    uint64_t p = x.offset % im.g.data_bytes;
    if (e->size > im.g.data_bytes - p) return false;   // damaged entry: never read outside the area
    if (e->src >= 0 && uint32_t(e->src) >= im.g.maxsrc) e->src = -1;
    *phys = p;
    return true;
}

bool unchanged(const Ring::Impl& im, uint64_t seq) {
    std::atomic_thread_fence(std::memory_order_acquire);
    return im.h->tail.load(std::memory_order_acquire) <= seq &&
           im.slot(seq).seq1.load(std::memory_order_acquire) == seq + 1;
}

}  // namespace

bool Ring::entry(uint64_t seq, Entry* e) const {
    uint64_t p;
    return copy_entry(*impl_, seq, e, &p) && unchanged(*impl_, seq);
}

bool Ring::read(uint64_t seq, Entry* e, std::vector<char>& buf, size_t maxbytes) const {
    uint64_t p;
    if (!copy_entry(*impl_, seq, e, &p)) return false;
    size_t n = std::min<size_t>(e->size, maxbytes);
    buf.resize(n);
    if (n) std::memcpy(buf.data(), impl_->data + p, n);
    return unchanged(*impl_, seq);
}

bool Ring::view(uint64_t seq, Entry* e, const char** bytes) const {
    uint64_t p;
    if (!copy_entry(*impl_, seq, e, &p) || !unchanged(*impl_, seq)) return false;
    *bytes = impl_->data + p;
    return true;
}

bool Ring::still_valid(uint64_t seq) const { return seq < head() && unchanged(*impl_, seq); }

// ---------------------------------------------------------------- waiting

uint32_t Ring::wake_count() const { return impl_->h->wakeword.load(std::memory_order_seq_cst); }

bool Ring::wait(uint64_t seen, int timeout_ms) const { return wait_since(seen, wake_count(), timeout_ms); }

bool Ring::wait_since(uint64_t seen, uint32_t since, int timeout_ms) const {
    Header* h = impl_->h;
    timespec deadline{};
    if (timeout_ms >= 0) {
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += timeout_ms / 1000;
        deadline.tv_nsec += long(timeout_ms % 1000) * 1000000;
        if (deadline.tv_nsec >= 1000000000) deadline.tv_sec++, deadline.tv_nsec -= 1000000000;
    }
    for (;;) {
        if (head() > seen) return true;
        if (h->wakeword.load(std::memory_order_seq_cst) != since) return head() > seen;
        timespec rel{}, *tp = nullptr;
        if (timeout_ms >= 0) {
            timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            rel.tv_sec = deadline.tv_sec - now.tv_sec;
            rel.tv_nsec = deadline.tv_nsec - now.tv_nsec;
            if (rel.tv_nsec < 0) rel.tv_sec--, rel.tv_nsec += 1000000000;
            if (rel.tv_sec < 0) return false;
            tp = &rel;
        }
        // Announce the waiter before the last look, so that a put either is
        // seen here or sees the waiter and wakes it.
        h->waiters.fetch_add(1, std::memory_order_seq_cst);
        long r = 0;
        int e = 0;
        if (head() <= seen) {
            r = futex(&h->wakeword, FUTEX_WAIT, since, tp);
            e = errno;
        }
        h->waiters.fetch_sub(1, std::memory_order_seq_cst);
        if (r != 0 && e == ETIMEDOUT) return head() > seen;
    }
}

void Ring::wake_all() const {
    Header* h = impl_->h;
    h->wakeword.fetch_add(1, std::memory_order_seq_cst);
    futex(&h->wakeword, FUTEX_WAKE, INT_MAX, nullptr);
}

// ---------------------------------------------------------------- sources

namespace {

void fill_source(const Ring::Impl& im, uint32_t i, Source* s) {
    const SourceRec& r = im.src[i];
    std::memcpy(s->srcname, r.name, kNameBytes);
    s->srcname[kNameBytes - 1] = 0;
    s->index = int32_t(i);
    s->npkts = r.npkts;
    s->nbytes = r.nbytes;
    s->oldest_seq = r.oldest;
    s->latest_seq = r.latest;
    s->soldest = fold_pktid(r.oldest, im.g.maxpkts);
    s->slatest = fold_pktid(r.latest, im.g.maxpkts);
    s->soldest_time = r.oldest_time;
    s->slatest_time = r.latest_time;
}

}  // namespace

std::vector<Source> Ring::sources() const {
    std::vector<Source> out;
    Locked lk(*impl_);
    if (!lk.ok()) return out;
    for (uint32_t i = 0; i < impl_->g.maxsrc; i++) {
        if (!impl_->src[i].used || impl_->src[i].npkts == 0) continue;
        out.emplace_back();
        fill_source(*impl_, i, &out.back());
    }
    return out;
}

bool Ring::source(int32_t index, Source* s) const {
    if (index < 0 || uint32_t(index) >= impl_->g.maxsrc) return false;
    Locked lk(*impl_);
    if (!lk.ok() || !impl_->src[index].used || impl_->src[index].npkts == 0) return false;
    fill_source(*impl_, uint32_t(index), s);
    return true;
}

// ---------------------------------------------------------------- stash

bool Ring::stash_put(std::string_view name, double time, const void* bytes, size_t size, std::string* why) {
    Impl& im = *impl_;
    if (name.size() >= kNameBytes || std::memchr(name.data(), 0, name.size())) {
        if (why) *why = "source name longer than 63 bytes or containing NUL";
        return false;
    }
    if (im.g.nstash == 0 || size > im.g.stash_bytes) {
        if (why) *why = "stash packet of " + std::to_string(size) + " bytes exceeds the limit of " +
                        std::to_string(im.g.stash_bytes);
        return false;
    }
    Locked lk(im);
    if (!lk.ok()) {
        if (why) *why = "ring lock unusable";
        return false;
    }
    uint32_t pick = 0;
    bool found = false;
    uint64_t oldest = UINT64_MAX;
    for (uint32_t i = 0; i < im.g.nstash; i++) {
        StashHead* s = im.stash_at(i);
        if (s->used && name_is(s->name, name)) { pick = i; found = true; break; }
        uint64_t age = s->used ? s->stamp : 0;
        if (age < oldest) { oldest = age; pick = i; }
    }
    StashHead* s = im.stash_at(pick);
    im.h->dirty = 1;
    s->used = 0;
    if (!found) copy_name(s->name, name);
    s->time = time;
    s->size = uint32_t(size);
    if (size) std::memcpy(reinterpret_cast<char*>(s) + sizeof(StashHead), bytes, size);
    s->stamp = ++im.h->stash_clock;
    s->used = 1;
    im.h->dirty = 0;
    return true;
}

bool Ring::stash_get(std::string_view name, Entry* e, std::vector<char>& buf) const {
    Impl& im = *impl_;
    if (name.size() >= kNameBytes) return false;
    Locked lk(im);
    if (!lk.ok()) return false;
    for (uint32_t i = 0; i < im.g.nstash; i++) {
        StashHead* s = im.stash_at(i);
        if (!s->used || !name_is(s->name, name)) continue;
        if (s->size > im.g.stash_bytes) return false;
        e->seq = 0;
        e->pktid = -1;
        e->time = s->time;
        e->size = s->size;
        e->src = -1;
        copy_name(e->srcname, name);
        buf.assign(reinterpret_cast<char*>(s) + sizeof(StashHead),
                   reinterpret_cast<char*>(s) + sizeof(StashHead) + s->size);
        return true;
    }
    return false;
}

// ---------------------------------------------------------------- clients

namespace {

struct Owner {
    uint32_t slot;
    int32_t pid;
    uint64_t start;
};

// Live entries' owners, read under the client lock; their liveness is then
// checked without it (that takes system calls).
std::vector<Owner> owners(Ring::Impl& im) {
    std::vector<Owner> v;
    ClientsLocked lk(im);
    if (!lk.ok()) return v;
    for (uint32_t i = 0; i < im.g.maxclients; i++) {
        ClientSlot& s = im.cl[i];
        if (s.state.load() == 1) v.push_back({i, s.pid, s.pid_start});
    }
    return v;
}

// Frees the entries of owners found dead, unless taken anew meanwhile.
void reclaim(Ring::Impl& im, const std::vector<Owner>& dead) {
    if (dead.empty()) return;
    ClientsLocked lk(im);
    if (!lk.ok()) return;
    for (const Owner& o : dead) {
        ClientSlot& s = im.cl[o.slot];
        if (s.state.load() == 1 && s.pid == o.pid && s.pid_start == o.start) s.state.store(0);
    }
}

std::vector<Owner> dead_owners(Ring::Impl& im) {
    std::vector<Owner> dead;
    for (const Owner& o : owners(im))
        if (!alive(o.pid, o.start)) dead.push_back(o);
    return dead;
}

}  // namespace

int32_t Ring::client_add(const Client& c) {
    Impl& im = *impl_;
    const int32_t pid = int32_t(getpid());
    const uint64_t start = proc_start(pid);
    for (int attempt = 0; attempt < 2; attempt++) {
        if (attempt) reclaim(im, dead_owners(im));
        ClientsLocked lk(im);
        if (!lk.ok()) return -1;
        int32_t pick = -1;
        for (uint32_t i = 0; i < im.g.maxclients && pick < 0; i++)
            if (im.cl[i].state.load() == 0) pick = int32_t(i);
        if (pick < 0) continue;
        ClientSlot& s = im.cl[pick];
        s.pid = pid;
        s.pid_start = start;
        int32_t id = im.h->next_session;
        im.h->next_session = id >= INT32_MAX - 1 || id < 1 ? 1 : id + 1;
        s.thread = id < 1 ? 1 : id;
        s.fd = c.fd;
        s.port = c.port;
        std::memcpy(s.address, c.address, 4);
        s.perm = c.perm;
        s.started = wall_now();
        copy_text(s.who, c.who);
        copy_text(s.what, c.what);
        copy_text(s.host, c.host);
        copy_text(s.select, c.select);
        copy_text(s.reject, c.reject);
        s.nselect = s.select[0] ? int32_t(std::strlen(s.select) + 1) : 0;
        s.nreject = s.reject[0] ? int32_t(std::strlen(s.reject) + 1) : 0;
        ClientCounters& k = s.c;
        k.pktid.store(c.pktid);
        k.read.store(c.read);
        k.bytes.store(c.bytes);
        k.packets.store(c.packets);
        k.written.store(c.written);
        k.nreads.store(c.nreads);
        k.nwrites.store(c.nwrites);
        k.nrequests.store(c.nrequests);
        k.errors.store(c.errors);
        k.priority.store(c.priority);
        k.lastrequest.store(c.lastrequest);
        k.mymessages.store(c.mymessages);
        k.lastpkt.store(c.lastpkt);
        s.state.store(1, std::memory_order_release);
        return pick;
    }
    return -1;
}

void Ring::client_remove(int32_t slot) {
    Impl& im = *impl_;
    if (slot < 0 || uint32_t(slot) >= im.g.maxclients) return;
    ClientsLocked lk(im);
    ClientSlot& s = im.cl[slot];
    if (lk.ok() && s.pid == int32_t(getpid())) s.state.store(0);
}

ClientCounters* Ring::counters(int32_t slot) {
    if (slot < 0 || uint32_t(slot) >= impl_->g.maxclients) return nullptr;
    return &impl_->cl[slot].c;
}

namespace {

template <size_t N>
void set_pattern(Ring::Impl& im, int32_t slot, char (ClientSlot::*text)[N], int32_t ClientSlot::*len,
                 std::string_view pattern) {
    if (slot < 0 || uint32_t(slot) >= im.g.maxclients) return;
    std::string p(pattern.substr(0, N - 1));
    ClientsLocked lk(im);
    if (!lk.ok()) return;
    ClientSlot& s = im.cl[slot];
    copy_text(s.*text, p.c_str());
    s.*len = (s.*text)[0] ? int32_t(std::strlen(s.*text) + 1) : 0;
}

}  // namespace

void Ring::client_set_select(int32_t slot, std::string_view pattern) {
    set_pattern(*impl_, slot, &ClientSlot::select, &ClientSlot::nselect, pattern);
}

void Ring::client_set_reject(int32_t slot, std::string_view pattern) {
    set_pattern(*impl_, slot, &ClientSlot::reject, &ClientSlot::nreject, pattern);
}

std::vector<Client> Ring::clients() {
    Impl& im = *impl_;
    reclaim(im, dead_owners(im));
    std::vector<Client> out;
    ClientsLocked lk(im);
    if (!lk.ok()) return out;
    for (uint32_t i = 0; i < im.g.maxclients; i++) {
        ClientSlot& s = im.cl[i];
        if (s.state.load() != 1) continue;
        Client c;
        c.slot = int32_t(i);
        c.pid = s.pid;
        c.thread = s.thread;
        c.fd = s.fd;
        c.port = s.port;
        std::memcpy(c.address, s.address, 4);
        c.perm = s.perm;
        copy_text(c.who, s.who);
        copy_text(c.what, s.what);
        copy_text(c.host, s.host);
        copy_text(c.select, s.select);
        copy_text(c.reject, s.reject);
        c.nselect = c.select[0] ? int32_t(std::strlen(c.select) + 1) : 0;
        c.nreject = c.reject[0] ? int32_t(std::strlen(c.reject) + 1) : 0;
        c.started = s.started;
        const ClientCounters& k = s.c;
        c.lastpkt = k.lastpkt.load(std::memory_order_relaxed);
        c.pktid = k.pktid.load(std::memory_order_relaxed);
        c.read = k.read.load(std::memory_order_relaxed);
        c.bytes = k.bytes.load(std::memory_order_relaxed);
        c.packets = k.packets.load(std::memory_order_relaxed);
        c.written = k.written.load(std::memory_order_relaxed);
        c.nreads = k.nreads.load(std::memory_order_relaxed);
        c.nwrites = k.nwrites.load(std::memory_order_relaxed);
        c.nrequests = k.nrequests.load(std::memory_order_relaxed);
        c.errors = k.errors.load(std::memory_order_relaxed);
        c.priority = k.priority.load(std::memory_order_relaxed);
        c.lastrequest = k.lastrequest.load(std::memory_order_relaxed);
        c.mymessages = k.mymessages.load(std::memory_order_relaxed);
        out.push_back(c);
    }
    return out;
}

bool Ring::session_active(int32_t thread) {
    Impl& im = *impl_;
    if (thread < 1) return false;
    Owner o{};
    bool found = false;
    {
        ClientsLocked lk(im);
        if (!lk.ok()) return false;
        for (uint32_t i = 0; i < im.g.maxclients && !found; i++) {
            ClientSlot& s = im.cl[i];
            if (s.state.load() == 1 && s.thread == thread) o = {i, s.pid, s.pid_start}, found = true;
        }
    }
    if (!found) return false;
    if (alive(o.pid, o.start)) return true;
    reclaim(im, {o});
    return false;
}

Status Ring::status() const {
    Impl& im = *impl_;
    const Geo& g = im.g;
    Status st;
    st.orb_start = g.orb_start;
    st.data_bytes = g.data_bytes;
    st.nslots = g.nslots;
    st.maxpkts = g.maxpkts;
    st.maxsrc = g.maxsrc;
    st.maxclients = g.maxclients;
    st.nstash = g.nstash;
    st.stash_bytes = g.stash_bytes;
    for (uint32_t i = 0; i < g.maxclients; i++) st.nclients += im.cl[i].state.load() == 1;
    Locked lk(im);
    st.head = head();
    st.tail = tail();
    if (!lk.ok()) return st;
    st.bytes_used = im.h->bytes_used;
    st.nsources = im.h->nsources;
    st.puts = im.h->puts;
    st.recoveries = im.h->recoveries;
    return st;
}

}  // namespace ring

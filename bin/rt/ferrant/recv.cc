// Receive mode: rebuilds each run of xfer packets into a file under an
// interim name, checking every running key, and renames it into place when
// the final packet agrees with the initial digest.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "direct.h"
#include "ferrant2.h"
#include "orb/orb.h"
#include "pkt/pkt.h"
#include "stock/allot.h"
#include "stock/arr.h"
#include "stock/bury.h"
#include "stock/elog.h"
#include "stock/epoch.h"
#include "stock/path.h"
#include "stock/printable.h"
#include "worker.h"

// Zero like any unset global: with a fresh state file resurrection then
// fails and starting_position applies.
int Last_file_pktid = 0;
double Last_file_pkttime = 0;

namespace {

Arr* Filetracks = nullptr;
Packet* Pkt = nullptr;

char* copy(const char* s) {
    char* c = strdup(s);
    if (c == nullptr) die_nomem(__LINE__, nomem_source(__FILE__), strlen(s) + 1, "file name");
    return c;
}

// Bytes 128..255 count as unprintable, deliberately: only ASCII names pass.
// Whoever can write to the ring names the files, so a name must stay below
// the receive directory: one leading "/" is dropped, and what is then still
// absolute, or climbs with a ".." component, is refused.
bool valid_name(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    for (const char* p = name; *p; p++) {
        if (!printable(*p)) return false;
    }
    const char* rel = name + (*name == '/');
    if (*rel == '/' || *rel == '\0') return false;
    for (const char* c = rel; *c;) {
        size_t n = strcspn(c, "/");
        if (n == 2 && c[0] == '.' && c[1] == '.') return false;
        c += n + (c[n] == '/');
    }
    return true;
}

// A fresh file at path, never through whatever waits there: a planted
// symbolic or hard link is removed, not written through, and one planted
// again before the create makes the open fail.
FILE* create_fresh(const char* path) {
    if (unlink(path) != 0 && errno == EISDIR) return nullptr;  // a directory in the way, as errno tells
    int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    FILE* f = fdopen(fd, "w+");
    if (f == nullptr) close(fd);
    return f;
}

// A failed run gives up its interim file; the stream is closed here so that
// hostile or broken runs cannot use up descriptors.
void settle_write();

void discard(Track* t) {
    settle_write();
    delete t->direct;
    t->direct = nullptr;
    if (t->file) {
        fclose(t->file);
        t->file = nullptr;
    }
    if (t->filename) unlink(t->filename);
}

void finished(int pktid, double pkttime) {
    if (Params.statefile) {
        Last_file_pktid = pktid;
        Last_file_pkttime = pkttime;
        bury();
    }
}

const unsigned char Nokey[16] = {};

// Large packets go around the page cache (direct.h). What is written
// through it is pushed to the disk as it goes and dropped from the cache a
// little later: new data then lands in recycled pages
// instead of claiming fresh memory for every byte, and a big transfer does
// not crowd everything else out of the cache. Roughly the last Behind bytes
// written stay cached. Ranges are queued with their own descriptor, so a
// file may be closed and renamed before its range is dropped.
constexpr size_t Chunk = 8 << 20;
constexpr size_t Behind = 32 << 20;
constexpr size_t Max_queued = 64;
constexpr size_t Small_file = 1 << 20;

struct Range {
    int fd;
    off_t off;
    size_t len;
};
// Never destroyed: an exit while the writer thread queues must not race a destructor.
std::deque<Range>& Queued = *new std::deque<Range>;
size_t Queued_bytes = 0;

std::mutex Queued_mutex;  // main and writer threads may both queue

// Takes over own, a duplicate of the file's descriptor.
void queue_behind(int own, size_t off, size_t len) {
    std::lock_guard<std::mutex> lock(Queued_mutex);
    sync_file_range(own, static_cast<off_t>(off), static_cast<off_t>(len), SYNC_FILE_RANGE_WRITE);
    Queued.push_back({own, static_cast<off_t>(off), len});
    Queued_bytes += len;
    while (Queued_bytes > Behind || Queued.size() > Max_queued) {
        Range r = Queued.front();
        Queued.pop_front();
        Queued_bytes -= r.len;
        sync_file_range(r.fd, r.off, static_cast<off_t>(r.len),
                        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
        posix_fadvise(r.fd, r.off, static_cast<off_t>(r.len), POSIX_FADV_DONTNEED);
        close(r.fd);
    }
}

Worker& writer();

// Queues what the track has written since it last did; a file still being
// written only whole chunks at a time. A file's last range is queued by the
// writer thread: starting its writeback costs the main thread as much as a
// small file's data. False when flushing the stream failed: its buffered
// bytes are lost then, and with them the file.
bool write_behind(Track* t, bool ending) {
    if (!ending && t->totbytes - t->behind < Chunk) return true;
    if (fflush(t->file) != 0) return false;
    // A small file is left to the kernel's own writeback: a disk request
    // and a hand-over per file cost more than the cache it would spare.
    if (ending && t->behind == 0 && t->totbytes < Small_file) return true;
    size_t off = t->behind, len = t->totbytes - t->behind;
    t->behind = t->totbytes;
    int own = len ? fcntl(fileno(t->file), F_DUPFD_CLOEXEC, 0) : -1;
    if (own < 0) return true;  // then those pages just stay cached
    if (ending) writer().start([own, off, len] { queue_behind(own, off, len); });
    else queue_behind(own, off, len);
    return true;
}

// Below this a hand-over to the writer costs more than it saves.
constexpr int Parallel_write = 256 << 10;

// Writes of consecutive data packets of one file queued at once: the
// writer thread appends them to the interim file while the main thread
// digests the packets after them. Each outcome is settled, oldest first,
// before anything else touches that file or track.
constexpr size_t In_flight = 4;

struct Write {
    Track* track;
    int seq;
    bool ok;
    int error;
    uint64_t ticket;
};
// Oldest first. Never destroyed: an exit may come while the writer runs.
std::deque<Write>& Writes = *new std::deque<Write>;

// Ends a file's direct writes: the carried bytes go through the page cache.
bool end_direct(Track* t) {
    if (t->direct == nullptr) return true;
    std::unique_ptr<DirectAppender> d(t->direct);
    t->direct = nullptr;
    if (!d->end()) return false;
    size_t n = d->ncarried();
    t->behind = t->totbytes - n;
    return fwrite(d->carried(), 1, n, t->file) == n;
}

// Large packets of a file go around the page cache from its first byte on;
// once anything has gone through the cache, the rest of the file does too.
// Only the writer thread sees large packets: a direct write waits for the
// device.
bool append(Track* t, const char* data, size_t n) {
    bool large = n >= size_t(Parallel_write);
    if (large && t->totbytes == 0 && t->direct == nullptr)
        t->direct = DirectAppender::start(fileno(t->file)).release();
    if (large && t->direct != nullptr) {
        if (!t->direct->append(data, n)) return false;
        t->totbytes += n;
        t->behind = t->totbytes;  // nothing of it is cached
        return true;
    }
    if (!end_direct(t)) return false;
    if (fwrite(data, 1, n, t->file) != n) return false;
    t->totbytes += n;
    return write_behind(t, false);
}

Worker& writer() {
    static Worker* w = new Worker(In_flight);  // never joined: it outlives every exit path
    return *w;
}

void write_failed(Track* t, int seq, int error) {
    if (t->drop) return;  // only the first failure of a file is told
    errno = error;
    elog_complain(1, "failed writing sequence #%d of %s", seq, t->filename);
    t->drop = 1;
    discard(t);
}

// Waits for the oldest queued write and takes in its outcome.
void settle_oldest() {
    writer().wait(Writes.front().ticket);
    Write w = Writes.front();
    Writes.pop_front();
    if (!w.ok) write_failed(w.track, w.seq, w.error);
}

// Settles queued writes oldest first: waits until at most keep are left,
// and takes in any further ones that are already done.
void settle_writes(size_t keep) {
    while (!Writes.empty() && (Writes.size() > keep || writer().finished(Writes.front().ticket)))
        settle_oldest();
}

void settle_write() { settle_writes(0); }

// Appends a data packet to the track's interim file, in the background when
// it is large; data must stay valid until the write is settled.
void write_data(Track* t, int seq, const char* data, int ndata) {
    auto n = static_cast<size_t>(ndata);
    if (ndata < Parallel_write) {
        settle_write();
        if (t->drop) return;
        if (!append(t, data, n)) write_failed(t, seq, errno);
        return;
    }
    settle_writes(In_flight - 1);
    if (t->drop) return;
    Writes.push_back({t, seq, true, 0, 0});
    Write* w = &Writes.back();  // stays put while later writes are queued behind it
    w->ticket = writer().start([w, t, data, n] {
        w->ok = append(t, data, n);
        w->error = errno;
    });
}

}  // namespace

Track* newtrack() {
    auto* t = static_cast<Track*>(calloc(1, sizeof(Track)));
    if (t == nullptr) die_nomem(__LINE__, nomem_source(__FILE__), sizeof(Track), "track");
    inirvm(&t->rvm);
    return t;
}

void droptrack(Arr* filetracks, const char* srcname, Track* track) {
    delarr(filetracks, srcname);
    delete track->direct;
    free(track->filename);
    free(track);
}

char* interim_name(const char* filename) {
    if (*filename == '/') filename++;
    size_t n = strlen(filename);
    char* s = static_cast<char*>(malloc(n + 2));
    if (s == nullptr) die_nomem(__LINE__, nomem_source(__FILE__), n + 2, "interim name");
    memcpy(s, filename, n);
    s[n] = '-';
    s[n + 1] = '\0';
    return s;
}

char* final_name(const char* filename) {
    char* s = copy(filename);
    size_t n = strlen(s);
    if (n > 0 && s[n - 1] == '-') s[n - 1] = '\0';
    return s;
}

int save_packet(int pktid, double pkttime, char* srcname, int seq, int mode, char* digest, int ndata,
                char* data) {
    if (Filetracks == nullptr) Filetracks = newarr();
    const unsigned char* key = digest ? reinterpret_cast<unsigned char*>(digest) : Nokey;
    auto* t = static_cast<Track*>(getarr(Filetracks, srcname));
    // Only the next data packet of the file being written may overlap its writes.
    bool continues = t != nullptr && !Writes.empty() && Writes.back().track == t && !t->drop &&
                     seq == t->seq + 1 && ndata > 0;
    if (!continues) settle_write();

    if (seq == 0) {
        if (t != nullptr) {
            elog_complain(0, "received duplicate sequence 0 pktid #%d packet '%s'", pktid, srcname);
            return 0;
        }
        t = newtrack();
        setarr(Filetracks, srcname, t);
        char* interim = nullptr;
        if (!valid_name(data)) {
            elog_complain(0, "received packet with invalid filename '%s'", data ? data : "");
            t->file = nullptr;
            t->drop = 1;
        } else {
            elog_notify(0, "receiving '%s'", data);
            interim = interim_name(data);
            char dir[PATH_MAX], base[PATH_MAX];
            dirbase(interim, dir, base);
            if (Params.preserve_directories) {
                t->filename = copy(interim);
                if (makedir(dir) != 0) {
                    elog_complain(1, "Can't create directory '%s'", dir);
                    t->drop = 1;
                    t->file = nullptr;
                } else {
                    t->file = create_fresh(interim);
                }
            } else {
                t->file = create_fresh(base);
                t->filename = copy(base);
            }
        }
        memcpy(t->digest, key, 16);
        if (t->file == nullptr) {
            elog_complain(1, "Can't open %s to write", interim ? interim : (data ? data : ""));
            t->drop = 1;
        } else {
            // Never setuid, setgid or sticky: a writer of the ring must not plant
            // a privileged program, least of all under a receiver run as root.
            fchmod(fileno(t->file), static_cast<mode_t>(mode) & 0777);
        }
        free(interim);
        return 0;
    }

    if (t == nullptr) {
        elog_complain(0, "pktid #%d is sequence #%d of %s, but no previous packets seen", pktid, seq,
                      srcname);
        return 0;
    }
    if (t->drop) {
        if (ndata == 0) droptrack(Filetracks, srcname, t);
        return 0;
    }
    if (seq > t->seq + 1) {
        // "old" and the last accepted number are what operators have always seen here.
        elog_complain(0, "received old sequence #%d in pktid #%d %s, expected sequence #%d", seq, pktid,
                      srcname, t->seq);
        return 0;
    }
    if (seq <= t->seq) {
        elog_complain(0, "out of sequence at pktid #%d for %s:  #%d -> #%d", pktid, srcname, t->seq - 1,
                      seq);
        t->drop = 1;
        discard(t);
        return 0;
    }

    t->seq = seq;
    if (ndata != 0) {
        // Large data goes to the writer before it is digested, so that its
        // write overlaps its own digest; should the key not match, the file
        // is given up all the same, and only the mismatch is told.
        bool ahead = ndata >= Parallel_write;
        if (ahead) write_data(t, seq, data, ndata);
        else settle_write();
        if (t->drop) return 0;  // an earlier write failed and gave the file up
        if (ndata > 0) addrvm(&t->rvm, data, static_cast<size_t>(ndata));
        Rvm local = t->rvm;
        endrvm(&local);
        if (memcmp(local.digest, key, 16) != 0) {
            // A failed write of an earlier packet is what happened first;
            // the last one queued is this packet's own.
            while (Writes.size() > 1) settle_oldest();
            if (t->drop) return 0;
            elog_complain(0, "digest mismatch at sequence #%d for file %s", seq, t->filename);
            fputs("locally computed:\n", stderr);
            hexdump(stderr, local.digest, 16);
            fputs("packet key:\n", stderr);
            hexdump(stderr, key, 16);
            t->drop = 1;
            discard(t);
        } else if (ndata < 0) {
            elog_complain(1, "failed writing sequence #%d of %s", seq, t->filename);
            t->drop = 1;
            discard(t);
        } else if (!ahead) {
            write_data(t, seq, data, ndata);
        }
        return 0;
    }

    if (memcmp(t->digest, key, 16) != 0) {
        elog_complain(0, "digest mismatch at last packet for file %s\n      file changed during transmission",
                      t->filename);
        discard(t);
    } else {
        bool flushed = end_direct(t) && write_behind(t, true);
        int e = errno;
        int closed = fclose(t->file);
        t->file = nullptr;
        if (!flushed || closed != 0) {
            if (!flushed) errno = e;
            elog_complain(1, "failed to close file %s", t->filename);
            unlink(t->filename);
        } else {
            char* final = final_name(t->filename);
            if (rename(t->filename, final) == 0) {
                elog_notify(0, "received %s (%d bytes, %d packets)", final, static_cast<int>(t->totbytes),
                            t->seq);
            } else {
                elog_complain(1, "failed to rename completed file %s", t->filename);
            }
            free(final);
        }
    }
    finished(pktid, pkttime);
    droptrack(Filetracks, srcname, t);
    return 0;
}

namespace {

// Acts on one packet that unstuffPkt has already unpacked (r is its result).
void handle(int pktid, char* srcname, double time, char* packet, int nbytes, int r, Packet* pkt) {
    // Only an xfer packet settles the write in flight itself; for any other
    // the write must end here, as the slot it reads from is reused next.
    if (r != PKT_XFER_TYPE) settle_write();
    if (r == PKT_XFER_TYPE) {
        if (Verbose > 1) showPkt(pktid, srcname, time, packet, nbytes, stderr, 5);
        save_packet(pktid, time, srcname, pkt->string_size, pkt->nchannels, pkt->string, pkt->dfile_size,
                    pkt->dfile);
    } else if (r == -1) {
        if (strcmp(pkt->parts.src_suffix, "xfer") == 0) {
            elog_complain(0, "failed to unstuff xfer packet #%d %s", pktid, srcname);
            showPkt(pktid, srcname, time, packet, nbytes, stderr, 5);
            finished(pktid, time);
        }
    }
}

}  // namespace

int process_packet(int pktid, char* srcname, double time, char* packet, int nbytes) {
    int r = unstuffPkt(srcname, time, packet, nbytes, &Pkt);
    handle(pktid, srcname, time, packet, nbytes, r, Pkt);
    settle_write();  // the next unstuffPkt reuses the data it writes from
    return 0;
}

namespace {

// Packets read from the ring ahead of the one being processed, so that the
// copies out of the connection overlap with digesting and writing. A
// reaping thread fills a few slots in order; the main thread empties them.
class Readahead {
public:
    explicit Readahead(int orb) : orb_(orb), thread_([this] { reap(); }) { thread_.detach(); }

    struct Slot {
        int pktid = 0, nbytes = 0, bufsize = 0;
        char srcname[PKT_SRCNAMESIZE] = {};
        double time = 0;
        char* packet = nullptr;
        bool failed = false;
        int kind = 0;  // unstuffPkt's result
        Packet* pkt = nullptr;
    };

    // The next packet in order, unpacked. It stays valid for In_flight more
    // calls: the background writes of a packet's data overlap the digests of
    // the packets after it.
    Slot& next() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (held_ == Held) {
            held_--;
            tail_++;
        }
        while (head_ - tail_ <= held_) {
            if (reaper_waits_) {  // whatever room there is: never both asleep
                reaper_waits_ = false;
                room_.notify_one();
            }
            next_waits_ = true;
            filled_.wait(lock);
        }
        bool wake = reaper_waits_ && Depth - (head_ - tail_) >= Refill;
        if (wake) reaper_waits_ = false;
        Slot& s = slots_[(tail_ + held_++) % Depth];
        lock.unlock();  // then the woken side does not run into a held lock
        if (wake) room_.notify_one();
        return s;
    }

private:
    // The main thread holds the packet it works on and those still being written.
    // A reaper that has filled every slot is woken again only once Refill are
    // free: one wake-up per few packets, not one per packet, when it runs ahead.
    static constexpr unsigned Held = In_flight + 1, Depth = Held + 8, Refill = 4;

    void reap() {
        background_thread();
        for (;;) {
            Slot* s;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                while (head_ - tail_ == Depth) {
                    reaper_waits_ = true;
                    room_.wait(lock);
                }
                s = &slots_[head_ % Depth];
            }
            s->failed = orbreap(orb_, &s->pktid, s->srcname, &s->time, &s->packet, &s->nbytes, &s->bufsize) != 0;
            if (!s->failed) {
                // Data is used where it arrived; only the initial packet's,
                // the file name, is wanted as a string.
                s->kind = unstuffPktInPlace(s->srcname, s->time, s->packet, s->nbytes, &s->pkt);
                if (s->kind == PKT_XFER_TYPE && s->pkt->string_size == 0)
                    s->kind = unstuffPkt(s->srcname, s->time, s->packet, s->nbytes, &s->pkt);
            }
            std::unique_lock<std::mutex> lock(mutex_);
            head_++;
            bool wake = next_waits_;
            next_waits_ = false;
            lock.unlock();
            if (wake) filled_.notify_one();
            if (s->failed) return;
        }
    }

    int orb_;
    Slot slots_[Depth];
    unsigned head_ = 0, tail_ = 0;  // filled up to head_, emptied up to tail_
    unsigned held_ = 0;             // handed out and not yet emptied, from tail_
    bool next_waits_ = false, reaper_waits_ = false;  // wake only a side that sleeps
    std::mutex mutex_;
    std::condition_variable filled_, room_;
    std::thread thread_;
};

}  // namespace

void copy_from_orb(int orb) {
    static Readahead* ahead = new Readahead(orb);  // lives as long as the process
    for (;;) {
        Readahead::Slot& s = ahead->next();
        if (s.failed) {
            settle_write();
            elog_die(0, "orbreap fails");
        }
        handle(s.pktid, s.srcname, s.time, s.packet, s.nbytes, s.kind, s.pkt);
    }
}

void recv_files(int, char** argv) {
    const char* name = argv[optind];
    int orb = orbopen(name, "r&");
    if (orb < 0) elog_die(0, "Can't open input '%s'\n", name);

    bool positioned = false;
    if (Params.statefile) {
        // The texts stay as operators know them, although a fresh state file
        // gets the "failed" notice.
        if (exhume(Params.statefile, nullptr, 0, 0) != 0) elog_notify(0, "read old state file\n");
        else elog_notify(0, "failed to read old state file");
        if (orbresurrect(orb, &Last_file_pktid, &Last_file_pkttime) == 0) {
            char* when = strtime(Last_file_pkttime);
            elog_notify(0, "resurrection successful: repositioned to pktid #%d @ %s\n", Last_file_pktid,
                        when);
            free(when);
            positioned = true;
        } else {
            elog_complain(0, "resurrection unsuccessful\n");
        }
    }
    if (!positioned) {
        int pktid = orbposition(orb, Params.starting_position ? Params.starting_position : "");
        elog_notify(0, "Starting at pktid=%d", pktid);
    }
    if (Params.match) orbselect(orb, Params.match);
    if (Params.reject) orbreject(orb, Params.reject);

    if (Params.directory) {
        if (!is_dir(Params.directory)) {
            makedir(Params.directory);
            if (!is_dir(Params.directory)) elog_die(0, "Can't create directory '%s'", Params.directory);
        }
        if (chdir(Params.directory) != 0) elog_die(1, "Can't chdir to %s", Params.directory);
    }
    copy_from_orb(orb);
}

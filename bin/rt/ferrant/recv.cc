// Receive mode: rebuilds each run of xfer packets into a file under an
// interim name, checking every running key, and renames it into place when
// the final packet agrees with the initial digest.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
bool valid_name(const char* name) {
    if (name == nullptr || *name == '\0') return false;
    for (const char* p = name; *p; p++) {
        if (!printable(*p)) return false;
    }
    return true;
}

// A failed run gives up its interim file; the stream is closed here so that
// hostile or broken runs cannot use up descriptors.
void discard(Track* t) {
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

}  // namespace

Track* newtrack() {
    auto* t = static_cast<Track*>(calloc(1, sizeof(Track)));
    if (t == nullptr) die_nomem(__LINE__, nomem_source(__FILE__), sizeof(Track), "track");
    inirvm(&t->rvm);
    return t;
}

void droptrack(Arr* filetracks, const char* srcname, Track* track) {
    delarr(filetracks, srcname);
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
                    t->file = fopen(interim, "w+");
                }
            } else {
                t->file = fopen(base, "w+");
                t->filename = copy(base);
            }
        }
        memcpy(t->digest, key, 16);
        if (t->file == nullptr) {
            elog_complain(1, "Can't open %s to write", interim ? interim : (data ? data : ""));
            t->drop = 1;
        } else {
            fchmod(fileno(t->file), static_cast<mode_t>(mode) & 07777);
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
        if (ndata > 0) addrvm(&t->rvm, data, static_cast<size_t>(ndata));
        Rvm local = t->rvm;
        endrvm(&local);
        if (memcmp(local.digest, key, 16) != 0) {
            elog_complain(0, "digest mismatch at sequence #%d for file %s", seq, t->filename);
            fputs("locally computed:\n", stderr);
            hexdump(stderr, local.digest, 16);
            fputs("packet key:\n", stderr);
            hexdump(stderr, key, 16);
            t->drop = 1;
            discard(t);
        } else if (ndata < 0 || fwrite(data, 1, static_cast<size_t>(ndata), t->file) != static_cast<size_t>(ndata)) {
            elog_complain(1, "failed writing sequence #%d of %s", seq, t->filename);
            t->drop = 1;
            discard(t);
        } else {
            t->totbytes += static_cast<size_t>(ndata);
        }
        return 0;
    }

    if (memcmp(t->digest, key, 16) != 0) {
        elog_complain(0, "digest mismatch at last packet for file %s\n      file changed during transmission",
                      t->filename);
        discard(t);
    } else {
        int closed = fclose(t->file);
        t->file = nullptr;
        if (closed != 0) {
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

int process_packet(int pktid, char* srcname, double time, char* packet, int nbytes) {
    int r = unstuffPkt(srcname, time, packet, nbytes, &Pkt);
    if (r == PKT_XFER_TYPE) {
        if (Verbose > 1) showPkt(pktid, srcname, time, packet, nbytes, stderr, 5);
        save_packet(pktid, time, srcname, Pkt->string_size, Pkt->nchannels, Pkt->string, Pkt->dfile_size,
                    Pkt->dfile);
    } else if (r == -1) {
        if (strcmp(Pkt->parts.src_suffix, "xfer") == 0) {
            elog_complain(0, "failed to unstuff xfer packet #%d %s", pktid, srcname);
            showPkt(pktid, srcname, time, packet, nbytes, stderr, 5);
            finished(pktid, time);
        }
    }
    return 0;
}

void copy_from_orb(int orb) {
    char* packet = nullptr;
    int bufsize = 0;
    int pktid, nbytes;
    char srcname[PKT_SRCNAMESIZE];
    double time;
    for (;;) {
        if (orbreap(orb, &pktid, srcname, &time, &packet, &nbytes, &bufsize) != 0) {
            elog_die(0, "orbreap fails");
        }
        process_packet(pktid, srcname, time, packet, nbytes);
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

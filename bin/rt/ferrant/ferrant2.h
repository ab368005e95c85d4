// ferrant2: moves whole files between hosts through a ring-buffer server.
// The entry unit (ferrant2.cc) owns the process-wide settings; the sender
// (xmit.cc) and the receiver (recv.cc) read them. One thread, plus a worker
// thread (worker.h) that digests on the second core while the main thread
// copies and writes.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdio>

#include "stock/rvm.h"

struct LagParams;
struct Arr;
class DirectAppender;

struct Parameters {
    char* directory;          // receive directory, or null
    char* starting_position;  // where a receiver without usable state starts
    char* statefile;          // absolute path from -S, or null
    char* match;              // receiver's source-name select pattern, or null
    char* reject;             // receiver's source-name reject pattern, or null
    int preserve_directories; // receiver keeps the sender's directory part
    int bytes_per_packet;     // sender's largest data chunk
    char* file_match;         // sender's path pattern a file must match, or null
    char* file_reject;        // sender's path pattern that excludes a file, or null
};

extern Parameters Params;
extern LagParams* Lag;
extern int Verbose;
extern char* Net_sta;

// ---- entry ----
void setup_parameters(const char* pfname);  // fatal on failure
[[noreturn]] void usage();

// ---- sender ----
// Sum of xfer_filename results for files named directly or on standard input.
int xmit_files(int argc, char** argv, const char* watchdir);
// 0 sent (or not mappable, or sending failed), 1 refused by the file patterns,
// -1 not stat-able or not a plain file. statbuf is ignored.
int xfer_filename(const char* filename, struct stat* statbuf, int orb);
int xfer_dir(const char* dir, int orb);
[[noreturn]] void watch(const char* watchdir, int orb);
int matches(const char* path);
// The next transfer id: seconds of the day, strictly above the previous id.
int next_xfer_id();
// The transfer tag "id/" plus as much of the base name as keeps it at 31 characters.
void xfer_tag(int id, const char* filename, char* tag /* 32 bytes */);

// ---- receiver ----
struct Track {
    int drop;
    char* filename;
    int seq;
    size_t totbytes;
    size_t behind;  // bytes handed to the page-cache drop-behind so far
    Rvm rvm;
    unsigned char digest[16];
    FILE* file;
    DirectAppender* direct;  // while large packets go around the page cache, or null
};

extern int Last_file_pktid;
extern double Last_file_pkttime;

[[noreturn]] void recv_files(int argc, char** argv);
[[noreturn]] void copy_from_orb(int orb);
int process_packet(int pktid, char* srcname, double time, char* packet, int nbytes);
// May return with the write of data still in flight (it overlaps the digest
// of the next packet); process_packet, the entry for a single packet, waits
// for it.
int save_packet(int pktid, double pkttime, char* srcname, int seq, int mode, char* digest, int ndata,
                char* data);
Track* newtrack();
void droptrack(Arr* filetracks, const char* srcname, Track* track);
char* interim_name(const char* filename);  // new string
char* final_name(const char* filename);    // new string

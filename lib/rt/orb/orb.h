// The ring-buffer client library: open a connection to a ring-buffer server by name,
// exchange requests with it, read and write packets, hold a writer back while its
// readers lag, and keep a connection opened with "&" alive across server restarts.
//
// A connection is named by an int, the orb descriptor (its socket). Results follow the
// system's convention: 0 (or a non-negative id) for success, -1 for failure, other
// negative values for the distinct failures told beside each function. Pointers handed
// back into a connection's response stay valid until the next exchange on it.
// One thread at a time per connection; the table of connections and the cached
// orbserver_names tree are guarded by a process-wide mutex.
//
// Server names: "host[:port]" (port 6510 when absent), ":" or "" (localhost:6510),
// "host:name" with name looked up in the orbserver_names parameter file, and paths
// starting "/", "./" or "../" (a local file-backed ring served by forbserver over a
// socket pair; "path@opt" passes -opt). A trailing "@" makes orbopen wait for ever.
// "addr,addr,..." lists front ends of one ring (network names only): the open takes
// the first that accepts, and a reconnection tries them all starting after the one
// that failed.
//
// Environment: BNS_TIMEOUT (ms, default 60000), BNS_RESEND (messages kept for resending,
// default 2), ORB_MAX_DATA_BYTES, ORB_DUMP (directory for exchange logs), ORB_IP_ADDRESS
// (local address to bind), FORB_DEBUGGER (run forbserver under it). OrbVerbose is on while
// a file named "verbose" exists in the working directory.
#pragma once

#include <cstdio>

#if __has_include("orb/orbfile.h")
#include "orb/orbfile.h"  // Orbfile, the protocol records, request and position codes
#else
struct Orbfile;
struct Orbrequest;
struct Orbresponse;
struct Orbstat;
struct Orbclient;
struct Orbsrc;
#endif

struct Pf;
struct Tbl;

extern int OrbVerbose;

// ---- connection ----
int orbopen(const char* name, const char* mode);  // mode "r", "w", "r&", "w&"; descriptor or -1
int orbclose(int orb);                            // 0, 1 when the close request failed, -1 unknown orb
Orbfile* orb2orbfile(int orb);                    // handle, or null (logged)
// One exchange; request null = read only, response null = send only.
// Returns 0 or the response's result, -1 on failure.
int orbclient(Orbfile* orbfile, Orbrequest* request, Orbresponse* response);
void orbdump(FILE* file, int orb, int flag);     // print the handle

// ---- requests and positioning ----
int orbseek(int orb, int which);        // pktid now stood at; -1 unknown orb, -2 failed exchange
int orbtell(int orb);                   // current pktid or -1
int orbafter(int orb, double time);     // first pktid after time, or -1
int orbselect(int orb, const char* pattern);  // number of sources selected, or -1; "@file" reads patterns
int orbreject(int orb, const char* pattern);  // likewise
int orbping(int orb, int* version);
int orbid(int orb, int* id);
int orbstat(int orb, Orbstat** status);       // *status points into the response
int orbclients(int orb, double* when, Orbclient** clients, int* n);
int orbsources(int orb, double* when, Orbsrc** sources, int* n);
int orbsetpri(int orb, int thread, int priority);
int orbkill(int orb, int thread);
int orbhalt(int orb);
int orbset_logging(int orb, int flag);
int orbstashselect(int orb, int flag);  // flag 0, 1, 2 sent; others send nothing; the stash flag
// Asks a server (by name, over its own short connection) whether a session is still active:
// 1 active, 0 not, -1 failure.
int orbrup(const char* name, int thread, double* orb_start, double* server_start, int* latest);
// "oldest", "newest" (any case), a time text, or anything else (position left as is).
int orbposition(int orb, const char* text);

// ---- reading ----
// Every read hands back pktid, source name (room for 64 chars), time, and the caller's packet
// buffer *packet of *bufsize bytes (grown as needed, possibly moved) holding *nbytes bytes.
int orbget(int orb, int which, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
           int* bufsize);
int orbgetstash(int orb, char* srcname, int* pktid, double* time, char** packet, int* nbytes,
                int* bufsize);  // srcname in: the source asked for; out: the package's
int orbreap(int orb, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
            int* bufsize);
// A stream of n packets; the package after them has pktid -32 (success) and the next call
// starts a new stream.
int orbreapn(int orb, int n, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
             int* bufsize);
int orbreaphdr(int orb, int* pktid, char* srcname, double* time);  // headers only
int orbreapt(int orb, double maxtime, int* pktid, char* srcname, double* time, char** packet,
             int* nbytes, int* bufsize);
// Bounded reads: -2 when nothing arrives within seconds (nothing logged), -1 other failure.
int orbreap_timeout(int orb, double seconds, int* pktid, char* srcname, double* time, char** packet,
                    int* nbytes, int* bufsize);
int orbreap_nd(int orb, int* pktid, char* srcname, double* time, char** packet, int* nbytes,
               int* bufsize);
int get_pkttime(Orbfile* orbfile, double* time);  // 0, or -1 with *time 0

// ---- writing and the lag throttle ----
int orbput(int orb, const char* srcname, double time, const char* packet, int nbytes);   // 0 or -1
int orbputx(int orb, const char* srcname, double time, const char* packet, int nbytes);  // pktid or -1

struct LagParams {
    double testfreq = 0;
    double lag_trigger = 0;
    double lag_reset = 0;
    int wait_seconds = 0;
    char* wait_match = nullptr;   // owned; null means none
    char* wait_reject = nullptr;  // owned; null means none
    int verbose = 0;
    int axe = 0;                  // 1: write with orbputx, 0: orbput
};

struct ClientLag {
    double lag;       // 0 (at the newest packet) to 1 (its packet has left the ring)
    int thread;
    int pktid;
    char who[128];    // "user@host"
    char what[128];   // the client's command line
};

struct Laggards {
    Tbl* list = nullptr;  // ClientLag*, ascending lag; owned
    int oldest = -1, newest = -1, maxpktid = 0, range = 0;
};

// Keys test_freq, lag_trigger, lag_reset, wait_seconds, wait_match, wait_reject, use_orbputx.
LagParams* pfget_orblag_params(Pf* pf);
void freeLagParams(LagParams* params);
void freeLaggards(Laggards* laggards);
// orbput, after waiting while a chosen reader lags beyond lag_trigger (until below lag_reset).
int orbput_nolag(int orb, const char* srcname, double time, const char* packet, int nbytes,
                 LagParams* params);
// Worst lag (0..1) among the readers whose program name matches / is not rejected; -1 none;
// -2 the status could not be had; -3 a bad pattern. *laggards is created when null.
double orblag(int orb, const char* match, const char* reject, Laggards** laggards);
double lagvalue(int pktid, int oldest, int newest, int maxpkt);
int orbrange(int orb);  // packets in the ring (0 when empty); leaves a reader where it stood

// ---- reconnection and resurrection ----
// 0 the connection is sound, 1 reconnected (send again), -1 failed (try again).
int orbreopen(Orbfile* orbfile);
// Registers name{orb_start}, name{last_pktid}, name{last_pkttime} with the state file (the
// caller's *pktid and *pkttime are restored now and saved by later bury calls), then
// orbreposition. -1 when a registration fails.
int orbresurrect(int orb, int* pktid, double* pkttime);
// 0 positioned at pktid; -1 wrong time, -2 wrong packet but right time, -3 orbafter failed.
int orbreposition(int orb, double orb_start, int pktid, double pkttime);

// The log's ring-buffer delivery: puts text as one packet, source "program/log", into the ring
// named orbname (the connection is opened once and kept). 0 or -1. Found by dlsym.
extern "C" int orbelog(const char* orbname, const char* program, const char* text);

// Internals shared by the source files of the client library; not for callers.
#pragma once

#include <sys/types.h>

#include <string>

#include "orb/orb.h"

// Facts about a connection that its Orbfile record has no field for.
struct OrbExtra {
    pid_t child = -1;           // forbserver serving a file-backed connection
    bool file_backed = false;
    int thread = -1;            // the server's id for this session (ORBID), for orbrup
    double reap_maxtime = 0;    // limits of the active reap stream, to restart it
    int reap_maxbytes = -1;
    int reap_maxpkts = -1;
    double* saved_orb_start = nullptr;  // slot registered with the state file, or null
};

// The extra record of a handle (created on first use; lives until the handle is freed).
OrbExtra* orb_extra(Orbfile* orbfile);

// Connects to a server by name (host[:port], named port, or a file path served by
// forbserver). Fills signer when the named port carries one. quiet suppresses the
// complaints, for the retries of a waiting open. Descriptor or -1.
int orb_open_socket(const char* name, char* signer, bool quiet, pid_t* child);
bool orb_is_file_name(const char* name);
// A spawned server's standard error (fd, which this takes) goes line by line
// into this process's log from a thread of its own; orb_relay_finish, called
// once the child has exited, returns when all of it has been logged (or after
// a few seconds, if something else holds the pipe open).
void orb_relay_start(pid_t child, int fd);
void orb_relay_finish(pid_t child);
// The port of a name in the orbserver_names parameter file (read once), with its
// optional signer copied to signer; -1 when unknown.
int orb_named_port(const char* text, char* signer);

void orb_check_verbose();         // OrbVerbose from the presence of ./verbose
int orb_bns_timeout_ms();         // BNS_TIMEOUT, or 60000
std::string orb_time(double t);   // calendar text for messages
void orb_exchange_log(Orbfile* orbfile, const char* direction, const char* label,
                      const char* bytes, int n);
void orb_open_dump(Orbfile* orbfile);

int orb_start_reap(Orbfile* orbfile, double maxtime, int maxbytes, int maxpkts);
int orb_reap_packet(Orbfile* orbfile, int* pktid, char* srcname, double* time, char** packet,
                    int* nbytes, int* bufsize);
int orb_get(Orbfile* orbfile, int which, int* pktid, char* srcname, double* time, char** packet,
            int* nbytes, int* bufsize);
// Sends ORBOPEN with the handle's hello: 0, or nonzero as orbclient.
int orb_send_open(Orbfile* orbfile);
// After a handle's orb_start changed (open, reconnection): update its state-file slot.
void orb_note_orb_start(Orbfile* orbfile);

// Internals shared by the source files of the client library; not for callers.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "orb/orb.h"
#include "stock/tls.h"

// Facts about a connection that its Orbfile record has no field for.
struct OrbExtra {
    pid_t child = -1;           // forbserver serving a file-backed connection
    bool file_backed = false;
    int thread = -1;            // the server's id for this session (ORBID), for orbrup
    double reap_maxtime = 0;    // limits of the active reap stream, to restart it
    int reap_maxbytes = -1;
    int reap_maxpkts = -1;
    double* saved_orb_start = nullptr;  // slot registered with the state file, or null
    std::unique_ptr<TlsSession> tls;    // under both streams of a TLS connection
    std::vector<std::string> addresses; // what the name lists, tried in turn
    size_t current = 0;                 // the one connected to
};

// What opening a socket learned besides the descriptor.
struct OrbPeer {
    pid_t child = -1;                       // forbserver serving a file-backed name
    char signer[ORB_SIGNER_SIZE + 1] = "";  // signer of the named port, or empty
    std::unique_ptr<TlsSession> tls;        // the session of a named port marked "tls"
};

// The extra record of a handle (created on first use; lives until the handle is freed).
OrbExtra* orb_extra(Orbfile* orbfile);

// Connects to a server by name (host[:port], named port, or a file path served by
// forbserver), with the TLS handshake done for a named port marked "tls" (CA file
// from ORB_TLS_CA). Fills peer. quiet suppresses the complaints, for the retries of
// a waiting open. Descriptor or -1.
int orb_open_socket(const char* name, bool quiet, OrbPeer* peer);
bool orb_is_file_name(const char* name);
// A spawned server's standard error (fd, which this takes) goes line by line
// into this process's log from a thread of its own; orb_relay_finish, called
// once the child has exited, returns when all of it has been logged (or after
// a few seconds, if something else holds the pipe open).
void orb_relay_start(pid_t child, int fd);
void orb_relay_finish(pid_t child);
// The addresses a server name stands for: the name itself, or for "a,b,..." each
// element, which must be a network name. Empty (and logged) for a bad list. A name
// starting as a file path is one path whatever it holds.
std::vector<std::string> orb_server_addresses(const std::string& name);
// The port of a name in the orbserver_names parameter file (read once): the value
// is "port [signer] [tls]"; the signer is copied to signer and *tls tells whether
// the last word is "tls". -1 when unknown.
int orb_named_port(const char* text, char* signer, bool* tls);
// Puts both streams of a handle on the session (null: plain), which it keeps.
void orb_use_tls(Orbfile* orbfile, std::unique_ptr<TlsSession> tls);

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
// Opens the session with the handle's hello: ORBOPEN, or for a handle with a
// signer the challenge exchange and ORBSIGNEDOPEN. 0, or nonzero as orbclient;
// *sign_failed (when given) is set when no signature could be made.
int orb_send_open(Orbfile* orbfile, bool* sign_failed = nullptr);
// After a handle's orb_start changed (open, reconnection): update its state-file slot.
void orb_note_orb_start(Orbfile* orbfile);

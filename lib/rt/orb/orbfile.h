// The ring-buffer protocol: request and response records, their codes, and
// their encoders (pbns*: append to a Bns) and decoders (gbns*: read from a Bns).
// Client and server use the same functions in opposite directions.
//
// Encoders attempt every field and return the OR of the put results (nonzero:
// do not send).  Decoders return 0, or -1 at the first field that could not be
// read; the record is then partly filled and the connection is to be treated as
// broken.  Decoders check every length before trusting it: packet bytes above
// Orb_max_data_bytes, patterns above 16384 bytes fail; names are cut at 64 bytes,
// select/reject of a client at 96, error texts at 512.
//
// Encoders refuse what the peer could not read back in step: a short-form size
// above 65535, a long-form size above Orb_max_data_bytes, a source name above 64
// bytes, a request pattern above 16384, an error text above 512.  A client's
// select/reject go out cut to 96 bytes.  Arrays (client, source) are decoded
// into storage that grows only as entries actually arrive.
//
// Owned buffers (pkg->packet, select, reject, client, source) only grow and are
// kept between exchanges.  Fixed text fields carry one spare byte that is always
// NUL, so a received text can be printed whatever the peer sent.
#pragma once

#include <cstdio>

struct Bns;

// Request codes.
#define ORBPUT 1
#define ORBGET 2
#define ORBREAP 3
#define ORBSTAT 4
#define ORBCLIENTS 5
#define ORBSOURCES 6
#define ORBSEEK 7
#define ORBTELL 8
#define ORBSELECT 9
#define ORBREJECT 10
#define ORBCLOSE 11
#define ORBAFTER 12
#define ORBBEFORE 13
#define ORBPING 14
#define ORBHDR 15
#define ORBSETPRI 16
#define ORBHALT 17
#define ORBSETLOGGING 18
#define ORBERROR 19
#define ORBOPEN 20
#define ORBKILL 21
#define ORBID 23
#define ORBRUP 24
#define ORBPUTL 25
#define ORBGETL 26
#define ORBREAPL 27
#define ORBSTASHSELECT 28
#define ORBGETSTASH 29
#define ORBPUTX 30
#define ORBPUTXL 31
#define ORBCHALLENGE 33
#define ORBSIGNEDOPEN 34

// Positions and status values.
#define ORBSTASH -18
#define ORBPREVT -17
#define ORBNEXTT -16
#define ORBNEXT_WAIT -15
#define ORBNEWEST -14
#define ORBOLDEST -13
#define ORBPREV -12
#define ORBNEXT -11
#define ORBCURRENT -10
#define ORB_EOF -9
#define ORB_INCOMPLETE -2

#define ORB_BUF_SIZE 8192
#define ORB_MAX_DATA_BYTES 1000000  // a named constant only; Orb_max_data_bytes defaults to 4000000

#define ORB_SRCNAME_SIZE 64
#define ORB_MAX_PATTERN 16384
#define ORB_ERRMSG_SIZE 512
#define ORB_CLIENT_PATTERN_SIZE 96
#define ORB_CHALLENGE_SIZE 12
#define ORB_SIGNER_SIZE 64
#define ORB_SIGNATURE_SIZE 512

// Largest packet accepted by the long-form encoders and by every decoder.
extern int Orb_max_data_bytes;

// Name of a request code or position constant ("ORBPUT", "ORBNEWEST"), or null.
const char* orbreq2name(int code);
// Code of a name from the same table, or 0 when unknown.
int orbname2req(const char* name);

struct Pktpkg {
    double time;
    char* packet;      // owned, sZpacket bytes
    int sZpacket;
    int pktid;         // -1 when unknown
    int packetsize;    // bytes of packet in use
    unsigned short srcnamesize;  // bytes of srcname sent
    char srcname[ORB_SRCNAME_SIZE + 1];
};

struct Orbsrc {
    double slatest_time, soldest_time;
    int nbytes, npkts;
    int slatest, soldest;
    int active;
    char srcname[ORB_SRCNAME_SIZE + 1];
};

struct Orbclient {
    double lastpkt, started;
    unsigned int read;
    int pid;
    unsigned int bytes, packets;
    int pktid, port;
    unsigned char address[4];
    int thread, fd;
    int nreject, nselect;  // lengths including the NUL
    int errors, priority, lastrequest, mymessages;
    unsigned int nrequests, nwrites, nreads, written;
    char perm;
    char what[128 + 1];
    char host[128 + 1];
    char who[24 + 1];
    char select[ORB_CLIENT_PATTERN_SIZE + 1];
    char reject[ORB_CLIENT_PATTERN_SIZE + 1];
};

struct OrbOpenString {
    int pid;
    int handshake;
    char perm;
    char what[128 + 1];
    char who[24 + 1];
};

struct Orbstat {
    double when, started, orb_start;
    int connections, messages;
    unsigned int maxdata;
    int errors, rejected, closes, opens, port;
    unsigned char address[4];
    int pid;
    int nsources, nclients, maxsrc, maxpkts;
    char version[128 + 1];
    char who[24 + 1];
    char host[128 + 1];
};

struct Orbrequest {
    double time, reap_maxtime;
    char srcname[ORB_SRCNAME_SIZE + 1];
    char* reject;          // owned, sZreject bytes
    Pktpkg* pkg;           // owned
    char* select;          // owned, sZselect bytes
    OrbOpenString* hello;  // owned
    char signer[ORB_SIGNER_SIZE + 2];
    char signature[ORB_SIGNATURE_SIZE + 2];
    char challenge[ORB_CHALLENGE_SIZE + 2];
    int thread, stashflag, newpri;
    int sZpkg, logflag, sZreject, pktcode, nreject, sZselect, reap_maxpkts, nselect, sZhello,
        reap_maxbytes, athread;
    int what;  // request code; may be promoted to its long form by the encoder
};

struct Orbresponse {
    double source_when, client_when, server_start, orb_start;
    Orbsrc* source;      // owned array, sZsource entries
    Pktpkg* pkg;         // owned
    Orbclient* client;   // owned array, sZclient entries
    Orbstat orbstat;
    char challenge[ORB_CHALLENGE_SIZE + 2];
    int nsource, sZclient, nclient, pktid, sZpkg, nselections, version, thread, stashflag,
        latest_pktid, nerr, sZsource, active, result;
    int what;
    char errmsg[ORB_ERRMSG_SIZE + 1];
};

// One connection of the client library.
struct Orbfile {
    double lastpkttime, server_start, orb_start, opentime;
    FILE* dump;          // exchange log, owned
    char* PacketDump;    // its path, owned
    Orbresponse* reply;  // owned
    Orbrequest* req;     // owned
    Bns* out;            // owned
    Bns* in;             // owned
    char* name;          // owned
    int resend, sZdump, sZPacketDump, sZreply, sZreq, sZout, sZin;
    int prevlast, cnt;
    int sZname;
    int nonblocking;
    int error;  // 0 none, 1 last response unread, 2 last request unsent
    int lastpktid;
    int first_nd_failure;
    int once;
    int fd;
    int reopen;
    int reaped;
    int perm;
    char signer[ORB_SIGNER_SIZE + 1];
};

// Constructors give zeroed records with their initial values; out of memory is fatal.
Pktpkg* newPktpkg();
Orbsrc* newOrbsrc();
Orbclient* newOrbclient();
OrbOpenString* newOrbOpenString();
Orbstat* newOrbstat();
Orbrequest* newOrbrequest();
Orbresponse* newOrbresponse();
Orbfile* newOrbfile();

// Initialisers reset the values in place without touching owned buffers.
void initPktpkg(Pktpkg* p);
void initOrbsrc(Orbsrc* s);
void initOrbclient(Orbclient* c);
void initOrbOpenString(OrbOpenString* o);
void initOrbstat(Orbstat* s);
void initOrbrequest(Orbrequest* r);
void initOrbresponse(Orbresponse* r);

// Destructors free the record and what it owns; null accepted.
void freePktpkg(Pktpkg* p);
void freeOrbsrc(Orbsrc* s);
void freeOrbclient(Orbclient* c);
void freeOrbOpenString(OrbOpenString* o);
void freeOrbstat(Orbstat* s);
void freeOrbrequest(Orbrequest* r);
void freeOrbresponse(Orbresponse* r);
void freeOrbfile(Orbfile* f);  // frees streams (without closing fd), records, name; closes dump

// Encoders.  pbnsPktpkg/gbnsPktpkg take the request or response code that
// decides the size width; a code that carries no package is fatal.
int pbnsPktpkg(Bns* bns, int code, Pktpkg* pkg);
int pbnsOrbsrc(Bns* bns, Orbsrc* s);
int pbnsOrbclient(Bns* bns, Orbclient* c);
int pbnsOrbOpenString(Bns* bns, OrbOpenString* o);
int pbnsOrbstat(Bns* bns, Orbstat* s);
int pbnsOrbrequest(Bns* bns, Orbrequest* r);   // may promote r->what to its long form
int pbnsOrbresponse(Bns* bns, Orbresponse* r); // may promote r->what to its long form
// As pbnsOrbresponse but without the packet bytes of a packet response: the
// caller sends exactly r->pkg->packetsize bytes of its own right behind.
int pbnsOrbresponseHead(Bns* bns, Orbresponse* r);

// Decoders.
int gbnsPktpkg(Bns* bns, int code, Pktpkg* pkg);
int gbnsOrbsrc(Bns* bns, Orbsrc* s);
int gbnsOrbclient(Bns* bns, Orbclient* c);
int gbnsOrbOpenString(Bns* bns, OrbOpenString* o);
int gbnsOrbstat(Bns* bns, Orbstat* s);
int gbnsOrbrequest(Bns* bns, Orbrequest* r);
// As gbnsOrbrequest, but a put's packet bytes are not copied: r->pkg->packet
// points into the stream's buffer (valid until the stream is next read) and
// r->pkg owns no buffer. The caller nulls r->pkg->packet before anything else
// decodes into or frees the record.
int gbnsOrbrequestLent(Bns* bns, Orbrequest* r);
int gbnsOrbresponse(Bns* bns, Orbresponse* r);

// Printers: one line per field, "\t<Record>-><field> = <value> # <comment>\n".
void dumpPktpkg(FILE* file, const Pktpkg* p);
void dumpOrbsrc(FILE* file, const Orbsrc* s);
void dumpOrbclient(FILE* file, const Orbclient* c);
void dumpOrbOpenString(FILE* file, const OrbOpenString* o);
void dumpOrbstat(FILE* file, const Orbstat* s);
void dumpOrbrequest(FILE* file, const Orbrequest* r);
void dumpOrbresponse(FILE* file, const Orbresponse* r);

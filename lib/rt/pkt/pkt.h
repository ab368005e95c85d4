// The packet library: packs a Packet record into a packet body with its full
// source name, and unpacks a body back into a record.
//
// Source names join the parts as net[_sta[_chan[_loc]]]/suffix[/subcode]
// (empty parts left out), cut to 63 bytes. unstuffPkt splits the name back
// into the parts before it looks at the body, so even a body that fails to
// unpack leaves src_suffix set.
//
// The "xfer" body, all integers big-endian, every length checked against the
// body size before it is used, nothing allowed after the data:
//
//   offset  size  field
//   0       2     magic "XF"
//   2       2     body format version (1)
//   4       4     version      (Packet.version, signed)
//   8       4     sequence     (Packet.string_size, signed; -1 marks a failed send)
//   12      4     mode         (Packet.nchannels: the sender's st_mode)
//   16      1     key length k (0 when Packet.string is null, else 16)
//   17      k     key          (first 16 bytes of Packet.string, which must hold 16)
//   17+k    4     data length n (Packet.dfile_size, 0 .. PKT_XFER_MAXDATA)
//   21+k    n     data         (Packet.dfile)
//
// Ownership: a Packet owns `string`, `dfile` (both freed with free()),
// `channels` and `pkthook`. `pf` and `db` are never set or freed here. A caller
// that points `string` or `dfile` at its own buffers nulls them before freePkt.
// Not thread-safe per record; distinct records may be used from distinct threads.
#pragma once

#include <cstdio>

struct Tbl;
struct Hook;
struct Pf;

#define PKT_NAMESIZE 32                 // each Srcname part, NUL included
#define PKT_SRCNAMESIZE 64              // full source name, NUL included
#define PKT_XFER_MAXDATA 1000000        // largest data chunk an xfer body carries
#define PKT_XFER_TYPE 10                // unstuffPkt's result for an xfer packet

struct Srcname {
    char src_net[PKT_NAMESIZE];
    char src_sta[PKT_NAMESIZE];
    char src_chan[PKT_NAMESIZE];
    char src_loc[PKT_NAMESIZE];
    char src_suffix[PKT_NAMESIZE];
    char src_subcode[PKT_NAMESIZE];
};

struct PacketType {
    const char* suffix;   // the source-name suffix naming the type, e.g. "xfer"
    int content;          // what unstuffPkt returns for it (PKT_XFER_TYPE for xfer, 0 for others)
    const char* desc;
};

struct Dbptr {
    int database, table, field, record;
};

struct Packet {
    Srcname parts;
    double time;
    const PacketType* pkttype;
    int nchannels;
    Tbl* channels;
    Pf* pf;
    char* string;
    int string_size;
    Dbptr db;
    char* dfile;
    int dfile_size;
    int version;
    Hook* pkthook;
};

// A new, zeroed record; out of memory is fatal.
Packet* newPkt();
// Frees the record and what it owns (see above); null accepted.
void freePkt(Packet* pkt);

// The descriptor of a known type ("xfer", "ch"), or null for an unknown suffix.
const PacketType* suffix2pkttype(const char* suffix);

// Joins pkt->parts and the type's suffix into srcname (64 bytes) and packs
// the body into *packet, growing it (realloc) when *bufsize is too small; sets
// *nbytes to the body length and *time to pkt->time. A dfile_size below 0
// packs as no data. Returns 0, or -1 for a record that cannot be packed (no or
// unknown type, dfile_size above PKT_XFER_MAXDATA, dfile null with a positive size).
int stuffPkt(Packet* pkt, char* srcname, double* time, char** packet, int* nbytes, int* bufsize);

// Unpacks a body into **pkt, allocating the record when *pkt is null and
// reusing it afterwards. Returns PKT_XFER_TYPE for an xfer packet, -1 for a
// malformed xfer body, 0 for any other or unknown type (nothing but parts and
// time filled). After an xfer unpack, `dfile` is an owned copy followed by a
// NUL that dfile_size does not count, and `string` holds the 16-byte key and
// a NUL (or is null when the body had no key).
int unstuffPkt(const char* srcname, double time, const char* packet, int nbytes, Packet** pkt);

// As unstuffPkt, but an xfer packet's data is not copied: `dfile` points at
// it inside packet (no NUL behind it) and is valid as long as packet is. The
// record does not own it: freePkt and later unpacks leave it alone.
int unstuffPktInPlace(const char* srcname, double time, const char* packet, int nbytes, Packet** pkt);

// Readable dump of a packet on file: one header line; from mode 1 the decoded
// fields; from mode 5 also a hex dump of the data (at most 256 bytes).
void showPkt(int pktid, const char* srcname, double time, const char* packet, int nbytes,
             FILE* file, int mode);

// Joins parts and suffix as described above into srcname (64 bytes).
void join_srcname(const Srcname* parts, const char* suffix, char* srcname);
// Splits a full source name into parts (each cut to 31 bytes).
void split_srcname(const char* srcname, Srcname* parts);

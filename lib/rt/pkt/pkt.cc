#include "pkt/pkt.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "stock/allot.h"
#include "stock/hook.h"
#include "stock/printable.h"
#include "stock/tbl.h"

namespace {

const PacketType Types[] = {
    {"xfer", PKT_XFER_TYPE, "whole-file transfer"},
    {"ch", 0, "channel marker"},
};

constexpr char Magic[2] = {'X', 'F'};
constexpr int BodyFormat = 1;
constexpr int KeySize = 16;
constexpr int FixedSize = 2 + 2 + 4 + 4 + 4 + 1 + 4;

// Capacities of the owned string/dfile buffers, so that a reused record
// does not reallocate for every packet.
struct Buffers {
    size_t string_cap = 0;
    size_t dfile_cap = 0;
    bool dfile_lent = false;  // dfile points into a caller's packet
};

[[noreturn]] void nomem(int line, size_t n, const char* what) { die_nomem(line, nomem_source(__FILE__), n, what); }

Buffers* buffers(Packet* pkt) {
    if (pkt->pkthook == nullptr) {
        pkt->pkthook = new_hook([](void* p) { delete static_cast<Buffers*>(p); });
    }
    if (pkt->pkthook->p == nullptr) {
        pkt->pkthook->p = new Buffers;
    }
    return static_cast<Buffers*>(pkt->pkthook->p);
}

// Grows an owned buffer, keeping its capacity in the record's hook.
char* reserve(char*& p, size_t& cap, size_t n, const char* what) {
    if (p == nullptr) cap = 0;
    if (n > cap) {
        size_t want = n < 64 ? 64 : n;
        char* q = static_cast<char*>(cap ? realloc(p, want) : malloc(want));
        if (q == nullptr) nomem(__LINE__, want, what);
        p = q;
        cap = want;
    }
    return p;
}

void put32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

uint32_t get32(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

void copypart(char* dst, const char* src, size_t n) {
    if (n >= PKT_NAMESIZE) n = PKT_NAMESIZE - 1;
    memcpy(dst, src, n);
    dst[n] = '\0';
}

}  // namespace

Packet* newPkt() {
    auto* pkt = static_cast<Packet*>(calloc(1, sizeof(Packet)));
    if (pkt == nullptr) nomem(__LINE__, sizeof(Packet), "packet");
    return pkt;
}

void freePkt(Packet* pkt) {
    if (pkt == nullptr) return;
    free(pkt->string);
    if (!(pkt->pkthook && pkt->pkthook->p && static_cast<Buffers*>(pkt->pkthook->p)->dfile_lent)) free(pkt->dfile);
    freetbl(pkt->channels, nullptr);
    free_hook(&pkt->pkthook);
    free(pkt);
}

const PacketType* suffix2pkttype(const char* suffix) {
    if (suffix == nullptr) return nullptr;
    for (const auto& t : Types) {
        if (strcmp(t.suffix, suffix) == 0) return &t;
    }
    return nullptr;
}

void join_srcname(const Srcname* parts, const char* suffix, char* srcname) {
    std::string name;
    for (const char* p : {parts->src_net, parts->src_sta, parts->src_chan, parts->src_loc}) {
        size_t n = strnlen(p, PKT_NAMESIZE);
        if (n == 0) continue;
        if (!name.empty()) name += '_';
        name.append(p, n);
    }
    name += '/';
    name += suffix ? suffix : "";
    size_t n = strnlen(parts->src_subcode, PKT_NAMESIZE);
    if (n > 0) {
        name += '/';
        name.append(parts->src_subcode, n);
    }
    size_t len = name.size() < PKT_SRCNAMESIZE - 1 ? name.size() : PKT_SRCNAMESIZE - 1;
    memcpy(srcname, name.data(), len);
    srcname[len] = '\0';
}

void split_srcname(const char* srcname, Srcname* parts) {
    memset(parts, 0, sizeof(*parts));
    if (srcname == nullptr) return;
    size_t total = strnlen(srcname, PKT_SRCNAMESIZE);
    const char* end = srcname + total;
    const char* slash = static_cast<const char*>(memchr(srcname, '/', total));
    const char* netend = slash ? slash : end;

    // net_sta_chan_loc: the last part takes whatever underscores remain.
    char* fields[4] = {parts->src_net, parts->src_sta, parts->src_chan, parts->src_loc};
    const char* p = srcname;
    for (int i = 0; i < 4 && p <= netend; i++) {
        const char* u = i < 3 ? static_cast<const char*>(memchr(p, '_', netend - p)) : nullptr;
        const char* e = u ? u : netend;
        copypart(fields[i], p, e - p);
        if (!u) break;
        p = u + 1;
    }
    if (!slash) return;
    const char* s = slash + 1;
    const char* slash2 = static_cast<const char*>(memchr(s, '/', end - s));
    copypart(parts->src_suffix, s, (slash2 ? slash2 : end) - s);
    if (slash2) copypart(parts->src_subcode, slash2 + 1, end - slash2 - 1);
}

int stuffPkt(Packet* pkt, char* srcname, double* time, char** packet, int* nbytes, int* bufsize) {
    if (pkt == nullptr || pkt->pkttype == nullptr) return -1;
    const PacketType* type = suffix2pkttype(pkt->pkttype->suffix);
    if (type == nullptr) return -1;
    join_srcname(&pkt->parts, type->suffix, srcname);
    *time = pkt->time;
    if (type->content != PKT_XFER_TYPE) {
        *nbytes = 0;
        return 0;
    }
    // A negative size packs as no data: a sender configured to send nothing
    // per packet keeps going until its sequence limit stops it.
    int ndata = pkt->dfile_size > 0 ? pkt->dfile_size : 0;
    if (ndata > PKT_XFER_MAXDATA) return -1;
    if (pkt->dfile == nullptr && ndata > 0) return -1;

    int keylen = pkt->string ? KeySize : 0;
    int need = FixedSize + keylen + ndata;
    if (*packet == nullptr || *bufsize < need) {
        char* grown = static_cast<char*>(realloc(*packet, need));
        if (grown == nullptr) nomem(__LINE__, need, "packet buffer");
        *packet = grown;
        *bufsize = need;
    }
    auto* b = reinterpret_cast<unsigned char*>(*packet);
    memcpy(b, Magic, 2);
    b[2] = 0;
    b[3] = BodyFormat;
    put32(b + 4, static_cast<uint32_t>(pkt->version));
    put32(b + 8, static_cast<uint32_t>(pkt->string_size));
    put32(b + 12, static_cast<uint32_t>(pkt->nchannels));
    b[16] = static_cast<unsigned char>(keylen);
    unsigned char* q = b + 17;
    if (keylen) {
        memcpy(q, pkt->string, KeySize);
        q += keylen;
    }
    put32(q, static_cast<uint32_t>(ndata));
    q += 4;
    if (ndata > 0) memcpy(q, pkt->dfile, ndata);
    *nbytes = need;
    return 0;
}

namespace {

int unstuff(const char* srcname, double time, const char* packet, int nbytes, Packet** pktp, bool copy) {
    if (*pktp == nullptr) *pktp = newPkt();
    Packet* pkt = *pktp;
    split_srcname(srcname, &pkt->parts);
    pkt->time = time;
    pkt->pkttype = suffix2pkttype(pkt->parts.src_suffix);
    pkt->string_size = 0;
    pkt->dfile_size = 0;
    pkt->nchannels = 0;
    pkt->version = 0;
    if (pkt->pkttype == nullptr || pkt->pkttype->content != PKT_XFER_TYPE) return 0;

    const auto* b = reinterpret_cast<const unsigned char*>(packet);
    if (b == nullptr || nbytes < FixedSize) return -1;
    if (memcmp(b, Magic, 2) != 0 || b[2] != 0 || b[3] != BodyFormat) return -1;
    int keylen = b[16];
    if (keylen != 0 && keylen != KeySize) return -1;
    if (nbytes < FixedSize + keylen) return -1;
    uint32_t ndata = get32(b + 17 + keylen);
    if (ndata > PKT_XFER_MAXDATA) return -1;
    if (static_cast<int64_t>(nbytes) != FixedSize + keylen + static_cast<int64_t>(ndata)) return -1;

    Buffers* buf = buffers(pkt);
    pkt->version = static_cast<int32_t>(get32(b + 4));
    pkt->string_size = static_cast<int32_t>(get32(b + 8));
    pkt->nchannels = static_cast<int32_t>(get32(b + 12));
    if (keylen) {
        reserve(pkt->string, buf->string_cap, KeySize + 1, "packet key");
        memcpy(pkt->string, b + 17, KeySize);
        pkt->string[KeySize] = '\0';
    } else {
        free(pkt->string);
        pkt->string = nullptr;
        buf->string_cap = 0;
    }
    const char* data = packet + 21 + keylen;
    if (copy) {
        if (buf->dfile_lent) pkt->dfile = nullptr;
        buf->dfile_lent = false;
        reserve(pkt->dfile, buf->dfile_cap, ndata + 1, "packet data");
        memcpy(pkt->dfile, data, ndata);
        pkt->dfile[ndata] = '\0';
    } else {
        if (!buf->dfile_lent) free(pkt->dfile);
        buf->dfile_cap = 0;
        buf->dfile_lent = true;
        pkt->dfile = const_cast<char*>(data);
    }
    pkt->dfile_size = static_cast<int>(ndata);
    return PKT_XFER_TYPE;
}

}  // namespace

int unstuffPkt(const char* srcname, double time, const char* packet, int nbytes, Packet** pkt) {
    return unstuff(srcname, time, packet, nbytes, pkt, true);
}

int unstuffPktInPlace(const char* srcname, double time, const char* packet, int nbytes, Packet** pkt) {
    return unstuff(srcname, time, packet, nbytes, pkt, false);
}

void showPkt(int pktid, const char* srcname, double time, const char* packet, int nbytes, FILE* file,
             int mode) {
    if (file == nullptr) file = stderr;
    char name[PKT_SRCNAMESIZE];
    snprintf(name, sizeof name, "%s", srcname ? srcname : "");
    fprintf(file, "#%d %s %.5f %d bytes\n", pktid, name, time, nbytes);
    if (mode < 1) return;
    Packet* pkt = nullptr;
    int r = unstuffPkt(name, time, packet, nbytes, &pkt);
    if (r == PKT_XFER_TYPE) {
        fprintf(file, "  xfer version %d sequence %d mode %o data %d bytes\n", pkt->version,
                pkt->string_size, static_cast<unsigned>(pkt->nchannels), pkt->dfile_size);
        if (pkt->string) {
            fputs("  key", file);
            for (int i = 0; i < KeySize; i++)
                fprintf(file, " %02x", static_cast<unsigned char>(pkt->string[i]));
            fputc('\n', file);
        }
        if (mode >= 5 && pkt->dfile_size > 0) {
            int n = pkt->dfile_size < 256 ? pkt->dfile_size : 256;
            hexdump(file, reinterpret_cast<const unsigned char*>(pkt->dfile), n);
        }
    } else if (r < 0) {
        fprintf(file, "  malformed %s body\n", pkt->parts.src_suffix);
        if (mode >= 5 && packet && nbytes > 0) {
            hexdump(file, reinterpret_cast<const unsigned char*>(packet), nbytes < 256 ? nbytes : 256);
        }
    } else {
        fprintf(file, "  type '%s'\n", pkt->parts.src_suffix);
    }
    freePkt(pkt);
}

#include "stock/rvm.h"

#include <cstring>

// The compression function is written out round by round: the constants and
// shifts are immediates, the message words are loaded once per block.

namespace {

inline uint32_t rotl(uint32_t x, int s) { return (x << s) | (x >> (32 - s)); }

inline uint32_t load_le(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap32(v);
#endif
    return v;
}

inline void store_le(unsigned char* p, uint32_t v) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap32(v);
#endif
    std::memcpy(p, &v, 4);
}

#define F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define H(x, y, z) ((x) ^ ((y) ^ (z)))
#define I(x, y, z) ((y) ^ ((x) | ~(z)))
// The word and the constant are added before the newest value (b) is ready,
// keeping the dependency chain through b short. G is split the same way:
// its two terms never share a bit, so they can be added separately.
#define STEP(f, a, b, c, d, x, t, s) \
    (a) += (x) + (t);                \
    (a) += f((b), (c), (d));         \
    (a) = rotl((a), (s)) + (b);
#define STEPG(a, b, c, d, x, t, s)          \
    (a) += (x) + (t) + ((c) & ~(d));        \
    (a) += (b) & (d);                       \
    (a) = rotl((a), (s)) + (b);

void blocks(uint32_t* state, const unsigned char* p, size_t nblocks) {
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (; nblocks; --nblocks, p += 64) {
        uint32_t x[16];
        for (int i = 0; i < 16; i++) x[i] = load_le(p + 4 * i);
        const uint32_t aa = a, bb = b, cc = c, dd = d;

        STEP(F, a, b, c, d, x[0], 0xd76aa478, 7)
        STEP(F, d, a, b, c, x[1], 0xe8c7b756, 12)
        STEP(F, c, d, a, b, x[2], 0x242070db, 17)
        STEP(F, b, c, d, a, x[3], 0xc1bdceee, 22)
        STEP(F, a, b, c, d, x[4], 0xf57c0faf, 7)
        STEP(F, d, a, b, c, x[5], 0x4787c62a, 12)
        STEP(F, c, d, a, b, x[6], 0xa8304613, 17)
        STEP(F, b, c, d, a, x[7], 0xfd469501, 22)
        STEP(F, a, b, c, d, x[8], 0x698098d8, 7)
        STEP(F, d, a, b, c, x[9], 0x8b44f7af, 12)
        STEP(F, c, d, a, b, x[10], 0xffff5bb1, 17)
        STEP(F, b, c, d, a, x[11], 0x895cd7be, 22)
        STEP(F, a, b, c, d, x[12], 0x6b901122, 7)
        STEP(F, d, a, b, c, x[13], 0xfd987193, 12)
        STEP(F, c, d, a, b, x[14], 0xa679438e, 17)
        STEP(F, b, c, d, a, x[15], 0x49b40821, 22)

        STEPG(a, b, c, d, x[1], 0xf61e2562, 5)
        STEPG(d, a, b, c, x[6], 0xc040b340, 9)
        STEPG(c, d, a, b, x[11], 0x265e5a51, 14)
        STEPG(b, c, d, a, x[0], 0xe9b6c7aa, 20)
        STEPG(a, b, c, d, x[5], 0xd62f105d, 5)
        STEPG(d, a, b, c, x[10], 0x02441453, 9)
        STEPG(c, d, a, b, x[15], 0xd8a1e681, 14)
        STEPG(b, c, d, a, x[4], 0xe7d3fbc8, 20)
        STEPG(a, b, c, d, x[9], 0x21e1cde6, 5)
        STEPG(d, a, b, c, x[14], 0xc33707d6, 9)
        STEPG(c, d, a, b, x[3], 0xf4d50d87, 14)
        STEPG(b, c, d, a, x[8], 0x455a14ed, 20)
        STEPG(a, b, c, d, x[13], 0xa9e3e905, 5)
        STEPG(d, a, b, c, x[2], 0xfcefa3f8, 9)
        STEPG(c, d, a, b, x[7], 0x676f02d9, 14)
        STEPG(b, c, d, a, x[12], 0x8d2a4c8a, 20)

        STEP(H, a, b, c, d, x[5], 0xfffa3942, 4)
        STEP(H, d, a, b, c, x[8], 0x8771f681, 11)
        STEP(H, c, d, a, b, x[11], 0x6d9d6122, 16)
        STEP(H, b, c, d, a, x[14], 0xfde5380c, 23)
        STEP(H, a, b, c, d, x[1], 0xa4beea44, 4)
        STEP(H, d, a, b, c, x[4], 0x4bdecfa9, 11)
        STEP(H, c, d, a, b, x[7], 0xf6bb4b60, 16)
        STEP(H, b, c, d, a, x[10], 0xbebfbc70, 23)
        STEP(H, a, b, c, d, x[13], 0x289b7ec6, 4)
        STEP(H, d, a, b, c, x[0], 0xeaa127fa, 11)
        STEP(H, c, d, a, b, x[3], 0xd4ef3085, 16)
        STEP(H, b, c, d, a, x[6], 0x04881d05, 23)
        STEP(H, a, b, c, d, x[9], 0xd9d4d039, 4)
        STEP(H, d, a, b, c, x[12], 0xe6db99e5, 11)
        STEP(H, c, d, a, b, x[15], 0x1fa27cf8, 16)
        STEP(H, b, c, d, a, x[2], 0xc4ac5665, 23)

        STEP(I, a, b, c, d, x[0], 0xf4292244, 6)
        STEP(I, d, a, b, c, x[7], 0x432aff97, 10)
        STEP(I, c, d, a, b, x[14], 0xab9423a7, 15)
        STEP(I, b, c, d, a, x[5], 0xfc93a039, 21)
        STEP(I, a, b, c, d, x[12], 0x655b59c3, 6)
        STEP(I, d, a, b, c, x[3], 0x8f0ccc92, 10)
        STEP(I, c, d, a, b, x[10], 0xffeff47d, 15)
        STEP(I, b, c, d, a, x[1], 0x85845dd1, 21)
        STEP(I, a, b, c, d, x[8], 0x6fa87e4f, 6)
        STEP(I, d, a, b, c, x[15], 0xfe2ce6e0, 10)
        STEP(I, c, d, a, b, x[6], 0xa3014314, 15)
        STEP(I, b, c, d, a, x[13], 0x4e0811a1, 21)
        STEP(I, a, b, c, d, x[4], 0xf7537e82, 6)
        STEP(I, d, a, b, c, x[11], 0xbd3af235, 10)
        STEP(I, c, d, a, b, x[2], 0x2ad7d2bb, 15)
        STEP(I, b, c, d, a, x[9], 0xeb86d391, 21)

        a += aa;
        b += bb;
        c += cc;
        d += dd;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

#undef F
#undef H
#undef I
#undef STEP
#undef STEPG

}  // namespace

void inirvm(Rvm* rvm) {
    std::memset(rvm, 0, sizeof *rvm);
    rvm->state[0] = 0x67452301;
    rvm->state[1] = 0xefcdab89;
    rvm->state[2] = 0x98badcfe;
    rvm->state[3] = 0x10325476;
}

void addrvm(Rvm* rvm, const void* data, size_t n) {
    if (n == 0) return;
    const unsigned char* p = static_cast<const unsigned char*>(data);
    size_t used = (rvm->count[0] >> 3) & 63;
    uint64_t bits = (uint64_t(rvm->count[1]) << 32 | rvm->count[0]) + (uint64_t(n) << 3);
    rvm->count[0] = uint32_t(bits);
    rvm->count[1] = uint32_t(bits >> 32);

    if (used) {
        size_t room = 64 - used;
        if (n < room) {
            std::memcpy(rvm->buffer + used, p, n);
            return;
        }
        std::memcpy(rvm->buffer + used, p, room);
        blocks(rvm->state, rvm->buffer, 1);
        p += room;
        n -= room;
    }
    if (n >= 64) {
        blocks(rvm->state, p, n / 64);
        p += n & ~size_t(63);
        n &= 63;
    }
    if (n) std::memcpy(rvm->buffer, p, n);
}

void endrvm(Rvm* rvm) {
    unsigned char tail[8];
    store_le(tail, rvm->count[0]);
    store_le(tail + 4, rvm->count[1]);
    size_t used = (rvm->count[0] >> 3) & 63;
    static const unsigned char pad[64] = {0x80};
    addrvm(rvm, pad, used < 56 ? 56 - used : 120 - used);
    addrvm(rvm, tail, 8);
    for (int i = 0; i < 4; i++) store_le(rvm->digest + 4 * i, rvm->state[i]);
}

void ascrvm(const Rvm* rvm, char* text) {
    static const char hex[] = "0123456789abcdef";
    for (int i = 0; i < 16; i++) {
        text[2 * i] = hex[rvm->digest[i] >> 4];
        text[2 * i + 1] = hex[rvm->digest[i] & 15];
    }
    text[32] = '\0';
}

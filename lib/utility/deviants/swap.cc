#include "deviants/swap.h"

#include <cstdint>
#include <cstring>

// memcpy keeps unaligned and in-place use well defined; compilers turn each
// loop body into a load, a bswap and a store.
template <typename T, T (*Rev)(T)>
static void swapn(const void* from, void* to, int n) {
    const unsigned char* f = static_cast<const unsigned char*>(from);
    unsigned char* t = static_cast<unsigned char*>(to);
    for (int i = 0; i < n; i++) {
        T v;
        memcpy(&v, f + i * sizeof(T), sizeof(T));
        v = Rev(v);
        memcpy(t + i * sizeof(T), &v, sizeof(T));
    }
}

static uint16_t rev2(uint16_t v) { return __builtin_bswap16(v); }
static uint32_t rev4(uint32_t v) { return __builtin_bswap32(v); }
static uint64_t rev8(uint64_t v) { return __builtin_bswap64(v); }

void swap2(const void* from, void* to, int n) { swapn<uint16_t, rev2>(from, to, n); }
void swap4(const void* from, void* to, int n) { swapn<uint32_t, rev4>(from, to, n); }
void swap8(const void* from, void* to, int n) { swapn<uint64_t, rev8>(from, to, n); }

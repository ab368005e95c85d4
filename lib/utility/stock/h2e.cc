#include "stock/h2e.h"

#include <cmath>
#include <cstring>

namespace {

template <size_t N> struct Bits;
template <> struct Bits<1> { using U = uint8_t; };
template <> struct Bits<2> { using U = uint16_t; };
template <> struct Bits<4> { using U = uint32_t; };
template <> struct Bits<8> { using U = uint64_t; };

// E is the external representation; its bits go out in the chosen order.
template <typename E, bool Big>
void store(E v, unsigned char* p) {
    typename Bits<sizeof(E)>::U u;
    memcpy(&u, &v, sizeof u);
    for (size_t k = 0; k < sizeof u; k++) {
        size_t shift = Big ? 8 * (sizeof u - 1 - k) : 8 * k;
        p[k] = static_cast<unsigned char>(u >> shift);
    }
}

template <typename E, bool Big>
E load(const unsigned char* p) {
    typename Bits<sizeof(E)>::U u = 0;
    for (size_t k = 0; k < sizeof u; k++) {
        size_t shift = Big ? 8 * (sizeof u - 1 - k) : 8 * k;
        u |= static_cast<typename Bits<sizeof(E)>::U>(p[k]) << shift;
    }
    E v;
    memcpy(&v, &u, sizeof v);
    return v;
}

template <typename E>
bool isnan_any(E v) {
    if constexpr (std::is_floating_point_v<E>) return std::isnan(v);
    return false;
}

template <typename H, typename E, bool Big>
int out(const H* h, unsigned char** ext, int n) {
    int nan = 0;
    unsigned char* p = *ext;
    for (int i = 0; i < n; i++, p += sizeof(E)) {
        E v = static_cast<E>(h[i]);
        if (isnan_any(v)) nan = -1;
        store<E, Big>(v, p);
    }
    *ext = p;
    return nan;
}

template <typename E, typename H, bool Big>
int in(unsigned char** ext, H* h, int n) {
    int nan = 0;
    unsigned char* p = *ext;
    for (int i = 0; i < n; i++, p += sizeof(E)) {
        E v = load<E, Big>(p);
        if (isnan_any(v)) nan = -1;
        h[i] = static_cast<H>(v);
    }
    *ext = p;
    return nan;
}

}  // namespace

int hb2mb(const unsigned char* h, unsigned char** ext, int n) {
    if (n > 0) memmove(*ext, h, n), *ext += n;
    return 0;
}
int mb2hb(unsigned char** ext, unsigned char* h, int n) {
    if (n > 0) memmove(h, *ext, n), *ext += n;
    return 0;
}

int hs2ms(const short* h, unsigned char** e, int n) { return out<short, int16_t, true>(h, e, n); }
int uhs2ms(const unsigned short* h, unsigned char** e, int n) { return out<unsigned short, uint16_t, true>(h, e, n); }
int hi2mi(const int* h, unsigned char** e, int n) { return out<int, int32_t, true>(h, e, n); }
int uhi2mi(const unsigned int* h, unsigned char** e, int n) { return out<unsigned int, uint32_t, true>(h, e, n); }
int hl2ml(const int64_t* h, unsigned char** e, int n) { return out<int64_t, int64_t, true>(h, e, n); }
int hf2mf(const float* h, unsigned char** e, int n) { (void)out<float, float, true>(h, e, n); return 0; }
int hd2md(const double* h, unsigned char** e, int n) { return out<double, double, true>(h, e, n); }

int ms2hs(unsigned char** e, short* h, int n) { return in<int16_t, short, true>(e, h, n); }
int ums2hs(unsigned char** e, unsigned short* h, int n) { return in<uint16_t, unsigned short, true>(e, h, n); }
int mi2hi(unsigned char** e, int* h, int n) { return in<int32_t, int, true>(e, h, n); }
int umi2hi(unsigned char** e, unsigned int* h, int n) { return in<uint32_t, unsigned int, true>(e, h, n); }
int ml2hl(unsigned char** e, int64_t* h, int n) { return in<int64_t, int64_t, true>(e, h, n); }
int mf2hf(unsigned char** e, float* h, int n) { (void)in<float, float, true>(e, h, n); return 0; }
int md2hd(unsigned char** e, double* h, int n) { return in<double, double, true>(e, h, n); }

int hs2as(const short* h, unsigned char** e, int n) { return out<short, int16_t, false>(h, e, n); }
int uhs2as(const unsigned short* h, unsigned char** e, int n) { return out<unsigned short, uint16_t, false>(h, e, n); }
int hi2ai(const int* h, unsigned char** e, int n) { return out<int, int32_t, false>(h, e, n); }
int uhi2ai(const unsigned int* h, unsigned char** e, int n) { return out<unsigned int, uint32_t, false>(h, e, n); }
int hl2al(const int64_t* h, unsigned char** e, int n) { return out<int64_t, int64_t, false>(h, e, n); }
int hf2af(const float* h, unsigned char** e, int n) { (void)out<float, float, false>(h, e, n); return 0; }
int hd2ad(const double* h, unsigned char** e, int n) { return out<double, double, false>(h, e, n); }

int as2hs(unsigned char** e, short* h, int n) { return in<int16_t, short, false>(e, h, n); }
int uas2hs(unsigned char** e, unsigned short* h, int n) { return in<uint16_t, unsigned short, false>(e, h, n); }
int ai2hi(unsigned char** e, int* h, int n) { return in<int32_t, int, false>(e, h, n); }
int uai2hi(unsigned char** e, unsigned int* h, int n) { return in<uint32_t, unsigned int, false>(e, h, n); }
int al2hl(unsigned char** e, int64_t* h, int n) { return in<int64_t, int64_t, false>(e, h, n); }
int af2hf(unsigned char** e, float* h, int n) { (void)in<float, float, false>(e, h, n); return 0; }
int ad2hd(unsigned char** e, double* h, int n) { return in<double, double, false>(e, h, n); }

int ms2hi(unsigned char** e, int* h, int n) { return in<int16_t, int, true>(e, h, n); }
int ums2hi(unsigned char** e, int* h, int n) { return in<uint16_t, int, true>(e, h, n); }
int mi2hl(unsigned char** e, int64_t* h, int n) { return in<int32_t, int64_t, true>(e, h, n); }
int mi2hd(unsigned char** e, double* h, int n) { return in<int32_t, double, true>(e, h, n); }
int mf2hd(unsigned char** e, double* h, int n) { (void)in<float, double, true>(e, h, n); return 0; }

// Conversions between host values and external byte orders.
//
// A name reads <source order><type>2<target order><type>: h is the host, m is
// most significant byte first (network order, used on the wire), a is least
// significant byte first.  Types: b byte, s 16-bit, i 32-bit, l 64-bit integer,
// f 32-bit IEEE float, d 64-bit IEEE double; a leading u is the unsigned variant.
//
// Every function converts n values and advances *ext past the external bytes
// it wrote (h2m, h2a) or read (m2h, a2h).  The source comes first:
//     hs2ms(host, &ext, n)    ms2hs(&ext, host, n)
// Results are 0, except that the double conversions return -1 when any value
// converted was a NaN (it is converted all the same).  Mixed widths (ms2hi,
// mi2hd, ...) widen external values into wider host types.
#pragma once

#include <cstdint>

int hb2mb(const unsigned char* h, unsigned char** ext, int n);
int hs2ms(const short* h, unsigned char** ext, int n);
int uhs2ms(const unsigned short* h, unsigned char** ext, int n);
int hi2mi(const int* h, unsigned char** ext, int n);
int uhi2mi(const unsigned int* h, unsigned char** ext, int n);
int hl2ml(const int64_t* h, unsigned char** ext, int n);
int hf2mf(const float* h, unsigned char** ext, int n);
int hd2md(const double* h, unsigned char** ext, int n);

int mb2hb(unsigned char** ext, unsigned char* h, int n);
int ms2hs(unsigned char** ext, short* h, int n);
int ums2hs(unsigned char** ext, unsigned short* h, int n);
int mi2hi(unsigned char** ext, int* h, int n);
int umi2hi(unsigned char** ext, unsigned int* h, int n);
int ml2hl(unsigned char** ext, int64_t* h, int n);
int mf2hf(unsigned char** ext, float* h, int n);
int md2hd(unsigned char** ext, double* h, int n);

int hs2as(const short* h, unsigned char** ext, int n);
int uhs2as(const unsigned short* h, unsigned char** ext, int n);
int hi2ai(const int* h, unsigned char** ext, int n);
int uhi2ai(const unsigned int* h, unsigned char** ext, int n);
int hl2al(const int64_t* h, unsigned char** ext, int n);
int hf2af(const float* h, unsigned char** ext, int n);
int hd2ad(const double* h, unsigned char** ext, int n);

int as2hs(unsigned char** ext, short* h, int n);
int uas2hs(unsigned char** ext, unsigned short* h, int n);
int ai2hi(unsigned char** ext, int* h, int n);
int uai2hi(unsigned char** ext, unsigned int* h, int n);
int al2hl(unsigned char** ext, int64_t* h, int n);
int af2hf(unsigned char** ext, float* h, int n);
int ad2hd(unsigned char** ext, double* h, int n);

// Widening reads.
int ms2hi(unsigned char** ext, int* h, int n);
int ums2hi(unsigned char** ext, int* h, int n);
int mi2hl(unsigned char** ext, int64_t* h, int n);
int mi2hd(unsigned char** ext, double* h, int n);
int mf2hd(unsigned char** ext, double* h, int n);

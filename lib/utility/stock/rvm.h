// Rvm: MD5 message digests (RFC 1321).
//
// Rvm is a plain copyable record: a running digest is taken without
// disturbing the context by finishing a copy of it:
//     Rvm copy = ctx; endrvm(&copy); /* copy.digest */
// inirvm starts a digest, addrvm adds any number of bytes (any alignment),
// endrvm finishes it and leaves the 16 bytes in digest; the context must be
// started again before reuse. ascrvm writes a finished digest as 32 lower-case
// hexadecimal characters and a NUL (text needs 33 bytes).
#pragma once

#include <cstddef>
#include <cstdint>

struct Rvm {
    uint32_t count[2];          // number of bits added, low word first
    uint32_t state[4];          // A, B, C, D
    unsigned char buffer[64];   // input block being filled
    unsigned char digest[16];   // the result, after endrvm
};

void inirvm(Rvm* rvm);
void addrvm(Rvm* rvm, const void* data, size_t n);
void endrvm(Rvm* rvm);
void ascrvm(const Rvm* rvm, char* text);

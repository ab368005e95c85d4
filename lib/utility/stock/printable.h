// Printable forms of bytes for messages and dumps.
#pragma once

#include <cstdio>

// 1 when the byte c (taken modulo 256) is 32..126, else 0: control bytes,
// 127 and every byte of 128..255 are not printable.
int printable(int c);

// New text (caller frees) showing n bytes of data, printable bytes as they
// are and others as \n, \t, \r, \\ or \xNN, cut to at most max characters.
char* strprintable(const void* data, long n, long max);

// Writes n bytes of data to fp, 16 a line: offset, hex bytes, printable text.
void hexdump(FILE* fp, const void* data, long n);

// Byte reversal of arrays of 2-, 4- and 8-byte elements.
// from and to may be the same array (in place); they must not otherwise overlap.
// The buffers need no particular alignment.
#pragma once

void swap2(const void* from, void* to, int n);  // n elements of 2 bytes
void swap4(const void* from, void* to, int n);  // n elements of 4 bytes
void swap8(const void* from, void* to, int n);  // n elements of 8 bytes

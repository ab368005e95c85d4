// Whole-file read-only mappings, remembered by file name so that
// unmapfile(filename, 0) releases what mapfile(filename, ...) made.
#pragma once

// Maps filename read-only; *data gets the address and the result is the
// size. An empty file gives size 0 and a valid non-null address with no
// bytes behind it. On failure both the result and *data are -1 (errno set);
// anything but a regular file (a FIFO, a device, a directory) fails with
// ENODEV, without waiting.
// flags: 0 (none defined yet).
long mapfile(const char* filename, int flags, void** data);

// Releases the mapping of filename at data, or with data null the latest
// mapping of filename. 0 when one was released, -1 when none was found.
int unmapfile(const char* filename, const void* data);

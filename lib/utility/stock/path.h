// Paths and files.
// Style: functions that give a path back fill caller buffers of at least
// PATH_MAX bytes (abspath, dirbase, parsepath); functions that make new text
// or lists return memory the caller frees (concatpaths: free();
// dirfiles: freetbl(t, free); getaline: free(*buf)).
#pragma once

#include <sys/stat.h>

#include <climits>
#include <cstdio>

struct Tbl;

// path made absolute against the current directory, with "//", "/./" and
// "/../" resolved by text (symbolic links are not followed); returns abs, or
// null when the current directory is unknown or the result exceeds PATH_MAX.
char* abspath(const char* path, char* abs);

// Splits at the last "/": dir gets the part before it ("." when there is no
// "/", "/" for a name right under the root), base the part after it.
void dirbase(const char* path, char* dir, char* base);

// Like dirbase, and further splits base at its last "." into base and suffix
// (suffix without the dot, "" when none; a leading dot is part of the base).
// Any of dir, base, suffix may be null.
void parsepath(const char* path, char* dir, char* base, char* suffix);

// New text dir + "/" + name (one "/" between them); name alone when dir is
// null or empty or name is absolute. "./" in front is kept as given.
char* concatpaths(const char* dir, const char* name);

// Creates dir and its missing parents (mode 0775 less umask); 0 when dir
// exists as a directory afterwards, -1 otherwise (errno set).
int makedir(const char* dir);

int is_file(const char* path);     // 1 for a regular file (links followed), else 0
int is_dir(const char* path);      // 1 for a directory (links followed), else 0
int is_present(const char* path);  // 1 when anything exists there (a dangling link counts)

// Names in dir except "." and "..", sorted by strcmp, as a new Tbl of new
// strings; with DIRFILES_NODOT names starting with "." are left out too.
// Null when dir cannot be read (errno set).
#define DIRFILES_NODOT 1
Tbl* dirfiles(const char* dir, int flags);

// Walks dir: calls fn(path, stat, arg) for every regular file in name order,
// then, with FSTRAVERSE_RECURSE, walks each subdirectory the same way in name
// order (symbolic links to directories are not entered, so no cycles). Paths
// handed to fn are concatpaths(dir, name). fn's result does not stop the walk.
// Returns 0, or -1 when dir itself cannot be read.
#define FSTRAVERSE_RECURSE 1
int fstraverse(const char* dir, int flags, int (*fn)(const char* path, struct stat* statbuf, void* arg),
               void* arg);
int fstraverse(const char* dir, int flags, int (*fn)(const char* path, struct stat* statbuf, int arg), int arg);

// Reads one line of any length from fp into *buf (grown with realloc as
// needed; *buf may start null, *size is its capacity). The newline is
// dropped. Returns the length of the line, or -1 at end of input or on error.
long getaline(FILE* fp, char** buf, size_t* size);

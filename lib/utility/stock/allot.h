// Out of memory is always fatal, through elog_die with the system error and
// the message "Out of memory at line %d in '%s'\n\tCan't malloc %u bytes for %s\n"
// (source line, source name, byte count, what was being allocated).
#pragma once

#include <cstddef>
#include <cstdlib>

[[noreturn]] void die_nomem(int line, const char* source, size_t nbytes, const char* what);

// The base name of a source path without its suffix: "lib/x/bns.cc" -> "bns".
const char* nomem_source(const char* file);

// A malloc'd copy of s (free() it); dies naming what on failure.
char* allot_strdup_at(const char* s, int line, const char* source, const char* what);
#define allot_strdup(s, what) allot_strdup_at((s), __LINE__, nomem_source(__FILE__), (what))

// ptr = n new elements of type (malloc); dies naming ptr on failure.
#define allot(type, ptr, n)                                                                \
    do {                                                                                   \
        size_t allot_n_ = (size_t)(n) * sizeof(*(ptr));                                    \
        (ptr) = (type)malloc(allot_n_ ? allot_n_ : 1);                                     \
        if (!(ptr)) die_nomem(__LINE__, nomem_source(__FILE__), allot_n_, #ptr);           \
    } while (0)

// ptr grown or shrunk to n elements (realloc); dies naming ptr on failure.
#define reallot(type, ptr, n)                                                              \
    do {                                                                                   \
        size_t allot_n_ = (size_t)(n) * sizeof(*(ptr));                                    \
        type allot_p_ = (type)realloc((ptr), allot_n_ ? allot_n_ : 1);                     \
        if (!allot_p_) die_nomem(__LINE__, nomem_source(__FILE__), allot_n_, #ptr);        \
        (ptr) = allot_p_;                                                                  \
    } while (0)

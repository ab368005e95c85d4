// Tbl: a growable list of untyped pointers, indexed from 0.
// The list owns nothing it holds; freetbl hands each value to the given free routine.
#pragma once

struct Tbl;

Tbl* newtbl(long size = 0);                        // empty list, room for size
void* gettbl(const Tbl* t, long i);                // value at i, or null when i is outside the list
long settbl(Tbl* t, long i, void* value);          // set at i, growing with nulls; i < 0 appends; returns i
long pushtbl(Tbl* t, void* value);                 // append; returns the new count
void* poptbl(Tbl* t);                              // remove and return the last value (null when empty)
void* shifttbl(Tbl* t);                            // remove and return the first value (null when empty)
void unshifttbl(Tbl* t, void* value);              // insert at the front
void* deltbl(Tbl* t, long i);                      // remove at i, closing the gap; returns it
long maxtbl(const Tbl* t);                         // number of values (0 for null)
void clrtbl(Tbl* t, void (*free_value)(void*));    // empty the list, freeing each value when given
void freetbl(Tbl* t, void (*free_value)(void*));   // free the list (null accepted)
Tbl* duptbl(const Tbl* t, void* (*dup_value)(void*)); // copy; values copied by dup_value when given
Tbl* strtbl(const char* first, ...);               // list of the given texts (not copied), null-terminated
void sorttbl(Tbl* t, int (*cmp)(const void* a, const void* b)); // cmp gets the two values, stable

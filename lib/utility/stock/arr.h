// Arr: a text-keyed associative array kept in key order.
// Keys are copied; values are untyped pointers the array does not own
// except through freearr's free routine.
#pragma once

struct Tbl;
struct Arr;

Arr* newarr(int (*cmp)(const char*, const char*) = nullptr); // order by cmp, else strcmp
void* getarr(const Arr* a, const char* key);                 // value or null
void* setarr(Arr* a, const char* key, void* value);          // returns the value it displaced, or null
void* delarr(Arr* a, const char* key);                       // returns the value it removed, or null
Tbl* keysarr(const Arr* a);       // new Tbl of the keys in order; the texts belong to the array
Tbl* valuesarr(const Arr* a);     // new Tbl of the values in key order
long cntarr(const Arr* a);        // number of entries (0 for null)
void clrarr(Arr* a, void (*free_value)(void*));
void freearr(Arr* a, void (*free_value)(void*)); // null accepted
Arr* duparr(const Arr* a, void* (*dup_value)(void*));
// Calls fn for each entry in key order; stops early when fn returns nonzero and returns that.
int applyarr(const Arr* a, int (*fn)(const char* key, void* value, void* ctx), void* ctx);

#include "stock/tbl.h"

#include <algorithm>
#include <cstdarg>
#include <vector>

struct Tbl {
    std::vector<void*> v;
};

Tbl* newtbl(long size) {
    Tbl* t = new Tbl;
    if (size > 0) t->v.reserve(size);
    return t;
}

void* gettbl(const Tbl* t, long i) {
    if (!t || i < 0 || i >= (long)t->v.size()) return nullptr;
    return t->v[i];
}

long settbl(Tbl* t, long i, void* value) {
    if (i < 0) {
        t->v.push_back(value);
        return (long)t->v.size() - 1;
    }
    if (i >= (long)t->v.size()) t->v.resize(i + 1, nullptr);
    t->v[i] = value;
    return i;
}

long pushtbl(Tbl* t, void* value) {
    t->v.push_back(value);
    return (long)t->v.size();
}

void* poptbl(Tbl* t) {
    if (!t || t->v.empty()) return nullptr;
    void* p = t->v.back();
    t->v.pop_back();
    return p;
}

void* shifttbl(Tbl* t) { return deltbl(t, 0); }

void unshifttbl(Tbl* t, void* value) { t->v.insert(t->v.begin(), value); }

void* deltbl(Tbl* t, long i) {
    if (!t || i < 0 || i >= (long)t->v.size()) return nullptr;
    void* p = t->v[i];
    t->v.erase(t->v.begin() + i);
    return p;
}

long maxtbl(const Tbl* t) { return t ? (long)t->v.size() : 0; }

void clrtbl(Tbl* t, void (*free_value)(void*)) {
    if (!t) return;
    if (free_value)
        for (void* p : t->v) free_value(p);
    t->v.clear();
}

void freetbl(Tbl* t, void (*free_value)(void*)) {
    clrtbl(t, free_value);
    delete t;
}

Tbl* duptbl(const Tbl* t, void* (*dup_value)(void*)) {
    Tbl* d = newtbl(maxtbl(t));
    if (t)
        for (void* p : t->v) d->v.push_back(dup_value ? dup_value(p) : p);
    return d;
}

Tbl* strtbl(const char* first, ...) {
    Tbl* t = newtbl();
    va_list ap;
    va_start(ap, first);
    for (const char* s = first; s; s = va_arg(ap, const char*)) t->v.push_back((void*)s);
    va_end(ap);
    return t;
}

void sorttbl(Tbl* t, int (*cmp)(const void* a, const void* b)) {
    std::stable_sort(t->v.begin(), t->v.end(), [cmp](void* a, void* b) { return cmp(a, b) < 0; });
}

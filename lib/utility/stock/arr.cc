#include "stock/arr.h"

#include <cstring>
#include <map>
#include <string>

#include "stock/tbl.h"

namespace {
struct KeyLess {
    int (*cmp)(const char*, const char*);
    bool operator()(const std::string& a, const std::string& b) const {
        return cmp ? cmp(a.c_str(), b.c_str()) < 0 : a < b;
    }
};
}  // namespace

struct Arr {
    std::map<std::string, void*, KeyLess> m;
    explicit Arr(int (*cmp)(const char*, const char*)) : m(KeyLess{cmp}) {}
};

Arr* newarr(int (*cmp)(const char*, const char*)) { return new Arr(cmp); }

void* getarr(const Arr* a, const char* key) {
    if (!a || !key) return nullptr;
    auto it = a->m.find(key);
    return it == a->m.end() ? nullptr : it->second;
}

void* setarr(Arr* a, const char* key, void* value) {
    auto [it, inserted] = a->m.try_emplace(key, value);
    if (inserted) return nullptr;
    void* old = it->second;
    it->second = value;
    return old;
}

void* delarr(Arr* a, const char* key) {
    if (!a || !key) return nullptr;
    auto it = a->m.find(key);
    if (it == a->m.end()) return nullptr;
    void* old = it->second;
    a->m.erase(it);
    return old;
}

Tbl* keysarr(const Arr* a) {
    Tbl* t = newtbl(cntarr(a));
    if (a)
        for (auto& [k, v] : a->m) pushtbl(t, (void*)k.c_str());
    return t;
}

Tbl* valuesarr(const Arr* a) {
    Tbl* t = newtbl(cntarr(a));
    if (a)
        for (auto& [k, v] : a->m) pushtbl(t, v);
    return t;
}

long cntarr(const Arr* a) { return a ? (long)a->m.size() : 0; }

void clrarr(Arr* a, void (*free_value)(void*)) {
    if (!a) return;
    if (free_value)
        for (auto& [k, v] : a->m) free_value(v);
    a->m.clear();
}

void freearr(Arr* a, void (*free_value)(void*)) {
    clrarr(a, free_value);
    delete a;
}

Arr* duparr(const Arr* a, void* (*dup_value)(void*)) {
    Arr* d = new Arr(a ? a->m.key_comp().cmp : nullptr);
    if (a)
        for (auto& [k, v] : a->m) d->m.emplace(k, dup_value ? dup_value(v) : v);
    return d;
}

int applyarr(const Arr* a, int (*fn)(const char*, void*, void*), void* ctx) {
    if (!a) return 0;
    for (auto& [k, v] : a->m)
        if (int r = fn(k.c_str(), v, ctx)) return r;
    return 0;
}

// Arbitrary bytes through the parameter-file scanner; whatever is read must
// write out and read back to an equal tree, and every string must expand in
// bounded time. Nothing is evaluated: deferred forms could run commands, so
// trees that hold any are not expanded (a reference to one would run it).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz.h"
#include "stock/pf.h"

namespace {

bool same(Pf* a, Pf* b) {
    if (!a || !b) return a == b;
    bool an = a->type == PF_ROOT || a->type == PF_ARR, bn = b->type == PF_ROOT || b->type == PF_ARR;
    if (an || bn) {
        if (!an || !bn) return false;
        Tbl* ka = pfkeys(a);
        Tbl* kb = pfkeys(b);
        bool ok = maxtbl(ka) == maxtbl(kb);
        for (long i = 0; ok && i < maxtbl(ka); i++) {
            const char* k = static_cast<const char*>(gettbl(ka, i));
            ok = strcmp(k, static_cast<const char*>(gettbl(kb, i))) == 0 &&
                 same(static_cast<Pf*>(getarr(a->value.arr, k)), static_cast<Pf*>(getarr(b->value.arr, k)));
        }
        freetbl(ka, nullptr);
        freetbl(kb, nullptr);
        return ok;
    }
    if (a->type != b->type) return false;
    if (a->type == PF_TBL) {
        if (pfmaxtbl(a) != pfmaxtbl(b)) return false;
        for (long i = 0; i < pfmaxtbl(a); i++)
            if (!same(static_cast<Pf*>(gettbl(a->value.tbl, i)), static_cast<Pf*>(gettbl(b->value.tbl, i))))
                return false;
        return true;
    }
    const char* sa = a->type == PF_FUNCTION ? a->value.pffunct->s : a->value.s;
    const char* sb = b->type == PF_FUNCTION ? b->value.pffunct->s : b->value.s;
    return strcmp(sa ? sa : "", sb ? sb : "") == 0;
}

// Whether test holds for pf or anything below it, tried in order until it does.
using Test = bool (*)(Pf*);
bool any(Pf* pf, Test test) {
    if (!pf) return false;
    if (test(pf)) return true;
    if (pf->type == PF_ROOT || pf->type == PF_ARR)
        return applyarr(
                   pf->value.arr,
                   [](const char*, void* v, void* t) { return int(any(static_cast<Pf*>(v), *static_cast<Test*>(t))); },
                   &test) != 0;
    if (pf->type == PF_TBL)
        for (long i = 0; i < pfmaxtbl(pf); i++)
            if (any(static_cast<Pf*>(gettbl(pf->value.tbl, i)), test)) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* fp = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (!fp) return 0;
    Pf* pf = nullptr;
    int rc = pfin(fp, &pf);
    fclose(fp);
    if (rc != 0 && rc != -2) abort();
    char* text = pf2string(pf);
    Pf* again = nullptr;
    if (pfcompile(text, &again) != 0) abort();
    if (!same(pf, again)) abort();
    char* text2 = pf2string(again);
    if (strcmp(text, text2) != 0) abort();
    if (!any(pf, [](Pf* p) { return p->type == PF_FUNCTION; }))
        any(pf, [](Pf* p) {
            if (p->type == PF_STRING) pfexpand(p);
            return false;  // on to every node
        });
    free(text);
    free(text2);
    pffree(pf);
    pffree(again);
    return 0;
}

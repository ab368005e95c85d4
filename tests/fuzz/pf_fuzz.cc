// Arbitrary bytes through the parameter-file scanner; whatever is read must write out and read back to an
// equal tree, and every string must expand in bounded time. Nothing is evaluated: deferred forms could run
// commands, so trees that hold any are not expanded (a reference to one would run it).
#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "support/pfdump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* fp = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (!fp) return 0;
    Pf *pf = nullptr, *again = nullptr;
    int rc = pfin(fp, &pf);
    fclose(fp);
    fuzz::require(rc == 0 || rc == -2, "pfin failed");
    char* text = pf2string(pf);
    fuzz::require(pfcompile(text, &again) == 0, "what was written does not read back");
    std::vector<Pf*> nodes;
    fuzz::require(pfdump(pf, &nodes) == pfdump(again), "what was read back differs");
    char* text2 = pf2string(again);
    fuzz::require(strcmp(text, text2) == 0, "what was read back writes out differently");
    if (std::none_of(nodes.begin(), nodes.end(), [](Pf* p) { return p->type == PF_FUNCTION; }))
        for (Pf* p : nodes)
            if (p->type == PF_STRING) pfexpand(p);
    free(text);
    free(text2);
    pffree(pf);
    pffree(again);
    return 0;
}

// Arbitrary bytes through the parameter-file scanner; whatever is read must write out and read back to an
// equal tree, and every string must expand in bounded time. Nothing is evaluated: deferred forms could run
// commands, so trees that hold any are not expanded (a reference to one would run it).
#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "stock/pf.h"

namespace {

std::string counted(const char* s) { return std::to_string(s ? strlen(s) : 0) + ":" + (s ? s : ""); }

// The tree as text that two trees share only when they are equal (a file
// and an &Arr alike); every node is added to nodes.
std::string dump(Pf* p, std::vector<Pf*>& nodes) {
    if (!p) return "-";
    nodes.push_back(p);
    std::string out = "(";
    if (p->type == PF_ROOT || p->type == PF_ARR) {
        Tbl* keys = pfkeys(p);
        for (long i = 0; i < maxtbl(keys); i++) {
            auto k = static_cast<const char*>(gettbl(keys, i));
            out += counted(k) + dump(static_cast<Pf*>(getarr(p->value.arr, k)), nodes);
        }
        freetbl(keys, nullptr);
    } else if (p->type == PF_TBL) {
        out = "[";
        for (long i = 0; i < pfmaxtbl(p); i++) out += dump(static_cast<Pf*>(gettbl(p->value.tbl, i)), nodes);
    } else {
        out = std::to_string(p->type) + counted(p->type == PF_FUNCTION ? p->value.pffunct->s : p->value.s);
    }
    return out + ")";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* fp = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (!fp) return 0;
    Pf *pf = nullptr, *again = nullptr;
    int rc = pfin(fp, &pf);
    fclose(fp);
    fuzz::require(rc == 0 || rc == -2, "pfin failed");
    char* text = pf2string(pf);
    fuzz::require(pfcompile(text, &again) == 0, "what was written does not read back");
    std::vector<Pf*> nodes, ignored;
    fuzz::require(dump(pf, nodes) == dump(again, ignored), "what was read back differs");
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

// An unambiguous dump of a parameter-file tree: types, keys, order of list entries and bytes of strings. A
// file root and an array are both named nodes and dump alike.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "stock/pf.h"

// The dump of pf; every node met is added to nodes, when given.
inline std::string pfdump(Pf* pf, std::vector<Pf*>* nodes = nullptr) {
    auto counted = [](const char* s) { return std::to_string(s ? strlen(s) : 0) + ":" + (s ? s : ""); };
    if (!pf) return "null";
    if (nodes) nodes->push_back(pf);
    std::string out;
    if (pf->type == PF_ROOT || pf->type == PF_ARR) {
        Tbl* keys = pfkeys(pf);
        for (long i = 0; i < maxtbl(keys); i++) {
            const char* k = static_cast<const char*>(gettbl(keys, i));
            out += counted(k) + "=" + pfdump(static_cast<Pf*>(getarr(pf->value.arr, k)), nodes) + ",";
        }
        freetbl(keys, nullptr);
        return "{" + out + "}";
    }
    if (pf->type == PF_TBL) {
        for (long i = 0; i < pfmaxtbl(pf); i++)
            out += pfdump(static_cast<Pf*>(gettbl(pf->value.tbl, i)), nodes) + ",";
        return "[" + out + "]";
    }
    const char* s = pf->type == PF_FUNCTION ? pf->value.pffunct->s : pf->value.s;
    return std::to_string(pf->type) + "/" + counted(s);
}

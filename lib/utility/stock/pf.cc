// The parameter tree: nodes, key paths, reference expansion, typed getters,
// setters, the missing-value handler and the cache of named trees.
#include "stock/pf.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "stock/allot.h"
#include "stock/elog.h"
#include "stock/pf_private.h"

namespace {

const char* const Pftype_names[] = {"scalar", "scalar", "table", "array", "undefined", "invalid", "pf-function"};
constexpr int Npftype_names = sizeof(Pftype_names) / sizeof(Pftype_names[0]);

std::mutex Filename_lock;
std::set<std::string>* Filenames;  // interned, never freed: nodes point into it
std::atomic<const char*> Pf_filename{"*pf filename unknown*"};

std::atomic<int> Reading{0};

// Expansion depth is process-wide by design, guarded by its own mutex.
std::mutex Expand_lock;
int Expand_depth = 0;
constexpr int Max_expand_depth = 20;

// The depth limit alone does not bound the work: a value that names itself
// twice expands 2^20 times, four times 4^20. One expansion (with everything
// it pulls in) may therefore make only so many lookups and copy only so many
// bytes; past either, references read as the recursion error.
constexpr long Max_expand_lookups = 10000;
constexpr size_t Max_expand_bytes = 64u << 20;
thread_local int Expand_nesting = 0;  // this thread's pfexpand calls in progress
thread_local long Expand_lookups = 0;
thread_local size_t Expand_bytes = 0;

std::mutex Pflist_lock;
Arr* Pflist;

[[noreturn]] void nomem(int line, size_t n, const char* what) { die_nomem(line, nomem_source(__FILE__), n, what); }

bool is_named(const Pf* pf) { return pf && (pf->type == PF_ROOT || pf->type == PF_ARR); }

long key_index(const char* key) { return static_cast<long>(reinterpret_cast<intptr_t>(key)); }

void free_child(void* p) { pffree(static_cast<Pf*>(p)); }

// Accepted as a number: something consumed and only white space after it.
bool only_blanks(const char* p) {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\f' || *p == '\v') p++;
    return *p == 0;
}

// The string a getter works on: the expanded text of the node reached, or the
// handler's default when there is none.
char* string_for(Pf* pf, const char* key, int expected) {
    Pf* node = nullptr;
    _pfeval(pf, key, &node, expected);
    char* s = node ? pfexpand(node) : nullptr;
    if (!s) pfdie(pf, key, expected, PF_INVALID, &s);
    return s;
}

std::string key_text(Pf* pf, const char* key) {
    if (pf && pf->type == PF_TBL) return "#" + std::to_string(key_index(key));
    return key ? key : "";
}

// A new string child, copy of s (which may be null).
Pf* new_string(Pf* parent, const char* s) {
    Pf* child = pfnew(PF_STRING);
    child->value.s = s ? pf_strdup(s) : nullptr;
    child->parent = parent;
    return child;
}

void adopt_children(Pf* pf) {
    if (is_named(pf)) {
        applyarr(
            pf->value.arr,
            [](const char*, void* v, void* ctx) {
                if (v) static_cast<Pf*>(v)->parent = static_cast<Pf*>(ctx);
                return 0;
            },
            pf);
    } else if (pf->type == PF_TBL) {
        for (long i = 0; i < maxtbl(pf->value.tbl); i++) {
            Pf* c = static_cast<Pf*>(gettbl(pf->value.tbl, i));
            if (c) c->parent = pf;
        }
    }
}

// Frees what a node holds, leaving the node itself (used to retype in place).
void clear_value(Pf* pf) {
    switch (pf->type) {
        case PF_STRING:
        case -1:
            free(pf->value.s);
            break;
        case PF_ROOT:
        case PF_ARR:
            freearr(pf->value.arr, free_child);
            break;
        case PF_TBL:
            freetbl(pf->value.tbl, free_child);
            break;
        case PF_INVALID:
            free(pf->value.s);
            break;
        case PF_FUNCTION:
            if (pf->value.pffunct) {
                free(pf->value.pffunct->s);
                pffree(pf->value.pffunct->pf);
                free_hook(&pf->value.pffunct->hook);
                free(pf->value.pffunct);
            }
            break;
        default:
            elog_complain(0, "pffree: didn't free type %d", pf->type);
            break;
    }
    pf->value.s = nullptr;
}

void store_child(Pf* pf, const char* key, Pf* child) {
    child->parent = pf;
    if (pf->type == PF_TBL) {
        long i = key_index(key);
        if (i < 0) {
            pffree(child);
            return;
        }
        pffree(static_cast<Pf*>(gettbl(pf->value.tbl, i)));
        settbl(pf->value.tbl, i, child);
    } else {
        pffree(static_cast<Pf*>(setarr(pf->value.arr, key ? key : "", child)));
    }
}

// One selector of a key path.
struct Step {
    bool is_index;
    std::string name;
    long index;
};

// Splits a key path into steps; characters that fit nothing are reported and skipped.
void scan_path(const char* key, std::vector<Step>& steps) {
    const char* p = key;
    auto bare = [](char c) { return c && !strchr(" \t\n\r{}[]", c); };
    while (*p) {
        if (*p == '{') {
            const char* close = strchr(p + 1, '}');
            if (close) {
                const char* b = p + 1;
                const char* e = close;
                while (b < e && (*b == ' ' || *b == '\t')) b++;
                while (e > b && (e[-1] == ' ' || e[-1] == '\t')) e--;
                steps.push_back({false, std::string(b, e), 0});
                p = close + 1;
                continue;
            }
        } else if (*p == '[') {
            const char* q = p + 1;
            while (*q >= '0' && *q <= '9') q++;
            if (q > p + 1 && *q == ']' && q - p < 19) {
                steps.push_back({true, {}, strtol(p + 1, nullptr, 10)});
                p = q + 1;
                continue;
            }
        } else if (bare(*p)) {
            const char* q = p;
            while (bare(*q)) q++;
            steps.push_back({false, std::string(p, q), 0});
            p = q;
            continue;
        }
        char c[2] = {*p, 0};
        fprintf(stderr, "unmatched char '%s'\n", c);
        p++;
    }
}

}  // namespace

// ---- shared internals ------------------------------------------------------

const char* pf_intern(const char* s) {
    if (!s) return nullptr;
    std::lock_guard<std::mutex> lock(Filename_lock);
    if (!Filenames) Filenames = new std::set<std::string>;
    return Filenames->insert(s).first->c_str();
}

const char* pf_current_filename() { return Pf_filename.load(); }

void setpffilename(const char* s) { Pf_filename.store(pf_intern(s ? s : "")); }

const char* getpffilename(void) { return Pf_filename.load(); }

PfReadingScope::PfReadingScope() { Reading++; }
PfReadingScope::~PfReadingScope() { Reading--; }

int pf_reading(void) { return Reading.load(); }

char* pf_strdup(const char* s) { return allot_strdup(s, "result"); }

const char* pftype_name(int type) {
    if (type < 0 || type >= Npftype_names) return Pftype_names[Npftype_names - 1];
    return Pftype_names[type];
}

// ---- nodes -----------------------------------------------------------------

Pf* pfnew(int type) {
    Pf* pf = static_cast<Pf*>(calloc(1, sizeof(Pf)));
    if (!pf) nomem(__LINE__, sizeof(Pf), "pf");
    pf->type = type;
    pf->filename = pf_current_filename();
    switch (type) {
        case PF_ROOT:
        case PF_ARR:
            pf->value.arr = newarr();
            break;
        case PF_TBL:
            pf->value.tbl = newtbl();
            break;
        case PF_FUNCTION:
            pf->value.pffunct = static_cast<Pffunct*>(calloc(1, sizeof(Pffunct)));
            if (!pf->value.pffunct) nomem(__LINE__, sizeof(Pffunct), "pf->value.pffunct");
            break;
        default:
            break;
    }
    return pf;
}

void pffree(Pf* pf) {
    if (!pf) return;
    if (pf->type == PF_UNDEFINED || pf->type == PF_ANY)
        elog_complain(0, "pffree: didn't free type %d", pf->type);
    else
        clear_value(pf);
    free(pf->filled_out);
    free(pf);
}

Pf* pfdup(Pf* pf) {
    if (!pf) return nullptr;
    Pf* copy = nullptr;
    switch (pf->type) {
        case PF_ROOT:
        case PF_ARR: {
            copy = pfnew(pf->type);
            applyarr(
                pf->value.arr,
                [](const char* k, void* v, void* ctx) {
                    Pf* c = pfdup(static_cast<Pf*>(v));
                    if (c) c->parent = static_cast<Pf*>(ctx);
                    setarr(static_cast<Pf*>(ctx)->value.arr, k, c);
                    return 0;
                },
                copy);
            break;
        }
        case PF_TBL:
            copy = pfnew(PF_TBL);
            for (long i = 0; i < maxtbl(pf->value.tbl); i++) {
                Pf* c = pfdup(static_cast<Pf*>(gettbl(pf->value.tbl, i)));
                if (c) c->parent = copy;
                settbl(copy->value.tbl, i, c);
            }
            break;
        case PF_STRING:
            copy = pfnew(PF_STRING);
            copy->value.s = pf->value.s ? pf_strdup(pf->value.s) : nullptr;
            break;
        case PF_FUNCTION:
            copy = pfnew(PF_FUNCTION);
            copy->value.pffunct->s = pf->value.pffunct->s ? pf_strdup(pf->value.pffunct->s) : nullptr;
            break;
        default:
            elog_die(0, "Bad type in pfdup : %d\n", pf->type);
    }
    copy->filename = pf->filename;
    return copy;
}

// ---- lookup ----------------------------------------------------------------

int pfget(Pf* pf, const char* key, void** value) {
    Pf* node = nullptr;
    if (pf) {
        if (is_named(pf))
            node = static_cast<Pf*>(getarr(pf->value.arr, key ? key : ""));
        else if (pf->type == PF_TBL)
            node = static_cast<Pf*>(gettbl(pf->value.tbl, key_index(key)));
        else if (pf->type == PF_STRING || pf->type == PF_FUNCTION)
            node = pf;
    }
    node = pf_evaluate(node);
    if (!node) {
        *value = nullptr;
        return PF_INVALID;
    }
    if (node->type == PF_STRING) {
        *value = pfexpand(node);
        return PF_STRING;
    }
    *value = node;
    return node->type;
}

int pf_walk(Pf* pf, const char* key, int create, Pf** out, bool evaluate_last) {
    *out = nullptr;
    if (!pf) return -31;
    Pf* cur = pf;
    if (pf->type == PF_TBL) {
        cur = static_cast<Pf*>(gettbl(pf->value.tbl, key_index(key)));
        if (!cur) return -32;
    } else if (key) {
        std::vector<Step> steps;
        scan_path(key, steps);
        for (const Step& s : steps) {
            Pf* from = pf_evaluate(cur);
            if (!from) return -31;
            Pf* next = nullptr;
            if (!s.is_index && is_named(from)) {
                next = static_cast<Pf*>(getarr(from->value.arr, s.name.c_str()));
                if (!next) {
                    if (!create) return -31;
                    pfadd_arr(from, s.name.c_str());
                    next = static_cast<Pf*>(getarr(from->value.arr, s.name.c_str()));
                }
            } else if (s.is_index && s.index > INT_MAX) {
                return -32;  // no list is that long, and pfadd_tbl takes an int
            } else if (s.is_index && from->type == PF_TBL) {
                next = static_cast<Pf*>(gettbl(from->value.tbl, s.index));
                if (!next) {
                    if (!create) return -31;
                    pfadd_tbl(from, static_cast<int>(s.index));
                    next = static_cast<Pf*>(gettbl(from->value.tbl, s.index));
                }
            } else if (from->type == PF_ANY && create) {
                if (s.is_index) {
                    pfadd_tbl(from, static_cast<int>(s.index));
                    next = static_cast<Pf*>(gettbl(from->value.tbl, s.index));
                } else {
                    pfadd_arr(from, s.name.c_str());
                    next = static_cast<Pf*>(getarr(from->value.arr, s.name.c_str()));
                }
            } else {
                return -32;
            }
            if (!next) return -32;
            cur = next;
        }
    }
    if (evaluate_last) {
        cur = pf_evaluate(cur);
        if (!cur) return -31;
    }
    *out = cur;
    return cur->type;
}

int pfresolve(Pf* pf, const char* key, int create, Pf** pfvalue) { return pf_walk(pf, key, create, pfvalue, true); }

int _pfeval(Pf* pf, const char* key, Pf** value, int expected) {
    Pf* node = nullptr;
    int rc;
    if (pf && pf->type == PF_ARR && (!key || !*key)) {
        node = pf;
        rc = pf->type;
    } else {
        rc = pfresolve(pf, key, 0, &node);
        if (rc < 0) {
            *value = nullptr;
            return rc;
        }
    }
    if (node && expected != PF_ANY && node->type != expected) pfdie(pf, key, expected, node->type, &node);
    *value = node;
    return rc;
}

int pfeval(Pf* pf, const char* key, char** string) {
    Pf* node = nullptr;
    *string = nullptr;
    if (pfresolve(pf, key, 0, &node) < 0 || !node) return -1;
    if (node->type != PF_STRING && node->type != PF_ROOT) return -1;
    *string = pfexpand(node);
    return 0;
}

char* pfexpand(Pf* pf) {
    if (!pf) return nullptr;
    char* text;
    if (pf->type == PF_STRING)
        text = pf->value.s;
    else if (pf->type == PF_FUNCTION && pf->value.pffunct)
        text = pf->value.pffunct->s;
    else
        return nullptr;
    if (!text || !strchr(text, '&')) return text;

    struct Nesting {
        Nesting() {
            if (Expand_nesting++ == 0) Expand_lookups = 0, Expand_bytes = 0;
        }
        ~Nesting() { Expand_nesting--; }
    } nesting;

    std::string out;
    out.reserve(std::max<size_t>(2 * strlen(text), 1024));
    const char* p = text;
    while (*p) {
        if (*p != '&') {
            out += *p++;
            continue;
        }
        const char* start = p;
        std::string name;
        if (p[1] == '{') {
            const char* close = strchr(p + 2, '}');
            const char* end = close ? close : p + strlen(p);
            name.assign(p + 2, end);
            p = close ? close + 1 : end;
        } else {
            const char* q = p + 1;
            while (*q && (isalnum(static_cast<unsigned char>(*q)) || *q == '_')) q++;
            if (q == p + 1 || *q == '(') {
                // a lone "&", or a deferred form that belongs to a function node
                out.append(p, q);
                p = q;
                continue;
            }
            name.assign(p + 1, q);
            p = q;
        }
        if (name.size() > 1023) name.resize(1023);

        bool too_deep = ++Expand_lookups > Max_expand_lookups || Expand_bytes > Max_expand_bytes;
        if (!too_deep) {
            std::lock_guard<std::mutex> lock(Expand_lock);
            too_deep = Expand_depth >= Max_expand_depth;
            if (!too_deep) Expand_depth++;
        }
        if (too_deep) {
            out += "** error ** pf massive recursion";
            continue;
        }
        bool found = false;
        for (Pf* a = pf; a && !found; a = a->parent) {
            if (!is_named(a)) continue;
            void* v = nullptr;
            if (pfget(a, name.c_str(), &v) == PF_STRING) {
                if (v) {
                    size_t n = strlen(static_cast<char*>(v));
                    Expand_bytes += n;
                    out.append(static_cast<char*>(v), n);
                }
                found = true;
            }
        }
        {
            std::lock_guard<std::mutex> lock(Expand_lock);
            Expand_depth--;
        }
        if (!found) out.append(start, p);
    }
    // Keep the earlier buffer when nothing changed, so strings handed out stay valid.
    if (pf->filled_out && out == pf->filled_out) return pf->filled_out;
    free(pf->filled_out);
    pf->filled_out = pf_strdup(out.c_str());
    return pf->filled_out;
}

Tbl* pfkeys(Pf* pf) {
    if (!is_named(pf)) return nullptr;
    return keysarr(pf->value.arr);
}

int pfmaxtbl(Pf* pf) { return pf && pf->type == PF_TBL ? static_cast<int>(maxtbl(pf->value.tbl)) : 0; }

// ---- typed getters -----------------------------------------------------------

char* pfget_string(Pf* pf, const char* key) {
    Pf* node = nullptr;
    _pfeval(pf, key, &node, PF_STRING);
    return node ? pfexpand(node) : nullptr;
}

int pfget_int(Pf* pf, const char* key) {
    char* s = string_for(pf, key, PF_STRING);
    if (!s) return 0;
    errno = 0;
    char* end = nullptr;
    long v = strtol(s, &end, 10);
    if (end == s || !only_blanks(end))
        elog_complain(0, "Bad integer value '%s' for %s", s, key_text(pf, key).c_str());
    if (v > INT_MAX) v = INT_MAX;
    if (v < INT_MIN) v = INT_MIN;
    return static_cast<int>(v);
}

double pfget_double(Pf* pf, const char* key) {
    char* s = string_for(pf, key, PF_STRING);
    if (!s) return 0;
    char* end = nullptr;
    double v = strtod(s, &end);
    if (end == s || !only_blanks(end))
        elog_complain(0, "Bad floating point value '%s' for %s", s, key_text(pf, key).c_str());
    return v;
}

int pfget_boolean(Pf* pf, const char* key) {
    Pf* node = nullptr;
    _pfeval(pf, key, &node, PF_STRING);
    char* s = node ? pfexpand(node) : nullptr;
    if (!s) return 0;
    std::string lower(s);
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    static const char* const yes[] = {"yes", "ok", "y", "true", "1", "on", "t"};
    static const char* const no[] = {"no", "n", "false", "0", "off", "f"};
    for (const char* w : yes)
        if (lower == w) return -1;
    for (const char* w : no)
        if (lower == w) return 0;
    elog_complain(0, "Bad boolean value '%s' for %s", s, key_text(pf, key).c_str());
    return 0;
}

double pfget_time(Pf* pf, const char* key) {
    char* s = string_for(pf, key, PF_STRING);
    if (!s) return 0;
    double epoch = 0;
    if (!pf_is_epoch_string(s, &epoch)) {
        elog_complain(0, "Bad time value '%s' for %s", s, key_text(pf, key).c_str());
        return 0;
    }
    return epoch;
}

double pfget_size(Pf* pf, const char* key) {
    char* s = string_for(pf, key, PF_STRING);
    if (!s) return 0;
    size_t n = strlen(s);
    double scale = 1;
    if (n > 0) {
        switch (s[n - 1]) {
            case 'k': scale = 1024.0; break;
            case 'M': scale = 1048576.0; break;
            case 'G': scale = 1073741824.0; break;
            default: break;
        }
    }
    return strtod(s, nullptr) * scale;
}

Arr* pfget_arr(Pf* pf, const char* key) {
    Pf* node = nullptr;
    _pfeval(pf, key, &node, PF_ARR);
    if (!is_named(node)) return nullptr;
    Arr* result = newarr();
    applyarr(
        node->value.arr,
        [](const char* k, void* v, void* ctx) {
            Pf* c = pf_evaluate(static_cast<Pf*>(v));
            if (c && c->type == PF_STRING) setarr(static_cast<Arr*>(ctx), k, pfexpand(c));
            return 0;
        },
        result);
    return result;
}

Tbl* pfget_tbl(Pf* pf, const char* key) {
    Pf* node = nullptr;
    _pfeval(pf, key, &node, PF_TBL);
    if (!node || node->type != PF_TBL) return nullptr;
    long n = maxtbl(node->value.tbl);
    Tbl* result = newtbl(n);
    for (long i = 0; i < n; i++) {
        Pf* c = pf_evaluate(static_cast<Pf*>(gettbl(node->value.tbl, i)));
        if (c && c->type == PF_STRING)
            pushtbl(result, pfexpand(c));
        else
            pushtbl(result, c);
    }
    return result;
}

// ---- setters -------------------------------------------------------------------

void pfput(Pf* pf, const char* key, void* value, int type) {
    Pf* child = nullptr;
    switch (type) {
        case PF_STRING:
            child = new_string(pf, static_cast<const char*>(value));
            break;
        case PF_ROOT:
        case PF_ARR:
            child = pfnew(PF_ARR);
            if (value) {
                freearr(child->value.arr, nullptr);
                child->value.arr = static_cast<Arr*>(value);
            }
            adopt_children(child);
            break;
        case PF_TBL:
            child = pfnew(PF_TBL);
            if (value) {
                freetbl(child->value.tbl, nullptr);
                child->value.tbl = static_cast<Tbl*>(value);
            }
            adopt_children(child);
            break;
        case PF_FUNCTION:
            child = pfnew(PF_FUNCTION);
            child->value.pffunct->s = value ? pf_strdup(static_cast<const char*>(value)) : nullptr;
            break;
        case PF_PF:
            child = static_cast<Pf*>(value);
            if (child && child->type == PF_ROOT) child->type = PF_ARR;
            break;
        default:
            elog_die(0, "Bad type in pfput : %d\n", type);
    }
    if (!pf || (!is_named(pf) && pf->type != PF_TBL)) elog_die(0, "Bad pf pointer in pfput.\n");
    if (!child) return;
    store_child(pf, key, child);
}

void pfput_string(Pf* pf, const char* key, const char* s) { pfput(pf, key, const_cast<char*>(s), PF_STRING); }

void pfput_int(Pf* pf, const char* key, int value) {
    char buf[32];
    snprintf(buf, sizeof buf, "%d", value);
    pfput_string(pf, key, buf);
}

void pfput_double(Pf* pf, const char* key, double value) {
    char* s = pf_strdbl(value);
    pfput_string(pf, key, s);
    free(s);
}

void pfput_boolean(Pf* pf, const char* key, int value) { pfput_string(pf, key, value ? "True" : "False"); }

void pfput_time(Pf* pf, const char* key, double epoch) {
    char* s = pf_zepoch2str(epoch, "%E (%j) %Y-%m-%d  %H:%M:%S.%s %z %A");
    const char* p = s ? s : "";
    while (*p == ' ') p++;
    pfput_string(pf, key, p);
    free(s);
}

void pfput_tbl(Pf* pf, const char* key, Tbl* tbl) {
    Tbl* list = newtbl(maxtbl(tbl));
    for (long i = 0; i < maxtbl(tbl); i++) pushtbl(list, new_string(nullptr, static_cast<char*>(gettbl(tbl, i))));
    pfput(pf, key, list, PF_TBL);
}

void pfput_arr(Pf* pf, const char* key, Arr* arr) {
    Arr* copy = newarr();
    applyarr(
        arr,
        [](const char* k, void* v, void* ctx) {
            setarr(static_cast<Arr*>(ctx), k, new_string(nullptr, static_cast<char*>(v)));
            return 0;
        },
        copy);
    pfput(pf, key, copy, PF_ARR);
}

int pfset(Pf* pf, const char* key, const char* s) {
    Pf* node = nullptr;
    if (pf_walk(pf, key, 1, &node, false) < 0 || !node || node == pf) return -1;
    // Retype in place so the node stays linked into its parent.
    if (node->type != PF_ANY && node->type != PF_UNDEFINED) clear_value(node);
    node->type = PF_STRING;
    node->value.s = pf_strdup(s ? s : "");
    free(node->filled_out);
    node->filled_out = nullptr;
    return 0;
}

int pfadd_arr(Pf* pf, const char* name) {
    if (!pf) return -1;
    if (pf->type == PF_ANY) {
        pf->type = PF_ARR;
        pf->value.arr = newarr();
    }
    if (!is_named(pf)) return -1;
    Pf* child = pfnew(PF_ANY);
    child->parent = pf;
    Pf* old = static_cast<Pf*>(setarr(pf->value.arr, name ? name : "", child));
    pffree(old);
    return 0;
}

int pfadd_tbl(Pf* pf, int index) {
    if (!pf || index < 0) return -1;
    if (pf->type == PF_ANY) {
        pf->type = PF_TBL;
        pf->value.tbl = newtbl();
    }
    if (pf->type != PF_TBL) return -1;
    Pf* child = pfnew(PF_ANY);
    child->parent = pf;
    pffree(static_cast<Pf*>(gettbl(pf->value.tbl, index)));
    settbl(pf->value.tbl, index, child);
    return 0;
}

Pf* pfdel(Pf* pf, const char* key) {
    Pf* old = nullptr;
    if (is_named(pf))
        old = static_cast<Pf*>(delarr(pf->value.arr, key ? key : ""));
    else if (pf && pf->type == PF_TBL && key_index(key) >= 0 && key_index(key) < maxtbl(pf->value.tbl))
        old = static_cast<Pf*>(deltbl(pf->value.tbl, key_index(key)));
    if (old) old->parent = nullptr;
    return old;
}

// ---- missing values and settings ----------------------------------------------

int _pfdie(Pf* pf, const char* key, int expected, int actual, void*) {
    const char* filename = pf && pf->filename ? pf->filename : "";
    if (!pf) return 0;
    switch (pf->type) {
        case PF_ROOT:
        case PF_STRING:
        case PF_ARR:
        case PF_FUNCTION:
            if (actual == PF_INVALID)
                elog_die(0, "program needs value for '%s', not found in parameter file '%s'", key ? key : "",
                         filename);
            elog_die(0, "wrong parameter type for '%s' : expected %s but got %s in '%s'", key ? key : "",
                     pftype_name(expected), pftype_name(actual), filename);
        case PF_TBL:
            if (actual == PF_INVALID)
                elog_die(0, "wrong parameter type for #%d : expected %s but got %s in '%s'",
                         static_cast<int>(key_index(key)), pftype_name(expected), pftype_name(PF_INVALID),
                         filename);
            return 0;
        default:
            return 0;
    }
}

Pfdie_fn pfdie = _pfdie;
int Pfprompt = 0;

int pfconfig(const char* code, void* value) {
    if (code && strncmp(code, "ask", 4) == 0) {
        Pfprompt = static_cast<int>(reinterpret_cast<intptr_t>(value));
        return 0;
    }
    if (code && strncmp(code, "die", 4) == 0) {
        pfdie = value ? reinterpret_cast<Pfdie_fn>(value) : _pfdie;
        return 0;
    }
    elog_complain(0, "pfconfig: unrecognized code '%s'", code ? code : "");
    return -1;
}

// ---- cache of named trees --------------------------------------------------------

void putPf_nofree(const char* name, Pf* pf) {
    std::lock_guard<std::mutex> lock(Pflist_lock);
    if (!Pflist) Pflist = newarr();
    setarr(Pflist, name, pf);
}

void putPf(const char* name, Pf* pf) {
    Pf* old;
    {
        std::lock_guard<std::mutex> lock(Pflist_lock);
        if (!Pflist) Pflist = newarr();
        old = static_cast<Pf*>(setarr(Pflist, name, pf));
    }
    if (old != pf) pffree(old);
}

Pf* existsPf(const char* name) {
    std::lock_guard<std::mutex> lock(Pflist_lock);
    return static_cast<Pf*>(getarr(Pflist, name));
}

// The file is read under the lock: threads that miss at once read it once,
// and none gets a tree that another's insert then replaces.
Pf* getPf(const char* name) {
    std::lock_guard<std::mutex> lock(Pflist_lock);
    if (!Pflist) Pflist = newarr();
    if (Pf* pf = static_cast<Pf*>(getarr(Pflist, name))) return pf;
    Pf* pf = nullptr;
    if (pfread(name, &pf) < 0) {
        pffree(pf);
        return nullptr;
    }
    setarr(Pflist, name, pf);
    return pf;
}

int updatePf(const char* name) {
    Pf* pf = getPf(name);
    if (!pf) return -1;
    static const char cache_identity = 0;
    int rc = pf_update_keyed(name, &pf, &cache_identity);
    // pfupdate frees the tree it replaces, so the entry must not free it again.
    if (rc != 0) putPf_nofree(name, pf);
    return rc;
}

int freePf(const char* name) {
    Pf* old;
    {
        std::lock_guard<std::mutex> lock(Pflist_lock);
        old = static_cast<Pf*>(delarr(Pflist, name));
    }
    if (!old) return -1;
    pffree(old);
    return 0;
}

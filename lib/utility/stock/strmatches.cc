#include "stock/strmatches.h"

#include <regex.h>

#include <cstring>
#include <string>

#include "stock/hook.h"

namespace {
struct Compiled {
    std::string pattern;
    bool ok = false;
    regex_t re;
    ~Compiled() {
        if (ok) regfree(&re);
    }
};
void free_compiled(void* p) { delete static_cast<Compiled*>(p); }
}  // namespace

int strmatches(const char* string, const char* pattern, Hook** hook) {
    if (!string || !pattern || !hook) return -1;
    if (!*hook) *hook = new_hook(free_compiled);
    auto* c = static_cast<Compiled*>((*hook)->p);
    if (!c || c->pattern != pattern) {
        if ((*hook)->p && (*hook)->free) (*hook)->free((*hook)->p);
        c = new Compiled;
        c->pattern = pattern;
        c->ok = regcomp(&c->re, pattern, REG_EXTENDED) == 0;
        (*hook)->p = c;
        (*hook)->free = free_compiled;
    }
    if (!c->ok) return -1;
    // POSIX matching is leftmost-longest, so the whole string matches exactly
    // when the match found starts at 0 and runs to the end.
    regmatch_t m;
    if (regexec(&c->re, string, 1, &m, 0) != 0) return 0;
    return m.rm_so == 0 && (size_t)m.rm_eo == strlen(string) ? 1 : 0;
}

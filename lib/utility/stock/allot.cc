#include "stock/allot.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "stock/elog.h"

void die_nomem(int line, const char* source, size_t nbytes, const char* what) {
    if (!errno) errno = ENOMEM;
    elog_die(1, "Out of memory at line %d in '%s'\n\tCan't malloc %u bytes for %s\n", line, source ? source : "",
             (unsigned)nbytes, what ? what : "");
}

char* allot_strdup_at(const char* s, int line, const char* source, const char* what) {
    size_t n = strlen(s) + 1;
    char* p = static_cast<char*>(malloc(n));
    if (!p) die_nomem(line, source, n, what);
    return static_cast<char*>(memcpy(p, s, n));
}

const char* nomem_source(const char* file) {
    thread_local std::string name;
    if (!file) return "";
    const char* b = strrchr(file, '/');
    name = b ? b + 1 : file;
    size_t dot = name.find('.');
    if (dot != std::string::npos && dot > 0) name.erase(dot);
    return name.c_str();
}

#include "stock/elog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

static std::string Program = "ferrant2";

void elog_init(int argc, char** argv) {
    if (argc > 0 && argv && argv[0]) {
        const char* s = strrchr(argv[0], '/');
        Program = s ? s + 1 : argv[0];
    }
}

void elog(int severity, int flag, const char* format, va_list args) {
    int e = errno;
    char buf[10240];
    vsnprintf(buf, sizeof buf, format ? format : "\n", args);
    std::string m = buf;
    if (m.empty() || m.back() != '\n') m += '\n';
    static const char* tags[] = {"", "", "", " *fatal*", " *fault*", " *debug*", " *alert*"};
    std::string out = Program + tags[severity] + ": " + m;
    if (flag && e) out += std::string("\t##=> ") + strerror(e) + "\n";
    if (severity != ELOG_LOG) fputs(out.c_str(), stderr);
    errno = 0;
}

#define ELOG_AT(name, sev)                        \
    void name(int flag, const char* format, ...) { \
        va_list ap;                                \
        va_start(ap, format);                      \
        elog(sev, flag, format, ap);               \
        va_end(ap);                                \
    }
ELOG_AT(elog_log, ELOG_LOG)
ELOG_AT(elog_notify, ELOG_NOTIFY)
ELOG_AT(elog_complain, ELOG_COMPLAIN)
ELOG_AT(elog_debug, ELOG_DEBUG)
ELOG_AT(elog_alert, ELOG_ALERT)

void elog_die(int flag, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    elog(ELOG_DIE, flag, format, ap);
    va_end(ap);
    exit(1);
}

void elog_fault(int flag, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    elog(ELOG_FAULT, flag, format, ap);
    va_end(ap);
    abort();
}

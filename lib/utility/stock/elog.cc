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

// Interim bodies for the rest of the interface; the full log replaces them.
void register_error(int, const char*, ...) {}
void complain(int flag, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    elog(ELOG_COMPLAIN, flag, format, ap);
    va_end(ap);
}
void die(int flag, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    elog(ELOG_DIE, flag, format, ap);
    va_end(ap);
    exit(1);
}
int elog_mark(void) { return 0; }
void elog_flush(int, int) {}
void elog_clear_register(int) {}
void elog_truncate(int) {}
void elog_clear(void) {}
char* elog_string(int) { return strdup(""); }
int elog_deliver(const char*, int) { return 0; }
char* elog_expand(const char* tag, char* buf, int size) {
    snprintf(buf, size, "%s", tag);
    return buf;
}
int elog_setup_fault_handler(const char*) { return 0; }
int elog_signal_number(const char*) { return -1; }
int elog_query(int, int, void*) { return -1; }
int elog_set(int, int, const void*) { return -1; }
void elog_callback(Elog_callback) {}
void elog_free_msgs(Tbl*) {}
int call_orbelog(const char*, const char* program, const char* text) {
    fprintf(stderr, "%s: %s\n", program, text);
    return -1;
}

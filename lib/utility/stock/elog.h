// The event log: every part of the system reports through it.
// (Interim: the whole log with its settings, deliveries and limits is being built.)
#pragma once

#include <cstdarg>

#define ELOG_LOG 0
#define ELOG_NOTIFY 1
#define ELOG_COMPLAIN 2
#define ELOG_DIE 3
#define ELOG_FAULT 4
#define ELOG_DEBUG 5
#define ELOG_ALERT 6

#define ELOG_FMT __attribute__((format(printf, 2, 3)))

void elog_init(int argc, char** argv);
void elog_log(int flag, const char* format, ...) ELOG_FMT;
void elog_notify(int flag, const char* format, ...) ELOG_FMT;
void elog_complain(int flag, const char* format, ...) ELOG_FMT;
void elog_debug(int flag, const char* format, ...) ELOG_FMT;
void elog_alert(int flag, const char* format, ...) ELOG_FMT;
[[noreturn]] void elog_die(int flag, const char* format, ...) ELOG_FMT;
[[noreturn]] void elog_fault(int flag, const char* format, ...) ELOG_FMT;
void elog(int severity, int flag, const char* format, va_list args);

// The event log: every part of the system reports through it.
//
// A logging call formats its message (at most 10240 characters; longer ones
// are cut and marked), keeps it in a process-wide list (a repeat of the last
// text only raises that message's count), and then delivers the list to the
// destinations set for its severity. Delivered messages leave the list; kept
// ones (severity log, or destination "log") are printed with the next delivery.
// When the list holds ELOG_MAXMSG messages (default 50; 0 means no limit) the
// program quits with status 1. elog_die exits with status 1, elog_fault aborts.
//
// A printed message is "<tag>: <text>" ending with a newline, then
// "\t##=> <system text>\n" when the flag asked for errno's text, then
// "\t** repeated N times\n" when N > 1.
//
// Settings, read on the first elog_init (or first logging call): the parameter
// file "elog" (ELOG_MAXMSG, ELOG_WAIT, ELOG_SIGNALS and the per-severity tables
// ELOG_TAG, ELOG_DELIVER, ELOG_DEBUG), then the environment variables of the
// same names, which win. Per-severity values are written
//     value[@letters] [value@letters ...]
// with letters from l n c d f D a (log notify complain die fault debug alert);
// a value without @ applies to all seven, an empty value restores the
// default, a backslash quotes the next character.
//
// Tags: %P program, %T thread id, %a arguments, %h host, %p pid, %r path of
// the executable, %t local time, %u UTC time; see elog_expand.
//
// Destinations (words of a delivery text): "log" keeps, "stderr", "stdout",
// a path beginning with "/" or "." (appended to, created mode 0664), and
// "orb:<name>" (sent to a ring buffer by orbelog, looked up in liborb at run
// time; without it messages go to the standard error).
//
// Debugger: a nonempty debug command (default "ups %r %p &" for die and
// fault) is expanded like a tag and run through /bin/sh once per process, but
// only when its first word names a program that exists (on PATH or as a
// path); otherwise it is skipped silently, so the default costs nothing on a
// machine without that debugger. After starting one for die or fault the log
// waits ELOG_WAIT seconds (default 10) so that it can attach.
//
// Threads: any thread may log. The list, the limit check and the output each
// have their own mutex. A callback runs under the list mutex and must not log.
// errno: preserved by elog_init; set to 0 by every logging call.
#pragma once

#include <cstdarg>

struct Tbl;

// Severities.
#define ELOG_LOG 0
#define ELOG_NOTIFY 1
#define ELOG_COMPLAIN 2
#define ELOG_DIE 3
#define ELOG_FAULT 4
#define ELOG_DEBUG 5
#define ELOG_ALERT 6
#define ELOG_MAXSEVERITY 7

// Codes for elog_query and elog_set. ELOG_DEBUG doubles as the code of the
// debug-command table (its value is the debug severity, which is no clash:
// severities are never codes here).
#define ELOG_TBL 101       // query: Tbl** <- new Tbl of copied Elog_msg* (free with elog_free_msgs)
#define ELOG_COUNT 102     // query: int* <- number of kept messages
#define ELOG_MAXMSG 103    // query: int*; set: n is the new limit (0: none)
#define ELOG_TAG 104       // n = severity. query: char** <- copy (free()); set: const char*, null = default
#define ELOG_DELIVER 105   // as ELOG_TAG, the destinations
/*      ELOG_DEBUG 5          as ELOG_TAG, the debug command */
#define ELOG_SIGNALS 106   // query: char** <- copy; set: const char* names, handlers installed
#define ELOG_CALLBACK 107  // query: Elog_callback*; set: value is an Elog_callback (null removes)
#define ELOG_STRING 108    // query: char** <- elog_string(n)
#define ELOG_WAIT 109      // query: int*; set: n seconds

#define ELOG_FMT __attribute__((format(printf, 2, 3)))

// One kept message. All texts are owned by the record.
struct Elog_msg {
    char* tag;     // expanded tag, may begin with a newline; null for a bare "\n"
    char* msg;     // formatted text, ends with a newline
    char* sys;     // system error text, or null
    int severity;
    int n;         // times it occurred in a row
};

// Called after each message is kept, under the list mutex, with the severity,
// the text of the whole log and the list of Elog_msg*. Nonzero clears the log.
typedef int (*Elog_callback)(int severity, const char* log, Tbl* msgs);

// Copies argv and names the program (base name of the running executable,
// else argv[0]); reads the settings on the first call only. argc 0 is fine.
void elog_init(int argc, char** argv);

// flag nonzero: attach strerror(errno) when errno is nonzero.
void elog_log(int flag, const char* format, ...) ELOG_FMT;
void elog_notify(int flag, const char* format, ...) ELOG_FMT;
void elog_complain(int flag, const char* format, ...) ELOG_FMT;
void elog_debug(int flag, const char* format, ...) ELOG_FMT;
void elog_alert(int flag, const char* format, ...) ELOG_FMT;
[[noreturn]] void elog_die(int flag, const char* format, ...) ELOG_FMT;
[[noreturn]] void elog_fault(int flag, const char* format, ...) ELOG_FMT;
// The common path; exits or aborts for ELOG_DIE and ELOG_FAULT.
void elog(int severity, int flag, const char* format, va_list args);

// Older entry points: severities log, complain and die (exit status 1).
void register_error(int flag, const char* format, ...) ELOG_FMT;
void complain(int flag, const char* format, ...) ELOG_FMT;
[[noreturn]] void die(int flag, const char* format, ...) ELOG_FMT;

int elog_mark(void);                      // number of kept messages
// deliver != 0: deliver messages [mark, end) as complaints; then drop them.
void elog_flush(int deliver, int mark);
void elog_clear_register(int deliver);    // elog_flush(deliver, 0)
void elog_truncate(int mark);             // drop [mark, end) undelivered
void elog_clear(void);                    // drop everything undelivered
// The printed form of messages [mark, end), malloc'd (caller free()s); "" when none.
char* elog_string(int mark);

// Delivers messages [mark, end) to each word of destinations and, unless
// every word was "log" (or an ignored word beginning with "o"), drops them
// from the list. When no destination could take them (unknown words, a file
// that can't be opened, a ring that refuses) they are written to the standard
// error instead, so nothing is lost and nothing piles up against the limit.
// Returns the number of destinations that failed. Its complaints go straight
// to stderr.
int elog_deliver(const char* destinations, int mark);

// Expands the %-codes of tag into buf (size bytes, NUL-terminated); returns buf.
// Stops with " *..." when fewer than 100 bytes of room remain.
char* elog_expand(const char* tag, char* buf, int size);

// Installs the fault handler for colon-separated signal names ("SEGV:BUS").
// Returns the number of names that were unknown or could not be intercepted.
int elog_setup_fault_handler(const char* names);
// Linux number of a signal name of the table ("SEGV" -> 11), or -1.
int elog_signal_number(const char* name);

int elog_query(int code, int n, void* result);       // 0, or -1 for an unknown code
int elog_set(int code, int n, const void* value);    // 0, or -1
void elog_callback(Elog_callback callback);          // null removes it
void elog_free_msgs(Tbl* msgs);                      // frees a list from ELOG_TBL

// Sends text to the ring buffer orbname through orbelog in liborb, looked up
// once at run time; when that fails, says so once and writes
// "<program>: <text>\n" to the standard error instead. Returns orbelog's result, or -1.
int call_orbelog(const char* orbname, const char* program, const char* text);

// Signature of the routine looked up for call_orbelog.
extern "C" typedef int (*Orbelog_fn)(const char* orbname, const char* program, const char* text);

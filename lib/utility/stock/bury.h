// The state file: a long-running process names it once (exhume), registers
// the variables that make up its state (resurrect: each gets its saved value
// back when the file has one) and writes them all whenever it reaches a point
// worth keeping (bury). The file is parameter-file text, one key per variable
// in key order; each write goes to "<file>+" and is renamed over the file, so
// a reader always finds a whole old or a whole new state.
//
// The file stays open and locked (lockf) for the life of the process; a
// second process on the same file stops with "... already in use" (except on
// NFS, where the lock is skipped with a complaint). Threads: exhume, bury and
// the registration in resurrect share one process-wide lock.
#pragma once

struct Pf;
struct Arr;

enum Relic_type {
    INT_RELIC = 0,     // int, written "%d"
    DOUBLE_RELIC = 1,  // double, written by strdbl (reads back exactly with atof)
    STRING_RELIC = 2,  // char* variable; restored pointing into the saved tree (not a copy)
    TIME_RELIC = 3,    // double epoch, written "%E (%j) %Y-%m-%d  %H:%M:%S.%u %z %A"
};

// The caller's variable; converts from int*, double* and char** so that
// resurrect("n", &n, INT_RELIC) reads naturally.
union Relic {
    int* ip;
    double* dp;
    char** sp;
    void* vp;
    Relic() : vp(nullptr) {}
    Relic(int* p) : ip(p) {}
    Relic(double* p) : dp(p) {}
    Relic(char** p) : sp(p) {}
    Relic(const char** p) : sp(const_cast<char**>(p)) {}
};

struct Relic_record {
    Relic relic;
    Relic_type type;
    char* name;  // owned
};

typedef void (*Mortician)(Pf* pf);  // adds entries of its own to the tree about to be written

struct Grave {
    char* filename;       // owned
    char* alternate;      // owned: filename + "+"
    int file;             // descriptor holding the lock
    Arr* relic_arr;       // name -> Relic_record*
    Pf* old;              // tree read from the existing file, or null
    int* signal_stop;     // caller's stop flag, or null
    int sec;              // grace seconds after a signal
    Mortician mortician;  // or null
    volatile int alarm_set;  // a signal came and no bury has happened since
};

// Opens or creates filename (and its missing directories), reads and locks
// it. 1: an existing file was read; 2: it exists but is not valid parameter
// text (every resurrect then gives 1); 0: it did not exist and was created;
// -1: it could not be opened or created; -2: exhume was already called.
// With signal_stop non-null (*signal_stop is set to 0) SIGHUP, SIGINT,
// SIGQUIT and SIGTERM store their number there and then: with sec >= 1 a
// timer of sec seconds buries and dies unless bury runs first; with sec 0
// bury and exit 1 at once; with sec < 0 only the flag is set.
int exhume(const char* filename, int* signal_stop, int sec, Mortician mortician);

// Registers a variable under name (replacing an earlier one of that name).
// 0 when the file read by exhume held name and the variable got its value;
// 1 when it did not (variable untouched; also for a time that does not
// parse); -1 when exhume has not been called.
int resurrect(const char* name, Relic relic, Relic_type type);

// Writes every registered variable (after the mortician's entries); 0, or -1
// on any failure (complained about; the previous file stays) or without exhume.
int bury();

void setup_signal_handlers(void (*handler)(int));  // for SIGHUP, SIGINT, SIGQUIT, SIGTERM
void die_soon(int sec);  // the process ends with a fatal message after sec seconds

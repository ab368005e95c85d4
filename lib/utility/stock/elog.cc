#include "stock/elog.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "deviants/my.h"
#include "stock/arr.h"
#include "stock/pf.h"
#include "stock/tbl.h"

extern char** environ;

namespace {

constexpr int Nsev = ELOG_MAXSEVERITY;
constexpr char Letters[] = "lncdfDa";
constexpr int Format_size = 10238;   // the formatting buffer, NUL included
constexpr int Cut_limit = 10240;     // longer texts get the marker
constexpr int Cut_length = 10239;    // a marked text's length
constexpr char Cut_marker[] = "\n\t...  ** truncated by elog ***\n";
constexpr int Tag_size = 1024;

const char* const Default_tag[Nsev] = {"%P", "%P", "%P", "%P *fatal*", "%P *fault*", "%P *debug*", "%P *alert*"};
const char* const Default_deliver[Nsev] = {"log", "stderr", "stderr", "stderr", "stderr", "stderr", "stderr"};
const char* const Default_debug[Nsev] = {"", "", "", "ups %r %p &", "ups %r %p &", "", ""};
const char* const Default_signals = "ILL:TRAP:FPE:BUS:SEGV:SYS";
constexpr int Default_maxmsg = 50;
constexpr int Default_wait = 10;

// Process-wide state. Allocated once and never destroyed, so that a message
// logged by another static destructor, or an exit taken while a lock is
// held, never meets a dead mutex.
struct State {
    std::mutex list;      // Msgs, Callback
    std::mutex limit;     // the message-count check
    std::mutex out;       // the output buffer and its writes
    std::mutex settings;  // everything below Msgs
    Tbl* msgs = nullptr;
    Elog_callback callback = nullptr;
    std::string out_buf;

    std::string tag[Nsev], deliver[Nsev], debug[Nsev];
    std::string signals = Default_signals;
    std::vector<std::string> argv;
    std::string program;
    int max_msg = Default_maxmsg;
    int wait = Default_wait;

    State() {
        for (int i = 0; i < Nsev; i++) {
            tag[i] = Default_tag[i];
            deliver[i] = Default_deliver[i];
            debug[i] = Default_debug[i];
        }
        msgs = newtbl(Default_maxmsg);
    }
};

State& S() {
    static State* s = new State;
    return *s;
}

// Settings are read once. Other threads wait until they are in place; the
// reading thread itself may log meanwhile (a bad parameter file), with the
// settings read so far.
std::atomic<bool> Initialized{false};
std::mutex Init_mutex;
std::atomic<std::thread::id> Configuring{};
std::atomic<bool> Debugger_ran{false};

// ---- small helpers --------------------------------------------------------

char* dupstr(const std::string& s) {
    char* p = static_cast<char*>(malloc(s.size() + 1));
    if (!p) {
        static const char oom[] = "elog: out of memory\n";
        (void)!write(2, oom, sizeof oom - 1);
        abort();
    }
    memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

std::string sformat(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string sformat(const char* format, ...) {
    va_list ap, again;
    va_start(ap, format);
    va_copy(again, ap);
    int n = vsnprintf(nullptr, 0, format, ap);
    va_end(ap);
    std::string s(n > 0 ? size_t(n) : 0, '\0');
    if (n > 0) vsnprintf(s.data(), s.size() + 1, format, again);
    va_end(again);
    return s;
}

void write_all(int fd, const char* p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return;
        }
        p += w;
        n -= size_t(w);
    }
}

// Straight to the standard error, bypassing the log.
void raw_stderr(const std::string& s) {
    fflush(stderr);
    write_all(2, s.data(), s.size());
}

std::string base_name(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Path of an executable named without a directory, along PATH; "" when none.
std::string along_path(const std::string& name) {
    const char* path = getenv("PATH");
    if (!path || name.empty()) return "";
    std::string_view rest = path;
    for (;;) {
        size_t colon = rest.find(':');
        std::string_view dir = rest.substr(0, colon);
        std::string candidate;
        candidate.reserve(dir.size() + name.size() + 2);
        candidate.append(dir.empty() ? std::string_view(".") : dir).append(1, '/').append(name);
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0)
            return candidate;
        if (colon == std::string_view::npos) return "";
        rest.remove_prefix(colon + 1);
    }
}

// Whether the first word of a shell command names a program that exists.
bool command_exists(const std::string& command) {
    size_t b = command.find_first_not_of(" \t");
    if (b == std::string::npos) return false;
    size_t e = command.find_first_of(" \t;&|<>", b);
    std::string word = command.substr(b, e == std::string::npos ? std::string::npos : e - b);
    if (word.empty()) return false;
    if (word.find('/') != std::string::npos) return access(word.c_str(), X_OK) == 0;
    return !along_path(word).empty();
}

// Severity of a letter or of one of the recognised words; -1 when neither.
int severity_of(const std::string& word) {
    if (word.size() == 1) {
        const char* p = strchr(Letters, word[0]);
        return p && word[0] ? int(p - Letters) : -1;
    }
    static const char* const words[] = {"notify", "complain", "fault", "debug", "alert"};
    static const int sev[] = {ELOG_NOTIFY, ELOG_COMPLAIN, ELOG_FAULT, ELOG_DEBUG, ELOG_ALERT};
    for (int i = 0; i < 5; i++)
        if (word == words[i]) return sev[i];
    return -1;
}

// ---- messages ---------------------------------------------------------------

void free_msg(void* p) {
    Elog_msg* m = static_cast<Elog_msg*>(p);
    if (!m) return;
    free(m->tag);
    free(m->msg);
    free(m->sys);
    free(m);
}

void* copy_msg(void* p) {
    const Elog_msg* m = static_cast<const Elog_msg*>(p);
    Elog_msg* c = static_cast<Elog_msg*>(calloc(1, sizeof(Elog_msg)));
    if (!c) return nullptr;
    c->tag = m->tag ? dupstr(m->tag) : nullptr;
    c->msg = m->msg ? dupstr(m->msg) : nullptr;
    c->sys = m->sys ? dupstr(m->sys) : nullptr;
    c->severity = m->severity;
    c->n = m->n;
    return c;
}

void append_printed(std::string& out, const Elog_msg* m) {
    if (m->tag && *m->tag) {
        out += m->tag;
        // A tag that is only the newline moved in front of the message.
        if (strcmp(m->tag, "\n") != 0) out += ": ";
    }
    if (m->msg) out += m->msg;
    if (m->sys) {
        out += "\t##=> ";
        out += m->sys;
        out += '\n';
    }
    if (m->n > 1) out += sformat("\t** repeated %d times\n", m->n);
}

// Caller holds the list mutex.
std::string printed_locked(long mark) {
    std::string out;
    long n = maxtbl(S().msgs);
    for (long i = mark < 0 ? 0 : mark; i < n; i++)
        append_printed(out, static_cast<Elog_msg*>(gettbl(S().msgs, i)));
    return out;
}

// Caller holds the list mutex. Removes [mark, end) and returns them.
std::vector<Elog_msg*> take_locked(long mark) {
    std::vector<Elog_msg*> taken;
    if (mark < 0) mark = 0;
    while (maxtbl(S().msgs) > mark) taken.push_back(static_cast<Elog_msg*>(poptbl(S().msgs)));
    std::reverse(taken.begin(), taken.end());
    return taken;
}

void truncate_locked(long mark) {
    for (Elog_msg* m : take_locked(mark)) free_msg(m);
}

// One message in one write, from a buffer kept between calls.
void write_msg(int fd, const Elog_msg* m) {
    std::lock_guard<std::mutex> g(S().out);
    std::string& buf = S().out_buf;
    buf.clear();
    append_printed(buf, m);
    size_t want = std::max<size_t>(2 * buf.size(), 1024);
    if (buf.capacity() < want) buf.reserve(want);
    write_all(fd, buf.data(), buf.size());
}

// ---- settings -----------------------------------------------------------------

// Applies "value[@letters] ..." to table; empty values restore the defaults.
void apply_setting(const char* text, std::string* table, const char* const* defaults) {
    if (!text) return;
    std::string s = text;
    size_t i = 0;
    if (s.empty()) {
        for (int k = 0; k < Nsev; k++) table[k] = defaults[k];
        return;
    }
    while (i < s.size()) {
        std::string value;
        bool at = false;
        while (i < s.size()) {
            char c = s[i];
            if (c == '\\' && i + 1 < s.size()) {
                value += s[i + 1];
                i += 2;
            } else if (c == '@') {
                at = true;
                i++;
                break;
            } else {
                value += c;
                i++;
            }
        }
        bool which[Nsev] = {};
        if (!at) {
            for (bool& w : which) w = true;
        } else {
            size_t e = s.find_first_of(" \t", i);
            std::string letters = s.substr(i, e == std::string::npos ? std::string::npos : e - i);
            i = e == std::string::npos ? s.size() : e;
            int sev = severity_of(letters);
            if (sev >= 0 && letters.size() > 1) {
                which[sev] = true;
            } else {
                for (char c : letters) {
                    int k = severity_of(std::string(1, c));
                    if (k < 0)
                        elog_complain(0, "Unrecognized severity '%c'\n", c);
                    else
                        which[k] = true;
                }
            }
            while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) i++;
        }
        for (int k = 0; k < Nsev; k++)
            if (which[k]) table[k] = value.empty() ? defaults[k] : value;
    }
}

// A whole decimal integer, else false.
bool parse_int(const char* s, int* value) {
    if (!s) return false;
    errno = 0;
    char* end;
    long v = strtol(s, &end, 10);
    while (*end == ' ' || *end == '\t' || *end == '\n') end++;
    if (end == s || *end || errno == ERANGE || v < -2147483647L || v > 2147483647L) return false;
    *value = int(v);
    return true;
}

void set_int_setting(const char* name, const char* text, int* target) {
    int v;
    if (parse_int(text, &v))
        *target = v;
    else
        elog_complain(0, "%s '%s' is not a number; keeping %d\n", name, text, *target);
}

// The settings being read, applied to the log in one step: complaints about
// them go through the log, which must not be locked meanwhile.
struct Settings {
    std::string tag[Nsev], deliver[Nsev], debug[Nsev];
    std::string signals;
    int max_msg, wait;
};

// Per-severity table from the parameter file: either a text in the
// environment's form, or an array keyed by severity letter or word.
void pf_table(Pf* pf, const char* key, std::string* table, const char* const* defaults) {
    void* value = nullptr;
    int type = pfget(pf, key, &value);
    if (type == PF_STRING) {
        apply_setting(static_cast<char*>(value), table, defaults);
    } else if (type == PF_ARR || type == PF_ROOT) {
        Arr* arr = pfget_arr(pf, key);
        Tbl* keys = keysarr(arr);
        for (long i = 0; i < maxtbl(keys); i++) {
            const char* k = static_cast<const char*>(gettbl(keys, i));
            const char* v = static_cast<const char*>(getarr(arr, k));
            int sev = severity_of(k);
            if (sev < 0)
                elog_complain(0, "Unrecognized severity '%s'\n", k);
            else
                table[sev] = v && *v ? v : defaults[sev];
        }
        freetbl(keys, nullptr);
        freearr(arr, nullptr);
    }
}

bool read_parameter_file(Settings& set) {
    if (pf_reading()) return false;
    Pf* pf = nullptr;
    // A file with errors still gives what could be read of it.
    if (pfread("elog", &pf) == -1 || !pf) {
        pffree(pf);
        return false;
    }
    if (char* s = pfget_string(pf, "ELOG_MAXMSG")) set_int_setting("ELOG_MAXMSG", s, &set.max_msg);
    if (char* s = pfget_string(pf, "ELOG_WAIT")) set_int_setting("ELOG_WAIT", s, &set.wait);
    if (char* s = pfget_string(pf, "ELOG_SIGNALS")) set.signals = s;
    pf_table(pf, "ELOG_DELIVER", set.deliver, Default_deliver);
    pf_table(pf, "ELOG_TAG", set.tag, Default_tag);
    pf_table(pf, "ELOG_DEBUG", set.debug, Default_debug);
    pffree(pf);
    return true;
}

void configure() {
    State& st = S();
    Settings set;
    {
        std::lock_guard<std::mutex> g(st.settings);
        for (int k = 0; k < Nsev; k++) {
            set.tag[k] = st.tag[k];
            set.deliver[k] = st.deliver[k];
            set.debug[k] = st.debug[k];
        }
        set.max_msg = st.max_msg;
        set.wait = st.wait;
    }
    read_parameter_file(set);
    if (const char* s = getenv("ELOG_MAXMSG")) set_int_setting("ELOG_MAXMSG", s, &set.max_msg);
    {
        std::lock_guard<std::mutex> g(st.settings);
        st.max_msg = set.max_msg;
    }
    {
        std::lock_guard<std::mutex> g(st.list);
        if (set.max_msg > 0 && maxtbl(st.msgs) == 0) {
            freetbl(st.msgs, nullptr);
            st.msgs = newtbl(set.max_msg);
        }
    }
    if (const char* s = getenv("ELOG_SIGNALS")) set.signals = s;
    if (set.signals.empty()) set.signals = Default_signals;
    elog_setup_fault_handler(set.signals.c_str());
    apply_setting(getenv("ELOG_DELIVER"), set.deliver, Default_deliver);
    apply_setting(getenv("ELOG_TAG"), set.tag, Default_tag);
    apply_setting(getenv("ELOG_DEBUG"), set.debug, Default_debug);
    if (const char* s = getenv("ELOG_WAIT")) set_int_setting("ELOG_WAIT", s, &set.wait);
    std::lock_guard<std::mutex> g(st.settings);
    for (int k = 0; k < Nsev; k++) {
        st.tag[k] = set.tag[k];
        st.deliver[k] = set.deliver[k];
        st.debug[k] = set.debug[k];
    }
    st.signals = set.signals;
    st.wait = set.wait;
}

void ensure_init() {
    if (!Initialized.load() && Configuring.load() != std::this_thread::get_id()) elog_init(0, nullptr);
}

std::string setting(std::string (&table)[Nsev], int severity) {
    std::lock_guard<std::mutex> g(S().settings);
    return table[severity];
}

std::string expand(const std::string& tag) {
    char buf[Tag_size];
    return elog_expand(tag.c_str(), buf, sizeof buf);
}

[[noreturn]] void abort_now() {
    // The fault handler may be installed for SIGABRT itself.
    signal(SIGABRT, SIG_DFL);
    abort();
}

// ---- signals --------------------------------------------------------------------

struct Signame {
    const char* name;
    int number;
};
const Signame Signals[] = {
    {"HUP", 1},    {"INT", 2},     {"QUIT", 3},    {"ILL", 4},     {"TRAP", 5},    {"IOT", 6},
    {"ABRT", 6},   {"FPE", 8},     {"BUS", 7},     {"SEGV", 11},   {"SYS", 31},    {"PIPE", 13},
    {"ALRM", 14},  {"TERM", 15},   {"USR1", 10},   {"USR2", 12},   {"CLD", 17},    {"CHLD", 17},
    {"PWR", 30},   {"WINCH", 28},  {"URG", 23},    {"POLL", 29},   {"TSTP", 20},   {"CONT", 18},
    {"TTIN", 21},  {"TTOU", 22},   {"VTALRM", 26}, {"PROF", 27},   {"XCPU", 24},   {"XFSZ", 25},
};

// The name reported for a number: the later, current spelling where two share it.
const char* signal_name(int number) {
    const char* name = nullptr;
    for (const Signame& s : Signals)
        if (s.number == number && (!name || !strcmp(s.name, "ABRT") || !strcmp(s.name, "CHLD"))) name = s.name;
    return name;
}

// Set while this thread is inside the log, whose locks it may hold.
thread_local bool In_elog = false;

void fault_handler(int sig) {
    const char* name = signal_name(sig);
    if (In_elog) {
        // Logging again could wait for a lock this thread holds: report plainly.
        const char* d = sigdescr_np(sig);
        raw_stderr(sformat("Signal %s : %s\n", name ? name : std::to_string(sig).c_str(),
                           d ? d : "no description for signal"));
        abort_now();
    }
    if (!name) {
        elog_fault(0, "Signal %d : %s", sig, "no description for unrecognized signal");
    }
    const char* description = sigdescr_np(sig);
    elog_fault(0, "Signal %s : %s", name, description ? description : "no description for signal");
}

// ---- the debugger -----------------------------------------------------------------

void run_debugger(int severity) {
    std::string command = setting(S().debug, severity);
    if (command.find_first_not_of(" \t") == std::string::npos) return;
    if (Debugger_ran.exchange(true)) return;
    command = expand(command);
    if (!command_exists(command)) return;
    raw_stderr(sformat("Running debugger: '%s'\n", command.c_str()));
    pid_t pid;
    const char* args[] = {"sh", "-c", command.c_str(), nullptr};
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(args), environ) != 0) {
        raw_stderr(sformat("Can't run debugger '%s'\n", command.c_str()));
        return;
    }
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    // A debugger started in the background needs time to attach before we go.
    size_t last = command.find_last_not_of(" \t\n");
    if ((severity == ELOG_DIE || severity == ELOG_FAULT) && last != std::string::npos && command[last] == '&') {
        int wait;
        {
            std::lock_guard<std::mutex> g(S().settings);
            wait = S().wait;
        }
        if (wait > 0) sleep(unsigned(wait));
    }
}

}  // namespace

// ---- interface ------------------------------------------------------------------

void elog_init(int argc, char** argv) {
    int saved = errno;
    State& st = S();
    {
        std::lock_guard<std::mutex> g(st.settings);
        if (argc > 0 && argv) {
            st.argv.clear();
            for (int i = 0; i < argc && argv[i]; i++) st.argv.emplace_back(argv[i]);
        }
        std::string name = base_name(std::string(myexecname()));
        if (name.empty() && !st.argv.empty()) name = base_name(st.argv[0]);
        if (!name.empty() || st.program.empty()) st.program = name;
    }
    if (!Initialized.load() && Configuring.load() != std::this_thread::get_id()) {
        std::lock_guard<std::mutex> g(Init_mutex);
        if (!Initialized.load()) {
            Configuring = std::this_thread::get_id();
            configure();
            Configuring = std::thread::id();
            Initialized = true;
        }
    }
    errno = saved;
}

void elog(int severity, int flag, const char* format, va_list args) {
    int err = errno;
    ensure_init();
    struct Inside {
        bool outer = !In_elog;
        Inside() { In_elog = true; }
        ~Inside() {
            if (outer) In_elog = false;
        }
    } inside;
    if (severity < 0 || severity >= Nsev) severity = ELOG_COMPLAIN;
    State& st = S();

    std::string text;
    if (format && *format) {
        std::vector<char> buf(Format_size);
        int length = vsnprintf(buf.data(), buf.size(), format, args);
        if (length < 0) length = 0;
        if (length > Cut_limit) {
            text.assign(buf.data(), Cut_length - (sizeof Cut_marker - 1));
            text += Cut_marker;
        } else {
            text.assign(buf.data(), std::min(length, Format_size - 1));
        }
    }
    if (text.empty() || text.back() != '\n') text += '\n';

    bool bare = text == "\n";
    bool leading_newline = !bare && text[0] == '\n';
    if (leading_newline) text.erase(0, 1);

    bool repeat = false;
    {
        std::lock_guard<std::mutex> g(st.list);
        long n = maxtbl(st.msgs);
        Elog_msg* last = n > 0 ? static_cast<Elog_msg*>(gettbl(st.msgs, n - 1)) : nullptr;
        if (last && last->msg && text == last->msg) {
            last->n++;
            repeat = true;
        }
    }
    if (!repeat) {
        Elog_msg* m = static_cast<Elog_msg*>(calloc(1, sizeof(Elog_msg)));
        if (!m) abort_now();
        if (!bare) {
            std::string tag = leading_newline ? "\n" : "";
            tag += expand(setting(st.tag, severity));
            m->tag = dupstr(tag);
        }
        m->msg = dupstr(text);
        if (flag && err) {
            const char* d = strerrordesc_np(err);
            m->sys = dupstr(d ? std::string(d) : sformat("Unknown error: %d", err));
        }
        m->severity = severity;
        m->n = 1;
        std::lock_guard<std::mutex> g(st.list);
        pushtbl(st.msgs, m);
    }
    errno = 0;

    {
        std::lock_guard<std::mutex> g(st.list);
        if (st.callback) {
            std::string log = printed_locked(0);
            if (st.callback(severity, log.c_str(), st.msgs)) truncate_locked(0);
        }
    }

    elog_deliver(setting(st.deliver, severity).c_str(), 0);
    run_debugger(severity);

    {
        std::unique_lock<std::mutex> g(st.limit);
        int max;
        {
            std::lock_guard<std::mutex> s(st.settings);
            max = st.max_msg;
        }
        int count = elog_mark();
        if (max >= 1 && count >= max) {
            elog_deliver(setting(st.deliver, ELOG_DIE).c_str(), 0);
            std::string tag = expand(setting(st.tag, ELOG_DIE));
            g.unlock();
            raw_stderr(sformat("%s: quitting because log has %d messages\n"
                               "   eliminate this limit with\n"
                               "      setenv ELOG_MAXMSG 0\n"
                               "   or by editing elog.pf.  See elog(3).\n",
                               tag.c_str(), count));
            exit(1);
        }
    }
    if (severity == ELOG_DIE) exit(1);
    if (severity == ELOG_FAULT) abort_now();
}

#define ELOG_AT(name, sev)                          \
    void name(int flag, const char* format, ...) {   \
        va_list ap;                                  \
        va_start(ap, format);                        \
        elog(sev, flag, format, ap);                 \
        va_end(ap);                                  \
    }
ELOG_AT(elog_log, ELOG_LOG)
ELOG_AT(elog_notify, ELOG_NOTIFY)
ELOG_AT(elog_complain, ELOG_COMPLAIN)
ELOG_AT(elog_debug, ELOG_DEBUG)
ELOG_AT(elog_alert, ELOG_ALERT)
ELOG_AT(register_error, ELOG_LOG)
ELOG_AT(complain, ELOG_COMPLAIN)
#undef ELOG_AT

#define ELOG_END(name, sev, end)                     \
    void name(int flag, const char* format, ...) {   \
        va_list ap;                                  \
        va_start(ap, format);                        \
        elog(sev, flag, format, ap);                 \
        va_end(ap);                                  \
        end;                                         \
    }
ELOG_END(elog_die, ELOG_DIE, exit(1))
ELOG_END(die, ELOG_DIE, exit(1))
ELOG_END(elog_fault, ELOG_FAULT, abort_now())
#undef ELOG_END

int elog_mark(void) {
    std::lock_guard<std::mutex> g(S().list);
    return int(maxtbl(S().msgs));
}

void elog_flush(int deliver, int mark) {
    ensure_init();
    if (deliver) elog_deliver(setting(S().deliver, ELOG_COMPLAIN).c_str(), mark);
    elog_truncate(mark);
}

void elog_clear_register(int deliver) { elog_flush(deliver, 0); }

void elog_truncate(int mark) {
    std::lock_guard<std::mutex> g(S().list);
    truncate_locked(mark);
}

void elog_clear(void) { elog_truncate(0); }

char* elog_string(int mark) {
    std::lock_guard<std::mutex> g(S().list);
    return dupstr(printed_locked(mark));
}

int elog_deliver(const char* destinations, int mark) {
    State& st = S();
    enum Kind { Keep, Stream, File, Orb, Ignore, Bad };
    struct Dest {
        Kind kind;
        std::string word;
    };
    std::vector<Dest> dests;
    bool any = false;
    int failures = 0;
    std::string text = destinations ? destinations : "";
    size_t i = 0;
    while ((i = text.find_first_not_of(" \t", i)) != std::string::npos) {
        size_t e = text.find_first_of(" \t", i);
        std::string w = text.substr(i, e == std::string::npos ? std::string::npos : e - i);
        i = e == std::string::npos ? text.size() : e;
        Kind k;
        if (w == "log")
            k = Keep;
        else if (w[0] == '/' || w[0] == '.')
            k = File;
        else if (w == "stderr" || w == "stdout")
            k = Stream;
        else if (w.compare(0, 4, "orb:") == 0)
            k = Orb;
        else if (w[0] == 'o')
            k = Ignore;
        else
            k = Bad;
        if (k == Bad) {
            raw_stderr(sformat("unrecognized delivery '%s'\n", w.c_str()));
            failures++;
        }
        if (k == Stream || k == File || k == Orb) any = true;
        dests.push_back({k, w});
    }
    if (!any && !failures) return 0;

    std::vector<Elog_msg*> msgs;
    {
        std::lock_guard<std::mutex> g(st.list);
        msgs = take_locked(mark);
    }
    if (msgs.empty()) return failures;

    bool delivered = false;
    for (const Dest& d : dests) {
        if (d.kind == Stream) {
            FILE* f = d.word == "stdout" ? stdout : stderr;
            fflush(f);
            for (const Elog_msg* m : msgs) write_msg(fileno(f), m);
            delivered = true;
        } else if (d.kind == File) {
            int fd = open(d.word.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0664);
            if (fd < 0) {
                raw_stderr(sformat("Can't open error file '%s'\n", d.word.c_str()));
                failures++;
                continue;
            }
            for (const Elog_msg* m : msgs) write_msg(fd, m);
            if (close(fd) != 0) {
                raw_stderr(sformat("Can't close error file '%s'\n", d.word.c_str()));
                failures++;
            }
            delivered = true;
        } else if (d.kind == Orb) {
            std::string all;
            for (const Elog_msg* m : msgs) append_printed(all, m);
            if (!all.empty() && all.back() == '\n') all.pop_back();
            std::string program;
            {
                std::lock_guard<std::mutex> g(st.settings);
                program = st.program;
            }
            if (call_orbelog(d.word.c_str() + 4, program.c_str(), all.c_str()) < 0)
                failures++;
            else
                delivered = true;
        }
    }

    // Nowhere took them: rather than lose them, or keep them until the
    // message limit ends the program, they go to the standard error.
    if (!delivered) {
        fflush(stderr);
        for (const Elog_msg* m : msgs) write_msg(2, m);
    }
    for (Elog_msg* m : msgs) free_msg(m);
    return failures;
}

char* elog_expand(const char* tag, char* buf, int size) {
    if (!buf || size <= 0) return buf;
    State& st = S();
    std::vector<std::string> argv;
    std::string program;
    {
        std::lock_guard<std::mutex> g(st.settings);
        argv = st.argv;
        program = st.program;
    }
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const size_t limit = size_t(size) - 1;
    const size_t stop = 5;  // room for " *..."
    std::string out;
    bool cut = false;
    for (const char* p = tag ? tag : ""; *p; p++) {
        if (limit < out.size() + 100) {
            cut = true;
            break;
        }
        if (*p != '%') {
            out += *p;
            continue;
        }
        if (!*++p) break;
        switch (*p) {
        case 'P':
            out += program;
            break;
        case 'T':
            out += std::to_string(long(gettid()));
            break;
        case 'a':
            for (size_t i = 1; i < argv.size(); i++) out += argv[i] + " ";
            break;
        case 'h':
            out += my_hostname();
            break;
        case 'p':
            out += std::to_string(long(getpid()));
            break;
        case 'r': {
            std::string r = std::string(myexecname());
            if (r.empty()) {
                std::string a = !argv.empty() ? argv[0] : program;
                if (a.empty())
                    r = "* no argv *";
                else if (a[0] == '/' || a[0] == '.')
                    r = a;
                else if ((r = along_path(a)).empty())
                    r = "???";
            }
            out += r;
            break;
        }
        case 't': {
            time_t now = time(nullptr);
            struct tm t;
            localtime_r(&now, &t);
            out += sformat("%3s %3s %2d %2d:%02d:%02d %4d", days[t.tm_wday % 7], months[t.tm_mon % 12],
                           t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_year + 1900);
            break;
        }
        case 'u': {
            time_t now = time(nullptr);
            struct tm t;
            gmtime_r(&now, &t);
            out += sformat("%04d-%03d %2d:%02d:%02d", t.tm_year + 1900, t.tm_yday + 1, t.tm_hour, t.tm_min,
                           t.tm_sec);
            break;
        }
        default:
            out += *p;
        }
        if (out.size() + stop > limit) {
            out.resize(limit > stop ? limit - stop : 0);
            cut = true;
            break;
        }
    }
    if (cut) out += " *...";
    if (out.size() > limit) out.resize(limit);
    memcpy(buf, out.data(), out.size());
    buf[out.size()] = '\0';
    return buf;
}

int elog_signal_number(const char* name) {
    if (!name) return -1;
    if (!strncmp(name, "SIG", 3)) name += 3;
    for (const Signame& s : Signals)
        if (!strcmp(s.name, name)) return s.number;
    return -1;
}

int elog_setup_fault_handler(const char* names) {
    int failures = 0;
    std::string list = names ? names : "";
    size_t i = 0;
    while (i <= list.size()) {
        size_t e = list.find(':', i);
        std::string name = list.substr(i, e == std::string::npos ? std::string::npos : e - i);
        i = e == std::string::npos ? list.size() + 1 : e + 1;
        if (name.empty()) continue;
        int number = elog_signal_number(name.c_str());
        if (number < 0) {
            elog_complain(0, "Unrecognized signal name '%s'\n", name.c_str());
            failures++;
            continue;
        }
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sa.sa_handler = fault_handler;
        sigemptyset(&sa.sa_mask);
        // A second fault inside the report ends the process the usual way.
        sa.sa_flags = SA_RESETHAND;
        if (sigaction(number, &sa, nullptr) != 0) {
            elog_complain(0, "Couldn't intercept signal %s\n", name.c_str());
            failures++;
        }
    }
    return failures;
}

void elog_callback(Elog_callback callback) {
    std::lock_guard<std::mutex> g(S().list);
    S().callback = callback;
}

void elog_free_msgs(Tbl* msgs) { freetbl(msgs, free_msg); }

int elog_query(int code, int n, void* result) {
    ensure_init();
    State& st = S();
    if (!result) return -1;
    auto table = [&](std::string(&t)[Nsev]) {
        if (n < 0 || n >= Nsev) return -1;
        std::lock_guard<std::mutex> g(st.settings);
        *static_cast<char**>(result) = dupstr(t[n]);
        return 0;
    };
    switch (code) {
    case ELOG_TBL: {
        std::lock_guard<std::mutex> g(st.list);
        *static_cast<Tbl**>(result) = duptbl(st.msgs, copy_msg);
        return 0;
    }
    case ELOG_COUNT:
        *static_cast<int*>(result) = elog_mark();
        return 0;
    case ELOG_MAXMSG: {
        std::lock_guard<std::mutex> g(st.settings);
        *static_cast<int*>(result) = st.max_msg;
        return 0;
    }
    case ELOG_WAIT: {
        std::lock_guard<std::mutex> g(st.settings);
        *static_cast<int*>(result) = st.wait;
        return 0;
    }
    case ELOG_TAG:
        return table(st.tag);
    case ELOG_DELIVER:
        return table(st.deliver);
    case ELOG_DEBUG:
        return table(st.debug);
    case ELOG_SIGNALS: {
        std::lock_guard<std::mutex> g(st.settings);
        *static_cast<char**>(result) = dupstr(st.signals);
        return 0;
    }
    case ELOG_CALLBACK: {
        std::lock_guard<std::mutex> g(st.list);
        *static_cast<Elog_callback*>(result) = st.callback;
        return 0;
    }
    case ELOG_STRING:
        *static_cast<char**>(result) = elog_string(n);
        return 0;
    }
    return -1;
}

int elog_set(int code, int n, const void* value) {
    ensure_init();
    State& st = S();
    auto table = [&](std::string(&t)[Nsev], const char* const* defaults) {
        if (n < 0 || n >= Nsev) return -1;
        std::lock_guard<std::mutex> g(st.settings);
        const char* s = static_cast<const char*>(value);
        t[n] = s && *s ? s : defaults[n];
        return 0;
    };
    switch (code) {
    case ELOG_MAXMSG: {
        std::lock_guard<std::mutex> g(st.settings);
        st.max_msg = n;
        return 0;
    }
    case ELOG_WAIT: {
        std::lock_guard<std::mutex> g(st.settings);
        st.wait = n;
        return 0;
    }
    case ELOG_TAG:
        return table(st.tag, Default_tag);
    case ELOG_DELIVER:
        return table(st.deliver, Default_deliver);
    case ELOG_DEBUG:
        return table(st.debug, Default_debug);
    case ELOG_SIGNALS: {
        const char* s = static_cast<const char*>(value);
        std::string names = s ? s : "";
        int bad = elog_setup_fault_handler(names.c_str());
        std::lock_guard<std::mutex> g(st.settings);
        st.signals = names;
        return bad ? -1 : 0;
    }
    case ELOG_CALLBACK:
        elog_callback(reinterpret_cast<Elog_callback>(const_cast<void*>(value)));
        return 0;
    }
    return -1;
}

int call_orbelog(const char* orbname, const char* program, const char* text) {
    static const char library[] = "liborb.so";
    static std::once_flag once;
    static Orbelog_fn fn = nullptr;
    std::call_once(once, [] {
        void* handle = dlopen(library, RTLD_LAZY);
        if (!handle) {
            // Not on the loader's path: it is the library this code lives in.
            Dl_info info;
            if (dladdr(reinterpret_cast<void*>(&call_orbelog), &info) && info.dli_fname &&
                base_name(info.dli_fname) == library)
                handle = dlopen(info.dli_fname, RTLD_LAZY);
        }
        if (!handle) {
            raw_stderr(sformat("Can't dynamically load library %s, error messages will be written to stderr.\n",
                               library));
            return;
        }
        fn = reinterpret_cast<Orbelog_fn>(dlsym(handle, "orbelog"));
        if (!fn)
            raw_stderr(sformat("Can't find %s in library %s, error messages will be written to stderr.\n",
                               "orbelog", library));
    });
    if (fn) return fn(orbname, program, text);
    raw_stderr(sformat("%s: %s\n", program ? program : "", text ? text : ""));
    return -1;
}

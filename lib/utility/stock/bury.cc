#include "stock/bury.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "stock/allot.h"
#include "stock/arr.h"
#include "stock/elog.h"
#include "stock/epoch.h"
#include "stock/path.h"
#include "stock/pf.h"
#include "stock/tbl.h"

namespace {

// Recursive: the grace timer may bury from a signal handler that interrupted
// a bury in the same thread.
std::recursive_mutex Lock;
Grave* TheGrave = nullptr;

// What the one SIGALRM handler is armed for.
enum { ALARM_NONE, ALARM_RESURRECTION, ALARM_DIE_SOON };
std::atomic<int> AlarmFor{ALARM_NONE};

const char* TimeFormat = "%E (%j) %Y-%m-%d  %H:%M:%S.%u %z %A";

bool on_nfs(int fd) {
    struct statfs fs;
    return fstatfs(fd, &fs) == 0 && fs.f_type == NFS_SUPER_MAGIC;
}

// Takes the exclusive lock on fd (from its start to any length); dies when
// another process holds it, except on NFS where locks are not to be trusted.
void lock_state_file(int fd, const char* filename) {
    lseek(fd, 0, SEEK_SET);
    if (lockf(fd, F_TLOCK, 0) == 0) return;
    if (on_nfs(fd)) {
        elog_complain(1, "Can't lock '%s' on an nfs filesystem: proceeding without lock", filename);
        return;
    }
    elog_die(1, "Can't lock state file '%s' for exclusive use: it is already in use.\n", filename);
}

// A holder renames a new, locked file over the name at every bury(), so a
// lock taken on a file that lost the name meanwhile guards nothing: then the
// file now bearing the name is opened and locked instead.
int lock_named_file(int fd, const char* filename) {
    for (int tries = 0; fd >= 0; tries++) {
        lock_state_file(fd, filename);
        struct stat held, named;
        if (tries == 100 || fstat(fd, &held) != 0 || stat(filename, &named) != 0 ||
            (held.st_ino == named.st_ino && held.st_dev == named.st_dev))
            break;
        close(fd);
        fd = open(filename, O_RDWR | O_CLOEXEC);
    }
    return fd;
}

bool read_all(int fd, std::string& text) {
    char buf[8192];
    lseek(fd, 0, SEEK_SET);
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        text.append(buf, n);
    }
}

bool arm_timer(int sec, int purpose) {
    struct sigaction sa {};
    sa.sa_handler = [](int) {
        int purpose = AlarmFor.exchange(ALARM_NONE);
        if (purpose == ALARM_RESURRECTION) {
            if (TheGrave && TheGrave->alarm_set) {
                bury();
                elog_die(1, "quitting from resurrection alarm\n");
            }
        } else if (purpose == ALARM_DIE_SOON) {
            elog_die(1, "quitting from die_soon alarm\n");
        }
    };
    sigemptyset(&sa.sa_mask);
    struct itimerval it {};
    it.it_value.tv_sec = sec;
    AlarmFor = purpose;
    if (sigaction(SIGALRM, &sa, nullptr) < 0 || setitimer(ITIMER_REAL, &it, nullptr) < 0) {
        AlarmFor = ALARM_NONE;
        return false;
    }
    return true;
}

void on_signal(int sig) {
    Grave* g = TheGrave;
    if (!g) elog_die(1, "Unexpected failure: file %s, line %d\n", __FILE__, __LINE__);
    g->alarm_set = 1;
    if (g->signal_stop) *g->signal_stop = sig;
    if (g->sec >= 1) {
        if (!arm_timer(g->sec, ALARM_RESURRECTION)) elog_die(0, "failed to set timer");
    } else if (g->sec == 0) {
        bury();
        exit(1);
    }
}

std::string relic_text(const Relic_record* r) {
    switch (r->type) {
    case INT_RELIC: return std::to_string(*r->relic.ip);
    case DOUBLE_RELIC: {
        char* s = strdbl(*r->relic.dp, nullptr);
        std::string t = s;
        free(s);
        return t;
    }
    case STRING_RELIC: return *r->relic.sp ? *r->relic.sp : "";
    case TIME_RELIC: {
        char* s = zepoch2str(*r->relic.dp, TimeFormat, nullptr);
        std::string t = s;
        free(s);
        return t;
    }
    }
    return "";
}

void free_relic(void* p) {
    auto* r = static_cast<Relic_record*>(p);
    free(r->name);
    free(r);
}

bool write_all(int fd, const char* text, size_t length, size_t* written) {
    *written = 0;
    while (*written < length) {
        ssize_t n = write(fd, text + *written, length - *written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        *written += n;
    }
    return true;
}

}  // namespace

int exhume(const char* filename, int* signal_stop, int sec, Mortician mortician) {
    std::lock_guard<std::recursive_mutex> g(Lock);
    if (TheGrave) return -2;
    if (!filename || !*filename) return -1;
    auto* grave = static_cast<Grave*>(calloc(1, sizeof(Grave)));
    if (!grave) die_nomem(__LINE__, "bury", sizeof(Grave), "grave");
    grave->filename = allot_strdup(filename, "grave");
    grave->alternate = allot_strdup((std::string(filename) + "+").c_str(), "grave");
    grave->file = -1;
    grave->relic_arr = newarr();
    grave->signal_stop = signal_stop;
    if (signal_stop) *signal_stop = 0;
    grave->sec = sec;
    grave->mortician = mortician;
    TheGrave = grave;

    char dir[PATH_MAX];
    dirbase(filename, dir, nullptr);
    makedir(dir);  // a failure shows up as the open failing

    int result;
    int fd = lock_named_file(open(filename, O_RDWR | O_CLOEXEC), filename);
    if (fd >= 0) {
        std::string text;
        Pf* old = nullptr;
        if (read_all(fd, text) && pfcompile(text.c_str(), &old) == 0 && old) {
            grave->old = old;
            result = 1;
        } else {
            pffree(old);
            result = 2;
        }
    } else if (errno == ENOENT) {
        fd = lock_named_file(open(filename, O_RDWR | O_CREAT | O_CLOEXEC, 0664), filename);
        if (fd >= 0) {
            result = 0;
        } else {
            result = -1;
        }
    } else {
        result = -1;
    }
    grave->file = fd;
    errno = 0;

    if (signal_stop) setup_signal_handlers(on_signal);
    return result;
}

int resurrect(const char* name, Relic relic, Relic_type type) {
    if (!TheGrave) return -1;
    if (!name || !relic.vp) return 1;
    int result = 1;
    void* value = nullptr;
    Pf* old = TheGrave->old;
    if (old && pfget(old, name, &value) == PF_STRING && value) {
        const char* text = static_cast<const char*>(value);
        switch (type) {
        case INT_RELIC: *relic.ip = atoi(text); result = 0; break;
        case DOUBLE_RELIC: *relic.dp = atof(text); result = 0; break;
        case STRING_RELIC: *relic.sp = const_cast<char*>(text); result = 0; break;
        case TIME_RELIC: {
            double t;
            if (is_epoch_string(text, &t)) {
                *relic.dp = t;
                result = 0;
            }
            break;
        }
        }
    }
    auto* r = static_cast<Relic_record*>(malloc(sizeof(Relic_record)));
    if (!r) die_nomem(__LINE__, "bury", sizeof(Relic_record), "relic_record");
    r->relic = relic;
    r->type = type;
    r->name = allot_strdup(name, "relic_record");
    std::lock_guard<std::recursive_mutex> g(Lock);
    if (void* displaced = setarr(TheGrave->relic_arr, name, r)) free_relic(displaced);
    return result;
}

int bury() {
    Grave* grave = TheGrave;
    if (!grave) return -1;
    std::lock_guard<std::recursive_mutex> g(Lock);
    grave->alarm_set = 0;

    Pf* tree = pfnew(PF_ROOT);
    if (grave->mortician) grave->mortician(tree);
    Tbl* names = keysarr(grave->relic_arr);
    for (long i = 0; i < maxtbl(names); i++) {
        auto* name = static_cast<const char*>(gettbl(names, i));
        auto* r = static_cast<Relic_record*>(getarr(grave->relic_arr, name));
        pfput_string(tree, name, relic_text(r).c_str());
    }
    freetbl(names, nullptr);
    char* text = pf2string(tree);
    pffree(tree);
    size_t length = text ? strlen(text) : 0;

    int result = -1;
    // Deliberately not truncated: see the header of the state file's format.
    int fd = open(grave->alternate, O_RDWR | O_CREAT | O_CLOEXEC, 0664);
    if (fd < 0) {
        elog_complain(1, "Can't write alternate state file %s", grave->alternate);
    } else {
        // Lock the new file before it takes the state file's name, so that
        // the name stays locked by this process across the rename.
        lseek(fd, 0, SEEK_SET);
        bool locked = lockf(fd, F_TLOCK, 0) == 0;
        lseek(fd, 0, SEEK_SET);
        size_t written;
        bool wrote = write_all(fd, text ? text : "", length, &written);
        if (!wrote) {
            elog_complain(1, "Wrote %d bytes to alternate state file %s instead of %d", (int)written,
                          grave->alternate, (int)length);
        }
        // Closing any descriptor of a file drops this process's lock on it,
        // so a locked alternate stays open and becomes the grave's file.
        bool closed = true;
        if (!(locked && wrote)) {
            closed = close(fd) == 0;
            fd = -1;
            if (wrote && !closed) elog_complain(1, "Can't close alternate state file %s", grave->alternate);
        }
        if (wrote && closed) {
            if (rename(grave->alternate, grave->filename) < 0) {
                elog_complain(1, "failed to rename state file %s to %s", grave->alternate, grave->filename);
            } else {
                result = 0;
                if (fd >= 0) {
                    if (grave->file >= 0) close(grave->file);
                    grave->file = fd;
                    fd = -1;
                }
            }
        }
        if (fd >= 0) close(fd);
    }
    free(text);
    return result;
}

void setup_signal_handlers(void (*handler)(int)) {
    static const struct {
        int sig;
        const char* message;
    } signals[] = {{SIGHUP, "Couldn't intercept signal SIGHUP\n"},
                   {SIGINT, "Couldn't intercept signal SIGINT\n"},
                   {SIGQUIT, "Couldn't intercept signal SIGQUIT\n"},
                   {SIGTERM, "Couldn't intercept signal SIGTERM\n"}};
    for (auto& s : signals) {
        struct sigaction sa {};
        sa.sa_handler = handler;
        sigemptyset(&sa.sa_mask);
        if (sigaction(s.sig, &sa, nullptr) < 0) elog_die(1, "%s", s.message);
    }
}

void die_soon(int sec) {
    if (sec <= 0) elog_die(1, "quitting from die_soon alarm\n");
    if (!arm_timer(sec, ALARM_DIE_SOON)) {
        sleep(sec);
        elog_die(0, "failed to setup timer to die");
    }
}

// Finding the files of a parameter-file name along the search path, reading
// and merging them, and re-reading them when one changes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "stock/allot.h"
#include "stock/elog.h"
#include "stock/pf.h"
#include "stock/pf_private.h"

namespace {

struct UpdateState {
    bool seen = false;
    Tbl* times = nullptr;  // Pftime*, as of the last read
    Pf* pf = nullptr;      // the tree read with them (owned by the caller)
};

std::mutex Update_lock;
std::map<std::string, UpdateState>* Updates;

bool ends_with(const std::string& s, const char* suffix) {
    size_t n = strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

std::string dir_of(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool same_times(const Tbl* a, const Tbl* b) {
    if (maxtbl(a) != maxtbl(b)) return false;
    for (long i = 0; i < maxtbl(a); i++) {
        auto* x = static_cast<const Pftime*>(gettbl(a, i));
        auto* y = static_cast<const Pftime*>(gettbl(b, i));
        if (x->mtime != y->mtime || x->mtime_nsec != y->mtime_nsec || strcmp(x->path, y->path) != 0) return false;
    }
    return true;
}

std::string date_text(double epoch) {
    char* s = pf_strdate(epoch);
    std::string out = s ? s : "?";
    free(s);
    return out;
}

// Opens path and parses it into *tree; -1 when it can't be opened.
int read_one(const char* path, Pf** tree) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    setpffilename(path);
    int rc = pfinfd(fd, tree);
    close(fd);
    return rc;
}

}  // namespace

Tbl* pffiles(const char* name, int all) {
    std::string n = name ? name : "";
    size_t slash = n.rfind('/');
    std::string base = slash == std::string::npos ? n : n.substr(slash + 1);
    if (!ends_with(base, ".pf")) base += ".pf";

    Tbl* found = pf_datasearch("PFPATH", "pf", base.c_str(), all);
    Tbl* list = newtbl(maxtbl(found));
    for (long i = 0; i < maxtbl(found); i++) {
        char* p = static_cast<char*>(gettbl(found, i));
        if (all || pf_is_file(p))
            pushtbl(list, p);
        else
            free(p);
    }
    freetbl(found, nullptr);

    bool explicit_dir = slash != std::string::npos || n.rfind("./", 0) == 0 || n.rfind("/", 0) == 0;
    if (!explicit_dir) return list;

    std::string target = ends_with(n, ".pf") ? n : n + ".pf";
    std::string dir = pf_abspath(dir_of(target).c_str());
    for (long i = 0; i < maxtbl(list); i++)
        if (pf_abspath(dir_of(static_cast<char*>(gettbl(list, i))).c_str()) == dir) return list;
    if (all || pf_is_file(target.c_str())) pushtbl(list, pf_strdup(target.c_str()));
    return list;
}

void freepffiles(Tbl* files) { freetbl(files, free); }

int pfread(const char* name, Pf** pf) {
    PfReadingScope reading;
    Pf* tree = pfnew(PF_ARR);
    tree->filename = pf_intern(name ? name : "");
    Tbl* files = pffiles(name, 0);
    int sum = 0, opened = 0;
    for (long i = 0; i < maxtbl(files); i++) {
        int rc = read_one(static_cast<char*>(gettbl(files, i)), &tree);
        if (rc == -1) {
            errno = 0;
            continue;
        }
        opened++;
        sum += rc;
    }
    freepffiles(files);
    tree->type = PF_ROOT;
    *pf = tree;
    if (opened == 0 || cntarr(tree->value.arr) == 0) return -1;
    return sum;
}

int pfload(const char* dir, const char* subdir, const char* name, Pf** pf) {
    PfReadingScope reading;
    Pf* tree = pfnew(PF_ARR);
    tree->filename = pf_intern(name ? name : "");
    tree->type = PF_ROOT;
    *pf = tree;
    char* path = pf_datapath(dir, subdir, name, "pf");
    if (!path) {
        elog_complain(0, "Can't find parameter file %s/%s\n", subdir ? subdir : "", name ? name : "");
        return -1;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT)
            errno = 0;
        else
            elog_complain(1, "can't open '%s'", path);
        free(path);
        return -1;
    }
    setpffilename(path);
    free(path);
    int rc = pfinfd(fd, pf);
    close(fd);
    return rc;
}

Tbl* pftimes(const char* name) {
    Tbl* files = pffiles(name, 0);
    Tbl* times = newtbl(maxtbl(files));
    for (long i = 0; i < maxtbl(files); i++) {
        char* path = static_cast<char*>(gettbl(files, i));
        struct stat st;
        if (stat(path, &st) != 0) continue;
        auto* t = static_cast<Pftime*>(malloc(sizeof(Pftime)));
        if (!t) die_nomem(__LINE__, nomem_source(__FILE__), sizeof(Pftime), "state");
        t->mtime = static_cast<int>(st.st_mtim.tv_sec);
        t->mtime_nsec = st.st_mtim.tv_nsec;
        t->path = pf_strdup(path);
        pushtbl(times, t);
    }
    freepffiles(files);
    return times;
}

void freepftimes(Tbl* times) {
    freetbl(times, [](void* p) {
        auto* t = static_cast<Pftime*>(p);
        free(t->path);
        free(t);
    });
}

int pf_update_keyed(const char* name, Pf** pf, const void* id) {
    char key[4112];
    snprintf(key, sizeof key, "%s-%lx", name ? name : "", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(id)));
    Tbl* now = pftimes(name);
    {
        std::lock_guard<std::mutex> lock(Update_lock);
        if (!Updates) Updates = new std::map<std::string, UpdateState>;
        UpdateState& st = (*Updates)[key];
        if (st.seen && same_times(st.times, now)) {
            freepftimes(now);
            return 0;
        }
        freepftimes(st.times);
        st.times = now;
        st.seen = true;
    }
    pffree(*pf);
    *pf = nullptr;
    Pf* fresh = nullptr;
    int rc = pfread(name, &fresh);
    {
        std::lock_guard<std::mutex> lock(Update_lock);
        (*Updates)[key].pf = fresh;
    }
    *pf = fresh;
    return rc == 0 ? 1 : rc;
}

int pfupdate(const char* name, Pf** pf) { return pf_update_keyed(name, pf, pf); }

int pfrequire(const char* name, const char* time) {
    double required = pf_str2epoch(time ? time : "");
    Tbl* files = pffiles(name, 0);
    int failed = 0;
    if (maxtbl(files) == 0) {
        elog_complain(0, "can't find parameter file %s", name ? name : "");
        failed = 1;
    }
    for (long i = 0; i < maxtbl(files); i++) {
        const char* path = static_cast<char*>(gettbl(files, i));
        Pf* tree = nullptr;
        if (read_one(path, &tree) != 0) {
            elog_complain(0, "error in parameter file %s", path);
            failed = 1;
            pffree(tree);
            continue;
        }
        char* rev = nullptr;
        pfeval(tree, "pf_revision_time", &rev);
        if (!rev) {
            elog_complain(0, "no pf_revision_time in the file '%s', \n\tbut program requires date after %s\n", path,
                          date_text(required).c_str());
            failed = 1;
        } else {
            double t = pf_str2epoch(rev);
            if (std::isnan(t) || std::isnan(required) || t < required) {
                elog_complain(0,
                              "pf_revision_time in the file '%s' has date %s, \n\tbut program requires date after "
                              "%s\n",
                              path, std::isnan(t) ? rev : date_text(t).c_str(), date_text(required).c_str());
                failed = 1;
            }
        }
        pffree(tree);
    }
    freepffiles(files);
    return failed;
}

// Seams between the parameter files and the shared path and time utilities.
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "stock/pf_private.h"

#if __has_include("stock/epoch.h") && __has_include("stock/quorvane.h") && __has_include("stock/path.h")
#include "stock/epoch.h"
#include "stock/path.h"
#include "stock/quorvane.h"

int pf_is_epoch_string(const char* s, double* epoch) { return is_epoch_string(s, epoch); }
double pf_str2epoch(const char* s) { return str2epoch(s); }
char* pf_strdbl(double value) { return strdbl(value, nullptr); }
char* pf_zepoch2str(double epoch, const char* format) { return zepoch2str(epoch, format, nullptr); }
char* pf_strdate(double epoch) { return strdate(epoch); }
std::string pf_abspath(const char* path) {
    char buf[PATH_MAX];
    return abspath(path, buf) ? std::string(buf) : std::string(path);
}
int pf_is_file(const char* path) { return is_file(path); }
Tbl* pf_datasearch(const char* envname, const char* subdir, const char* name, int all) {
    return datasearch(envname, subdir, name, all);
}
char* pf_datapath(const char* dir, const char* subdir, const char* name, const char* suffix) {
    return datapath(dir, subdir, name, suffix);
}

#else
// Interim stand-ins until the shared utilities are in the tree.
#include <climits>
#include <ctime>

#include "stock/tbl.h"

namespace {
std::string root() {
    const char* q = getenv("QUORVANE");
    if (q && *q) return q;
#ifdef FERRANT_PREFIX
    return FERRANT_PREFIX;
#else
    return "/usr/local";
#endif
}
}  // namespace

int pf_is_epoch_string(const char* s, double* epoch) {
    char* end = nullptr;
    double v = strtod(s, &end);
    if (end == s) return 0;
    while (*end == ' ') end++;
    if (*end) return 0;
    *epoch = v;
    return 1;
}
double pf_str2epoch(const char* s) {
    double e;
    return pf_is_epoch_string(s, &e) ? e : NAN;
}
char* pf_strdbl(double value) {
    char buf[64];
    snprintf(buf, sizeof buf, "%.17g", value);
    return strdup(buf);
}
char* pf_zepoch2str(double epoch, const char* format) {
    (void)format;
    char buf[64];
    snprintf(buf, sizeof buf, "%.3f", epoch);
    return strdup(buf);
}
char* pf_strdate(double epoch) {
    time_t t = static_cast<time_t>(epoch);
    struct tm tm;
    gmtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%d", &tm);
    return strdup(buf);
}
std::string pf_abspath(const char* path) {
    if (*path == '/') return path;
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd)) return path;
    return std::string(cwd) + "/" + path;
}
int pf_is_file(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}
Tbl* pf_datasearch(const char* envname, const char* subdir, const char* name, int all) {
    const char* env = getenv(envname);
    std::string path = env ? env : root() + "/data/" + subdir + ":.";
    Tbl* t = newtbl();
    size_t pos = 0;
    while (true) {
        size_t c = path.find(':', pos);
        std::string dir = path.substr(pos, c == std::string::npos ? std::string::npos : c - pos);
        if (dir.empty()) dir.push_back('.');
        std::string cand = dir + "/" + name;
        struct stat st;
        if (all || stat(cand.c_str(), &st) == 0) pushtbl(t, strdup(cand.c_str()));
        if (c == std::string::npos) break;
        pos = c + 1;
    }
    return t;
}
char* pf_datapath(const char* dir, const char* subdir, const char* name, const char* suffix) {
    std::string d = dir && *dir ? std::string(dir) : root() + "/data";
    if (subdir && *subdir) d += std::string("/") + subdir;
    std::string n = name;
    if (suffix && *suffix) {
        std::string sfx = std::string(".") + suffix;
        if (n.size() < sfx.size() || n.compare(n.size() - sfx.size(), sfx.size(), sfx) != 0) n += sfx;
    }
    std::string p = d + "/" + n;
    return pf_is_file(p.c_str()) ? strdup(p.c_str()) : nullptr;
}
#endif

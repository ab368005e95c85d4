#include "stock/path.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "stock/allot.h"
#include "stock/tbl.h"

static bool fits(const std::string& s) { return s.size() < PATH_MAX; }

static void put(char* out, const std::string& s) {
    if (!out) return;
    size_t n = std::min(s.size(), (size_t)PATH_MAX - 1);
    memcpy(out, s.data(), n);
    out[n] = '\0';
}

char* abspath(const char* path, char* abs) {
    if (!path || !abs) return nullptr;
    std::string full;
    if (path[0] != '/') {
        std::vector<char> cwd(PATH_MAX);
        if (!getcwd(cwd.data(), cwd.size())) return nullptr;
        full = cwd.data();
        full += '/';
    }
    full += path;
    std::vector<std::string> parts;
    size_t i = 0;
    while (i <= full.size()) {
        size_t j = full.find('/', i);
        if (j == std::string::npos) j = full.size();
        std::string part = full.substr(i, j - i);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        i = j + 1;
    }
    std::string out;
    for (auto& p : parts) out += "/" + p;
    if (out.empty()) out = "/";
    if (!fits(out)) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    put(abs, out);
    return abs;
}

static void split(const char* path, std::string& dir, std::string& base) {
    std::string p = path ? path : "";
    size_t slash = p.rfind('/');
    if (slash == std::string::npos) {
        dir = ".";
        base = p;
        return;
    }
    base = p.substr(slash + 1);
    dir = p.substr(0, slash);
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    if (dir.empty()) dir = "/";
}

void dirbase(const char* path, char* dir, char* base) {
    std::string d, b;
    split(path, d, b);
    put(dir, d);
    put(base, b);
}

void parsepath(const char* path, char* dir, char* base, char* suffix) {
    std::string d, b, s;
    split(path, d, b);
    size_t dot = b.rfind('.');
    if (dot != std::string::npos && dot > 0) {
        s = b.substr(dot + 1);
        b.erase(dot);
    }
    put(dir, d);
    put(base, b);
    put(suffix, s);
}

char* concatpaths(const char* dir, const char* name) {
    std::string out;
    if (!name) name = "";
    if (!dir || !*dir || name[0] == '/') {
        out = name;
    } else {
        out = dir;
        if (out.back() != '/') out += '/';
        out += name;
    }
    return allot_strdup(out.c_str(), "path");
}

int makedir(const char* dir) {
    if (!dir || !*dir) {
        errno = ENOENT;
        return -1;
    }
    if (is_dir(dir)) return 0;
    std::string p = dir;
    // Create each prefix in turn; a prefix that already exists is fine.
    for (size_t i = 1; i <= p.size(); i++) {
        if (i == p.size() || p[i] == '/') {
            std::string prefix = p.substr(0, i);
            if (prefix.back() == '/') continue;
            if (mkdir(prefix.c_str(), 0775) < 0 && errno != EEXIST) return -1;
        }
    }
    if (is_dir(dir)) {
        errno = 0;
        return 0;
    }
    errno = ENOTDIR;
    return -1;
}

int is_file(const char* path) {
    struct stat st;
    return path && stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

int is_dir(const char* path) {
    struct stat st;
    return path && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

int is_present(const char* path) {
    struct stat st;
    return path && lstat(path, &st) == 0;
}

static bool names_in(const char* dir, int flags, std::vector<std::string>& names) {
    DIR* d = opendir(dir);
    if (!d) return false;
    errno = 0;
    while (struct dirent* e = readdir(d)) {
        const char* n = e->d_name;
        if (!strcmp(n, ".") || !strcmp(n, "..")) continue;
        if ((flags & DIRFILES_NODOT) && n[0] == '.') continue;
        names.emplace_back(n);
    }
    closedir(d);
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return strcmp(a.c_str(), b.c_str()) < 0;
    });
    return true;
}

Tbl* dirfiles(const char* dir, int flags) {
    std::vector<std::string> names;
    if (!dir || !names_in(dir, flags, names)) return nullptr;
    Tbl* t = newtbl((long)names.size());
    for (auto& n : names) {
        pushtbl(t, allot_strdup(n.c_str(), "dirfiles"));
    }
    return t;
}

using Visit = std::function<void(const char*, struct stat*)>;

static int walk(const char* dir, int flags, const Visit& visit) {
    std::vector<std::string> names;
    if (!names_in(dir, 0, names)) return -1;
    std::vector<std::string> subdirs;
    for (auto& n : names) {
        char* p = concatpaths(dir, n.c_str());
        struct stat st, lst;
        if (stat(p, &st) == 0) {
            if (S_ISREG(st.st_mode)) {
                visit(p, &st);
            } else if (S_ISDIR(st.st_mode) && lstat(p, &lst) == 0 && S_ISDIR(lst.st_mode)) {
                subdirs.push_back(p);
            }
        }
        free(p);
    }
    if (flags & FSTRAVERSE_RECURSE)
        for (auto& s : subdirs) walk(s.c_str(), flags, visit);
    return 0;
}

int fstraverse(const char* dir, int flags, int (*fn)(const char*, struct stat*, void*), void* arg) {
    if (!dir || !fn) return -1;
    return walk(dir, flags, [&](const char* p, struct stat* st) { fn(p, st, arg); });
}

int fstraverse(const char* dir, int flags, int (*fn)(const char*, struct stat*, int), int arg) {
    if (!dir || !fn) return -1;
    return walk(dir, flags, [&](const char* p, struct stat* st) { fn(p, st, arg); });
}

long getaline(FILE* fp, char** buf, size_t* size) {
    if (!fp || !buf || !size) return -1;
    ssize_t n = getline(buf, size, fp);
    if (n < 0) return -1;
    if (n > 0 && (*buf)[n - 1] == '\n') (*buf)[--n] = '\0';
    return (long)n;
}

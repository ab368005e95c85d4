#include "stock/quorvane.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "stock/allot.h"
#include "stock/path.h"
#include "stock/tbl.h"

#ifndef FERRANT_PREFIX
#define FERRANT_PREFIX "/usr/local"
#endif

const char* installation_root() {
    const char* q = getenv("QUORVANE");
    return q && *q ? q : FERRANT_PREFIX;
}

static char* copy(const std::string& s) { return allot_strdup(s.c_str(), "path"); }

char* datapath(const char* directory, const char* subdirectory, const char* name, const char* suffix) {
    if (!name || !*name) return nullptr;
    std::string dir = directory && *directory ? directory : std::string(installation_root()) + "/data";
    if (subdirectory && *subdirectory) dir += std::string("/") + subdirectory;
    std::string file = name;
    if (suffix && *suffix) {
        std::string dotted = std::string(".") + suffix;
        if (file.size() < dotted.size() || file.compare(file.size() - dotted.size(), dotted.size(), dotted) != 0)
            file += dotted;
    }
    std::string path = name[0] == '/' ? file : dir + "/" + file;
    return is_present(path.c_str()) ? copy(path) : nullptr;
}

Tbl* datasearch(const char* envname, const char* subdir, const char* name, int all) {
    const char* env = envname ? getenv(envname) : nullptr;
    std::string path;
    if (env) {
        path = env;
    } else {
        path = std::string(installation_root()) + "/data";
        if (subdir && *subdir) path += std::string("/") + subdir;
        path += ":.";
    }
    Tbl* t = newtbl();
    if (!name || !*name) return t;
    size_t i = 0;
    for (;;) {
        size_t j = path.find(':', i);
        std::string dir = path.substr(i, j == std::string::npos ? std::string::npos : j - i);
        if (dir.empty()) dir = ".";
        std::string candidate = dir + (dir.back() == '/' ? "" : "/") + name;
        if (all || is_present(candidate.c_str())) pushtbl(t, copy(candidate));
        if (j == std::string::npos) break;
        i = j + 1;
    }
    return t;
}

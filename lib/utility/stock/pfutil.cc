// Seams between the parameter files and the shared path and time utilities.
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "stock/pf_private.h"
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


// Hostile text into the time reader and the path splitters: no crash, and
// every time that reads back is written and read again to the same microsecond.
#include <cmath>

#include "fuzz.h"
#include "stock/epoch.h"
#include "stock/path.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string s(reinterpret_cast<const char*>(data), size);
    s = s.c_str();  // up to the first NUL, as a C caller would pass it
    double t = str2epoch(s.c_str());
    double e = 0;
    fuzz::require(is_epoch_string(s.c_str(), &e) == !std::isnan(t), "is_epoch_string");
    // Years 1000 to 5138: four-digit years, which is what the reader takes.
    if (!std::isnan(t) && t >= -30610224000.0 && t < 1e11) {
        char* text = zepoch2str(t, "%E (%j) %Y-%m-%d  %H:%M:%S.%u %z %A", nullptr);
        double back = str2epoch(text);
        fuzz::require(std::fabs(back - t) <= 1e-6 * (1 + std::fabs(t) * 1e-9), "read back");
        free(text);
        free(strtime(t));
        free(strtdelta(t));
        free(strdbl(t, nullptr));
    }
    char dir[PATH_MAX], base[PATH_MAX], suffix[PATH_MAX], abs[PATH_MAX];
    dirbase(s.c_str(), dir, base);
    parsepath(s.c_str(), dir, base, suffix);
    abspath(s.c_str(), abs);
    free(concatpaths(s.c_str(), s.c_str()));
    return 0;
}

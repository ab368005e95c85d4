// What the fuzz targets share: a quiet log, a scratch directory, a check.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fuzz {

// Complaints about bad input come by the thousand: none on the terminal, no
// limit on those kept, and no signal handlers in the way of the sanitizers.
inline void quiet_log() {
    setenv("ELOG_DELIVER", "/dev/null@lncDa stderr@df", 1);
    setenv("ELOG_MAXMSG", "0", 1);
    setenv("ELOG_SIGNALS", "", 1);
    setenv("ELOG_DEBUG", "", 1);
}

// A fresh directory, removed with what it holds when the program exits.
inline std::string scratch_dir() {
    static std::string dir;
    char tmpl[] = "/tmp/fuzz.XXXXXX";
    if (!mkdtemp(tmpl)) std::abort();
    dir = tmpl;
    std::atexit([] { std::error_code ec; std::filesystem::remove_all(dir, ec); });
    return dir;
}

// A property that failed is a finding: said, then the run stops.
inline void require(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

}  // namespace fuzz

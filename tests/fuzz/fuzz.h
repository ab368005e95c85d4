// What the fuzz targets share: a quiet log, a check, a scratch directory,
// and input read as a stream of bytes.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/tempdir.h"

namespace fuzz {

// Complaints about bad input come by the thousand: none on the terminal, no
// limit on those kept, and no signal handlers in the way of the sanitizers.
[[gnu::constructor]] static void quiet_log() {
    setenv("ELOG_DELIVER", "/dev/null@lncDa stderr@df", 1);
    setenv("ELOG_MAXMSG", "0", 1);
    setenv("ELOG_SIGNALS", "", 1);
    setenv("ELOG_DEBUG", "", 1);
}

// A property that failed is a finding: said, then the run stops.
inline void require(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

// A fresh directory, removed with what it holds when the program exits.
inline std::string scratch_dir() {
    static TempDir dir("fuzz");
    require(!dir.path.empty(), "mkdtemp");
    return dir.path;
}

// The input taken a byte at a time; zeros once it is used up.
struct Input {
    const uint8_t* p;
    size_t n;
    uint32_t byte() { return n ? (n--, *p++) : 0; }
    uint32_t u16() { return byte() | byte() << 8; }
};

}  // namespace fuzz

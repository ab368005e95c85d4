// Ring store figures, no server in the way: appends alone, reads of a full
// ring alone, and one writer and one reader process at once, 512-byte packets.
// Prints rows of the benchmark table.
#include "ring/ring.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void row(const char* figure, double rate) {
    std::printf("| ring store: %s | %.0f packets/s | — | — | — |\n", figure, rate);
    std::fflush(stdout);
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/ringbench.XXXXXX";
    std::string dir = mkdtemp(tmpl);
    std::string file = dir + "/ring";
    const size_t size = 512;
    const uint64_t n = 2000000;
    std::vector<char> pkt(size, 'x');
    try {
        auto r = ring::Ring::create(file, {.data_bytes = 256ull << 20, .nslots = 1 << 19});

        // The first fill pays a page fault per 4 KiB of a fresh file; later
        // passes over the same pages do not (until the kernel writes them back).
        double t0 = now();
        for (uint64_t i = 0; i < n; i++) r->put("BENCH_STA/xfer", double(i), pkt.data(), size);
        row("512-byte appends, first fill of a new ring file", double(n) / (now() - t0));
        t0 = now();
        for (uint64_t i = 0; i < n; i++) r->put("BENCH_STA/xfer", double(i), pkt.data(), size);
        row("512-byte appends, ring already filled once", double(n) / (now() - t0));

        ring::Entry e;
        std::vector<char> buf;
        uint64_t got = 0;
        t0 = now();
        for (int pass = 0; pass < 4; pass++)
            for (uint64_t s = r->tail(); s < r->head(); s++) got += r->read(s, &e, buf);
        row("512-byte reads of a full ring (copied)", double(got) / (now() - t0));

        // One writer process and one reader process, the reader waiting on the ring.
        auto& r2 = r;
        uint64_t base = r2->head();
        pid_t writer = fork();
        if (writer == 0) {
            auto w = ring::Ring::open(file);
            for (uint64_t i = 0; i < n; i++) w->put("BENCH_STA/xfer", double(i), pkt.data(), size);
            _exit(0);
        }
        t0 = now();
        uint64_t next = base, seen = 0, lost = 0;
        for (;;) {
            while (next >= r2->head()) r2->wait(next, 1000);
            if (next < r2->tail()) lost += r2->tail() - next, next = r2->tail();
            if (r2->read(next, &e, buf)) seen++;
            next++;
            if (seen + lost >= n) break;
        }
        double rate = double(seen) / (now() - t0);
        waitpid(writer, nullptr, 0);
        row("512-byte packets, 1 writer + 1 reader process", rate);
        if (lost) std::fprintf(stderr, "reader fell behind: %llu packets evicted unread\n", (unsigned long long)lost);
    } catch (const ring::Error& e) {
        std::fprintf(stderr, "%s\n", e.what());
        std::filesystem::remove_all(dir);
        return 1;
    }
    std::filesystem::remove_all(dir);
    return 0;
}

// Drives a small ring with puts, reads, stash use, reopening and damage to the file, all chosen by the input.
// Until damage is done every packet still present must read back as it was put and the bookkeeping must add
// up; after damage, nothing may crash or read outside the file.
#include <fcntl.h>

#include <algorithm>
#include <map>
#include <vector>

#include "fuzz.h"
#include "ring/ring.h"

namespace {

std::vector<char> payload(uint64_t seq, size_t size) {
    std::vector<char> b(size);
    for (size_t k = 0; k < size; k++) b[k] = char(seq * 131 + k);
    return b;
}

const std::string Path = fuzz::scratch_dir() + "/ring";

// Where to start walking the ring: damaged bounds may span far more than the packets the ring can hold.
uint64_t first(const ring::Ring& r) {
    uint64_t h = r.head();
    return std::max(r.tail(), h - std::min<uint64_t>(h, r.status().nslots));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in{data, size};
    ring::Geometry g{4096 + (in.byte() % 4) * 4096, 1 + in.byte() % 64};
    g.maxpkts = int32_t(g.nslots + in.byte() % 40);
    g.maxsrc = 1 + in.byte() % 4;
    g.maxclients = 2;
    g.nstash = in.byte() % 3;
    g.stash_bytes = in.byte() * 2;
    std::unique_ptr<ring::Ring> r;
    try {
        r = ring::Ring::create(Path, g);
    } catch (const ring::Error&) {
        return 0;
    }
    bool damaged = false;
    double time = 0;
    std::map<std::string, std::vector<char>> stashed;
    ring::Entry e;
    std::vector<char> buf;
    const char* names[] = {"A", "B_C/x", "D", "E_F_G/y", "H"};
    while (in.n) {
        switch (in.byte() % 8) {
        case 0: case 1: case 2: {  // put
            size_t n = in.u16() % (g.data_bytes + 64);
            time += double(int(in.byte() % 16) - 3);
            uint64_t seq = r->head();
            auto b = payload(seq, n);
            int64_t got = r->put(names[in.byte() % 5], time, b.data(), b.size());
            if (!damaged) fuzz::require(n > g.data_bytes ? got == -1 : got == int64_t(seq), "put result");
            break;
        }
        case 3: {   // stash
            std::string name = names[in.byte() % 5];
            size_t n = in.byte() * 3;
            auto b = payload(n, n);
            if (r->stash_put(name, 1, b.data(), b.size())) stashed[name] = b;
            if (!damaged && r->stash_get(name, &e, buf)) fuzz::require(buf == stashed[name], "stash content");
            break;
        }
        case 4: {   // reopen
            r.reset();
            try {
                r = ring::Ring::open(Path);
            } catch (const ring::Error&) {
                fuzz::require(damaged, "undamaged ring refused on reopen");
                return 0;
            }
            break;
        }
        case 5: {   // damage a byte past the fixed header part, locks spared
            int fd = ::open(Path.c_str(), O_RDWR);
            off_t where = 136 + off_t(in.u16()) * 3;
            if ((where >= 192 && where < 256) || (where >= 448 && where < 512)) where = 300;
            unsigned char c = uint8_t(in.byte());
            if (pwrite(fd, &c, 1, where) == 1) damaged = true;
            ::close(fd);
            break;
        }
        case 6: {   // lookups
            int32_t id = int32_t(in.byte()) - 5;
            auto s = r->find(id);
            if (s && !damaged) fuzz::require(r->pktid(*s) == id, "find");
            double t = double(int(in.byte()) - 20);
            auto a = r->after_time(t);
            if (!damaged) {
                std::optional<uint64_t> want;
                for (uint64_t q = first(*r); q < r->head() && !want; q++)
                    if (r->entry(q, &e) && e.time > t) want = q;
                fuzz::require(a == want, "after_time");
            }
            r->prev_seq(in.byte());
            r->next_seq(in.byte());
            break;
        }
        default: {   // everything present reads back
            uint64_t used = 0;
            for (uint64_t q = first(*r); q < r->head(); q++) {
                bool ok = r->read(q, &e, buf);
                if (damaged) continue;
                fuzz::require(ok, "present packet unreadable");
                fuzz::require(buf == payload(q, e.size), "packet content");
                used += e.size;
            }
            auto st = r->status();
            r->sources();
            if (!damaged) {
                fuzz::require(st.bytes_used == used && used <= g.data_bytes, "bytes used");
                fuzz::require(st.head - st.tail <= st.nslots, "slots");
                uint64_t counted = 0;
                for (auto& s : r->sources()) counted += s.npkts;
                fuzz::require(counted <= st.head - st.tail, "source counts");
            }
            break;
        }
        }
    }
    return 0;
}

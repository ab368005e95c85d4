#include "stock/mapfile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {
struct Mapping {
    void* data;
    size_t size;
};
std::mutex Lock;
std::map<std::string, std::vector<Mapping>>& maps() {
    static auto* m = new std::map<std::string, std::vector<Mapping>>;  // lives to exit
    return *m;
}
char Empty[1];  // the address an empty file maps to
}  // namespace

long mapfile(const char* filename, int /*flags*/, void** data) {
    void* failed = MAP_FAILED;
    if (data) *data = failed;
    if (!filename || !data) {
        errno = EINVAL;
        return -1;
    }
    // Non-blocking: opening a FIFO with no writer would otherwise wait for ever.
    int fd = open(filename, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) < 0 || !S_ISREG(st.st_mode)) {
        int e = S_ISREG(st.st_mode) ? errno : ENODEV;
        close(fd);
        errno = e;
        return -1;
    }
    Mapping m{Empty, 0};
    if (st.st_size > 0) {
        m.size = (size_t)st.st_size;
        m.data = mmap(nullptr, m.size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (m.data == MAP_FAILED) {
            int e = errno;
            close(fd);
            errno = e;
            return -1;
        }
        madvise(m.data, m.size, MADV_SEQUENTIAL);
    }
    close(fd);  // the mapping stays valid without the descriptor
    {
        std::lock_guard<std::mutex> g(Lock);
        maps()[filename].push_back(m);
    }
    *data = m.data;
    return (long)m.size;
}

int unmapfile(const char* filename, const void* data) {
    if (!filename) return -1;
    Mapping m;
    {
        std::lock_guard<std::mutex> g(Lock);
        auto it = maps().find(filename);
        if (it == maps().end()) return -1;
        auto& v = it->second;
        auto pick = v.end();
        if (!data) {
            pick = v.end() - 1;
        } else {
            for (auto i = v.begin(); i != v.end(); ++i)
                if (i->data == data) pick = i;
        }
        if (pick == v.end()) return -1;
        m = *pick;
        v.erase(pick);
        if (v.empty()) maps().erase(it);
    }
    if (m.size) munmap(m.data, m.size);
    return 0;
}

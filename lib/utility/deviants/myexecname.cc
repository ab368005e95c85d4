#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "deviants/my.h"

const char* myexecname() {
    static const std::string name = [] {
        std::vector<char> buf(PATH_MAX + 1);
        ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size() - 1);
        return n > 0 ? std::string(buf.data(), n) : std::string();
    }();
    return name.c_str();
}

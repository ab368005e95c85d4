#include "deviants/my.h"

#include <pwd.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

const char* my_hostname() {
    static const std::string name = [] {
        char buf[HOST_NAME_MAX + 1] = {0};
        if (gethostname(buf, sizeof buf - 1) < 0 || !buf[0]) return std::string("localhost");
        return std::string(buf);
    }();
    return name.c_str();
}

const char* my_username() {
    static const std::string name = [] {
        uid_t uid = geteuid();
        struct passwd pw, *found = nullptr;
        std::vector<char> buf(16384);
        if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_name)
            return std::string(found->pw_name);
        return "uid" + std::to_string(uid);
    }();
    return name.c_str();
}

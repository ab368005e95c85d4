// Server names that list several addresses, and named server ports from the
// orbserver_names parameter file.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "orb/orbpriv.h"
#include "stock/elog.h"
#include "stock/pf.h"

namespace {
std::mutex Names_mutex;
Pf* Orbserver_names;
bool Orbserver_names_read;
}  // namespace

// A value is "port [signer] [tls]".
int orb_named_port(const char* text, char* signer, bool* tls) {
    std::lock_guard<std::mutex> lock(Names_mutex);
    if (!Orbserver_names_read) {
        Orbserver_names_read = true;
        if (pfread("orbserver_names", &Orbserver_names) < 0) {
            pffree(Orbserver_names);
            Orbserver_names = nullptr;
        }
    }
    const char* value = nullptr;
    if (Orbserver_names) {
        void* v = nullptr;
        if (pfget(Orbserver_names, text, &v) == PF_STRING) value = static_cast<const char*>(v);
    }
    if (!value) return -1;
    char* end = nullptr;
    long port = strtol(value, &end, 10);
    if (end == value || port < 0 || port > INT32_MAX) return -1;
    while (*end == ' ' || *end == '\t') end++;
    std::string s = end;
    while (!s.empty() && isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
    *tls = s == "tls" || (s.size() > 3 && s.compare(s.size() - 3, 3, "tls") == 0 &&
                          isspace(static_cast<unsigned char>(s[s.size() - 4])));
    if (*tls) {
        s.resize(s.size() - 3);
        while (!s.empty() && isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
    }
    if (s.size() > ORB_SIGNER_SIZE) s.resize(ORB_SIGNER_SIZE);
    memcpy(signer, s.c_str(), s.size() + 1);
    return static_cast<int>(port);
}

std::vector<std::string> orb_server_addresses(const std::string& name) {
    if (orb_is_file_name(name.c_str()) || name.find(',') == std::string::npos) return {name};
    std::vector<std::string> list;
    for (size_t start = 0;;) {
        size_t comma = name.find(',', start);
        std::string a = name.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (a.empty()) {
            elog_complain(0, "empty address in server list '%s'\n", name.c_str());
            return {};
        }
        // Its server lives and dies with the connection: nothing to fail over to.
        if (orb_is_file_name(a.c_str())) {
            elog_complain(0, "file path '%s' can't be one of the addresses in server list '%s'\n", a.c_str(),
                          name.c_str());
            return {};
        }
        list.push_back(a);
        if (comma == std::string::npos) return list;
        start = comma + 1;
    }
}

// Named server ports from the orbserver_names parameter file.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "orb/orbpriv.h"
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

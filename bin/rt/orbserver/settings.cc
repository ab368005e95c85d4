#include "settings.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cctype>
#include <memory>
#include <sstream>

#include "stock/pf.h"

bool parse_cidr(const std::string& text, Cidr& out) {
    std::string addr = text;
    int bits = 32;
    if (auto slash = text.find('/'); slash != std::string::npos) {
        addr = text.substr(0, slash);
        std::string b = text.substr(slash + 1);
        if (b.empty() || b.size() > 2 || b.find_first_not_of("0123456789") != std::string::npos)
            return false;
        bits = std::atoi(b.c_str());
        if (bits > 32) return false;
    }
    in_addr a{};
    if (inet_pton(AF_INET, addr.c_str(), &a) != 1) return false;
    out.mask = bits == 0 ? 0 : ~uint32_t(0) << (32 - bits);
    out.net = ntohl(a.s_addr) & out.mask;
    return true;
}

bool cidr_allows(const std::vector<Cidr>& list, uint32_t addr) {
    for (const Cidr& c : list)
        if ((addr & c.mask) == c.net) return true;
    return false;
}

long long parse_size(const std::string& text) {
    if (text.empty()) return -1;
    errno = 0;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (errno || end == text.c_str() || !std::isfinite(v) || v < 0) return -1;
    std::string rest(end);
    double scale = 1;
    if (rest == "k" || rest == "K") scale = 1024.0;
    else if (rest == "m" || rest == "M") scale = 1024.0 * 1024;
    else if (rest == "g" || rest == "G") scale = 1024.0 * 1024 * 1024;
    else if (!rest.empty()) return -1;
    v *= scale;
    if (v > 9e18) return -1;
    return static_cast<long long>(v);
}

Settings::Settings() {
    Cidr c;
    parse_cidr("0.0.0.0/0", c);
    read_allow.push_back(c);
    parse_cidr("127.0.0.0/8", c);
    write_allow.push_back(c);
    admin_allow.push_back(c);
}

namespace {

struct PfFree {
    void operator()(Pf* pf) const { pffree(pf); }
};

std::string get_text(Pf* pf, const char* key, bool& found) {
    char* s = pfget_string(pf, key);
    found = s != nullptr;
    return s ? std::string(s) : std::string();
}

std::string get_int(Pf* pf, const char* key, long long lo, long long hi, bool size, long long& out) {
    bool found = false;
    std::string text = get_text(pf, key, found);
    if (!found) return "";
    long long v;
    if (size) {
        v = parse_size(text);
    } else {
        char* end = nullptr;
        errno = 0;
        v = std::strtoll(text.c_str(), &end, 10);
        if (errno || end == text.c_str() || *end) v = lo - 1;
    }
    if (v < lo || v > hi) return std::string("bad value '") + text + "' for " + key;
    out = v;
    return "";
}

std::string get_list(Pf* pf, const char* key, std::vector<Cidr>& out) {
    Pf* node = nullptr;
    if (pfresolve(pf, key, 0, &node) < 0 || node == nullptr) return "";
    std::vector<std::string> texts;
    if (node->type == PF_STRING) {
        // One line of blank-separated blocks.
        std::string line = pfget_string(pf, key) ? pfget_string(pf, key) : "";
        size_t i = 0;
        while ((i = line.find_first_not_of(" \t", i)) != std::string::npos) {
            size_t j = line.find_first_of(" \t", i);
            texts.push_back(line.substr(i, j == std::string::npos ? j : j - i));
            i = j;
        }
    } else if (node->type == PF_TBL) {
        for (long i = 0; i < pfmaxtbl(node); i++) {
            void* entry = nullptr;
            if (pfget(node, pfindex(i), &entry) != PF_STRING)
                return std::string("entry ") + std::to_string(i) + " of " + key + " is not an address";
            std::string text = static_cast<const char*>(entry);
            size_t a = text.find_first_not_of(" \t"), b = text.find_last_not_of(" \t");
            if (a != std::string::npos) texts.push_back(text.substr(a, b - a + 1));
        }
    } else {
        return std::string("'") + key + "' should be a list of addresses";
    }
    std::vector<Cidr> list;
    for (const std::string& text : texts) {
        Cidr c;
        if (!parse_cidr(text, c)) return "bad address '" + text + "' in " + key;
        list.push_back(c);
    }
    out = list;
    return "";
}

// Each entry of the signers table is "name public-key-file".
std::string get_signers(Pf* pf, Settings& s) {
    Pf* node = nullptr;
    if (pfresolve(pf, "signers", 0, &node) < 0 || node == nullptr) return "";
    if (node->type != PF_TBL) return "'signers' should be a table of \"name public-key-file\" lines";
    std::vector<std::pair<std::string, std::string>> list;
    for (long i = 0; i < pfmaxtbl(node); i++) {
        void* entry = nullptr;
        std::string name, path, extra;
        if (pfget(node, pfindex(i), &entry) == PF_STRING) {
            std::istringstream words(static_cast<const char*>(entry));
            words >> name >> path >> extra;
        }
        if (name.empty() && path.empty()) continue;
        if (path.empty() || !extra.empty() || name.size() > 64)
            return "entry " + std::to_string(i) + " of signers should be \"name public-key-file\" (name at most 64 characters)";
        for (const auto& [n, p] : list)
            if (n == name) return "signer '" + name + "' is listed twice";
        list.emplace_back(name, path);
    }
    s.signers = list;
    return "";
}

// "certfile,keyfile" for -T.
std::string tls_pair(const std::string& a, Settings& s) {
    auto comma = a.find(',');
    if (comma == std::string::npos || comma == 0 || comma + 1 == a.size())
        return "bad TLS files '" + a + "' (want certfile,keyfile)";
    s.tls_certificate = a.substr(0, comma);
    s.tls_key = a.substr(comma + 1);
    return "";
}

// "[address:]port" into address (left alone when not given) and port.
std::string parse_listen(const std::string& text, std::string& address, int& port) {
    std::string p = text;
    if (auto colon = text.rfind(':'); colon != std::string::npos) {
        std::string addr = text.substr(0, colon);
        p = text.substr(colon + 1);
        if (!addr.empty()) {
            Cidr c;
            if (!parse_cidr(addr, c) || addr.find('/') != std::string::npos) return "bad address '" + addr + "'";
            address = addr;
        }
    }
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(p.c_str(), &end, 10);
    if (errno || end == p.c_str() || *end || v < 0 || v > 65535) return "bad port '" + p + "'";
    port = int(v);
    return "";
}

}  // namespace

std::string load_settings(const std::string& pfname, Settings& s) {
    Pf* raw = nullptr;
    if (pfname.find('/') != std::string::npos) {
        FILE* fp = std::fopen(pfname.c_str(), "r");
        if (!fp) return "can't open parameter file '" + pfname + "'";
        int r = pfin(fp, &raw);
        std::fclose(fp);
        if (r != 0) {
            pffree(raw);
            return "parameter file '" + pfname + "' has syntax errors";
        }
    } else {
        int r = pfread(pfname.c_str(), &raw);
        if (r == -1 || raw == nullptr) return "";  // no file at all: built-in defaults
        if (r < 0) {
            pffree(raw);
            return "parameter file '" + pfname + "' has syntax errors";
        }
    }
    std::unique_ptr<Pf, PfFree> pf(raw);
    std::string err;
    long long v;
    bool found;
    if (std::string a = get_text(pf.get(), "bind_address", found); found) {
        in_addr tmp{};
        if (inet_pton(AF_INET, a.c_str(), &tmp) != 1) return "bad bind_address '" + a + "'";
        s.bind_address = a;
    }
    v = s.port;
    if (!(err = get_int(pf.get(), "port", 0, 65535, false, v)).empty()) return err;
    s.port = int(v);
    v = s.ring_size;
    if (!(err = get_int(pf.get(), "ring_size", 1 << 16, 1LL << 40, true, v)).empty()) return err;
    s.ring_size = v;
    v = s.ring_packets;
    if (!(err = get_int(pf.get(), "ring_packets", 0, 1LL << 30, false, v)).empty()) return err;
    s.ring_packets = v;
    v = s.maxpkts;
    if (!(err = get_int(pf.get(), "maxpkts", 2, 0x7fffffff, false, v)).empty()) return err;
    s.maxpkts = int(v);
    v = s.max_clients;
    if (!(err = get_int(pf.get(), "max_clients", 1, 1000000, false, v)).empty()) return err;
    s.max_clients = int(v);
    v = s.idle_timeout;
    if (!(err = get_int(pf.get(), "idle_timeout", 0, 1 << 30, false, v)).empty()) return err;
    s.idle_timeout = int(v);
    v = s.request_timeout;
    if (!(err = get_int(pf.get(), "request_timeout", 1, 1 << 30, false, v)).empty()) return err;
    s.request_timeout = int(v);
    if (std::string h = get_text(pf.get(), "http_port", found); found && !h.empty()) {
        if (!(err = parse_listen(h, s.http_address, s.http_port)).empty()) return err + " in http_port";
    }
    if (!(err = get_list(pf.get(), "read_allow", s.read_allow)).empty()) return err;
    if (!(err = get_list(pf.get(), "write_allow", s.write_allow)).empty()) return err;
    if (!(err = get_list(pf.get(), "admin_allow", s.admin_allow)).empty()) return err;
    if (std::string c = get_text(pf.get(), "tls_certificate", found); found) s.tls_certificate = c;
    if (std::string k = get_text(pf.get(), "tls_key", found); found) s.tls_key = k;
    if (s.tls_certificate.empty() != s.tls_key.empty()) return "tls_certificate and tls_key go together";
    if (std::string l = get_text(pf.get(), "signed_opens", found); found) {
        l.erase(std::remove_if(l.begin(), l.end(), ::isspace), l.end());
        if (l.find_first_not_of("rw") != std::string::npos)
            return "bad signed_opens '" + l + "': permission letters r and w only";
        s.signed_opens = l;
    }
    v = s.jetstream_replicas;
    if (!(err = get_int(pf.get(), "jetstream_replicas", 0, 5, false, v)).empty()) return err;
    s.jetstream_replicas = int(v);
    return get_signers(pf.get(), s);
}

std::string apply_option(int opt, const char* arg, Settings& s) {
    std::string a = arg ? arg : "";
    auto number = [&](long long lo, long long hi, long long& out) {
        char* end = nullptr;
        errno = 0;
        long long v = std::strtoll(a.c_str(), &end, 10);
        if (errno || end == a.c_str() || *end || v < lo || v > hi) return false;
        out = v;
        return true;
    };
    long long v = 0;
    switch (opt) {
    case 's':
        v = parse_size(a);
        if (v < (1 << 16)) return "bad ring size '" + a + "' (at least 64k)";
        s.ring_size = v;
        return "";
    case 'n':
        if (!number(1, 1LL << 30, v)) return "bad packet count '" + a + "'";
        s.ring_packets = v;
        return "";
    case 'm':
        if (!number(2, 0x7fffffff, v)) return "bad packet-id modulus '" + a + "'";
        s.maxpkts = int(v);
        return "";
    case 'P':
        return parse_listen(a, s.bind_address, s.port);
    case 'H':
        return parse_listen(a, s.http_address, s.http_port);
    case 'o':
        s.port_file = a;
        return "";
    case 'T':
        return tls_pair(a, s);
    case 'J':
        s.jetstream_urls.clear();
        for (size_t at = 0; at <= a.size();) {
            size_t comma = std::min(a.find(',', at), a.size());
            if (comma == at) return "bad JetStream URL list '" + a + "'";
            s.jetstream_urls.push_back(a.substr(at, comma - at));
            at = comma + 1;
        }
        return "";
    case 'v':
        s.verbose++;
        return "";
    default:
        return std::string("unknown option -") + char(opt);
    }
}

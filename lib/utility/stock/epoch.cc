#include "stock/epoch.h"

#include <strings.h>
#include <time.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "stock/epoch_private.h"

using epoch_detail::copy;
using epoch_detail::parse_offset;

static std::mutex TzLock;  // the TZ variable is process-wide

// Breaks t down in zone tz; false for a zone text we cannot use.
static bool breakdown(time_t t, const char* tz, struct tm* tm, std::string& label) {
    if (!tz || !*tz || !strcasecmp(tz, "UTC") || !strcasecmp(tz, "GMT") || !strcasecmp(tz, "Z")) {
        if (!gmtime_r(&t, tm)) return false;
        label = "UTC";
        tm->tm_zone = label.c_str();
        return true;
    }
    if (!strcmp(tz, "local")) return localtime_r(&t, tm) != nullptr;
    long off;
    const char* p = tz;
    if (parse_offset(p, &off) && !*p) {
        time_t shifted = t + off;
        if (!gmtime_r(&shifted, tm)) return false;
        tm->tm_gmtoff = off;
        label = tz;
        tm->tm_zone = label.c_str();
        return true;
    }
    std::lock_guard<std::mutex> g(TzLock);
    const char* old = getenv("TZ");
    std::string saved = old ? old : "";
    setenv("TZ", tz, 1);
    tzset();
    bool ok = localtime_r(&t, tm) != nullptr;
    if (ok) {
        label = tm->tm_zone ? tm->tm_zone : tz;
        tm->tm_zone = label.c_str();
    }
    if (old)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    return ok;
}

char* zepoch2str(double epoch, const char* format, const char* tz) {
    if (!format) format = "";
    if (!std::isfinite(epoch) || std::fabs(epoch) > 1e15) return copy("(invalid time)");
    bool want_us = false, want_ms = false;
    for (const char* p = format; *p; p++) {
        if (*p != '%') continue;
        if (p[1] == 'u') want_us = true;
        if (p[1] == 's') want_ms = true;
        if (p[1]) p++;
    }
    double whole = std::floor(epoch);
    long long us = 0;
    if (want_us || want_ms) {
        double scale = want_us ? 1e6 : 1e3;
        long long units = llround((epoch - whole) * scale);
        if (units >= (long long)scale) {
            whole += 1;
            units -= (long long)scale;
        }
        us = want_us ? units : units * 1000;
    }
    time_t t = (time_t)whole;
    struct tm tm;
    std::string label;
    if (!breakdown(t, tz, &tm, label)) return copy("(invalid time)");

    // Our own codes become literal text; the rest is strftime's.
    std::string f;
    for (const char* p = format; *p; p++) {
        if (*p != '%' || !p[1]) {
            f += *p;
            continue;
        }
        char c = *++p;
        char num[32];
        if (c == 'E') {
            snprintf(num, sizeof num, "%lld", (long long)t);
            f += num;
        } else if (c == 's') {
            snprintf(num, sizeof num, "%03lld", us / 1000);
            f += num;
        } else if (c == 'u') {
            snprintf(num, sizeof num, "%06lld", us);
            f += num;
        } else {
            f += '%';
            f += c;
        }
    }
    f += '!';  // never an empty result, so 0 from strftime means "too small"
    std::string out(f.size() * 4 + 64, '\0');
    for (;;) {
        size_t n = strftime(out.data(), out.size(), f.c_str(), &tm);
        if (n > 0) {
            out.resize(n - 1);
            break;
        }
        if (out.size() > (1u << 24)) return copy("");
        out.resize(out.size() * 2);
    }
    return copy(out);
}

char* epoch2str(double epoch, const char* format) { return zepoch2str(epoch, format, nullptr); }

char* strtime(double epoch) { return epoch2str(epoch, "%Y-%m-%d %H:%M:%S.%s"); }

char* strdate(double epoch) { return epoch2str(epoch, "%Y-%m-%d"); }

char* strdbl(double value, const char* format) {
    char buf[512];
    if (!format) {
        if (!std::isfinite(value)) {
            snprintf(buf, sizeof buf, "%g", value);
            return copy(buf);
        }
        for (int prec = 1; prec <= 17; prec++) {
            snprintf(buf, sizeof buf, "%.*g", prec, value);
            if (strtod(buf, nullptr) == value) break;
        }
        return copy(buf);
    }
    int n = snprintf(buf, sizeof buf, format, value);
    if (n < 0) return copy("");
    std::string s(n + 1, '\0');
    snprintf(s.data(), s.size(), format, value);
    s.resize(n);
    // Trailing zeros only go when the text ends in the number's fraction.
    size_t dot = s.rfind('.');
    if (dot != std::string::npos && s.find_first_not_of("0123456789", dot + 1) == std::string::npos) {
        size_t end = s.size();
        while (end > dot + 1 && s[end - 1] == '0') end--;
        if (end == dot + 1) end = dot;
        s.resize(end);
    }
    return copy(s);
}

#include "stock/epoch.h"

#include <strings.h>
#include <time.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "stock/allot.h"

static char* copy(const std::string& s) {
    char* p = strdup(s.c_str());
    if (!p) die_nomem(__LINE__, "epoch", s.size() + 1, "string");
    return p;
}

double std_now() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (double)ts.tv_sec + ts.tv_nsec / 1e9;
}

// Days since 1970-01-01 of a proleptic Gregorian date (any year, either side of 1970).
static long days_from_civil(long y, int m, int d) {
    y -= m <= 2;
    long era = (y >= 0 ? y : y - 399) / 400;
    long yoe = y - era * 400;
    long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

static bool leap(long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

static int month_days(long y, int m) {
    static const int n[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap(y) ? 29 : n[m - 1];
}

// Parses a fixed offset "+HH", "+HHMM", "+HH:MM" (or "-..."); seconds east.
static bool parse_offset(const char*& p, long* seconds) {
    if (*p != '+' && *p != '-') return false;
    int sign = *p == '-' ? -1 : 1;
    const char* q = p + 1;
    if (!isdigit((unsigned char)q[0]) || !isdigit((unsigned char)q[1])) return false;
    int h = (q[0] - '0') * 10 + (q[1] - '0'), m = 0;
    q += 2;
    const char* r = q + (*q == ':');
    if (isdigit((unsigned char)r[0]) && isdigit((unsigned char)r[1])) {
        m = (r[0] - '0') * 10 + (r[1] - '0');
        q = r + 2;
    } else if (*q == ':') {
        return false;
    }
    if (h > 23 || m > 59) return false;
    *seconds = sign * (h * 3600L + m * 60L);
    p = q;
    return true;
}

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

char* strtdelta(double seconds) {
    if (!std::isfinite(seconds)) return copy(std::isnan(seconds) ? "nan" : seconds < 0 ? "-inf" : "inf");
    const char* sign = seconds < 0 ? "-" : "";
    long long ms = llround(std::fabs(seconds) * 1000);
    long long days = ms / 86400000;
    int h = (int)(ms / 3600000 % 24), m = (int)(ms / 60000 % 60), s = (int)(ms / 1000 % 60), f = (int)(ms % 1000);
    char buf[96];
    if (ms < 60000)
        snprintf(buf, sizeof buf, "%s%d.%03d s", sign, s, f);
    else if (days == 0)
        snprintf(buf, sizeof buf, "%s%d:%02d:%02d.%03d", sign, h, m, s, f);
    else
        snprintf(buf, sizeof buf, "%s%lldd %02d:%02d:%02d.%03d", sign, days, h, m, s, f);
    return copy(buf);
}

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
    std::string s(buf, 0);
    int n = snprintf(buf, sizeof buf, format, value);
    if (n < 0) return copy("");
    if ((size_t)n < sizeof buf) {
        s = buf;
    } else {
        s.assign(n + 1, '\0');
        snprintf(s.data(), s.size(), format, value);
        s.resize(n);
    }
    size_t dot = s.rfind('.');
    if (dot != std::string::npos && dot + 1 < s.size() + 1 &&
        s.find_first_not_of("0123456789", dot + 1) == std::string::npos) {
        size_t end = s.size();
        while (end > dot + 1 && s[end - 1] == '0') end--;
        if (end == dot + 1) end = dot;
        s.resize(end);
    }
    return copy(s);
}

namespace {
const char* skip_blanks(const char* p) {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') p++;
    return p;
}

// Reads between lo and hi digits; false when fewer than lo are there.
bool read_digits(const char*& p, int lo, int hi, long* v, int* count = nullptr) {
    int n = 0;
    long x = 0;
    while (n < hi && isdigit((unsigned char)p[n])) x = x * 10 + (p[n++] - '0');
    if (n < lo) return false;
    p += n;
    *v = x;
    if (count) *count = n;
    return true;
}

bool word_is(const char* p, size_t n, const char* w) { return strlen(w) == n && !strncasecmp(p, w, n); }

// A plain number: [+-] digits [. digits] [e [+-] digits], nothing else.
bool plain_number(const char* s, double* v) {
    const char* p = s;
    if (*p == '+' || *p == '-') p++;
    int mant = 0;
    while (isdigit((unsigned char)*p)) p++, mant++;
    if (*p == '.') {
        p++;
        while (isdigit((unsigned char)*p)) p++, mant++;
    }
    if (!mant) return false;
    if (*p == 'e' || *p == 'E') {
        p++;
        if (*p == '+' || *p == '-') p++;
        if (!isdigit((unsigned char)*p)) return false;
        while (isdigit((unsigned char)*p)) p++;
    }
    if (*skip_blanks(p)) return false;
    errno = 0;
    *v = strtod(s, nullptr);
    return std::isfinite(*v);
}

double calendar(const char* p) {
    const double bad = NAN;
    // The state file's form starts with the epoch and "(day of year)": skip them.
    {
        const char* q = p;
        if (*q == '+' || *q == '-') q++;
        if (isdigit((unsigned char)*q)) {
            while (isdigit((unsigned char)*q) || *q == '.') q++;
            const char* r = skip_blanks(q);
            if (r != q && *r == '(') {
                long ignored;
                r++;
                if (read_digits(r, 1, 3, &ignored) && *r == ')') p = skip_blanks(r + 1);
            }
        }
    }
    long year, month = 1, day = 1, doy = 0;
    if (!read_digits(p, 4, 4, &year)) return bad;
    char sep = *p;
    if (sep != '-' && sep != '/') return bad;
    p++;
    int n;
    long v;
    if (!read_digits(p, 1, 3, &v, &n)) return bad;
    if (n == 3) {
        doy = v;
        if (doy < 1 || doy > (leap(year) ? 366 : 365)) return bad;
    } else {
        month = v;
        if (*p != sep) return bad;
        p++;
        if (!read_digits(p, 1, 2, &day)) return bad;
        if (month < 1 || month > 12 || day < 1 || day > month_days(year, (int)month)) return bad;
    }
    if (isdigit((unsigned char)*p)) return bad;
    long hour = 0, minute = 0, second = 0, offset = 0;
    double fraction = 0;
    const char* q = skip_blanks(p);
    if (*q) {
        if (*p == 'T' || *p == 't')
            p++;
        else if (q != p)
            p = q;
        else
            return bad;
        if (!read_digits(p, 1, 2, &hour) || *p != ':') return bad;
        p++;
        if (!read_digits(p, 2, 2, &minute)) return bad;
        if (*p == ':') {
            p++;
            if (!read_digits(p, 2, 2, &second)) return bad;
            if (*p == '.' || *p == ',') {
                const char* f = ++p;
                while (isdigit((unsigned char)*p)) p++;
                if (p == f) return bad;
                std::string digits = "0." + std::string(f, p - f);
                fraction = strtod(digits.c_str(), nullptr);
            }
        }
        if (hour > 23 || minute > 59 || second > 60) return bad;
        // Zone, written right after the time or after blanks.
        q = skip_blanks(p);
        const char* w = q;
        while (isalpha((unsigned char)*w)) w++;
        if (*q == '+' || *q == '-') {
            if (!parse_offset(q, &offset)) return bad;
            p = q;
        } else if (word_is(q, w - q, "Z") || word_is(q, w - q, "UTC") || word_is(q, w - q, "GMT")) {
            p = w;
        }
        // A weekday name may close the text; it is not checked against the date.
        q = skip_blanks(p);
        w = q;
        while (isalpha((unsigned char)*w)) w++;
        if (w != q) {
            static const char* names[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
            bool known = false;
            for (const char* d : names) known = known || word_is(q, w - q, d) || (w - q == 3 && !strncasecmp(q, d, 3));
            if (!known) return bad;
            p = w;
        }
        if (*skip_blanks(p)) return bad;
    }
    long days = doy ? days_from_civil(year, 1, 1) + doy - 1 : days_from_civil(year, (int)month, (int)day);
    double whole = (double)days * 86400.0 + hour * 3600.0 + minute * 60.0 + second - offset;
    return whole + fraction;
}
}  // namespace

double str2epoch(const char* s) {
    if (!s) return NAN;
    const char* p = skip_blanks(s);
    const char* e = p + strlen(p);
    while (e > p && isspace((unsigned char)e[-1])) e--;
    if (word_is(p, e - p, "now")) return std_now();
    double v;
    if (plain_number(p, &v)) return v;
    return calendar(p);
}

int is_epoch_string(const char* s, double* epoch) {
    double v = str2epoch(s);
    if (std::isnan(v)) return 0;
    if (epoch) *epoch = v;
    return 1;
}

int wait_for_time(double epoch, double delay) {
    double target = epoch + delay;
    if (!std::isfinite(target)) return -1;
    for (;;) {
        double now = std_now();
        if (now >= target) return 0;
        struct timespec ts;
        ts.tv_sec = (time_t)std::floor(target);
        ts.tv_nsec = (long)((target - std::floor(target)) * 1e9);
        if (ts.tv_nsec > 999999999) ts.tv_nsec = 999999999;
        clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &ts, nullptr);
    }
}

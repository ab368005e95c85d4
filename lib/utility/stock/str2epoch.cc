#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "stock/epoch.h"
#include "stock/epoch_private.h"

using namespace epoch_detail;

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

#include <time.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "stock/allot.h"
#include "stock/epoch.h"
#include "stock/epoch_private.h"

namespace epoch_detail {

char* copy(const std::string& s) { return allot_strdup(s.c_str(), "string"); }

// Days since 1970-01-01 of a proleptic Gregorian date (any year, either side of 1970).
long days_from_civil(long y, int m, int d) {
    y -= m <= 2;
    long era = (y >= 0 ? y : y - 399) / 400;
    long yoe = y - era * 400;
    long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

bool leap(long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int month_days(long y, int m) {
    static const int n[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap(y) ? 29 : n[m - 1];
}

// Parses a fixed offset "+HH", "+HHMM", "+HH:MM" (or "-..."); seconds east.
bool parse_offset(const char*& p, long* seconds) {
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

}  // namespace epoch_detail

using epoch_detail::copy;

double std_now() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (double)ts.tv_sec + ts.tv_nsec / 1e9;
}

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

int wait_for_time(double epoch, double delay) {
    double target = epoch + delay;
    // Past the clock's range there is nothing to wait for (and the seconds
    // would not fit the sleep's time_t).
    if (!std::isfinite(target) || target > 1e15) return -1;
    for (;;) {
        double now = std_now();
        if (now >= target) return 0;
        struct timespec ts;
        ts.tv_sec = (time_t)std::floor(target);
        ts.tv_nsec = (long)((target - std::floor(target)) * 1e9);
        if (ts.tv_nsec > 999999999) ts.tv_nsec = 999999999;
        int rc = clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &ts, nullptr);
        if (rc != 0 && rc != EINTR) return -1;  // never spin on a sleep that fails at once
    }
}

// Calendar arithmetic and helpers shared by the time module's files.
#pragma once

#include <string>

namespace epoch_detail {
char* copy(const std::string& s);                 // new string; out of memory is fatal
long days_from_civil(long y, int m, int d);       // days since 1970-01-01, any year
bool leap(long y);
int month_days(long y, int m);
bool parse_offset(const char*& p, long* seconds);  // "+HH", "+HHMM", "+HH:MM"; seconds east
}  // namespace epoch_detail

// Time: epoch seconds (a double, seconds since 1970-01-01 00:00:00 UTC) to and
// from calendar text. Every function that returns text returns a new string
// that the caller frees with free().
//
// Formats are strftime's, plus our own codes:
//   %E  whole epoch seconds (floor, so negative before 1970), e.g. 1700000000
//   %s  milliseconds, 3 digits
//   %u  microseconds, 6 digits
// (these replace strftime's own %s and %u). The time is rounded to the finest
// of %u/%s that the format uses, else truncated to the whole second.
#pragma once

double std_now();                                        // the current time

char* epoch2str(double epoch, const char* format);       // in UTC
// In zone tz: null, "", "UTC", "GMT" or "Z" for UTC; "local" for the
// process's local zone; "+HH:MM", "+HHMM", "-HH" ... for a fixed offset;
// any other text is taken as a zone name (as the TZ variable would be).
char* zepoch2str(double epoch, const char* format, const char* tz);

char* strtime(double epoch);    // "2023-11-14 22:13:20.123" (UTC)
char* strdate(double epoch);    // "2023-11-14" (UTC)
char* strtdelta(double seconds); // a duration: "1.500 s", "2:03:04.500", "3d 02:03:04.500"; "-" when negative

// A double as text. With format null: the shortest text that atof/strtod reads
// back to exactly the same value ("0.1", "1e+300", "nan", "inf"); with a
// printf format for one double: that text with trailing fraction zeros (and a
// bare ".") removed.
char* strdbl(double value, const char* format);

// Reads a time, UTC unless a zone is written; NaN when the text is not a time
// (test with std::isnan). Accepted, with blanks around:
//   "now"; a plain number of epoch seconds ("1700000000.25", "-3.5");
//   a date "YYYY-MM-DD", "YYYY-DDD", "YYYY/MM/DD" or "YYYY/DDD", optionally
//   followed by blanks or "T" and a time "HH:MM[:SS[.fraction]]", then
//   optionally a zone ("Z", "UTC", "GMT", "+HH", "+HHMM", "+HH:MM", "-..."),
//   then optionally a weekday name;
//   and what the state file writes, "%E (%j) %Y-%m-%d  %H:%M:%S.%u %z %A",
//   read back exactly (the leading epoch and day of year are skipped).
double str2epoch(const char* s);

// 1 and *epoch set when s is a time str2epoch reads, else 0 (*epoch untouched).
int is_epoch_string(const char* s, double* epoch);

// Sleeps until the clock reaches epoch + delay (at once if it has); 0, or -1
// at once when that is not a finite time or lies beyond 1e15 (no clock gets
// there), or when the system cannot sleep.
int wait_for_time(double epoch, double delay);

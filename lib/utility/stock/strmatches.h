// Regular-expression match with the compiled pattern cached in a Hook.
#pragma once

struct Hook;

// 1 when the whole of string matches the POSIX extended regular expression
// pattern (it is anchored at both ends: "a.c" matches "abc", not "xabcx"),
// 0 when not, -1 when the pattern does not compile (or an argument is null).
// *hook holds the compiled pattern: start it null; it is made on first use,
// recompiled when pattern's text changes, and freed with free_hook(hook).
int strmatches(const char* string, const char* pattern, Hook** hook);

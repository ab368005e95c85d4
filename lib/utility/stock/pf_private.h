// Internals shared by the parameter-file sources (tree, parser, search path).
#pragma once

#include <string>

#include "stock/pf.h"

// The file name new nodes record; interned so nodes may keep the pointer.
const char* pf_current_filename();
const char* pf_intern(const char* s);

// The node a function node stands for, evaluating it on first access (null
// for an undefined value). Non-function nodes are returned as they are.
Pf* pf_evaluate(Pf* pf);

// Key-path walk; evaluate_last = 0 returns a function node itself at the end.
int pf_walk(Pf* pf, const char* key, int create, Pf** out, bool evaluate_last);

// Counts reads in progress for pf_reading().
struct PfReadingScope {
    PfReadingScope();
    ~PfReadingScope();
    PfReadingScope(const PfReadingScope&) = delete;
    PfReadingScope& operator=(const PfReadingScope&) = delete;
};

// Owned copy of s for a node (malloc'd, never null for a non-null s).
char* pf_strdup(const char* s);

// 1 when the value written as plain text would be read back as a block, a
// literal or a deferred expression instead of the same string.
bool pf_special_start(const char* s);
// 1 when s (a value's text) begins with a deferred &-form.
bool pf_is_function_text(const char* s);

// pfupdate with an explicit identity for the caller's tree variable.
int pf_update_keyed(const char* name, Pf** pf, const void* id);

// Thin seams over the shared path and time utilities; strings returned are
// malloc'd (caller frees), Tbl entries likewise.
int pf_is_epoch_string(const char* s, double* epoch);
double pf_str2epoch(const char* s);  // NaN when not a time
char* pf_strdbl(double value);
char* pf_zepoch2str(double epoch, const char* format);
char* pf_strdate(double epoch);
std::string pf_abspath(const char* path);
int pf_is_file(const char* path);
Tbl* pf_datasearch(const char* envname, const char* subdir, const char* name, int all);
char* pf_datapath(const char* dir, const char* subdir, const char* name, const char* suffix);

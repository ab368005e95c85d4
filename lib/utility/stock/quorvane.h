// The installation root and the data files found under it.
// The root is the QUORVANE environment variable when set and non-empty, else
// the compiled-in FERRANT_PREFIX; data files live in <root>/data/<subdir>/.
#pragma once

struct Tbl;

// The root directory text (from the environment or the built-in default).
const char* installation_root();

// The path of the data file name[.suffix] in directory/subdirectory when
// directory is given, else in <root>/data/subdirectory; the suffix is not
// added again when name already ends in "."suffix; null or empty
// subdirectory or suffix are left out. Returns a new string (caller frees)
// when that file exists, else null.
char* datapath(const char* directory, const char* subdirectory, const char* name, const char* suffix);

// The candidate paths of name along a ":"-separated search path: the value
// of the environment variable envname when set, else "<root>/data/<subdir>:."
// (empty entries mean "."). With all set every candidate is listed, else only
// those that exist. New Tbl of new strings in search order: freetbl(t, free).
Tbl* datasearch(const char* envname, const char* subdir, const char* name, int all);

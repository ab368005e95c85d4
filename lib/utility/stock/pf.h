// Parameter files: a tree of Pf nodes read from text files found along a
// search path, typed getters over key paths, a writer whose output reads back
// to an equal tree, and a process-wide cache of named trees.
//
// Ownership: a node owns its string, its container and every child. Strings a
// getter returns belong to the tree and live until that node is changed or
// freed. pfget_arr, pfget_tbl, pfkeys, pffiles and pftimes return new
// containers the caller frees (the containers, not the strings in them, except
// pffiles/pftimes whose strings are owned: free them with freepffiles /
// freepftimes). pf2string returns a malloc'd string the caller free()s.
//
// Keys into a list node (pfget, pfput, pfdel, and pfresolve/_pfeval started at
// a list) are int indexes passed in the key argument: use pfindex(i).
//
// Threads: parsing is serialised (one parse at a time), key-path walks, the
// named-tree cache and the update table each have their own mutex. A tree is
// not locked: don't change it while another thread reads it.
#pragma once

#include <cstdint>
#include <cstdio>

#include "stock/arr.h"
#include "stock/hook.h"
#include "stock/tbl.h"

// Node types. As an expected type, PF_ANY accepts any node.
#define PF_ROOT 0       // root of one parsed file: named children (Arr); not PF_FILE, which <sys/socket.h> owns
#define PF_STRING 1     // a string
#define PF_TBL 2        // ordered children (Tbl)
#define PF_ARR 3        // named children (Arr), an &Arr{ } block
#define PF_UNDEFINED 4  // reserved
#define PF_INVALID 5    // a lookup found nothing
#define PF_ANY 6        // fresh, untyped child
#define PF_FUNCTION 7   // deferred &-expression, evaluated on first access
#define PF_PF 8         // pfput only: value is itself a Pf node to insert

struct Pf;

struct Pffunct {
    char* s;     // the expression text, owned
    Pf* pf;      // what it produced once evaluated, owned
    Hook* hook;  // evaluator state, owned
};

union Pfvalue {
    char* s;
    Arr* arr;
    Tbl* tbl;
    Pffunct* pffunct;
};

struct Pf {
    int type;
    Pfvalue value;
    Pf* parent;            // enclosing node; null at a root
    const char* filename;  // file the node came from (shared, never freed)
    char* filled_out;      // cached expansion of a string, owned
};

// The key argument that selects entry i of a list.
inline const char* pfindex(long i) { return reinterpret_cast<const char*>(static_cast<intptr_t>(i)); }

// Printed name of a type in messages ("scalar", "table", "array", ...).
const char* pftype_name(int type);

// ---- nodes --------------------------------------------------------------
Pf* pfnew(int type);
void pffree(Pf* pf);              // whole subtree; null accepted
Pf* pfdup(Pf* pf);                // deep copy; fatal for types other than 0,1,2,3,7

// ---- lookup -------------------------------------------------------------
// One node only: named child of a file/array, entry of a list, or the node
// itself for a string/function. 1 with *value the expanded string for a
// string; else the node's type with *value the node; 5 and null if none.
int pfget(Pf* pf, const char* key, void** value);
// Walks a key path ("a{b c}[2]{d}"): type reached, -31 missing key, -32 a
// component that can't index its node. create != 0 makes missing nodes.
int pfresolve(Pf* pf, const char* key, int create, Pf** pfvalue);
// 0 and *string the expanded text when the path reaches a string or file
// root; else -1 and null. Never fatal.
int pfeval(Pf* pf, const char* key, char** string);
// Resolves, evaluates a function node and checks the type against expected
// (PF_ANY for any), calling pfdie on a mismatch. Result of pfresolve.
int _pfeval(Pf* pf, const char* key, Pf** value, int expected);
// The string with &name and &{name} references expanded from the ancestors;
// cached in filled_out. Null for a node that is not a string or function.
char* pfexpand(Pf* pf);
Tbl* pfkeys(Pf* pf);              // new Tbl of the keys in key order, null if not file/array
int pfmaxtbl(Pf* pf);             // entries of a list, else 0

// ---- typed getters (key path from pf) -----------------------------------
char* pfget_string(Pf* pf, const char* key);   // null when missing
int pfget_int(Pf* pf, const char* key);        // missing: pfdie (fatal by default)
double pfget_double(Pf* pf, const char* key);  // missing: pfdie
int pfget_boolean(Pf* pf, const char* key);    // -1 true, 0 false or missing
double pfget_time(Pf* pf, const char* key);    // epoch seconds; missing: pfdie; unparsable: 0
double pfget_size(Pf* pf, const char* key);    // with k/M/G suffix; missing: pfdie
Arr* pfget_arr(Pf* pf, const char* key);       // new Arr of the string children, null when missing
Tbl* pfget_tbl(Pf* pf, const char* key);       // new Tbl: strings, or Pf* for non-string entries

// ---- setters ------------------------------------------------------------
// Stores a new child directly under pf (no path walk) made from value by type:
// PF_STRING copies a char*, PF_ROOT/PF_ARR adopt an Arr* of Pf*, PF_TBL adopts
// a Tbl* of Pf*, PF_FUNCTION copies the expression text, PF_PF inserts a Pf*
// (a file root becomes an array). The displaced child is freed.
void pfput(Pf* pf, const char* key, void* value, int type);
void pfput_string(Pf* pf, const char* key, const char* s);
void pfput_int(Pf* pf, const char* key, int value);
void pfput_double(Pf* pf, const char* key, double value);
void pfput_boolean(Pf* pf, const char* key, int value);  // "True" / "False"
void pfput_time(Pf* pf, const char* key, double epoch);
void pfput_tbl(Pf* pf, const char* key, Tbl* tbl);       // copies the strings of tbl
void pfput_arr(Pf* pf, const char* key, Arr* arr);       // copies the string values of arr
int pfset(Pf* pf, const char* key, const char* s);       // path walk with create; 0 or -1
int pfadd_arr(Pf* pf, const char* name);                 // new untyped child; 0 or -1
int pfadd_tbl(Pf* pf, int index);
Pf* pfdel(Pf* pf, const char* key);                      // removes and returns a child (caller owns)

// ---- missing values and settings -----------------------------------------
// Called when a getter meets a missing value or a node of the wrong type.
// actual == PF_INVALID (missing): result is a char** string slot; a
// replacement may store a default string there (it must outlive the call).
// Otherwise result is a Pf** node slot. The default, _pfdie, is fatal (exit 1)
// for lookups started at a file root, string, array or function node.
typedef int (*Pfdie_fn)(Pf* pf, const char* key, int expected, int actual, void* result);
extern Pfdie_fn pfdie;
int _pfdie(Pf* pf, const char* key, int expected, int actual, void* result);
extern int Pfprompt;  // nonzero lets &ask prompt at the terminal (off by default)
// "ask": value is the new Pfprompt (an int cast to void*); "die": value is a
// Pfdie_fn (null restores _pfdie). 0, or -1 for an unknown code.
int pfconfig(const char* code, void* value);

// ---- cache of named trees ------------------------------------------------
void putPf(const char* name, Pf* pf);          // frees the tree it displaces
void putPf_nofree(const char* name, Pf* pf);
Pf* existsPf(const char* name);                // cached tree or null
Pf* getPf(const char* name);                   // cached, else pfread and cache; null if unreadable
int updatePf(const char* name);                // pfupdate on the cached tree; -1 if none
int freePf(const char* name);                  // 0, or -1 if not cached

// ---- text form -----------------------------------------------------------
// Parse into *pf (a new tree when *pf is null). 0, or -2 for unterminated
// blocks or stray braces; what was read stays in the tree.
int pfcompile(const char* s, Pf** pf);
int pfin(FILE* fp, Pf** pf);
int pfinfd(int fd, Pf** pf);
int pfout(FILE* fp, Pf* pf);                   // 0, or -1 on a write error
int pfwrite(const char* filename, Pf* pf);     // 0, non-zero on failure
char* pf2string(Pf* pf);                       // malloc'd text; caller free()s
int escape(int c, int c2, int c3);             // byte of the escape "\c" (c c2 c3 for octal)
// Deferred forms are evaluated on first access and the result kept: &ref( and
// &glob( (a list) may give non-strings; &env( of an unset variable, &undef(
// and &ask without Pfprompt give a missing value; &exec('s command gets an
// empty standard input. Any other &name( form goes to pfuser when the program
// defines (and exports) extern "C" char* pfuser(const char* expression),
// which returns a malloc'd string or null.

// ---- files along the search path ----------------------------------------
// Search path: PFPATH (":"-separated), else <root>/data/pf:. (root: QUORVANE).
Tbl* pffiles(const char* name, int all);       // paths, lowest precedence first
void freepffiles(Tbl* files);
int pfread(const char* name, Pf** pf);         // 0, -1 nothing read, -2 per bad file
int pfload(const char* dir, const char* subdir, const char* name, Pf** pf);

struct Pftime {
    int mtime;         // modification time, seconds
    char* path;        // owned
    long mtime_nsec;   // and its nanoseconds, so a rewrite within one second counts too
};
Tbl* pftimes(const char* name);                // Tbl of Pftime*, files that exist
void freepftimes(Tbl* times);
// 1 when *pf was (re)read (the old tree freed), 0 when no file of name changed
// since the last call with the same pf variable, negative when reading failed.
int pfupdate(const char* name, Pf** pf);
void setpffilename(const char* s);             // file name new nodes record
const char* getpffilename(void);
// Non-zero when some file of name lacks a pf_revision_time at or after time.
int pfrequire(const char* name, const char* time);
// Non-zero while this process is inside a parameter-file read (pfread,
// pfload, pfin*, pfcompile), so that the log can avoid reading its own
// parameter file from within a read that is logging.
int pf_reading(void);

// The text form of parameter trees: a hand-written scanner, the writer whose
// output reads back to an equal tree, and the evaluator of deferred &-forms.
#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stock/elog.h"
#include "stock/pf.h"
#include "stock/pf_private.h"

extern char** environ;

namespace {

constexpr int Max_open_blocks = 11;
constexpr size_t Max_key = 1023;
constexpr int Max_eval_depth = 16;

// One parse at a time: the scanner's state is process-wide by design.
std::mutex Pf_lock;
int Pf_busy = 0;

bool is_octal(int c) { return c >= '0' && c <= '7'; }
bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_trimmed(char c) { return c == ' ' || c == '\t' || c == '\r'; }

bool starts_with(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// "&name(" with a name of letters, digits and "_", or "&ask" alone.
bool function_form(std::string_view s) {
    if (s.size() < 2 || s[0] != '&') return false;
    if (s == "&ask") return true;
    size_t i = 1;
    while (i < s.size() && (isalnum(static_cast<unsigned char>(s[i])) || s[i] == '_')) i++;
    return i > 1 && i < s.size() && s[i] == '(';
}

struct Scanner {
    const char* p;
    const char* end;
    int line = 1;
    std::vector<Pf*> stack;
    std::vector<std::string> complaints;  // logged once the parser lock is released
    int result = 0;
    bool stopped = false;

    void complain(const char* fmt, auto... args) {
        char buf[256];
        snprintf(buf, sizeof buf, fmt, args...);
        complaints.emplace_back(buf);
    }
    void fail(std::string msg) {
        complaints.push_back(std::move(msg));
        result = -2;
        stopped = true;
    }

    // One backslash escape at p (p[0] == '\\'); appends its byte and moves on.
    void take_escape(std::string& out) {
        p++;
        if (p >= end) return;
        if (end - p >= 3 && is_octal(p[0]) && is_octal(p[1]) && is_octal(p[2])) {
            out += static_cast<char>(escape(p[0], p[1], p[2]));
            p += 3;
            return;
        }
        if (*p == '\n') line++;
        out += static_cast<char>(escape(static_cast<unsigned char>(*p), 0, 0));
        p++;
    }

    void skip_line() {
        while (p < end && *p != '\n') p++;
        if (p < end) {
            p++;
            line++;
        }
    }

    void attach(Pf* parent, const std::string* key, Pf* node) {
        node->parent = parent;
        if (parent->type == PF_TBL)
            pushtbl(parent->value.tbl, node);
        else
            pffree(static_cast<Pf*>(setarr(parent->value.arr, key->c_str(), node)));
    }

    std::string read_key() {
        std::string key;
        if (*p == '"' || *p == '\'') {
            char q = *p++;
            while (p < end && *p != q && *p != '\n') {
                if (*p == '\\')
                    take_escape(key);
                else
                    key += *p++;
            }
            if (p < end && *p == q) p++;
        } else {
            while (p < end && !is_trimmed(*p) && *p != '\n') {
                if (*p == '\\')
                    take_escape(key);
                else
                    key += *p++;
            }
        }
        if (key.size() > Max_key) key.resize(Max_key);
        return key;
    }

    void read_literal(Pf* parent, const std::string* key) {
        static const char opens[] = "{([<`";
        static const char closes[] = "})]>'";
        int start_line = line;
        p += strlen("&Literal");
        std::string text;
        bool closed = false;
        const char* o = p < end && *p ? strchr(opens, *p) : nullptr;
        if (o) {
            char open = *o, close = closes[o - opens];
            skip_line();
            const char* b = p;
            int depth = 1;
            for (; p < end; p++) {
                if (*p == '\n') line++;
                if (*p == open)
                    depth++;
                else if (*p == close && --depth == 0)
                    break;
            }
            text.assign(b, p);
            if (p < end) {
                closed = true;
                p++;
            }
        } else {
            const char* b = p;
            while (p < end && *p != '\n') p++;
            const char* e = p;
            while (e > b && is_trimmed(e[-1])) e--;
            while (b < e && is_blank(*b)) b++;
            std::string word(b, e);
            if (word.empty()) {
                // a bare "&Literal" is only a word
                Pf* node = pfnew(PF_STRING);
                node->value.s = pf_strdup("&Literal");
                attach(parent, key, node);
                return;
            }
            skip_line();
            std::string_view rest(p, end - p);
            size_t at = rest.find(word);
            size_t n = at == std::string_view::npos ? rest.size() : at;
            text.assign(p, n);
            for (char c : text)
                if (c == '\n') line++;
            p += n;
            if (at != std::string_view::npos) {
                closed = true;
                p += word.size();
            }
        }
        Pf* node = pfnew(PF_STRING);
        node->value.s = pf_strdup(text.c_str());
        attach(parent, key, node);
        if (!closed) fail("unterminated &Literal starting at line #" + std::to_string(start_line) + "\n");
    }

    void open_block(Pf* parent, const std::string* key, int type) {
        if (static_cast<int>(stack.size()) - 1 >= Max_open_blocks) {
            char buf[96];
            snprintf(buf, sizeof buf, "too many Lex_levels of nesting at line #%d\n", line);
            fail(buf);
            return;
        }
        Pf* node = pfnew(type);
        attach(parent, key, node);
        stack.push_back(node);
        skip_line();
    }

    // A value from p (blanks before it skipped) to the end of its line.
    void read_value(Pf* parent, const std::string* key) {
        std::string_view rest(p, end - p);
        if (starts_with(rest, "&Arr{")) return open_block(parent, key, PF_ARR);
        if (starts_with(rest, "&Tbl{")) return open_block(parent, key, PF_TBL);
        if (starts_with(rest, "&Literal")) return read_literal(parent, key);

        const char* raw = p;
        std::string text;
        size_t kept = 0;  // escaped characters are never trimmed
        while (p < end && *p != '\n' && *p != '#') {
            if (*p == '\\') {
                take_escape(text);
                kept = text.size();
            } else {
                text += *p++;
            }
        }
        text.resize(strlen(text.c_str()));  // a NUL ends the string
        kept = std::min(kept, text.size());
        size_t n = text.size();
        while (n > kept && is_trimmed(text[n - 1])) n--;
        text.resize(n);
        if (p < end && *p == '#') skip_line();

        Pf* node;
        if (*raw == '&' && function_form(text)) {
            node = pfnew(PF_FUNCTION);
            node->value.pffunct->s = pf_strdup(text.c_str());
        } else {
            node = pfnew(PF_STRING);
            node->value.s = pf_strdup(text.c_str());
            for (const char* kw : {"&Tbl{", "&Arr{"})
                if (text.find(kw, 1) != std::string::npos)
                    complaints.push_back(std::string("value contains '") + kw + "'\n\t'" + text + "'\n");
        }
        attach(parent, key, node);
    }

    void run() {
        while (!stopped) {
            while (p < end && (is_trimmed(*p) || *p == '\n')) {
                if (*p == '\n') line++;
                p++;
            }
            if (p >= end) break;
            Pf* cur = stack.back();
            if (*p == '#') {
                skip_line();
            } else if (*p == '}') {
                p++;
                if (stack.size() <= 1) {
                    char buf[64];
                    snprintf(buf, sizeof buf, "invalid right brace at line#%d\n", line);
                    fail(buf);
                } else {
                    stack.pop_back();
                }
            } else if (cur->type == PF_TBL) {
                read_value(cur, nullptr);
            } else {
                std::string key = read_key();
                while (p < end && is_blank(*p)) p++;
                read_value(cur, &key);
            }
        }
        if (!stopped && stack.size() > 1) {
            char buf[96];
            snprintf(buf, sizeof buf, "Unterminated arrays or tables in parameter file: depth = %d\n",
                     static_cast<int>(stack.size() - 1));
            complaints.emplace_back(buf);
            result = -2;
        }
    }
};

// Parses text into *pf under the parser lock; complaints are logged after the
// lock is released so that the log may itself read parameter files.
int parse(std::string_view text, Pf** pf) {
    if (*pf && (*pf)->type != PF_ROOT && (*pf)->type != PF_ARR) {
        elog_complain(0, "can't parse a parameter file into a %s node", pftype_name((*pf)->type));
        return -1;
    }
    PfReadingScope reading;
    Scanner sc;
    {
        std::lock_guard<std::mutex> lock(Pf_lock);
        Pf_busy++;
        Pf* root = *pf ? *pf : pfnew(PF_ARR);
        root->type = PF_ARR;
        sc.p = text.data();
        sc.end = text.data() + text.size();
        sc.stack.push_back(root);
        sc.run();
        root->type = PF_ROOT;
        *pf = root;
        Pf_busy--;
    }
    for (const std::string& m : sc.complaints) elog_complain(0, "%s", m.c_str());
    return sc.result;
}

// ---- writer ------------------------------------------------------------------

void indent(std::string& out, int depth) { out.append(static_cast<size_t>(depth) * 4, ' '); }

bool needs_escape(char c) { return c == '\\' || c == '}' || c == '\n' || c == '#'; }

std::string escaped(std::string_view s, char also = 0) {
    std::string out;
    for (char c : s) {
        if (needs_escape(c) || (also && c == also)) out += '\\';
        out += c;
    }
    return out;
}

bool balanced(std::string_view s, char open, char close) {
    long n = 0;
    for (char c : s) {
        if (c == open)
            n++;
        else if (c == close && --n < 0)
            return false;
    }
    return n == 0;
}

void write_literal(std::string& out, std::string_view s) {
    static const char pairs[][2] = {{'{', '}'}, {'(', ')'}, {'[', ']'}, {'<', '>'}, {'`', '\''}};
    for (const auto& pr : pairs) {
        if (balanced(s, pr[0], pr[1])) {
            out += "&Literal";
            out += pr[0];
            out += '\n';
            out += s;
            out += pr[1];
            out += '\n';
            return;
        }
    }
    std::string word = "\"EndOfLiteral";
    for (int i = 0; s.find(word) != std::string_view::npos; i++) word = "\"EndOfLiteral" + std::to_string(i);
    out += "&Literal" + word + "\n";
    out += s;
    out += word + "\n";
}

void write_string(std::string& out, const char* value, bool in_list) {
    std::string_view s = value ? value : "";
    if (s.empty()) {
        out += in_list ? "&Literal{\n}\n" : "\n";
        return;
    }
    bool edge_blank = is_trimmed(s.front()) || is_trimmed(s.back());
    bool newline = s.find('\n') != std::string_view::npos;
    if (edge_blank || newline || pf_special_start(value)) {
        write_literal(out, s);
        return;
    }
    out += escaped(s);
    out += '\n';
}

void write_key(std::string& out, const char* key) {
    std::string_view k = key;
    if (k.empty()) {
        out += "\"\"\t";
        return;
    }
    bool blank = k.find_first_of(" \t\r") != std::string_view::npos;
    if (!blank) {
        std::string e = escaped(k);
        if (e[0] == '"' || e[0] == '\'') out += '\\';
        out += e;
    } else if (k.find('"') == std::string_view::npos) {
        out += '"' + escaped(k) + '"';
    } else {
        out += '\'' + escaped(k, '\'') + '\'';
    }
    out += '\t';
}

void write_value(std::string& out, Pf* pf, int depth, bool in_list);

void write_entries(std::string& out, Pf* pf, int depth) {
    Tbl* keys = keysarr(pf->value.arr);
    for (long i = 0; i < maxtbl(keys); i++) {
        const char* k = static_cast<const char*>(gettbl(keys, i));
        indent(out, depth);
        write_key(out, k);
        write_value(out, static_cast<Pf*>(getarr(pf->value.arr, k)), depth, false);
    }
    freetbl(keys, nullptr);
}

void write_value(std::string& out, Pf* pf, int depth, bool in_list) {
    if (!pf) {
        write_string(out, "", in_list);
        return;
    }
    switch (pf->type) {
        case PF_ROOT:
        case PF_ARR:
            out += "&Arr{\n";
            write_entries(out, pf, depth + 1);
            indent(out, depth);
            out += "}\n";
            break;
        case PF_TBL:
            out += "&Tbl{\n";
            for (long i = 0; i < maxtbl(pf->value.tbl); i++) {
                indent(out, depth + 1);
                write_value(out, static_cast<Pf*>(gettbl(pf->value.tbl, i)), depth + 1, true);
            }
            indent(out, depth);
            out += "}\n";
            break;
        case PF_FUNCTION: {
            // Trailing blanks are escaped so that reading does not trim them.
            std::string_view s = pf->value.pffunct && pf->value.pffunct->s ? pf->value.pffunct->s : "";
            size_t body = s.size();
            while (body > 0 && is_trimmed(s[body - 1])) body--;
            out += escaped(s.substr(0, body));
            for (char c : s.substr(body)) out += c == '\t' ? "\\t" : c == '\r' ? "\\r" : "\\ ";
            out += '\n';
            break;
        }
        case PF_STRING:
            write_string(out, pf->value.s, in_list);
            break;
        default:
            write_string(out, "", in_list);
            break;
    }
}

std::string to_text(Pf* pf) {
    std::string out;
    if (!pf) return out;
    if (pf->type == PF_ROOT || pf->type == PF_ARR)
        write_entries(out, pf, 0);
    else
        write_value(out, pf, 0, false);
    return out;
}

// ---- deferred forms ---------------------------------------------------------------

thread_local int Eval_depth = 0;

// Trees named by &ref(, each refreshed with pfupdate before a lookup.
std::recursive_mutex Ref_lock;
std::map<std::string, Pf*>* Ref_trees;

std::string trim(std::string_view s) {
    while (!s.empty() && is_trimmed(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_trimmed(s.back())) s.remove_suffix(1);
    return std::string(s);
}

std::string cut(std::string s) {
    if (s.size() > 1023) s.resize(1023);
    return s;
}

Pf* string_node(Pf* fn, const std::string& s) {
    Pf* node = pfnew(PF_STRING);
    node->value.s = pf_strdup(s.c_str());
    node->filename = fn->filename;
    return node;
}

Pf* eval_ref(Pf* fn, const std::string& arg) {
    size_t comma = arg.find(',');
    if (comma == std::string::npos) return string_node(fn, cut("** missing pf name in reference: '" + arg + "' **"));
    std::string name = trim(std::string_view(arg).substr(0, comma));
    std::string key = trim(std::string_view(arg).substr(comma + 1));
    std::lock_guard<std::recursive_mutex> lock(Ref_lock);
    if (!Ref_trees) Ref_trees = new std::map<std::string, Pf*>;
    Pf*& slot = (*Ref_trees)[name];
    // Refresh only at the outermost evaluation: an inner one may be walking the tree.
    if (Eval_depth == 1 || !slot) pf_update_keyed(name.c_str(), &slot, &slot);
    Pf* node = nullptr;
    if (pfresolve(slot, key.c_str(), 0, &node) < 0 || !node ||
        !(node->type == PF_ROOT || node->type == PF_STRING || node->type == PF_TBL || node->type == PF_ARR ||
          node->type == PF_FUNCTION))
        return string_node(fn, cut("** reference not resolved: '" + arg + "' **"));
    Pf* copy = pfdup(node);
    if (copy->type == PF_ROOT) copy->type = PF_ARR;
    return copy;
}

Pf* eval_exec(Pf* fn, const std::string& command) {
    int fds[2];
    if (pipe(fds) < 0) return string_node(fn, "** can't run '" + command + "'");
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    // No input: a command that reads its standard input gets end of file at once.
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    posix_spawn_file_actions_addclose(&fa, fds[0]);
    posix_spawn_file_actions_addclose(&fa, fds[1]);
    const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
    pid_t pid;
    int rc = posix_spawn(&pid, "/bin/sh", &fa, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(fds[1]);
    std::string out;
    if (rc == 0) {
        char buf[1023];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof buf)) != 0) {
            if (n < 0) {
                if (errno == EINTR) continue;
                break;
            }
            out.append(buf, static_cast<size_t>(n));
        }
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    close(fds[0]);
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return string_node(fn, out.c_str());
}

Pf* eval_glob(Pf* fn, const std::string& pattern) {
    Pf* list = pfnew(PF_TBL);
    glob_t g{};
    if (glob(pattern.c_str(), 0, nullptr, &g) == 0)
        for (size_t i = 0; i < g.gl_pathc; i++) {
            Pf* s = string_node(fn, g.gl_pathv[i]);
            s->parent = list;
            pushtbl(list->value.tbl, s);
        }
    globfree(&g);
    return list;
}

bool read_file(const std::string& path, std::string& out) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[8192];
    ssize_t n;
    bool ok = true;
    while ((n = read(fd, buf, sizeof buf)) != 0) {
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return ok;
}

std::string key_of(Pf* fn) {
    Pf* parent = fn->parent;
    std::pair<Pf*, std::string> found(fn, "value");
    if (parent && (parent->type == PF_ROOT || parent->type == PF_ARR))
        applyarr(
            parent->value.arr,
            [](const char* k, void* v, void* ctx) {
                auto* c = static_cast<std::pair<Pf*, std::string>*>(ctx);
                if (v != c->first) return 0;
                c->second = k;
                return 1;
            },
            &found);
    return found.second;
}

Pf* eval_ask(Pf* fn, const std::string& prompt_arg, bool has_arg) {
    if (!Pfprompt) return nullptr;
    int fd = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) elog_die(1, "Can't open /dev/tty for prompt.\n");
    std::string prompt = (has_arg ? prompt_arg : key_of(fn)) + " : ";
    ssize_t w = write(fd, prompt.data(), prompt.size());
    (void)w;
    std::string line;
    char c;
    while (true) {
        ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') break;
        line += c;
    }
    close(fd);
    return string_node(fn, line.c_str());
}

typedef char* (*Pfuser_fn)(const char* expression);

Pf* evaluate(Pf* fn, const std::string& text) {
    size_t open = text.find('(');
    size_t close = text.rfind(')');
    std::string form = text.substr(0, open == std::string::npos ? text.size() : open);
    std::string arg;
    if (open != std::string::npos)
        arg = text.substr(open + 1, close != std::string::npos && close > open ? close - open - 1 : std::string::npos);
    std::string a = trim(arg);

    if (form == "&ref") return eval_ref(fn, arg);
    if (form == "&env") {
        const char* v = getenv(a.c_str());
        return v ? string_node(fn, v) : nullptr;
    }
    if (form == "&exec") return eval_exec(fn, a);
    if (form == "&glob") return eval_glob(fn, a);
    if (form == "&file") {
        std::string data;
        if (!read_file(a, data)) return string_node(fn, "** can't read file '" + a + "'");
        return string_node(fn, data.c_str());
    }
    if (form == "&datafile" || form == "&datafilename") {
        char* path = pf_datapath(nullptr, nullptr, a.c_str(), nullptr);
        if (!path) return string_node(fn, "** no datafile '" + a + "' found");
        std::string p = path, data;
        free(path);
        if (form == "&datafilename") return string_node(fn, p);
        if (!read_file(p, data)) return string_node(fn, "** no datafile '" + a + "' found");
        return string_node(fn, data.c_str());
    }
    if (form == "&filename") return string_node(fn, pf_abspath(a.c_str()));
    if (form == "&ask") return eval_ask(fn, a, open != std::string::npos);
    if (form == "&undef") return nullptr;
    if (auto user = reinterpret_cast<Pfuser_fn>(dlsym(RTLD_DEFAULT, "pfuser"))) {
        char* s = user(text.c_str());
        if (!s) return nullptr;
        Pf* node = string_node(fn, s);
        free(s);
        return node;
    }
    return string_node(fn, cut("** unknown pf function: '" + text + "' **"));
}

}  // namespace

// ---- shared internals ------------------------------------------------------------

bool pf_is_function_text(const char* s) { return s && function_form(s); }

bool pf_special_start(const char* s) {
    if (!s || *s != '&') return false;
    std::string_view v(s);
    return starts_with(v, "&Arr{") || starts_with(v, "&Tbl{") || starts_with(v, "&Literal") || function_form(v);
}

Pf* pf_evaluate(Pf* pf) {
    if (!pf || pf->type != PF_FUNCTION) return pf;
    Pffunct* f = pf->value.pffunct;
    if (!f) return nullptr;
    if (f->hook) return f->pf;  // evaluated already (the hook marks it, even for an undefined value)
    Pf* result;
    if (Eval_depth >= Max_eval_depth) {
        result = string_node(pf, "pf recursion too deep");
    } else {
        Eval_depth++;
        const char* text = pfexpand(pf);
        result = evaluate(pf, text ? text : "");
        Eval_depth--;
    }
    if (f->hook) {  // evaluated meanwhile through a reference cycle
        pffree(result);
        return f->pf;
    }
    if (result) result->parent = pf->parent;
    f->pf = result;
    f->hook = new_hook(nullptr);
    return result;
}

// ---- interface --------------------------------------------------------------------

int escape(int c, int c2, int c3) {
    if (is_octal(c) && is_octal(c2) && is_octal(c3)) return ((c - '0') * 64 + (c2 - '0') * 8 + (c3 - '0')) & 0xff;
    switch (c) {
        case 'n': return '\n';
        case 'r': return '\r';
        case 'b': return '\b';
        case 't': return '\t';
        default: return c;
    }
}

int pfcompile(const char* s, Pf** pf) {
    setpffilename("*internal buffer*");
    return parse(s ? std::string_view(s) : std::string_view(), pf);
}

int pfin(FILE* fp, Pf** pf) {
    PfReadingScope reading;
    std::string text;
    char buf[8192];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, fp)) > 0) text.append(buf, n);
    if (ferror(fp)) elog_die(1, "read failed in pf input routine\n");
    return parse(text, pf);
}

int pfinfd(int fd, Pf** pf) {
    PfReadingScope reading;
    std::string text;
    char buf[8192];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) != 0) {
        if (n < 0) {
            if (errno == EINTR) continue;
            elog_die(1, "read failed in pf input routine\n");
        }
        text.append(buf, static_cast<size_t>(n));
    }
    return parse(text, pf);
}

int pfout(FILE* fp, Pf* pf) {
    std::string text = to_text(pf);
    if (fwrite(text.data(), 1, text.size(), fp) != text.size() || fflush(fp) != 0) return -1;
    return 0;
}

int pfwrite(const char* filename, Pf* pf) {
    FILE* fp = fopen(filename, "w");
    if (!fp) {
        elog_complain(1, "Can't open %s for writing.\n", filename);
        return -1;
    }
    int rc = pfout(fp, pf);
    if (fclose(fp) != 0 || rc != 0) {
        elog_complain(1, "Can't close %s.\n", filename);
        return -1;
    }
    return 0;
}

char* pf2string(Pf* pf) { return pf_strdup(to_text(pf).c_str()); }

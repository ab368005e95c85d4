// Parameter files: the text form, the tree and the search path. Arbitrary bytes
// are read, written and read back by tests/fuzz/pf_fuzz.cc.
#include "stock/pf.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
// After pf.h on purpose: the socket header's PF_ names must not change the node types.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/check.h"
#include "support/pfdump.h"
#include "support/tempdir.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::SetEnv;
using testsupport::stderr_of;
using Strings = std::vector<std::string>;

// A tree parsed from text that must read cleanly, freed at the end of scope.
struct Tree {
    Pf* pf = nullptr;
    Tree() = default;
    explicit Tree(const std::string& text) { EXPECT_EQ(pfcompile(text.c_str(), &pf), 0) << text; }
    ~Tree() { pffree(pf); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
};

// The strings in t, which is freed with them by free_value.
Strings strings(Tbl* t, void (*free_value)(void*)) {
    Strings out;
    for (long i = 0; i < maxtbl(t); i++) out.emplace_back(static_cast<char*>(gettbl(t, i)));
    freetbl(t, free_value);
    return out;
}

std::string text_of(Pf* pf) { return std::unique_ptr<char, decltype(&free)>(pf2string(pf), free).get(); }

// Writes pf out and reads it back: an equal tree that writes the same text again; returns the text.
std::string expect_round_trip(Pf* pf) {
    std::string text = text_of(pf);
    Tree back;
    EXPECT_EQ(pfcompile(text.c_str(), &back.pf), 0) << text;
    EXPECT_EQ(pfdump(back.pf), pfdump(pf)) << text;
    EXPECT_EQ(text_of(back.pf), text);
    return text;
}

TEST(PfScan, ValuesKeysCommentsBlocksLiteralsAndStructuralErrors) {
    // Pieces of one file, each with a key it sets and the value read.
    const char* const rows[][3] = {
        {"# a comment\na 1\na 2\n", "a", "2"}, {"after yes\n", "after", "yes"},
        {"spaced   two  inner  blanks   \t\n", "spaced", "two  inner  blanks"},
        {"pct 50\\% \\#1\n", "pct", "50% #1"}, {"trail value # and a comment\n", "trail", "value"},
        {"esc \\t\\n\\101\\\\\\}x\\r\\b\\377\\181\n", "esc", "\t\nA\\}x\r\b\377" "181"},
        {"cont first\\\nsecond\n", "cont", "first\nsecond"}, {"empty\n", "empty", ""},
        {"\"quoted key\" q\n", "{quoted key}", "q"}, {"'single \" key' s\n", "{single \" key}", "s"},
        {"crlf v\r\n", "crlf", "v"}, {"keep \\ \n", "keep", " "},  // an escaped blank is not trimmed
        {"arr &Arr{ the rest of this line is skipped\n    k v\n    inner &Tbl{\n        one\n"
         "        # not an entry\n\n        two words\n        &Arr{\n            x y\n        }\n    }\n}\n",
         "arr{k}", "v"},
        {"", "arr{inner}[1]", "two words"}, {"", "arr{inner}[2]{x}", "y"},
        {"lit &Literal{\n  kept {as} it is # too\n}\n", "lit", "  kept {as} it is # too\n"},
        {"paren &Literal(\na { b\n)\n", "paren", "a { b\n"},
        {"word &Literal END\nany } ) thing\nEND\n", "word", "any } ) thing\n"},
    };
    std::string text;
    for (const auto& row : rows) text += row[0];
    Tree t(text);
    for (const auto& row : rows) EXPECT_STREQ(pfget_string(t.pf, row[1]), row[2]) << row[1];
    Pf* inner = nullptr;
    EXPECT_TRUE(pfresolve(t.pf, "arr{inner}", 0, &inner) == PF_TBL && pfmaxtbl(inner) == 3);
    Tree end("end \\101");  // an octal escape that ends the text
    EXPECT_STREQ(pfget_string(end.pf, "end"), "A");
    // Structural errors report their line and keep what was read.
    auto nested = [](int n) {
        std::string open, close;
        for (int i = 0; i < n; i++) open += "k &Arr{\n", close += "}\n";
        return open + "leaf x\n" + close;
    };
    // The text, what pfcompile returns and says, and a key with the value read anyway.
    const std::tuple<std::string, int, const char*, const char*, const char*> cases[] = {
        {"a 1\nb &Arr{\n  c 2\n", -2, "Unterminated arrays or tables in parameter file: depth = 1", "b{c}",
         "2"},
        {"a 1\n\n}\nb 2\n", -2, "invalid right brace at line#3", "a", "1"},
        // Eleven open blocks are fine, a twelfth is not.
        {nested(11), 0, "", "k{k}{k}{k}{k}{k}{k}{k}{k}{k}{k}{leaf}", "x"},
        {nested(12), -2, "too many Lex_levels of nesting at line #12", nullptr, nullptr},
        {"t &Literal{\nnever closed {\n", -2, "unterminated &Literal", nullptr, nullptr},
        {"v has &Tbl{ inside\n", 0, "value contains '&Tbl{'\n\t'has &Tbl{ inside'", "v", "has &Tbl{ inside"},
    };
    for (const auto& [text, rc, message, key, value] : cases) {
        Tree t;
        std::string err = stderr_of([&] { EXPECT_EQ(pfcompile(text.c_str(), &t.pf), rc) << text; });
        EXPECT_THAT(err, HasSubstr(message));
        EXPECT_EQ(err.empty(), !*message) << err;  // a clean text draws no complaint
        if (key) {
            EXPECT_STREQ(pfget_string(t.pf, key), value) << text;
        }
    }
    // Parsing into a given tree adds to it; any other kind of node is refused.
    Tree more("a 1\nb 1\n");
    ASSERT_EQ(pfcompile("b 2\n", &more.pf), 0);
    EXPECT_EQ(std::string(pfget_string(more.pf, "a")) + pfget_string(more.pf, "b"), "12");
    Pf *s = pfnew(PF_STRING), *given = s;
    stderr_of([&] { EXPECT_EQ(pfcompile("a 1\n", &given), -1); });
    EXPECT_EQ(given, s);
    pffree(s);
}

// Strings built from pieces that each trip some rule of the writer.
std::string hostile(std::mt19937& rng, size_t max_pieces) {
    static const char* const pieces[] = {
        " ", "\t", "#", "}", "{", "\\", "\n", "(", ")", "[", "]", "<", ">", "`", "'", "\"", "EndOfLiteral",
        "\"EndOfLiteral", "\"EndOfLiteral0", "&Arr{", "&Tbl{", "&Literal", "&ref(a,b)", "&ask", "&x(", "\r",
        "abc", "\\n", "\\012", "&HOME", "&{a b}", "  ", "\r\n", "%s", "\xc3\xa9"};
    std::string s;
    for (size_t i = 0, n = rng() % (max_pieces + 1); i < n; i++)
        s += rng() % 8 ? pieces[rng() % std::size(pieces)] : std::string(1, char(1 + rng() % 255));
    return s;
}

// A node of type with random children down to the deepest level a file allows.
Pf* random_tree(std::mt19937& rng, int type, int depth) {
    static const char* const forms[] = {"&env(HOME)", "&exec(echo a b)", "&ref(x, y{z})", "&undef()",
                                        "&glob(/tmp/*.pf)", "&ask"};
    Pf* node = pfnew(type);
    if (type == PF_STRING) node->value.s = strdup(hostile(rng, 8).c_str());
    if (type == PF_FUNCTION) node->value.pffunct->s = strdup(forms[rng() % std::size(forms)]);
    for (int i = 0, n = type == PF_STRING || type == PF_FUNCTION ? 0 : int(rng() % 6); i < n; i++) {
        int r = static_cast<int>(rng() % 10);
        int t = r < 6 || depth >= 11 ? PF_STRING : r < 8 ? PF_ARR : r < 9 ? PF_TBL : PF_FUNCTION;
        Pf* child = random_tree(rng, t, depth + 1);
        pfput(node, type == PF_TBL ? pfindex(pfmaxtbl(node)) : hostile(rng, 4).c_str(), child, PF_PF);
    }
    return node;
}

TEST(PfWrite, ChoosesTheFormEachValueNeedsAndAnyTreeReadsBackEqualAlsoInThreads) {
    // Inputs that once failed: a NUL inside a value, a deferred form ending in an escaped blank.
    using namespace std::string_literals;
    for (const std::string& in : {"\0t &Literef(x, \0\0BU r&t\n"s, "f &ref(x\t\0z, \0 a\\\nb\n"s,
                                  "g &exec(echo \\t\t)\n"s, "h &env(X)\\ \n"s}) {
        FILE* fp = fmemopen(const_cast<char*>(in.data()), in.size(), "r");
        Tree t;
        stderr_of([&] {
            pfin(fp, &t.pf);
            expect_round_trip(t.pf);
        });
        fclose(fp);
    }
    std::mt19937 rng(20240601);
    for (int round = 0; round < 400 && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        Tree t;
        t.pf = random_tree(rng, PF_ROOT, 0);
        stderr_of([&] { expect_round_trip(t.pf); });
    }
    // Four threads at once share the parser, key-path walks, expansion and the named-tree cache.
    auto rounds = [](int t) {
        std::string name = "pftest-thread-" + std::to_string(t);
        for (int i = 0; i < 150; i++) {
            std::string id = std::to_string(t) + "-" + std::to_string(i);
            Pf* pf = nullptr;
            EXPECT_EQ(pfcompile(("base " + id + "\nref &base/x\nl &Tbl{\n  &{base}\n}\n").c_str(), &pf), 0);
            EXPECT_EQ(pfget_string(pf, "ref") + std::string(" ") + pfget_string(pf, "l[0]"), id + "/x " + id);
            expect_round_trip(pf);
            putPf("pftest-shared", pfdup(pf));
            putPf(name.c_str(), pf);
            EXPECT_EQ(existsPf(name.c_str()), pf);
        }
        EXPECT_EQ(freePf(name.c_str()), 0);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) threads.emplace_back(rounds, t);
    for (auto& th : threads) th.join();
    EXPECT_EQ(freePf("pftest-shared"), 0);
    // The form each value needs, in text and files.
    const char* const forms[][3] = {
        {"plain", "just text", "plain\tjust text\n"}, {"hash", "#1", "hash\t\\#1\n"},
        {"lead", " starts with a blank", "lead\t&Literal{\n starts with a blank}\n"},
        {"brace", "a } b", "brace\ta \\} b\n"}, {"newline", "x {\ny", "newline\t&Literal(\nx {\ny)\n"},
        {"key with blank", "v", "\"key with blank\"\tv\n"}, {"key \"quoted\"", "v", "'key \"quoted\"'\tv\n"},
        // No bracket balances: a terminator word that no line of the value holds.
        {"nasty", "{ ( [ < ` \"EndOfLiteral \"EndOfLiteral0\n", "nasty\t&Literal\"EndOfLiteral1\n"},
    };
    Tree w("");
    for (const auto& f : forms) pfput_string(w.pf, f[0], f[1]);
    std::string written = expect_round_trip(w.pf);
    for (const auto& f : forms) EXPECT_THAT(written, HasSubstr(f[2]));
    Tree nested("a &Arr{\n b &Tbl{\n  x\n }\n}\n");
    EXPECT_EQ(text_of(nested.pf), "a\t&Arr{\n    b\t&Tbl{\n        x\n    }\n}\n");
    // Through a file and a descriptor.
    TempDir dir;
    ASSERT_EQ(pfwrite((dir / "out.pf").c_str(), nested.pf), 0);
    int fd = open((dir / "out.pf").c_str(), O_RDONLY);
    Tree back;
    EXPECT_EQ(pfinfd(fd, &back.pf), 0);
    close(fd);
    EXPECT_EQ(pfdump(back.pf), pfdump(nested.pf));
    std::string bad = dir / "no/such/dir/x.pf";
    std::string err = stderr_of([&] { EXPECT_NE(pfwrite(bad.c_str(), nested.pf), 0); });
    EXPECT_THAT(err, HasSubstr("Can't open " + bad + " for writing."));
}

TEST(PfDeferred, EnvExecGlobFilesReferencesDataAndAsk) {
    TempDir dir;
    dir.sub("data/sub");
    for (auto [name, text] : {std::pair("one.txt", "contents\nof one\n"), {"two.txt", "2"},
                              {"data/sub/thing", "data!"},
                              {"other.pf", "k other value\narr &Arr{\n  x 1\n}\nloop &ref(other, loop)\n"}})
        dir.file(name, text);
    SetEnv var("PFPARSE_TEST_VAR", "from env"), path("PFPATH", dir.path), root("QUORVANE", dir.path);
    std::string count = dir / "count";
    Tree t("env &env(PFPARSE_TEST_VAR)\nunset &env(PFPARSE_TEST_NEVER_SET)\n"
           "exec &exec(printf 'a b\\\\n\\\\n'; echo x >> " + count + ")\nstdin &exec(cat)\n"
           "glob &glob(" + dir.path + "/*.txt)\nnone &glob(" + dir.path + "/*.none)\n"
           "file &file(" + dir.path + "/one.txt)\nnofile &file(" + dir.path + "/missing)\n"
           "name &filename(one.txt)\nundef &undef(anything)\nask &ask(Your name)\n"
           "dir " + dir.path + "\nviaref &file(&dir/two.txt)\n"
           "s &ref(other, k)\na &ref( other , arr )\nnocomma &ref(other)\nbad &ref(other, nothing{here})\n"
           "refnofile &ref(pfparse-no-such-file, k)\nloop &ref(other, loop)\n"
           "d &datafile(sub/thing)\nn &datafilename(sub/thing)\nm &datafile(nope)\n");
    Pf* pf = t.pf;
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::string values[][2] = {
        {"env", "from env"}, {"exec", "a b\n"},  // only the final newline goes
        {"exec", "a b\n"}, {"stdin", ""},       // a command reading input gets none
        {"file", "contents\nof one\n"}, {"name", std::string(cwd) + "/one.txt"}, {"viaref", "2"},
        {"s", "other value"}, {"a{x}", "1"}, {"nocomma", "** missing pf name in reference: 'other' **"},
        {"bad", "** reference not resolved: 'other, nothing{here}' **"},
        {"refnofile", "** reference not resolved: 'pfparse-no-such-file, k' **"},
        {"loop", "pf recursion too deep"},
        {"d", "data!"}, {"n", dir / "data/sub/thing"}, {"m", "** no datafile 'nope' found"}};
    for (const auto& v : values) EXPECT_STREQ(pfget_string(pf, v[0].c_str()), v[1].c_str()) << v[0];
    // Prompting is off by default: an &ask value is simply missing.
    for (const char* key : {"unset", "undef", "ask"}) EXPECT_EQ(pfget_string(pf, key), nullptr) << key;
    EXPECT_EQ(slurp(count), "x\n");  // evaluated once, on first access
    EXPECT_EQ(strings(pfget_tbl(pf, "glob"), nullptr), (Strings{dir / "one.txt", dir / "two.txt"}));
    Pf* none = nullptr;
    EXPECT_TRUE(pfresolve(pf, "none", 0, &none) == PF_TBL && pfmaxtbl(none) == 0);  // no match: an empty list
    EXPECT_EQ(std::string(pfget_string(pf, "nofile")).rfind("** ", 0), 0u);
    // A fresh tree, as the missing value is remembered. With prompting on and
    // no terminal, the process stops instead of hanging; only &ask prompts.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Tree ask("q &ask(Your name)\nu &undef(x)\n");
    auto prompting = [](Pf* pf, const char* key) {
        setsid();
        pfconfig("ask", reinterpret_cast<void*>(1));
        return pfget_string(pf, key);
    };
    EXPECT_EXIT(prompting(ask.pf, "q"), testing::ExitedWithCode(1), "Can't open /dev/tty for prompt.");
    EXPECT_EXIT(exit(prompting(ask.pf, "u") ? 3 : 0), testing::ExitedWithCode(0), "");
}

class PfTree : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    Tree t{"name  plain value  \nn 42\nx 2.5\n"
           "arr &Arr{\n    inner  v1\n    deep &Arr{\n        leaf  L\n    }\n"
           "    list &Tbl{\n        a\n        b\n    }\n}\n"
           "tbl &Tbl{\n    first\n    &Arr{\n        k kv\n    }\n}\n"
           "\"spaced key\" sv\n"};
};

TEST_F(PfTree, KeyPathsReachNestedNodesContainersComeOutAndReferencesExpand) {
    const char* const values[][2] = {{"name", "plain value"}, {"arr{ inner }", "v1"}, {"{spaced key}", "sv"},
                                     {"arr{deep}{leaf}", "L"}, {"arr{list}[1]", "b"}, {"tbl[1]{k}", "kv"}};
    for (const auto& v : values) EXPECT_STREQ(pfget_string(t.pf, v[0]), v[1]) << v[0];
    Pf *node = nullptr, *list = nullptr;
    EXPECT_TRUE(pfresolve(t.pf, "", 0, &node) == PF_ROOT && node == t.pf);
    // -31: a missing key; -32: a string indexed by name or an array by number.
    const std::pair<const char*, int> walks[] = {
        {"arr{nope}", -31}, {"name{x}", -32}, {"arr[0]", -32}, {"tbl[7]", -31}};
    for (auto [path, rc] : walks) EXPECT_EQ(pfresolve(t.pf, path, 0, &node), rc) << path;
    Tree gone("g &env(FERRANT_TEST_NEVER_SET)\n");  // a reference that yields nothing is a missing key
    EXPECT_EQ(pfresolve(gone.pf, "g{x}", 0, &node), -31);
    // Started at a list, the key is an index.
    ASSERT_EQ(pfresolve(t.pf, "tbl", 0, &list), PF_TBL);
    EXPECT_EQ(std::pair(pfresolve(list, pfindex(1), 0, &node), pfresolve(list, pfindex(2), 0, &node)),
              std::pair(int(PF_ARR), -32));
    char* s = nullptr;
    EXPECT_TRUE(pfeval(t.pf, "arr", &s) == -1 && s == nullptr);
    EXPECT_EQ(pfeval(t.pf, "nothing{here}", &s), -1);
    // pfget looks in one node only: no path walk.
    void* v = nullptr;
    EXPECT_TRUE(pfget(t.pf, "arr{inner}", &v) == PF_INVALID && v == nullptr);
    EXPECT_EQ(pfget(list, pfindex(0), &v), PF_STRING);
    EXPECT_STREQ(static_cast<char*>(v), "first");
    EXPECT_EQ(pfget(list, pfindex(5), &v), PF_INVALID);
    // Arrays and lists come out as containers.
    Arr* a = pfget_arr(t.pf, "arr");
    ASSERT_TRUE(a && cntarr(a) == 1);  // nested array and list left out
    EXPECT_STREQ(static_cast<char*>(getarr(a, "inner")), "v1");
    freearr(a, nullptr);
    Tbl* l = pfget_tbl(t.pf, "tbl");
    ASSERT_EQ(maxtbl(l), 2);
    EXPECT_STREQ(static_cast<char*>(gettbl(l, 0)), "first");
    Pf* inner = static_cast<Pf*>(gettbl(l, 1));
    EXPECT_EQ(inner->type, PF_ARR);
    freetbl(l, nullptr);
    EXPECT_EQ(strings(pfkeys(t.pf), nullptr), (Strings{"arr", "n", "name", "spaced key", "tbl", "x"}));
    EXPECT_EQ(pfkeys(inner->parent), nullptr);  // a list has no keys
    // References expand from the nearest ancestor, and stay bounded.
    Tree refs("HOME /top\na &{HOME}/x\nb &HOME/y and &nothing and &{no thing}\nself x&self\nlone a & b\n"
           "nested &Arr{\n    HOME /inner\n    p &HOME/z\n    q &a!\n}\n");
    // The nearest ancestor wins (p), and expansion is recursive (q).
    const char* const expanded[][2] = {{"a", "/top/x"}, {"b", "/top/y and &nothing and &{no thing}"},
                                     {"lone", "a & b"}, {"nested{p}", "/inner/z"}, {"nested{q}", "/top/x!"}};
    for (const auto& x : expanded) EXPECT_STREQ(pfget_string(refs.pf, x[0]), x[1]) << x[0];
    std::string self = pfget_string(refs.pf, "self");
    EXPECT_EQ(self.rfind("xxxxxxxxxxxxxxxxxxxx", 0), 0u) << self;
    EXPECT_THAT(self, HasSubstr("** error ** pf massive recursion"));
    // The stored text keeps its references; a string handed out stays put when a second get expands alike.
    Pf* stored = nullptr;
    pfresolve(refs.pf, "a", 0, &stored);
    EXPECT_STREQ(stored->value.s, "&{HOME}/x");
    char* first = pfget_string(refs.pf, "a");
    EXPECT_EQ(pfget_string(refs.pf, "a"), first);
    // Each level names itself four times: unbounded, 20 levels take 4^20 lookups; a hang kills the child.
    auto bounded = [] {
        alarm(25);
        Tree loop("a &a&a&a&a\nb &{a}&{a}\n");
        std::string a = pfget_string(loop.pf, "a"), b = pfget_string(loop.pf, "b");
        const char* cut = "** error ** pf massive recursion";
        return a.find(cut) != a.npos && b.find(cut) != b.npos && a.size() < (256u << 20);
    };
    EXPECT_EXIT(exit(bounded() ? 0 : 3), ::testing::ExitedWithCode(0), "");
}

int Handler_calls;
int lenient(Pf*, const char*, int, int actual, void* result) {
    Handler_calls++;
    if (actual == PF_INVALID) *static_cast<const char**>(result) = "77";
    return 0;
}

TEST_F(PfTree, MissingAndMistypedValuesAreFatalUnlessHandledAndNumbersComplain) {
    EXPECT_EXIT(pfget_int(t.pf, "absent"), testing::ExitedWithCode(1),
                "program needs value for 'absent', not found in parameter file '\\*internal buffer\\*'");
    EXPECT_EXIT(pfget_string(t.pf, "arr"), testing::ExitedWithCode(1),
                "wrong parameter type for 'arr' : expected scalar but got array in '\\*internal buffer\\*'");
    // A file root counts as "scalar", so an empty path at the root is a mismatch.
    EXPECT_EXIT(pfget_arr(t.pf, ""), testing::ExitedWithCode(1), "expected array but got scalar");
    // At a list only a missing entry is fatal.
    Pf* list = nullptr;
    pfresolve(t.pf, "tbl", 0, &list);
    EXPECT_EXIT(pfget_int(list, pfindex(9)), testing::ExitedWithCode(1),
                "wrong parameter type for #9 : expected scalar but got invalid");
    // Lenient getters stay quiet.
    EXPECT_TRUE(!pfget_string(t.pf, "absent") && !pfget_arr(t.pf, "absent") && !pfget_tbl(t.pf, "absent"));
    // A replacement handler supplies defaults.
    ASSERT_EQ(pfconfig("die", reinterpret_cast<void*>(lenient)), 0);
    Handler_calls = 0;
    EXPECT_EQ(pfget_int(t.pf, "absent"), 77);
    EXPECT_EQ(pfget_string(t.pf, "arr"), nullptr);  // wrong type let through: no string to give
    EXPECT_EQ(Handler_calls, 2);
    ASSERT_EQ(pfconfig("die", nullptr), 0);
    EXPECT_EQ(pfdie, _pfdie);
    std::string err = stderr_of([] {
        EXPECT_EQ(pfconfig("dice", nullptr), -1);
        EXPECT_EQ(pfconfig("askme", nullptr), -1);  // whole words only
    });
    EXPECT_THAT(err, HasSubstr("pfconfig: unrecognized code 'dice'"));
    // Numbers and booleans parse, and complain of what does not.
    Tree n("j 12abc\nk  -7   \nd 1.5e3\ne 3.25x\nsz1 4k\nsz2 2M\nsz3 1G\nsz4 4K\nsz5 1.5\n"
           "t1 1700000000.5\nt2 2023-11-14 22:13:20\nt3 not a time\n"
           "y1 True\ny2 yes\ny3 ON\ny4 t\nn1 0\nn2 off\nn3 F\nb maybe\n");
    EXPECT_EQ(pfget_int(n.pf, "k"), -7);
    for (const char* key : {"y1", "y2", "y3", "y4"}) EXPECT_EQ(pfget_boolean(n.pf, key), -1) << key;
    for (const char* key : {"n1", "n2", "n3"}) EXPECT_EQ(pfget_boolean(n.pf, key), 0) << key;
    err = stderr_of([&] {
        EXPECT_EQ(pfget_int(n.pf, "j"), 12);
        EXPECT_DOUBLE_EQ(pfget_double(n.pf, "e"), 3.25);
        EXPECT_EQ(pfget_time(n.pf, "t3"), 0);
        EXPECT_EQ(pfget_boolean(n.pf, "missing"), 0);  // quietly false
        EXPECT_EQ(pfget_boolean(n.pf, "b"), 0);
    });
    for (const char* m : {"Bad integer value '12abc' for j", "Bad floating point value '3.25x' for e",
                          "Bad time value 'not a time' for t3", "Bad boolean value 'maybe' for b"})
        EXPECT_THAT(err, HasSubstr(m));
    EXPECT_THAT(err, Not(HasSubstr("missing")));
    EXPECT_DOUBLE_EQ(pfget_double(n.pf, "d"), 1500);
    // Only a lower-case k means kilo.
    const std::pair<const char*, double> sizes[] = {
        {"sz1", 4096}, {"sz2", 2097152}, {"sz3", 1073741824}, {"sz4", 4}, {"sz5", 1.5}};
    for (auto [key, size] : sizes) EXPECT_DOUBLE_EQ(pfget_size(n.pf, key), size) << key;
    EXPECT_DOUBLE_EQ(pfget_time(n.pf, "t1"), 1700000000.5);
    EXPECT_DOUBLE_EQ(pfget_time(n.pf, "t2"), 1700000000.0);
}

TEST_F(PfTree, SettersAndPfputBuildWhatGettersRead) {
    Pf* pf = pfnew(PF_ROOT);
    pfput_string(pf, "s", "text");
    pfput_double(pf, "d", 0.1);
    pfput_boolean(pf, "yes", 5);
    pfput_boolean(pf, "no", 0);
    pfput_time(pf, "when", 1700000000.25);
    Tbl* strs = strtbl("one", "two", nullptr);
    pfput_tbl(pf, "list", strs);
    freetbl(strs, nullptr);
    Arr* kv = newarr();
    setarr(kv, "k", const_cast<char*>("v"));
    pfput_arr(pf, "map", kv);
    freearr(kv, nullptr);
    EXPECT_DOUBLE_EQ(pfget_double(pf, "d"), 0.1);
    EXPECT_NEAR(pfget_time(pf, "when"), 1700000000.25, 1e-3);
    EXPECT_THAT(pfget_string(pf, "when"), HasSubstr("2023-11-14"));
    const char* const values[][2] = {{"yes", "True"}, {"no", "False"}, {"list[1]", "two"}, {"map{k}", "v"}};
    for (const auto& v : values) EXPECT_STREQ(pfget_string(pf, v[0]), v[1]) << v[0];
    // pfset walks and creates; the string replaces whatever was there.
    for (const char* key : {"a{b}{c}", "map", "list[4]"}) {
        EXPECT_EQ(pfset(pf, key, key), 0) << key;
        EXPECT_STREQ(pfget_string(pf, key), key);
    }
    // pfadd_tbl takes an int; an index past that range once left the walk without a node, crashing pfset.
    for (const char* bad : {"s{x}", "list[3000000000]", "fresh[3000000000]"})
        EXPECT_EQ(pfset(pf, bad, "v"), -1) << bad;
    Pf* node = nullptr;
    EXPECT_EQ(pfresolve(pf, "list[99999999999999]", 1, &node), -32);
    ASSERT_EQ(pfresolve(pf, "list", 0, &node), PF_TBL);
    EXPECT_EQ(pfmaxtbl(node), 5);
    Pf* gone = pfdel(pf, "s");
    ASSERT_TRUE(gone && !gone->parent);
    pffree(gone);
    EXPECT_EQ(pfdel(pf, "s"), nullptr);
    pffree(pf);
    // pfput inserts nodes of any type and adopts containers.
    Pf* root = pfnew(PF_ROOT);
    Pf* sub = nullptr;
    ASSERT_EQ(pfcompile("k v\n", &sub), 0);
    pfput(root, "sub", sub, PF_PF);
    EXPECT_TRUE(sub->type == PF_ARR && sub->parent == root);  // a file root under another node is an array
    EXPECT_STREQ(pfget_string(root, "sub{k}"), "v");
    pfput(root, "sub", const_cast<char*>("replaced"), PF_STRING);  // frees the array
    EXPECT_STREQ(pfget_string(root, "sub"), "replaced");
    Pf* list = pfnew(PF_TBL);
    pfput(list, pfindex(0), const_cast<char*>("a"), PF_STRING);
    pfput(list, pfindex(0), const_cast<char*>("b"), PF_STRING);
    EXPECT_EQ(pfmaxtbl(list), 1);
    EXPECT_EQ(std::pair(pfadd_tbl(list, 2), pfadd_arr(list, "x")), std::pair(0, -1));
    EXPECT_EQ(pfmaxtbl(list), 3);
    EXPECT_EXIT(pfdup(list), testing::ExitedWithCode(1), "Bad type in pfdup : 6");
    // An untyped entry is reported, not crashed on.
    EXPECT_THAT(stderr_of([&] { pffree(pfdel(list, pfindex(2))); }), HasSubstr("pffree: didn't free type 6"));
    pfput(list, pfindex(1), const_cast<char*>("c"), PF_STRING);  // fills the gap
    pffree(pfdel(list, pfindex(0)));
    pfput(root, "list", list, PF_PF);
    Pf* copy = pfdup(root);
    EXPECT_STREQ(pfget_string(copy, "sub"), "replaced");
    EXPECT_STREQ(pfget_string(copy, "list[0]"), "c");
    Pf* l = nullptr;
    EXPECT_TRUE(pfresolve(copy, "list", 0, &l) == PF_TBL && l->parent == copy);
    pffree(copy);
    pffree(root);
    Pf* str = pfnew(PF_STRING);
    EXPECT_EXIT(pfput(str, "k", const_cast<char*>("v"), PF_STRING), testing::ExitedWithCode(1),
                "Bad pf pointer in pfput");
    EXPECT_EXIT(pfput(str, "k", nullptr, 42), testing::ExitedWithCode(1), "Bad type in pfput : 42");
    pffree(str);
}

// Sets a file's modification time without waiting for the clock.
void set_mtime(const std::string& path, time_t seconds) {
    struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

Strings files_of(const std::string& name, int all = 0) { return strings(pffiles(name.c_str(), all), free); }

// Directories a and b on the path; the environment and working directory are restored after.
class PfPath : public ::testing::Test {
protected:
    TempDir dir;
    std::string a = dir.sub("a"), b = dir.sub("b");
    SetEnv path{"PFPATH", a + ":" + b}, root{"QUORVANE", FERRANT_BUILD_DIR};
    char cwd[4096];
    void SetUp() override { ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr); }
    void TearDown() override { ASSERT_EQ(chdir(cwd), 0); }
    // What pfread makes of name (it must return rc): the values of keys, "-" for none.
    Strings read(const std::string& name, Strings keys, int rc = 0) {
        Tree t;
        EXPECT_EQ(pfread(name.c_str(), &t.pf), rc) << name;
        for (auto& k : keys) {
            const char* v = pfget_string(t.pf, k.c_str());
            k = v ? v : "-";
        }
        return keys;
    }
};

// Explicit directories come last and later files win; the default path is
// the installation, then the current directory; nothing read is a failure.
TEST_F(PfPath, SearchOrderFailuresRevisionsAndUpdates) {
    dir.file("a/app.pf", "k from a\nonly_a 1\narr &Arr{\n  x 1\n  y 1\n}\n");
    dir.sub("other");
    dir.file("other/app.pf", "k from other\n");
    EXPECT_EQ(files_of(dir / "other/app"), (Strings{a + "/app.pf", dir / "other/app.pf"}));
    EXPECT_EQ(read(dir / "other/app", {"k", "only_a"}), (Strings{"from other", "1"}));
    // A directory already on the path is not read twice.
    EXPECT_EQ(files_of(a + "/app"), (Strings{a + "/app.pf"}));
    // A missing explicit file is listed only when every candidate is asked for.
    EXPECT_EQ(files_of(dir / "nowhere/app"), (Strings{a + "/app.pf"}));
    EXPECT_EQ(files_of(dir / "nowhere/app", 1),
              (Strings{a + "/app.pf", b + "/app.pf", dir / "nowhere/app.pf"}));
    dir.file("b/app.pf", "k from b\narr &Arr{\n  x 2\n}\n");
    EXPECT_EQ(files_of("app"), (Strings{a + "/app.pf", b + "/app.pf"}));
    EXPECT_EQ(files_of("app.pf"), files_of("app"));
    // Arrays are replaced whole.
    EXPECT_EQ(read("app", {"k", "only_a", "arr{x}", "arr{y}"}), (Strings{"from b", "1", "2", "-"}));
    Tree t;
    Pf* k = nullptr;
    ASSERT_TRUE(pfread("app", &t.pf) == 0 && pfresolve(t.pf, "k", 0, &k) == PF_STRING);
    EXPECT_EQ(std::string(k->filename), b + "/app.pf");
    unsetenv("PFPATH");
    setenv("QUORVANE", dir.sub("root").c_str(), 1);
    dir.sub("root/data/pf");
    dir.file("root/data/pf/tool.pf", "k installed\nonly_installed 1\n");
    ASSERT_EQ(chdir(dir.sub("work").c_str()), 0);
    dir.file("work/tool.pf", "k local\n");
    EXPECT_EQ(read("tool", {"k", "only_installed"}), (Strings{"local", "1"}));
    Tree installed, absent, looped;
    ASSERT_EQ(pfload(nullptr, "pf", "tool", &installed.pf), 0);
    EXPECT_STREQ(pfget_string(installed.pf, "k"), "installed");
    std::string err = stderr_of([&] { EXPECT_EQ(pfload(nullptr, "pf", "absent", &absent.pf), -1); });
    EXPECT_THAT(err, HasSubstr("Can't find parameter file pf/absent"));
    // A name that is there but cannot be opened is told; one that vanished is not.
    ASSERT_EQ(symlink("loop.pf", (dir.sub("root/data/pf") + "/loop.pf").c_str()), 0);
    err = stderr_of([&] { EXPECT_EQ(pfload(nullptr, "pf", "loop", &looped.pf), -1); });
    EXPECT_THAT(err, HasSubstr("can't open '" + dir.sub("root/data/pf") + "/loop.pf'"));

    setenv("PFPATH", (a + ":" + b).c_str(), 1);
    dir.file("a/comments.pf", "# only\n   # comments\n\n");
    for (const char* nothing : {"pfpath-none", "comments"}) read(nothing, {}, -1);
    dir.sub("b/adir.pf");  // a directory of that name is not a parameter file
    EXPECT_TRUE(files_of("adir").empty());
    // A broken file still gives what it holds, with the failure counted.
    dir.file("a/broken.pf", "k 1\nx &Arr{\n");
    dir.file("b/broken.pf", "j 2\ny &Tbl{\n");
    stderr_of([&] { EXPECT_EQ(read("broken", {"k", "j"}, -4), (Strings{"1", "2"})); });
    // A required revision is checked in the last file read.
    dir.file("a/rev.pf", "pf_revision_time 1700000000\n");
    dir.file("b/rev.pf", "other 1\n");
    err = stderr_of([] { EXPECT_NE(pfrequire("rev", "1600000000"), 0); });
    EXPECT_THAT(err, HasSubstr("no pf_revision_time in the file '" + b + "/rev.pf'"));
    EXPECT_THAT(err, Not(HasSubstr(a + "/rev.pf")));
    dir.file("b/rev.pf", "pf_revision_time 2020-01-01\n");
    err = stderr_of([] { EXPECT_NE(pfrequire("rev", "2021-06-01"), 0); });
    EXPECT_THAT(err, HasSubstr("pf_revision_time in the file '" + b + "/rev.pf' has date 2020-01-01"));
    EXPECT_THAT(err, HasSubstr("but program requires date after 2021-06-01"));
    EXPECT_EQ(pfrequire("rev", "2019-01-01"), 0);
    err = stderr_of([] { EXPECT_NE(pfrequire("pfpath-none", "2019-01-01"), 0); });
    EXPECT_THAT(err, HasSubstr("can't find parameter file pfpath-none"));
    // pfupdate and the named-tree cache notice changed, appearing and vanishing files.
    std::string fa = dir.file("a/upd.pf", "k 1\n");
    set_mtime(fa, 1000000);
    Tree u, other;
    // pfupdate's result, then k's value when it read.
    auto update = [&](int rc, const char* k = nullptr) {
        EXPECT_EQ(pfupdate("upd", &u.pf), rc);
        EXPECT_STREQ(k ? pfget_string(u.pf, "k") : nullptr, k);
        EXPECT_EQ(rc == 1 ? pfupdate("upd", &u.pf) : 0, 0);
    };
    update(1, "1");
    Pf* same = u.pf;
    dir.file("a/upd.pf", "k 2\n");
    set_mtime(fa, 1000000);  // same time: not seen as a change
    update(0);
    EXPECT_EQ(u.pf, same);
    set_mtime(fa, 1000001);
    update(1, "2");
    std::string fb = dir.file("b/upd.pf", "k 3\n");
    update(1, "3");
    unlink(fb.c_str());
    update(1, "2");
    // Another tree variable is tracked apart: its first call reads.
    EXPECT_EQ(pfupdate("upd", &other.pf), 1);
    update(0);
    // The named-tree cache follows its file the same way.
    Pf* cached = getPf("upd");
    ASSERT_NE(cached, nullptr);
    EXPECT_EQ(getPf("upd"), cached);
    EXPECT_EQ(updatePf("upd"), 1);  // first check reads
    EXPECT_EQ(updatePf("upd"), 0);
    dir.file("a/upd.pf", "k 5\n");
    set_mtime(fa, 1000002);
    EXPECT_EQ(updatePf("upd"), 1);
    EXPECT_EQ(pfget_int(getPf("upd"), "k"), 5);
    EXPECT_EQ(freePf("upd"), 0);
    EXPECT_EQ(freePf("upd"), -1);
    EXPECT_TRUE(!existsPf("upd") && !getPf("pftest-none") && updatePf("pftest-none") == -1);
    unlink(fa.c_str());
    update(-1);  // nothing left to read
    update(0);
}

}  // namespace

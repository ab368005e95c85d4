// Parameter-file text: scanning, writing, reading back what was written, bad
// input, and the deferred &-forms. Arbitrary bytes are read, written and read
// back by tests/fuzz/pf_fuzz.cc.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

#include "stock/pf.h"
#include "support/tempdir.h"

namespace {

// Parses text, returning the result code; stderr goes to *err when given.
int parse(const std::string& text, Pf** pf, std::string* err = nullptr) {
    testing::internal::CaptureStderr();
    int rc = pfcompile(text.c_str(), pf);
    std::string e = testing::internal::GetCapturedStderr();
    if (err) *err = e;
    return rc;
}

std::string text_of(Pf* pf) {
    char* s = pf2string(pf);
    std::string out = s;
    free(s);
    return out;
}

// Equal trees: same types, keys, order of list entries and bytes of strings.
// A file root and an array are both named nodes and compare alike.
bool same_tree(Pf* a, Pf* b) {
    if (!a || !b) return a == b;
    bool a_named = a->type == PF_ROOT || a->type == PF_ARR, b_named = b->type == PF_ROOT || b->type == PF_ARR;
    if (a_named || b_named) {
        if (!a_named || !b_named) return false;
        Tbl* ka = pfkeys(a);
        Tbl* kb = pfkeys(b);
        bool ok = maxtbl(ka) == maxtbl(kb);
        for (long i = 0; ok && i < maxtbl(ka); i++) {
            const char* k = static_cast<const char*>(gettbl(ka, i));
            ok = strcmp(k, static_cast<const char*>(gettbl(kb, i))) == 0 &&
                 same_tree(static_cast<Pf*>(getarr(a->value.arr, k)), static_cast<Pf*>(getarr(b->value.arr, k)));
        }
        freetbl(ka, nullptr);
        freetbl(kb, nullptr);
        return ok;
    }
    if (a->type != b->type) return false;
    if (a->type == PF_TBL) {
        if (pfmaxtbl(a) != pfmaxtbl(b)) return false;
        for (long i = 0; i < pfmaxtbl(a); i++)
            if (!same_tree(static_cast<Pf*>(gettbl(a->value.tbl, i)), static_cast<Pf*>(gettbl(b->value.tbl, i))))
                return false;
        return true;
    }
    const char* sa = a->type == PF_FUNCTION ? a->value.pffunct->s : a->value.s;
    const char* sb = b->type == PF_FUNCTION ? b->value.pffunct->s : b->value.s;
    return strcmp(sa ? sa : "", sb ? sb : "") == 0;
}

// Writes pf out, reads the text back and expects an equal tree that writes out
// to the same text again; returns the text.
std::string expect_round_trip(Pf* pf) {
    std::string text = text_of(pf);
    Pf* back = nullptr;
    std::string err;
    EXPECT_EQ(parse(text, &back, &err), 0) << text << err;
    EXPECT_TRUE(same_tree(pf, back)) << text;
    EXPECT_EQ(text_of(back), text);
    pffree(back);
    return text;
}

// ---- scanning -----------------------------------------------------------------

TEST(PfScan, ValuesKeysAndComments) {
    // Lines of one file, each with the key it sets and the value read.
    const char* const rows[][3] = {
        {"# a comment\na 1\na 2\n", "a", "2"},
        {"spaced   two  inner  blanks   \t\n", "spaced", "two  inner  blanks"},
        {"pct 50\\% \\#1\n", "pct", "50% #1"},
        {"trail value # and a comment\n", "trail", "value"},
        {"esc \\t\\n\\101\\\\\\}x\n", "esc", "\t\nA\\}x"},
        {"cont first\\\nsecond\n", "cont", "first\nsecond"},
        {"empty\n", "empty", ""},
        {"\"quoted key\" q\n", "{quoted key}", "q"},
        {"'single \" key' s\n", "{single \" key}", "s"},
        {"crlf v\r\n", "crlf", "v"},
        {"keep \\ \n", "keep", " "},  // an escaped blank is not trimmed
    };
    std::string text;
    for (const auto& row : rows) text += row[0];
    Pf* pf = nullptr;
    ASSERT_EQ(parse(text, &pf), 0);
    for (const auto& row : rows) EXPECT_STREQ(pfget_string(pf, row[1]), row[2]) << row[0];
    EXPECT_EQ(pf->type, PF_ROOT);
    EXPECT_STREQ(pf->filename, "*internal buffer*");
    pffree(pf);
    pf = nullptr;
    ASSERT_EQ(parse("end \\101", &pf), 0);  // an octal escape that ends the text
    EXPECT_STREQ(pfget_string(pf, "end"), "A");
    pffree(pf);
}

TEST(PfScan, BlocksAndLiterals) {
    Pf* pf = nullptr;
    ASSERT_EQ(parse("arr &Arr{ the rest of this line is skipped\n"
                    "    k v\n"
                    "    inner &Tbl{\n"
                    "        one\n"
                    "        # not an entry\n"
                    "\n"
                    "        two words\n"
                    "        &Arr{\n"
                    "            x y\n"
                    "        }\n"
                    "    }\n"
                    "}\n"
                    "lit &Literal{\n"
                    "  kept {as} it is # too\n"
                    "}\n"
                    "paren &Literal(\n"
                    "a { b\n"
                    ")\n"
                    "word &Literal END\n"
                    "any } ) thing\n"
                    "END\n"
                    "after yes\n",
                    &pf),
              0);
    EXPECT_STREQ(pfget_string(pf, "arr{k}"), "v");
    Pf* inner = nullptr;
    pfresolve(pf, "arr{inner}", 0, &inner);
    EXPECT_EQ(pfmaxtbl(inner), 3);
    EXPECT_STREQ(pfget_string(pf, "arr{inner}[1]"), "two words");
    EXPECT_STREQ(pfget_string(pf, "arr{inner}[2]{x}"), "y");
    EXPECT_STREQ(pfget_string(pf, "lit"), "  kept {as} it is # too\n");
    EXPECT_STREQ(pfget_string(pf, "paren"), "a { b\n");
    EXPECT_STREQ(pfget_string(pf, "word"), "any } ) thing\n");
    EXPECT_STREQ(pfget_string(pf, "after"), "yes");
    pffree(pf);
}

TEST(PfScan, StructuralErrorsReportLinesAndKeepWhatWasRead) {
    auto nested = [](int n) {
        std::string s;
        for (int i = 0; i < n; i++) s += "k &Arr{\n";
        s += "leaf x\n";
        for (int i = 0; i < n; i++) s += "}\n";
        return s;
    };
    struct Case {
        std::string text;
        int rc;
        const char* message;
        const char *key, *value;  // what was read anyway
    } cases[] = {
        {"a 1\nb &Arr{\n  c 2\n", -2, "Unterminated arrays or tables in parameter file: depth = 1", "b{c}", "2"},
        {"a 1\n\n}\nb 2\n", -2, "invalid right brace at line#3", "a", "1"},
        // Eleven open blocks are fine, a twelfth is not.
        {nested(11), 0, "", "k{k}{k}{k}{k}{k}{k}{k}{k}{k}{k}{leaf}", "x"},
        {nested(12), -2, "too many Lex_levels of nesting at line #12", nullptr, nullptr},
        {"t &Literal{\nnever closed {\n", -2, "unterminated &Literal", nullptr, nullptr},
        {"v has &Tbl{ inside\n", 0, "value contains '&Tbl{'\n\t'has &Tbl{ inside'", "v", "has &Tbl{ inside"},
    };
    for (const Case& c : cases) {
        Pf* pf = nullptr;
        std::string err;
        EXPECT_EQ(parse(c.text, &pf, &err), c.rc) << c.text << err;
        EXPECT_NE(err.find(c.message), std::string::npos) << err;
        if (c.key) {
            EXPECT_STREQ(pfget_string(pf, c.key), c.value) << c.text;
        }
        pffree(pf);
    }
}

// Inputs that once failed to read back equal: a NUL inside a value, and a
// deferred form whose text ends in an escaped blank.
TEST(PfScan, NulBytesAndEscapedTrailingBlanksReadBack) {
    const std::string inputs[] = {
        std::string("\0t &Literef(x, \0\0BU r&t\n", sizeof "\0t &Literef(x, \0\0BU r&t\n" - 1),
        std::string("f &ref(x\t\0z, \0 a\\\nb\n", sizeof "f &ref(x\t\0z, \0 a\\\nb\n" - 1),
        "g &exec(echo \\t\t)\n",
        "h &env(X)\\ \n",
    };
    for (const std::string& in : inputs) {
        FILE* fp = fmemopen(const_cast<char*>(in.data()), in.size(), "r");
        ASSERT_NE(fp, nullptr);
        Pf* pf = nullptr;
        testing::internal::CaptureStderr();
        pfin(fp, &pf);
        testing::internal::GetCapturedStderr();
        fclose(fp);
        expect_round_trip(pf);
        pffree(pf);
    }
}

TEST(PfScan, ParsesIntoAGivenTreeAndRejectsOtherNodes) {
    Pf* pf = nullptr;
    ASSERT_EQ(parse("a 1\nb 1\n", &pf), 0);
    ASSERT_EQ(parse("b 2\n", &pf), 0);
    EXPECT_STREQ(pfget_string(pf, "a"), "1");
    EXPECT_STREQ(pfget_string(pf, "b"), "2");
    pffree(pf);
    Pf* s = pfnew(PF_STRING);
    Pf* given = s;
    std::string err;
    EXPECT_EQ(parse("a 1\n", &given, &err), -1);
    EXPECT_EQ(given, s);
    pffree(s);
}

// ---- writing ------------------------------------------------------------------

TEST(PfWrite, ChoosesTheFormEachValueNeedsInTextAndFiles) {
    const char* const forms[][3] = {
        {"plain", "just text", "plain\tjust text\n"},
        {"lead", " starts with a blank", "lead\t&Literal{\n starts with a blank}\n"},
        {"brace", "a } b", "brace\ta \\} b\n"},
        {"newline", "x {\ny", "newline\t&Literal(\nx {\ny)\n"},
        {"key with blank", "v", "\"key with blank\"\tv\n"},
        {"key \"quoted\"", "v", "'key \"quoted\"'\tv\n"},
        {"hash", "#1", "hash\t\\#1\n"},
        // No bracket balances: a terminator word that no line of the value holds.
        {"nasty", "{ ( [ < ` \"EndOfLiteral \"EndOfLiteral0\n", "nasty\t&Literal\"EndOfLiteral1\n"},
    };
    Pf* pf = pfnew(PF_ROOT);
    for (const auto& f : forms) pfput_string(pf, f[0], f[1]);
    std::string text = expect_round_trip(pf);
    for (const auto& f : forms) EXPECT_NE(text.find(f[2]), std::string::npos) << f[0] << "\n" << text;
    pffree(pf);

    pf = nullptr;
    ASSERT_EQ(parse("a &Arr{\n b &Tbl{\n  x\n }\n}\n", &pf), 0);
    EXPECT_EQ(text_of(pf), "a\t&Arr{\n    b\t&Tbl{\n        x\n    }\n}\n");

    // Through a file and a descriptor.
    TempDir dir;
    std::string path = dir.path + "/out.pf";
    ASSERT_EQ(pfwrite(path.c_str(), pf), 0);
    int fd = open(path.c_str(), O_RDONLY);
    Pf* back = nullptr;
    EXPECT_EQ(pfinfd(fd, &back), 0);
    close(fd);
    EXPECT_TRUE(same_tree(pf, back));
    pffree(back);

    testing::internal::CaptureStderr();
    std::string bad = dir.path + "/no/such/dir/x.pf";
    EXPECT_NE(pfwrite(bad.c_str(), pf), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Can't open " + bad + " for writing."), std::string::npos) << err;
    pffree(pf);
}

// Strings built from pieces that each trip some rule of the writer.
std::string hostile(std::mt19937& rng, size_t max_pieces) {
    static const char* const pieces[] = {
        " ", "\t", "#", "}", "{", "\\", "\n", "(", ")", "[", "]", "<", ">", "`", "'", "\"",
        "EndOfLiteral", "\"EndOfLiteral", "\"EndOfLiteral0", "&Arr{", "&Tbl{", "&Literal", "&ref(a,b)", "&ask",
        "&x(", "\r", "abc", "\\n", "\\012", "&HOME", "&{a b}", "  ", "\r\n", "%s", "\xc3\xa9"};
    std::string s;
    size_t n = rng() % (max_pieces + 1);
    for (size_t i = 0; i < n; i++) {
        if (rng() % 8 == 0)
            s += static_cast<char>(1 + rng() % 255);
        else
            s += pieces[rng() % (sizeof pieces / sizeof pieces[0])];
    }
    return s;
}

Pf* random_tree(std::mt19937& rng, int type, int depth);

void fill(std::mt19937& rng, Pf* node, int depth) {
    int n = static_cast<int>(rng() % 6);
    for (int i = 0; i < n; i++) {
        int r = static_cast<int>(rng() % 10);
        int type = r < 6 || depth >= 11 ? PF_STRING : r < 8 ? PF_ARR : r < 9 ? PF_TBL : PF_FUNCTION;
        Pf* child = random_tree(rng, type, depth + 1);
        if (node->type == PF_TBL)
            pfput(node, pfindex(pfmaxtbl(node)), child, PF_PF);
        else
            pfput(node, hostile(rng, 4).c_str(), child, PF_PF);
    }
}

Pf* random_tree(std::mt19937& rng, int type, int depth) {
    Pf* node = pfnew(type);
    if (type == PF_STRING) {
        node->value.s = strdup(hostile(rng, 8).c_str());
    } else if (type == PF_FUNCTION) {
        static const char* const forms[] = {"&env(HOME)", "&exec(echo a b)", "&ref(x, y{z})", "&undef()",
                                            "&glob(/tmp/*.pf)", "&ask"};
        node->value.pffunct->s = strdup(forms[rng() % 6]);
    } else {
        fill(rng, node, depth);
    }
    return node;
}

TEST(PfWrite, AnyTreeReadsBackEqual) {
    std::mt19937 rng(20240601);
    for (int round = 0; round < 400 && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        Pf* pf = random_tree(rng, PF_ROOT, 0);
        expect_round_trip(pf);
        pffree(pf);
    }
}

TEST(PfWrite, EscapeRules) {
    EXPECT_EQ(escape('r', 0, 0), '\r');
    EXPECT_EQ(escape('b', 0, 0), '\b');
    EXPECT_EQ(escape('3', '7', '7'), 0377);
    EXPECT_EQ(escape('1', '8', '1'), '1');  // not octal: the character itself
    EXPECT_EQ(escape('q', 0, 0), 'q');
}

// ---- deferred forms -------------------------------------------------------------

TEST(PfDeferred, EnvExecGlobFile) {
    TempDir dir;
    dir.file("one.txt", "contents\nof one\n");
    dir.file("two.txt", "2");
    setenv("PFPARSE_TEST_VAR", "from env", 1);
    std::string count = dir.path + "/count";
    std::string text = "env &env(PFPARSE_TEST_VAR)\n"
                       "unset &env(PFPARSE_TEST_NEVER_SET)\n"
                       "exec &exec(printf 'a b\\\\n\\\\n'; echo x >> " + count + ")\n"
                       "stdin &exec(cat)\n"
                       "glob &glob(" + dir.path + "/*.txt)\n"
                       "none &glob(" + dir.path + "/*.none)\n"
                       "file &file(" + dir.path + "/one.txt)\n"
                       "nofile &file(" + dir.path + "/missing)\n"
                       "name &filename(one.txt)\n"
                       "undef &undef(anything)\n"
                       "dir " + dir.path + "\n"
                       "viaref &file(&dir/two.txt)\n";
    Pf* pf = nullptr;
    ASSERT_EQ(parse(text, &pf), 0);
    EXPECT_STREQ(pfget_string(pf, "env"), "from env");
    EXPECT_EQ(pfget_string(pf, "unset"), nullptr);
    EXPECT_STREQ(pfget_string(pf, "exec"), "a b\n");  // only the final newline goes
    EXPECT_STREQ(pfget_string(pf, "exec"), "a b\n");
    std::ifstream in(count);
    std::string lines((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(lines, "x\n");  // evaluated once, on first access
    EXPECT_STREQ(pfget_string(pf, "stdin"), "");  // a command reading input gets none
    Tbl* g = pfget_tbl(pf, "glob");
    ASSERT_EQ(maxtbl(g), 2);
    EXPECT_EQ(std::string(static_cast<char*>(gettbl(g, 0))), dir.path + "/one.txt");
    freetbl(g, nullptr);
    Pf* none = nullptr;
    EXPECT_EQ(pfresolve(pf, "none", 0, &none), PF_TBL);  // no match: an empty list
    EXPECT_EQ(pfmaxtbl(none), 0);
    EXPECT_STREQ(pfget_string(pf, "file"), "contents\nof one\n");
    EXPECT_EQ(std::string(pfget_string(pf, "nofile")).rfind("** ", 0), 0u);
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(std::string(pfget_string(pf, "name")), std::string(cwd) + "/one.txt");
    EXPECT_EQ(pfget_string(pf, "undef"), nullptr);
    EXPECT_STREQ(pfget_string(pf, "viaref"), "2");
    // The text of a deferred form is what is written back.
    EXPECT_NE(text_of(pf).find("env\t&env(PFPARSE_TEST_VAR)\n"), std::string::npos);
    pffree(pf);
}

TEST(PfDeferred, ReferencesToOtherFiles) {
    TempDir dir;
    dir.file("other.pf", "k other value\narr &Arr{\n  x 1\n}\nloop &ref(other, loop)\n");
    setenv("PFPATH", dir.path.c_str(), 1);
    Pf* pf = nullptr;
    ASSERT_EQ(parse("s &ref(other, k)\n"
                    "a &ref( other , arr )\n"
                    "nocomma &ref(other)\n"
                    "bad &ref(other, nothing{here})\n"
                    "nofile &ref(pfparse-no-such-file, k)\n"
                    "loop &ref(other, loop)\n",
                    &pf),
              0);
    EXPECT_STREQ(pfget_string(pf, "s"), "other value");
    EXPECT_STREQ(pfget_string(pf, "a{x}"), "1");
    EXPECT_STREQ(pfget_string(pf, "nocomma"), "** missing pf name in reference: 'other' **");
    EXPECT_STREQ(pfget_string(pf, "bad"), "** reference not resolved: 'other, nothing{here}' **");
    EXPECT_STREQ(pfget_string(pf, "nofile"), "** reference not resolved: 'pfparse-no-such-file, k' **");
    EXPECT_STREQ(pfget_string(pf, "loop"), "pf recursion too deep");
    pffree(pf);
    unsetenv("PFPATH");
}

TEST(PfDeferred, DataFiles) {
    TempDir dir;
    dir.sub("data/sub");
    dir.file("data/sub/thing", "data!");
    setenv("QUORVANE", dir.path.c_str(), 1);
    Pf* pf = nullptr;
    ASSERT_EQ(parse("d &datafile(sub/thing)\nn &datafilename(sub/thing)\nm &datafile(nope)\n", &pf), 0);
    EXPECT_STREQ(pfget_string(pf, "d"), "data!");
    EXPECT_EQ(std::string(pfget_string(pf, "n")), dir.path + "/data/sub/thing");
    EXPECT_STREQ(pfget_string(pf, "m"), "** no datafile 'nope' found");
    pffree(pf);
    setenv("QUORVANE", FERRANT_BUILD_DIR, 1);
}

TEST(PfDeferred, AskNeverWaitsOnATerminal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Pf* pf = nullptr;
    ASSERT_EQ(parse("q &ask(Your name)\n", &pf), 0);
    // Prompting is off by default: the value is simply missing.
    EXPECT_EQ(pfget_string(pf, "q"), nullptr);
    pffree(pf);
    pf = nullptr;  // a fresh tree: the missing value is remembered
    ASSERT_EQ(parse("q &ask(Your name)\n", &pf), 0);
    // With prompting on and no terminal, the process stops instead of hanging.
    EXPECT_EXIT(
        {
            setsid();
            pfconfig("ask", reinterpret_cast<void*>(1));
            pfget_string(pf, "q");
        },
        testing::ExitedWithCode(1), "Can't open /dev/tty for prompt.");
    pffree(pf);
    // Only &ask prompts: with prompting on, &undef is still just missing.
    pf = nullptr;
    ASSERT_EQ(parse("u &undef(x)\n", &pf), 0);
    EXPECT_EXIT(
        {
            setsid();
            pfconfig("ask", reinterpret_cast<void*>(1));
            exit(pfget_string(pf, "u") ? 3 : 0);
        },
        testing::ExitedWithCode(0), "");
    pffree(pf);
}

}  // namespace

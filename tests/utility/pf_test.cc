// The parameter tree: key paths, typed getters and their messages, setters,
// reference expansion, the missing-value handler and the named-tree cache.
#include "stock/pf.h"

#include <gtest/gtest.h>
// After pf.h on purpose: the socket header's own PF_ names must not change
// what the node types mean.
#include <sys/socket.h>

#include <cstdlib>
#include <unistd.h>
#include <string>
#include <thread>
#include <vector>

namespace {

Pf* parse(const char* text) {
    Pf* pf = nullptr;
    EXPECT_EQ(pfcompile(text, &pf), 0) << text;
    return pf;
}

struct Tree {
    Pf* pf;
    explicit Tree(const char* text) : pf(parse(text)) {}
    ~Tree() { pffree(pf); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
};

const char* Sample =
    "name  plain value  \n"
    "n 42\n"
    "x 2.5\n"
    "arr &Arr{\n"
    "    inner  v1\n"
    "    deep &Arr{\n"
    "        leaf  L\n"
    "    }\n"
    "    list &Tbl{\n"
    "        a\n"
    "        b\n"
    "    }\n"
    "}\n"
    "tbl &Tbl{\n"
    "    first\n"
    "    &Arr{\n"
    "        k kv\n"
    "    }\n"
    "}\n"
    "\"spaced key\" sv\n";

class PfTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(PfTest, KeyPathsReachNestedNodesAndContainersComeOut) {
    Tree t(Sample);
    EXPECT_STREQ(pfget_string(t.pf, "name"), "plain value");
    EXPECT_STREQ(pfget_string(t.pf, "arr{ inner }"), "v1");
    EXPECT_STREQ(pfget_string(t.pf, "arr{deep}{leaf}"), "L");
    EXPECT_STREQ(pfget_string(t.pf, "arr{list}[1]"), "b");
    EXPECT_STREQ(pfget_string(t.pf, "tbl[1]{k}"), "kv");
    EXPECT_STREQ(pfget_string(t.pf, "{spaced key}"), "sv");

    Pf* node = nullptr;
    EXPECT_EQ(pfresolve(t.pf, "", 0, &node), PF_ROOT);
    EXPECT_EQ(node, t.pf);
    EXPECT_EQ(pfresolve(t.pf, "arr{nope}", 0, &node), -31);
    EXPECT_EQ(pfresolve(t.pf, "name{x}", 0, &node), -32);   // a string can't be indexed by name
    EXPECT_EQ(pfresolve(t.pf, "arr[0]", 0, &node), -32);    // an array can't be indexed by number
    EXPECT_EQ(pfresolve(t.pf, "tbl[7]", 0, &node), -31);

    // Started at a list, the key is an index.
    Pf* list = nullptr;
    ASSERT_EQ(pfresolve(t.pf, "tbl", 0, &list), PF_TBL);
    EXPECT_EQ(pfresolve(list, pfindex(1), 0, &node), PF_ARR);
    EXPECT_EQ(pfresolve(list, pfindex(2), 0, &node), -32);

    char* s = nullptr;
    EXPECT_EQ(pfeval(t.pf, "arr", &s), -1);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(pfeval(t.pf, "nothing{here}", &s), -1);

    // pfget looks in one node only: no path walk.
    void* v = nullptr;
    EXPECT_EQ(pfget(t.pf, "arr{inner}", &v), PF_INVALID);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(pfget(list, pfindex(0), &v), PF_STRING);
    EXPECT_STREQ(static_cast<char*>(v), "first");
    EXPECT_EQ(pfget(list, pfindex(5), &v), PF_INVALID);

    // Arrays and lists come out as containers.
    Arr* a = pfget_arr(t.pf, "arr");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(cntarr(a), 1);  // nested array and list left out
    EXPECT_STREQ(static_cast<char*>(getarr(a, "inner")), "v1");
    freearr(a, nullptr);

    Tbl* l = pfget_tbl(t.pf, "tbl");
    ASSERT_EQ(maxtbl(l), 2);
    EXPECT_STREQ(static_cast<char*>(gettbl(l, 0)), "first");
    Pf* inner = static_cast<Pf*>(gettbl(l, 1));
    EXPECT_EQ(inner->type, PF_ARR);
    freetbl(l, nullptr);

    Tbl* keys = pfkeys(t.pf);
    ASSERT_EQ(maxtbl(keys), 6);
    EXPECT_STREQ(static_cast<char*>(gettbl(keys, 0)), "arr");
    EXPECT_STREQ(static_cast<char*>(gettbl(keys, 5)), "x");
    freetbl(keys, nullptr);
    EXPECT_EQ(pfkeys(inner->parent), nullptr);  // a list has no keys
}

TEST_F(PfTest, NumbersAndBooleansParseAndComplain) {
    Tree t("j 12abc\nk  -7   \nd 1.5e3\ne 3.25x\nsz1 4k\nsz2 2M\nsz3 1G\nsz4 4K\nsz5 1.5\n"
           "t1 1700000000.5\nt2 2023-11-14 22:13:20\nt3 not a time\n"
           "y1 True\ny2 yes\ny3 ON\ny4 t\nn1 0\nn2 off\nn3 F\nb maybe\n");
    EXPECT_EQ(pfget_int(t.pf, "k"), -7);
    for (const char* key : {"y1", "y2", "y3", "y4"}) EXPECT_EQ(pfget_boolean(t.pf, key), -1) << key;
    for (const char* key : {"n1", "n2", "n3"}) EXPECT_EQ(pfget_boolean(t.pf, key), 0) << key;
    testing::internal::CaptureStderr();
    EXPECT_EQ(pfget_int(t.pf, "j"), 12);
    EXPECT_DOUBLE_EQ(pfget_double(t.pf, "e"), 3.25);
    EXPECT_EQ(pfget_time(t.pf, "t3"), 0);
    EXPECT_EQ(pfget_boolean(t.pf, "missing"), 0);  // quietly false
    EXPECT_EQ(pfget_boolean(t.pf, "b"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Bad integer value '12abc' for j"), std::string::npos) << err;
    EXPECT_NE(err.find("Bad floating point value '3.25x' for e"), std::string::npos) << err;
    EXPECT_NE(err.find("Bad time value 'not a time' for t3"), std::string::npos) << err;
    EXPECT_EQ(err.find("missing"), std::string::npos) << err;
    EXPECT_NE(err.find("Bad boolean value 'maybe' for b"), std::string::npos) << err;

    EXPECT_DOUBLE_EQ(pfget_double(t.pf, "d"), 1500);
    EXPECT_DOUBLE_EQ(pfget_size(t.pf, "sz1"), 4096);
    EXPECT_DOUBLE_EQ(pfget_size(t.pf, "sz2"), 2097152);
    EXPECT_DOUBLE_EQ(pfget_size(t.pf, "sz3"), 1073741824);
    EXPECT_DOUBLE_EQ(pfget_size(t.pf, "sz4"), 4);  // only a lower-case k means kilo
    EXPECT_DOUBLE_EQ(pfget_size(t.pf, "sz5"), 1.5);
    EXPECT_DOUBLE_EQ(pfget_time(t.pf, "t1"), 1700000000.5);
    EXPECT_DOUBLE_EQ(pfget_time(t.pf, "t2"), 1700000000.0);
}

int Handler_calls;
int lenient(Pf*, const char*, int, int actual, void* result) {
    Handler_calls++;
    if (actual == PF_INVALID) *static_cast<const char**>(result) = "77";
    return 0;
}

TEST_F(PfTest, MissingAndMistypedValuesAreFatalUnlessHandled) {
    Tree t(Sample);
    EXPECT_EXIT(pfget_int(t.pf, "absent"), testing::ExitedWithCode(1),
                "program needs value for 'absent', not found in parameter file '\\*internal buffer\\*'");
    EXPECT_EXIT(pfget_double(t.pf, "arr{nope}"), testing::ExitedWithCode(1), "program needs value for 'arr\\{nope\\}'");
    EXPECT_EXIT(pfget_string(t.pf, "arr"), testing::ExitedWithCode(1),
                "wrong parameter type for 'arr' : expected scalar but got array in '\\*internal buffer\\*'");
    EXPECT_EXIT(pfget_tbl(t.pf, "name"), testing::ExitedWithCode(1),
                "wrong parameter type for 'name' : expected table but got scalar");
    // A file root counts as "scalar", so an empty path at the root is a mismatch.
    EXPECT_EXIT(pfget_arr(t.pf, ""), testing::ExitedWithCode(1), "expected array but got scalar");
    // At a list only a missing entry is fatal.
    Pf* list = nullptr;
    pfresolve(t.pf, "tbl", 0, &list);
    EXPECT_EXIT(pfget_int(list, pfindex(9)), testing::ExitedWithCode(1),
                "wrong parameter type for #9 : expected scalar but got invalid");
    // Lenient getters stay quiet.
    EXPECT_EQ(pfget_string(t.pf, "absent"), nullptr);
    EXPECT_EQ(pfget_arr(t.pf, "absent"), nullptr);
    EXPECT_EQ(pfget_tbl(t.pf, "absent"), nullptr);

    // A replacement handler supplies defaults.
    ASSERT_EQ(pfconfig("die", reinterpret_cast<void*>(lenient)), 0);
    Handler_calls = 0;
    EXPECT_EQ(pfget_int(t.pf, "absent"), 77);
    EXPECT_EQ(pfget_string(t.pf, "arr"), nullptr);  // wrong type let through: no string to give
    EXPECT_EQ(Handler_calls, 2);
    ASSERT_EQ(pfconfig("die", nullptr), 0);
    EXPECT_EQ(pfdie, _pfdie);

    testing::internal::CaptureStderr();
    EXPECT_EQ(pfconfig("dice", nullptr), -1);
    EXPECT_EQ(pfconfig("askme", nullptr), -1);  // whole words only
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("pfconfig: unrecognized code 'dice'"), std::string::npos) << err;
}

TEST_F(PfTest, SettersBuildWhatGettersRead) {
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
    EXPECT_STREQ(pfget_string(pf, "yes"), "True");
    EXPECT_STREQ(pfget_string(pf, "no"), "False");
    EXPECT_NEAR(pfget_time(pf, "when"), 1700000000.25, 1e-3);
    EXPECT_NE(std::string(pfget_string(pf, "when")).find("2023-11-14"), std::string::npos);
    EXPECT_STREQ(pfget_string(pf, "list[1]"), "two");
    EXPECT_STREQ(pfget_string(pf, "map{k}"), "v");

    // pfset walks and creates; the string replaces whatever was there.
    EXPECT_EQ(pfset(pf, "a{b}{c}", "deep"), 0);
    EXPECT_STREQ(pfget_string(pf, "a{b}{c}"), "deep");
    EXPECT_EQ(pfset(pf, "map", "flat"), 0);
    EXPECT_STREQ(pfget_string(pf, "map"), "flat");
    EXPECT_EQ(pfset(pf, "list[4]", "late"), 0);
    EXPECT_STREQ(pfget_string(pf, "list[4]"), "late");
    EXPECT_EQ(pfset(pf, "s{x}", "no"), -1);

    Pf* gone = pfdel(pf, "s");
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(gone->parent, nullptr);
    pffree(gone);
    EXPECT_EQ(pfdel(pf, "s"), nullptr);
    pffree(pf);
}

TEST_F(PfTest, ListIndexesBeyondAnIntAreRefused) {
    // pfadd_tbl takes an int; an index past that range once left the walk
    // holding no node and pfset crashed on it.
    Tree t("list &Tbl{\n    a\n}\n");
    EXPECT_EQ(pfset(t.pf, "list[3000000000]", "v"), -1);
    EXPECT_EQ(pfset(t.pf, "fresh[3000000000]", "v"), -1);
    Pf* node = nullptr;
    EXPECT_EQ(pfresolve(t.pf, "list[99999999999999]", 1, &node), -32);
    ASSERT_EQ(pfresolve(t.pf, "list", 0, &node), PF_TBL);
    EXPECT_EQ(pfmaxtbl(node), 1);
}

TEST_F(PfTest, ReferencesThatMultiplyStayBounded) {
    // Each level names itself four times: without a bound on the work the
    // 20 levels would take 4^20 lookups. The child is killed if it hangs.
    EXPECT_EXIT(
        {
            alarm(25);
            Tree t("a &a&a&a&a\nb &{a}&{a}\n");
            std::string a = pfget_string(t.pf, "a");
            std::string b = pfget_string(t.pf, "b");
            bool ok = a.find("** error ** pf massive recursion") != std::string::npos &&
                      b.find("** error ** pf massive recursion") != std::string::npos && a.size() < (256u << 20);
            exit(ok ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(PfTest, PfputInsertsNodesAndAdoptsContainers) {
    Pf* root = pfnew(PF_ROOT);
    Pf* sub = parse("k v\n");
    pfput(root, "sub", sub, PF_PF);
    EXPECT_EQ(sub->type, PF_ARR);  // a file root under another node is an array
    EXPECT_EQ(sub->parent, root);
    EXPECT_STREQ(pfget_string(root, "sub{k}"), "v");
    pfput(root, "sub", const_cast<char*>("replaced"), PF_STRING);  // frees the array
    EXPECT_STREQ(pfget_string(root, "sub"), "replaced");

    Pf* list = pfnew(PF_TBL);
    pfput(list, pfindex(0), const_cast<char*>("a"), PF_STRING);
    pfput(list, pfindex(0), const_cast<char*>("b"), PF_STRING);
    EXPECT_EQ(pfmaxtbl(list), 1);
    EXPECT_EQ(pfadd_tbl(list, 2), 0);
    EXPECT_EQ(pfmaxtbl(list), 3);
    EXPECT_EQ(pfadd_arr(list, "x"), -1);
    EXPECT_EXIT(pfdup(list), testing::ExitedWithCode(1), "Bad type in pfdup : 6");
    testing::internal::CaptureStderr();
    pffree(pfdel(list, pfindex(2)));  // untyped: reported, not crashed on
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("pffree: didn't free type 6"), std::string::npos) << err;
    pfput(list, pfindex(1), const_cast<char*>("c"), PF_STRING);  // fills the gap
    pffree(pfdel(list, pfindex(0)));
    pfput(root, "list", list, PF_PF);
    Pf* copy = pfdup(root);
    EXPECT_STREQ(pfget_string(copy, "sub"), "replaced");
    EXPECT_STREQ(pfget_string(copy, "list[0]"), "c");
    Pf* l = nullptr;
    pfresolve(copy, "list", 0, &l);
    EXPECT_EQ(l->parent, copy);
    pffree(copy);
    pffree(root);

    Pf* str = pfnew(PF_STRING);
    EXPECT_EXIT(pfput(str, "k", const_cast<char*>("v"), PF_STRING), testing::ExitedWithCode(1), "Bad pf pointer in pfput");
    EXPECT_EXIT(pfput(str, "k", nullptr, 42), testing::ExitedWithCode(1), "Bad type in pfput : 42");
    pffree(str);
}

TEST_F(PfTest, ReferencesExpandFromAncestors) {
    Tree t("HOME /top\n"
           "a &{HOME}/x\n"
           "b &HOME/y and &nothing and &{no thing}\n"
           "self x&self\n"
           "lone a & b\n"
           "nested &Arr{\n"
           "    HOME /inner\n"
           "    p &HOME/z\n"
           "    q &a!\n"
           "}\n");
    EXPECT_STREQ(pfget_string(t.pf, "a"), "/top/x");
    EXPECT_STREQ(pfget_string(t.pf, "b"), "/top/y and &nothing and &{no thing}");
    EXPECT_STREQ(pfget_string(t.pf, "lone"), "a & b");
    EXPECT_STREQ(pfget_string(t.pf, "nested{p}"), "/inner/z");  // nearest ancestor wins
    EXPECT_STREQ(pfget_string(t.pf, "nested{q}"), "/top/x!");   // expansion is recursive
    std::string self = pfget_string(t.pf, "self");
    EXPECT_EQ(self.rfind("xxxxxxxxxxxxxxxxxxxx", 0), 0u) << self;
    EXPECT_NE(self.find("** error ** pf massive recursion"), std::string::npos) << self;

    // The stored text keeps its references; a string handed out stays put
    // when a second get expands to the same text.
    Pf* a = nullptr;
    pfresolve(t.pf, "a", 0, &a);
    EXPECT_STREQ(a->value.s, "&{HOME}/x");
    char* first = pfget_string(t.pf, "a");
    EXPECT_EQ(pfget_string(t.pf, "a"), first);
}

TEST_F(PfTest, CacheOfNamedTrees) {
    putPf("pftest-cache", parse("k 1\n"));
    putPf("pftest-cache", parse("k 2\n"));  // frees the first
    EXPECT_EQ(pfget_int(existsPf("pftest-cache"), "k"), 2);
    EXPECT_EQ(freePf("pftest-cache"), 0);
    EXPECT_EQ(freePf("pftest-cache"), -1);
    EXPECT_EQ(existsPf("pftest-cache"), nullptr);
    EXPECT_EQ(updatePf("pftest-no-such-file-anywhere"), -1);
    EXPECT_EQ(getPf("pftest-no-such-file-anywhere"), nullptr);
}

TEST_F(PfTest, ThreadsParseExpandAndShareTheCache) {
    std::vector<std::thread> threads;
    std::vector<int> bad(4, 0);
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t, &bad] {
            for (int i = 0; i < 150; i++) {
                std::string id = std::to_string(t) + "-" + std::to_string(i);
                std::string text = "base " + id + "\nref &base/x\nl &Tbl{\n  &{base}\n}\n";
                Pf* pf = nullptr;
                if (pfcompile(text.c_str(), &pf) != 0) bad[t]++;
                if (std::string(pfget_string(pf, "ref")) != id + "/x") bad[t]++;
                if (std::string(pfget_string(pf, "l[0]")) != id) bad[t]++;
                char* out = pf2string(pf);
                Pf* again = nullptr;
                if (pfcompile(out, &again) != 0 || std::string(pfget_string(again, "ref")) != id + "/x") bad[t]++;
                free(out);
                pffree(again);
                std::string name = "pftest-thread-" + std::to_string(t);
                putPf(name.c_str(), pf);
                if (existsPf(name.c_str()) != pf) bad[t]++;
                putPf("pftest-shared", pfdup(pf));
                existsPf("pftest-shared");
            }
            freePf(("pftest-thread-" + std::to_string(t)).c_str());
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; t++) EXPECT_EQ(bad[t], 0) << "thread " << t;
    EXPECT_EQ(freePf("pftest-shared"), 0);
}

}  // namespace

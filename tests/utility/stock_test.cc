// Small parts of the stock library: containers, hooks, whole-string pattern
// matching, printable text, the out-of-memory end and facts of the process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "deviants/my.h"
#include "stock/allot.h"
#include "stock/arr.h"
#include "stock/hook.h"
#include "stock/printable.h"
#include "stock/strmatches.h"
#include "stock/tbl.h"

TEST(Containers, ArrKeepsKeyOrderTblStaysInBoundsHookFreesOnce) {
    Arr* a = newarr();
    int v[4] = {0, 1, 2, 3};
    EXPECT_EQ(setarr(a, "b", &v[2]), nullptr);
    EXPECT_EQ(setarr(a, "a", &v[1]), nullptr);
    EXPECT_EQ(setarr(a, "b", &v[3]), &v[2]);  // the displaced value comes back
    EXPECT_EQ(getarr(a, "b"), &v[3]);
    EXPECT_EQ(getarr(a, "zz"), nullptr);
    Tbl* k = keysarr(a);
    ASSERT_EQ(maxtbl(k), 2);
    EXPECT_STREQ(static_cast<char*>(gettbl(k, 0)), "a");
    EXPECT_STREQ(static_cast<char*>(gettbl(k, 1)), "b");
    freetbl(k, nullptr);
    EXPECT_EQ(delarr(a, "a"), &v[1]);
    EXPECT_EQ(delarr(a, "a"), nullptr);
    EXPECT_EQ(cntarr(a), 1);
    freearr(a, nullptr);
    Arr* owner = newarr();
    setarr(owner, "x", strdup("1"));
    setarr(owner, "y", strdup("2"));
    freearr(owner, free);  // the sanitizer build reports a leak if values are not freed

    Tbl* t = newtbl();
    EXPECT_EQ(pushtbl(t, &v[0]), 1);
    EXPECT_EQ(settbl(t, 3, &v[3]), 3);
    EXPECT_EQ(maxtbl(t), 4);
    for (long i : {1, -1, 4}) EXPECT_EQ(gettbl(t, i), nullptr) << i;
    EXPECT_EQ(deltbl(t, 0), &v[0]);
    EXPECT_EQ(maxtbl(t), 3);
    EXPECT_EQ(poptbl(t), &v[3]);
    EXPECT_EQ(deltbl(t, 7), nullptr);
    freetbl(t, nullptr);
    EXPECT_EQ(poptbl(nullptr), nullptr);

    static int freed = 0;
    Hook* h = new_hook([](void* p) {
        freed++;
        free(p);
    });
    h->p = malloc(8);
    free_hook(&h);
    EXPECT_EQ(h, nullptr);
    free_hook(&h);
    EXPECT_EQ(freed, 1);
}

TEST(Strmatches, WholeStringMatchesRecompilingAndBadPatterns) {
    // In order, on one hook: each pattern that differs from the last is compiled anew.
    struct Case {
        const char *text, *pattern;
        int expected;
    } cases[] = {
        {"abc", "a.c", 1}, {"xabcx", "a.c", 0}, {"abcx", "a.c", 0},
        // Alternation: the longer branch must be found even if a shorter one matches first.
        {"ab", "a|ab", 1}, {"", "x*", 1},
        {"abc", "abc", 1}, {"abc", "abd", 0}, {"abd", "abd", 1},
        {"abc", "a(b", -1}, {"abc", "a(b", -1},  // the second is a cached failure
        {"abc", "[", -1}, {"abc", "abc", 1},     // recovers with a good one
        {nullptr, "abc", -1}, {"abc", nullptr, -1},
    };
    Hook *h = nullptr, *first = nullptr;
    for (const Case& c : cases) {
        EXPECT_EQ(strmatches(c.text, c.pattern, &h), c.expected)
            << (c.text ? c.text : "(null)") << " ~ " << (c.pattern ? c.pattern : "(null)");
        if (!first) first = h;
    }
    EXPECT_EQ(h, first);  // the hook is reused, not replaced
    // A pattern in a buffer that changes in place is seen as changed.
    char buf[8];
    strcpy(buf, "a+");
    EXPECT_EQ(strmatches("aaa", buf, &h), 1);
    strcpy(buf, "b+");
    EXPECT_EQ(strmatches("aaa", buf, &h), 0);
    EXPECT_EQ(strmatches("abc", "abc", nullptr), -1);
    free_hook(&h);
    EXPECT_EQ(h, nullptr);
}

TEST(Printable, RefusesControlDeleteAndHighBytesEscapesCutsAndDumps) {
    EXPECT_TRUE(printable(' '));
    EXPECT_TRUE(printable('~'));
    // (char)0xe9 is a signed char below zero.
    for (int c : {0, 31, 127, 128, 255, (int)(char)0xe9}) EXPECT_FALSE(printable(c)) << c;
    const char data[] = "ab\n\t\\\x01\xff";
    auto text = [](char* s) {
        std::string r = s;
        free(s);
        return r;
    };
    EXPECT_EQ(text(strprintable(data, sizeof data - 1, -1)), "ab\\n\\t\\\\\\x01\\xff");
    EXPECT_EQ(text(strprintable(data, sizeof data - 1, 5)), "ab\\n");  // no escape is cut in half
    EXPECT_EQ(text(strprintable(nullptr, 10, 10)), "");
    unsigned char bytes[20];
    for (int i = 0; i < 20; i++) bytes[i] = (unsigned char)(i == 1 ? 'A' : i);
    char* dump = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&dump, &size);
    hexdump(f, bytes, 20);
    fclose(f);
    EXPECT_EQ(text(dump), "00000000  00 41 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  .A..............\n"
                          "00000010  10 11 12 13                                       ....\n");
}

TEST(Process, OutOfMemoryMessageExecutableNameAndSigpipe) {
    EXPECT_EXIT(die_nomem(42, "bns", 1024, "bns->data"), testing::ExitedWithCode(1),
                "Out of memory at line 42 in 'bns'\n\tCan't malloc 1024 bytes for bns->data\n");
    EXPECT_STREQ(nomem_source("lib/utility/stock/bury.cc"), "bury");
    EXPECT_STREQ(nomem_source("grave"), "grave");
    std::string exe = myexecname();
    EXPECT_EQ(exe.substr(exe.rfind('/') + 1), "stock_test");
    ASSERT_EQ(ignoreSIGPIPE(), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    EXPECT_EQ(write(fds[1], "x", 1), -1);  // still alive, told by EPIPE
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
    signal(SIGPIPE, SIG_DFL);
}

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
#include "stock/hook.h"
#include "stock/printable.h"
#include "stock/strmatches.h"

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
    Hook* h = nullptr;
    Hook* first = nullptr;
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

TEST(Printable, RefusesControlDeleteAndHighBytesEscapesAndCuts) {
    EXPECT_TRUE(printable(' '));
    EXPECT_TRUE(printable('~'));
    // (char)0xe9 is a signed char below zero.
    for (int c : {0, 31, 127, 128, 255, (int)(char)0xe9}) EXPECT_FALSE(printable(c)) << c;

    const char data[] = "ab\n\t\\\x01\xff";
    char* s = strprintable(data, sizeof data - 1, -1);
    EXPECT_STREQ(s, "ab\\n\\t\\\\\\x01\\xff");
    free(s);
    s = strprintable(data, sizeof data - 1, 5);  // no escape is cut in half
    EXPECT_STREQ(s, "ab\\n");
    free(s);
    s = strprintable(nullptr, 10, 10);
    EXPECT_STREQ(s, "");
    free(s);
}

TEST(Hexdump, SixteenBytesALine) {
    unsigned char data[20];
    for (int i = 0; i < 20; i++) data[i] = (unsigned char)(i == 1 ? 'A' : i);
    char* text = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&text, &size);
    hexdump(f, data, 20);
    fclose(f);
    std::string out(text, size);
    free(text);
    EXPECT_EQ(out,
              "00000000  00 41 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  .A..............\n"
              "00000010  10 11 12 13                                       ....\n");
}

TEST(OutOfMemory, DiesWithTheStandardMessage) {
    EXPECT_EXIT(die_nomem(42, "bns", 1024, "bns->data"), testing::ExitedWithCode(1),
                testing::HasSubstr("Out of memory at line 42 in 'bns'\n\tCan't malloc 1024 bytes for bns->data\n"));
    EXPECT_STREQ(nomem_source("lib/utility/stock/bury.cc"), "bury");
    EXPECT_STREQ(nomem_source("grave"), "grave");
}

TEST(My, ProcessFacts) {
    std::string exe = myexecname();
    EXPECT_EQ(exe.substr(exe.rfind('/') + 1), "text_test");
    ASSERT_EQ(ignoreSIGPIPE(), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    EXPECT_EQ(write(fds[1], "x", 1), -1);  // still alive, told by EPIPE
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
    signal(SIGPIPE, SIG_DFL);
}

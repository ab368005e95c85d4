#include <gtest/gtest.h>

#include <cstring>

#include "stock/arr.h"
#include "stock/hook.h"
#include "stock/tbl.h"

TEST(Arr, KeepsKeyOrderReturnsDisplacedValuesAndFreesThem) {
    Arr* a = newarr();
    int one = 1, two = 2, three = 3;
    EXPECT_EQ(setarr(a, "b", &two), nullptr);
    EXPECT_EQ(setarr(a, "a", &one), nullptr);
    EXPECT_EQ(setarr(a, "b", &three), &two);
    EXPECT_EQ(getarr(a, "b"), &three);
    EXPECT_EQ(getarr(a, "zz"), nullptr);
    Tbl* k = keysarr(a);
    ASSERT_EQ(maxtbl(k), 2);
    EXPECT_STREQ((char*)gettbl(k, 0), "a");
    EXPECT_STREQ((char*)gettbl(k, 1), "b");
    freetbl(k, nullptr);
    EXPECT_EQ(delarr(a, "a"), &one);
    EXPECT_EQ(delarr(a, "a"), nullptr);
    EXPECT_EQ(cntarr(a), 1);
    freearr(a, nullptr);

    Arr* owner = newarr();
    setarr(owner, "x", strdup("1"));
    setarr(owner, "y", strdup("2"));
    freearr(owner, free);  // the sanitizer build reports a leak if values are not freed
}

TEST(Tbl, GrowsShrinksAndStaysInBounds) {
    Tbl* t = newtbl();
    int v[4] = {0, 1, 2, 3};
    EXPECT_EQ(pushtbl(t, &v[0]), 1);
    EXPECT_EQ(settbl(t, 3, &v[3]), 3);
    EXPECT_EQ(maxtbl(t), 4);
    EXPECT_EQ(gettbl(t, 1), nullptr);
    EXPECT_EQ(gettbl(t, -1), nullptr);
    EXPECT_EQ(gettbl(t, 4), nullptr);
    EXPECT_EQ(deltbl(t, 0), &v[0]);
    EXPECT_EQ(maxtbl(t), 3);
    EXPECT_EQ(poptbl(t), &v[3]);
    EXPECT_EQ(deltbl(t, 7), nullptr);
    freetbl(t, nullptr);
    EXPECT_EQ(poptbl(nullptr), nullptr);
}

TEST(Hook, FreesItsStateOnce) {
    static int freed = 0;
    Hook* h = new_hook([](void* p) { freed++; free(p); });
    h->p = malloc(8);
    free_hook(&h);
    EXPECT_EQ(h, nullptr);
    free_hook(&h);
    EXPECT_EQ(freed, 1);
}

#include "support/containers.h"

#include <gtest/gtest.h>

static int freed = 0;
static void count_free(void *) { ++freed; }

TEST(Containers, ArrKeysInStringOrderReplaceAndKeyCopy) {
    Arr *arr = newarr(nullptr);
    int a = 1, b = 2, c = 3;
    char key[] = "5330";
    setarr(arr, key, &a);
    key[0] = '9';  // the caller's buffer changes; the stored key must not
    setarr(arr, "6330", &b);
    EXPECT_EQ(setarr(arr, "10000", &b), nullptr);
    EXPECT_EQ(setarr(arr, "10000", &c), &b);  // replaced, the old pointer returned
    EXPECT_EQ(cntarr(arr), 3);
    EXPECT_EQ(getarr(arr, "5330"), &a);
    EXPECT_EQ(getarr(arr, "9330"), nullptr);
    Tbl *keys = keysarr(arr);
    ASSERT_EQ(maxtbl(keys), 3);
    // Text order, not numeric: the relay starts its ports in this order.
    EXPECT_STREQ(static_cast<char *>(gettbl(keys, 0)), "10000");
    EXPECT_STREQ(static_cast<char *>(gettbl(keys, 1)), "5330");
    EXPECT_STREQ(static_cast<char *>(gettbl(keys, 2)), "6330");
    freetbl(keys, nullptr);
    freed = 0;
    freearr(arr, count_free);
    EXPECT_EQ(freed, 3);
}

TEST(Containers, TblIndexingAtAndBeyondTheEnds) {
    Tbl *tbl = newtbl(1);
    int x = 0;
    EXPECT_EQ(settbl(tbl, -1, &x), 0);  // -1 appends
    EXPECT_EQ(settbl(tbl, 3, &x), 3);   // grows with empty entries
    EXPECT_EQ(maxtbl(tbl), 4);
    for (int i : {-1, 1, 2, 4}) EXPECT_EQ(gettbl(tbl, i), nullptr) << i;
    EXPECT_EQ(gettbl(tbl, 3), &x);
    EXPECT_EQ(settbl(tbl, -2, &x), -1);
    freetbl(tbl, nullptr);
}

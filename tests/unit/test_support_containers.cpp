#include "support/containers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

static int freed = 0;

// Arr: keys copied, a replaced value handed back, keys listed in text order (not numeric: the
// relay starts its ports in this order). Tbl: -1 appends, an index past the end grows the list
// with empty entries, and reads out of range give nullptr.
TEST(Containers, ArrAndTbl) {
    Arr *arr = newarr(nullptr);
    int a = 1, b = 2, c = 3;
    char key[] = "5330";
    setarr(arr, key, &a);
    key[0] = '9';  // the caller's buffer changes; the stored key must not
    setarr(arr, "6330", &b);
    EXPECT_EQ(setarr(arr, "10000", &b), nullptr);
    EXPECT_EQ(setarr(arr, "10000", &c), &b);
    EXPECT_EQ(std::pair(cntarr(arr), getarr(arr, "5330")), std::pair(3, static_cast<void *>(&a)));
    Tbl *keys = keysarr(arr);
    std::string text;
    for (int i = 0; i < maxtbl(keys); i++) text.append(static_cast<char *>(gettbl(keys, i))) += ' ';
    EXPECT_EQ(text, "10000 5330 6330 ");
    freetbl(keys, nullptr);
    freearr(arr, [](void *) { ++freed; });
    EXPECT_EQ(freed, 3);

    Tbl *tbl = newtbl(1);
    EXPECT_EQ(settbl(tbl, -1, &a), 0);
    EXPECT_EQ(settbl(tbl, 3, &b), 3);
    EXPECT_EQ(settbl(tbl, -2, &c), -1);
    std::vector<void *> got;
    for (int i = -1; i <= maxtbl(tbl); i++) got.push_back(gettbl(tbl, i));
    EXPECT_EQ(got, (std::vector<void *>{nullptr, &a, nullptr, nullptr, &b, nullptr}));
    freetbl(tbl, nullptr);
}

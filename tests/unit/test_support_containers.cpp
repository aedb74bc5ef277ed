#include "support/containers.h"

#include <gtest/gtest.h>

// Arr: keys copied, a replaced value handed back, keys in text order only (the relay starts its ports in it). Tbl: -1
// appends, an index past the end grows the list with empty entries, reads out of range give nullptr. Both take nullptr.
TEST(Containers, ArrAndTbl) {
    static int a = 1, b = 2, c = 3, freed = 0;
    using Ptrs = std::vector<void *>;
    using Ints = std::vector<int>;
    Arr *arr = newarr(nullptr);
    char key[] = "5330";
    EXPECT_EQ((Ptrs{setarr(arr, key, &a), setarr(arr, "6330", &b), setarr(arr, "10000", &b), setarr(arr, "10000", &c),
                    setarr(nullptr, "1", &a), setarr(arr, nullptr, &a)}),
              (Ptrs{nullptr, nullptr, nullptr, &b, nullptr, nullptr}));
    key[0] = '9';  // the caller's buffer changes; the stored key must not
    EXPECT_EQ((Ptrs{getarr(arr, "5330"), getarr(arr, "10000"), getarr(arr, "9330"), getarr(arr, nullptr),
                    getarr(nullptr, "1"), gettbl(nullptr, 0)}), (Ptrs{&a, &c, nullptr, nullptr, nullptr, nullptr}));
    Tbl *keys = keysarr(arr), *none = keysarr(nullptr);
    std::string text;
    for (int i = 0; i < maxtbl(keys); i++) text.append(static_cast<char *>(gettbl(keys, i))) += ' ';
    EXPECT_EQ(text, "10000 5330 6330 ");
    EXPECT_EQ((Ints{cntarr(arr), cntarr(nullptr), maxtbl(none), !newarr(strcmp)}), (Ints{3, 0, 0, 1}));
    freetbl(keys, nullptr), freetbl(none, nullptr), freearr(nullptr, nullptr), freearr(arr, [](void *) { ++freed; });
    EXPECT_EQ(freed, 3);
    Tbl *tbl = newtbl(1);
    EXPECT_EQ((Ints{settbl(tbl, -1, &a), settbl(tbl, 3, &b), settbl(tbl, -2, &c), settbl(nullptr, 0, &c),
                    maxtbl(nullptr)}), (Ints{0, 3, -1, -1, 0}));
    Ptrs got;
    for (int i = -1; i <= maxtbl(tbl); i++) got.push_back(gettbl(tbl, i));
    EXPECT_EQ(got, (Ptrs{nullptr, &a, nullptr, nullptr, &b, nullptr}));
    freetbl(tbl, [](void *p) { freed += p == &b; }), freetbl(nullptr, nullptr);
    EXPECT_EQ(freed, 4);
}

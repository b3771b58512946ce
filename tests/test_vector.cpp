#include <gtest/gtest.h>

#include "nk_message.h"
#include "tVector.h"

namespace
{
struct tItem
{
    int key;
    int order;
};
bool greaterKey(tItem& a, tItem& b) { return a.key > b.key; }

int s_deleted = 0;
struct tCounted
{
    ~tCounted() { ++s_deleted; }
};
}

TEST(Vector, SortIsStableAscendingAndNeedsAComparator)
{
    tVector<tItem> v;
    v.push_back({3, 0});
    v.push_back({1, 1});
    v.push_back({3, 2});
    v.push_back({2, 3});
    v.push_back({1, 4});
    v.sort();  // no comparator: unchanged
    EXPECT_EQ(v[0].order, 0);
    EXPECT_EQ(v[4].order, 4);

    v.sort(greaterKey);
    int expectedOrder[] = {1, 4, 3, 0, 2};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(v[i].order, expectedOrder[i]) << i;

    tVector<unsigned long long> u;
    u.push_back(1ull << 63);
    u.push_back(1);
    u.push_back(5);
    u.sort(sortU64);
    EXPECT_EQ(u[0], 1u);
    EXPECT_EQ(u[2], 1ull << 63);
    EXPECT_EQ(u.get(3), 0u);
    unsigned long long a = 4;
    EXPECT_FALSE(sortU64(a, a));
}

TEST(Vector, ThreadSafeVariantOwnsWhenAsked)
{
    s_deleted = 0;
    {
        tVector_TS<tCounted*> owning(true);
        owning.push_back(new tCounted);
        owning.push_back(nullptr);
        owning.push_back(new tCounted);
        owning.clearVector();
        EXPECT_EQ(s_deleted, 2);
        EXPECT_TRUE(owning.empty());
        owning.push_back(new tCounted);
    }
    EXPECT_EQ(s_deleted, 3);

    tCounted keep;
    {
        tVector_TS<tCounted*> borrowing(false);
        borrowing.push_back(&keep);
        borrowing.clearVector();
        borrowing.push_back(&keep);
    }
    EXPECT_EQ(s_deleted, 3);
}

#include <gtest/gtest.h>

#include <random>

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
bool smallerKey(tItem& a, tItem& b) { return a.key < b.key; }

// The neighbour-exchange sort the vectors used before, as the reference for their order.
void referenceBubbleSort(std::vector<tItem>& v, bool (*belongsAfter)(tItem&, tItem&))
{
    for (std::size_t n = v.size(); n > 1;) {
        std::size_t last = 1;
        for (std::size_t i = 0; i + 1 < n; ++i)
            if (belongsAfter(v[i], v[i + 1])) {
                std::swap(v[i], v[i + 1]);
                last = i + 1;
            }
        n = last;
    }
}

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

TEST(Vector, SortGivesTheOrderOfTheNeighbourExchangeSortOnRandomInput)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 200; ++round) {
        const int n = static_cast<int>(rng() % 300);
        const int keys = 1 + static_cast<int>(rng() % 8);  // few keys: many equal elements
        bool (*cmp)(tItem&, tItem&) = round % 2 ? greaterKey : smallerKey;
        std::vector<tItem> input;
        for (int i = 0; i < n; ++i) input.push_back({static_cast<int>(rng() % keys), i});

        std::vector<tItem> expected = input;
        referenceBubbleSort(expected, cmp);
        tVector<tItem> plain;
        plain.assign(input.begin(), input.end());
        plain.sort(cmp);
        tVector_TS<tItem*> locked(false);
        for (tItem& item : input) locked.push_back(&item);
        locked.sort([](tItem*& a, tItem*& b) { return a->key > b->key; });

        std::vector<int> expectedAscending;
        {
            std::vector<tItem> asc = input;
            referenceBubbleSort(asc, greaterKey);
            for (tItem const& item : asc) expectedAscending.push_back(item.order);
        }
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(plain[i].order, expected[i].order) << "round " << round << " position " << i;
            ASSERT_EQ(locked[i]->order, expectedAscending[i]) << "round " << round << " position " << i;
        }
    }
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

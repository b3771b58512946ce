// Sorts of one thread-safe list from several threads. Run under ThreadSanitizer by `make tsan`.
#include <gtest/gtest.h>

#include <thread>

#include "tVector.h"

TEST(VectorConcurrency, ConcurrentSortsOfOneListStayConsistent)
{
    tVector_TS<unsigned long long*> list(true);
    for (unsigned long long i = 0; i < 300; ++i) list.push_back(new unsigned long long((i * 7919) % 300));
    auto cmp = [](unsigned long long*& a, unsigned long long*& b) { return *a > *b; };
    // Each thread hands its comparator over, as a schedule's sort does.
    std::thread t1([&] { list.sort(cmp); });
    std::thread t2([&] { list.sort(cmp); });
    t1.join();
    t2.join();
    for (unsigned i = 0; i < 300; ++i) EXPECT_EQ(*list[i], i);
}

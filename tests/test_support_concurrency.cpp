// tCriticalSection: re-entrancy for its holder, exclusion between threads.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tCriticalSection.h"

TEST(tCriticalSection, ReentrantForItsHolderOnly)
{
    tCriticalSection cs(true);
    cs.enter("outer");
    cs.enter("inner");
    EXPECT_TRUE(cs.tryEnter());
    bool otherGotIt = true;
    std::thread([&] { otherGotIt = cs.tryEnter(); }).join();
    EXPECT_FALSE(otherGotIt);
    cs.leave();
    cs.leave();
    cs.leave();
    std::thread([&] {
        otherGotIt = cs.tryEnter();
        if (otherGotIt) cs.leave();
    }).join();
    EXPECT_TRUE(otherGotIt);

    tCriticalSection plain(false);
    plain.enter();
    EXPECT_FALSE(plain.tryEnter());
    plain.leave();
}

TEST(tCriticalSection, CounterUnderContention)
{
    for (bool recursive : {true, false}) {
        tCriticalSection cs(recursive);
        long counter = 0;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < 20000; ++i) {
                    tCriticalSectionLock lock(cs);
                    ++counter;
                }
            });
        for (auto& th : threads) th.join();
        EXPECT_EQ(80000, counter);
    }
}

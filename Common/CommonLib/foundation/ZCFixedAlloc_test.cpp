#include "ZCFixedAlloc.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <latch>
#include <thread>
#include <vector>

namespace {

BYTE* Next(ZCFixedAlloc& a) {
    return static_cast<BYTE*>(a.Alloc());
}

TEST(ZCFixedAlloc, FillsABlockInAscendingOrderBeforeTakingAnother) {
    ZCFixedAlloc a(16, 4);
    BYTE* p[5];
    for (BYTE*& e : p)
        e = Next(a);
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(p[i], p[i - 1] + 16) << i;
    EXPECT_TRUE(p[4] < p[0] || p[4] >= p[3] + 16) << "fifth element inside the first block";

    // A freed element is the next one handed out.
    a.Free(p[2]);
    a.Free(nullptr);
    EXPECT_EQ(Next(a), p[2]);
    EXPECT_EQ(Next(a), p[4] + 16);

    // A stale free list would hand out the rest of a released block.
    a.FreeAll();
    BYTE* first = Next(a);
    EXPECT_EQ(Next(a), first + 16);

    // Small elements still hold an aligned free-list link.
    ZCFixedAlloc tiny(5, 2);
    EXPECT_EQ(tiny.ElementSize() % sizeof(void*), 0u);
    BYTE* lower = Next(tiny);
    EXPECT_EQ(Next(tiny), lower + tiny.ElementSize());
}

TEST(ZCFixedAlloc, ThreadsNeverShareAnElement) {
    constexpr int kThreads = 4, kRounds = 100000, kHeld = 7;
    ZCFixedAlloc a(4 * sizeof(uint64_t), 5);
    std::atomic<int> faults{0};
    std::latch start(kThreads);

    // Each holder stamps its elements and checks the stamps before giving
    // them back: an element handed to two threads at once loses a stamp.
    auto worker = [&](uint64_t id) {
        uint64_t* held[kHeld];
        start.arrive_and_wait();
        for (uint64_t round = 0; round < kRounds; ++round) {
            uint64_t stamp = id << 32 | round;
            for (uint64_t*& e : held) {
                e = static_cast<uint64_t*>(a.Alloc());
                if (!e) {
                    ++faults;
                    return;
                }
                std::fill(e, e + 4, stamp);
            }
            for (uint64_t* e : held) {
                if (std::count(e, e + 4, stamp) != 4)
                    ++faults;
                a.Free(e);
            }
        }
    };
    std::vector<std::thread> threads;
    for (uint64_t t = 1; t <= kThreads; ++t)
        threads.emplace_back(worker, t);
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(faults, 0);
}

} // namespace

#include "ZCFixedAlloc.h"
#include "ZCPlex.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <latch>
#include <thread>

TEST(ZCFixedAlloc, FillsABlockInAscendingOrderBeforeTakingAnother) {
    ZCFixedAlloc a(16, 4), tiny(5, 2);
    auto next = [](ZCFixedAlloc& from) { return static_cast<BYTE*>(from.Alloc()); };
    BYTE* p[5];
    for (BYTE*& e : p)
        e = next(a);
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(p[i], p[i - 1] + 16) << i;
    EXPECT_TRUE(p[4] < p[0] || p[4] >= p[3] + 16) << "fifth element inside the first block";
    a.Free(p[2]); // a freed element is the next one handed out
    a.Free(nullptr);
    EXPECT_EQ(next(a), p[2]);
    EXPECT_EQ(next(a), p[4] + 16);
    a.FreeAll(); // a stale free list would hand out the rest of a released block
    BYTE* first = next(a);
    EXPECT_EQ(next(a), first + 16);

    // Small elements still hold an aligned free-list link.
    BYTE* lower = next(tiny);
    EXPECT_EQ(tiny.ElementSize() % sizeof(void*), 0u);
    EXPECT_EQ(next(tiny), lower + tiny.ElementSize());
    ZCPlex* head = nullptr; // a block past the address space: none, the chain untouched
    EXPECT_TRUE(!ZCPlex::Create(head, 0xFFFFFFFF, 0xFFFFFFFF) && !head);
}

// Each holder stamps its elements and checks the stamps before giving them
// back: an element handed to two threads at once loses a stamp.
TEST(ZCFixedAlloc, ThreadsNeverShareAnElement) {
    ZCFixedAlloc a(4 * sizeof(uint64_t), 5);
    std::atomic<int> faults{0};
    std::latch start(4);
    std::vector<std::thread> threads;
    for (uint64_t id = 1; id <= 4; ++id)
        threads.emplace_back([&, id] {
            uint64_t* held[7];
            start.arrive_and_wait();
            for (uint64_t round = 0; round < 100000; ++round) {
                for (uint64_t*& e : held)
                    if ((e = static_cast<uint64_t*>(a.Alloc())) != nullptr)
                        std::fill(e, e + 4, id << 32 | round);
                    else
                        return void(++faults);
                for (uint64_t* e : held) {
                    faults += std::count(e, e + 4, id << 32 | round) != 4;
                    a.Free(e);
                }
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(faults, 0);
}

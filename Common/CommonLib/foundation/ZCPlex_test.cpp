#include "ZCPlex.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

TEST(ZCPlex, BlocksChainNewestFirst) {
    ZCPlex* head = nullptr;
    ZCPlex* first = ZCPlex::Create(head, 3, 24);
    ZCPlex* second = ZCPlex::Create(head, 5, 8);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(head, second);
    EXPECT_EQ(second->m_pNext, first);
    EXPECT_EQ(first->m_pNext, nullptr);
    memset(first->Data(), 0xAB, 3 * 24); // the whole element area is there

    // Too large for any build: no block, head unchanged.
    EXPECT_EQ(ZCPlex::Create(head, 0xFFFFFFFF, 0xFFFFFFFF), nullptr);
    EXPECT_EQ(head, second);
    head->FreeDataChain();
}

} // namespace

#include "ZBuffer.h"

#include "MemoryCap_test.h"
#include "qsMem.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string Contents(const ZBuffer& b) {
    return std::string(reinterpret_cast<const char*>(b.Data()), b.BytesUsed());
}

void Fill(ZBuffer& b, const char* text) {
    DWORD n = DWORD(strlen(text));
    memcpy(b.GetPtr(0, n), text, n);
    b.SetBytesUsed(n);
}

TEST(ZBuffer, ResizeKeepsWhatFitsAndCutsTheFillLevel) {
    ZBuffer b(20);
    Fill(b, "0123456789");
    const BYTE* before = b.Data();
    EXPECT_EQ(b.Resize(20), QS_OK);
    EXPECT_EQ(b.Data(), before);
    EXPECT_EQ(b.Resize(40), QS_OK);
    EXPECT_EQ(Contents(b), "0123456789");
    EXPECT_EQ(b.Resize(4), QS_OK);
    EXPECT_EQ(b.Size(), 4u);
    EXPECT_EQ(Contents(b), "0123");
    EXPECT_EQ(b.Resize(0), QS_OK);
    EXPECT_TRUE(!b.Data() && b.Size() == 0 && b.BytesUsed() == 0);

    ZBuffer c(20);
    EXPECT_EQ(c.IncreaseBufferSize(10, 16), QS_OK);
    EXPECT_EQ(c.Size(), 32u);
    // A total past 32 bits must not wrap round into a smaller buffer.
    EXPECT_EQ(c.IncreaseBufferSize(0xFFFFFFF0, 0), QS_E_OUT_OF_MEMORY);
    EXPECT_TRUE(c.AllocFailed());
    EXPECT_EQ(c.Size(), 32u);
}

TEST(ZBuffer, FillLevelAndPointersStayWithinCapacity) {
    ZBuffer b(16);
    EXPECT_EQ(b.SetBytesUsed(17), QS_E_INVALIDARG);
    EXPECT_EQ(b.IncreaseBytesUsed(10), QS_OK);
    EXPECT_EQ(b.IncreaseBytesUsed(7), QS_E_INVALIDARG);
    EXPECT_EQ(b.IncreaseBytesUsed(0xFFFFFFFF), QS_E_INVALIDARG);
    EXPECT_EQ(b.BytesUsed(), 10u);
    EXPECT_EQ(b.IncreaseBytesUsed(6), QS_OK);

    EXPECT_EQ(b.GetPtr(16, 0), b.Data() + 16);
    EXPECT_EQ(b.GetPtr(4, 13), nullptr);
    EXPECT_EQ(b.GetPtr(8, 0xFFFFFFFC), nullptr);
    EXPECT_EQ(ZBuffer().GetPtr(0, 0), nullptr);
}

TEST(ZBuffer, CopiesOwnTheirStorageAndAssignMoves) {
    ZBuffer a(32);
    Fill(a, "abc");
    ZBuffer copy(a);
    ZBuffer target(8);
    target = a;
    for (const ZBuffer* c : {&copy, &target}) {
        EXPECT_NE(c->Data(), a.Data());
        EXPECT_EQ(c->Size(), 32u);
        EXPECT_EQ(Contents(*c), "abc");
    }

    const BYTE* storage = a.Data();
    EXPECT_EQ(target.Assign(a), QS_OK);
    EXPECT_EQ(target.Data(), storage);
    EXPECT_EQ(Contents(target), "abc");
    EXPECT_TRUE(!a.Data() && a.Size() == 0 && a.BytesUsed() == 0);
    EXPECT_EQ(target.Assign(target), QS_OK);
    EXPECT_EQ(target.Data(), storage);

    EXPECT_EQ(target.Assign("text"), QS_OK);
    EXPECT_EQ(target.BytesUsed(), 5u);
    EXPECT_STREQ(reinterpret_cast<const char*>(target.Data()), "text");

    void* block = nullptr;
    ASSERT_EQ(qsMem::Alloc(64, &block), QS_OK);
    EXPECT_EQ(target.Assign(block, 64), QS_OK);
    DWORD size = 0;
    EXPECT_EQ(target.TakeOwnership(&size), block);
    EXPECT_EQ(size, 64u);
    EXPECT_EQ(target.Data(), nullptr);
    EXPECT_EQ(qsMem::Free(block), QS_OK);
}

TEST(ZBuffer, FailedAllocationKeepsContentsAndFlagsIt) {
    int rc = qsTest::RunWithMemoryCap([] {
        ZBuffer b(16);
        Fill(b, "keep me");
        const BYTE* before = b.Data();
        if (b.Resize(qsTest::kImpossibleSize) != QS_E_OUT_OF_MEMORY)
            return 1;
        if (!b.AllocFailed() || b.Data() != before || b.Size() != 16 || Contents(b) != "keep me")
            return 2;
        if (b.Resize(24) != QS_OK || b.AllocFailed() || Contents(b) != "keep me")
            return 3;
        ZBuffer huge(qsTest::kImpossibleSize);
        return huge.AllocFailed() && !huge.Data() && huge.Size() == 0 ? 0 : 4;
    });
    EXPECT_EQ(rc, 0);
}

} // namespace

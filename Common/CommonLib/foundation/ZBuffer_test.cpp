#include "ZBuffer.h"

#include "MemoryCap_test.h"

#include <cstring>
#include <gtest/gtest.h>

// "capacity/fill level:contents"
static std::string State(const ZBuffer& b) {
    return std::to_string(b.Size()) + "/" + std::to_string(b.BytesUsed()) + ":" +
           std::string(reinterpret_cast<const char*>(b.Data()), b.BytesUsed());
}

static void Fill(ZBuffer& b, const char* text) {
    memcpy(b.GetPtr(0, DWORD(strlen(text))), text, strlen(text));
    b.SetBytesUsed(DWORD(strlen(text)));
}

TEST(ZBuffer, CapacityAndFillLevel) {
    ZBuffer b(20);
    Fill(b, "0123456789");
    const BYTE* before = b.Data();
    std::pair<DWORD, const char*> resizes[] = {
        {20, "20/10:0123456789"}, {40, "40/10:0123456789"}, {4, "4/4:0123"}, {0, "0/0:"}};
    for (auto [size, state] : resizes) {
        EXPECT_EQ(b.Resize(size), QS_OK);
        EXPECT_EQ(State(b), state);
        EXPECT_TRUE(size != 20 || b.Data() == before); // the same size: left alone
    }
    EXPECT_TRUE(!b.Data() && !b.GetPtr(0, 0));

    ZBuffer c(20);
    EXPECT_EQ(c.IncreaseBufferSize(10, 16), QS_OK);
    EXPECT_EQ(c.Size(), 32u);
    // A total past 32 bits must not wrap round into a smaller buffer.
    EXPECT_EQ(c.IncreaseBufferSize(0xFFFFFFF0, 0), QS_E_OUT_OF_MEMORY);
    EXPECT_TRUE(c.AllocFailed() && c.Size() == 32);

    // Nothing may pass the capacity, also by wrapping round.
    EXPECT_EQ(c.SetBytesUsed(33), QS_E_INVALIDARG);
    EXPECT_EQ(c.IncreaseBytesUsed(30), QS_OK);
    EXPECT_EQ(c.IncreaseBytesUsed(3), QS_E_INVALIDARG);
    EXPECT_EQ(c.IncreaseBytesUsed(0xFFFFFFFF), QS_E_INVALIDARG);
    EXPECT_EQ(c.BytesUsed(), 30u);
    EXPECT_TRUE(c.GetPtr(32, 0) == c.Data() + 32 && !c.GetPtr(20, 13) && !c.GetPtr(8, 0xFFFFFFFC));
}

TEST(ZBuffer, CopiesOwnTheirStorageAndAssignMoves) {
    ZBuffer a(32), target(8);
    Fill(a, "abc");
    ZBuffer copy(a);
    target = a;
    EXPECT_TRUE(copy.Data() != a.Data() && target.Data() != a.Data());
    EXPECT_EQ(State(copy) + " " + State(target), "32/3:abc 32/3:abc");

    const BYTE* storage = a.Data();
    EXPECT_EQ(target.Assign(a), QS_OK);
    EXPECT_EQ(target.Assign(target), QS_OK);
    EXPECT_EQ(State(target) + " " + State(a), "32/3:abc 0/0:");
    EXPECT_TRUE(target.Data() == storage && !a.Data());

    EXPECT_EQ(target.Assign("text"), QS_OK);
    EXPECT_EQ(State(target), std::string("5/5:text", 9));
}

TEST(ZBuffer, FailedAllocationKeepsContentsAndFlagsIt) {
    EXPECT_EQ(qsTest::RunWithMemoryCap([] {
                  ZBuffer b(16), huge(qsTest::kImpossibleSize);
                  Fill(b, "keep me");
                  const BYTE* before = b.Data();
                  if (b.Resize(qsTest::kImpossibleSize) != QS_E_OUT_OF_MEMORY || !b.AllocFailed())
                      return 1;
                  if (b.Data() != before || State(b) != "16/7:keep me")
                      return 2;
                  if (b.Resize(24) != QS_OK || b.AllocFailed() || State(b) != "24/7:keep me")
                      return 3;
                  return huge.AllocFailed() && !huge.Data() && huge.Size() == 0 ? 0 : 4;
              }),
              0);
}

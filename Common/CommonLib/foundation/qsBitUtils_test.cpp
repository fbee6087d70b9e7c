#include "qsBitUtils.h"

#include <gtest/gtest.h>

namespace {

using qsBitUtils::ReverseEndiannessOf;

TEST(qsBitUtils, CountsBitsAndReversesBytes) {
    EXPECT_EQ(qsBitUtils::CountBitsSet(0), 0u);
    EXPECT_EQ(qsBitUtils::CountBitsSet(0xFFFFFFFF), 32u);
    EXPECT_EQ(qsBitUtils::CountBitsSet(0x80000001), 2u);

    EXPECT_EQ(ReverseEndiannessOf(uint16_t(0x1234)), 0x3412);
    EXPECT_EQ(ReverseEndiannessOf(int32_t(-2)), int32_t(0xFEFFFFFF));
    EXPECT_EQ(ReverseEndiannessOf(int64_t(-256)), int64_t(0x00FFFFFFFFFFFFFF));
    // The design's spellings, whose widths differ between builds.
    EXPECT_EQ(ReverseEndiannessOf(0x01020304UL), sizeof(long) == 4 ? 0x04030201UL : 0x0403020100000000UL);
    EXPECT_EQ(ReverseEndiannessOf(1LL), 1LL << 56);
    // The pointer value itself is reversed; nothing is read through it.
    const void* p = reinterpret_cast<const void*>(uintptr_t(0x12));
    EXPECT_EQ(uintptr_t(ReverseEndiannessOf(p)), uintptr_t(0x12) << (8 * (sizeof p - 1)));
}

TEST(qsBitUtils, FileTimeHalvesSwapPlaces) {
    t_FILETIME_UInt64 t;
    t.ft = {0x01020304, 0x05060708};
    t_FILETIME_UInt64 r = ReverseEndiannessOf(t);
    EXPECT_EQ(r.ft.dwLowDateTime, 0x08070605u);
    EXPECT_EQ(r.ft.dwHighDateTime, 0x04030201u);
}

} // namespace

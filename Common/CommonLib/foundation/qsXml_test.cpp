#include "qsXml.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace {

template <typename T> std::string Text(const T& v) {
    char out[2 * sizeof(T) + 1];
    EXPECT_EQ(qsXml::NumberToString(v, out), QS_OK);
    return out;
}

// Compares stored bytes, which covers NaNs and long double padding too.
template <typename T> void ExpectRoundTrip(std::initializer_list<T> values) {
    for (const T& v : values) {
        std::string text = Text(v);
        T back;
        memset(&back, 0x5A, sizeof back);
        ASSERT_EQ(qsXml::NumberFromString(back, text.c_str()), QS_OK) << text;
        EXPECT_EQ(memcmp(&back, &v, sizeof v), 0) << text;
    }
    // All storage bytes set: the text spans the whole storage, and one
    // digit more is too long.
    T ones;
    memset(&ones, 0xFF, sizeof ones);
    EXPECT_EQ(Text(ones), std::string(2 * sizeof(T), 'f'));
    T back;
    EXPECT_EQ(qsXml::NumberFromString(back, std::string(2 * sizeof(T) + 1, '0').c_str()),
              QS_E_BAD_NUMBER_TEXT);
}

TEST(qsXml, TextsAreBitPatternsWithoutLeadingZeros) {
    EXPECT_EQ(Text(int32_t(255)), "ff");
    EXPECT_EQ(Text(int32_t(16777216)), "1000000");
    EXPECT_EQ(Text(int32_t(0)), "0");
    EXPECT_EQ(Text(int32_t(-1)), "ffffffff");
    EXPECT_EQ(Text(true), "1");
    EXPECT_EQ(Text(1.0f), "3f800000");
    EXPECT_EQ(Text(-2.0), "c000000000000000");
}

TEST(qsXml, EveryTypeRoundTrips) {
    using F = std::numeric_limits<float>;
    using D = std::numeric_limits<double>;
    using L = std::numeric_limits<long double>;
    ExpectRoundTrip<bool>({false, true});
    ExpectRoundTrip<int32_t>({INT32_MIN, -2, 0, 0x10, INT32_MAX});
    ExpectRoundTrip<uint32_t>({0u, 0x100u, UINT32_MAX});
    ExpectRoundTrip<int64_t>({INT64_MIN, -1, 0x123456789, INT64_MAX});
    ExpectRoundTrip<uint64_t>({0, uint64_t(1) << 63, UINT64_MAX});
    ExpectRoundTrip<float>({-0.0f, F::denorm_min(), -F::infinity(), F::quiet_NaN()});
    ExpectRoundTrip<double>({-1e300, D::infinity(), -D::quiet_NaN()});
    ExpectRoundTrip<long double>({-1.0L, L::max(), -L::infinity(), L::quiet_NaN()});
    EXPECT_EQ(sizeof(long double), sizeof(void*) == 8 ? 16u : 12u);
}

TEST(qsXml, ReadingRejectsAnythingButHexDigits) {
    bool flag;
    EXPECT_EQ(qsXml::NumberFromString(flag, "1ff"), QS_E_BAD_NUMBER_TEXT);
    ASSERT_EQ(qsXml::NumberFromString(flag, "ff"), QS_OK);
    EXPECT_EQ(*reinterpret_cast<unsigned char*>(&flag), 0xFF);

    int32_t v;
    for (const char* bad : {"0x1", "-1", "+1", " 1", "1 ", "g", "123456789"})
        EXPECT_EQ(qsXml::NumberFromString(v, bad), QS_E_BAD_NUMBER_TEXT) << bad;
    EXPECT_EQ(qsXml::NumberFromString(v, nullptr), QS_E_BAD_NUMBER_TEXT);
    ASSERT_EQ(qsXml::NumberFromString(v, "AbC"), QS_OK);
    EXPECT_EQ(v, 0xABC);

    int64_t wide = -1; // zeroed before the digits land
    ASSERT_EQ(qsXml::NumberFromString(wide, "1"), QS_OK);
    EXPECT_EQ(wide, 1);
    wide = -1;
    ASSERT_EQ(qsXml::NumberFromString(wide, ""), QS_OK);
    EXPECT_EQ(wide, 0);
}

} // namespace

#include "qsXml.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

template <typename T> static std::string Text(const T& v) {
    char out[2 * sizeof(T) + 1];
    EXPECT_EQ(qsXml::NumberToString(v, out), QS_OK);
    return out;
}

// Stored bytes are compared, which covers NaNs and long double padding.  All
// bytes set spell the whole storage; one digit more is too long.
template <typename T> static void ExpectRoundTrip(std::initializer_list<T> values) {
    T back, ones;
    for (const T& v : values) {
        memset(&back, 0x5A, sizeof back);
        ASSERT_EQ(qsXml::NumberFromString(back, Text(v).c_str()), QS_OK) << Text(v);
        EXPECT_EQ(memcmp(&back, &v, sizeof v), 0) << Text(v);
    }
    memset(&ones, 0xFF, sizeof ones);
    EXPECT_EQ(Text(ones), std::string(2 * sizeof(T), 'f'));
    EXPECT_EQ(qsXml::NumberFromString(back, std::string(2 * sizeof(T) + 1, '0').c_str()),
              QS_E_BAD_NUMBER_TEXT);
}

TEST(qsXml, EveryTypeRoundTripsAsItsBitPattern) {
    EXPECT_EQ(Text(int32_t(1 << 24)) + " " + Text(0) + " " + Text(-1) + " " + Text(1.0f),
              "1000000 0 ffffffff 3f800000");
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
}

TEST(qsXml, ReadingRejectsAnythingButHexDigits) {
    int32_t v;
    for (const char* bad : {"0x1", "-1", "+1", " 1", "1 ", "g", "123456789"})
        EXPECT_EQ(qsXml::NumberFromString(v, bad), QS_E_BAD_NUMBER_TEXT) << bad;
    EXPECT_EQ(qsXml::NumberFromString(v, nullptr), QS_E_BAD_NUMBER_TEXT);
    EXPECT_TRUE(qsXml::NumberFromString(v, "AbC") == QS_OK && v == 0xABC);
    int64_t wide = -1; // zeroed before the digits land
    EXPECT_TRUE(qsXml::NumberFromString(wide, "1") == QS_OK && wide == 1);
    wide = -1;
    EXPECT_TRUE(qsXml::NumberFromString(wide, "") == QS_OK && wide == 0);
}

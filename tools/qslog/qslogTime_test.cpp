// Record times rendered as local time, and the times a user types, in a
// fixed zone one hour east of UTC without summer time.
#include "qslogTime.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace qslog;

namespace {

constexpr int64_t kMin = 60 * 1000;
constexpr int64_t kNow = int64_t(1795266187) * 1000 + 123; // 2026-11-21 14:03:07.123 local
constexpr int64_t kMidnight = int64_t(1795219200 - 3600) * 1000;

class QslogTime : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "XXX-1", 1);
        tzset();
    }
};

} // namespace

// Within one second only the fraction changes; the next second is converted
// afresh, and before 1970 the fraction still counts upwards.  The long form
// (JSON, raw) carries microseconds.
TEST_F(QslogTime, RendersLocalTimeWithMilliseconds) {
    EXPECT_EQ(FileTimeToUnixMs(116444736000000000ULL), 0);
    EXPECT_EQ(UnixMsToFileTime(1), 116444736000010000ULL);
    const uint64_t now = UnixMsToFileTime(kNow);
    TimeFormatter f;
    EXPECT_EQ(f.Short(now), "2026-11-21 14:03:07.123");
    EXPECT_EQ(f.Iso(now + 4567), "2026-11-21T14:03:07.123456+01:00");
    EXPECT_EQ(f.Short(now + 8760000), "2026-11-21 14:03:07.999");
    EXPECT_EQ(f.Short(now + 8770000), "2026-11-21 14:03:08.000");
    EXPECT_EQ(f.Short(UnixMsToFileTime(-1)), "1970-01-01 00:59:59.999");
    EXPECT_EQ(f.Iso(UnixMsToFileTime(0) - 10), "1970-01-01T00:59:59.999999+01:00");
}

// Clock times and @ times also say how long a stretch they name (their last
// field), so that an end copied from the output takes in that millisecond.
TEST_F(QslogTime, ReadsWhatUsersType) {
    constexpr uint64_t kSec = 10000000, kMs = 10000;
    const std::tuple<const char*, int64_t, uint64_t> good[] = {
        {"now", kNow, 0},
        {"10 min ago", kNow - 10 * kMin, 0},
        {"  1 hour   ago ", kNow - 60 * kMin, 0},
        {"-2h", kNow - 120 * kMin, 0},
        {"+3d", kNow + 3 * 1440 * kMin, 0},
        {"1 week ago", kNow - 7 * 1440 * kMin, 0},
        {"today", kMidnight, 0},
        {"yesterday", kMidnight - 1440 * kMin, 0},
        {"2026-11-21", kMidnight, 0},
        {"2026-11-21 14:03", kNow - 7123, 60 * kSec},
        {"2026-11-21 14:03:07.5", kNow + 377, 100 * kMs},
        {"2026-11-21T14:03:07.123", kNow, kMs},
        {"14:03:07", kNow - 123, kSec},
        {"@1795266187", kNow - 123, kSec},
    };
    for (auto [text, expected, expectedSpan] : good) {
        uint64_t out = 0, span = 99;
        std::string error;
        EXPECT_TRUE(ParseTime(text, UnixMsToFileTime(kNow), out, span, error))
            << text << ": " << error;
        EXPECT_EQ(FileTimeToUnixMs(out), expected) << text;
        EXPECT_EQ(span, expectedSpan) << text;
    }
    // Seven digits reach the FILETIME's own unit; more are dropped.
    for (const char* text : {"14:03:07.1234567", "14:03:07.123456789"}) {
        uint64_t out = 0, span = 0;
        std::string error;
        ASSERT_TRUE(ParseTime(text, UnixMsToFileTime(kNow), out, span, error)) << error;
        EXPECT_EQ(out, UnixMsToFileTime(kNow) + 4567) << text;
        EXPECT_EQ(span, 1u) << text;
    }
    for (const char* bad :
         {"", "soon", "10", "10 min", "10 parsecs ago", "-h", "2026-13-01", "2026-11-21 25:00",
          "14:3", "2026/11/21", "@12x", "+10 min ago", "14:03:07."}) {
        uint64_t out = 0, span = 0;
        std::string error;
        EXPECT_FALSE(ParseTime(bad, UnixMsToFileTime(kNow), out, span, error)) << "'" << bad << "'";
        EXPECT_TRUE(error.find("cannot read time") != std::string::npos) << error;
    }
}

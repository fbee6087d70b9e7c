#include "qslogTime.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using namespace qslog;

namespace {

constexpr int64_t kMin = 60 * 1000;

// Runs the test body in a fixed time zone, one hour east of UTC without
// summer time, so that local times are known.
class QslogTime : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = getenv("TZ");
        m_Saved = tz ? tz : "";
        m_Had = tz != nullptr;
        setenv("TZ", "XXX-1", 1);
        tzset();
    }
    void TearDown() override {
        if (m_Had)
            setenv("TZ", m_Saved.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    // 2026-11-21 14:03:07.123 local (13:03:07.123 UTC).
    static uint64_t Noonish() { return UnixMsToFileTime(int64_t(1795266187) * 1000 + 123); }

    static int64_t Parsed(const char* text) {
        uint64_t out = 0;
        std::string error;
        EXPECT_TRUE(ParseTime(text, Noonish(), out, error)) << text << ": " << error;
        return FileTimeToUnixMs(out);
    }

    std::string m_Saved;
    bool m_Had = false;
};

} // namespace

TEST_F(QslogTime, RendersLocalTimeWithMilliseconds) {
    TimeFormatter f;
    EXPECT_EQ(f.Short(Noonish()), "2026-11-21 14:03:07.123");
    EXPECT_EQ(f.Iso(Noonish()), "2026-11-21T14:03:07.123+01:00");
    // Within the same second only the milliseconds change; the next second
    // is converted afresh.
    EXPECT_EQ(f.Short(Noonish() + 8760000), "2026-11-21 14:03:07.999");
    EXPECT_EQ(f.Short(Noonish() + 8770000), "2026-11-21 14:03:08.000");
    EXPECT_EQ(f.Short(Noonish()), "2026-11-21 14:03:07.123");
    // FILETIME 0 is 1601; before 1970 the milliseconds still count upwards.
    EXPECT_EQ(f.Short(UnixMsToFileTime(-1)), "1970-01-01 00:59:59.999");
    EXPECT_EQ(f.Short(0).size(), 23u);
}

TEST_F(QslogTime, ConvertsBetweenFileTimeAndUnixTime) {
    EXPECT_EQ(FileTimeToUnixMs(116444736000000000ULL), 0);
    EXPECT_EQ(UnixMsToFileTime(1), 116444736000010000ULL);
    EXPECT_EQ(FileTimeToUnixMs(UnixMsToFileTime(1795266187123)), 1795266187123);
    int64_t now = FileTimeToUnixMs(NowFileTime());
    EXPECT_NEAR(double(now), double(time(nullptr)) * 1000, 2000);
}

TEST_F(QslogTime, ReadsRelativeTimes) {
    const int64_t now = FileTimeToUnixMs(Noonish());
    EXPECT_EQ(Parsed("now"), now);
    EXPECT_EQ(Parsed("10 min ago"), now - 10 * kMin);
    EXPECT_EQ(Parsed("10min ago"), now - 10 * kMin);
    EXPECT_EQ(Parsed("  1 hour   ago "), now - 60 * kMin);
    EXPECT_EQ(Parsed("-2h"), now - 120 * kMin);
    EXPECT_EQ(Parsed("- 30 s"), now - 30000);
    EXPECT_EQ(Parsed("+3d"), now + 3 * 1440 * kMin);
    EXPECT_EQ(Parsed("1 week ago"), now - 7 * 1440 * kMin);
    EXPECT_EQ(Parsed("5 seconds ago"), now - 5000);
}

TEST_F(QslogTime, ReadsAbsoluteTimesAsLocalTime) {
    const int64_t midnight = int64_t(1795219200 - 3600) * 1000; // 2026-11-21 00:00 local
    EXPECT_EQ(Parsed("today"), midnight);
    EXPECT_EQ(Parsed("yesterday"), midnight - 1440 * kMin);
    EXPECT_EQ(Parsed("tomorrow"), midnight + 1440 * kMin);
    EXPECT_EQ(Parsed("2026-11-21"), midnight);
    EXPECT_EQ(Parsed("2026-11-21 14:03"), FileTimeToUnixMs(Noonish()) - 7123);
    EXPECT_EQ(Parsed("2026-11-21T14:03:07"), FileTimeToUnixMs(Noonish()) - 123);
    EXPECT_EQ(Parsed("2026-11-21 14:03:07.123"), FileTimeToUnixMs(Noonish()));
    EXPECT_EQ(Parsed("2026-11-21 14:03:07.5"), FileTimeToUnixMs(Noonish()) + 377);
    EXPECT_EQ(Parsed("14:03:07"), FileTimeToUnixMs(Noonish()) - 123);
    EXPECT_EQ(Parsed("00:00"), midnight);
    EXPECT_EQ(Parsed("@1795266187"), int64_t(1795266187) * 1000);
}

TEST_F(QslogTime, RefusesWhatItCannotRead) {
    for (const char* bad : {"", "soon", "10", "10 min", "10 parsecs ago", "ago", "-h", "2026-13-01",
                            "2026-11-21 25:00", "2026-11-21 14", "14:3", "2026/11/21", "@", "@12x",
                            "10 min ago later", "+10 min ago"}) {
        uint64_t out = 0;
        std::string error;
        EXPECT_FALSE(ParseTime(bad, Noonish(), out, error)) << "'" << bad << "'";
        EXPECT_NE(error.find("cannot read time"), std::string::npos);
    }
}

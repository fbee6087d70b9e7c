#include "ZCOleDateTime.h"
#include "qsWinApi.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

constexpr double kSecond = 1.0 / 86400.0;

::testing::AssertionResult HasFields(const ZCOleDateTime& dt, int y, int mo, int d, int h, int mi,
                                     int s) {
    if (dt.GetStatus() != ZCOleDateTime::valid)
        return ::testing::AssertionFailure() << "status " << dt.GetStatus();
    int got[6] = {dt.GetYear(), dt.GetMonth(),  dt.GetDay(),
                  dt.GetHour(), dt.GetMinute(), dt.GetSecond()};
    int want[6] = {y, mo, d, h, mi, s};
    for (int i = 0; i < 6; i++)
        if (got[i] != want[i])
            return ::testing::AssertionFailure()
                   << "got " << got[0] << "-" << got[1] << "-" << got[2] << " " << got[3] << ":"
                   << got[4] << ":" << got[5] << " for m_dt " << dt.m_dt;
    return ::testing::AssertionSuccess();
}

// A fixed zone five hours west of UTC, without daylight saving; each test
// runs in its own process, so the change stays local to it.
void UseZoneUtcMinus5() {
    setenv("TZ", "<-05>5", 1);
    tzset();
}

} // namespace

// --- Calendar ---------------------------------------------------------------

// Every day of the range, walked with a leap rule written out here, must
// encode to consecutive day numbers through the known anchors and decode back.
TEST(ZCOleDateTimeCalendar, EveryDayOfTheRangeRoundTrips) {
    double expected = -657434.0; // 100-01-01
    int dayOfWeek = ZCOleDateTime(100, 1, 1, 0, 0, 0).GetDayOfWeek();
    int failures = 0;
    for (int y = 100; y <= 9999; y++) {
        bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
        int lengths[12] = {31, leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        int dayOfYear = 1;
        for (int m = 1; m <= 12; m++)
            for (int d = 1; d <= lengths[m - 1]; d++, dayOfYear++, expected += 1.0) {
                ZCOleDateTime dt(y, m, d, 0, 0, 0);
                bool ok = dt.m_dt == expected && dt.GetYear() == y && dt.GetMonth() == m &&
                          dt.GetDay() == d && dt.GetDayOfYear() == dayOfYear &&
                          dt.GetDayOfWeek() == dayOfWeek;
                if (!ok && ++failures < 5)
                    ADD_FAILURE() << y << "-" << m << "-" << d << " m_dt " << dt.m_dt;
                dayOfWeek = dayOfWeek % 7 + 1;
            }
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(expected, 2958466.0); // one past 9999-12-31
    EXPECT_EQ(ZCOleDateTime(1900, 1, 1, 0, 0, 0).m_dt, 2.0);
    EXPECT_EQ(ZCOleDateTime(2000, 1, 1, 0, 0, 0).m_dt, 36526.0);
    EXPECT_EQ(ZCOleDateTime(2000, 1, 1, 0, 0, 0).GetDayOfWeek(), 7); // a Saturday
}

TEST(ZCOleDateTimeCalendar, LeapDaysAndInvalidFields) {
    EXPECT_TRUE(HasFields(ZCOleDateTime(2000, 2, 29, 12, 0, 0), 2000, 2, 29, 12, 0, 0));
    EXPECT_EQ(ZCOleDateTime(2000, 3, 1, 0, 0, 0) - ZCOleDateTime(2000, 2, 28, 0, 0, 0),
              ZCOleDateTimeSpan(2, 0, 0, 0));
    EXPECT_EQ(ZCOleDateTime(1900, 3, 1, 0, 0, 0) - ZCOleDateTime(1900, 2, 28, 0, 0, 0),
              ZCOleDateTimeSpan(1, 0, 0, 0));
    EXPECT_EQ(ZCOleDateTime(2100, 12, 31, 0, 0, 0).GetDayOfYear(), 365);
    EXPECT_EQ(ZCOleDateTime(2000, 12, 31, 0, 0, 0).GetDayOfYear(), 366);

    const int bad[][6] = {{1900, 2, 29, 0, 0, 0}, {2100, 2, 29, 0, 0, 0}, {2001, 13, 1, 0, 0, 0},
                          {2001, 0, 1, 0, 0, 0},  {2001, 4, 31, 0, 0, 0}, {99, 12, 31, 0, 0, 0},
                          {10000, 1, 1, 0, 0, 0}, {2001, 1, 0, 0, 0, 0},  {2001, 1, 1, 24, 0, 0},
                          {2001, 1, 1, 0, 60, 0}, {2001, 1, 1, 0, 0, 60}, {2001, 1, 1, -1, 0, 0}};
    for (auto& f : bad) {
        ZCOleDateTime dt(2001, 1, 1, 0, 0, 0);
        EXPECT_NE(dt.SetDateTime(f[0], f[1], f[2], f[3], f[4], f[5]), 0) << f[0] << "-" << f[1];
        EXPECT_EQ(dt.GetStatus(), ZCOleDateTime::invalid);
        EXPECT_EQ(dt.GetYear(), -1);
        EXPECT_EQ(dt.Format("%Y"), "Invalid DateTime");
    }
    ZCOleDateTime dt;
    EXPECT_EQ(dt.SetDate(2004, 2, 29), 0);
    EXPECT_EQ(dt.SetTime(23, 59, 59), 0);
    EXPECT_TRUE(HasFields(dt, 1899, 12, 30, 23, 59, 59));
}

TEST(ZCOleDateTimeCalendar, EndsOfTheRange) {
    ZCOleDateTime first(100, 1, 1, 0, 0, 0), last(9999, 12, 31, 23, 59, 59);
    EXPECT_TRUE(HasFields(first, 100, 1, 1, 0, 0, 0));
    EXPECT_TRUE(HasFields(last, 9999, 12, 31, 23, 59, 59));
    EXPECT_TRUE(HasFields(ZCOleDateTime(100, 1, 1, 23, 59, 59), 100, 1, 1, 23, 59, 59));
    ZCOleDateTimeSpan second(0, 0, 0, 1);
    EXPECT_EQ((first - second).GetStatus(), ZCOleDateTime::invalid);
    EXPECT_EQ((last + second).GetStatus(), ZCOleDateTime::invalid);
    EXPECT_EQ(ZCOleDateTime(2958466.0).GetStatus(), ZCOleDateTime::invalid);
    EXPECT_EQ(ZCOleDateTime(-657435.0).GetStatus(), ZCOleDateTime::invalid);
    EXPECT_EQ((last - first).GetTotalSeconds(), 3615900.0 * 86400 - 1);
}

// --- The 1899-12-30 boundary ------------------------------------------------

TEST(ZCOleDateTimeBoundary, NegativeDaysKeepAPositiveTimeOfDay) {
    EXPECT_TRUE(HasFields(ZCOleDateTime(0.0), 1899, 12, 30, 0, 0, 0));
    EXPECT_TRUE(HasFields(ZCOleDateTime(-0.25), 1899, 12, 30, 6, 0, 0));
    EXPECT_TRUE(HasFields(ZCOleDateTime(-1.25), 1899, 12, 29, 6, 0, 0));
    EXPECT_TRUE(HasFields(ZCOleDateTime(-1.75), 1899, 12, 29, 18, 0, 0));
    EXPECT_EQ(ZCOleDateTime(1899, 12, 29, 6, 0, 0).m_dt, -1.25);
    EXPECT_EQ(ZCOleDateTime(1800, 1, 1, 12, 0, 0).m_dt, -36522.5);
    EXPECT_EQ(ZCOleDateTime(-0.25), ZCOleDateTime(0.25));
    // By the raw doubles -1.75 < -1.25; in time 18:00 is after 06:00.
    EXPECT_GT(ZCOleDateTime(-1.75), ZCOleDateTime(-1.25));
    EXPECT_LT(ZCOleDateTime(-1.25), ZCOleDateTime(0.0));
    EXPECT_EQ(ZCOleDateTime(-1.25).GetDayOfWeek(), 6); // Friday
}

TEST(ZCOleDateTimeBoundary, ArithmeticAcrossTheBoundary) {
    ZCOleDateTime t(1899, 12, 30, 3, 0, 0);
    ZCOleDateTimeSpan sixHours(0, 6, 0, 0);
    ZCOleDateTime back = t - sixHours;
    EXPECT_TRUE(HasFields(back, 1899, 12, 29, 21, 0, 0));
    EXPECT_EQ(back.m_dt, -1.875);
    EXPECT_EQ((back + sixHours).m_dt, 0.125);
    EXPECT_EQ((ZCOleDateTime(0.25) - ZCOleDateTime(-1.25)).GetTotalHours(), 24.0);
    EXPECT_EQ((ZCOleDateTime(-1.25) - ZCOleDateTime(-2.75)).GetTotalHours(), 12.0);
    // Just before midnight of day 0, where the encoding's fraction nears 1.
    EXPECT_TRUE(HasFields(ZCOleDateTime(0.0) - ZCOleDateTimeSpan(1e-16), 1899, 12, 30, 0, 0, 0));
    ZCOleDateTime walk(1899, 12, 28, 23, 0, 0);
    for (int i = 0; i < 72; i++)
        walk += ZCOleDateTimeSpan(0, 1, 0, 0);
    EXPECT_TRUE(HasFields(walk, 1899, 12, 31, 23, 0, 0));
    for (int i = 0; i < 72; i++)
        walk -= ZCOleDateTimeSpan(0, 1, 0, 0);
    EXPECT_TRUE(HasFields(walk, 1899, 12, 28, 23, 0, 0));
}

// --- Rounding ---------------------------------------------------------------

TEST(ZCOleDateTimeRounding, NearestSecondNeverSixty) {
    ZCOleDateTime noon(2004, 2, 29, 12, 0, 5);
    EXPECT_TRUE(HasFields(ZCOleDateTime(noon.m_dt - 1e-10), 2004, 2, 29, 12, 0, 5));
    EXPECT_TRUE(HasFields(ZCOleDateTime(noon.m_dt + 0.4 * kSecond), 2004, 2, 29, 12, 0, 5));
    EXPECT_TRUE(HasFields(ZCOleDateTime(noon.m_dt + 0.6 * kSecond), 2004, 2, 29, 12, 0, 6));
    double lastInstant = ZCOleDateTime(2004, 2, 29, 0, 0, 0).m_dt + 1.0 - 0.1 * kSecond;
    EXPECT_TRUE(HasFields(ZCOleDateTime(lastInstant), 2004, 3, 1, 0, 0, 0));
    EXPECT_TRUE(HasFields(ZCOleDateTime(-1.0 - (1 - 0.1 * kSecond)), 1899, 12, 30, 0, 0, 0));
    // Ten thousand steps of one second accumulate floating error.
    ZCOleDateTime t(1999, 12, 31, 23, 0, 0);
    for (int i = 0; i < 10000; i++) {
        t += ZCOleDateTimeSpan(kSecond);
        ASSERT_NE(t.GetSecond(), 60);
    }
    EXPECT_TRUE(HasFields(t, 2000, 1, 1, 1, 46, 40));
}

// --- Conversions and text ---------------------------------------------------

TEST(ZCOleDateTimeConvert, TimeTAndFileTimeAreLocal) {
    UseZoneUtcMinus5();
    EXPECT_TRUE(HasFields(ZCOleDateTime(time_t(0)), 1969, 12, 31, 19, 0, 0));
    EXPECT_TRUE(HasFields(ZCOleDateTime(time_t(951782400)), 2000, 2, 28, 19, 0, 0));
    FILETIME ft = qsUInt64ToFileTime(QS_FILETIME_UNIX_EPOCH + 15000000); // 1.5 s
    EXPECT_TRUE(HasFields(ZCOleDateTime(ft), 1969, 12, 31, 19, 0, 1));
    EXPECT_TRUE(HasFields(ZCOleDateTime(qsUInt64ToFileTime(0)), 1600, 12, 31, 19, 0, 0));
    SYSTEMTIME st{2100, 2, 0, 28, 13, 14, 15, 999};
    ZCOleDateTime fromSt(st);
    EXPECT_TRUE(HasFields(fromSt, 2100, 2, 28, 13, 14, 15));
    SYSTEMTIME out{};
    ASSERT_TRUE(fromSt.GetAsSystemTime(out));
    EXPECT_EQ(out.wDayOfWeek, 0); // a Sunday
    EXPECT_EQ(out.wMilliseconds, 0);
    EXPECT_EQ(ZCOleDateTime(out), fromSt);
    st.wMonth = 2;
    st.wDay = 29;
    EXPECT_EQ(ZCOleDateTime(st).GetStatus(), ZCOleDateTime::invalid);

    time_t before = time(nullptr);
    ZCOleDateTime now = ZCOleDateTime::GetCurrentTime();
    ZCOleDateTimeSpan skew = now - ZCOleDateTime(before);
    EXPECT_GE(skew.GetTotalSeconds(), 0);
    EXPECT_LE(skew.GetTotalSeconds(), 2);
    DWORD platform = GetTickCount();
    DWORD ticks = ZCOleDateTime::GetTickCount() - platform;
    EXPECT_TRUE(ticks == 0 || ticks == 1000) << ticks;
}

TEST(ZCOleDateTimeConvert, FormatPatternsAndStatusTexts) {
    EXPECT_EQ(ZCOleDateTime(-1.25).Format("%Y-%m-%d %H:%M:%S %A"), "1899-12-29 06:00:00 Friday");
    EXPECT_EQ(ZCOleDateTime(100, 1, 1, 0, 0, 0).Format("%j %a"), "001 Fri");
    EXPECT_EQ(ZCOleDateTime(0.0).Format(), ZCOleDateTime(0.0).Format("%c"));
    EXPECT_FALSE(ZCOleDateTime(0.0).Format().IsEmpty());
    std::string longPattern(2000, 'x');
    longPattern += "%Y";
    EXPECT_EQ(ZCOleDateTime(0.0).Format(longPattern.c_str()).Right(6), "xx1899");
    ZCOleDateTime dt;
    dt.SetStatus(ZCOleDateTime::null);
    EXPECT_EQ(dt.Format(), "");
    EXPECT_EQ(dt.GetDay(), -1);
    dt.SetStatus(ZCOleDateTime::invalid);
    EXPECT_EQ(dt.Format(), "Invalid DateTime");
}

TEST(ZCOleDateTimeConvert, StatusFlowsThroughArithmeticAndComparison) {
    ZCOleDateTime good(2001, 1, 1, 0, 0, 0), bad(2001, 13, 1, 0, 0, 0), nil;
    nil.SetStatus(ZCOleDateTime::null);
    ZCOleDateTimeSpan badSpan(1e9);
    EXPECT_EQ((good + badSpan).GetStatus(), ZCOleDateTime::invalid);
    EXPECT_EQ((bad + ZCOleDateTimeSpan(1.0)).GetStatus(), ZCOleDateTime::invalid);
    EXPECT_EQ((nil - ZCOleDateTimeSpan(1.0)).GetStatus(), ZCOleDateTime::null);
    EXPECT_EQ((good - bad).GetStatus(), ZCOleDateTimeSpan::invalid);
    EXPECT_EQ((good - nil).GetStatus(), ZCOleDateTimeSpan::null);
    EXPECT_NE(good, bad);
    EXPECT_FALSE(bad < good || good < bad || bad <= good);
    EXPECT_TRUE(good <= good && good >= good && !(good < good));
}

// --- Spans ------------------------------------------------------------------

TEST(ZCOleDateTimeSpanTest, ComponentsAndTotals) {
    ZCOleDateTimeSpan s(1, 2, 3, 4);
    EXPECT_EQ(s.GetDays(), 1);
    EXPECT_EQ(s.GetHours(), 2);
    EXPECT_EQ(s.GetMinutes(), 3);
    EXPECT_EQ(s.GetSeconds(), 4);
    EXPECT_EQ(s.GetTotalSeconds(), 93784.0);
    EXPECT_DOUBLE_EQ(s.GetTotalMinutes(), 93784.0 / 60);
    EXPECT_DOUBLE_EQ(s.GetTotalHours(), 93784.0 / 3600);
    EXPECT_DOUBLE_EQ(s.GetTotalDays(), 93784.0 / 86400);
    ZCOleDateTimeSpan n = -s;
    EXPECT_EQ(n.GetDays(), -1);
    EXPECT_EQ(n.GetHours(), -2);
    EXPECT_EQ(n.GetSeconds(), -4);
    EXPECT_EQ(ZCOleDateTimeSpan(0, 25, 61, 61), ZCOleDateTimeSpan(1, 2, 2, 1));
    // Just short of two days reads as two days, with no 24th hour or 60th second.
    ZCOleDateTimeSpan almost(2.0 - 1e-9);
    EXPECT_EQ(almost.GetDays(), 2);
    EXPECT_EQ(almost.GetHours(), 0);
    EXPECT_EQ(almost.GetSeconds(), 0);
    EXPECT_EQ(ZCOleDateTimeSpan(59.6 * kSecond).GetSeconds(), 0);
    EXPECT_EQ(ZCOleDateTimeSpan(59.6 * kSecond).GetMinutes(), 1);
    EXPECT_EQ(ZCOleDateTimeSpan(-59.6 * kSecond).GetMinutes(), -1);
}

TEST(ZCOleDateTimeSpanTest, ArithmeticComparisonAndRange) {
    ZCOleDateTimeSpan day(1, 0, 0, 0), hour(0, 1, 0, 0);
    ZCOleDateTimeSpan s = day - hour;
    EXPECT_EQ(s.GetHours(), 23);
    s += hour;
    EXPECT_EQ(s, day);
    s -= day + day;
    EXPECT_EQ(s, -day);
    EXPECT_TRUE(hour < day && day > hour && -day < hour && hour <= hour && day >= hour);
    EXPECT_EQ(ZCOleDateTimeSpan(4e6).GetStatus(), ZCOleDateTimeSpan::invalid);
    ZCOleDateTimeSpan big(3e6);
    EXPECT_EQ((big + big).GetStatus(), ZCOleDateTimeSpan::invalid);
    ZCOleDateTimeSpan nil;
    nil.SetStatus(ZCOleDateTimeSpan::null);
    EXPECT_EQ((nil + ZCOleDateTimeSpan(4e6)).GetStatus(), ZCOleDateTimeSpan::null);
    EXPECT_EQ((big + big).GetTotalSeconds(), 0.0);
}

TEST(ZCOleDateTimeSpanTest, Format) {
    ZCOleDateTimeSpan s(3, 4, 5, 6);
    EXPECT_EQ(s.Format("%D days %H:%M:%S 100%% %Q"), "3 days 04:05:06 100% %Q");
    EXPECT_EQ(ZCOleDateTimeSpan(1.5).Format("%D/%H"), "1/12");
    EXPECT_EQ(ZCOleDateTimeSpan(4e6).Format("%D"), "Invalid DateTimeSpan");
    ZCOleDateTimeSpan nil;
    nil.SetStatus(ZCOleDateTimeSpan::null);
    EXPECT_EQ(nil.Format("%D"), "");
}

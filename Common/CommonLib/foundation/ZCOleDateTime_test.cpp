#include "ZCOleDateTime.h"
#include "qsWinApi.h"

#include <cstdio>
#include <gtest/gtest.h>

constexpr double kSecond = 1.0 / 86400.0;
using Span = ZCOleDateTimeSpan;

// The calendar fields as the getters read them, or the status.
static std::string Fields(const ZCOleDateTime& dt) {
    char buf[80];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", dt.GetYear(), dt.GetMonth(),
             dt.GetDay(), dt.GetHour(), dt.GetMinute(), dt.GetSecond());
    return dt.GetStatus() == ZCOleDateTime::valid ? buf : "status " + std::to_string(dt.m_status);
}

static ZCOleDateTime Date(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    return ZCOleDateTime(y, mo, d, h, mi, s);
}

// Every day of the range, walked with the leap rule written out here, must
// encode to consecutive day numbers and decode to its own fields.
TEST(ZCOleDateTimeCalendar, EveryDayOfTheRangeRoundTrips) {
    double expected = -657434.0; // 100-01-01, a Friday
    int dayOfWeek = 6, failures = 0;
    for (int y = 100; y <= 9999; y++) {
        bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
        int lengths[12] = {31, leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        for (int m = 1, dayOfYear = 1; m <= 12; m++)
            for (int d = 1; d <= lengths[m - 1]; d++, dayOfYear++, expected += 1.0) {
                ZCOleDateTime dt = Date(y, m, d);
                bool ok = dt.m_dt == expected && dt.GetYear() == y && dt.GetMonth() == m &&
                          dt.GetDay() == d && dt.GetDayOfYear() == dayOfYear &&
                          dt.GetDayOfWeek() == dayOfWeek;
                if (!ok && ++failures < 5)
                    ADD_FAILURE() << y << "-" << m << "-" << d << " m_dt " << dt.m_dt;
                dayOfWeek = dayOfWeek % 7 + 1;
            }
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(Date(2000, 1, 1).m_dt, 36526.0);
}

TEST(ZCOleDateTimeCalendar, InvalidFieldsRangeEndsAndStatus) {
    const int bad[][6] = {{1900, 2, 29, 0, 0, 0}, {2100, 2, 29, 0, 0, 0}, {2001, 13, 1, 0, 0, 0},
                          {2001, 0, 1, 0, 0, 0},  {2001, 4, 31, 0, 0, 0}, {99, 12, 31, 0, 0, 0},
                          {10000, 1, 1, 0, 0, 0}, {2001, 1, 0, 0, 0, 0},  {2001, 1, 1, 24, 0, 0},
                          {2001, 1, 1, 0, 60, 0}, {2001, 1, 1, 0, 0, 60}, {2001, 1, 1, -1, 0, 0}};
    for (auto& f : bad) {
        ZCOleDateTime dt = Date(2001, 1, 1);
        EXPECT_NE(dt.SetDateTime(f[0], f[1], f[2], f[3], f[4], f[5]), 0) << f[0] << "-" << f[1];
        EXPECT_TRUE(dt.GetStatus() == ZCOleDateTime::invalid && dt.GetYear() == -1) << f[0];
    }
    ZCOleDateTime dt, nil, first = Date(100, 1, 1), last = Date(9999, 12, 31, 23, 59, 59);
    EXPECT_EQ(dt.SetDate(2004, 2, 29) + dt.SetTime(23, 59, 59), 0); // SetTime keeps no date
    nil.SetStatus(ZCOleDateTime::null);
    std::pair<ZCOleDateTime, const char*> results[] = {{dt, "1899-12-30 23:59:59"},
                                                       {last, "9999-12-31 23:59:59"},
                                                       {first - Span(0, 0, 0, 1), "status 1"},
                                                       {last + Span(0, 0, 0, 1), "status 1"},
                                                       {ZCOleDateTime(2958466.0), "status 1"},
                                                       {ZCOleDateTime(-657435.0), "status 1"},
                                                       {first + Span(1e9), "status 1"},
                                                       {Date(2001, 13, 1) + Span(1.0), "status 1"},
                                                       {nil - Span(1.0), "status 2"}};
    for (auto& [value, text] : results)
        EXPECT_EQ(Fields(value), text) << value.m_dt;
    EXPECT_EQ((last - first).GetTotalSeconds(), 3615900.0 * 86400 - 1);
    EXPECT_EQ((first - Date(2001, 13, 1)).GetStatus(), Span::invalid);
    EXPECT_EQ((first - nil).GetStatus(), Span::null);
    EXPECT_FALSE(first == results[7].first || first < results[7].first ||
                 results[7].first <= first); // no order with an invalid value
}

// Before 1899-12-30 the day count is negative and the time of day positive;
// fields are read at the nearest second, never 60.
TEST(ZCOleDateTimeBoundary, NegativeDaysAndRounding) {
    double leapNoon = Date(2004, 2, 29, 12, 0, 5).m_dt;
    const std::pair<double, const char*> decode[] = {
        {0.0, "1899-12-30 00:00:00"},
        {-0.25, "1899-12-30 06:00:00"},
        {-1.25, "1899-12-29 06:00:00"},
        {-1.75, "1899-12-29 18:00:00"},
        {Date(100, 1, 1, 23, 59, 59).m_dt, "0100-01-01 23:59:59"},
        {leapNoon - 1e-10, "2004-02-29 12:00:05"},
        {leapNoon + 0.4 * kSecond, "2004-02-29 12:00:05"},
        {leapNoon + 0.6 * kSecond, "2004-02-29 12:00:06"},
        {Date(2004, 2, 29).m_dt + 1.0 - 0.1 * kSecond, "2004-03-01 00:00:00"},
        {-1.0 - (1 - 0.1 * kSecond), "1899-12-30 00:00:00"},
        {(ZCOleDateTime(0.0) - Span(1e-16)).m_dt, "1899-12-30 00:00:00"}};
    for (auto& [value, text] : decode)
        EXPECT_EQ(Fields(ZCOleDateTime(value)), text) << value;
    EXPECT_EQ(Date(1800, 1, 1, 12).m_dt, -36522.5);

    // Arithmetic and order work on linear time, not on the raw doubles.
    ZCOleDateTime back = Date(1899, 12, 30, 3) - Span(0, 6, 0, 0);
    EXPECT_EQ(back.m_dt, -1.875);
    EXPECT_EQ((back + Span(0, 6, 0, 0)).m_dt, 0.125);
    EXPECT_EQ((ZCOleDateTime(0.25) - ZCOleDateTime(-1.25)).GetTotalHours(), 24.0);
    EXPECT_EQ(ZCOleDateTime(-0.25), ZCOleDateTime(0.25));
    EXPECT_GT(ZCOleDateTime(-1.75), ZCOleDateTime(-1.25));
    EXPECT_LT(ZCOleDateTime(-1.25), ZCOleDateTime(0.0));
}

// time_t and FILETIME are rendered in local time, here five hours west of UTC.
TEST(ZCOleDateTimeConvert, ConversionsAndFormat) {
    setenv("TZ", "<-05>5", 1);
    tzset();
    ZCOleDateTime st(SYSTEMTIME{2100, 2, 0, 28, 13, 14, 15, 999});
    const std::pair<ZCOleDateTime, const char*> converted[] = {
        {ZCOleDateTime(time_t(951782400)), "2000-02-28 19:00:00"},
        {ZCOleDateTime(qsUInt64ToFileTime(QS_FILETIME_UNIX_EPOCH + 15000000)),
         "1969-12-31 19:00:01"},
        {ZCOleDateTime(qsUInt64ToFileTime(0)), "1600-12-31 19:00:00"},
        {st, "2100-02-28 13:14:15"},
        {ZCOleDateTime(SYSTEMTIME{2100, 2, 0, 29, 13, 14, 15, 0}), "status 1"}};
    for (auto& [dt, text] : converted)
        EXPECT_EQ(Fields(dt), text);
    SYSTEMTIME out{};
    ASSERT_TRUE(st.GetAsSystemTime(out));
    EXPECT_TRUE(out.wDayOfWeek == 0 && out.wMilliseconds == 0 && ZCOleDateTime(out) == st);

    EXPECT_EQ(ZCOleDateTime(-1.25).Format("%Y-%m-%d %H:%M:%S %A"), "1899-12-29 06:00:00 Friday");
    EXPECT_EQ(st.Format(std::string(2000, 'x').append("%j %a").c_str()).Right(9), "xx059 Sun");
    st.SetStatus(ZCOleDateTime::null);
    EXPECT_EQ(st.Format(), "");
    st.SetStatus(ZCOleDateTime::invalid);
    EXPECT_EQ(st.Format(), "Invalid DateTime");
}

// Components carry the span's sign and are read at the nearest second.
TEST(ZCOleDateTimeSpanTest, ComponentsArithmeticAndFormat) {
    Span day(1, 0, 0, 0), hour(0, 1, 0, 0), big(3e6), nil;
    nil.SetStatus(Span::null);
    const std::pair<Span, const char*> spans[] = {{Span(1, 2, 3, 4), "1 02:03:04"},
                                                  {-Span(1, 2, 3, 4), "-1 -2:-3:-4"},
                                                  {Span(0, 25, 61, 61), "1 02:02:01"},
                                                  {Span(2.0 - 1e-9), "2 00:00:00"},
                                                  {Span(59.6 * kSecond), "0 00:01:00"},
                                                  {Span(-59.6 * kSecond), "0 00:-1:00"},
                                                  {day - hour, "0 23:00:00"},
                                                  {day - hour + hour - day - day, "-1 00:00:00"},
                                                  {Span(4e6), "Invalid DateTimeSpan"},
                                                  {big + big, "Invalid DateTimeSpan"},
                                                  {nil + Span(4e6), ""}};
    for (auto& [span, text] : spans)
        EXPECT_EQ(span.Format("%D %H:%M:%S"), text) << span.m_span;
    EXPECT_EQ(Span(1, 2, 3, 4).GetTotalSeconds(), 93784.0);
    EXPECT_DOUBLE_EQ(Span(1, 2, 3, 4).GetTotalHours(), 93784.0 / 3600);
    EXPECT_EQ((big + big).GetTotalSeconds(), 0.0);
    EXPECT_TRUE(hour < day && day > hour && -day < hour && hour <= hour && day >= hour);
    EXPECT_EQ(Span(1.5).Format("%D/%H 100%% %Q"), "1/12 100% %Q");
}

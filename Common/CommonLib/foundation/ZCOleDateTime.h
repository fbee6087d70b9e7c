// A point in time as an OLE automation date, shaped like the classic MFC
// date-time class: days since 1899-12-30 00:00 in a double, with a status.
//
// Before 1899-12-30 the day count is negative but the time of day is still
// a positive fraction, so -1.25 is 1899-12-29 06:00 and -0.25 is the same
// instant as 0.25.  Arithmetic and comparison therefore work on the linear
// time (-1.25 is linear -0.75) and encode the result back.  -0.25 and 0.25
// compare equal.
//
// The valid range is 100-01-01 00:00:00 to 9999-12-31 23:59:59 on the
// proleptic Gregorian calendar.  Calendar fields are read from the value
// rounded to the nearest second (halves go to the later second), so a value
// a hair below a whole second reads as that second and GetSecond is never
// 60.  A value that rounds outside the range is invalid.
//
// Conversions: a time_t and a FILETIME (UTC) are rendered in LOCAL time, as
// the classic class does with a time_t; the sub-second part of a FILETIME
// is dropped.  A SYSTEMTIME's fields are taken as they stand (milliseconds
// ignored).  GetCurrentTime is local time to the second.
//
// Status: construction and SetDateTime with out-of-range fields make the
// value invalid.  The result of arithmetic is null if an operand is null,
// else invalid if an operand is invalid or the result leaves the range.
// Values of different status are unequal, two non-valid values of the same
// status are equal, and ordering holds only between valid values.  The
// field getters return -1 for a non-valid value.
#pragma once

#include "ZCOleDateTimeSpan.h"
#include "ZCString.h"
#include "qsWinTypes.h"

#include <ctime>

class ZCOleDateTime {
public:
    enum DateTimeStatus { valid = 0, invalid = 1, null = 2 };

    static ZCOleDateTime GetCurrentTime();
    // Milliseconds from the platform tick counter, in whole-second steps;
    // for coarse ageing only.
    static DWORD GetTickCount();

    ZCOleDateTime() : m_dt(0.0), m_status(valid) {}
    explicit ZCOleDateTime(double date);
    explicit ZCOleDateTime(time_t seconds);
    explicit ZCOleDateTime(const SYSTEMTIME& st);
    explicit ZCOleDateTime(const FILETIME& ft);
    ZCOleDateTime(int year, int month, int day, int hour, int minute, int second);

    DateTimeStatus GetStatus() const { return m_status; }
    void SetStatus(DateTimeStatus status) { m_status = status; }

    int GetYear() const;
    int GetMonth() const;     // 1 - 12
    int GetDay() const;       // 1 - 31
    int GetHour() const;      // 0 - 23
    int GetMinute() const;    // 0 - 59
    int GetSecond() const;    // 0 - 59
    int GetDayOfWeek() const; // 1 = Sunday .. 7 = Saturday
    int GetDayOfYear() const; // 1 = January 1st

    // 0 on success; otherwise non-zero and the value is invalid (m_dt kept).
    // Years 100 - 9999, months 1 - 12, days of the month, hours 0 - 23,
    // minutes and seconds 0 - 59.  SetTime puts the time on 1899-12-30.
    int SetDateTime(int year, int month, int day, int hour, int minute, int second);
    int SetDate(int year, int month, int day);
    int SetTime(int hour, int minute, int second);

    // wDayOfWeek 0 = Sunday, wMilliseconds 0.  False for a non-valid value.
    bool GetAsSystemTime(SYSTEMTIME& st) const;

    bool operator==(const ZCOleDateTime& other) const;
    bool operator!=(const ZCOleDateTime& other) const { return !(*this == other); }
    bool operator<(const ZCOleDateTime& other) const;
    bool operator>(const ZCOleDateTime& other) const { return other < *this; }
    bool operator<=(const ZCOleDateTime& other) const;
    bool operator>=(const ZCOleDateTime& other) const { return other <= *this; }

    ZCOleDateTime operator+(const ZCOleDateTimeSpan& span) const;
    ZCOleDateTime operator-(const ZCOleDateTimeSpan& span) const;
    ZCOleDateTime& operator+=(const ZCOleDateTimeSpan& span);
    ZCOleDateTime& operator-=(const ZCOleDateTimeSpan& span);
    ZCOleDateTimeSpan operator-(const ZCOleDateTime& other) const;

    // strftime patterns over the calendar fields; the default "%c" is the C
    // library's date and time of the current locale.  "Invalid DateTime" for
    // an invalid value, empty for a null one.
    ZCString Format(const char* pattern = "%c") const;

    double m_dt;
    DateTimeStatus m_status;

private:
    void SetFromUnixSeconds(long long seconds);
    void AddDays(double days, ZCOleDateTimeSpan::DateTimeSpanStatus spanStatus);
};

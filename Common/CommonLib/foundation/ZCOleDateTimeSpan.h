// A length of time in days, as a double, with a status, shaped like the
// classic MFC date-time span.
//
// Components and totals are read from the span rounded to the nearest
// second (halves away from zero), so a span a hair short of a whole second
// reads as that second and the components always agree with each other.
// The components carry the sign of the span (-1.5 days: days -1, hours -12).
// A valid span is shorter than the distance between the ends of the date
// range (3615900 days); arithmetic that leaves it makes the result invalid.
//
// The status of a result: null if an operand is null, else invalid if an
// operand is invalid.  Spans of different status are unequal; two non-valid
// spans of the same status are equal; ordering holds only between valid
// spans.  Components and totals of a non-valid span are 0.
#pragma once

#include "ZCString.h"
#include "qsWinTypes.h"

class ZCOleDateTimeSpan {
public:
    enum DateTimeSpanStatus { valid = 0, invalid = 1, null = 2 };

    ZCOleDateTimeSpan() : m_span(0.0), m_status(valid) {}
    explicit ZCOleDateTimeSpan(double days);
    ZCOleDateTimeSpan(LONG days, int hours, int minutes, int seconds);

    DateTimeSpanStatus GetStatus() const { return m_status; }
    void SetStatus(DateTimeSpanStatus status) { m_status = status; }

    double GetTotalDays() const;
    double GetTotalHours() const;
    double GetTotalMinutes() const;
    double GetTotalSeconds() const;

    LONG GetDays() const;
    int GetHours() const;   // -23 .. 23
    int GetMinutes() const; // -59 .. 59
    int GetSeconds() const; // -59 .. 59

    void SetDateTimeSpan(LONG days, int hours, int minutes, int seconds);

    ZCOleDateTimeSpan operator+(const ZCOleDateTimeSpan& other) const;
    ZCOleDateTimeSpan operator-(const ZCOleDateTimeSpan& other) const;
    ZCOleDateTimeSpan operator-() const;
    ZCOleDateTimeSpan& operator+=(const ZCOleDateTimeSpan& other);
    ZCOleDateTimeSpan& operator-=(const ZCOleDateTimeSpan& other);

    bool operator==(const ZCOleDateTimeSpan& other) const;
    bool operator!=(const ZCOleDateTimeSpan& other) const { return !(*this == other); }
    bool operator<(const ZCOleDateTimeSpan& other) const;
    bool operator>(const ZCOleDateTimeSpan& other) const { return other < *this; }
    bool operator<=(const ZCOleDateTimeSpan& other) const;
    bool operator>=(const ZCOleDateTimeSpan& other) const { return other <= *this; }

    // %D days, %H hours, %M minutes, %S seconds (the components; hours,
    // minutes and seconds with two digits), %% a percent sign; any other
    // sequence is copied as it stands.  "Invalid DateTimeSpan" for an invalid
    // span, empty for a null one.
    ZCString Format(const char* pattern) const;

    double m_span;
    DateTimeSpanStatus m_status;

private:
    // Whole seconds, rounded as the components are; 0 for a non-valid span.
    long long RoundedSeconds() const;
    void CheckRange();
};

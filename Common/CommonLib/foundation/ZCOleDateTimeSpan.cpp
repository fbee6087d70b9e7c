#include "ZCOleDateTimeSpan.h"

#include <cmath>

namespace {

constexpr long long kSecondsPerDay = 86400;
// The distance between 100-01-01 00:00:00 and 10000-01-01 00:00:00.
constexpr double kMaxSpanDays = 3615900.0;

ZCOleDateTimeSpan::DateTimeSpanStatus Combine(ZCOleDateTimeSpan::DateTimeSpanStatus a,
                                              ZCOleDateTimeSpan::DateTimeSpanStatus b) {
    if (a == ZCOleDateTimeSpan::null || b == ZCOleDateTimeSpan::null)
        return ZCOleDateTimeSpan::null;
    if (a == ZCOleDateTimeSpan::invalid || b == ZCOleDateTimeSpan::invalid)
        return ZCOleDateTimeSpan::invalid;
    return ZCOleDateTimeSpan::valid;
}

} // namespace

ZCOleDateTimeSpan::ZCOleDateTimeSpan(double days) : m_span(days), m_status(valid) {
    CheckRange();
}

ZCOleDateTimeSpan::ZCOleDateTimeSpan(LONG days, int hours, int minutes, int seconds) {
    SetDateTimeSpan(days, hours, minutes, seconds);
}

void ZCOleDateTimeSpan::SetDateTimeSpan(LONG days, int hours, int minutes, int seconds) {
    // Whole seconds are exact in a 64-bit integer; one division at the end.
    long long total = days * kSecondsPerDay + hours * 3600LL + minutes * 60LL + seconds;
    m_span = double(total) / double(kSecondsPerDay);
    m_status = valid;
    CheckRange();
}

void ZCOleDateTimeSpan::CheckRange() {
    if (m_status == valid && !(std::fabs(m_span) < kMaxSpanDays))
        m_status = invalid;
}

long long ZCOleDateTimeSpan::RoundedSeconds() const {
    if (m_status != valid || !(std::fabs(m_span) < kMaxSpanDays))
        return 0;
    return std::llround(m_span * double(kSecondsPerDay));
}

double ZCOleDateTimeSpan::GetTotalDays() const {
    return double(RoundedSeconds()) / double(kSecondsPerDay);
}
double ZCOleDateTimeSpan::GetTotalHours() const {
    return double(RoundedSeconds()) / 3600.0;
}
double ZCOleDateTimeSpan::GetTotalMinutes() const {
    return double(RoundedSeconds()) / 60.0;
}
double ZCOleDateTimeSpan::GetTotalSeconds() const {
    return double(RoundedSeconds());
}

// C++ division truncates towards zero, so every component keeps the sign.
LONG ZCOleDateTimeSpan::GetDays() const {
    return LONG(RoundedSeconds() / kSecondsPerDay);
}
int ZCOleDateTimeSpan::GetHours() const {
    return int(RoundedSeconds() % kSecondsPerDay / 3600);
}
int ZCOleDateTimeSpan::GetMinutes() const {
    return int(RoundedSeconds() % 3600 / 60);
}
int ZCOleDateTimeSpan::GetSeconds() const {
    return int(RoundedSeconds() % 60);
}

ZCOleDateTimeSpan ZCOleDateTimeSpan::operator+(const ZCOleDateTimeSpan& other) const {
    ZCOleDateTimeSpan result(*this);
    result += other;
    return result;
}

ZCOleDateTimeSpan ZCOleDateTimeSpan::operator-(const ZCOleDateTimeSpan& other) const {
    ZCOleDateTimeSpan result(*this);
    result -= other;
    return result;
}

ZCOleDateTimeSpan ZCOleDateTimeSpan::operator-() const {
    ZCOleDateTimeSpan result(*this);
    result.m_span = -m_span;
    return result;
}

ZCOleDateTimeSpan& ZCOleDateTimeSpan::operator+=(const ZCOleDateTimeSpan& other) {
    m_status = Combine(m_status, other.m_status);
    m_span += other.m_span;
    CheckRange();
    return *this;
}

ZCOleDateTimeSpan& ZCOleDateTimeSpan::operator-=(const ZCOleDateTimeSpan& other) {
    m_status = Combine(m_status, other.m_status);
    m_span -= other.m_span;
    CheckRange();
    return *this;
}

bool ZCOleDateTimeSpan::operator==(const ZCOleDateTimeSpan& other) const {
    if (m_status != other.m_status)
        return false;
    return m_status != valid || m_span == other.m_span;
}

bool ZCOleDateTimeSpan::operator<(const ZCOleDateTimeSpan& other) const {
    return m_status == valid && other.m_status == valid && m_span < other.m_span;
}

bool ZCOleDateTimeSpan::operator<=(const ZCOleDateTimeSpan& other) const {
    return m_status == valid && other.m_status == valid && m_span <= other.m_span;
}

ZCString ZCOleDateTimeSpan::Format(const char* pattern) const {
    ZCString text;
    if (m_status == null)
        return text;
    if (m_status != valid)
        return ZCString("Invalid DateTimeSpan");
    for (const char* p = pattern ? pattern : ""; *p; p++) {
        if (*p != '%' || p[1] == '\0') {
            text += *p;
            continue;
        }
        switch (*++p) {
        case 'D':
            text.AppendFormat("%d", int(GetDays()));
            break;
        case 'H':
            text.AppendFormat("%02d", GetHours());
            break;
        case 'M':
            text.AppendFormat("%02d", GetMinutes());
            break;
        case 'S':
            text.AppendFormat("%02d", GetSeconds());
            break;
        case '%':
            text += '%';
            break;
        default:
            text += '%';
            text += *p;
        }
    }
    return text;
}

#include "ZCOleDateTime.h"

#include "qsWinApi.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace {

constexpr long long kSecondsPerDay = 86400;

long long FloorDiv(long long a, long long b) {
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

// Days since 1970-01-01 of a proleptic Gregorian date, and back (eras of
// 400 years, March-based years so that the leap day ends the year).
long long DaysFromCivil(long long y, int m, int d) {
    y -= m <= 2;
    long long era = FloorDiv(y, 400);
    long long yoe = y - era * 400;
    long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

void CivilFromDays(long long z, int& y, int& m, int& d) {
    z += 719468;
    long long era = FloorDiv(z, 146097);
    long long doe = z - era * 146097;
    long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long long mp = (5 * doy + 2) / 153;
    d = int(doy - (153 * mp + 2) / 5 + 1);
    m = int(mp < 10 ? mp + 3 : mp - 9);
    y = int(yoe + era * 400 + (m <= 2));
}

// Day numbers (days since 1899-12-30) of 1970-01-01 and of the range ends.
constexpr long long kUnixEpochDay = 25569;
const long long kMinDay = DaysFromCivil(100, 1, 1) + kUnixEpochDay;
const long long kMaxDay = DaysFromCivil(9999, 12, 31) + kUnixEpochDay;

bool IsLeap(int y) {
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

int DaysInMonth(int y, int m) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && IsLeap(y) ? 29 : kDays[m - 1];
}

// The OLE encoding and the linear time line.  Below zero the encoding keeps
// the time of day as a positive fraction: linear -0.75 (1899-12-29 06:00)
// is encoded -1.25.
double ToLinear(double dt) {
    if (dt >= 0)
        return dt;
    double day = std::ceil(dt);
    return day + (day - dt);
}

double FromLinear(double linear) {
    if (linear >= 0)
        return linear;
    double day = std::floor(linear);
    double dt = day - (linear - day);
    // A fraction within rounding of 1 can carry dt into the day before, two
    // days off; such a time is the start of the next day.
    if (dt <= day - 1.0)
        return day + 1.0;
    return dt;
}

double Encode(long long day, long long secondOfDay) {
    double fraction = double(secondOfDay) / double(kSecondsPerDay);
    return day >= 0 ? double(day) + fraction : double(day) - fraction;
}

struct CivilTime {
    int year, month, day, hour, minute, second;
    long long dayNumber; // days since 1899-12-30
};

// Fails for a value that is not finite or rounds outside the range.
bool Decode(double dt, CivilTime& ct) {
    if (!std::isfinite(dt))
        return false;
    double seconds = std::floor(ToLinear(dt) * double(kSecondsPerDay) + 0.5);
    // Keeps the conversion to an integer defined; the day check decides.
    if (std::fabs(seconds) > 1e12)
        return false;
    long long total = (long long)seconds;
    long long day = FloorDiv(total, kSecondsPerDay);
    if (day < kMinDay || day > kMaxDay)
        return false;
    long long secondOfDay = total - day * kSecondsPerDay;
    CivilFromDays(day - kUnixEpochDay, ct.year, ct.month, ct.day);
    ct.hour = int(secondOfDay / 3600);
    ct.minute = int(secondOfDay % 3600 / 60);
    ct.second = int(secondOfDay % 60);
    ct.dayNumber = day;
    return true;
}

// The local offset east of UTC at a moment.  Moments a 32-bit time_t
// cannot hold take the offset of the nearest one it can.
long long LocalOffset(long long seconds) {
    long long lo = (long long)std::numeric_limits<time_t>::min();
    long long hi = (long long)std::numeric_limits<time_t>::max();
    time_t t = time_t(seconds < lo ? lo : seconds > hi ? hi : seconds);
    tm local;
    if (!localtime_r(&t, &local))
        return 0;
    return local.tm_gmtoff;
}

} // namespace

ZCOleDateTime ZCOleDateTime::GetCurrentTime() {
    return ZCOleDateTime(time(nullptr));
}

DWORD ZCOleDateTime::GetTickCount() {
    return ::GetTickCount();
}

ZCOleDateTime::ZCOleDateTime(double date) : m_dt(date), m_status(valid) {
    CivilTime ct;
    if (!Decode(m_dt, ct))
        m_status = invalid;
}

ZCOleDateTime::ZCOleDateTime(time_t seconds) : m_dt(0.0), m_status(valid) {
    SetFromUnixSeconds(seconds);
}

ZCOleDateTime::ZCOleDateTime(const SYSTEMTIME& st) : m_dt(0.0), m_status(valid) {
    SetDateTime(st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond);
}

ZCOleDateTime::ZCOleDateTime(const FILETIME& ft) : m_dt(0.0), m_status(valid) {
    uint64_t units = qsFileTimeToUInt64(ft);
    if (units > uint64_t(std::numeric_limits<long long>::max())) {
        m_status = invalid;
        return;
    }
    long long sinceEpoch = (long long)units - (long long)QS_FILETIME_UNIX_EPOCH;
    SetFromUnixSeconds(FloorDiv(sinceEpoch, (long long)QS_FILETIME_PER_SECOND));
}

ZCOleDateTime::ZCOleDateTime(int year, int month, int day, int hour, int minute, int second)
    : m_dt(0.0), m_status(valid) {
    SetDateTime(year, month, day, hour, minute, second);
}

void ZCOleDateTime::SetFromUnixSeconds(long long seconds) {
    long long local = seconds + LocalOffset(seconds);
    long long day = FloorDiv(local, kSecondsPerDay) + kUnixEpochDay;
    if (day < kMinDay || day > kMaxDay) {
        m_status = invalid;
        return;
    }
    m_dt = Encode(day, local - FloorDiv(local, kSecondsPerDay) * kSecondsPerDay);
    m_status = valid;
}

int ZCOleDateTime::SetDateTime(int year, int month, int day, int hour, int minute, int second) {
    if (year < 100 || year > 9999 || month < 1 || month > 12 || day < 1 ||
        day > DaysInMonth(year, month) || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 59) {
        m_status = invalid;
        return 1;
    }
    long long dayNumber = DaysFromCivil(year, month, day) + kUnixEpochDay;
    m_dt = Encode(dayNumber, hour * 3600LL + minute * 60LL + second);
    m_status = valid;
    return 0;
}

int ZCOleDateTime::SetDate(int year, int month, int day) {
    return SetDateTime(year, month, day, 0, 0, 0);
}

int ZCOleDateTime::SetTime(int hour, int minute, int second) {
    return SetDateTime(1899, 12, 30, hour, minute, second);
}

namespace {

bool Fields(const ZCOleDateTime& date, CivilTime& ct) {
    return date.m_status == ZCOleDateTime::valid && Decode(date.m_dt, ct);
}

} // namespace

int ZCOleDateTime::GetYear() const {
    CivilTime ct;
    return Fields(*this, ct) ? ct.year : -1;
}

int ZCOleDateTime::GetMonth() const {
    CivilTime ct;
    return Fields(*this, ct) ? ct.month : -1;
}

int ZCOleDateTime::GetDay() const {
    CivilTime ct;
    return Fields(*this, ct) ? ct.day : -1;
}

int ZCOleDateTime::GetHour() const {
    CivilTime ct;
    return Fields(*this, ct) ? ct.hour : -1;
}

int ZCOleDateTime::GetMinute() const {
    CivilTime ct;
    return Fields(*this, ct) ? ct.minute : -1;
}

int ZCOleDateTime::GetSecond() const {
    CivilTime ct;
    return Fields(*this, ct) ? ct.second : -1;
}

// Day 0, 1899-12-30, was a Saturday.
int ZCOleDateTime::GetDayOfWeek() const {
    CivilTime ct;
    return Fields(*this, ct) ? int((ct.dayNumber % 7 + 7 + 6) % 7) + 1 : -1;
}

int ZCOleDateTime::GetDayOfYear() const {
    CivilTime ct;
    if (!Fields(*this, ct))
        return -1;
    return int(ct.dayNumber - kUnixEpochDay - DaysFromCivil(ct.year, 1, 1)) + 1;
}

bool ZCOleDateTime::GetAsSystemTime(SYSTEMTIME& st) const {
    CivilTime ct;
    if (!Fields(*this, ct))
        return false;
    st.wYear = WORD(ct.year);
    st.wMonth = WORD(ct.month);
    st.wDayOfWeek = WORD(GetDayOfWeek() - 1);
    st.wDay = WORD(ct.day);
    st.wHour = WORD(ct.hour);
    st.wMinute = WORD(ct.minute);
    st.wSecond = WORD(ct.second);
    st.wMilliseconds = 0;
    return true;
}

bool ZCOleDateTime::operator==(const ZCOleDateTime& other) const {
    if (m_status != other.m_status)
        return false;
    return m_status != valid || ToLinear(m_dt) == ToLinear(other.m_dt);
}

bool ZCOleDateTime::operator<(const ZCOleDateTime& other) const {
    return m_status == valid && other.m_status == valid && ToLinear(m_dt) < ToLinear(other.m_dt);
}

bool ZCOleDateTime::operator<=(const ZCOleDateTime& other) const {
    return m_status == valid && other.m_status == valid && ToLinear(m_dt) <= ToLinear(other.m_dt);
}

void ZCOleDateTime::AddDays(double days, ZCOleDateTimeSpan::DateTimeSpanStatus spanStatus) {
    if (m_status == null || spanStatus == ZCOleDateTimeSpan::null) {
        m_status = null;
        return;
    }
    if (m_status == invalid || spanStatus == ZCOleDateTimeSpan::invalid) {
        m_status = invalid;
        return;
    }
    m_dt = FromLinear(ToLinear(m_dt) + days);
    CivilTime ct;
    if (!Decode(m_dt, ct))
        m_status = invalid;
}

ZCOleDateTime ZCOleDateTime::operator+(const ZCOleDateTimeSpan& span) const {
    ZCOleDateTime result(*this);
    result.AddDays(span.m_span, span.m_status);
    return result;
}

ZCOleDateTime ZCOleDateTime::operator-(const ZCOleDateTimeSpan& span) const {
    ZCOleDateTime result(*this);
    result.AddDays(-span.m_span, span.m_status);
    return result;
}

ZCOleDateTime& ZCOleDateTime::operator+=(const ZCOleDateTimeSpan& span) {
    AddDays(span.m_span, span.m_status);
    return *this;
}

ZCOleDateTime& ZCOleDateTime::operator-=(const ZCOleDateTimeSpan& span) {
    AddDays(-span.m_span, span.m_status);
    return *this;
}

ZCOleDateTimeSpan ZCOleDateTime::operator-(const ZCOleDateTime& other) const {
    ZCOleDateTimeSpan span(ToLinear(m_dt) - ToLinear(other.m_dt));
    if (m_status == null || other.m_status == null)
        span.SetStatus(ZCOleDateTimeSpan::null);
    else if (m_status != valid || other.m_status != valid)
        span.SetStatus(ZCOleDateTimeSpan::invalid);
    return span;
}

ZCString ZCOleDateTime::Format(const char* pattern) const {
    if (m_status == null)
        return ZCString();
    CivilTime ct;
    if (m_status != valid || !Decode(m_dt, ct))
        return ZCString("Invalid DateTime");
    if (!pattern)
        pattern = "%c";
    if (!*pattern)
        return ZCString();
    tm t{};
    t.tm_year = ct.year - 1900;
    t.tm_mon = ct.month - 1;
    t.tm_mday = ct.day;
    t.tm_hour = ct.hour;
    t.tm_min = ct.minute;
    t.tm_sec = ct.second;
    t.tm_wday = GetDayOfWeek() - 1;
    t.tm_yday = GetDayOfYear() - 1;
    // strftime returns 0 both for "too small" and for an empty result, so
    // stop growing at a size that no pattern of this length can exceed.
    size_t limit = 256 + strlen(pattern) * 256;
    for (size_t size = 128; size <= limit; size *= 2) {
        std::vector<char> buffer(size);
        size_t n = strftime(buffer.data(), size, pattern, &t);
        if (n > 0)
            return ZCString(buffer.data(), int(n));
    }
    return ZCString();
}

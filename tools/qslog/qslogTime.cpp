#include "qslogTime.h"

#include "qsWinTypes.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>

namespace qslog {

namespace {

constexpr int64_t kUnitsPerMs = 10000;
constexpr int64_t kUnitsPerSecond = 1000 * kUnitsPerMs;
constexpr int64_t kEpochMs = int64_t(QS_FILETIME_UNIX_EPOCH / kUnitsPerMs);

// Floor division, so that times before 1970 still give a millisecond part
// between 0 and 999.
int64_t FloorDiv(int64_t a, int64_t b) {
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

void Put2(char* p, int v) {
    p[0] = char('0' + v / 10 % 10);
    p[1] = char('0' + v % 10);
}

void Put3(char* p, int v) {
    p[0] = char('0' + v / 100 % 10);
    Put2(p + 1, v % 100);
}

// A small cursor over the text being parsed.
struct Scanner {
    std::string_view s;
    size_t i = 0;

    bool AtEnd() const { return i >= s.size(); }
    char Peek() const { return AtEnd() ? '\0' : s[i]; }
    void SkipSpaces() {
        while (!AtEnd() && isspace((unsigned char)s[i]))
            ++i;
    }
    bool Eat(char c) {
        if (Peek() != c)
            return false;
        ++i;
        return true;
    }
    // Exactly `digits` digits when digits > 0, else one or more.
    bool Number(int64_t& v, int digits = 0) {
        size_t start = i;
        v = 0;
        while (!AtEnd() && isdigit((unsigned char)s[i]) &&
               (digits == 0 || int(i - start) < digits)) {
            if (v > INT64_MAX / 100)
                return false;
            v = v * 10 + (s[i] - '0');
            ++i;
        }
        return i > start && (digits == 0 || int(i - start) == digits);
    }
    std::string_view Word() {
        size_t start = i;
        while (!AtEnd() && isalpha((unsigned char)s[i]))
            ++i;
        return s.substr(start, i - start);
    }
};

int64_t UnitMs(std::string_view unit) {
    static const struct {
        const char* names[5];
        int64_t ms;
    } kUnits[] = {
        {{"s", "sec", "secs", "second", "seconds"}, 1000},
        {{"m", "min", "mins", "minute", "minutes"}, 60 * 1000},
        {{"h", "hr", "hrs", "hour", "hours"}, 3600 * 1000},
        {{"d", "day", "days", nullptr, nullptr}, 86400 * 1000},
        {{"w", "week", "weeks", nullptr, nullptr}, 7 * 86400 * 1000},
    };
    for (const auto& u : kUnits)
        for (const char* name : u.names)
            if (name && unit == name)
                return u.ms;
    return 0;
}

// Local midnight `dayOffset` days from the day of `nowMs`.
int64_t LocalMidnightMs(int64_t nowMs, int dayOffset) {
    time_t t = time_t(FloorDiv(nowMs, 1000));
    struct tm tm;
    localtime_r(&t, &tm);
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
    tm.tm_mday += dayOffset;
    tm.tm_isdst = -1;
    return int64_t(mktime(&tm)) * 1000;
}

// "[-+]N unit [ago]".  True with `out` set, false when the text is not of
// this form at all.
bool ParseRelative(std::string_view text, int64_t nowMs, int64_t& out) {
    Scanner sc{text};
    int sign = 0;
    if (sc.Eat('-'))
        sign = -1;
    else if (sc.Eat('+'))
        sign = 1;
    sc.SkipSpaces();
    int64_t n = 0;
    if (!sc.Number(n))
        return false;
    sc.SkipSpaces();
    int64_t unit = UnitMs(sc.Word());
    if (unit == 0)
        return false;
    sc.SkipSpaces();
    if (sc.i < text.size()) {
        if (sign != 0 || sc.Word() != "ago")
            return false;
        sign = -1;
        sc.SkipSpaces();
    }
    if (!sc.AtEnd() || sign == 0 || n > INT64_MAX / unit / 2)
        return false;
    out = nowMs + sign * n * unit;
    return true;
}

// "HH:MM[:SS[.fffffff]]", filling the time fields of tm.  `frac` gets the
// fraction of the second in FILETIME units (digits past the seventh are
// dropped) and `span` the length of the last field written: a minute, a
// second, or one unit of the fraction's last digit.
bool ParseClock(Scanner& sc, struct tm& tm, int64_t& frac, int64_t& span) {
    int64_t h, m, s = 0;
    if (!sc.Number(h, 2) || !sc.Eat(':') || !sc.Number(m, 2))
        return false;
    frac = 0;
    span = 60 * kUnitsPerSecond;
    if (sc.Eat(':')) {
        if (!sc.Number(s, 2))
            return false;
        span = kUnitsPerSecond;
        if (sc.Eat('.')) {
            size_t start = sc.i;
            int64_t ignored;
            if (!sc.Number(ignored))
                return false;
            std::string_view digits = sc.s.substr(start, std::min<size_t>(sc.i - start, 7));
            for (char c : digits) {
                frac = frac * 10 + (c - '0');
                span /= 10;
            }
            frac *= span;
        }
    }
    if (h > 23 || m > 59 || s > 60)
        return false;
    tm.tm_hour = int(h);
    tm.tm_min = int(m);
    tm.tm_sec = int(s);
    return true;
}

// A local date, date and time, or time today, as units since 1970; `span`
// as ParseClock says, 0 for a date alone (its midnight, an instant).
bool ParseAbsolute(std::string_view text, int64_t nowMs, int64_t& out, int64_t& span) {
    Scanner sc{text};
    struct tm tm = {};
    int64_t frac = 0;
    int64_t y, mo, d;
    span = 0;
    size_t save = sc.i;
    if (sc.Number(y, 4) && sc.Eat('-') && sc.Number(mo, 2) && sc.Eat('-') && sc.Number(d, 2)) {
        if (mo < 1 || mo > 12 || d < 1 || d > 31)
            return false;
        tm.tm_year = int(y - 1900);
        tm.tm_mon = int(mo - 1);
        tm.tm_mday = int(d);
        if (!sc.AtEnd()) {
            if (!sc.Eat('T') && !sc.Eat(' '))
                return false;
            sc.SkipSpaces();
            if (!ParseClock(sc, tm, frac, span))
                return false;
        }
    } else {
        sc.i = save;
        time_t t = time_t(FloorDiv(nowMs, 1000));
        localtime_r(&t, &tm);
        if (!ParseClock(sc, tm, frac, span))
            return false;
    }
    if (!sc.AtEnd())
        return false;
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    if (t == time_t(-1))
        return false;
    out = int64_t(t) * kUnitsPerSecond + frac;
    return true;
}

// "@SECONDS" since 1970 UTC, as units; it names a whole second.
bool ParseEpoch(std::string_view text, int64_t& out, int64_t& span) {
    Scanner sc{text};
    int64_t s;
    if (!sc.Eat('@') || !sc.Number(s) || !sc.AtEnd() || s > INT64_MAX / kUnitsPerSecond / 2)
        return false;
    out = s * kUnitsPerSecond;
    span = kUnitsPerSecond;
    return true;
}

} // namespace

int64_t FileTimeToUnixMs(uint64_t filetime) {
    return int64_t(filetime / kUnitsPerMs) - kEpochMs;
}

uint64_t UnixMsToFileTime(int64_t ms) {
    int64_t units = (ms + kEpochMs) * kUnitsPerMs;
    return units < 0 ? 0 : uint64_t(units);
}

uint64_t NowFileTime() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return UnixMsToFileTime(int64_t(tv.tv_sec) * 1000) + uint64_t(tv.tv_usec) * 10;
}

void TimeFormatter::Convert(int64_t second) {
    m_Second = second;
    time_t t = time_t(second);
    struct tm tm;
    if (!localtime_r(&t, &tm))
        memset(&tm, 0, sizeof tm);
    // Every field kept to its width, so the line layout never shifts.
    snprintf(m_Date, sizeof m_Date, "%04u-%02u-%02u %02u:%02u:%02u",
             unsigned(tm.tm_year + 1900) % 10000u, unsigned(tm.tm_mon + 1) % 100u,
             unsigned(tm.tm_mday) % 100u, unsigned(tm.tm_hour) % 100u, unsigned(tm.tm_min) % 100u,
             unsigned(tm.tm_sec) % 100u);
    long off = tm.tm_gmtoff / 60;
    char sign = off < 0 ? '-' : '+';
    if (off < 0)
        off = -off;
    snprintf(m_Zone, sizeof m_Zone, "%c%02ld:%02ld", sign, off / 60 % 100, off % 60);
}

std::string_view TimeFormatter::Short(uint64_t filetime) {
    int64_t ms = FileTimeToUnixMs(filetime);
    int64_t second = FloorDiv(ms, 1000);
    if (second != m_Second)
        Convert(second);
    memcpy(m_Out, m_Date, 19);
    m_Out[19] = '.';
    Put3(m_Out + 20, int(ms - second * 1000));
    return std::string_view(m_Out, 23);
}

std::string_view TimeFormatter::Iso(uint64_t filetime) {
    int64_t us = int64_t(filetime / 10) - kEpochMs * 1000;
    int64_t second = FloorDiv(us, 1000000);
    if (second != m_Second)
        Convert(second);
    memcpy(m_Out, m_Date, 19);
    m_Out[10] = 'T';
    m_Out[19] = '.';
    int fraction = int(us - second * 1000000);
    Put3(m_Out + 20, fraction / 1000);
    Put3(m_Out + 23, fraction % 1000);
    memcpy(m_Out + 26, m_Zone, 6);
    return std::string_view(m_Out, 32);
}

bool ParseTime(std::string_view text, uint64_t now, uint64_t& out, uint64_t& span,
               std::string& error) {
    while (!text.empty() && isspace((unsigned char)text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isspace((unsigned char)text.back()))
        text.remove_suffix(1);
    int64_t nowMs = FileTimeToUnixMs(now);
    int64_t units = 0, length = 0;
    if (!ParseEpoch(text, units, length) && !ParseAbsolute(text, nowMs, units, length)) {
        int64_t ms = 0;
        length = 0;
        if (text == "now")
            ms = nowMs;
        else if (text == "today")
            ms = LocalMidnightMs(nowMs, 0);
        else if (text == "yesterday")
            ms = LocalMidnightMs(nowMs, -1);
        else if (text == "tomorrow")
            ms = LocalMidnightMs(nowMs, 1);
        else if (!ParseRelative(text, nowMs, ms)) {
            error = "cannot read time '" + std::string(text) +
                    "' (try \"2026-11-21 14:03\", \"14:03\", \"10 min ago\", \"-2h\", \"today\")";
            return false;
        }
        units = ms * kUnitsPerMs;
    }
    int64_t filetime = units + int64_t(QS_FILETIME_UNIX_EPOCH);
    out = filetime < 0 ? 0 : uint64_t(filetime);
    span = uint64_t(length);
    return true;
}

} // namespace qslog

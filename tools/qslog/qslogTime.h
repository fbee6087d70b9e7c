// Record times: rendering FILETIMEs as local time, and reading the times a
// user types for --since and --until.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qslog {

// Renders FILETIMEs (100-ns units since 1601 UTC) as local time.  Records
// arrive in time order, so the calendar conversion is done once per distinct
// second and only the fraction changes in between.
class TimeFormatter {
public:
    // "2026-11-21 14:03:07.123"
    std::string_view Short(uint64_t filetime);
    // "2026-11-21T14:03:07.123456+01:00" (RFC 3339, microseconds)
    std::string_view Iso(uint64_t filetime);

private:
    void Convert(int64_t second);

    int64_t m_Second = INT64_MIN;
    char m_Date[20] = {}; // "YYYY-MM-DD HH:MM:SS"
    char m_Zone[8] = {};  // "+HH:MM"
    char m_Out[40] = {};
};

int64_t FileTimeToUnixMs(uint64_t filetime);
uint64_t UnixMsToFileTime(int64_t ms);
// The current time as a FILETIME.
uint64_t NowFileTime();

// Reads an absolute or relative time and returns it as a FILETIME:
//   now, today, yesterday, tomorrow          (the last three at local midnight)
//   2026-11-21, 2026-11-21 14:03[:07[.123]]  (local time; 'T' may separate)
//   14:03[:07]                               (today, local time)
//   10 min ago, 10min ago, -10min, +2h       (relative to `now`)
//   @1790000000                              (seconds since 1970 UTC)
// Units: s sec second(s), m min minute(s), h hour(s), d day(s), w week(s).
// A clock time and an @ time name a stretch as long as their last field (a
// minute, a second, a millisecond for .123): `span` gets its length in
// FILETIME units, so that an end given as "14:03:07.123" can take in every
// record of that millisecond.  Everything else is an instant (span 0).
// False, with the reason in `error`, when the text is none of these.
bool ParseTime(std::string_view text, uint64_t now, uint64_t& out, uint64_t& span,
               std::string& error);

} // namespace qslog

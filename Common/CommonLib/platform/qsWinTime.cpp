#include "qsWinApi.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

namespace {

// Read once and kept; every thread that races the first read stores the same value.
long g_TicksPerSecond = 0;

uint64_t FileTimeNow() {
    timeval tv;
    if (gettimeofday(&tv, nullptr) != 0)
        return 0;
    return (uint64_t(tv.tv_sec) * 1000000 + uint64_t(tv.tv_usec)) * 10 + QS_FILETIME_UNIX_EPOCH;
}

void TmToSystemTime(const tm& t, WORD ms, SYSTEMTIME* st) {
    st->wYear = WORD(t.tm_year + 1900);
    st->wMonth = WORD(t.tm_mon + 1);
    st->wDayOfWeek = WORD(t.tm_wday);
    st->wDay = WORD(t.tm_mday);
    st->wHour = WORD(t.tm_hour);
    st->wMinute = WORD(t.tm_min);
    st->wSecond = WORD(t.tm_sec);
    st->wMilliseconds = ms;
}

// The offset that FileTimeToLocalFileTime adds: mktime(localtime_r(now)) - now,
// which is zero on a C library whose mktime inverts localtime_r.
bool LocalOffset(int64_t* offset) {
    time_t now = time(nullptr);
    if (now == time_t(-1))
        return false;
    tm t;
    if (!localtime_r(&now, &t))
        return false;
    time_t back = mktime(&t);
    if (back == time_t(-1))
        return false;
    *offset = (int64_t(back) - int64_t(now)) * int64_t(QS_FILETIME_PER_SECOND);
    return true;
}

} // namespace

void Sleep(DWORD ms) {
    timespec req{time_t(ms / 1000), long(ms % 1000) * 1000000L};
    timespec rem;
    while (nanosleep(&req, &rem) == -1 && errno == EINTR)
        req = rem;
}

DWORD GetTickCount() {
    if (g_TicksPerSecond == 0)
        g_TicksPerSecond = sysconf(_SC_CLK_TCK);
    tms unused;
    clock_t ticks = times(&unused);
    if (g_TicksPerSecond == -1)
        return DWORD(ticks);
    // Divide first: callers only ever measure coarse intervals.
    return DWORD(DWORD(ticks) / DWORD(g_TicksPerSecond)) * 1000u;
}

void GetSystemTime(SYSTEMTIME* st) {
    if (!st)
        return;
    timeval tv;
    tm t;
    if (gettimeofday(&tv, nullptr) != 0 || !gmtime_r(&tv.tv_sec, &t)) {
        memset(st, 0, sizeof(*st));
        return;
    }
    TmToSystemTime(t, WORD(tv.tv_usec / 1000), st);
}

void GetSystemTimeAsFileTime(FILETIME* ft) {
    if (!ft)
        return;
    *ft = qsUInt64ToFileTime(FileTimeNow());
}

void GetLocalTime(SYSTEMTIME* st) {
    if (!st)
        return;
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    // The local offset is zero on this C library anyway: should it not be
    // readable, the time is rendered unshifted rather than from garbage.
    FILETIME local = now;
    FileTimeToLocalFileTime(&now, &local);
    FileTimeToSystemTime(&local, st);
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* st, FILETIME* ft) {
    if (!st || !ft || st->wYear < 1970)
        return FALSE;
    tm t{};
    t.tm_year = st->wYear - 1900;
    t.tm_mon = st->wMonth - 1;
    t.tm_mday = st->wDay;
    t.tm_hour = st->wHour;
    t.tm_min = st->wMinute;
    t.tm_sec = st->wSecond;
    t.tm_isdst = 0;
    time_t secs = mktime(&t);
    if (secs < 0)
        return FALSE;
    *ft = qsUInt64ToFileTime(uint64_t(secs) * QS_FILETIME_PER_SECOND + QS_FILETIME_UNIX_EPOCH);
    return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* ft, SYSTEMTIME* st) {
    if (!ft || !st)
        return FALSE;
    uint64_t since = qsFileTimeToUInt64(*ft) - QS_FILETIME_UNIX_EPOCH;
    // Truncated to 32 bits as on the platform this emulates.
    time_t secs = time_t(int32_t(since / QS_FILETIME_PER_SECOND));
    tm t;
    if (!localtime_r(&secs, &t))
        return FALSE;
    TmToSystemTime(t, WORD((since % QS_FILETIME_PER_SECOND) / 10000), st);
    return TRUE;
}

BOOL FileTimeToLocalFileTime(const FILETIME* ft, FILETIME* local) {
    int64_t offset;
    if (!ft || !local || !LocalOffset(&offset))
        return FALSE;
    *local = qsUInt64ToFileTime(qsFileTimeToUInt64(*ft) + uint64_t(offset));
    return TRUE;
}

BOOL LocalFileTimeToFileTime(const FILETIME* local, FILETIME* ft) {
    int64_t offset;
    if (!local || !ft || !LocalOffset(&offset))
        return FALSE;
    *ft = qsUInt64ToFileTime(qsFileTimeToUInt64(*local) - uint64_t(offset));
    return TRUE;
}

void UNIXTimeToFILETIME(const long& seconds, FILETIME& ft) {
    ft = qsUInt64ToFileTime(uint64_t(int64_t(seconds) * int64_t(QS_FILETIME_PER_SECOND)) +
                            QS_FILETIME_UNIX_EPOCH);
}

long FILETIMEToUNIXTime(const FILETIME& ft) {
    return long((qsFileTimeToUInt64(ft) - QS_FILETIME_UNIX_EPOCH) / QS_FILETIME_PER_SECOND);
}

#include "qsWinApi.h"

#include "qsGuidInternal.h"
#include "qsTestSupport.h"
#include "qsUnprivileged.h"

#include <chrono>
#include <crypt.h>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <sys/wait.h>

// Runs body in a forked child and returns its exit status.
template <typename Body> static int InChild(Body body) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

static void SetZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

static uint64_t FileTimeAt(uint64_t unixSeconds, uint64_t extraUnits = 0) {
    return unixSeconds * QS_FILETIME_PER_SECOND + QS_FILETIME_UNIX_EPOCH + extraUnits;
}

// The type is read by single mode bits: a socket's type code holds the
// directory bit, a character device's neither bit.
TEST(qsWinApi, AttributesByModeBitsAndErrorNumbers) {
    qsTest::TempDir dir;
    std::string file = dir / "file", sock = dir / "sock", closed = dir / "closed";
    qsTest::WriteFileText(file, "12345");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(sock.size(), sizeof addr.sun_path);
    strcpy(addr.sun_path, sock.c_str());
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    std::pair<std::string, DWORD> types[] = {
        {dir.Path(), 0x10}, {file, 0x80}, {"/dev/null", 0}, {sock, 0x10}};
    for (auto& [path, attributes] : types)
        EXPECT_EQ(GetFileAttributesA(path.c_str()), attributes) << path;
    close(s);
    errno = 0;
    EXPECT_EQ(GetFileAttributesA(nullptr), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(errno, 87);
    EXPECT_EQ(GetFileAttributesA((dir / "missing").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(errno, 2);

    // Ex: only level 0 (refused before looking), and up to the first ':' is cut.
    WIN32_FILE_ATTRIBUTE_DATA data{};
    EXPECT_FALSE(GetFileAttributesExA(file.c_str(), 1, &data));
    EXPECT_EQ(data.nFileSizeLow, 0u);
    ASSERT_TRUE(GetFileAttributesExA(("C:" + file).c_str(), 0, &data));
    EXPECT_TRUE(data.dwFileAttributes == FILE_ATTRIBUTE_NORMAL && data.nFileSizeLow == 5);
    EXPECT_FALSE(GetFileAttributesExA(("h:" + file + "x").c_str(), 0, &data));
    EXPECT_EQ(errno, 2);

    // Permission denied is 5, where permissions apply.
    ASSERT_EQ(mkdir(closed.c_str(), 0), 0);
    EXPECT_EQ(
        qsTest::RunUnprivileged(
            dir.Path(),
            [] { return GetFileAttributesA("closed/x") == INVALID_FILE_ATTRIBUTES ? errno : 0; }),
        5);
}

TEST(qsWinApi, VirtualAllocAlignmentAndRefusedForms) {
    int somewhere;
    EXPECT_EQ(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE), nullptr);
    EXPECT_EQ(VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READONLY), nullptr);
    EXPECT_EQ(VirtualAlloc(&somewhere, 4096, MEM_COMMIT, PAGE_READWRITE), nullptr);
    auto* p = static_cast<char*>(VirtualAlloc(nullptr, 100000, MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 65536, 0u);
    strcpy(p + 99990, "kept");
    EXPECT_FALSE(VirtualFree(p, 100000, MEM_RELEASE));
    EXPECT_FALSE(VirtualFree(p, 0, 0x4000)); // MEM_DECOMMIT
    EXPECT_STREQ(p + 99990, "kept");         // still ours
    EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
}

TEST(qsWinApi, TempPathRelativePathsAndComputerName) {
    // TMP, TEMP (null: unset), buffer size, result, path.  A trailing slash is
    // not doubled but its room is still needed; a set but empty TMP is taken.
    std::tuple<const char*, const char*, DWORD, DWORD, const char*> cases[] = {
        {"/var/tmp", "/else", 10, 9, "/var/tmp/"},
        {"/var/tmp", "/else", 9, 0, ""},
        {"/var/tmp/", "/else", 11, 9, "/var/tmp/"},
        {"/var/tmp/", "/else", 10, 0, ""},
        {nullptr, "/else", 64, 6, "/else/"},
        {nullptr, nullptr, 64, 2, "./"},
        {"", "/else", 64, 1, "/"}};
    for (auto [tmp, temp, size, result, path] : cases) {
        tmp ? setenv("TMP", tmp, 1) : unsetenv("TMP");
        temp ? setenv("TEMP", temp, 1) : unsetenv("TEMP");
        char buf[64] = "";
        errno = 0;
        EXPECT_EQ(GetTempPathA(size, buf), result) << tmp << " " << size;
        EXPECT_STREQ(buf, path);
        EXPECT_EQ(errno, result ? 0 : 122);
    }
    for (const char* path : {"/usr", "", (const char*)nullptr})
        EXPECT_TRUE(PathIsRelative(path)) << path;
    for (const char* path : {"\\server\\share", "C:x", "h:"})
        EXPECT_FALSE(PathIsRelative(path)) << path;

    utsname u;
    char buf[256];
    DWORD size = 15;
    EXPECT_FALSE(GetComputerNameA(buf, &size)); // whatever the name's length
    size = sizeof buf;
    ASSERT_TRUE(uname(&u) == 0 && GetComputerNameA(buf, &size));
    EXPECT_TRUE(size == sizeof buf && strcmp(buf, u.nodename) == 0); // size never updated
}

// FileTimeToSystemTime renders in local time and SystemTimeToFileTime reads
// local standard time, which keeps them inverses to the second.
TEST(qsWinApi, FileTimeAndSystemTimeConversions) {
    SetZone("XST+3"); // three hours west of UTC, no daylight saving
    FILETIME ft = qsUInt64ToFileTime(FileTimeAt(0, 12340000)), back, local;
    SYSTEMTIME st, before{1969, 12, 3, 31, 23, 59, 59, 0}, summer{2020, 7, 0, 1, 12, 0, 0, 0};
    ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
    EXPECT_EQ(std::vector<WORD>(&st.wYear, &st.wMilliseconds + 1),
              (std::vector<WORD>{1969, 12, 3, 31, 21, 0, 1, 234}));
    st = {1970, 1, 5, 1, 0, 0, 0, 999}; // day of week ignored, milliseconds dropped
    ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
    EXPECT_EQ(qsFileTimeToUInt64(ft), FileTimeAt(3 * 3600));
    EXPECT_FALSE(SystemTimeToFileTime(&before, &ft));
    SetZone("XST-5:30"); // east of UTC: local midnight 1970-01-01 is before the epoch
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft));
    SetZone("XST+3XDT,M3.2.0,M11.1.0"); // the DST flag is 0: summer is read as standard time
    ASSERT_TRUE(SystemTimeToFileTime(&summer, &ft));
    EXPECT_EQ(FILETIMEToUNIXTime(ft), 1593604800 + 3 * 3600);

    SetZone("XST-9");
    for (uint64_t seconds : {0ull, 86399ull, 951782400ull, 2147483647ull}) {
        ft = qsUInt64ToFileTime(FileTimeAt(seconds, 5678901));
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st) && SystemTimeToFileTime(&st, &back));
        EXPECT_EQ(qsFileTimeToUInt64(back), FileTimeAt(seconds)) << seconds;
        // "Local" FILETIMEs are the same numbers.
        ASSERT_TRUE(FileTimeToLocalFileTime(&ft, &local) && LocalFileTimeToFileTime(&local, &back));
        EXPECT_TRUE(qsFileTimeToUInt64(local) == qsFileTimeToUInt64(ft) &&
                    qsFileTimeToUInt64(back) == qsFileTimeToUInt64(ft));
    }
}

static volatile sig_atomic_t g_Alarms = 0;

// Sleep resumes after an interrupting signal for the time left.  The tick
// count moves in whole seconds (divided by the clock rate before the
// multiplication by 1000), so across the sleep it moves by 1000 or 2000.
TEST(qsWinApi, SleepContinuesAfterASignalAndTicksMoveInWholeSeconds) {
    struct sigaction sa {};
    sa.sa_handler = [](int) { g_Alarms = g_Alarms + 1; }; // no SA_RESTART: EINTR
    ASSERT_EQ(sigaction(SIGALRM, &sa, nullptr), 0);
    itimerval timer{{0, 0}, {0, 200000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    auto start = std::chrono::steady_clock::now();
    DWORD ticks = GetTickCount();
    Sleep(1300);
    ticks = GetTickCount() - ticks;
    std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(g_Alarms, 1);
    EXPECT_GE(elapsed.count(), 1.3);
    EXPECT_TRUE(ticks == 1000 || ticks == 2000) << ticks;
}

// Cached per process: a child, and its own child, must see their own ids.
TEST(qsWinApi, ProcessIdIsRightInAForkedChild) {
    DWORD parent = GetCurrentProcessId();
    auto fresh = [](DWORD above) {
        return GetCurrentProcessId() == DWORD(getpid()) && GetCurrentProcessId() != above;
    };
    EXPECT_EQ(parent, DWORD(getpid()));
    EXPECT_EQ(InChild([&] {
                  DWORD child = GetCurrentProcessId();
                  return fresh(parent) ? InChild([&] { return fresh(child) ? 0 : 2; }) : 1;
              }),
              0);
    EXPECT_EQ(GetCurrentProcessId(), parent);
}

// Around the epoch and leap days, in a zone that is neither UTC nor whole
// hours: local wall-clock SYSTEMTIMEs to FILETIME and back, day of week too.
TEST(qsWinApi, LeapDaysAndTheEpochInANonUtcZone) {
    SetZone("XST-5:30");
    // Local date and time, day of week, UTC seconds.
    std::tuple<SYSTEMTIME, uint64_t> cases[] = {
        {{1970, 1, 4, 1, 5, 30, 0, 0}, 0},
        {{1972, 2, 2, 29, 12, 0, 0, 0}, 68193000},
        {{1972, 3, 3, 1, 5, 29, 59, 0}, 68255999}, // 02-29 in UTC
        {{2000, 2, 2, 29, 0, 0, 0, 0}, 951762600},
        {{2000, 3, 3, 1, 0, 0, 0, 0}, 951849000},
        {{2024, 2, 4, 29, 23, 59, 59, 0}, 1709231399},
        {{2038, 1, 2, 19, 8, 44, 7, 0}, 2147483647}};
    for (auto& [local, seconds] : cases) {
        FILETIME ft;
        SYSTEMTIME back;
        ASSERT_TRUE(SystemTimeToFileTime(&local, &ft)) << seconds;
        EXPECT_EQ(qsFileTimeToUInt64(ft), FileTimeAt(seconds)) << seconds;
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &back));
        EXPECT_EQ(memcmp(&back, &local, sizeof back), 0) << seconds << " " << back.wDay;
        EXPECT_EQ(FILETIMEToUNIXTime(ft), long(seconds));
        long s = long(seconds);
        UNIXTimeToFILETIME(s, ft);
        EXPECT_EQ(qsFileTimeToUInt64(ft), FileTimeAt(seconds));
    }
    SYSTEMTIME early{1970, 1, 4, 1, 5, 29, 59, 0}; // 1969-12-31 23:59:59 UTC
    FILETIME ft;
    EXPECT_FALSE(SystemTimeToFileTime(&early, &ft));
}

static std::vector<BYTE> Bytes(const GUID& g) {
    const BYTE* p = reinterpret_cast<const BYTE*>(&g);
    return std::vector<BYTE>(p, p + sizeof g);
}

// Time in 100-ns units since 1963-07-16 16:00 UTC, the version-1 mark, the
// variant bits over rand_r of the time's low word, six hash characters of
// the host name.  One microsecond gives one GUID.
TEST(qsWinApi, GuidFieldsAndUniquenessByTheMicrosecond) {
    char host[257] = {};
    ASSERT_EQ(gethostname(host, 256), 0);
    std::string hash = crypt(host, kQsGuidHostSalt);
    // Unix seconds, microseconds, expected 60-bit time.
    std::tuple<uint64_t, uint32_t, uint64_t> times[] = {{0, 0, 2039328000000000ull},
                                                        {1700000000, 123456, 19039328001234560ull},
                                                        {1700000000, 123457, 19039328001234570ull},
                                                        {1700000001, 123456, 19039328011234560ull}};
    std::vector<std::vector<BYTE>> seen;
    for (auto [seconds, micro, t] : times) {
        GUID a, b;
        qsGuidFromTime(seconds, micro, &a);
        qsGuidFromTime(seconds, micro, &b);
        EXPECT_EQ(Bytes(a), Bytes(b)); // the same microsecond
        EXPECT_EQ(a.Data1, DWORD(t));
        EXPECT_EQ(a.Data2, WORD(t >> 32));
        EXPECT_EQ(a.Data3, WORD(t >> 48) | 0x1000);
        unsigned seed = unsigned(t);
        unsigned r = unsigned(rand_r(&seed));
        EXPECT_EQ(a.Data4[0], BYTE((r >> 24) | 0xA0));
        EXPECT_EQ(a.Data4[1], BYTE(r >> 16));
        EXPECT_EQ(std::string(reinterpret_cast<char*>(a.Data4 + 2), 6), hash.substr(2, 6));
        for (auto& other : seen)
            EXPECT_NE(Bytes(a), other) << seconds << "." << micro;
        seen.push_back(Bytes(a));
    }

    // The real clock: the time in the GUID lies between two readings.
    timeval before, after;
    GUID g{};
    gettimeofday(&before, nullptr);
    EXPECT_EQ(CoCreateGuid(&g), S_OK);
    gettimeofday(&after, nullptr);
    auto at = [](const timeval& tv) {
        return ((uint64_t(tv.tv_sec) + 203932800) * 1000000 + uint64_t(tv.tv_usec)) * 10;
    };
    uint64_t t = (uint64_t(g.Data3 & 0x0FFF) << 48) | (uint64_t(g.Data2) << 32) | g.Data1;
    EXPECT_TRUE(t >= at(before) && t <= at(after));
    EXPECT_EQ(CoCreateGuid(nullptr), S_OK);
}

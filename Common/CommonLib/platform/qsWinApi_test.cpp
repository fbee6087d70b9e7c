#include "qsWinApi.h"

#include "qsTestSupport.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Runs `body` in a forked child and returns its exit status.
template <typename Body> int InChild(Body body) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

void SetZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

uint64_t FileTimeAt(uint64_t unixSeconds, uint64_t extraUnits = 0) {
    return unixSeconds * QS_FILETIME_PER_SECOND + QS_FILETIME_UNIX_EPOCH + extraUnits;
}

double MonotonicSeconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

} // namespace

TEST(qsWinApi, AttributesByModeBits) {
    qsTest::TempDir dir;
    errno = 0;
    EXPECT_EQ(GetFileAttributesA(nullptr), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(errno, 87);
    EXPECT_EQ(GetFileAttributesA((dir / "missing").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(errno, 2);

    std::string file = dir / "file";
    qsTest::WriteFileText(file, "12345");
    EXPECT_EQ(GetFileAttributesA(dir.Path().c_str()), FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(GetFileAttributesA(file.c_str()), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(GetFileAttributesA("/dev/null"), 0u); // character device: neither bit

    // A socket's type code contains the directory bit: it reports as one.
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string sock = dir / "sock";
    ASSERT_LT(sock.size(), sizeof addr.sun_path);
    strcpy(addr.sun_path, sock.c_str());
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(GetFileAttributesA(sock.c_str()), FILE_ATTRIBUTE_DIRECTORY);
    close(s);

    // Links are followed: the target decides.
    ASSERT_EQ(symlink(dir.Path().c_str(), (dir / "dirlink").c_str()), 0);
    EXPECT_EQ(GetFileAttributesA((dir / "dirlink").c_str()), FILE_ATTRIBUTE_DIRECTORY);

    WIN32_FILE_ATTRIBUTE_DATA data;
    memset(&data, 0xAB, sizeof data);
    ASSERT_EQ(GetFileAttributes_Common(file.c_str(), &data), FILE_ATTRIBUTE_NORMAL);
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(qsFileTimeToUInt64(data.ftCreationTime), 0u);
    EXPECT_EQ(qsFileTimeToUInt64(data.ftLastWriteTime), FileTimeAt(uint64_t(st.st_mtime)));
    EXPECT_EQ(data.nFileSizeLow, 5u);

    // Beyond 4 GiB (sparse): the low 32 bits, also in a 32-bit build.
    ASSERT_EQ(truncate64(file.c_str(), (off64_t(1) << 32) + 5), 0);
    ASSERT_EQ(GetFileAttributes_Common(file.c_str(), &data), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(data.nFileSizeHigh, 0u);
    EXPECT_EQ(data.nFileSizeLow, 5u);
}

// Root passes every permission check, so the probe runs as an unprivileged
// user in a child when the test runs as root.
TEST(qsWinApi, AttributesPermissionDeniedIsFive) {
    qsTest::TempDir dir;
    std::string closed = dir / "closed";
    ASSERT_EQ(mkdir(closed.c_str(), 0700), 0);
    qsTest::WriteFileText(closed + "/file", "x");
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    int result = InChild([&] {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            return 100;
        errno = 0;
        if (GetFileAttributesA((closed + "/file").c_str()) != INVALID_FILE_ATTRIBUTES)
            return 101;
        return errno;
    });
    chmod(closed.c_str(), 0700);
    if (result == 100)
        GTEST_SKIP() << "running as root and cannot switch to uid 65534";
    EXPECT_EQ(result, 5);
}

TEST(qsWinApi, AttributesExLevelAndDrivePrefix) {
    qsTest::TempDir dir;
    std::string file = dir / "file";
    qsTest::WriteFileText(file, "abc");
    WIN32_FILE_ATTRIBUTE_DATA data{};
    EXPECT_FALSE(GetFileAttributesExA(file.c_str(), 1, &data));
    EXPECT_EQ(data.nFileSizeLow, 0u); // refused before looking
    ASSERT_TRUE(GetFileAttributesExA(("C:" + file).c_str(), 0, &data));
    EXPECT_EQ(data.nFileSizeLow, 3u);
    ASSERT_TRUE(GetFileAttributesExA(("host:" + dir.Path()).c_str(), 0, &data));
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_FALSE(GetFileAttributesExA(("C:" + file + "x").c_str(), 0, &data));
    EXPECT_EQ(errno, 2);
}

TEST(qsWinApi, VirtualAllocAlignmentAndRefusedForms) {
    for (DWORD size : {1u, 4096u, 100000u}) {
        void* p = VirtualAlloc(nullptr, size, MEM_COMMIT, PAGE_READWRITE);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 65536, 0u);
        memset(p, 1, size);
        EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
    }
    int somewhere;
    EXPECT_EQ(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE), nullptr);
    EXPECT_EQ(VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READONLY), nullptr);
    EXPECT_EQ(VirtualAlloc(&somewhere, 4096, MEM_COMMIT, PAGE_READWRITE), nullptr);

    auto* p = static_cast<char*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(p, nullptr);
    strcpy(p, "kept");
    EXPECT_FALSE(VirtualFree(p, 4096, MEM_RELEASE));
    EXPECT_FALSE(VirtualFree(p, 0, 0x4000)); // MEM_DECOMMIT
    EXPECT_STREQ(p, "kept");                 // still ours
    EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
}

TEST(qsWinApi, TempPathFromTmpThenTemp) {
    char buf[64];
    setenv("TMP", "/var/tmp", 1);
    setenv("TEMP", "/elsewhere", 1);
    EXPECT_EQ(GetTempPathA(10, buf), 9u);
    EXPECT_STREQ(buf, "/var/tmp/");
    errno = 0;
    EXPECT_EQ(GetTempPathA(9, buf), 0u);
    EXPECT_EQ(errno, 122);

    setenv("TMP", "/var/tmp/", 1); // a trailing slash is not doubled, but still reserved for
    EXPECT_EQ(GetTempPathA(11, buf), 9u);
    EXPECT_STREQ(buf, "/var/tmp/");
    EXPECT_EQ(GetTempPathA(10, buf), 0u);

    unsetenv("TMP");
    EXPECT_EQ(GetTempPathA(sizeof buf, buf), 11u);
    unsetenv("TEMP");
    EXPECT_EQ(GetTempPathA(sizeof buf, buf), 2u);
    EXPECT_STREQ(buf, "./");

    // Set but empty is taken as it stands (TEMP is not consulted); the
    // separator is then the whole path.
    setenv("TMP", "", 1);
    setenv("TEMP", "/elsewhere", 1);
    EXPECT_EQ(GetTempPathA(sizeof buf, buf), 1u);
    EXPECT_STREQ(buf, "/");
}

TEST(qsWinApi, PathIsRelative) {
    EXPECT_TRUE(PathIsRelative("/usr"));
    EXPECT_TRUE(PathIsRelative(""));
    EXPECT_TRUE(PathIsRelative(nullptr));
    EXPECT_FALSE(PathIsRelative("\\server\\share"));
    EXPECT_FALSE(PathIsRelative("C:x"));
    EXPECT_FALSE(PathIsRelative("h:"));
}

TEST(qsWinApi, ComputerNameNeedsSixteenBytes) {
    utsname u;
    ASSERT_EQ(uname(&u), 0);
    char buf[256];
    DWORD size = 15;
    EXPECT_FALSE(GetComputerNameA(buf, &size)); // whatever the name's length
    size = sizeof buf;
    ASSERT_TRUE(GetComputerNameA(buf, &size));
    EXPECT_STREQ(buf, u.nodename);
    EXPECT_EQ(size, sizeof buf); // never updated
    EXPECT_FALSE(GetComputerNameA(nullptr, &size));
}

TEST(qsWinApi, FileTimeRendersInLocalTime) {
    SetZone("XST+3"); // three hours west of UTC, no daylight saving
    SYSTEMTIME st;
    FILETIME ft = qsUInt64ToFileTime(FileTimeAt(0, 12340000));
    ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
    EXPECT_EQ(st.wYear, 1969);
    EXPECT_EQ(st.wMonth, 12);
    EXPECT_EQ(st.wDay, 31);
    EXPECT_EQ(st.wDayOfWeek, 3); // Wednesday
    EXPECT_EQ(st.wHour, 21);
    EXPECT_EQ(st.wMinute, 0);
    EXPECT_EQ(st.wSecond, 1);
    EXPECT_EQ(st.wMilliseconds, 234);
    ft = qsUInt64ToFileTime(FileTimeAt(0, 1234)); // 0.1234 ms
    ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
    EXPECT_EQ(st.wMilliseconds, 0);

    // GetSystemTime is UTC, GetLocalTime the same instant rendered here.
    SYSTEMTIME utc, local;
    GetSystemTime(&utc);
    GetLocalTime(&local);
    EXPECT_EQ((utc.wHour + 24 - local.wHour) % 24, 3);
}

TEST(qsWinApi, SystemTimeToFileTimeReadsLocalStandardTime) {
    SetZone("XST+3");
    FILETIME ft;
    SYSTEMTIME st{1970, 1, 0, 1, 0, 0, 0, 999};
    ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
    EXPECT_EQ(qsFileTimeToUInt64(ft), FileTimeAt(3 * 3600)); // milliseconds dropped
    st.wMilliseconds = 0;
    st.wDayOfWeek = 5; // ignored
    ASSERT_TRUE(SystemTimeToFileTime(&st, &ft));
    EXPECT_EQ(qsFileTimeToUInt64(ft), FileTimeAt(3 * 3600));
    SYSTEMTIME before{1969, 12, 3, 31, 23, 59, 59, 0};
    EXPECT_FALSE(SystemTimeToFileTime(&before, &ft));

    SetZone("XST-5:30"); // east of UTC: local midnight 1970-01-01 is before the epoch
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft));

    // The daylight-saving flag is 0: a summer time is read as standard time.
    SetZone("XST+3XDT,M3.2.0,M11.1.0");
    SYSTEMTIME summer{2020, 7, 0, 1, 12, 0, 0, 0};
    ASSERT_TRUE(SystemTimeToFileTime(&summer, &ft));
    EXPECT_EQ(FILETIMEToUNIXTime(ft), 1593604800 + 3 * 3600); // 12:00 UTC plus 3 hours
}

TEST(qsWinApi, TimeConversionsAreInversesToTheSecond) {
    SetZone("XST-9");
    for (uint64_t seconds : {0ull, 1ull, 86399ull, 951782400ull, 1700000000ull, 2147483647ull}) {
        FILETIME ft = qsUInt64ToFileTime(FileTimeAt(seconds, 5678901)), back, local;
        SYSTEMTIME st;
        ASSERT_TRUE(FileTimeToSystemTime(&ft, &st));
        if (seconds == 0) {
            // 09:00 local on 1970-01-01 is still after the epoch here.
            EXPECT_EQ(st.wHour, 9);
        }
        ASSERT_TRUE(SystemTimeToFileTime(&st, &back));
        EXPECT_EQ(qsFileTimeToUInt64(back), FileTimeAt(seconds)) << seconds;

        // "Local" FILETIMEs are the same numbers.
        ASSERT_TRUE(FileTimeToLocalFileTime(&ft, &local));
        EXPECT_EQ(qsFileTimeToUInt64(local), qsFileTimeToUInt64(ft));
        ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
        EXPECT_EQ(qsFileTimeToUInt64(back), qsFileTimeToUInt64(ft));
    }
}

// Whole seconds times 1000 in 32-bit arithmetic.  The values themselves are
// multiples of 1000 only until seconds * 1000 first wraps, and Linux starts
// times() near 2^32 jiffies, so on most kernels that has happened at boot;
// the steps between readings are what stays whole seconds.
TEST(qsWinApi, TickCountMovesInWholeSeconds) {
    DWORD first = GetTickCount();
    DWORD last = first;
    double end = MonotonicSeconds() + 1.3;
    while (MonotonicSeconds() < end) {
        last = GetTickCount();
        ASSERT_EQ((last - first) % 1000, 0u) << first << " " << last;
        usleep(20000);
    }
    EXPECT_GE(last - first, 1000u);
    EXPECT_LE(last - first, 2000u);
}

namespace {
volatile sig_atomic_t g_Alarms = 0;
void OnAlarm(int) { g_Alarms = g_Alarms + 1; }
} // namespace

TEST(qsWinApi, SleepContinuesAfterASignal) {
    struct sigaction sa{};
    sa.sa_handler = OnAlarm; // no SA_RESTART: nanosleep returns EINTR
    ASSERT_EQ(sigaction(SIGALRM, &sa, nullptr), 0);
    itimerval timer{{0, 0}, {0, 200000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    double start = MonotonicSeconds();
    Sleep(1300);
    double elapsed = MonotonicSeconds() - start;
    EXPECT_EQ(g_Alarms, 1);
    EXPECT_GE(elapsed, 1.3);
    EXPECT_LT(elapsed, 2.0);
}

TEST(qsWinApi, ProcessIdIsRightInAForkedChild) {
    DWORD parent = GetCurrentProcessId();
    EXPECT_EQ(parent, DWORD(getpid()));
    EXPECT_EQ(InChild([&] {
                  if (GetCurrentProcessId() != DWORD(getpid()) || GetCurrentProcessId() == parent)
                      return 1;
                  // And again one generation further down.
                  DWORD child = GetCurrentProcessId();
                  return InChild([&] {
                      return GetCurrentProcessId() == DWORD(getpid()) &&
                                     GetCurrentProcessId() != child
                                 ? 0
                                 : 2;
                  });
              }),
              0);
    EXPECT_EQ(GetCurrentProcessId(), parent);
}

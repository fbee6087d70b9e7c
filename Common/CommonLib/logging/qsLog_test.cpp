#include "qsLog.h"

#include "qsException.h"
#include "qsLogGuard.h"
#include "qsLogRecords.h"
#include "qsLogSwitchMap.h"
#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/stat.h>

// Every case runs in a process of its own, so the environment and the
// process-wide logging state can be changed freely here.

namespace {

void SetEnv(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

bool IsDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

off_t FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string ComputerName() {
    char name[MAX_PATH];
    DWORD size = sizeof name;
    return GetComputerNameA(name, &size) ? name : "";
}

std::string StreamPath(const std::string& dir, const char* file) {
    return dir + "/" + ComputerName() + "_" + file;
}

// The newest record of the default stream.
qsTest::LogRecord Newest() {
    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    return records.empty() ? qsTest::LogRecord{} : records.back();
}

// Restarts logging from the environment as it now stands.
qsStatus Reopen() {
    qsLogging::StopLogging();
    return qsLogStreamObjectsInit(nullptr);
}

struct FakeStream {
    uint32_t state;
    uint32_t StateWord() const { return state; }
};

} // namespace

TEST(qsLogStart, DefaultStreamsAreOpenBeforeMain) {
    const std::string dir = getenv("QS_LOG_DIR");
    EXPECT_TRUE(g_LoggingInitialized);
    EXPECT_EQ(g_CurrentProcessId, DWORD(getpid()));
    EXPECT_EQ(g_hInstance, reinterpret_cast<HANDLE>(intptr_t(getpid())));
    EXPECT_TRUE(g_LogInfoMessages);

    ASSERT_NE(g_pZLogStreamDefault, nullptr);
    ASSERT_NE(g_pZLogStreamEvents, nullptr);
    EXPECT_EQ(g_pZLogStreamPerfCtrs, nullptr);
    EXPECT_EQ(g_pZLogStreamDefault->StateWord(), STREAM_SIG_VALID);
    EXPECT_EQ(FileSize(StreamPath(dir, "Default.log")), 4096 * 1024);
    EXPECT_EQ(FileSize(StreamPath(dir, "Events.log")), 4096 * 1024);
    EXPECT_EQ(FileSize(StreamPath(dir, "PerfCtrs.log")), -1);

    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.front().Type(), LOGREC_START);
}

TEST(qsLogMessages, EveryCallFailsWithoutAStreamAndReportersStillAnswerTheirCode) {
    qsLogging::StopLogging();
    ASSERT_EQ(g_pZLogStreamDefault, nullptr);
    EXPECT_EQ(qsLogPrintfA(0, 1, "x"), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogPrintfW(0, 1, "x"), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogPrintfEx(0, 1, 2, "x"), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogPrintStringA("x", 0, 1, 0), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogPrintStringW("x", 0, 1, 0), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogBigMsgPrintfA(0, 1, "x"), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogPrintModuleMessage(nullptr, nullptr), QS_E_NO_LOG_STREAM);

    EXPECT_EQ(qsLogPrintUnhandledExceptionMessage("w", 1), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintStructuredExceptionMessage("w", 0xC0000005, 1), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintMemoryExceptionMessage(nullptr, 1), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintQsExceptionMessage("w", qsException(0, "t"), 3), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintQsExceptionMessage("w", qsException(0x80000003, "t"), 3), 0x80000003u);
}

TEST(qsLogMessages, SeverityZeroFollowsTheInfoSwitch) {
    ASSERT_NE(g_pZLogStreamDefault, nullptr);
    qsLogInfoMessages(false);
    EXPECT_EQ(qsLogPrintfA(0, 0, "dropped"), QS_W_MSG_SUPPRESSED);
    EXPECT_EQ(qsLogPrintfA(0, 1, "kept"), QS_OK);
    qsLogInfoMessages(true);
    EXPECT_EQ(qsLogPrintfA(7, 0, "detail %d", 42), QS_OK);

    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[records.size() - 2].Text(), "kept");
    EXPECT_EQ(records.back().Text(), "detail 42");
    EXPECT_EQ(records.back().Code(), 7);
    EXPECT_EQ(records.back().Severity(), 0);
}

TEST(qsLogMessages, ModuleMessagesAndExceptionReportsAreRecordedAsWritten) {
    ASSERT_NE(g_pZLogStreamDefault, nullptr);

    EXPECT_EQ(qsLogPrintModuleMessage(nullptr, nullptr), QS_OK);
    auto r = Newest();
    EXPECT_EQ(r.Text(), "App Info");
    EXPECT_EQ(uint32_t(r.Code()), QS_I_MODULE_MESSAGE);
    EXPECT_EQ(r.Severity(), 1);
    EXPECT_EQ(r.info.GetFlags(), 2u);

    qsLogPrintUnhandledExceptionMessage(nullptr, 5);
    r = Newest();
    EXPECT_EQ(r.Text(), "???: unhandled exception (5)");
    EXPECT_EQ(uint32_t(r.Code()), QS_E_EXCEPTION);
    EXPECT_EQ(r.Severity(), 3);

    qsLogPrintStructuredExceptionMessage("f", 0xC0000005, 2);
    EXPECT_EQ(Newest().Text(), "f: structured exception 0xC0000005 (2)");
    qsLogPrintMemoryExceptionMessage("g", 3);
    EXPECT_EQ(Newest().Text(), "g: memory exception (3)");

    EXPECT_EQ(qsLogPrintQsExceptionMessage("h", qsException(0x80000003, "bad", "arg"), 2),
              0x80000003u);
    r = Newest();
    EXPECT_EQ(r.Text(), "h: bad: arg");
    EXPECT_EQ(uint32_t(r.Code()), 0x80000003u);
    EXPECT_EQ(r.Severity(), 2);
    qsLogPrintQsExceptionMessage("h", qsException(0, nullptr, nullptr), 3);
    EXPECT_EQ(Newest().Text(), "h: ???: (null)");
}

TEST(qsLogGuard, RunsOnlyOnAValidStreamAndLetsNothingEscape) {
    bool ran = false;
    auto op = [&](FakeStream&) {
        ran = true;
        return qsStatus(7);
    };
    EXPECT_EQ(qsLogGuardedCall<FakeStream>(nullptr, "f", op), QS_E_NO_LOG_STREAM);
    FakeStream invalid{STREAM_SIG_OPENING};
    EXPECT_EQ(qsLogGuardedCall(&invalid, "f", op), QS_E_NO_LOG_STREAM);
    EXPECT_FALSE(ran);

    FakeStream valid{STREAM_SIG_VALID};
    EXPECT_EQ(qsLogGuardedCall(&valid, "f", op), 7u);
    EXPECT_TRUE(ran);
    EXPECT_EQ(qsLogGuardedCall(&valid, "qsLogPrintfA",
                               [](FakeStream&) -> qsStatus { throw std::runtime_error("x"); }),
              QS_E_EXCEPTION);
    EXPECT_EQ(qsLogGuardedCall(&valid, "qsLogPrintfA", [](FakeStream&) -> qsStatus { throw 1; }),
              QS_E_EXCEPTION);
}

TEST(qsLogDirectory, RelativeQsLogDirOpensNothing) {
    setenv("QS_LOG_DIR", "rel", 1);
    EXPECT_EQ(Reopen(), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(g_pZLogStreamDefault, nullptr);
    EXPECT_EQ(qsLogPrintfA(0, 1, "lost"), QS_E_NO_LOG_STREAM);
    EXPECT_FALSE(IsDirectory("rel"));
}

TEST(qsLogDirectory, HomeLogsIsCreatedWithItsParents) {
    qsTest::TempDir tmp;
    unsetenv("QS_LOG_DIR");
    SetEnv("HOME", tmp / "home/u");
    qsLogInfoMessages(false);
    EXPECT_EQ(Reopen(), QS_OK);
    EXPECT_TRUE(IsDirectory(tmp / "home/u/Logs"));
    EXPECT_TRUE(g_LogInfoMessages);
    EXPECT_EQ(FileSize(StreamPath(tmp / "home/u/Logs", "Default.log")), 4096 * 1024);
    qsLogging::StopLogging();
}

TEST(qsLogDirectory, AbsoluteQsLogDirIsUsedAsIsWithoutTrailingSeparators) {
    qsTest::TempDir tmp;
    SetEnv("QS_LOG_DIR", tmp / "a/b/c//");
    EXPECT_EQ(Reopen(), QS_OK);
    EXPECT_EQ(FileSize(StreamPath(tmp / "a/b/c", "Events.log")), 4096 * 1024);
    qsLogging::StopLogging();
}

TEST(qsLogDirectory, AFileInTheWayOpensNothing) {
    qsTest::TempDir tmp;
    qsTest::WriteFileText(tmp / "logs", "not a directory");
    SetEnv("QS_LOG_DIR", tmp / "logs");
    EXPECT_EQ(Reopen(), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(g_pZLogStreamDefault, nullptr);
    EXPECT_EQ(g_pZLogStreamEvents, nullptr);
}

TEST(qsLogDirectory, EnvironmentErrors) {
    // Neither variable: the relative default "Logs" has no base.  Not cached,
    // so setting one afterwards works.
    unsetenv("QS_LOG_DIR");
    unsetenv("HOME");
    EXPECT_EQ(Reopen(), QS_E_NOT_FOUND);

    setenv("QS_LOG_DIR", "", 1);
    EXPECT_EQ(Reopen(), QS_E_EMPTY_NAME);

    // Longer than 260: "Logs" is used under a base that is the same long value.
    SetEnv("QS_LOG_DIR", "/" + std::string(300, 'x'));
    EXPECT_EQ(Reopen(), QS_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(g_pZLogStreamDefault, nullptr);
}

TEST(qsLogDirectory, QsLogSizeAppliesToAllThreeStreams) {
    qsTest::TempDir tmp;
    SetEnv("QS_LOG_DIR", tmp.Path());
    setenv("QS_LOG_SIZE", "0x800", 1);
    EXPECT_EQ(Reopen(), QS_OK);
    for (const char* file : {"Default.log", "Events.log", "PerfCtrs.log"})
        EXPECT_EQ(FileSize(StreamPath(tmp.Path(), file)), 2048 * 1024) << file;

    setenv("QS_LOG_SIZE", "0", 1);
    EXPECT_EQ(Reopen(), QS_OK);
    EXPECT_EQ(g_pZLogStreamDefault, nullptr);
    EXPECT_EQ(g_pZLogStreamEvents, nullptr);
    EXPECT_EQ(g_pZLogStreamPerfCtrs, nullptr);
}

TEST(qsLogStartStop, StartLoggingKeepsOpenStreamsUnlessRestarted) {
    ZLogStream* before = g_pZLogStreamDefault;
    ASSERT_NE(before, nullptr);
    EXPECT_EQ(qsLogging::StartLogging(false, nullptr, 1024, 1024, 0), QS_OK);
    EXPECT_EQ(g_pZLogStreamDefault, before);
    EXPECT_EQ(g_ZLogStreamDefaultSize, 1024u);

    qsTest::TempDir tmp;
    SetEnv("QS_LOG_DIR", tmp.Path());
    EXPECT_EQ(qsLogging::StartLogging(true, nullptr, 1024, 0, 0), QS_OK);
    EXPECT_EQ(g_hInstance, reinterpret_cast<HANDLE>(intptr_t(getpid())));
    ASSERT_NE(g_pZLogStreamDefault, nullptr);
    EXPECT_EQ(g_pZLogStreamEvents, nullptr);
    EXPECT_EQ(FileSize(StreamPath(tmp.Path(), "Default.log")), 1024 * 1024);

    EXPECT_EQ(qsLogging::StopLogging(), QS_OK);
    EXPECT_FALSE(g_LoggingInitialized);
    EXPECT_EQ(g_pZLogStreamDefault, nullptr);
    EXPECT_EQ(qsLogInitDll(reinterpret_cast<HANDLE>(42)), QS_OK);
    EXPECT_EQ(g_hInstance, reinterpret_cast<HANDLE>(42));
    EXPECT_TRUE(g_LoggingInitialized);
    qsLogging::StopLogging();
}

TEST(qsLogPublicDataPath, CachesTheFirstSuccessfulLookup) {
    char buffer[64];
    DWORD length = sizeof buffer;
    setenv("QS_LOG_DIR", "/first", 1);
    EXPECT_EQ(qsLogGetPublicDataPath(buffer, length), QS_OK);
    EXPECT_STREQ(buffer, "/first");
    EXPECT_EQ(length, 6u);

    setenv("QS_LOG_DIR", "/second", 1);
    length = sizeof buffer;
    EXPECT_EQ(qsLogGetPublicDataPath(buffer, length), QS_OK);
    EXPECT_STREQ(buffer, "/first");

    length = 6; // no room for the terminator
    EXPECT_EQ(qsLogGetPublicDataPath(buffer, length), QS_E_BUFFER_TOO_SMALL);
    length = 7;
    EXPECT_EQ(qsLogGetPublicDataPath(buffer, length), QS_OK);
}

TEST(qsLogPublicDataPath, FallsBackToHome) {
    unsetenv("QS_LOG_DIR");
    setenv("HOME", "/home/u", 1);
    char buffer[64];
    DWORD length = sizeof buffer;
    EXPECT_EQ(qsLogGetPublicDataPath(buffer, length), QS_OK);
    EXPECT_STREQ(buffer, "/home/u");
}

TEST(qsLogPaths, IsRelativePath) {
    EXPECT_TRUE(qsLogIsRelativePath(nullptr));
    EXPECT_TRUE(qsLogIsRelativePath(""));
    EXPECT_TRUE(qsLogIsRelativePath("Logs"));
    EXPECT_TRUE(qsLogIsRelativePath("\\server\\x"));
    EXPECT_TRUE(qsLogIsRelativePath("C:/x"));
    EXPECT_FALSE(qsLogIsRelativePath("C:\\x"));
    EXPECT_FALSE(qsLogIsRelativePath("/var/log"));
}

TEST(qsLogPaths, CreateDirectoryTree) {
    qsTest::TempDir tmp;
    EXPECT_EQ(qsLogCreateDirectoryTree(nullptr, nullptr), QS_E_INVALIDARG);
    EXPECT_EQ(qsLogCreateDirectoryTree(("/" + std::string(260, 'x')).c_str(), nullptr),
              QS_E_INVALIDARG);
    EXPECT_EQ(qsLogCreateDirectoryTree("", nullptr), QS_OK);

    EXPECT_EQ(qsLogCreateDirectoryTree((tmp / "a/b/c/").c_str(), nullptr), QS_OK);
    EXPECT_TRUE(IsDirectory(tmp / "a/b/c"));
    EXPECT_EQ(qsLogCreateDirectoryTree((tmp / "a/b").c_str(), nullptr), QS_OK);

    qsTest::WriteFileText(tmp / "file", "x");
    EXPECT_EQ(qsLogCreateDirectoryTree((tmp / "file").c_str(), nullptr), QS_E_INVALIDARG);
    // stat fails with "not a directory", which is neither "file" nor "path missing".
    EXPECT_EQ(qsLogCreateDirectoryTree((tmp / "file/sub").c_str(), nullptr),
              QS_E_FILE_ATTRIBUTES);
    EXPECT_EQ(qsLogCreateDirectoryTree("/proc/qs-no-such-dir/x", nullptr), QS_E_DIR_CREATE);
}

TEST(qsLogSwitches, FirstLevelStaysAndQueriesAnswerZero) {
    qsLogSetSwitchLevel("net", 1);
    qsLogSetSwitchLevel("net", 5);
    ASSERT_EQ(g_traceSwitchMap.count("net"), 1u);
    EXPECT_EQ(g_traceSwitchMap["net"], 1u);
    EXPECT_EQ(qsLogGetSwitchLevel("net"), 0u);
    qsLogSetSwitchLevelsUsingRegistry("key", "path");
    EXPECT_EQ(g_traceSwitchMap.size(), 1u);
}

TEST(qsLogPaths, LogDirectoryAndStreamFileNamesAreThoseTheLibraryOpens) {
    char buffer[600];
    DWORD length = sizeof buffer;
    setenv("QS_LOG_DIR", "/var/log/x///", 1);
    EXPECT_EQ(qsLogGetLogDirectory(buffer, length), QS_OK);
    EXPECT_STREQ(buffer, "/var/log/x");
    EXPECT_EQ(length, 10u);

    unsetenv("QS_LOG_DIR");
    setenv("HOME", "/home/u/", 1);
    length = sizeof buffer;
    EXPECT_EQ(qsLogGetLogDirectory(buffer, length), QS_OK);
    EXPECT_STREQ(buffer, "/home/u/Logs");
    length = 5;
    EXPECT_EQ(qsLogGetLogDirectory(buffer, length), QS_E_BUFFER_TOO_SMALL);

    length = sizeof buffer;
    EXPECT_EQ(qsLogGetStreamFileName(1, buffer, length), QS_OK);
    EXPECT_EQ(std::string(buffer), ComputerName() + "_Events.log");
    EXPECT_EQ(qsLogGetStreamFileName(3, buffer, length), QS_E_INVALIDARG);
}

#include "qsLog.h"

#include "qsException.h"
#include "qsLogGuard.h"
#include "qsLogRecords.h"
#include "qsLogState.h"
#include "qsLogSwitchMap.h"
#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>

// Every case runs in a process of its own, so the environment and the
// process-wide logging state can be changed freely here.
using std::filesystem::is_directory;

namespace {

std::string ComputerName() {
    char name[MAX_PATH];
    DWORD size = sizeof name;
    return GetComputerNameA(name, &size) ? name : "";
}

// Size of a default stream's file in KiB, -1 when there is none.
long StreamKB(const std::string& dir, const char* file) {
    std::error_code ec;
    auto size = std::filesystem::file_size(dir + "/" + ComputerName() + "_" + file, ec);
    return ec ? -1 : long(size / 1024);
}

// Restarts logging from the environment as it now stands.
qsStatus Reopen() {
    qsLogging::StopLogging();
    return qsLogStreamObjectsInit(nullptr);
}

std::string LogDirectory() {
    char buffer[600];
    DWORD length = sizeof buffer;
    return qsSucceeded(qsLogGetLogDirectory(buffer, length)) ? buffer : "(failed)";
}

struct FakeStream {
    uint32_t state;
    uint32_t StateWord() const { return state; }
};

} // namespace

// The default streams are open before main; StartLogging keeps them unless
// restarted.
TEST(qsLogStart, DefaultStreamsOpenBeforeMainStartAndStop) {
    const std::string dir = getenv("QS_LOG_DIR");
    EXPECT_TRUE(g_LoggingInitialized && g_LogInfoMessages);
    ASSERT_NE(g_pZLogStreamDefault, nullptr);
    EXPECT_EQ(g_pZLogStreamPerfCtrs, nullptr);
    EXPECT_EQ(StreamKB(dir, "Default.log"), 4096);
    EXPECT_EQ(StreamKB(dir, "Events.log"), 4096);
    EXPECT_EQ(StreamKB(dir, "PerfCtrs.log"), -1);
    EXPECT_EQ(qsTest::ReadRecords(*g_pZLogStreamDefault).at(0).Type(), LOGREC_START);

    ZLogStream* before = g_pZLogStreamDefault;
    EXPECT_EQ(qsLogging::StartLogging(false, nullptr, 1024, 1024, 0), QS_OK);
    EXPECT_EQ(g_pZLogStreamDefault, before);
    qsTest::TempDir tmp;
    setenv("QS_LOG_DIR", tmp.Path().c_str(), 1);
    EXPECT_EQ(qsLogging::StartLogging(true, nullptr, 1024, 0, 0), QS_OK);
    EXPECT_TRUE(g_pZLogStreamDefault && !g_pZLogStreamEvents);
    EXPECT_EQ(StreamKB(tmp.Path(), "Default.log"), 1024);
    EXPECT_EQ(qsLogging::StopLogging(), QS_OK);
    EXPECT_FALSE(g_LoggingInitialized || g_pZLogStreamDefault);
}

TEST(qsLogMessages, InfoSwitchModuleMessagesAndExceptionReportsAreRecordedAsWritten) {
    typedef std::tuple<std::string, uint32_t, int32_t, DWORD> Rec; // text, code, severity, flags
    auto newest = [] {
        auto r = qsTest::ReadRecords(*g_pZLogStreamDefault).back();
        return Rec(r.Text(), r.Code(), r.Severity(), r.info.GetFlags());
    };
    qsLogInfoMessages(false);
    EXPECT_EQ(qsLogPrintfA(0, 0, "dropped"), QS_W_MSG_SUPPRESSED);
    EXPECT_EQ(qsLogPrintModuleMessage(nullptr, nullptr), QS_OK);
    EXPECT_EQ(newest(), Rec("App Info", QS_I_MODULE_MESSAGE, 1, 2));
    qsLogInfoMessages(true);
    EXPECT_EQ(qsLogPrintfA(7, 0, "detail %d", 42), QS_OK);
    EXPECT_EQ(newest(), Rec("detail 42", 7, 0, 0));
    const std::string big(5000, 'b');
    qsLogBigMsgPrintfA(0, 1, "%s", big.c_str());
    EXPECT_EQ(newest(), Rec(big.substr(0, 4088), 0, 1, 0));
    qsLogPrintUnhandledExceptionMessage(nullptr, 5);
    EXPECT_EQ(newest(), Rec("???: unhandled exception (5)", QS_E_EXCEPTION, 3, 0));
    qsLogPrintStructuredExceptionMessage("f", 0xC0000005, 2);
    EXPECT_EQ(newest(), Rec("f: structured exception 0xC0000005 (2)", QS_E_EXCEPTION, 3, 0));
    qsLogPrintMemoryExceptionMessage("g", 3);
    EXPECT_EQ(newest(), Rec("g: memory exception (3)", QS_E_EXCEPTION, 3, 0));
    qsLogPrintQsExceptionMessage("h", qsException(0x80000003, "bad", "arg"), 2);
    EXPECT_EQ(newest(), Rec("h: bad: arg", 0x80000003, 2, 0));
    qsLogPrintQsExceptionMessage("h", qsException(0, nullptr, nullptr), 3);
    EXPECT_EQ(newest(), Rec("h: ???: (null)", QS_E_EXCEPTION, 3, 0));
}

TEST(qsLogGuard, RunsOnlyOnAValidStreamAndLetsNothingEscape) {
    // As the stream's operations do: refused unless valid.
    auto op = [](FakeStream& s) {
        return s.state == STREAM_SIG_VALID ? qsStatus(7) : QS_E_NOT_VALID;
    };
    FakeStream opening{STREAM_SIG_OPENING}, valid{STREAM_SIG_VALID};
    EXPECT_EQ(qsLogGuardedCall<FakeStream>(nullptr, "f", op), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogGuardedCall(&opening, "f", op), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogGuardedCall(&valid, "f", op), 7u);
    // A valid stream's own refusal (its image changed under it) stays its own.
    EXPECT_EQ(qsLogGuardedCall(&valid, "f", [](FakeStream&) { return QS_E_NOT_VALID; }),
              QS_E_NOT_VALID);
    EXPECT_EQ(qsLogGuardedCall(&valid, "f", [](FakeStream&) -> qsStatus { throw 1; }),
              QS_E_EXCEPTION);
}

// Absolute values only: the public data path (the base of relative ones) is
// cached on first use, which the two tests after this one need fresh.
TEST(qsLogDirectory, AbsoluteValuesTheirErrorsAndQsLogSize) {
    qsTest::TempDir tmp;
    unsetenv("QS_LOG_DIR");
    unsetenv("HOME");
    EXPECT_EQ(Reopen(), QS_E_NOT_FOUND);

    setenv("QS_LOG_DIR", (tmp / "a/b/c//").c_str(), 1);
    EXPECT_EQ(LogDirectory(), tmp / "a/b/c");
    EXPECT_EQ(Reopen(), QS_OK);
    EXPECT_EQ(StreamKB(tmp / "a/b/c", "Events.log"), 4096);
    setenv("QS_LOG_SIZE", "0x800", 1);
    EXPECT_EQ(Reopen(), QS_OK);
    for (const char* file : {"Default.log", "Events.log", "PerfCtrs.log"})
        EXPECT_EQ(StreamKB(tmp / "a/b/c", file), 2048) << file;
    setenv("QS_LOG_SIZE", "0", 1);
    EXPECT_EQ(Reopen(), QS_OK);
    EXPECT_TRUE(!g_pZLogStreamDefault && !g_pZLogStreamEvents);
    unsetenv("QS_LOG_SIZE");

    qsTest::WriteFileText(tmp / "file", "not a directory");
    setenv("QS_LOG_DIR", (tmp / "file").c_str(), 1);
    EXPECT_EQ(Reopen(), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(g_pZLogStreamDefault, nullptr);
    setenv("QS_LOG_DIR", "", 1);
    EXPECT_EQ(Reopen(), QS_E_EMPTY_NAME);
    // Longer than 260: "Logs" is used under a base that is the same long value.
    setenv("QS_LOG_DIR", ("/" + std::string(300, 'x')).c_str(), 1);
    EXPECT_EQ(Reopen(), QS_E_BUFFER_TOO_SMALL);
}

// With no stream every message call fails; the exception reporters still
// answer their codes.
TEST(qsLogDirectory, RelativeQsLogDirOpensNothing) {
    qsTest::TempDir tmp;
    ASSERT_EQ(chdir(tmp.Path().c_str()), 0);
    setenv("QS_LOG_DIR", "rel", 1);
    EXPECT_EQ(Reopen(), QS_E_NO_LOG_STREAM);
    EXPECT_FALSE(is_directory("rel"));
    for (qsStatus s :
         {qsLogPrintfA(0, 1, "x"), qsLogPrintfW(0, 1, "x"), qsLogPrintfEx(0, 1, 2, "x"),
          qsLogPrintStringA("x", 0, 1, 0), qsLogPrintStringW("x", 0, 1, 0),
          qsLogBigMsgPrintfA(0, 1, "x"), qsLogPrintModuleMessage(nullptr, nullptr)})
        EXPECT_EQ(s, QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsLogPrintUnhandledExceptionMessage("w", 1), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintStructuredExceptionMessage("w", 0xC0000005, 1), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintMemoryExceptionMessage(nullptr, 1), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintQsExceptionMessage("w", qsException(0, "t"), 3), QS_E_EXCEPTION);
    EXPECT_EQ(qsLogPrintQsExceptionMessage("w", qsException(0x80000003, "t"), 3), 0x80000003u);
}

// Without QS_LOG_DIR the streams go to HOME/Logs, whose parents are made too;
// HOME is then the public data path for the life of the process.
TEST(qsLogDirectory, HomeLogsIsCreatedWithItsParentsAndHomeIsCached) {
    qsTest::TempDir tmp;
    const std::string home = tmp / "home/u";
    unsetenv("QS_LOG_DIR");
    setenv("HOME", home.c_str(), 1);
    qsLogInfoMessages(false);
    EXPECT_EQ(Reopen(), QS_OK);
    EXPECT_TRUE(g_LogInfoMessages);
    EXPECT_EQ(StreamKB(home + "/Logs", "Default.log"), 4096);
    EXPECT_EQ(LogDirectory(), home + "/Logs");

    setenv("QS_LOG_DIR", "/second", 1);
    char buffer[600];
    DWORD length = sizeof buffer;
    EXPECT_EQ(qsLogGetPublicDataPath(buffer, length), QS_OK);
    EXPECT_EQ(std::make_pair(std::string(buffer), length),
              std::make_pair(home, DWORD(home.size())));
    length = DWORD(home.size()); // no room for the terminator
    EXPECT_EQ(qsLogGetPublicDataPath(buffer, length), QS_E_BUFFER_TOO_SMALL);
    qsLogging::StopLogging();
}

TEST(qsLogPaths, RelativePathsDirectoryTreesSwitchesAndStreamNames) {
    for (const char* path : {(const char*)nullptr, "", "Logs", "\\server\\x", "C:/x"})
        EXPECT_TRUE(qsLogIsRelativePath(path)) << (path ? path : "null");
    EXPECT_FALSE(qsLogIsRelativePath("C:\\x") || qsLogIsRelativePath("/var/log"));

    qsTest::TempDir tmp;
    qsTest::WriteFileText(tmp / "file", "x");
    const std::string base = tmp.Path() + "/", tooLong = "/" + std::string(260, 'x');
    // "file/sub": "not a directory" is neither "file" nor "path missing".
    const std::pair<std::string, qsStatus> trees[] = {{tooLong, QS_E_INVALIDARG},
                                                      {"", QS_OK},
                                                      {base + "a/b/c/", QS_OK},
                                                      {base + "a/b", QS_OK},
                                                      {base + "file", QS_E_INVALIDARG},
                                                      {base + "file/sub", QS_E_FILE_ATTRIBUTES},
                                                      {"/proc/qs-no-such-dir/x", QS_E_DIR_CREATE}};
    EXPECT_EQ(qsLogCreateDirectoryTree(nullptr, nullptr), QS_E_INVALIDARG);
    for (const auto& [path, status] : trees)
        EXPECT_EQ(qsLogCreateDirectoryTree(path.c_str(), nullptr), status) << path;
    EXPECT_TRUE(is_directory(base + "a/b/c"));

    qsLogSetSwitchLevel("net", 1);
    qsLogSetSwitchLevel("net", 5);
    EXPECT_EQ(g_traceSwitchMap, (std::map<std::string, uint32_t>{{"net", 1}}));
    EXPECT_EQ(qsLogGetSwitchLevel("net"), 0u);

    char buffer[600];
    DWORD length = sizeof buffer;
    EXPECT_EQ(qsLogGetStreamFileName(1, buffer, length), QS_OK);
    EXPECT_EQ(std::string(buffer), ComputerName() + "_Events.log");
    EXPECT_EQ(qsLogGetStreamFileName(3, buffer, length), QS_E_INVALIDARG);
}

// The default stream's own file fails (it was deleted, so the periodic
// touch of its time fails) in the middle of an append.  That failure must
// not be appended from inside the append, under the stream's lock, whose
// nested release would free it for the rest of the outer append: the log
// holds exactly the messages written.
TEST(qsLogMessages, AFailureOfTheStreamsOwnFileIsNotLoggedFromInsideAnAppend) {
    qsTest::TempDir dir;
    // Flushed after every record, touched after every third flush.
    auto* stream = new ZLogStream(dir.Path().c_str(), "deleted.log", 64, 1, true);
    ASSERT_TRUE(stream->IsValid());
    ZLogStream* saved = g_pZLogStreamDefault;
    g_pZLogStreamDefault = stream;
    std::filesystem::remove(dir / "deleted.log");
    for (int i = 0; i < 7; i++)
        EXPECT_EQ(qsLogPrintfA(0, 1, "message %d", i), QS_OK);
    std::vector<std::string> texts;
    for (const qsTest::LogRecord& r : qsTest::ReadRecords(*stream))
        texts.push_back(r.Type() == LOGREC_START ? "start" : r.Text());
    g_pZLogStreamDefault = saved;
    delete stream;
    EXPECT_EQ(texts,
              (std::vector<std::string>{"start", "message 0", "message 1", "message 2", "message 3",
                                        "message 4", "message 5", "message 6"}));
}

// exit() while other threads are inside logging calls, holding the default
// stream's pointer: the stream must stay whole until the process is gone
// (the sanitizer build catches a write into an unmapped image or a use of a
// deleted stream; the ordinary build may crash).  Each round is a child
// process with default streams of its own that exits once its threads have
// been appending for a while.
TEST(qsLogExit, ExitWhileOtherThreadsLog) {
    for (int round = 0; round < 20; round++) {
        qsTest::TempDir dir;
        pid_t child = fork();
        if (child == 0) {
            alarm(60);
            setenv("QS_LOG_DIR", dir.Path().c_str(), 1);
            if (qsFailed(qsLogging::StartLogging(true, nullptr, 256, 0, 0)) ||
                !g_pZLogStreamDefault)
                _exit(3);
            const int32_t start = g_pZLogStreamDefault->RecordCount();
            for (int t = 0; t < 4; t++)
                std::thread([t] {
                    for (int i = 0;; i++)
                        qsLogPrintfA(0, 1, "thread %d message %d", t, i);
                }).detach();
            while (g_pZLogStreamDefault->RecordCount() < start + 2000)
                sched_yield();
            exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "round " << round << ": status " << std::hex << status;
    }
}

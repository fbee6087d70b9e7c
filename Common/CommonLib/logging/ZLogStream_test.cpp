#include "ZLogStream.h"

#include "qsLogRecords.h"
#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

using qsTest::LogRecord;
using qsTest::ReadRecords;
using qsTest::TempDir;

namespace {

constexpr const char* kName = "test.log";

off_t FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

qsStatus Printf(ZLogStream& s, LONG code, qsLogSev sev, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    qsStatus r = s.vPrintf(code, sev, 0, fmt, args);
    va_end(args);
    return r;
}

qsStatus WidePrintf(ZLogStream& s, const wchar_t* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    qsStatus r = s.vPrintf(0, 1, 0, fmt, args);
    va_end(args);
    return r;
}

std::vector<std::string> Texts(const std::vector<LogRecord>& records) {
    std::vector<std::string> texts;
    for (const auto& r : records)
        if (r.Type() == LOGREC_STRING_A)
            texts.push_back(r.Text());
    return texts;
}

void ExpectContiguousIds(const std::vector<LogRecord>& records) {
    for (size_t i = 1; i < records.size(); ++i)
        ASSERT_EQ(records[i].info.GetRecordId(), records[i - 1].info.GetRecordId() + 1) << i;
}

} // namespace

TEST(ZLogStreamOpen, NewFileGetsHeaderAndOneStartRecordOnlyOnce) {
    TempDir dir;
    {
        ZLogStream s(dir.Path().c_str(), kName, 8, 16384, true);
        ASSERT_TRUE(s.IsValid()) << std::hex << s.OpenStatus();
        EXPECT_EQ(s.SizeInBytes(), 8192);
        EXPECT_EQ(s.RecordCount(), 1);
        EXPECT_EQ(s.WrapCount(), 0);
        EXPECT_EQ(FileSize(dir / kName), 8192);
        EXPECT_EQ(Printf(s, 0, 1, "hello %d", 1), QS_OK);
    }
    ZLogStream again(dir.Path().c_str(), kName, 8, 16384, true);
    ASSERT_TRUE(again.IsValid());
    auto records = ReadRecords(again);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Type(), LOGREC_START);
    EXPECT_EQ(records[0].info.GetFlags(), LOG_REC_FLAG_BOOKKEEPING);
    EXPECT_EQ(records[1].Text(), "hello 1");
    EXPECT_EQ(records[1].info.GetProcessId(), DWORD(getpid()));
}

TEST(ZLogStreamOpen, BadArgumentsLeaveAnInvalidStream) {
    TempDir dir;
    const std::string longName(300, 'n');
    for (auto* s : {new ZLogStream(nullptr, kName, 8, 1, true),
                    new ZLogStream(dir.Path().c_str(), "", 8, 1, true),
                    new ZLogStream(dir.Path().c_str(), kName, 0, 1, true),
                    new ZLogStream(dir.Path().c_str(), kName, 1048577, 1, true),
                    new ZLogStream(dir.Path().c_str(), longName.c_str(), 8, 1, true)}) {
        EXPECT_FALSE(s->IsValid());
        EXPECT_EQ(s->StateWord(), STREAM_SIG_INVALID);
        EXPECT_EQ(s->RecordCount(), -1);
        EXPECT_EQ(s->PrintString("x", 0, 1, 0), QS_E_NOT_VALID);
        EXPECT_TRUE(s->begin().IsEnd());
        delete s;
    }
}

TEST(ZLogStreamOpen, DamagedOrOddSizedFilesAreReinitialised) {
    TempDir dir;
    const std::string path = dir / kName;
    {
        ZLogStream s(dir.Path().c_str(), kName, 4, 16384, true);
        Printf(s, 0, 1, "old");
    }
    // A header that no longer validates.
    int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, "\0\0\0\0", 4, 0), 4);
    close(fd);
    {
        ZLogStream s(dir.Path().c_str(), kName, 4, 16384, true);
        ASSERT_TRUE(s.IsValid());
        auto records = ReadRecords(s);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].Type(), LOGREC_START);
    }
    // A size that is not a multiple of 1024.
    ASSERT_EQ(truncate(path.c_str(), 5000), 0);
    ZLogStream s(dir.Path().c_str(), kName, 4, 16384, true);
    ASSERT_TRUE(s.IsValid());
    EXPECT_EQ(FileSize(path), 4096);
    EXPECT_EQ(s.RecordCount(), 1);
}

TEST(ZLogStreamOpen, DamagedFileHeldByAnotherProcessIsLeftAlone) {
    TempDir dir;
    const std::string path = dir / kName;
    qsTest::WriteFileText(path, std::string(3000, 'x'));

    // Stand in for a process that has the file open: its lock object exists
    // and is initialised under the name the stream will ask for.
    char lockName[512] = "/";
    ZLogStream::CreateAuxName(lockName + 1, path.c_str(), "_MUTEX");
    int shm = shm_open(lockName, O_RDWR | O_CREAT | O_EXCL, 0666);
    ASSERT_GE(shm, 0);
    ASSERT_EQ(ftruncate(shm, sizeof(ZMutexBlock)), 0);
    auto* block = static_cast<ZMutexBlock*>(
        mmap(nullptr, sizeof(ZMutexBlock), PROT_READ | PROT_WRITE, MAP_SHARED, shm, 0));
    ASSERT_NE(block, MAP_FAILED);
    pthread_mutexattr_t ma;
    pthread_mutexattr_init(&ma);
    pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&block->m_Mutex, &ma);
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(&block->m_Cond, &ca);
    block->m_OwnerThread = pthread_t(-1);
    block->m_OwnerProcess = -1;
    block->m_Locked = 0;
    block->m_Count = 0;
    block->m_Mark = ZMUTEX_MARK_INITIALISED;

    ZLogStream s(dir.Path().c_str(), kName, 4, 16384, true);
    shm_unlink(lockName);
    munmap(block, sizeof(ZMutexBlock));
    close(shm);
    EXPECT_FALSE(s.IsValid());
    EXPECT_EQ(s.OpenStatus(), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsTest::ReadFileText(path), std::string(3000, 'x'));
}

TEST(ZLogStreamResize, RecordsAreCarriedOverRenumberedAndFollowedByAResizeRecord) {
    TempDir dir;
    {
        ZLogStream s(dir.Path().c_str(), kName, 4, 16384, true);
        for (int i = 0; i < 10; ++i)
            Printf(s, i, 1, "message %d", i);
    }
    {
        ZLogStream s(dir.Path().c_str(), kName, 16, 16384, true);
        ASSERT_TRUE(s.IsValid()) << std::hex << s.OpenStatus();
        EXPECT_EQ(FileSize(dir / kName), 16384);
        auto records = ReadRecords(s);
        ASSERT_EQ(records.size(), 12u);
        EXPECT_EQ(records.front().Type(), LOGREC_START);
        EXPECT_EQ(records.front().info.GetRecordId(), 1u);
        EXPECT_EQ(records[5].Text(), "message 4");
        EXPECT_EQ(records[5].Code(), 4);
        EXPECT_EQ(records.back().Type(), LOGREC_RESIZE);
        EXPECT_EQ(records.back().Word(0), 4);
        EXPECT_EQ(records.back().Word(1), 16);
        ExpectContiguousIds(records);
    }
    EXPECT_NE(access((dir / kName + "_tmp").c_str(), F_OK), 0);

    // Shrinking keeps the newest records that fit, oldest first.
    {
        ZLogStream s(dir.Path().c_str(), kName, 16, 16384, true);
        for (int i = 0; i < 200; ++i)
            Printf(s, 0, 1, "%04d %s", i, std::string(40, 'p').c_str());
    }
    ZLogStream s(dir.Path().c_str(), kName, 2, 16384, true);
    ASSERT_TRUE(s.IsValid());
    auto records = ReadRecords(s);
    ASSERT_GE(records.size(), 10u);
    EXPECT_EQ(records.front().info.GetRecordId() > 0, true);
    EXPECT_EQ(records.back().Type(), LOGREC_RESIZE);
    auto texts = Texts(records);
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back().substr(0, 4), "0199");
    ExpectContiguousIds(records);
}

TEST(ZLogStreamWrite, TextsAreCappedAndWideTextsStoredAsFourByteUnits) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 64, 16384, true);
    ASSERT_TRUE(s.IsValid());
    const std::string big(5000, 'a');
    const std::wstring wide(2000, L'w');

    EXPECT_EQ(s.PrintString(big.c_str(), 1, 2, 0), QS_OK);
    EXPECT_EQ(Printf(s, 0, 1, "%s", big.c_str()), QS_OK);
    va_list none{};
    (void)none;
    EXPECT_EQ(s.PrintString(wide.c_str(), 3, 1, 0), QS_OK);
    EXPECT_EQ(WidePrintf(s, L"%ls", wide.c_str()), QS_OK);
    EXPECT_EQ(WidePrintf(s, L"n=%d %hs", 5, "narrow"), QS_OK);

    auto records = ReadRecords(s);
    ASSERT_EQ(records.size(), 6u);
    EXPECT_EQ(records[1].Text(), big.substr(0, 1016));
    EXPECT_EQ(records[1].Code(), 1);
    EXPECT_EQ(records[1].Severity(), 2);
    EXPECT_EQ(records[2].Text().size(), 1016u);
    EXPECT_EQ(records[3].Type(), LOGREC_STRING_W);
    EXPECT_EQ(records[3].payload.size(), 8u + 1022 * 4);
    EXPECT_EQ(records[4].payload.size(), 8u + 1022 * 4);
    const std::wstring short_(reinterpret_cast<const wchar_t*>(records[5].payload.data() + 8),
                              (records[5].payload.size() - 8) / 4);
    EXPECT_EQ(short_, L"n=5 narrow");
}

TEST(ZLogStreamWrite, BigMessagesKeepUpTo4088Bytes) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 64, 16384, true);
    const std::string big(5000, 'b');
    auto big_printf = [&](const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        qsStatus r = s.vBigMsgPrintf(0, 1, 0, fmt, args);
        va_end(args);
        return r;
    };
    EXPECT_EQ(big_printf("%s", big.c_str()), QS_OK);
    EXPECT_EQ(big_printf("%s", "short"), QS_OK);
    auto texts = Texts(ReadRecords(s));
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], big.substr(0, 4088));
    EXPECT_EQ(texts[1], "short");
}

TEST(ZLogStreamWrite, InfoMessagesFollowTheSwitchAndWriteRecKeepsGivenOrigin) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 8, 16384, true);
    g_LogInfoMessages = false;
    EXPECT_EQ(s.PrintString("x", 0, 0, 0), QS_W_MSG_SUPPRESSED);
    EXPECT_EQ(Printf(s, 0, 0, "x"), QS_W_MSG_SUPPRESSED);
    g_LogInfoMessages = true;
    EXPECT_EQ(Printf(s, 0, 0, "info"), QS_OK);

    FILETIME t{0x12345678, 0x01D00000};
    const uint32_t payload[2] = {7, 8};
    EXPECT_EQ(s.WriteRec(payload, sizeof payload, t, 4242, 77, LOGREC_EVENT, 9), QS_OK);
    EXPECT_EQ(s.WriteRec(payload, 0, LOGREC_CLEAR, 0), QS_OK);

    auto records = ReadRecords(s);
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[1].Text(), "info");
    const LogRecord& event = records[2];
    EXPECT_EQ(event.Type(), LOGREC_EVENT);
    EXPECT_EQ(event.info.GetProcessId(), 4242u);
    EXPECT_EQ(event.info.GetThreadId(), 77u);
    EXPECT_EQ(event.info.GetFlags(), 9u);
    EXPECT_EQ(qsFileTimeToUInt64(event.info.GetTimestamp()), qsFileTimeToUInt64(t));
    EXPECT_EQ(event.Word(1), 8);
    EXPECT_EQ(records[3].payload.size(), 0u);

    // A payload that can never fit the file.
    std::vector<char> huge(8192);
    EXPECT_EQ(s.WriteRec(huge.data(), DWORD(huge.size()), LOGREC_EVENT, 0), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(s.RecordCount(), 4);
}

TEST(ZLogStreamWrite, ClearRestartsNumbering) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 8, 16384, true);
    Printf(s, 0, 1, "a");
    EXPECT_EQ(s.ClearRecs(), QS_OK);
    Printf(s, 0, 1, "b");
    auto records = ReadRecords(s);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Type(), LOGREC_CLEAR);
    EXPECT_EQ(records[0].info.GetRecordId(), 1u);
    EXPECT_EQ(records[1].Text(), "b");
    EXPECT_EQ(s.Flush(), QS_OK);
}

TEST(ZLogStreamCursor, WalksBothWaysAndGetRecDataReportsTheNeededSize) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 8, 16384, true);
    for (int i = 0; i < 5; ++i)
        Printf(s, 0, 1, "m%d", i);

    std::vector<DWORD> ids;
    for (auto it = s.begin(); it.IsValid(); it.PrevRec())
        ids.push_back(it.RecordId());
    EXPECT_EQ(ids, (std::vector<DWORD>{6, 5, 4, 3, 2, 1}));

    auto it = s.begin();
    DWORD size = 0;
    ZLogRecInfo info;
    char byte = 'z';
    EXPECT_EQ(it.GetRecData(&byte, &size, &info), QS_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 8u + 2);
    EXPECT_EQ(byte, 'z'); // nothing copied into a zero-sized buffer
    EXPECT_EQ(info.GetRecordId(), 6u);
    std::vector<char> buffer(size);
    EXPECT_EQ(it.GetRecData(buffer.data(), &size, nullptr), QS_OK);
    EXPECT_EQ(std::string(buffer.begin() + 8, buffer.end()), "m4");
    EXPECT_TRUE(it.IsValid());

    ZLogStream::iterator_base copy = it;
    EXPECT_TRUE(copy == it);
    ZLogStream::iterator_base end;
    copy = end;
    EXPECT_TRUE(copy.IsEnd());
}

TEST(ZLogStreamCursor, ACursorOverrunByAWrapBecomesTheEnd) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 1, 16384, true);
    Printf(s, 0, 1, "first");
    auto oldest = s.rbegin();
    ASSERT_TRUE(oldest.IsValid());
    for (int i = 0; i < 100; ++i)
        Printf(s, 0, 1, "filler %d", i);
    EXPECT_GT(s.WrapCount(), 0);

    DWORD size = 64;
    char buffer[64];
    EXPECT_EQ(oldest.GetRecData(buffer, &size, nullptr), QS_E_CURSOR_STALE);
    EXPECT_TRUE(oldest.IsEnd());
    auto stepped = s.rbegin();
    ASSERT_TRUE(stepped.IsValid());
    for (int i = 0; i < 100; ++i)
        Printf(s, 0, 1, "more %d", i);
    stepped.NextRec();
    EXPECT_TRUE(stepped.IsEnd());
}

TEST(ZLogStreamLock, OneReleaseFreesTheLockHoweverOftenItWasTaken) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 8, 16384, true);
    ZLogStream::Lock lock(&s, true);
    ASSERT_TRUE(lock.IsHeld());
    // The write takes the lock again and its single release frees it, so a
    // forked child can write at once although `lock` still claims to hold it.
    EXPECT_EQ(Printf(s, 0, 1, "under lock"), QS_OK);
    pid_t child = fork();
    if (child == 0)
        _exit(Printf(s, 0, 1, "from child") == QS_OK ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    lock.ReleaseLock();
    EXPECT_FALSE(lock.IsHeld());
    auto texts = Texts(ReadRecords(s));
    EXPECT_EQ(texts, (std::vector<std::string>{"under lock", "from child"}));
}

// Many writers (threads, and processes forked after the stream opened, as the
// watcher and its child are) append to one small file that wraps many times.
// Afterwards the surviving records form one intact chain with contiguous ids,
// each writer's messages appear in its own order, and the header's count
// equals the appends that reported success: nothing is lost silently.
TEST(ZLogStreamConcurrency, ThreadsAndForkedWritersShareOneWrappingFile) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 16, 16384, true);
    ASSERT_TRUE(s.IsValid());
    constexpr int kProcesses = 3, kThreads = 2, kMessages = 4000;

    auto write_all = [&](int writer) {
        int landed = 0;
        for (int i = 0; i < kMessages; ++i) {
            qsStatus r = Printf(s, writer, 1, "w%d #%d %.*s", writer, i, i % 90, std::string(90, 'x').c_str());
            if (r == QS_OK)
                ++landed;
            else if (!qsFailed(r))
                ADD_FAILURE() << "neither landed nor failed: " << std::hex << r;
        }
        return landed;
    };

    int pipes[kProcesses][2];
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        ASSERT_EQ(pipe(pipes[p]), 0);
        pid_t pid = fork();
        if (pid == 0) {
            int landed = write_all(100 + p);
            (void)!write(pipes[p][1], &landed, sizeof landed);
            _exit(0);
        }
        children.push_back(pid);
    }
    std::atomic<int> threadLanded{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] { threadLanded += write_all(t); });
    for (auto& t : threads)
        t.join();
    int landed = threadLanded;
    for (int p = 0; p < kProcesses; ++p) {
        int status = 0;
        ASSERT_EQ(waitpid(children[p], &status, 0), children[p]);
        int n = 0;
        ASSERT_EQ(read(pipes[p][0], &n, sizeof n), ssize_t(sizeof n));
        landed += n;
    }

    // Under contention many appends fail at once: a wait begun in the second
    // half of a second gets an impossible deadline (see ZMutex).  What matters
    // is that each of them said so.
    EXPECT_EQ(s.RecordCount(), 1 + landed);
    EXPECT_GT(s.WrapCount(), 10);
    auto records = ReadRecords(s);
    ASSERT_GT(records.size(), 50u);
    EXPECT_EQ(records.back().info.GetRecordId(), DWORD(1 + landed));
    ExpectContiguousIds(records);

    std::map<int, int> lastSeq;
    for (const auto& r : Texts(records)) {
        int writer = -1, seq = -1;
        ASSERT_EQ(sscanf(r.c_str(), "w%d #%d", &writer, &seq), 2) << r;
        auto found = lastSeq.find(writer);
        if (found != lastSeq.end()) {
            EXPECT_LT(found->second, seq) << "writer " << writer;
        }
        lastSeq[writer] = seq;
    }
    RecordProperty("appends", kMessages * (kProcesses + kThreads));
    RecordProperty("landed", landed);
}

TEST(ZLogStreamSnapshot, ReadsAPrivateCopyAndRefusesWhatIsNotALogFile) {
    TempDir dir;
    {
        ZLogStream live(dir.Path().c_str(), kName, 4, 16384, true);
        Printf(live, 0, 1, "before");
        ZLogStream snap((dir / kName).c_str());
        ASSERT_TRUE(snap.IsValid()) << std::hex << snap.OpenStatus();
        Printf(live, 0, 1, "after");
        EXPECT_EQ(Texts(ReadRecords(snap)), (std::vector<std::string>{"before"}));
        EXPECT_EQ(snap.PrintString("x", 0, 1, 0), QS_OK); // private memory only
    }
    EXPECT_EQ(Texts(ReadRecords(dir / kName)), (std::vector<std::string>{"before", "after"}));

    qsTest::WriteFileText(dir / "odd", std::string(1000, '\0'));
    qsTest::WriteFileText(dir / "empty", "");
    qsTest::WriteFileText(dir / "zeros", std::string(2048, '\0'));
    for (const std::string& bad :
         {dir.Path(), dir / "missing", dir / "odd", dir / "empty", dir / "zeros", dir / "*.log"}) {
        ZLogStream snap(bad.c_str());
        EXPECT_FALSE(snap.IsValid()) << bad;
    }
}

TEST(ZLogStreamNames, AuxiliaryNamesAreFlattenedAndUpperCased) {
    char out[64];
    ZLogStream::CreateAuxName(out, "/var/log/x", "_MUTEX");
    EXPECT_STREQ(out, "_VAR_LOG_X_MUTEX");
    ZLogStream::CreateAuxName(out, "c:\\Logs\\a.log", "_FMAP");
    EXPECT_STREQ(out, "C:_LOGS_A.LOG_FMAP");
}

// Processes that open a file independently do not share its lock, so one may
// resize the file under another.  The other must then refuse to write or walk
// rather than trust a header that describes more than it has mapped.
TEST(ZLogStreamOpen, AnotherOpenerResizingTheFileStopsThisOneSafely) {
    TempDir dir;
    ZLogStream first(dir.Path().c_str(), kName, 4, 16384, true);
    ASSERT_EQ(Printf(first, 0, 1, "before"), QS_OK);
    ZLogStream second(dir.Path().c_str(), kName, 64, 16384, true);
    ASSERT_TRUE(second.IsValid());
    EXPECT_EQ(Printf(first, 0, 1, "after"), QS_E_NOT_VALID);
    EXPECT_TRUE(first.begin().IsEnd());
    EXPECT_EQ(Texts(ReadRecords(second)), (std::vector<std::string>{"before"}));
}

TEST(ZLogStreamWrite, AFormattingErrorStoresZerosNotStackContents) {
    TempDir dir;
    ZLogStream s(dir.Path().c_str(), kName, 8, 16384, true);
    // In the C locale a wide argument outside ASCII cannot be converted.
    EXPECT_EQ(Printf(s, 0, 1, "abc %ls", L"\u00e9\u4e2d"), QS_OK);
    auto records = ReadRecords(s);
    ASSERT_EQ(records.size(), 2u);
    const std::string text = records[1].Text();
    ASSERT_EQ(text.size(), 1016u);
    EXPECT_EQ(text.find_first_not_of('\0', text.find('\0')), std::string::npos);
}

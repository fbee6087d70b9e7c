#include "ZLogStream.h"

#include "qsForeignMutex.h"
#include "qsLogRecords.h"
#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <random>
#include <sys/wait.h>
#include <tuple>

using qsTest::LogRecord;
using qsTest::ReadRecords;
using qsTest::TempDir;
using std::filesystem::file_size;

namespace {

constexpr const char* kName = "test.log";

std::unique_ptr<ZLogStream> Open(const TempDir& dir, DWORD sizeKB) {
    return std::make_unique<ZLogStream>(dir.Path().c_str(), kName, sizeKB, 16384, true);
}

// A message through the formatting path: code 0, severity 1.
template <typename Char> qsStatus Print(ZLogStream& s, const Char* format, ...) {
    va_list args;
    va_start(args, format);
    qsStatus r = s.vPrintf(0, 1, 0, format, args);
    va_end(args);
    return r;
}

std::wstring WideText(const LogRecord& r) {
    return std::wstring(reinterpret_cast<const wchar_t*>(r.payload.data() + 8),
                        (r.payload.size() - 8) / 4);
}

} // namespace

TEST(ZLogStreamOpen, NewBadDamagedAndOddSizedFiles) {
    TempDir dir;
    const std::string path = dir / kName;
    ASSERT_EQ(Print(*Open(dir, 4), "hello %d", 1), QS_OK);
    auto records = ReadRecords(*Open(dir, 4)); // reopened: no second start record
    EXPECT_EQ(file_size(path), 4096u);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Type(), LOGREC_START);
    EXPECT_EQ(records[0].info.GetFlags(), LOG_REC_FLAG_BOOKKEEPING);
    EXPECT_EQ(records[1].Text(), "hello 1");
    EXPECT_EQ(records[1].info.GetProcessId(), DWORD(getpid()));

    // A header that no longer validates, then a size not a multiple of 1 KiB.
    for (int damage = 0; damage < 2; damage++) {
        ASSERT_EQ(Print(*Open(dir, 4), "old"), QS_OK);
        if (damage)
            std::filesystem::resize_file(path, 5000);
        else
            std::ofstream(path, std::ios::in | std::ios::out | std::ios::binary).write("\0", 1);
        records = ReadRecords(*Open(dir, 4));
        EXPECT_EQ(file_size(path), 4096u);
        ASSERT_EQ(records.size(), 1u) << damage;
        EXPECT_EQ(records[0].Type(), LOGREC_START);
    }

    const std::string longName(300, 'n');
    const char* d = dir.Path().c_str();
    const std::pair<const char*, const char*> names[] = {
        {nullptr, kName}, {d, ""}, {d, kName}, {d, kName}, {d, longName.c_str()}};
    const DWORD sizes[] = {8, 8, 0, 1048577, 8};
    for (int i = 0; i < 5; i++) {
        ZLogStream s(names[i].first, names[i].second, sizes[i], 1, true);
        EXPECT_EQ(s.StateWord(), STREAM_SIG_INVALID) << i;
        EXPECT_EQ(s.PrintString("x", 0, 1, 0), QS_E_NOT_VALID);
        EXPECT_TRUE(s.begin().IsEnd());
    }
}

TEST(ZLogStreamOpen, DamagedFileHeldByAnotherOpenerIsLeftAlone) {
    char aux[64];
    ZLogStream::CreateAuxName(aux, "c:\\Logs\\a.log", "_FMAP");
    EXPECT_STREQ(aux, "C:_LOGS_A.LOG_FMAP");

    TempDir dir;
    const std::string path = dir / kName;
    qsTest::WriteFileText(path, std::string(3000, 'x'));
    // The other opener's lock object exists under the name the stream asks for.
    char lockName[512];
    ZLogStream::CreateAuxName(lockName, path.c_str(), "_MUTEX");
    ZMutexBlock* theirs = qsTest::ForeignMutexObject(lockName, true);
    ASSERT_NE(theirs, nullptr);
    EXPECT_EQ(Open(dir, 4)->OpenStatus(), QS_E_NO_LOG_STREAM);
    EXPECT_EQ(qsTest::ReadFileText(path), std::string(3000, 'x'));
    munmap(theirs, sizeof *theirs);
}

namespace {

// One record of a log image as placed, and what it holds.
struct PlacedRecord {
    DWORD offset = 0, recSize = 0, id = 0;
    FILETIME time{};
    DWORD processId = 0, threadId = 0, flags = 0;
    std::string payload;
};

// A log image written by the library's own placement, beside a model of the
// ring kept independently: where each record went, and which are still
// intact (no byte of them written over by a newer record).
struct RingImage {
    std::vector<uint64_t> words;
    std::vector<PlacedRecord> placed;
    DWORD sizeKB, next = LOG_FILE_HEADER_SIZE;

    explicit RingImage(DWORD kb) : words(kb * 128), sizeKB(kb) { new (Bytes()) ZLogFile(kb); }
    uint8_t* Bytes() { return reinterpret_cast<uint8_t*>(words.data()); }
    DWORD Size() const { return sizeKB << 10; }

    void Add(const std::string& text, DWORD processId, DWORD threadId, DWORD flags) {
        PlacedRecord r;
        r.payload = std::string(8, '\x01') + text;
        r.recSize = DWORD(LOG_REC_HEADER_SIZE + r.payload.size());
        DWORD stride = (r.recSize + 3) / 4 * 4;
        if (next + stride > Size())
            next = LOG_FILE_HEADER_SIZE;
        r.offset = next;
        next += stride;
        r.id = DWORD(placed.size() + 1);
        r.time = {r.id * 7919u, 0x01D00000};
        r.processId = processId;
        r.threadId = threadId;
        r.flags = flags;
        void* p = nullptr;
        auto* file = reinterpret_cast<ZLogFile*>(Bytes());
        ASSERT_EQ(file->NewRecord(r.time, processId, threadId, LOGREC_STRING_A, flags,
                                  DWORD(r.payload.size()), &p),
                  QS_OK);
        memcpy(p, r.payload.data(), r.payload.size());
        ASSERT_EQ(file->LastRecOffset(), r.offset) << "the model places records elsewhere";
        placed.push_back(r);
    }

    // The intact records, newest first: going back from the newest, each
    // record whose bytes no newer record wrote, up to the first one written
    // over.
    std::vector<PlacedRecord> Intact() const {
        std::vector<bool> written(Size());
        std::vector<PlacedRecord> intact;
        for (auto r = placed.rbegin(); r != placed.rend(); ++r) {
            for (DWORD b = r->offset; b < r->offset + r->recSize; ++b)
                if (written[b])
                    return intact;
            std::fill(written.begin() + r->offset, written.begin() + r->offset + r->recSize, true);
            intact.push_back(*r);
        }
        return intact;
    }
};

DWORD Word(const std::vector<uint8_t>& bytes, size_t at) {
    DWORD w = 0;
    memcpy(&w, bytes.data() + at, 4);
    return w;
}

// Checks that the file holds exactly `kept` (oldest first) renumbered from 1
// and laid one after another from offset 28, then the resize record.
void ExpectResized(const std::vector<uint8_t>& file, const std::vector<PlacedRecord>& kept,
                   DWORD oldKB, DWORD newKB, const std::string& round) {
    ASSERT_EQ(file.size(), newKB * 1024u) << round;
    DWORD at = LOG_FILE_HEADER_SIZE, prev = 0;
    for (size_t i = 0; i < kept.size(); ++i) {
        const PlacedRecord& r = kept[i];
        const std::string what = round + ", record " + std::to_string(i + 1);
        ASSERT_EQ(Word(file, at), LOG_REC_SIGNATURE) << what;
        ASSERT_EQ(Word(file, at + 24), i + 1) << what;
        EXPECT_EQ(Word(file, at + 4), r.recSize) << what;
        EXPECT_EQ(Word(file, at + 36), prev) << what;
        EXPECT_EQ(std::make_tuple(Word(file, at + 8), Word(file, at + 12), Word(file, at + 16),
                                  Word(file, at + 20), Word(file, at + 28), Word(file, at + 32)),
                  std::make_tuple(r.time.dwLowDateTime, r.time.dwHighDateTime, r.processId,
                                  r.threadId, r.flags, LOGREC_STRING_A))
            << what;
        EXPECT_EQ(std::string(file.begin() + at + 40, file.begin() + at + r.recSize), r.payload)
            << what;
        prev = at;
        at += (r.recSize + 3) / 4 * 4;
    }
    const DWORD count = DWORD(kept.size() + 1);
    ASSERT_EQ(Word(file, at + 24), count) << round << ": the resize record";
    EXPECT_EQ(std::make_tuple(Word(file, at + 32), Word(file, at + 36), Word(file, at + 40),
                              Word(file, at + 44)),
              std::make_tuple(LOGREC_RESIZE, prev, oldKB, newKB))
        << round;
    EXPECT_EQ(std::make_tuple(Word(file, 12), Word(file, 16), Word(file, 20), Word(file, 24)),
              std::make_tuple(at, at + 48, count, 0u))
        << round << ": the header";
}

} // namespace

// Wrapped logs of mixed record sizes (among them records that end exactly
// at the end of the file, and stale headers from older laps at the wrap
// point) resized up and down: the file keeps exactly the newest intact
// records that fit with the resize record, as the ring model says, oldest
// first and renumbered from 1.  The first round is a 1 KiB log of 4- and
// 24-byte messages grown to 4 KiB.
TEST(ZLogStreamResize, KeepsExactlyTheNewestRecordsThatFit) {
    TempDir dir;
    const std::string path = dir / kName;
    std::mt19937 rng(2024);
    const DWORD sizes[] = {1, 2, 4, 16, 32};
    for (int round = 0; round < 60; ++round) {
        DWORD oldKB = round == 0 ? 1 : sizes[rng() % 5];
        DWORD newKB = round == 0 ? 4 : sizes[rng() % 5];
        if (newKB == oldKB)
            newKB = oldKB == 32 ? 16 : oldKB * 2;
        RingImage image(oldKB);
        const int records = int(image.Size() / 40) + int(rng() % (image.Size() / 20));
        for (int i = 0; i < records; ++i) {
            DWORD length = round == 0  ? (i % 2 ? 24 : 4)
                           : rng() % 3 ? rng() % 301
                                       : (rng() % 2 ? 4 : 24);
            std::string text(length, char('a' + i % 26));
            image.Add(text, rng(), rng(), rng() % 4);
        }
        ASSERT_FALSE(HasFatalFailure());
        std::vector<PlacedRecord> kept;
        DWORD used = ZLogRecActualSize(LOG_REC_HEADER_SIZE + 8);
        for (const PlacedRecord& r : image.Intact()) {
            used += (r.recSize + 3) / 4 * 4;
            if (LOG_FILE_HEADER_SIZE + used > newKB * 1024)
                break;
            kept.insert(kept.begin(), r);
        }
        qsTest::WriteFileBytes(path, image.Bytes(), image.Size());

        const std::string what = "round " + std::to_string(round) + ", " + std::to_string(oldKB) +
                                 " KiB to " + std::to_string(newKB) + " KiB";
        auto s = Open(dir, newKB);
        ASSERT_TRUE(s->IsValid()) << what << std::hex << s->OpenStatus();
        s.reset();
        ExpectResized(qsTest::ReadFileBytes(path), kept, oldKB, newKB, what);
        ASSERT_FALSE(HasFailure()) << what;
        std::filesystem::remove(path);
    }
}

// The temporary file goes, and a stream that had the file open (processes
// that open it independently do not share its lock) stops rather than trust
// a header that describes more than it has mapped.
TEST(ZLogStreamResize, AnEarlierOpenerOfTheFileStops) {
    TempDir dir;
    auto old = Open(dir, 4);
    ASSERT_EQ(Print(*old, "before"), QS_OK);
    auto s = Open(dir, 16);
    ASSERT_TRUE(s->IsValid()) << std::hex << s->OpenStatus();
    EXPECT_EQ(file_size(dir / kName), 16u * 1024);
    EXPECT_FALSE(std::filesystem::exists(dir / kName + "_tmp"));
    EXPECT_EQ(Print(*old, "late"), QS_E_NOT_VALID);
    EXPECT_TRUE(old->begin().IsEnd());
    std::vector<LogRecord> after = ReadRecords(*s);
    ASSERT_EQ(after.size(), 3u);
    EXPECT_EQ(after[1].Text(), "before");
    EXPECT_EQ(after[2].Type(), LOGREC_RESIZE);
}

TEST(ZLogStreamWrite, CapsWideTextsOriginAndClear) {
    TempDir dir;
    auto s = Open(dir, 64);
    const std::string big(5000, 'a');
    const std::wstring wide(2000, L'w');
    EXPECT_EQ(s->PrintString(big.c_str(), 1, 2, 0), QS_OK);
    EXPECT_EQ(Print(*s, "%s", big.c_str()), QS_OK);
    EXPECT_EQ(s->PrintString(wide.c_str(), 3, 1, 0), QS_OK);
    EXPECT_EQ(Print(*s, L"%ls", wide.c_str()), QS_OK);
    // In the C locale a wide argument outside ASCII cannot be converted.
    EXPECT_EQ(Print(*s, "abc %ls", L"\u00e9\u4e2d"), QS_OK);
    const FILETIME t{0x12345678, 0x01D00000};
    const uint32_t payload[2] = {7, 8};
    EXPECT_EQ(s->WriteRec(payload, sizeof payload, t, 4242, 77, LOGREC_EVENT, 9), QS_OK);
    std::vector<char> huge(64 * 1024);
    EXPECT_EQ(s->WriteRec(huge.data(), DWORD(huge.size()), LOGREC_EVENT, 0), QS_E_NO_LOG_STREAM);

    auto r = ReadRecords(*s);
    ASSERT_EQ(r.size(), 7u);
    EXPECT_EQ(r[1].Text(), big.substr(0, 1016));
    EXPECT_EQ(std::make_pair(r[1].Code(), r[1].Severity()), std::make_pair(1, 2));
    EXPECT_EQ(r[2].Text(), big.substr(0, 1016));
    EXPECT_EQ(r[3].Type(), LOGREC_STRING_W);
    EXPECT_EQ(WideText(r[3]), wide.substr(0, 1022));
    EXPECT_EQ(WideText(r[4]), wide.substr(0, 1022));
    // The failed formatting stored its whole cap; zeros, not stack contents.
    const std::string zeros = r[5].Text();
    EXPECT_EQ(zeros.size(), 1016u);
    EXPECT_EQ(zeros.find_first_not_of('\0', zeros.find('\0')), std::string::npos);
    const ZLogRecInfo& e = r[6].info;
    EXPECT_EQ(std::make_tuple(e.GetType(), e.GetProcessId(), e.GetThreadId(), e.GetFlags()),
              std::make_tuple(LOGREC_EVENT, 4242u, 77u, 9u));
    EXPECT_EQ(qsFileTimeToUInt64(e.GetTimestamp()), qsFileTimeToUInt64(t));
    EXPECT_EQ(r[6].Word(1), 8);

    EXPECT_EQ(s->ClearRecs(), QS_OK);
    EXPECT_EQ(Print(*s, "b"), QS_OK);
    r = ReadRecords(*s);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].Type(), LOGREC_CLEAR);
    EXPECT_EQ(r[0].info.GetRecordId(), 1u);
    EXPECT_EQ(r[1].Text(), "b");
}

TEST(ZLogStreamCursor, WalksBackBecomesTheEndWhenOverrunAndTheScopedLock) {
    TempDir dir;
    auto s = Open(dir, 1);
    for (int i = 0; i < 5; ++i)
        Print(*s, "m%d", i);
    std::vector<DWORD> ids;
    for (auto it = s->begin(); it.IsValid(); it.PrevRec())
        ids.push_back(it.RecordId());
    EXPECT_EQ(ids, (std::vector<DWORD>{6, 5, 4, 3, 2, 1}));

    // A zero-sized buffer gets the needed size and nothing copied.
    auto newest = s->begin();
    DWORD size = 0;
    ZLogRecInfo info;
    char byte = 'z';
    EXPECT_EQ(newest.GetRecData(&byte, &size, &info), QS_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(std::make_pair(size, info.GetRecordId()), std::make_pair(8u + 2, 6u));
    EXPECT_EQ(byte, 'z');

    auto oldest = s->rbegin(), stepper = s->rbegin();
    for (int i = 0; i < 100; ++i)
        Print(*s, "filler %d", i);
    char buffer[64];
    size = sizeof buffer;
    EXPECT_EQ(oldest.GetRecData(buffer, &size, nullptr), QS_E_CURSOR_STALE);
    EXPECT_TRUE(oldest.IsEnd());
    EXPECT_TRUE(stepper.NextRec().IsEnd());

    // The scoped lock: a write takes it again and its single release frees
    // it, so a forked child can write at once although `lock` claims it.
    ZLogStream::Lock lock(s.get(), true);
    ASSERT_TRUE(lock.IsHeld());
    EXPECT_EQ(Print(*s, "under lock"), QS_OK);
    pid_t child = fork();
    if (child == 0)
        _exit(Print(*s, "from child") == QS_OK ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadRecords(*s).back().Text(), "from child");
}

TEST(ZLogStreamSnapshot, ReadsAPrivateCopyAndRefusesWhatIsNotALogFile) {
    TempDir dir;
    {
        auto live = Open(dir, 4);
        Print(*live, "before");
        ZLogStream snap((dir / kName).c_str());
        ASSERT_TRUE(snap.IsValid()) << std::hex << snap.OpenStatus();
        Print(*live, "after");
        EXPECT_EQ(ReadRecords(snap).back().Text(), "before");
        EXPECT_EQ(snap.PrintString("x", 0, 1, 0), QS_OK); // private memory only
    }
    EXPECT_EQ(ReadRecords(dir / kName).back().Text(), "after");

    qsTest::WriteFileText(dir / "odd", std::string(1000, '\0'));
    qsTest::WriteFileText(dir / "empty", "");
    qsTest::WriteFileText(dir / "zeros", std::string(2048, '\0'));
    for (const std::string& bad :
         {dir.Path(), dir / "missing", dir / "odd", dir / "empty", dir / "zeros", dir / "*.log"})
        EXPECT_FALSE(ZLogStream(bad.c_str()).IsValid()) << bad;
}

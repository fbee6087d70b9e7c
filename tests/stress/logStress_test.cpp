// Forked writers on one small log file that wraps hundreds of times, with a
// reader walking it meanwhile, and writers killed at random moments.
// Afterwards the walk from the oldest record to the newest must be intact,
// every record readable and whole, and every append accounted for: it either
// landed (the header's record count says how many did) or returned a
// failure code.
#include "qsLogRecords.h"
#include "qsTestSupport.h"
#include "stressWriters.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/wait.h>
#include <thread>

namespace {

using namespace qsStress;
using Clock = std::chrono::steady_clock;

constexpr DWORD kFileKB = 64;

struct Totals {
    int64_t landed = 0, timedOut = 0, waitFailed = 0, otherFailed = 0;
    int64_t Failed() const { return timedOut + waitFailed + otherFailed; }
};

Totals Sum(const WriterReport* reports, int n) {
    Totals t;
    for (int i = 0; i < n; i++) {
        t.landed += reports[i].landed;
        t.timedOut += reports[i].timedOut;
        t.waitFailed += reports[i].waitFailed;
        t.otherFailed += reports[i].otherFailed;
    }
    return t;
}

// Reaps every child; a writer still running after `limit` is a hang: all
// are killed and the test fails.
void ReapAll(std::vector<pid_t>& children, std::chrono::seconds limit) {
    auto deadline = Clock::now() + limit;
    size_t left = children.size();
    while (left > 0 && Clock::now() < deadline) {
        for (pid_t& pid : children) {
            if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == pid) {
                pid = 0;
                left--;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (pid_t& pid : children) {
        if (pid <= 0)
            continue;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ADD_FAILURE() << "writer " << pid << " still running after " << limit.count() << " s";
    }
}

// Reads records newest to oldest with the stream's cursor (PrevRec) and
// returns them oldest first, with the offset of each.
std::vector<std::pair<DWORD, qsTest::LogRecord>> ReadBackward(const ZLogStream& stream) {
    std::vector<std::pair<DWORD, qsTest::LogRecord>> records;
    const ZLogFile* image = stream.Image();
    for (auto it = stream.begin(); it.IsValid(); it.PrevRec()) {
        qsTest::LogRecord r;
        DWORD size = 0;
        qsStatus s = it.GetRecData(nullptr, &size, &r.info);
        if (s == QS_E_BUFFER_TOO_SMALL) {
            r.payload.resize(size);
            s = it.GetRecData(r.payload.data(), &size, &r.info);
        }
        EXPECT_EQ(s, QS_OK) << "record after "
                            << (records.empty() ? 0 : records.back().second.info.GetRecordId())
                            << " unreadable";
        if (qsFailed(s))
            break;
        const ZLogRec* rec = image->LastRec();
        while (rec && rec->GetRecInfoRecordId() != r.info.GetRecordId())
            rec = image->PrevRec(rec);
        records.emplace_back(rec ? image->OffsetOf(rec) : 0, std::move(r));
    }
    return {records.rbegin(), records.rend()};
}

// The whole window of records, walked both ways: ids rise by one, every
// record is a whole message of a known writer, and each writer's messages
// appear in order.  The forward walk (oldest to newest) must see the same
// records, except that by the format's rule it may end early at a wrap.  Only a writer killed in
// the middle of an append (`victims`) may have left its last record unfinished; it is then the
// newest there is, since the victim died holding the lock.
void CheckWalk(const std::string& path, int writers, const std::vector<pid_t>& victims = {}) {
    ZLogStream snapshot(path.c_str());
    ASSERT_TRUE(snapshot.IsValid());
    auto window = ReadBackward(snapshot);
    std::vector<qsTest::LogRecord> forward = qsTest::ReadRecords(snapshot);
    ASSERT_FALSE(window.empty());
    ASSERT_FALSE(forward.empty());
    DWORD newest = window.back().second.info.GetRecordId();
    EXPECT_LE(newest, DWORD(snapshot.RecordCount()));
    EXPECT_GE(newest + victims.size(), DWORD(snapshot.RecordCount()))
        << "the newest record cannot be read";
    auto isVictim = [&](DWORD pid) {
        for (pid_t v : victims)
            if (DWORD(v) == pid)
                return true;
        return false;
    };
    // A victim killed half-way through placing a record may leave one the
    // forward walk still takes but the header does not point at yet.
    if (forward.size() == window.size() + 1 && isVictim(forward.back().info.GetProcessId()))
        forward.pop_back();
    ASSERT_LE(forward.size(), window.size());
    EXPECT_EQ(forward.front().info.GetRecordId(), window.front().second.info.GetRecordId());
    if (forward.size() < window.size()) {
        // The forward step looks first right behind the current record and
        // takes the wrap point only when a valid record does not sit there
        // (one that ends exactly at the end of the file does not count).  So
        // a walk ends early at a wrap whose gap at the end of the file still
        // holds an intact old record, or before a record that ends exactly
        // at the end: the format's rules, not damage.  Never anywhere else.
        const auto& [offset, next] = window[forward.size()];
        bool victimsLast =
            forward.size() + 1 == window.size() && isVictim(next.info.GetProcessId());
        bool endsAtEnd =
            offset + LOG_REC_HEADER_SIZE + next.payload.size() == size_t(snapshot.SizeInBytes());
        EXPECT_TRUE(offset == LOG_FILE_HEADER_SIZE || endsAtEnd || victimsLast)
            << "the forward walk stopped before record " << next.info.GetRecordId() << " at "
            << offset << ", neither at the wrap point nor ending at the end of the file";
        printf("[stress] the forward walk ends before record %u (%s)\n", next.info.GetRecordId(),
               endsAtEnd ? "it ends exactly at the end of the file"
                         : "at a wrap; the gap at the end of the file holds an old record");
    }
    std::map<int, int> lastSeq;
    for (size_t i = 0; i < window.size(); i++) {
        const qsTest::LogRecord& r = window[i].second;
        if (i < forward.size()) {
            EXPECT_EQ(forward[i].info.GetRecordId(), r.info.GetRecordId());
            EXPECT_EQ(forward[i].payload, r.payload);
        }
        if (i > 0) {
            EXPECT_EQ(r.info.GetRecordId(), window[i - 1].second.info.GetRecordId() + 1);
        }
        if (r.Type() == LOGREC_START) {
            EXPECT_EQ(r.info.GetRecordId(), 1u);
            continue;
        }
        EXPECT_EQ(r.Type(), LOGREC_STRING_A);
        int writer = -1, seq = -1;
        if (!ParseMessage(r.Text(), &writer, &seq)) {
            EXPECT_TRUE(i + 1 == window.size() && isVictim(r.info.GetProcessId()))
                << "damaged record " << r.info.GetRecordId() << ": " << r.Text();
            continue;
        }
        EXPECT_TRUE(writer >= 0 && writer < writers);
        EXPECT_EQ(r.Code(), writer);
        EXPECT_EQ(r.Severity(), qsLogSevNormal);
        auto it = lastSeq.find(writer);
        if (it != lastSeq.end()) {
            EXPECT_GT(seq, it->second) << "writer " << writer << " out of order";
        }
        lastSeq[writer] = seq;
    }
}

void Report(const char* what, int writers, const Totals& t, int killed, DWORD records, DWORD wraps,
            double seconds) {
    int64_t calls = t.landed + t.Failed();
    printf("[stress] %s: writers=%d killed=%d appends=%lld landed=%lld failed=%lld (%.3f%%: "
           "timeout=%lld wait-refused=%lld other=%lld) records=%u wraps=%u in %.2f s\n",
           what, writers, killed, (long long)calls, (long long)t.landed, (long long)t.Failed(),
           calls ? 100.0 * double(t.Failed()) / double(calls) : 0.0, (long long)t.timedOut,
           (long long)t.waitFailed, (long long)t.otherFailed, records, wraps, seconds);
}

// A reader in the parent walks the live stream while the writers append;
// every record it manages to read must be a whole message.
void WalkWhileWriting(ZLogStream& stream, const WriterReport* reports, int writers) {
    auto allDone = [&] {
        for (int i = 0; i < writers; i++)
            if (!reports[i].done)
                return false;
        return true;
    };
    int walks = 0;
    while (!allDone() && walks < 200) {
        for (const qsTest::LogRecord& r : qsTest::ReadRecords(stream)) {
            int writer, seq;
            if (r.Type() == LOGREC_STRING_A) {
                EXPECT_TRUE(ParseMessage(r.Text(), &writer, &seq)) << r.Text();
            }
        }
        walks++;
    }
}

void RunWriters(int writers, int messages) {
    qsTest::TempDir dir("stress");
    ZLogStream stream(dir.Path().c_str(), "stress.log", kFileKB, 16384, true);
    ASSERT_TRUE(stream.IsValid());
    WriterReport* reports = SharedReports(writers);
    auto start = Clock::now();
    std::vector<pid_t> children;
    for (int w = 0; w < writers; w++)
        children.push_back(ForkWriter(stream, w, messages, reports + w));
    WalkWhileWriting(stream, reports, writers);
    ReapAll(children, std::chrono::seconds(240));
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();

    Totals t = Sum(reports, writers);
    EXPECT_EQ(t.landed + t.Failed(), int64_t(writers) * messages);
    EXPECT_EQ(t.otherFailed, 0);
    // The start record, then exactly the appends that said they landed.
    EXPECT_EQ(int64_t(stream.RecordCount()), 1 + t.landed);
    if (!getenv("QS_STRESS_SCALE")) {
        EXPECT_GE(stream.WrapCount(), 100);
    }
    Report("writers", writers, t, 0, DWORD(stream.RecordCount()), DWORD(stream.WrapCount()),
           seconds);
    CheckWalk(stream.GetLogFileName(), writers);
    FreeReports(reports, writers);
}

TEST(LogStress, TwoForkedWritersWrapHundredsOfTimes) {
    RunWriters(2, Scaled(40000));
}

TEST(LogStress, EightForkedWritersWrapHundredsOfTimes) {
    RunWriters(8, Scaled(15000));
}

// Writers killed with SIGKILL at random moments, several rounds.  A victim
// may die holding the lock; the others then fail their appends (that is the
// lock's documented behaviour) and give up once a whole wait went by.
// A victim may also die half-way through a record: then that record may
// have landed without being counted, so the header may count up to one
// record more per victim than the writers reported.
TEST(LogStress, WritersKilledAtRandomMoments) {
    constexpr int kWriters = 6, kVictims = 2, kRounds = 8;
    std::mt19937 random{uint32_t(getpid())};
    for (int round = 0; round < kRounds; round++) {
        qsTest::TempDir dir("kill");
        ZLogStream stream(dir.Path().c_str(), "stress.log", kFileKB, 16384, true);
        ASSERT_TRUE(stream.IsValid());
        const int messages = Scaled(60000);
        WriterReport* reports = SharedReports(kWriters);
        auto start = Clock::now();
        std::vector<pid_t> children;
        for (int w = 0; w < kWriters; w++)
            children.push_back(ForkWriter(stream, w, messages, reports + w, true));
        std::vector<pid_t> victims(children.begin(), children.begin() + kVictims);
        for (int v = 0; v < kVictims; v++) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
            kill(children[v], SIGKILL);
        }
        ReapAll(children, std::chrono::seconds(120));
        double seconds = std::chrono::duration<double>(Clock::now() - start).count();

        Totals t = Sum(reports, kWriters);
        EXPECT_EQ(t.otherFailed, 0);
        for (int w = kVictims; w < kWriters; w++) {
            const WriterReport& r = reports[w];
            EXPECT_TRUE(r.done);
            // A survivor either finished or gave up behind a dead holder.
            int64_t calls = r.landed + r.timedOut + r.waitFailed + r.otherFailed;
            EXPECT_TRUE(calls == messages || r.gaveUp);
        }
        int64_t count = stream.RecordCount() - 1;
        EXPECT_GE(count, t.landed);
        EXPECT_LE(count, t.landed + kVictims);
        Report("kill round", kWriters, t, kVictims, DWORD(stream.RecordCount()),
               DWORD(stream.WrapCount()), seconds);
        // Whether a victim died holding the lock: then nobody can append.
        const std::string last = MessageText(0, 1 << 20);
        bool lockDead = qsFailed(stream.PrintString(last.c_str(), 0, qsLogSevNormal, 0)) &&
                        qsFailed(stream.PrintString(last.c_str(), 0, qsLogSevNormal, 0));
        printf("[stress] kill round %d: the lock is %s\n", round,
               lockDead ? "held by a dead victim" : "free");
        CheckWalk(stream.GetLogFileName(), kWriters, victims);
        FreeReports(reports, kWriters);
    }
}

} // namespace

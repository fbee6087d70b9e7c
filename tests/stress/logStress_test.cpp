// Forked writers (and threads) on one small log file that wraps hundreds of
// times, with a reader walking it meanwhile; writers killed at random
// moments; a writer that dies holding the lock.  Afterwards the walk must be
// intact, every record readable and whole, and every append accounted for:
// it either landed (the header's record count says how many did) or returned
// a failure code.  QS_STRESS_SCALE (a factor, default 1) shrinks the counts.
#include "qsLogRecords.h"
#include "qsTestSupport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
constexpr DWORD kFileKB = 64;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

int Scaled(int count) {
    const char* s = getenv("QS_STRESS_SCALE");
    return std::max(1, int(count * (s && atof(s) > 0 ? atof(s) : 1.0)));
}

// "w<writer> #<seq> " and a filler whose length (0 to 300) and letter follow
// from both, so that a reader can tell a whole message from a damaged one.
std::string MessageText(int writer, int seq) {
    std::string text = "w" + std::to_string(writer) + " #" + std::to_string(seq) + " ";
    text.append(size_t((int64_t(seq) * 7919 + writer * 31) % 301), char('a' + (seq + writer) % 26));
    return text;
}

bool ParseMessage(const std::string& text, int* writer, int* seq) {
    return sscanf(text.c_str(), "w%d #%d ", writer, seq) == 2 && text == MessageText(*writer, *seq);
}

qsStatus Printf(ZLogStream& stream, LONG code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    qsStatus s = stream.vPrintf(code, qsLogSevNormal, 0, format, args);
    va_end(args);
    return s;
}

// What one forked writer reports, in memory shared with the test.
struct WriterReport {
    int64_t landed = 0, timedOut = 0, waitFailed = 0, otherFailed = 0;
    bool gaveUp = false;
    std::atomic<bool> done{false};
    int64_t Calls() const { return landed + timedOut + waitFailed + otherFailed; }
};

struct SharedReports {
    explicit SharedReports(int n) : n(n) {
        void* p = mmap(nullptr, sizeof(WriterReport) * n, PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        r = static_cast<WriterReport*>(p);
        for (int i = 0; i < n; i++)
            new (r + i) WriterReport();
    }
    ~SharedReports() { munmap(r, sizeof(WriterReport) * n); }
    WriterReport& operator[](int i) { return r[i]; }
    int64_t Sum(int64_t WriterReport::*field) const {
        int64_t sum = 0;
        for (int i = 0; i < n; i++)
            sum += r[i].*field;
        return sum;
    }
    int n;
    WriterReport* r;
};

// Appends `count` messages (every other one through the formatting path).
// With `giveUp` it stops behind a holder that never releases: after a failure
// that took a whole wait, or 100000 in a row.
void WriteMessages(ZLogStream& stream, int writer, int count, WriterReport* report, bool giveUp) {
    for (int seq = 0, inRow = 0; seq < count; seq++) {
        auto start = Clock::now();
        std::string text = MessageText(writer, seq);
        size_t split = text.find(' ', text.find(' ') + 1) + 1;
        qsStatus s = seq % 2 ? stream.PrintString(text.c_str(), writer, qsLogSevNormal, 0)
                             : Printf(stream, writer, "%hs%hs", text.substr(0, split).c_str(),
                                      text.c_str() + split);
        if (qsSucceeded(s)) {
            report->landed++;
            inRow = 0;
            continue;
        }
        (s == QS_W_TIMEOUT       ? report->timedOut
         : s == QS_E_WAIT_FAILED ? report->waitFailed
                                 : report->otherFailed)++;
        if (giveUp && (SecondsSince(start) >= 0.4 || ++inRow >= 100000)) {
            report->gaveUp = true;
            break;
        }
    }
    report->done = true;
}

// A forked writer; one that hangs is ended by its alarm.
pid_t ForkWriter(ZLogStream& stream, int writer, int count, WriterReport* report,
                 bool giveUp = false) {
    pid_t pid = fork();
    if (pid == 0) {
        alarm(120);
        WriteMessages(stream, writer, count, report, giveUp);
        _exit(0);
    }
    return pid;
}

// Reaps the children; the number that exited normally.
int ReapAll(const std::vector<pid_t>& children) {
    int exited = 0, status;
    for (pid_t pid : children)
        exited += waitpid(pid, &status, 0) == pid && WIFEXITED(status);
    return exited;
}

// The window of records from the newest back (the previous offsets) must
// hold whole messages with ids rising by one and each writer's in order.  The
// forward walk sees the same records but, by the format's rule, may end early
// before a record at the wrap point (28) or one ending exactly at the end of
// the file.  A writer killed in an append (`victims`) may have left its last
// record unfinished, or placed but not yet in the header.
void CheckWalk(const std::string& path, int writers, const std::vector<pid_t>& victims = {}) {
    ZLogStream snapshot(path.c_str());
    ASSERT_TRUE(snapshot.IsValid());
    auto window = qsTest::ReadRecords(snapshot, true);
    std::reverse(window.begin(), window.end());
    auto forward = qsTest::ReadRecords(snapshot);
    ASSERT_FALSE(window.empty());
    auto isVictim = [&](const qsTest::LogRecord& r) {
        return std::count(victims.begin(), victims.end(), pid_t(r.info.GetProcessId())) > 0;
    };
    DWORD newest = window.back().info.GetRecordId(), count = DWORD(snapshot.RecordCount());
    EXPECT_TRUE(newest <= count && newest + victims.size() >= count) << newest << " " << count;
    if (forward.size() == window.size() + 1 && isVictim(forward.back()))
        forward.pop_back();
    ASSERT_LE(forward.size(), window.size());
    ASSERT_FALSE(forward.empty());
    EXPECT_EQ(forward.front().info.GetRecordId(), window.front().info.GetRecordId());
    if (forward.size() < window.size()) {
        const ZLogFile* image = snapshot.Image();
        const ZLogRec* next = image->LastRec();
        while (next && next->GetRecInfoRecordId() != window[forward.size()].info.GetRecordId())
            next = image->PrevRec(next);
        ASSERT_NE(next, nullptr);
        DWORD at = image->OffsetOf(next);
        EXPECT_TRUE(at == LOG_FILE_HEADER_SIZE || at + next->GetRecSize() == image->SizeInBytes() ||
                    (forward.size() + 1 == window.size() && isVictim(window.back())))
            << "the forward walk stopped before the record at " << at;
    }
    std::map<int, int> lastSeq;
    for (size_t i = 0; i < window.size(); i++) {
        const qsTest::LogRecord& r = window[i];
        if (i < forward.size()) {
            EXPECT_EQ(forward[i].payload, r.payload) << r.info.GetRecordId();
        }
        if (i > 0) {
            EXPECT_EQ(r.info.GetRecordId(), window[i - 1].info.GetRecordId() + 1);
        }
        if (r.Type() == LOGREC_START)
            continue;
        int writer = -1, seq = -1;
        if (!ParseMessage(r.Text(), &writer, &seq)) {
            EXPECT_TRUE(i + 1 == window.size() && isVictim(r)) << "damaged: " << r.Text();
            continue;
        }
        EXPECT_TRUE(r.Type() == LOGREC_STRING_A && r.Code() == writer && writer < writers);
        EXPECT_GT(seq, lastSeq.count(writer) ? lastSeq[writer] : -1) << "writer " << writer;
        lastSeq[writer] = seq;
    }
}

void Report(const char* what, SharedReports& reports, const ZLogStream& stream, double seconds) {
    int64_t landed = reports.Sum(&WriterReport::landed);
    printf("[stress] %s: writers=%d landed=%lld timed-out=%lld refused=%lld other=%lld "
           "records=%d wraps=%d in %.2f s\n",
           what, reports.n, (long long)landed, (long long)reports.Sum(&WriterReport::timedOut),
           (long long)reports.Sum(&WriterReport::waitFailed),
           (long long)reports.Sum(&WriterReport::otherFailed), stream.RecordCount(),
           stream.WrapCount(), seconds);
}

// Writers 0 .. processes-1 are forked, the others are threads of this
// process; the main thread walks the live stream meanwhile, and whatever it
// reads must be whole.
void RunWriters(int processes, int threads, int messages) {
    qsTest::TempDir dir("stress");
    ZLogStream stream(dir.Path().c_str(), "stress.log", kFileKB, 16384, true);
    ASSERT_TRUE(stream.IsValid());
    const int writers = processes + threads;
    SharedReports reports(writers);
    auto start = Clock::now();
    std::vector<pid_t> children;
    std::vector<std::thread> inProcess;
    for (int w = 0; w < writers; w++) {
        if (w < processes)
            children.push_back(ForkWriter(stream, w, messages, &reports[w]));
        else
            inProcess.emplace_back(WriteMessages, std::ref(stream), w, messages, &reports[w],
                                   false);
    }
    for (int walks = 0; walks < 200 && !reports[0].done; walks++)
        for (const qsTest::LogRecord& r : qsTest::ReadRecords(stream)) {
            int writer, seq;
            EXPECT_TRUE(r.Type() != LOGREC_STRING_A || ParseMessage(r.Text(), &writer, &seq))
                << r.Text();
        }
    for (auto& t : inProcess)
        t.join();
    EXPECT_EQ(ReapAll(children), processes) << "a writer crashed or hung";
    Report("writers", reports, stream, SecondsSince(start));

    int64_t landed = reports.Sum(&WriterReport::landed);
    EXPECT_EQ(landed + reports.Sum(&WriterReport::timedOut) +
                  reports.Sum(&WriterReport::waitFailed),
              int64_t(writers) * messages);
    EXPECT_EQ(reports.Sum(&WriterReport::otherFailed), 0);
    EXPECT_EQ(stream.RecordCount(), 1 + landed) << "the start record and every landed append";
    EXPECT_TRUE(getenv("QS_STRESS_SCALE") || stream.WrapCount() >= 100) << stream.WrapCount();
    CheckWalk(stream.GetLogFileName(), writers);
}

TEST(LogStress, TwoForkedWritersAndTwoThreadsWrapHundredsOfTimes) {
    RunWriters(2, 2, Scaled(30000));
}

TEST(LogStress, EightForkedWritersWrapHundredsOfTimes) {
    RunWriters(8, 0, Scaled(15000));
}

// A victim may die holding the lock: the others then fail their appends and
// give up once a whole wait went by.  One dying half-way through a record
// may have placed it uncounted: the header may count one more per victim.
TEST(LogStress, WritersKilledAtRandomMoments) {
    constexpr int kWriters = 6, kVictims = 2, kRounds = 8;
    std::mt19937 random{uint32_t(getpid())};
    for (int round = 0; round < kRounds; round++) {
        qsTest::TempDir dir("kill");
        ZLogStream stream(dir.Path().c_str(), "stress.log", kFileKB, 16384, true);
        ASSERT_TRUE(stream.IsValid());
        const int messages = Scaled(60000);
        SharedReports reports(kWriters);
        auto start = Clock::now();
        std::vector<pid_t> children;
        for (int w = 0; w < kWriters; w++)
            children.push_back(ForkWriter(stream, w, messages, &reports[w], true));
        std::vector<pid_t> victims(children.begin(), children.begin() + kVictims);
        for (pid_t victim : victims) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
            kill(victim, SIGKILL);
        }
        ReapAll(children);
        Report("kill round", reports, stream, SecondsSince(start));

        EXPECT_EQ(reports.Sum(&WriterReport::otherFailed), 0);
        for (int w = kVictims; w < kWriters; w++)
            EXPECT_TRUE(reports[w].done && (reports[w].Calls() == messages || reports[w].gaveUp));
        int64_t landed = reports.Sum(&WriterReport::landed), count = stream.RecordCount() - 1;
        EXPECT_TRUE(count >= landed && count <= landed + kVictims) << count << " " << landed;
        CheckWalk(stream.GetLogFileName(), kWriters, victims);
    }
}

// Sleeps until the microseconds of the time of day lie in [from, to).
void WaitForPhase(long from, long to) {
    for (timeval now;
         gettimeofday(&now, nullptr) == 0 && (now.tv_usec < from || now.tv_usec >= to);)
        std::this_thread::sleep_for(
            std::chrono::microseconds((from - now.tv_usec + 1000000) % 1000000 + 100));
}

// The lock has no robustness handling, on purpose: a writer that dies holding
// it leaves it held for ever.  Every other append then fails within its
// bounded attempts.  A wait begun in the first half of a second times out
// after 500 ms, and the next attempt, begun in the second half, gets a
// deadline that is refused at once (0xE0FF0102), like any wait begun there.
TEST(LogStress, AWriterDeadWithTheLockMakesTheOthersFailNeverHang) {
    qsTest::TempDir dir("dead");
    ZLogStream stream(dir.Path().c_str(), "dead.log", 64, 16384, true);
    ASSERT_EQ(stream.PrintString("before", 0, qsLogSevNormal, 0), QS_OK);
    const int32_t count = stream.RecordCount();
    pid_t holder = fork();
    if (holder == 0) {
        ZLogStream::Lock lock(&stream, true);
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);

    constexpr int kWriters = 2, kAppends = 4;
    SharedReports reports(kWriters);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; w++)
        writers.push_back(ForkWriter(stream, w, kAppends, &reports[w]));
    for (int i = 0; i < kAppends; i++) {
        bool firstHalf = i % 2 == 0;
        WaitForPhase(firstHalf ? 50000 : 600000, firstHalf ? 300000 : 900000);
        timeval before, after;
        gettimeofday(&before, nullptr);
        qsStatus s = stream.PrintString("after", 0, qsLogSevNormal, 0);
        gettimeofday(&after, nullptr);
        // Every attempt either times out or is refused.  A refusal comes at
        // once, so an answer within 400 ms means the first deadline was
        // formed in a second half, and a longer one that it was formed in a
        // first half; either way, at some moment the clock showed between
        // the readings around the call (a loaded machine may delay the call
        // past the half second it was begun in).
        ASSERT_TRUE(s == QS_E_WAIT_FAILED || s == QS_W_TIMEOUT) << std::hex << s;
        const int64_t begun = int64_t(before.tv_sec) * 1000000 + before.tv_usec;
        const int64_t ended = int64_t(after.tv_sec) * 1000000 + after.tv_usec;
        const int64_t halfEnds = (begun / 500000 + 1) * 500000;
        if (ended - begun < 400000) {
            EXPECT_TRUE(!firstHalf || ended >= halfEnds) << "refused at once although begun early";
        } else {
            EXPECT_TRUE(firstHalf || ended - 500000 >= halfEnds) << "waited although begun late";
        }
    }
    EXPECT_EQ(ReapAll(writers), kWriters) << "a writer hung behind the dead holder";
    Report("dead holder", reports, stream, 0);
    EXPECT_EQ(reports.Sum(&WriterReport::landed), 0);
    EXPECT_EQ(reports.Sum(&WriterReport::timedOut) + reports.Sum(&WriterReport::waitFailed),
              kWriters * kAppends);
    EXPECT_EQ(stream.RecordCount(), count);
    // A reader with its own copy is not held up.
    EXPECT_EQ(qsTest::ReadRecords(stream.GetLogFileName()).back().Text(), "before");
}

} // namespace

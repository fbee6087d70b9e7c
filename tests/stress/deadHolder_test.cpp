// A writer that dies holding the stream's lock leaves it held for ever (the
// lock has no robustness handling, on purpose).  What every other writer
// must see: each append fails within its bounded attempts, with a time-out
// or, when its wait begins in the second half of a second, with the
// refused-deadline code at once; nothing lands and nobody hangs.
#include "qsLogRecords.h"
#include "qsTestSupport.h"
#include "stressWriters.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// Forks a child that takes the stream's lock, says so through a pipe, and
// waits to be killed; returns once the lock is held by it.
pid_t ForkHolder(ZLogStream& stream) {
    int fds[2];
    if (pipe(fds) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        ZLogStream::Lock lock(&stream, true);
        char held = lock.IsHeld() ? 1 : 0;
        if (write(fds[1], &held, 1) != 1)
            _exit(1);
        pause();
        _exit(0);
    }
    close(fds[1]);
    char held = 0;
    bool ok = read(fds[0], &held, 1) == 1 && held == 1;
    close(fds[0]);
    return ok ? pid : -1;
}

// Sleeps until the microseconds of the time of day lie in [from, to).
void WaitForPhase(long from, long to) {
    for (;;) {
        timeval now;
        gettimeofday(&now, nullptr);
        if (now.tv_usec >= from && now.tv_usec < to)
            return;
        long ahead = (from - now.tv_usec + 1000000) % 1000000;
        std::this_thread::sleep_for(std::chrono::microseconds(ahead ? ahead : 1000));
    }
}

TEST(DeadHolder, OtherWritersFailWithinTheirBoundedAttempts) {
    qsTest::TempDir dir("dead");
    ZLogStream stream(dir.Path().c_str(), "dead.log", 64, 16384, true);
    ASSERT_TRUE(stream.IsValid());
    ASSERT_EQ(stream.PrintString("before", 0, qsLogSevNormal, 0), QS_OK);
    DWORD countBefore = DWORD(stream.RecordCount());

    pid_t holder = ForkHolder(stream);
    ASSERT_GT(holder, 0);
    ASSERT_EQ(kill(holder, SIGKILL), 0);
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);

    // Two forked writers and this process, a few appends each, timed.
    constexpr int kWriters = 2, kAppends = 4;
    qsStress::WriterReport* reports = qsStress::SharedReports(kWriters);
    std::vector<pid_t> writers;
    auto start = Clock::now();
    for (int w = 0; w < kWriters; w++)
        writers.push_back(qsStress::ForkWriter(stream, w, kAppends, reports + w));

    // This process appends at chosen moments of the second.  A wait begun
    // in the first half has a valid deadline: it times out after 500 ms,
    // and the next attempt then begins in the second half, where the
    // deadline is refused at once.  A wait begun in the second half is
    // refused at once.  So with a dead holder an append fails after one
    // 500 ms wait or immediately, and never reaches its fourth attempt.
    int timedOut = 0, refused = 0;
    double slowest = 0, fastest = 1e9;
    for (int i = 0; i < kAppends; i++) {
        bool firstHalf = i % 2 == 0;
        WaitForPhase(firstHalf ? 50000 : 600000, firstHalf ? 300000 : 900000);
        auto t0 = Clock::now();
        qsStatus s = stream.PrintString("after", 0, qsLogSevNormal, 0);
        double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        slowest = std::max(slowest, seconds);
        fastest = std::min(fastest, seconds);
        EXPECT_EQ(s, QS_E_WAIT_FAILED) << std::hex << s;
        timedOut += s == QS_W_TIMEOUT;
        refused += s == QS_E_WAIT_FAILED;
        if (firstHalf) {
            EXPECT_GT(seconds, 0.45);
            EXPECT_LT(seconds, 1.5); // one wait, with slack for a loaded machine
        } else {
            EXPECT_LT(seconds, 0.2);
        }
    }

    for (pid_t pid : writers) {
        int status = 0;
        // Each writer's 4 appends are bounded like ours: 4 x 2 s at the very most.
        auto deadline = Clock::now() + std::chrono::seconds(20);
        while (waitpid(pid, &status, WNOHANG) == 0 && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (waitpid(pid, &status, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            ADD_FAILURE() << "a writer hung behind the dead holder";
        }
    }
    double total = std::chrono::duration<double>(Clock::now() - start).count();
    for (int w = 0; w < kWriters; w++) {
        EXPECT_EQ(reports[w].landed, 0);
        EXPECT_EQ(reports[w].otherFailed, 0);
        EXPECT_EQ(reports[w].timedOut + reports[w].waitFailed, kAppends);
        timedOut += int(reports[w].timedOut);
        refused += int(reports[w].waitFailed);
        slowest = std::max(slowest, reports[w].slowestFailureUs / 1e6);
    }
    EXPECT_EQ(DWORD(stream.RecordCount()), countBefore);
    printf("[dead holder] %d appends: %d timed out, %d refused (at once, or after one 500 ms "
           "wait); fastest %.3f s, slowest %.3f s, all done in %.2f s\n",
           (kWriters + 1) * kAppends, timedOut, refused, fastest, slowest, total);
    qsStress::FreeReports(reports, kWriters);

    // A reader with its own copy is not held up.
    std::vector<qsTest::LogRecord> records = qsTest::ReadRecords(stream.GetLogFileName());
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().Text(), "before");
}

} // namespace

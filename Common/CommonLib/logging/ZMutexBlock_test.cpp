// The shared block's layout on the 32-bit platform, and processes killed in
// the middle of the lock's protocol: nobody else may hang behind them.
#include "ZMutex.h"

#include <chrono>
#include <csignal>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

std::string Name(const char* tag) {
    return std::string("qs-block-") + tag + "-" + std::to_string(getpid());
}

// Forks a child that runs body() and _exits with its result.
template <typename Body> pid_t Fork(Body body) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    return pid;
}

TEST(ZMutexBlock, LayoutOfTheSharedBlock) {
#if defined(__i386__)
    EXPECT_EQ(sizeof(ZMutexBlock), 92u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Mutex), 4u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Cond), 28u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_OwnerThread), 76u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_OwnerProcess), 80u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Locked), 84u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Count), 88u);
#else
    // Wider POSIX types on a 64-bit build; the order of the fields holds.
    EXPECT_LT(offsetof(ZMutexBlock, m_Mutex), offsetof(ZMutexBlock, m_Cond));
    EXPECT_LT(offsetof(ZMutexBlock, m_Cond), offsetof(ZMutexBlock, m_OwnerThread));
    EXPECT_EQ(offsetof(ZMutexBlock, m_Locked) + 4, offsetof(ZMutexBlock, m_Count));
#endif
    ZMutex m;
    ASSERT_EQ(m.Create(Name("layout").c_str(), false), QS_OK);
    EXPECT_EQ(m.Block()->m_Mark, ZMUTEX_MARK_INITIALISED);
    EXPECT_EQ(m.Block()->m_OwnerProcess, -1);
}

// A locker killed while asleep waiting for the mutex: the holder's release
// and everybody's later locking go on as if it had never been there.
TEST(ZMutexBlock, LockerKilledWhileAsleepHangsNobody) {
    ZMutex m;
    ASSERT_EQ(m.Create(Name("sleeper").c_str(), false), QS_OK);
    ASSERT_EQ(m.Lock(ZMUTEX_INFINITE), QS_OK);
    pid_t sleeper = Fork([&] { return m.Lock(ZMUTEX_INFINITE) == QS_OK ? 0 : 1; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // asleep by now
    ASSERT_EQ(kill(sleeper, SIGKILL), 0);
    ASSERT_EQ(waitpid(sleeper, nullptr, 0), sleeper);

    auto start = Clock::now();
    EXPECT_EQ(m.Unlock(), QS_OK);
    pid_t next = Fork([&] {
        if (m.Lock(ZMUTEX_INFINITE) != QS_OK)
            return 1;
        return m.Unlock() == QS_OK ? 0 : 2;
    });
    int status = -1;
    ASSERT_EQ(waitpid(next, &status, 0), next);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(m.Lock(0), QS_OK);
    EXPECT_EQ(m.Unlock(), QS_OK);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 5.0);
}

// A holder killed with the lock stays its owner for ever (no robustness for
// the lock itself); lockers fail in bounded time and the block stays usable
// for inspection.
TEST(ZMutexBlock, HolderKilledKeepsTheLockAndLockersFailInTime) {
    ZMutex m;
    ASSERT_EQ(m.Create(Name("holder").c_str(), false), QS_OK);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t holder = Fork([&] {
        char c = m.Lock(ZMUTEX_INFINITE) == QS_OK ? 1 : 0;
        if (write(fds[1], &c, 1) != 1)
            return 1;
        pause();
        return 0;
    });
    char c = 0;
    ASSERT_EQ(read(fds[0], &c, 1), 1);
    ASSERT_EQ(c, 1);
    ASSERT_EQ(kill(holder, SIGKILL), 0);
    ASSERT_EQ(waitpid(holder, nullptr, 0), holder);

    auto start = Clock::now();
    qsStatus s = m.Lock(200);
    EXPECT_TRUE(s == QS_W_TIMEOUT || s == QS_E_WAIT_FAILED);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 2.0);
    EXPECT_EQ(m.Block()->m_Locked, 1);
    EXPECT_EQ(m.Block()->m_OwnerProcess, holder);
    close(fds[0]);
    close(fds[1]);
}

} // namespace

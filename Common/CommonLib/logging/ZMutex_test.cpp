#include "ZMutex.h"

#include "qsForeignMutex.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <functional>
#include <future>
#include <sched.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// Unique per test process, shaped like the names the log stream makes.
std::string UniqueName(const char* tag) {
    return "_TMP_ZMUTEX_" + std::to_string(getpid()) + "_" + tag + ".LOG_MUTEX";
}

long MsSince(Clock::time_point start) {
    return long(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// A child that runs body() and _exits with its result; one that hangs on a
// broken lock dies of the alarm instead, and Reap() then answers -1.
pid_t Fork(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        _exit(body());
    }
    return pid;
}

int Reap(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void WaitForMicroseconds(long from, long to) {
    for (timeval now;
         gettimeofday(&now, nullptr) == 0 && (now.tv_usec < from || now.tv_usec >= to);)
        usleep(1000);
}

// Increments a shared counter non-atomically under the mutex; 0 on success.
int CountUnderLock(ZMutex& m, volatile int* counter, int times) {
    for (int i = 0; i < times; i++) {
        if (m.Lock(5000) != QS_OK)
            return 1;
        int seen = *counter;
        if (i % 16 == 0)
            sched_yield();
        *counter = seen + 1;
        if (m.Unlock() != QS_OK)
            return 2;
    }
    return 0;
}

} // namespace

TEST(ZMutexTest, OwnershipAndTimedWaitsBehindADeadOwner) {
    ZMutex m;
    ASSERT_EQ(m.Create(UniqueName("recursive").c_str(), true), QS_OK);
    ASSERT_EQ(m.Lock(ZMUTEX_INFINITE), QS_OK);
    // Neither another thread nor a forked child (whose thread has the owner's
    // pthread_self() value) owns it: their unlocks answer 0 and change nothing.
    std::thread([&] {
        EXPECT_EQ(m.Unlock(), QS_OK);
        EXPECT_EQ(m.Lock(0), QS_W_TIMEOUT);
    }).join();
    EXPECT_EQ(Reap(Fork([&] { return m.Unlock() == QS_OK && m.Lock(0) == QS_W_TIMEOUT; })), 1);
    // One unlock by the owner frees it, however often it was taken.
    EXPECT_EQ(m.Unlock(), QS_OK);
    // A child takes it and dies holding it: it stays the owner for ever (no
    // robustness for the lock itself).
    pid_t child = Fork([&] { return m.Lock(0) == QS_OK; });
    EXPECT_EQ(Reap(child), 1);
    EXPECT_EQ(m.Block()->m_OwnerProcess, child);
    EXPECT_EQ(m.Lock(0), QS_W_TIMEOUT);

    WaitForMicroseconds(0, 300000);
    auto start = Clock::now();
    EXPECT_EQ(m.Lock(500), QS_W_TIMEOUT);
    EXPECT_TRUE(MsSince(start) >= 400 && MsSince(start) < 5000) << MsSince(start);
    // Late in a second the 500 ms deadline's nanoseconds reach 1e9: the wait
    // is refused at once instead of timing out.
    WaitForMicroseconds(500000, 800000);
    start = Clock::now();
    EXPECT_EQ(m.Lock(500), QS_E_WAIT_FAILED);
    EXPECT_LT(MsSince(start), 400);
}

TEST(ZMutexTest, ExcludesForkedChildrenAndThreads) {
    void* p = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(p, MAP_FAILED);
    auto* counter = static_cast<volatile int*>(p);
    constexpr int times = 20000;
    ZMutex shared, local;
    ASSERT_EQ(shared.Create(UniqueName("counter").c_str(), false), QS_OK);
    ASSERT_EQ(local.Create(), QS_OK);

    *counter = 0;
    pid_t child = Fork([&] { return CountUnderLock(shared, counter, times); });
    EXPECT_EQ(CountUnderLock(shared, counter, times), 0);
    EXPECT_EQ(Reap(child), 0);
    EXPECT_EQ(*counter, 2 * times);

    *counter = 0;
    auto other =
        std::async(std::launch::async, [&] { return CountUnderLock(local, counter, times); });
    EXPECT_EQ(CountUnderLock(local, counter, times), 0);
    EXPECT_EQ(other.get(), 0);
    EXPECT_EQ(*counter, 2 * times);
    munmap(p, sizeof(int));
}

TEST(ZMutexTest, CreateOfAnExistingNameAndOfTheSameNameAgain) {
    // Finished by another creator: opened, not taken even for an initial
    // owner, and shared.
    std::string name = UniqueName("existing");
    ZMutexBlock* theirs = qsTest::ForeignMutexObject(name, true);
    ASSERT_NE(theirs, nullptr);
    ZMutex m;
    errno = 0;
    EXPECT_EQ(m.Create(name.c_str(), true), QS_OK);
    EXPECT_EQ(errno, ERROR_ALREADY_EXISTS);
    EXPECT_EQ(theirs->m_Locked, 0);
    EXPECT_EQ(m.Lock(0), QS_OK);
    EXPECT_EQ(theirs->m_OwnerProcess, getpid());
    munmap(theirs, sizeof *theirs);

    // Never finished: given up after four tests a second apart.
    name = UniqueName("unfinished");
    theirs = qsTest::ForeignMutexObject(name, false);
    ASSERT_NE(theirs, nullptr);
    ZMutex late(true);
    auto start = Clock::now();
    EXPECT_EQ(late.Create(name.c_str(), false), QS_E_MUTEX_CREATE);
    EXPECT_GE(MsSince(start), 3500);
    EXPECT_LT(MsSince(start), 10000);
    EXPECT_EQ(late.Lock(0), QS_E_NOT_VALID);
    munmap(theirs, sizeof *theirs);

    // The name is gone once created: a second Create of it is a new mutex.
    name = UniqueName("again");
    ZMutex first;
    ASSERT_EQ(first.Create(name.c_str(), true), QS_OK);
    EXPECT_EQ(Reap(Fork([&] {
                  ZMutex second;
                  errno = 0;
                  if (second.Create(name.c_str(), false) != QS_OK || errno == ERROR_ALREADY_EXISTS)
                      return 1;
                  return second.Lock(0) == QS_OK && first.Lock(0) == QS_W_TIMEOUT ? 0 : 2;
              })),
              0);
}

TEST(ZMutexTest, LayoutOfTheSharedBlock) {
#if defined(__i386__)
    EXPECT_EQ(sizeof(ZMutexBlock), 92u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Mutex), 4u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Cond), 28u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_OwnerThread), 76u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Count), 88u);
#else
    // Wider POSIX types on a 64-bit build; the order of the fields holds.
    EXPECT_LT(offsetof(ZMutexBlock, m_Mutex), offsetof(ZMutexBlock, m_Cond));
    EXPECT_LT(offsetof(ZMutexBlock, m_Cond), offsetof(ZMutexBlock, m_OwnerThread));
    EXPECT_EQ(offsetof(ZMutexBlock, m_Locked) + 4, offsetof(ZMutexBlock, m_Count));
#endif
}

// A locker killed while asleep waiting for the mutex: the holder's release
// and everybody's later locking go on as if it had never been there.
TEST(ZMutexTest, LockerKilledWhileAsleepHangsNobody) {
    ZMutex m;
    ASSERT_EQ(m.Create(UniqueName("sleeper").c_str(), false), QS_OK);
    ASSERT_EQ(m.Lock(ZMUTEX_INFINITE), QS_OK);
    pid_t sleeper = Fork([&] { return m.Lock(ZMUTEX_INFINITE); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // asleep by now
    kill(sleeper, SIGKILL);
    EXPECT_EQ(Reap(sleeper), -1);
    EXPECT_EQ(m.Unlock(), QS_OK);
    EXPECT_EQ(Reap(Fork([&] { return m.Lock(ZMUTEX_INFINITE) == QS_OK && m.Unlock() == QS_OK; })),
              1);
    EXPECT_EQ(m.Lock(0), QS_OK);
}

#include "ZMutex.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <future>
#include <sched.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// Unique per test process, shaped like the names the log stream makes.
std::string UniqueName(const char* tag) {
    return "_TMP_ZMUTEX_" + std::to_string(getpid()) + "_" + tag + ".LOG_MUTEX";
}

bool ShmNameExists(const std::string& name) {
    int fd = shm_open(("/" + name).c_str(), O_RDWR, 0);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

long MsSince(Clock::time_point start) {
    return long(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

pid_t StartChild(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    return pid;
}

// The child's exit code, or -1 if it crashed or had to be killed after
// limitSec: a broken lock must fail the test, not hang it.
int WaitChild(pid_t pid, int limitSec = 20) {
    int status = 0;
    auto start = Clock::now();
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (MsSince(start) > limitSec * 1000L) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(5000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunInChild(const std::function<int()>& body) {
    return WaitChild(StartChild(body));
}

// Holds the mutex from another thread until Release().
class ThreadHolder {
public:
    explicit ThreadHolder(ZMutex& m)
        : m_Thread([this, &m] {
              m_Locked.set_value(m.Lock(ZMUTEX_INFINITE));
              m_Release.get_future().wait();
              m.Unlock();
          }) {
        m_LockStatus = m_Locked.get_future().get();
    }
    ~ThreadHolder() { Release(); }
    void Release() {
        if (!m_Thread.joinable())
            return;
        m_Release.set_value();
        m_Thread.join();
    }
    qsStatus m_LockStatus;

private:
    std::promise<qsStatus> m_Locked;
    std::promise<void> m_Release;
    std::thread m_Thread;
};

void WaitForMicroseconds(long from, long to) {
    for (;;) {
        timeval now;
        gettimeofday(&now, nullptr);
        if (now.tv_usec >= from && now.tv_usec < to)
            return;
        usleep(1000);
    }
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

// An object as another process's Create() leaves it, finished or not.
ZMutexBlock* MakeForeignObject(const std::string& name, bool finished) {
    int fd = shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    if (fd < 0 || ftruncate(fd, sizeof(ZMutexBlock)) != 0)
        return nullptr;
    void* p = mmap(nullptr, sizeof(ZMutexBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        return nullptr;
    auto* block = static_cast<ZMutexBlock*>(p);
    block->m_Mark = ZMUTEX_MARK_UNINITIALISED;
    block->m_Locked = 0;
    block->m_OwnerThread = pthread_t(-1);
    block->m_OwnerProcess = -1;
    block->m_Count = 0;
    if (!finished)
        return block;
    pthread_mutexattr_t ma;
    pthread_condattr_t ca;
    pthread_mutexattr_init(&ma);
    pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&block->m_Mutex, &ma);
    pthread_condattr_init(&ca);
    pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(&block->m_Cond, &ca);
    block->m_Mark = ZMUTEX_MARK_INITIALISED;
    return block;
}

} // namespace

TEST(ZMutexTest, OneUnlockFreesRecursiveLocksForOtherProcesses) {
    ZMutex m;
    ASSERT_EQ(m.Create(UniqueName("recursive").c_str(), true), QS_OK);
    ASSERT_EQ(m.Lock(ZMUTEX_INFINITE), QS_OK);
    EXPECT_EQ(m.Block()->m_Count, 2);

    // The child's thread has the owner's pthread_self() value; only the
    // process id tells it apart.
    EXPECT_EQ(RunInChild([&] { return m.Lock(0) == QS_W_TIMEOUT ? 0 : 1; }), 0);

    EXPECT_EQ(m.Unlock(), QS_OK);
    EXPECT_EQ(m.Block()->m_Locked, 0);
    EXPECT_EQ(m.Block()->m_Count, 0);
    EXPECT_EQ(m.Block()->m_OwnerProcess, -1);

    // The child takes it and dies holding it: it stays taken.
    EXPECT_EQ(RunInChild([&] { return m.Lock(0) == QS_OK ? 0 : 1; }), 0);
    EXPECT_EQ(m.Lock(0), QS_W_TIMEOUT);
}

TEST(ZMutexTest, UnlockByNonOwnerChangesNothing) {
    ZMutex m;
    ASSERT_EQ(m.Create(UniqueName("nonowner").c_str(), false), QS_OK);
    ASSERT_EQ(m.Lock(ZMUTEX_INFINITE), QS_OK);

    std::thread([&] {
        EXPECT_EQ(m.Unlock(), QS_OK);
        EXPECT_EQ(m.Lock(0), QS_W_TIMEOUT);
    }).join();
    EXPECT_EQ(RunInChild([&] { return m.Unlock() == QS_OK ? 0 : 1; }), 0);

    EXPECT_EQ(m.Block()->m_Locked, 1);
    EXPECT_EQ(m.Block()->m_Count, 1);
    EXPECT_EQ(m.Block()->m_OwnerProcess, getpid());
    EXPECT_TRUE(pthread_equal(m.Block()->m_OwnerThread, pthread_self()));
}

TEST(ZMutexTest, TimedLockAgainstAHolder) {
    ZMutex m;
    ASSERT_EQ(m.Create(UniqueName("timed").c_str(), false), QS_OK);
    ThreadHolder holder(m);
    ASSERT_EQ(holder.m_LockStatus, QS_OK);

    EXPECT_EQ(m.Lock(0), QS_W_TIMEOUT);

    WaitForMicroseconds(0, 300000);
    auto start = Clock::now();
    EXPECT_EQ(m.Lock(500), QS_W_TIMEOUT);
    EXPECT_GE(MsSince(start), 400);
    EXPECT_LT(MsSince(start), 5000);

    // Late in a second the 500 ms deadline's nanoseconds reach 1e9: the wait
    // is refused at once instead of timing out.
    WaitForMicroseconds(500000, 800000);
    start = Clock::now();
    errno = 0;
    EXPECT_EQ(m.Lock(500), QS_E_WAIT_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(MsSince(start), 400);

    holder.Release();
    EXPECT_EQ(m.Lock(0), QS_OK);
}

TEST(ZMutexTest, ForkedChildAndParentExcludeEachOther) {
    ZMutex m;
    ASSERT_EQ(m.Create(UniqueName("counter").c_str(), false), QS_OK);
    void* p = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(p, MAP_FAILED);
    auto* counter = static_cast<volatile int*>(p);
    *counter = 0;

    constexpr int times = 20000;
    pid_t child = StartChild([&] { return CountUnderLock(m, counter, times); });
    EXPECT_EQ(CountUnderLock(m, counter, times), 0);
    EXPECT_EQ(WaitChild(child, 60), 0);
    EXPECT_EQ(*counter, 2 * times);
    munmap(p, sizeof(int));
}

TEST(ZMutexTest, CreateOpensAFinishedObjectOfAnotherCreator) {
    std::string name = UniqueName("existing");
    ZMutexBlock* theirs = MakeForeignObject(name, true);
    ASSERT_NE(theirs, nullptr);

    ZMutex m;
    errno = 0;
    EXPECT_EQ(m.Create(name.c_str(), true), QS_OK);
    EXPECT_EQ(errno, ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(ShmNameExists(name));
    // Opening never takes the mutex, even for an initial owner.
    EXPECT_EQ(theirs->m_Locked, 0);

    EXPECT_EQ(m.Lock(0), QS_OK);
    EXPECT_EQ(theirs->m_Locked, 1);
    EXPECT_EQ(theirs->m_OwnerProcess, getpid());
    munmap(theirs, sizeof(ZMutexBlock));
}

TEST(ZMutexTest, CreateGivesUpOnAnUnfinishedObjectAfterFourSeconds) {
    std::string name = UniqueName("unfinished");
    ZMutexBlock* theirs = MakeForeignObject(name, false);
    ASSERT_NE(theirs, nullptr);

    ZMutex m(true);
    auto start = Clock::now();
    EXPECT_EQ(m.Create(name.c_str(), false), QS_E_MUTEX_CREATE);
    EXPECT_GE(MsSince(start), 3500);
    EXPECT_LT(MsSince(start), 10000);
    EXPECT_EQ(m.Block(), nullptr);
    EXPECT_EQ(m.Lock(0), QS_E_NOT_VALID);
    EXPECT_FALSE(ShmNameExists(name));
    munmap(theirs, sizeof(ZMutexBlock));
}

TEST(ZMutexTest, SameNameCreatedAgainIsASeparateMutex) {
    std::string name = UniqueName("again");
    ZMutex first;
    ASSERT_EQ(first.Create(name.c_str(), true), QS_OK);
    EXPECT_FALSE(ShmNameExists(name));

    EXPECT_EQ(RunInChild([&] {
                  ZMutex second;
                  errno = 0;
                  if (second.Create(name.c_str(), false) != QS_OK)
                      return 1;
                  if (errno == ERROR_ALREADY_EXISTS)
                      return 2;
                  if (second.Lock(0) != QS_OK)
                      return 3;
                  return first.Lock(0) == QS_W_TIMEOUT ? 0 : 4;
              }),
              0);
}

TEST(ZMutexTest, PrivateFormSerialisesThreads) {
    ZMutex m;
    ASSERT_EQ(m.Create(), QS_OK);

    int counter = 0;
    constexpr int times = 20000;
    auto other = std::async(std::launch::async, [&] { return CountUnderLock(m, &counter, times); });
    EXPECT_EQ(CountUnderLock(m, &counter, times), 0);
    EXPECT_EQ(other.get(), 0);
    EXPECT_EQ(counter, 2 * times);

    // A waiter is woken by the release.
    ASSERT_EQ(m.Lock(ZMUTEX_INFINITE), QS_OK);
    auto waiter = std::async(std::launch::async, [&] { return m.Lock(5000); });
    usleep(100000);
    EXPECT_EQ(m.Unlock(), QS_OK);
    EXPECT_EQ(waiter.get(), QS_OK);
    EXPECT_EQ(m.Lock(0), QS_W_TIMEOUT);
}

TEST(ZMutexTest, MutexWithoutBlockRefusesService) {
    ZMutex quiet;
    EXPECT_EQ(quiet.Lock(ZMUTEX_INFINITE), QS_E_NOT_VALID);
    EXPECT_EQ(quiet.Unlock(), QS_E_NOT_VALID);
    // With logging on, a failed release is reported as such.
    ZMutex loud(true);
    EXPECT_EQ(loud.Lock(0), QS_E_NOT_VALID);
    EXPECT_EQ(loud.Unlock(), QS_E_MUTEX_RELEASE);

    ASSERT_EQ(quiet.Create(UniqueName("closed").c_str(), false), QS_OK);
    quiet.Close();
    EXPECT_EQ(quiet.Block(), nullptr);
    EXPECT_EQ(quiet.Lock(0), QS_E_NOT_VALID);
    ASSERT_EQ(quiet.Create(), QS_OK);
    quiet.Close();
    EXPECT_EQ(quiet.Lock(0), QS_E_NOT_VALID);
}

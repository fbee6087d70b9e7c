#include "ZMutex.h"

#include "qsForeignMutex.h"
#include "qsProcState.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <functional>
#include <future>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

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

int64_t Microseconds(const timeval& t) {
    return int64_t(t.tv_sec) * 1000000 + t.tv_usec;
}

// Lock(500) behind an owner that never releases, begun early (first half)
// or late (second half) in a second.  Early, the wait times out after the
// whole 500 ms; late, the deadline's nanoseconds pass 1e9 and the wait is
// refused at once.  The deadline is formed at some moment between the clock
// readings around the call: an answer that fits no such moment fails, and
// one that fits only because a loaded machine delayed the call into the
// other half decides nothing, so the call is made again.
void ExpectDeadlineRule(ZMutex& m, bool late) {
    for (int attempt = 0; attempt < 10; attempt++) {
        WaitForMicroseconds(late ? 600000 : 50000, late ? 800000 : 250000);
        timeval before, after;
        gettimeofday(&before, nullptr);
        qsStatus s = m.Lock(500);
        gettimeofday(&after, nullptr);
        const int64_t begun = Microseconds(before), ended = Microseconds(after);
        const int64_t halfEnds = (begun / 500000 + 1) * 500000;
        if (!late) {
            if (s == QS_W_TIMEOUT) {
                EXPECT_GE(ended - begun, 400000);
                return;
            }
            ASSERT_EQ(s, QS_E_WAIT_FAILED);
            ASSERT_GE(ended, halfEnds) << "refused although begun early in a second";
        } else {
            if (s == QS_E_WAIT_FAILED)
                return;
            ASSERT_EQ(s, QS_W_TIMEOUT);
            ASSERT_GE(ended - 500000, halfEnds) << "waited although begun late in a second";
        }
    }
    FAIL() << "no call stayed within the half second it was begun in";
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

    ExpectDeadlineRule(m, false);
    ExpectDeadlineRule(m, true);
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
    EXPECT_EQ(theirs->m_LockWord, ZMUTEX_FREE);
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
    EXPECT_EQ(offsetof(ZMutexBlock, m_LockWord), 84u);
    EXPECT_EQ(offsetof(ZMutexBlock, m_Count), 88u);
#else
    // Wider POSIX types on a 64-bit build; the order of the fields holds.
    EXPECT_LT(offsetof(ZMutexBlock, m_Mutex), offsetof(ZMutexBlock, m_Cond));
    EXPECT_LT(offsetof(ZMutexBlock, m_Cond), offsetof(ZMutexBlock, m_OwnerThread));
    EXPECT_EQ(offsetof(ZMutexBlock, m_LockWord) + 4, offsetof(ZMutexBlock, m_Count));
#endif
    // The locked byte, first of the lock word, reads 1 while owned, 0 when free.
    ZMutex m;
    ASSERT_EQ(m.Create(), QS_OK);
    auto lockedByte = [&] { return reinterpret_cast<const uint8_t*>(&m.Block()->m_LockWord)[0]; };
    ASSERT_EQ(m.Lock(0), QS_OK);
    EXPECT_EQ(lockedByte(), 1);
    EXPECT_EQ(m.Unlock(), QS_OK);
    EXPECT_EQ(lockedByte(), 0);
}

// A locker killed while asleep waiting for the mutex: the holder's release
// and everybody's later locking go on as if it had never been there.
TEST(ZMutexTest, LockerKilledWhileAsleepHangsNobody) {
    ZMutex m;
    ASSERT_EQ(m.Create(UniqueName("sleeper").c_str(), false), QS_OK);
    ASSERT_EQ(m.Lock(ZMUTEX_INFINITE), QS_OK);
    pid_t sleeper = Fork([&] { return m.Lock(ZMUTEX_INFINITE); });
    ASSERT_TRUE(qsTest::WaitUntil([&] { return qsTest::AsleepIn(sleeper, SYS_futex); }));
    kill(sleeper, SIGKILL);
    EXPECT_EQ(Reap(sleeper), -1);
    EXPECT_EQ(m.Unlock(), QS_OK);
    EXPECT_EQ(Reap(Fork([&] { return m.Lock(ZMUTEX_INFINITE) == QS_OK && m.Unlock() == QS_OK; })),
              1);
    EXPECT_EQ(m.Lock(0), QS_OK);
}

// Many short holds by more lockers than there are cores, and now and then
// one longer than a locker's back-off, so that lockers go to sleep in the
// timed wait and are woken all the time.  No hold comes near the time-out,
// so no Lock() may run its whole time-out: one that does slept through
// releases, a lost wake-up.  Rounds are short because a forgotten sleeper
// shows only at the end of a round, when no later sleeper's wake-up rescues
// it.
TEST(ZMutexTest, NoLockerSleepsThroughAFreeMutex) {
    constexpr int kLockers = 4, kHolds = 40, kMaxRounds = 1500;
    // Whole seconds (a deadline never refused) and far beyond any hold, even
    // on a loaded machine running the sanitizers.
    constexpr DWORD kTimeoutMs = 3000;
    for (bool named : {false, true}) {
        ZMutex m;
        ASSERT_EQ(named ? m.Create(UniqueName("wakeups").c_str(), false) : m.Create(), QS_OK);
        std::atomic<bool> held{false};
        std::atomic<int64_t> waiters{0}, timeouts{0}, failures{0};
        int counter = 0, rounds = 0;
        for (auto end = Clock::now() + std::chrono::seconds(3);
             rounds < kMaxRounds && Clock::now() < end && !timeouts; rounds++) {
            std::vector<std::thread> lockers;
            for (int t = 0; t < kLockers; t++)
                lockers.emplace_back([&] {
                    for (int i = 0; i < kHolds; i++) {
                        waiters += held.load();
                        qsStatus s = m.Lock(kTimeoutMs);
                        if (s != QS_OK) {
                            (s == QS_W_TIMEOUT ? timeouts : failures)++;
                            continue;
                        }
                        held = true;
                        int seen = counter;
                        if (i % 8 == 0)
                            usleep(i % 16 == 0 ? 10000 : 0);
                        counter = seen + 1;
                        held = false;
                        m.Unlock();
                    }
                });
            for (std::thread& t : lockers)
                t.join();
        }
        EXPECT_EQ(timeouts, 0) << "named " << named << ", round " << rounds;
        EXPECT_EQ(failures, 0);
        EXPECT_EQ(counter, rounds * kLockers * kHolds - timeouts);
        EXPECT_GT(waiters, rounds) << "too little contention to tell";
    }
}

namespace {

// A thread of this process that owns a mutex and, when told, releases it
// and takes it again at once, or releases it for good.
class Holder {
public:
    explicit Holder(ZMutex& m) : m_Mutex(m), m_Thread([this] { Run(); }) { Await(kIdle); }
    ~Holder() {
        m_Order = kQuit;
        m_Order.notify_all();
        m_Thread.join();
    }
    void ReleaseAndRetake() { Order(kRetake); }
    void Release() { Order(kRelease); }

private:
    enum { kStarting, kIdle, kRetake, kRelease, kQuit };
    void Order(int what) {
        m_Order = what;
        m_Order.notify_all();
        Await(kIdle);
    }
    void Await(int what) {
        for (int now = m_Order; now != what; now = m_Order)
            m_Order.wait(now);
    }
    void Run() {
        EXPECT_EQ(m_Mutex.Lock(ZMUTEX_INFINITE), QS_OK);
        for (int now = kStarting; now != kQuit;) {
            if (now == kRetake || now == kRelease) {
                EXPECT_EQ(m_Mutex.Unlock(), QS_OK);
                if (now == kRetake) {
                    EXPECT_EQ(m_Mutex.Lock(ZMUTEX_INFINITE), QS_OK);
                }
            }
            if (now != kIdle) {
                m_Order = kIdle;
                m_Order.notify_all();
            }
            m_Order.wait(kIdle);
            now = m_Order;
        }
    }

    ZMutex& m_Mutex;
    std::atomic<int> m_Order{kStarting};
    std::thread m_Thread;
};

enum class Stepped { Wrote, Asleep, Exited };

// Single-steps a traced child until it has changed the bytes of `block`
// (`seen` holds them as they were), has gone to sleep in the kernel, or has
// ended.  Signals other than the step's own trap are passed on.
Stepped StepUntilWrite(pid_t child, const ZMutexBlock* block, std::vector<uint8_t>& seen) {
    int signal = 0;
    for (;;) {
        if (ptrace(PTRACE_SINGLESTEP, child, nullptr, reinterpret_cast<void*>(intptr_t(signal))))
            return Stepped::Exited;
        int status = 0;
        pid_t got = 0;
        while ((got = waitpid(child, &status, WNOHANG)) == 0) {
            if (qsTest::AsleepIn(child, SYS_futex))
                return Stepped::Asleep;
            usleep(50);
        }
        if (got != child || !WIFSTOPPED(status))
            return Stepped::Exited;
        signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
        auto* bytes = reinterpret_cast<const uint8_t*>(block);
        if (!std::equal(seen.begin(), seen.end(), bytes)) {
            seen.assign(bytes, bytes + seen.size());
            return Stepped::Wrote;
        }
    }
}

} // namespace

// The worst moments of the wait/wake protocol, forced rather than hoped
// for: a forked locker is single-stepped, and right after its n-th change
// to the mutex block (for n = 1, 2, ... until it reaches its sleep) the
// owner releases the mutex and takes it back.  Whatever the locker wrote
// must make the owner's next release wake it: the owner releases once the
// locker sleeps, and the locker must then get the mutex and end.  (It waits
// without a limit: a timed wait reads the clock, and a clock read stepped
// one instruction at a time never completes.)
TEST(ZMutexTest, ARaceAtAnyStepOfALockerLosesNoWakeUp) {
    bool reachedSleep = false;
    for (int n = 1; n <= 16 && !reachedSleep; n++) {
        ZMutex m;
        ASSERT_EQ(m.Create(UniqueName("stepped").c_str(), false), QS_OK);
        Holder holder(m);
        pid_t child = fork();
        if (child == 0) {
            alarm(120);
            if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
                _exit(3);
            raise(SIGSTOP);
            _exit(m.Lock(ZMUTEX_INFINITE) == QS_OK && m.Unlock() == QS_OK ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 3)
            GTEST_SKIP() << "this machine does not allow tracing a child";
        ASSERT_TRUE(WIFSTOPPED(status));

        auto* bytes = reinterpret_cast<const uint8_t*>(m.Block());
        std::vector<uint8_t> seen(bytes, bytes + sizeof(ZMutexBlock));
        Stepped how = Stepped::Wrote;
        for (int writes = 0; writes < n && how == Stepped::Wrote; writes++)
            how = StepUntilWrite(child, m.Block(), seen);
        ASSERT_NE(how, Stepped::Exited) << "write " << n;
        if (how == Stepped::Wrote) {
            holder.ReleaseAndRetake();
            ASSERT_EQ(ptrace(PTRACE_DETACH, child, nullptr, nullptr), 0);
        }
        reachedSleep = how == Stepped::Asleep;
        ASSERT_TRUE(qsTest::WaitUntil([&] { return qsTest::AsleepIn(child, SYS_futex); }))
            << "write " << n;
        holder.Release();
        if (reachedSleep) {
            // The step over the system call completes once it is woken.
            ASSERT_EQ(waitpid(child, &status, 0), child);
            ASSERT_EQ(ptrace(PTRACE_DETACH, child, nullptr, nullptr), 0);
        }
        bool ended = qsTest::WaitUntil([&] { return qsTest::ProcessState(child) == 'Z'; });
        if (!ended)
            kill(child, SIGKILL);
        EXPECT_TRUE(ended) << "the locker slept through the release after write " << n;
        EXPECT_EQ(Reap(child), ended ? 0 : -1);
    }
    EXPECT_TRUE(reachedSleep);
}

// The same from the other side: the owner, a forked child, is single-stepped
// through its release, and after its k-th instruction (k = 0, 1, ... until
// it has released and exited) a locker comes and either takes the mutex or
// goes to sleep on it.  Whatever the owner had already read of the lock word
// when the locker marked it, the rest of its release must wake the locker.
// The locker's wait is limited only so that a lost wake-up fails the test
// rather than hanging it: whole seconds, so the deadline is never refused.
TEST(ZMutexTest, ARaceAtAnyStepOfAReleaseLosesNoWakeUp) {
    bool released = false;
    for (int k = 0; k < 4000 && !released; k++) {
        ZMutex m;
        ASSERT_EQ(m.Create(UniqueName("release").c_str(), false), QS_OK);
        pid_t owner = fork();
        if (owner == 0) {
            alarm(120);
            if (m.Lock(ZMUTEX_INFINITE) != QS_OK || ptrace(PTRACE_TRACEME, 0, nullptr, nullptr))
                _exit(3);
            // Raw calls, already bound: the steps begin a few instructions
            // before Unlock and end right after it, not in the dynamic linker.
            syscall(SYS_kill, getpid(), SIGSTOP);
            syscall(SYS_exit_group, m.Unlock() == QS_OK ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(owner, &status, 0), owner);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 3)
            GTEST_SKIP() << "this machine does not allow tracing a child";
        ASSERT_TRUE(WIFSTOPPED(status));
        for (int step = 0; step < k && !released; step++) {
            ASSERT_EQ(ptrace(PTRACE_SINGLESTEP, owner, nullptr, nullptr), 0);
            ASSERT_EQ(waitpid(owner, &status, 0), owner);
            released = !WIFSTOPPED(status);
        }
        if (released) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
            break;
        }

        std::atomic<pid_t> tid{0};
        std::atomic<bool> done{false};
        qsStatus got = QS_OK;
        std::thread locker([&] {
            tid = pid_t(syscall(SYS_gettid));
            got = m.Lock(30000);
            if (got == QS_OK)
                m.Unlock();
            done = true;
        });
        EXPECT_TRUE(
            qsTest::WaitUntil([&] { return done || (tid && qsTest::AsleepIn(tid, SYS_futex)); }));
        EXPECT_EQ(ptrace(PTRACE_DETACH, owner, nullptr, nullptr), 0);
        EXPECT_EQ(Reap(owner), 0) << "step " << k;
        locker.join();
        ASSERT_EQ(got, QS_OK) << "the locker slept through the release after step " << k;
    }
    EXPECT_TRUE(released);
}

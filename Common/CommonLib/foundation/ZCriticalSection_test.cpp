#include "ZCriticalSection.h"

#include "qsProcState.h"

#include <atomic>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <sys/syscall.h>
#include <thread>

// Compiles only while the constructor is constexpr: a global lock is ready
// before any dynamic initialiser runs.
constinit ZCriticalSection g_EarlyLock;

static std::string ThrownText(void (ZCriticalSection::*op)(), ZCriticalSection& cs) {
    try {
        (cs.*op)();
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "no exception";
}

// Unlocking a lock that nobody holds fails; the probe has no other effect then.
static bool IsFree(ZCriticalSection& cs) {
    return ThrownText(&ZCriticalSection::Unlock, cs) == "ZCriticalSection::Unlock: failed %d.";
}

TEST(ZCriticalSection, RecursiveOwnerExcludesOtherThreads) {
    ZCriticalSection& cs = g_EarlyLock;
    cs.Lock();
    cs.Lock();
    std::atomic<bool> entered{false};
    std::atomic<pid_t> tid{0};
    std::thread other([&] {
        tid = pid_t(syscall(SYS_gettid));
        ZCriticalSection::Holder hold(cs);
        entered = true;
    });
    cs.Unlock();
    // Still taken once: the other thread sleeps on it.
    ASSERT_TRUE(qsTest::WaitUntil([&] { return tid && qsTest::AsleepIn(tid, SYS_futex); }));
    EXPECT_FALSE(entered);
    cs.Unlock();
    other.join();
    EXPECT_TRUE(entered && IsFree(cs));
}

// A holder's failed unlock must not replace an exception in flight (that
// would end the process); on a normal exit it is thrown.
TEST(ZCriticalSection, BrokenUseThrowsLogicError) {
    ZCriticalSection cs;
    cs.Lock();
    std::thread([&] { EXPECT_TRUE(IsFree(cs)); }).join(); // not the owner: refused
    cs.Unlock();
    auto unlockTwice = [&](bool raise) {
        ZCriticalSection::Holder hold(cs);
        cs.Unlock();
        if (raise)
            throw std::runtime_error("unwinding");
    };
    EXPECT_THROW(unlockTwice(true), std::runtime_error);
    EXPECT_THROW(unlockTwice(false), std::logic_error);

    alignas(ZCriticalSection) unsigned char storage[sizeof(ZCriticalSection)];
    ZCriticalSection* gone = new (storage) ZCriticalSection;
    gone->~ZCriticalSection();
    EXPECT_FALSE(gone->IsValid());
    EXPECT_EQ(ThrownText(&ZCriticalSection::Lock, *gone), "ZCriticalSection::Lock: invalid");
    EXPECT_EQ(ThrownText(&ZCriticalSection::Unlock, *gone), "ZCriticalSection::Unlock: invalid");
}

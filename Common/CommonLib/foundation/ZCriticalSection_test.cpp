#include "ZCriticalSection.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

// Compiles only while the constructor is constexpr: the lock is ready before
// any dynamic initialiser, such as the one below.
constinit ZCriticalSection g_EarlyLock;

const bool g_UsableAtStart = [] {
    ZCriticalSection::Holder hold(g_EarlyLock);
    ZCriticalSection::Holder again(g_EarlyLock);
    return true;
}();

std::string ThrownText(void (ZCriticalSection::*op)(), ZCriticalSection& cs) {
    try {
        (cs.*op)();
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "no exception";
}

// Unlocking a lock that nobody holds fails; the probe has no other effect then.
bool IsFree(ZCriticalSection& cs) {
    return ThrownText(&ZCriticalSection::Unlock, cs) == "ZCriticalSection::Unlock: failed %d.";
}

TEST(ZCriticalSection, RecursiveOwnerExcludesOtherThreads) {
    EXPECT_TRUE(g_UsableAtStart && IsFree(g_EarlyLock));

    ZCriticalSection cs;
    cs.Lock();
    cs.Lock();
    std::atomic<bool> entered{false};
    std::thread other([&] {
        ZCriticalSection::Holder hold(cs);
        entered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    cs.Unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);
    cs.Unlock();
    other.join();
    EXPECT_TRUE(entered && IsFree(cs));
}

TEST(ZCriticalSection, BrokenUseThrowsLogicError) {
    ZCriticalSection cs;
    errno = 0;
    EXPECT_TRUE(IsFree(cs));
    EXPECT_EQ(errno, EPERM);
    cs.Lock();
    std::string fromOther;
    std::thread([&] { fromOther = ThrownText(&ZCriticalSection::Unlock, cs); }).join();
    EXPECT_EQ(fromOther, "ZCriticalSection::Unlock: failed %d.");
    cs.Unlock();

    alignas(ZCriticalSection) unsigned char storage[sizeof(ZCriticalSection)];
    ZCriticalSection* gone = new (storage) ZCriticalSection;
    gone->~ZCriticalSection();
    EXPECT_FALSE(gone->IsValid());
    EXPECT_EQ(ThrownText(&ZCriticalSection::Lock, *gone), "ZCriticalSection::Lock: invalid");
    EXPECT_EQ(ThrownText(&ZCriticalSection::Unlock, *gone), "ZCriticalSection::Unlock: invalid");
}

TEST(ZCriticalSection, HolderReleasesOnEveryExit) {
    ZCriticalSection cs;
    auto unwind = [&](bool breakIt) {
        ZCriticalSection::Holder hold(cs);
        if (breakIt)
            cs.Unlock();
        throw std::runtime_error("unwinding");
    };
    EXPECT_THROW(unwind(false), std::runtime_error);
    EXPECT_TRUE(IsFree(cs));
    // The holder's failed unlock must not replace the exception in flight
    // (which would end the process); on a normal exit it is reported.
    EXPECT_THROW(unwind(true), std::runtime_error);
    EXPECT_THROW(
        {
            ZCriticalSection::Holder hold(cs);
            cs.Unlock();
        },
        std::logic_error);
}

} // namespace

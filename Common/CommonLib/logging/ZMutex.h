// A recursive mutex whose whole state is one small block, either private to
// the process or placed in shared memory so that processes related by
// fork() serialise on it.
//
// Deliberate properties that callers rely on:
//  - One Unlock() by the owner frees the mutex however often it was locked.
//  - A named block is unlinked right after Create(): only processes that
//    already hold the mapping (in practice children forked later) share it;
//    a later Create() of the same name makes a separate mutex.
//  - The timed wait's deadline does not carry microseconds into seconds, so
//    a wait started in the second half of a second can fail at once with
//    0xE0FF0102.  A contended Lock() first backs off for a few milliseconds
//    at most (a short spin, then naps); only a mutex still held after that
//    is waited for.
//  - A process that dies holding the mutex leaves it locked for ever.
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

#include <bit>
#include <pthread.h>
#include <string>

constexpr uint32_t ZMUTEX_MARK_INITIALISED = 0xA449534E;
constexpr uint32_t ZMUTEX_MARK_UNINITIALISED = 0x6D68A59A;
constexpr DWORD ZMUTEX_INFINITE = 0xFFFFFFFF;

// The whole content of the shared-memory object.  92 bytes on the 32-bit
// platform (mutex at 4, condition at 28, lock word at 84); the POSIX types
// are larger on a 64-bit build, which keeps the field order.
struct ZMutexBlock {
    uint32_t m_Mark;
    // Initialised with the block (the mark says so) but no longer waited on:
    // the lock word below carries the whole protocol.
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Cond;
    pthread_t m_OwnerThread; // (pthread_t)-1 when free
    int32_t m_OwnerProcess;  // -1 when free
    // The futex word.  Its first byte is the locked flag, 1 while owned and
    // 0 when free; its second byte is set while lockers may be asleep on it.
    // The other two stay 0.
    uint32_t m_LockWord;
    int32_t m_Count; // acquisitions by the owner since it took the mutex
};

// Values of the lock word, whose bytes in memory are: locked flag, sleepers
// flag, 0, 0.
constexpr uint32_t ZMutexLockWord(uint8_t locked, uint8_t sleepers) {
    return std::endian::native == std::endian::little
               ? uint32_t(locked) | uint32_t(sleepers) << 8
               : uint32_t(locked) << 24 | uint32_t(sleepers) << 16;
}
constexpr uint32_t ZMUTEX_FREE = ZMutexLockWord(0, 0);
constexpr uint32_t ZMUTEX_LOCKED = ZMutexLockWord(1, 0);
constexpr uint32_t ZMUTEX_CONTENDED = ZMutexLockWord(1, 1); // locked, sleepers maybe

class ZMutex {
public:
    // Failures are logged only when logErrors is set.  A log stream's own
    // mutex keeps it off: its failures would be reported through itself.
    explicit ZMutex(bool logErrors = false);
    virtual ~ZMutex();
    ZMutex(const ZMutex&) = delete;
    ZMutex& operator=(const ZMutex&) = delete;

    // Named, process-shared form.  Returns 0 and sets errno to 183 after
    // opening an object that already existed.
    qsStatus Create(const char* name, bool initialOwner);
    // Process-private form on the embedded block.
    qsStatus Create();
    // Waits at most timeoutMs (ZMUTEX_INFINITE: no limit).  0, 0xA0FFFF02 on
    // time-out, 0xE0FF0102 when waiting failed, 0xE0FF0103 when not created.
    qsStatus Lock(DWORD timeoutMs);
    qsStatus Unlock();
    void Close();

    bool LogErrors() const { return m_bLogErrors; }
    void SetLogErrors(bool on) { m_bLogErrors = on; }
    // The block in use (shared mapping or embedded), or null; for diagnosis.
    const ZMutexBlock* Block() const { return m_pBlock; }

private:
    void Detach();
    __attribute__((noinline)) qsStatus LockHeld(ZMutexBlock* block, DWORD timeoutMs);
    qsStatus LockSlowly(ZMutexBlock* block, DWORD timeoutMs);
    qsStatus LogLockFailure(qsStatus result);

    bool m_bLogErrors;
    ZMutexBlock* m_pBlock;
    int m_hShm;
    ZMutexBlock m_Local;
    pthread_mutexattr_t m_MutexAttr;
    std::string m_Name;
};

// ZMutex: a recursive mutex whose state lives in a ZMutexBlock, either the
// embedded one (process-private) or a shared-memory object (shared with the
// processes forked after Create()).
//
// Every process that maps a shared block reads the same bytes, so the
// layout is pinned on the 32-bit platform the library runs on.
#include "ZMutex.h"

#include "qsLog.h"
#include "qsWinApi.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls all use it.
#pragma GCC diagnostic ignored "-Wformat"

#if defined(__i386__)
static_assert(sizeof(ZMutexBlock) == 92, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_Mutex) == 4, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_Cond) == 28, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_OwnerThread) == 76, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_OwnerProcess) == 80, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_LockWord) == 84, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_Count) == 88, "mutex block layout");
#endif

namespace {

// An opener tests the creator's mark this many times, one second apart.
constexpr int CREATOR_WAIT_TESTS = 4;
// Before its timed wait a contended locker looks at the lock word once after
// SPIN_PAUSES pauses (a few microseconds), then once after each of up to
// BACKOFF_NAPS naps of BACKOFF_NAP_NS (a few milliseconds in all, never more
// than the caller's time limit).  A holder keeps the mutex for one record,
// or for the page fault of a first write to a page, so the locker nearly
// always gets it during the back-off, and the timed wait, whose deadline is
// refused in the second half of a second, is left to a mutex held for long.
// The naps, not a longer spin: handing the mutex over costs far more than
// holding it (the lock's and the log's cache lines move with it), so two
// writers that took turns at every record would together write fewer than
// one alone.  Left alone for a nap, a holder that appends again soon takes
// the mutex again with all of them still its own, and a napping locker
// leaves its core, and the hardware it may share with the holder's, to the
// holder.
constexpr int SPIN_PAUSES = 256;
constexpr int BACKOFF_NAPS = 40;
constexpr long BACKOFF_NAP_NS = 50000;

const pthread_t NO_THREAD = pthread_t(-1);

void ResetBlock(ZMutexBlock* block) {
    block->m_Mark = ZMUTEX_MARK_UNINITIALISED;
    block->m_LockWord = ZMUTEX_FREE;
    block->m_OwnerThread = NO_THREAD;
    block->m_OwnerProcess = -1;
    block->m_Count = 0;
}

// The mark is how another process learns that the block is ready, so it is
// published and read with release/acquire ordering.
void SetMark(ZMutexBlock* block, uint32_t mark) {
    __atomic_store_n(&block->m_Mark, mark, __ATOMIC_RELEASE);
}

bool IsInitialised(const ZMutexBlock* block) {
    return block && __atomic_load_n(&block->m_Mark, __ATOMIC_ACQUIRE) == ZMUTEX_MARK_INITIALISED;
}

uint32_t LoadWord(const ZMutexBlock* block) {
    return __atomic_load_n(&block->m_LockWord, __ATOMIC_RELAXED);
}

// The owner fields are read by lockers testing for recursion while the
// owner may be clearing them, so they are accessed atomically.  Only the
// owner itself can find its own identity there.
void SetOwner(ZMutexBlock* block, pthread_t thread, int32_t pid) {
    __atomic_store_n(&block->m_OwnerThread, thread, __ATOMIC_RELAXED);
    __atomic_store_n(&block->m_OwnerProcess, pid, __ATOMIC_RELAXED);
}

bool IsOwner(const ZMutexBlock* block, pthread_t self, int32_t pid) {
    return pthread_equal(__atomic_load_n(&block->m_OwnerThread, __ATOMIC_RELAXED), self) &&
           __atomic_load_n(&block->m_OwnerProcess, __ATOMIC_RELAXED) == pid;
}

// The caller has just taken the lock word.  The process id is part of the
// owner: a child forked by the owning thread has the same pthread_self().
void BecomeOwner(ZMutexBlock* block) {
    block->m_Count++;
    SetOwner(block, pthread_self(), int32_t(GetCurrentProcessId()));
}

bool TryTake(ZMutexBlock* block) {
    uint32_t expected = ZMUTEX_FREE;
    return __atomic_compare_exchange_n(&block->m_LockWord, &expected, ZMUTEX_LOCKED, false,
                                       __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

void Pause() {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}

ZMutexBlock* MapBlock(int fd) {
    void* p = mmap(nullptr, sizeof(ZMutexBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return p == MAP_FAILED ? nullptr : static_cast<ZMutexBlock*>(p);
}

// Initialises the primitives of a block with the given sharing and sets the
// mark; returns the failing call's error number, or 0.  A failure leaves the
// mark unset, so the block refuses every Lock().
int InitPrimitives(ZMutexBlock* block, pthread_mutexattr_t* mutexAttr, int sharing) {
    int rc = pthread_mutexattr_init(mutexAttr);
    if (rc)
        return rc;
    rc = pthread_mutexattr_setpshared(mutexAttr, sharing);
    if (!rc)
        rc = pthread_mutex_init(&block->m_Mutex, mutexAttr);
    pthread_mutexattr_destroy(mutexAttr);
    if (rc)
        return rc;
    memset(&block->m_Cond, 0, sizeof block->m_Cond);
    SetMark(block, ZMUTEX_MARK_INITIALISED);
    return 0;
}

// Sleeps while the lock word still reads `expected`, until a wake-up, a
// signal, or the absolute real-time `deadline` (null: no limit).  0 for a
// wake-up of any kind (the caller looks at the word again), ETIMEDOUT, or
// the error of a wait that could not be made.
int WaitOnWord(ZMutexBlock* block, uint32_t expected, const timespec* deadline, bool shared) {
    int op = FUTEX_WAIT_BITSET | FUTEX_CLOCK_REALTIME | (shared ? 0 : FUTEX_PRIVATE_FLAG);
    if (syscall(SYS_futex, &block->m_LockWord, op, expected, deadline, nullptr,
                FUTEX_BITSET_MATCH_ANY) == 0)
        return 0;
    return errno == EAGAIN || errno == EINTR ? 0 : errno;
}

void WakeOne(ZMutexBlock* block, bool shared) {
    int op = FUTEX_WAKE | (shared ? 0 : FUTEX_PRIVATE_FLAG);
    syscall(SYS_futex, &block->m_LockWord, op, 1, nullptr, nullptr, 0);
}

// The deadline of a timed wait, as the mutex has always formed it: the
// microseconds of the time of day plus the milliseconds of the limit, made
// nanoseconds, without carrying into the seconds.  A wait begun late in a
// second gets a nanosecond part of 1e9 or more, which is refused (EINVAL,
// 0xE0FF0102) before waiting at all.  Callers live with that; it must not be
// corrected here.
timespec Deadline(DWORD timeoutMs) {
    timeval now;
    gettimeofday(&now, nullptr);
    timespec deadline;
    deadline.tv_sec = now.tv_sec + timeoutMs / 1000;
    deadline.tv_nsec = (now.tv_usec + long(timeoutMs % 1000) * 1000) * 1000;
    return deadline;
}

} // namespace

ZMutex::ZMutex(bool logErrors) : m_bLogErrors(logErrors), m_pBlock(nullptr), m_hShm(-1) {
    ResetBlock(&m_Local);
}

ZMutex::~ZMutex() {
    Close();
}

void ZMutex::Detach() {
    if (m_pBlock && m_pBlock != &m_Local)
        munmap(m_pBlock, sizeof(ZMutexBlock));
    if (IsInitialised(&m_Local))
        pthread_mutex_destroy(&m_Local.m_Mutex);
    ResetBlock(&m_Local);
    m_pBlock = nullptr;
}

void ZMutex::Close() {
    Detach();
    m_Name.clear();
}

qsStatus ZMutex::Create(const char* name, bool initialOwner) {
    Detach();
    m_Name.assign(1, '/');
    if (name)
        m_Name.append(name);

    qsStatus result = QS_OK;
    bool opened = false;
    m_hShm = shm_open(m_Name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    if (m_hShm >= 0) {
        // A creator that fails half-way says nothing: the block stays
        // unmarked and every later Lock() reports it as not valid.
        if (ftruncate(m_hShm, sizeof(ZMutexBlock)) == 0)
            m_pBlock = MapBlock(m_hShm);
        if (m_pBlock) {
            ResetBlock(m_pBlock);
            if (InitPrimitives(m_pBlock, &m_MutexAttr, PTHREAD_PROCESS_SHARED))
                Detach();
        }
    } else {
        m_hShm = shm_open(m_Name.c_str(), O_RDWR, 0666);
        if (m_hShm < 0) {
            result = QS_E_MUTEX_CREATE;
        } else {
            opened = true;
            m_pBlock = MapBlock(m_hShm);
            // The creator may still be initialising: four tests, each
            // followed by a second's sleep when it fails.
            bool ready = false;
            for (int test = 0; m_pBlock && test < CREATOR_WAIT_TESTS && !ready; test++) {
                ready = IsInitialised(m_pBlock);
                if (!ready)
                    sleep(1);
            }
            if (!ready) {
                Detach();
                result = QS_E_MUTEX_CREATE;
            }
        }
    }

    // The name only serves the moment of creation: the block is shared by the
    // processes that map it now and by their later children, and the next
    // Create() of this name makes a separate mutex.
    if (m_hShm >= 0) {
        int saved = errno;
        shm_unlink(m_Name.c_str());
        close(m_hShm);
        m_hShm = -1;
        errno = saved;
    }

    if (result == QS_OK) {
        if (opened) {
            errno = ERROR_ALREADY_EXISTS;
            return QS_OK;
        }
        if (!initialOwner)
            return QS_OK;
        result = Lock(ZMUTEX_INFINITE);
        if (result == QS_OK)
            return QS_OK;
    }
    if (m_bLogErrors) {
        qsLogPrintfA(static_cast<LONG>(QS_E_MUTEX_CREATE), qsLogSevSysCall,
                     "%hs: error %d creating mutex (name='%hs')", "ZMutex::Create(ASCII)", errno,
                     name ? name : "");
        result = QS_E_MUTEX_CREATE;
    }
    return result;
}

qsStatus ZMutex::Create() {
    Detach();
    m_Name.clear();
    m_pBlock = &m_Local;
    int rc = InitPrimitives(&m_Local, &m_MutexAttr, PTHREAD_PROCESS_PRIVATE);
    if (rc == 0)
        return QS_OK;
    errno = rc;
    if (m_bLogErrors)
        qsLogPrintfA(static_cast<LONG>(QS_E_MUTEX_CREATE), qsLogSevSysCall,
                     "%hs: error %d creating mutex", "ZMutex::Create(no name)", errno);
    return QS_E_MUTEX_CREATE;
}

// The lock word is a three-state futex word: free, locked, and locked with
// lockers that may be asleep.  Taking it is one compare-and-swap from free;
// a locker that has to sleep first marks the word contended, and a release
// that finds that mark wakes one sleeper.  Every sleeper goes to sleep only
// while the word still carries the mark (the kernel compares before it
// queues), and every woken locker marks the word again before it looks, so
// a release can never pass a sleeper by: the wake-up cannot be lost.
qsStatus ZMutex::Lock(DWORD timeoutMs) {
    ZMutexBlock* block = m_pBlock;
    if (!IsInitialised(block))
        return LogLockFailure(QS_E_NOT_VALID);
    if (TryTake(block)) {
        BecomeOwner(block);
        return QS_OK;
    }
    return LockHeld(block, timeoutMs);
}

// Out of line, so that the uncontended Lock() stays a few instructions.
qsStatus ZMutex::LockHeld(ZMutexBlock* block, DWORD timeoutMs) {
    // The cached process id keeps this test free of system calls.
    if (IsOwner(block, pthread_self(), int32_t(GetCurrentProcessId()))) {
        block->m_Count++;
        return QS_OK;
    }
    for (int i = 0; i < SPIN_PAUSES; i++)
        Pause();
    const int64_t naps =
        timeoutMs == ZMUTEX_INFINITE
            ? BACKOFF_NAPS
            : std::min<int64_t>(BACKOFF_NAPS, int64_t(timeoutMs) * 1000000 / BACKOFF_NAP_NS);
    for (int64_t nap = 0;; nap++) {
        if (LoadWord(block) == ZMUTEX_FREE && TryTake(block)) {
            BecomeOwner(block);
            return QS_OK;
        }
        if (nap == naps)
            break;
        timespec pause{0, BACKOFF_NAP_NS};
        nanosleep(&pause, nullptr);
    }
    return LockSlowly(block, timeoutMs);
}

// A locker that takes the word here leaves it marked contended even when
// nobody else sleeps: its release then makes one needless wake-up call,
// which is what keeps the protocol simple and safe.
qsStatus ZMutex::LockSlowly(ZMutexBlock* block, DWORD timeoutMs) {
    const bool shared = block != &m_Local;
    const bool timed = timeoutMs != ZMUTEX_INFINITE;
    bool haveDeadline = false;
    timespec deadline{};
    for (;;) {
        if (__atomic_exchange_n(&block->m_LockWord, ZMUTEX_CONTENDED, __ATOMIC_ACQUIRE) ==
            ZMUTEX_FREE) {
            BecomeOwner(block);
            return QS_OK;
        }
        // The deadline is taken when a wait actually begins: no clock read
        // unless the mutex is held by another.
        if (timed && !haveDeadline) {
            deadline = Deadline(timeoutMs);
            haveDeadline = true;
        }
        if (haveDeadline && (deadline.tv_nsec < 0 || deadline.tv_nsec >= 1000000000)) {
            errno = EINVAL;
            return LogLockFailure(QS_E_WAIT_FAILED);
        }
        int waited =
            WaitOnWord(block, ZMUTEX_CONTENDED, haveDeadline ? &deadline : nullptr, shared);
        if (waited == ETIMEDOUT)
            return QS_W_TIMEOUT;
        if (waited) {
            errno = waited;
            return LogLockFailure(QS_E_WAIT_FAILED);
        }
    }
}

// Off for a log stream's own mutex (see the constructor), which would
// otherwise report through the stream it is failing to lock.
qsStatus ZMutex::LogLockFailure(qsStatus result) {
    if (m_bLogErrors && result != QS_W_TIMEOUT)
        qsLogPrintfA(static_cast<LONG>(result), qsLogSevSysCall, "%hs: error %d waiting on mutex",
                     "ZMutex::Lock", errno);
    return result;
}

// Only the owner changes the owner fields and the count, so releasing needs
// no more than one exchange of the lock word, and a system call only when a
// locker marked the word on its way to sleep.
qsStatus ZMutex::Unlock() {
    ZMutexBlock* block = m_pBlock;
    if (!IsInitialised(block)) {
        if (m_bLogErrors) {
            qsLogPrintfA(static_cast<LONG>(QS_E_MUTEX_RELEASE), qsLogSevSysCall,
                         "%hs: error %d releasing mutex", "ZMutex::Unlock", errno);
            return QS_E_MUTEX_RELEASE;
        }
        return QS_E_NOT_VALID;
    }
    if (!IsOwner(block, pthread_self(), int32_t(GetCurrentProcessId())))
        return QS_OK;
    // One release by the owner frees the mutex whatever the count: recursive
    // acquisitions are counted, not unwound.
    int32_t count = block->m_Count - 1;
    if (count < 0) {
        block->m_Count = count;
        return QS_OK;
    }
    SetOwner(block, NO_THREAD, -1);
    block->m_Count = 0;
    if (__atomic_exchange_n(&block->m_LockWord, ZMUTEX_FREE, __ATOMIC_RELEASE) == ZMUTEX_CONTENDED)
        WakeOne(block, block != &m_Local);
    return QS_OK;
}

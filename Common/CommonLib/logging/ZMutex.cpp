// ZMutex: a recursive mutex whose state lives in a ZMutexBlock, either the
// embedded one (process-private) or a shared-memory object (shared with the
// processes forked after Create()).
//
// Every process that maps a shared block reads the same bytes, so the
// layout is pinned on the 32-bit platform the library runs on.
#include "ZMutex.h"

#include "qsLog.h"
#include "qsWinApi.h"

#include <cerrno>
#include <cstddef>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#if defined(__i386__)
static_assert(sizeof(ZMutexBlock) == 92, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_Mutex) == 4, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_Cond) == 28, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_OwnerThread) == 76, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_OwnerProcess) == 80, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_Locked) == 84, "mutex block layout");
static_assert(offsetof(ZMutexBlock, m_Count) == 88, "mutex block layout");
#endif

namespace {

// An opener tests the creator's mark this many times, one second apart.
constexpr int CREATOR_WAIT_TESTS = 4;
// Tests of the locked flag before a contended locker goes to sleep.
constexpr int SPIN_TESTS = 256;

const pthread_t NO_THREAD = pthread_t(-1);

void ResetBlock(ZMutexBlock* block) {
    block->m_Mark = ZMUTEX_MARK_UNINITIALISED;
    block->m_Locked = 0;
    block->m_OwnerThread = NO_THREAD;
    block->m_OwnerProcess = -1;
    block->m_Count = 0;
}

// The mark is how another process learns that the primitives before it are
// ready, so it is published and read with release/acquire ordering.
void SetMark(ZMutexBlock* block, uint32_t mark) {
    __atomic_store_n(&block->m_Mark, mark, __ATOMIC_RELEASE);
}

bool IsInitialised(const ZMutexBlock* block) {
    return block && __atomic_load_n(&block->m_Mark, __ATOMIC_ACQUIRE) == ZMUTEX_MARK_INITIALISED;
}

// The locked flag is the lock word: taken by compare-and-swap, read by
// spinning lockers, released by the owner.  The owner fields are read by
// lockers testing for recursion while the owner may be clearing them, so
// they too are accessed atomically.
bool IsLocked(const ZMutexBlock* block) {
    return __atomic_load_n(&block->m_Locked, __ATOMIC_RELAXED) != 0;
}

void SetOwner(ZMutexBlock* block, pthread_t thread, int32_t pid) {
    __atomic_store_n(&block->m_OwnerThread, thread, __ATOMIC_RELAXED);
    __atomic_store_n(&block->m_OwnerProcess, pid, __ATOMIC_RELAXED);
}

bool IsOwner(const ZMutexBlock* block, pthread_t self, int32_t pid) {
    return pthread_equal(__atomic_load_n(&block->m_OwnerThread, __ATOMIC_RELAXED), self) &&
           __atomic_load_n(&block->m_OwnerProcess, __ATOMIC_RELAXED) == pid;
}

// Takes the mutex when it is free, or counts one more acquisition when the
// caller already owns it.
bool TryAcquire(ZMutexBlock* block, pthread_t self, int32_t pid) {
    uint8_t expected = 0;
    if (__atomic_compare_exchange_n(&block->m_Locked, &expected, uint8_t(1), false,
                                    __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
        block->m_Count++;
        SetOwner(block, self, pid);
        return true;
    }
    if (!IsOwner(block, self, pid))
        return false;
    block->m_Count++;
    return true;
}

// Takes the guard; one whose last holder died is made consistent and taken
// over as it stands.
int LockGuard(ZMutexBlock* block) {
    int rc = pthread_mutex_lock(&block->m_Mutex);
    return rc == EOWNERDEAD ? pthread_mutex_consistent(&block->m_Mutex) : rc;
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

// The condition's two words.  A process-shared pthread condition is left
// broken by a waiter killed in its wait (the next signaller then blocks for
// ever inside pthread_cond_signal); these words keep no per-waiter state, so
// a killed sleeper costs at most one needless wake-up.
uint32_t* ReleaseSeq(ZMutexBlock* block) { return reinterpret_cast<uint32_t*>(&block->m_Cond); }
uint32_t* SleeperFlag(ZMutexBlock* block) { return ReleaseSeq(block) + 1; }

// Initialises the primitives of a block with the given sharing and sets the
// mark; returns the failing call's error number, or 0.  A failure leaves the
// mark unset, so the block refuses every Lock().
int InitPrimitives(ZMutexBlock* block, pthread_mutexattr_t* mutexAttr, int sharing) {
    int rc = pthread_mutexattr_init(mutexAttr);
    if (rc)
        return rc;
    rc = pthread_mutexattr_setpshared(mutexAttr, sharing);
    // A process killed while it holds the guard (on its way to sleep) must
    // not hang every other process on it for ever: the next one inherits
    // the guard instead.  The mutex itself keeps its rule: a holder that
    // dies leaves it held.
    if (!rc && sharing == PTHREAD_PROCESS_SHARED)
        rc = pthread_mutexattr_setrobust(mutexAttr, PTHREAD_MUTEX_ROBUST);
    if (!rc)
        rc = pthread_mutex_init(&block->m_Mutex, mutexAttr);
    pthread_mutexattr_destroy(mutexAttr);
    if (rc)
        return rc;
    memset(&block->m_Cond, 0, sizeof block->m_Cond);
    SetMark(block, ZMUTEX_MARK_INITIALISED);
    return 0;
}

// Sleeps until the release sequence moves away from `seq`, the absolute
// real-time `deadline` passes (null: no limit), or a signal or spurious
// wake-up comes.  0 for a wake-up of any kind, ETIMEDOUT, or the error of a
// wait that could not be made.  The guard is not held.
int WaitForRelease(ZMutexBlock* block, uint32_t seq, const timespec* deadline, bool shared) {
    int op = FUTEX_WAIT_BITSET | FUTEX_CLOCK_REALTIME | (shared ? 0 : FUTEX_PRIVATE_FLAG);
    if (syscall(SYS_futex, ReleaseSeq(block), op, seq, deadline, nullptr,
                FUTEX_BITSET_MATCH_ANY) == 0)
        return 0;
    return errno == EAGAIN || errno == EINTR ? 0 : errno;
}

// Wakes every sleeping locker; each tests the mutex again.  Called by the
// releasing owner, only when a locker said it may be asleep.
void WakeLockers(ZMutexBlock* block, bool shared) {
    int op = FUTEX_WAKE | (shared ? 0 : FUTEX_PRIVATE_FLAG);
    syscall(SYS_futex, ReleaseSeq(block), op, INT_MAX, nullptr, nullptr, 0);
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

// Taking the mutex is one compare-and-swap of the locked flag; the guard is
// taken only by lockers that go to sleep.  Every process that shares a block
// runs this same code (the block is shared only with children forked after
// Create), so the flag can be the lock word itself.
qsStatus ZMutex::Lock(DWORD timeoutMs) {
    ZMutexBlock* block = m_pBlock;
    if (!IsInitialised(block))
        return LogLockFailure(QS_E_NOT_VALID);
    // The process id is part of the owner: a child forked by the owning
    // thread has the same pthread_self() value.  The cached id keeps this
    // append-path call free of system calls.
    pthread_t self = pthread_self();
    int32_t pid = int32_t(GetCurrentProcessId());
    if (TryAcquire(block, self, pid))
        return QS_OK;
    // Holders keep the lock for a few hundred nanoseconds: a short spin
    // usually beats a sleep.
    for (int i = 0; i < SPIN_TESTS; i++) {
        Pause();
        if (!IsLocked(block) && TryAcquire(block, self, pid))
            return QS_OK;
    }
    return LockSlowly(block, self, pid, timeoutMs);
}

qsStatus ZMutex::LockSlowly(ZMutexBlock* block, pthread_t self, int32_t pid, DWORD timeoutMs) {
    const bool shared = block != &m_Local;
    qsStatus result = QS_E_WAIT_FAILED;
    bool haveDeadline = false;
    timespec deadline{};
    int rc = LockGuard(block);
    while (rc == 0) {
        if (TryAcquire(block, self, pid)) {
            result = QS_OK;
            break;
        }
        // The deadline is taken when a wait actually begins (no clock read on
        // the uncontended path), and its microseconds are not carried into
        // the seconds: a wait begun late in a second gets a nanosecond part
        // of 1e9 or more, which the timed wait refuses (EINVAL, 0xE0FF0102)
        // before waiting at all.  Callers live with that; it must not be
        // corrected here.
        if (timeoutMs != ZMUTEX_INFINITE && !haveDeadline) {
            timeval now;
            gettimeofday(&now, nullptr);
            deadline.tv_sec = now.tv_sec + timeoutMs / 1000;
            deadline.tv_nsec = (now.tv_usec + long(timeoutMs % 1000) * 1000) * 1000;
            haveDeadline = true;
        }
        if (haveDeadline && (deadline.tv_nsec < 0 || deadline.tv_nsec >= 1000000000)) {
            errno = EINVAL;
            break;
        }
        // Say that a sleeper may come, then take the sequence, then look at
        // the flag once more: a release that the look misses comes after the
        // sequence was read, so the sleep returns at once (all three and the
        // releaser's steps are sequentially consistent).
        __atomic_store_n(SleeperFlag(block), 1u, __ATOMIC_SEQ_CST);
        uint32_t seq = __atomic_load_n(ReleaseSeq(block), __ATOMIC_SEQ_CST);
        if (!IsLocked(block))
            continue;
        pthread_mutex_unlock(&block->m_Mutex);
        int waited = WaitForRelease(block, seq, haveDeadline ? &deadline : nullptr, shared);
        rc = LockGuard(block);
        if (rc == 0 && waited == ETIMEDOUT) {
            result = QS_W_TIMEOUT;
            break;
        }
        if (rc == 0 && waited) {
            errno = waited;
            break;
        }
    }
    if (rc == 0)
        pthread_mutex_unlock(&block->m_Mutex);
    else
        errno = rc;
    return result == QS_OK ? QS_OK : LogLockFailure(result);
}

// Off for a log stream's own mutex (see the constructor), which would
// otherwise report through the stream it is failing to lock.
qsStatus ZMutex::LogLockFailure(qsStatus result) {
    if (m_bLogErrors && result != QS_W_TIMEOUT)
        qsLogPrintfA(static_cast<LONG>(result), qsLogSevSysCall, "%hs: error %d waiting on mutex",
                     "ZMutex::Lock", errno);
    return result;
}

// Only the owner changes the block here, so no guard is needed: it clears
// the owner and drops the flag, and moves the release sequence on and wakes
// the sleepers if any said they might be asleep.
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
    __atomic_store_n(&block->m_Locked, uint8_t(0), __ATOMIC_SEQ_CST);
    // A locker that raises the flag after this load sees the flag down when
    // it looks again, so only a raised flag needs the sequence moved on and
    // the sleepers woken (a system call).
    if (__atomic_load_n(SleeperFlag(block), __ATOMIC_SEQ_CST)) {
        __atomic_store_n(SleeperFlag(block), 0u, __ATOMIC_SEQ_CST);
        __atomic_fetch_add(ReleaseSeq(block), 1u, __ATOMIC_SEQ_CST);
        WakeLockers(block, block != &m_Local);
    }
    return QS_OK;
}

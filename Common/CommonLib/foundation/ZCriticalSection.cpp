#include "ZCriticalSection.h"

#include "qsLog.h"

#include <cerrno>
#include <stdexcept>

namespace {

constexpr LONG kLockError = LONG(QS_E_NOT_VALID);

// pthread calls return their error instead of setting errno; it is stored
// in errno too so that the log record and errno tell the same story.
[[noreturn]] void Fail(const char* format, int rc) {
    errno = rc;
    qsLogPrintfA(kLockError, qsLogSevError, format, rc);
    throw std::logic_error(format);
}

} // namespace

// The mark is written and read atomically: besides ordering it against other
// threads, an atomic store cannot be dropped as a dead store to an object at
// the end of its life, which is exactly when the mark must change.
bool ZCriticalSection::IsValid() const {
    return __atomic_load_n(&m_Mark, __ATOMIC_ACQUIRE) == ZCRITSECT_MARK;
}

ZCriticalSection::~ZCriticalSection() {
    if (!IsValid())
        return;
    __atomic_store_n(&m_Mark, 0u, __ATOMIC_RELEASE);
    pthread_mutex_destroy(&m_Mutex);
}

void ZCriticalSection::Lock() {
    if (!IsValid())
        throw std::logic_error("ZCriticalSection::Lock: invalid");
    int rc = pthread_mutex_lock(&m_Mutex);
    if (rc != 0)
        Fail("ZCriticalSection::Lock: failed %d.", rc);
}

void ZCriticalSection::Unlock() {
    if (!IsValid())
        throw std::logic_error("ZCriticalSection::Unlock: invalid");
    int rc = pthread_mutex_unlock(&m_Mutex);
    if (rc != 0)
        Fail("ZCriticalSection::Unlock: failed %d.", rc);
}

// A named mutex object as another process's ZMutex::Create() leaves it while
// that process still has the name open: finished, or still being set up.
#pragma once

#include "ZMutex.h"

#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace qsTest {

// `name` as given to Create() (without the leading '/'); null on failure.
// Unmap with munmap(block, sizeof *block).
inline ZMutexBlock* ForeignMutexObject(const std::string& name, bool finished) {
    int fd = shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    if (fd < 0)
        return nullptr;
    void* p = ftruncate(fd, sizeof(ZMutexBlock)) != 0
                  ? MAP_FAILED
                  : mmap(nullptr, sizeof(ZMutexBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        return nullptr;
    auto* block = static_cast<ZMutexBlock*>(p); // zero-filled: the condition is ready
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&block->m_Mutex, &attr);
    block->m_OwnerThread = pthread_t(-1);
    block->m_OwnerProcess = -1;
    block->m_Mark = finished ? ZMUTEX_MARK_INITIALISED : ZMUTEX_MARK_UNINITIALISED;
    return block;
}

} // namespace qsTest

// The floor: a minimal ring appender laid out like the log file (28-byte
// header, 40-byte record headers, code and severity before the text, wrap to
// 28), in a shared file mapping, doing per message exactly the unavoidable
// work: one vsnprintf into a stack buffer, the clock, the thread, the
// process id, and, when asked, one process-shared pthread mutex around the
// placement and the copy.  No validity checks, no bookkeeping, no flush.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

class FloorRing {
public:
    enum PidMode { kPidCached, kPidEachCall };

    FloorRing(const std::string& path, uint32_t size) : m_Size(size) {
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || ftruncate(fd, size) != 0)
            throw std::runtime_error("cannot create " + path);
        void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (p == MAP_FAILED)
            throw std::runtime_error("cannot map " + path);
        m_Image = static_cast<unsigned char*>(p);
        memset(m_Image, 0, size); // fault every page in before measuring
        m_Hdr = reinterpret_cast<Header*>(m_Image);
        m_Hdr->size = size;
        m_Hdr->next = 28;
        void* shared = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        m_Mutex = static_cast<pthread_mutex_t*>(shared);
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(m_Mutex, &attr);
        pthread_mutexattr_destroy(&attr);
        m_Pid = uint32_t(getpid());
    }
    ~FloorRing() {
        munmap(m_Image, m_Size);
        munmap(m_Mutex, sizeof(pthread_mutex_t));
    }

    // No format attribute: the messages use "%hs" like the library's callers.
    int Printf(bool lock, PidMode pidMode, int32_t code, const char* format, ...) {
        char text[1017];
        va_list args;
        va_start(args, format);
        int n = vsnprintf(text, sizeof text, format, args);
        va_end(args);
        uint32_t len = n < 0 ? 0 : uint32_t(n) > 1016 ? 1016 : uint32_t(n);
        timeval tv;
        gettimeofday(&tv, nullptr);
        uint64_t time =
            (uint64_t(tv.tv_sec) * 1000000 + uint64_t(tv.tv_usec)) * 10 + 116444736000000000ULL;
        // Uncached, the process id costs three getpid() calls per message:
        // the record, the lock's owner and the unlock's owner test.
        uint32_t pid = pidMode == kPidCached ? m_Pid : uint32_t(getpid());
        uint32_t tid = uint32_t(uintptr_t(pthread_self()));
        if (lock) {
            if (pidMode == kPidEachCall)
                m_Owner = uint32_t(getpid());
            pthread_mutex_lock(m_Mutex);
        }
        uint32_t recSize = 40 + 8 + len, stride = (recSize + 3) & ~3u;
        uint32_t at = m_Hdr->next;
        if (at + stride > m_Size) {
            at = 28;
            m_Hdr->wraps++;
        }
        Record* rec = reinterpret_cast<Record*>(m_Image + at);
        rec->signature = 0x87EE9E9C;
        rec->size = recSize;
        rec->time = time;
        rec->pid = pid;
        rec->tid = tid;
        rec->id = ++m_Hdr->count;
        rec->flags = 0;
        rec->type = 0x41525453;
        rec->prev = m_Hdr->last;
        memcpy(rec + 1, &code, 4);
        memcpy(reinterpret_cast<char*>(rec + 1) + 4, &kSeverity, 4);
        memcpy(reinterpret_cast<char*>(rec + 1) + 8, text, len);
        m_Hdr->last = at;
        m_Hdr->next = at + stride;
        if (lock) {
            pthread_mutex_unlock(m_Mutex);
            if (pidMode == kPidEachCall && m_Owner != uint32_t(getpid()))
                return -1;
        }
        return 0;
    }

private:
    struct Header {
        uint32_t signature, version, size, last, next, count, wraps;
    };
    struct Record {
        uint32_t signature, size;
        uint64_t time;
        uint32_t pid, tid, id, flags, type, prev;
    } __attribute__((packed, aligned(4)));
    static constexpr int32_t kSeverity = 1;

    uint32_t m_Size;
    unsigned char* m_Image;
    Header* m_Hdr;
    pthread_mutex_t* m_Mutex;
    uint32_t m_Pid;
    uint32_t m_Owner = 0;
};

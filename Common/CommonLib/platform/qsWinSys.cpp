#include "qsWinApi.h"

#include "qsFindData.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

pthread_mutex_t gInterlockMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// 0 until first asked for; reset in a forked child (before fork() returns
// there) so that a child never records or compares its parent's id.
DWORD g_ProcessId = 0;

void ForgetProcessId() { g_ProcessId = 0; }

} // namespace

DWORD GetCurrentProcessId() {
    DWORD pid = __atomic_load_n(&g_ProcessId, __ATOMIC_RELAXED);
    if (pid != 0)
        return pid;
    static const bool forkHook = pthread_atfork(nullptr, nullptr, ForgetProcessId) == 0;
    (void)forkHook;
    pid = DWORD(getpid());
    __atomic_store_n(&g_ProcessId, pid, __ATOMIC_RELAXED);
    return pid;
}

DWORD GetCurrentThreadId() { return DWORD(uintptr_t(pthread_self())); }

LONG InterlockedIncrement(LONG* value) {
    pthread_mutex_lock(&gInterlockMutex);
    LONG now = ++*value;
    pthread_mutex_unlock(&gInterlockMutex);
    return now;
}

LONG InterlockedDecrement(LONG* value) {
    pthread_mutex_lock(&gInterlockMutex);
    LONG now = --*value;
    pthread_mutex_unlock(&gInterlockMutex);
    return now;
}

void* VirtualAlloc(void* address, DWORD size, DWORD type, DWORD protect) {
    if (address || type != MEM_COMMIT || protect != PAGE_READWRITE)
        return nullptr;
    void* block = nullptr;
    if (posix_memalign(&block, 65536, size) != 0)
        return nullptr;
    return block;
}

BOOL VirtualFree(void* address, DWORD size, DWORD type) {
    if (size != 0 || type != MEM_RELEASE)
        return FALSE;
    free(address);
    return TRUE;
}

DWORD GetFileAttributes_Common(const char* path, WIN32_FILE_ATTRIBUTE_DATA* data) {
    if (!path) {
        errno = ERROR_INVALID_PARAMETER;
        return INVALID_FILE_ATTRIBUTES;
    }
    // The 64-bit record, so that a 32-bit build does not fail with EOVERFLOW
    // on files past 2 GiB or on file systems with 64-bit inode numbers.
    struct stat64 st;
    if (stat64(path, &st) != 0) {
        if (errno == ENOENT)
            errno = ERROR_FILE_NOT_FOUND;
        else if (errno == EACCES)
            errno = ERROR_ACCESS_DENIED;
        return INVALID_FILE_ATTRIBUTES;
    }
    DWORD attributes = qsAttributesFromMode(st.st_mode);
    if (data) {
        memset(data, 0, sizeof(*data));
        data->dwFileAttributes = attributes;
        UNIXTimeToFILETIME(long(st.st_atime), data->ftLastAccessTime);
        UNIXTimeToFILETIME(long(st.st_mtime), data->ftLastWriteTime);
        data->nFileSizeLow = DWORD(st.st_size);
    }
    return attributes;
}

DWORD GetFileAttributesA(const char* path) { return GetFileAttributes_Common(path, nullptr); }

BOOL GetFileAttributesExA(const char* path, int level, WIN32_FILE_ATTRIBUTE_DATA* data) {
    if (level != 0)
        return FALSE;
    if (path) {
        if (const char* colon = strchr(path, ':'))
            path = colon + 1;
    }
    return GetFileAttributes_Common(path, data) != INVALID_FILE_ATTRIBUTES;
}

BOOL SetFileAttributesA(const char*, DWORD) { return TRUE; }

BOOL CreateDirectoryA(const char* path, SECURITY_ATTRIBUTES*) { return mkdir(path, 0777) == 0; }
BOOL RemoveDirectoryA(const char* path) { return rmdir(path) == 0; }
BOOL MoveFileA(const char* from, const char* to) { return rename(from, to) == 0; }
BOOL DeleteFileA(const char* path) { return unlink(path) == 0; }

DWORD GetTempPathA(DWORD size, char* buffer) {
    const char* dir = getenv("TMP");
    if (!dir)
        dir = getenv("TEMP");
    if (!dir)
        dir = "./";
    size_t n = strlen(dir);
    // Room for a separator and the terminator even when no separator is added.
    if (n + 2 > size) {
        errno = ERROR_INSUFFICIENT_BUFFER;
        return 0;
    }
    memcpy(buffer, dir, n);
    if (n == 0 || dir[n - 1] != '/')
        buffer[n++] = '/';
    buffer[n] = '\0';
    return DWORD(n);
}

BOOL PathMatchSpec(const char* name, const char* pattern) {
    return name && pattern && fnmatch(pattern, name, FNM_NOESCAPE) == 0;
}

BOOL PathIsRelative(const char* path) {
    if (!path || !path[0])
        return TRUE;
    if (path[0] == '\\' || path[1] == ':')
        return FALSE;
    return TRUE;
}

BOOL GetComputerNameA(char* buffer, DWORD* size) {
    if (!buffer || !size || *size < 16)
        return FALSE;
    utsname u;
    if (uname(&u) != 0)
        return FALSE;
    // The name and its terminator must both fit: a name of exactly *size
    // characters would otherwise be written one byte past the buffer.
    size_t n = strlen(u.nodename);
    if (n + 1 > *size)
        return FALSE;
    memcpy(buffer, u.nodename, n + 1);
    return TRUE;
}

// The local delegate: Windows-style file operations on a POSIX descriptor.
//
// Offsets, sizes and mappings go through the explicit 64-bit calls (open64,
// lseek64, ftruncate64, mmap64, fstat64) so that a 32-bit build handles files
// beyond 2 GiB and file systems with 64-bit inode numbers the same way as a
// 64-bit build, whatever _FILE_OFFSET_BITS the rest of the program uses.
#include "ZFileUnix.h"

#include "qsFindData.h"
#include "qsLog.h"
#include "qsWinApi.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

namespace {

// A closed file's name: never freed, never written.
char g_EmptyName[1] = "";

// Access rights that mean reading and writing.  READ_CONTROL and SYNCHRONIZE
// are in both masks, so asking for either alone opens read-write.
constexpr DWORD kReadRights = 0x80120089;
constexpr DWORD kWriteRights = 0x40120116;

// Seconds between 1601-01-01 and 1970-01-01 modulo 2^32: the 32-bit value
// that SetFileTime adds to FILETIME seconds.
constexpr uint32_t kEpochDeltaSeconds32 = 0x49EF6F00;

// The 32-bit conversion back: sub-second parts dropped, dates outside
// 1970..2106 wrap.
time_t SecondsFromFileTime(const FILETIME& ft) {
    return time_t(uint32_t(qsFileTimeToUInt64(ft) / QS_FILETIME_PER_SECOND) + kEpochDeltaSeconds32);
}

// The last component of a path, without trailing slashes, as find records
// carry it ("/" stays "/").
void CopyLastComponent(const char* path, char* out, size_t size) {
    size_t end = strlen(path);
    while (end > 1 && path[end - 1] == '/')
        --end;
    size_t start = end;
    while (start > 0 && path[start - 1] != '/')
        --start;
    if (start == end && end > 0)
        --start;
    size_t n = end - start;
    if (n >= size)
        n = size - 1;
    memcpy(out, path + start, n);
    out[n] = '\0';
}

} // namespace

ZFileUnix::ZFileUnix()
    : m_fd(-1), m_pName(g_EmptyName), m_bPreExisting(false), m_pMapAddr(nullptr), m_MapLen(0),
      m_MapFlags(MAP_SHARED) {}

ZFileUnix::~ZFileUnix() { CloseHandleInternal(true); }

void ZFileUnix::Report(qsStatus code, const char* format, ...) const {
    if (!m_bLogErrors)
        return;
    // The caller reads errno after the failure: logging must not change it.
    int saved = errno;
    va_list args;
    va_start(args, format);
    qsLogvPrintfA(LONG(code), qsLogSevSysCall, format, args);
    va_end(args);
    errno = saved;
}

bool ZFileUnix::CheckOpen(const char* where, const char* format) const {
    if (m_fd != -1)
        return true;
    errno = EBADF;
    Report(QS_E_INVALIDARG, format, where);
    return false;
}

qsStatus ZFileUnix::CreateFileA(const char* path, DWORD access, DWORD, _SECURITY_ATTRIBUTES* sa,
                                DWORD disposition, DWORD, ZFileABC*) {
    static const char kWhere[] = "ZFileUnix::CreateFile";
    errno = 0;
    if (!CloseHandle() && errno != 0)
        return qsStatus(errno);

    bool reads = access & kReadRights;
    bool writes = access & kWriteRights;
    int openMode = O_RDONLY;
    if ((reads && writes) || (access & GENERIC_ALL))
        openMode = O_RDWR;
    else if (writes)
        openMode = O_WRONLY;
    // A supervised program must not inherit its supervisor's log files: the
    // descriptor is closed on exec (forked children keep it, as they must).
    openMode |= O_CLOEXEC;

    int createFlags;
    switch (disposition) {
    case CREATE_NEW:
        createFlags = O_CREAT | O_EXCL;
        break;
    case CREATE_ALWAYS:
        createFlags = O_CREAT | O_TRUNC;
        break;
    case OPEN_EXISTING:
        createFlags = 0;
        break;
    case OPEN_ALWAYS:
        createFlags = O_CREAT;
        break;
    case TRUNCATE_EXISTING:
        createFlags = O_TRUNC;
        break;
    default:
        errno = EINVAL;
        Report(QS_E_INVALIDARG, "%hs: unknown dwCreationDisposition passed %d <%s>.", kWhere,
               int(disposition), path);
        return QS_E_INVALIDARG;
    }

    // The security-attributes argument doubles as the new file's mode when
    // its value is a plausible permission word; real pointers are never that
    // small.
    uintptr_t saValue = reinterpret_cast<uintptr_t>(sa);
    mode_t perm = saValue >= 1 && saValue <= 0777 ? mode_t(saValue) : 0660;

    int fd = -1;
    bool preExisting = false;
    if (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS) {
        // Open first so that an existing file is known as such.  When it was
        // missing, create it exclusively and start over if another process
        // created it in between: the log stream initialises a file it
        // believes new, so the flag must not claim "new" for a file someone
        // else has just set up.  After a few lost races, plain creation.
        int truncate = disposition == CREATE_ALWAYS ? O_TRUNC : 0;
        for (int round = 0;; ++round) {
            fd = open64(path, openMode | truncate);
            if (fd != -1) {
                preExisting = true;
                break;
            }
            int exclusive = errno == ENOENT && round < 4 ? O_EXCL : 0;
            fd = open64(path, openMode | createFlags | exclusive, perm);
            if (fd != -1 || errno != EEXIST || !exclusive)
                break;
        }
    } else {
        fd = open64(path, openMode | createFlags, perm);
    }

    char* name = nullptr;
    if (fd != -1 && !(name = strdup(path))) {
        ::close(fd);
        fd = -1;
        errno = ENOMEM;
    }
    if (fd == -1) {
        qsStatus status = errno == ENOENT ? QS_E_NOT_FOUND : QS_E_FILE_OPEN;
        Report(status, "%hs: error %d opening file handle <%s>.", kWhere, errno, path);
        return status;
    }
    m_fd = fd;
    m_pName = name;
    m_bPreExisting = preExisting;
    return QS_OK;
}

bool ZFileUnix::IsOpen() const { return m_fd != -1; }
bool ZFileUnix::IsPreExisting() const { return m_bPreExisting; }
const char* ZFileUnix::GetFileName() const { return m_pName; }

bool ZFileUnix::CloseHandle() { return CloseHandleInternal(true); }

bool ZFileUnix::CloseHandleInternal(bool unmapFirst) {
    bool ok = true;
    if (unmapFirst && m_pMapAddr)
        ok = UnmapViewOfFile(m_pMapAddr);
    if (m_fd != -1) {
        // The descriptor is gone whatever close() says (Linux frees it
        // before reporting EINTR or EIO), so it is never retried.
        if (::close(m_fd) != 0) {
            ok = false;
            Report(QS_E_FILE_CLOSE, "%hs: error %d closing file handle <%s>.",
                   "ZFileUnix::CloseHandle", errno, m_pName);
        }
        m_fd = -1;
    }
    if (m_pName != g_EmptyName) {
        free(m_pName);
        m_pName = g_EmptyName;
    }
    m_bPreExisting = false;
    return ok;
}

DWORD ZFileUnix::GetFileSize(DWORD* high) {
    static const char kWhere[] = "ZFileUnix::GetFileSize";
    if (high)
        *high = 0;
    if (!CheckOpen(kWhere, "%hs:  no file handle open."))
        return INVALID_FILE_SIZE;
    struct stat64 st;
    if (fstat64(m_fd, &st) != 0) {
        Report(QS_E_FILE_SIZE, "%hs: fstat call failed.", kWhere);
        return INVALID_FILE_SIZE;
    }
    DWORD low = DWORD(st.st_size);
    // A genuine size whose low half is 0xFFFFFFFF is told from a failure by
    // errno 0, as callers of the Windows call tell it by the last error.
    if (low == INVALID_FILE_SIZE)
        errno = 0;
    return low;
}

bool ZFileUnix::GetFileSizeEx(_LARGE_INTEGER* size) {
    static const char kWhere[] = "ZFileUnix::GetFileSizeEx";
    if (!CheckOpen(kWhere, "%hs:  no file handle open."))
        return false;
    if (!size) {
        errno = EINVAL;
        Report(QS_E_INVALIDARG, "%hs: size record null.", kWhere);
        return false;
    }
    struct stat64 st;
    if (fstat64(m_fd, &st) != 0) {
        Report(QS_E_FILE_SIZE, "%hs: fstat call failed.", kWhere);
        return false;
    }
    size->QuadPart = int64_t(st.st_size);
    return true;
}

bool ZFileUnix::ReadFile(void* buffer, DWORD length, DWORD* done, _OVERLAPPED*) {
    static const char kWhere[] = "ZFileUnix::ReadFile";
    if (done)
        *done = 0;
    if (!buffer || m_fd == -1) {
        errno = m_fd == -1 ? EBADF : EFAULT;
        Report(QS_E_INVALIDARG, "%hs:  no file handle open or buffer null.", kWhere);
        return false;
    }
    ssize_t n = ::read(m_fd, buffer, length);
    if (n == -1) {
        // "%>" is no conversion: the C library prints it as it stands and
        // takes no argument for it.
        Report(QS_E_FILE_READ, "%hs: read failed, %d <%>.", kWhere, errno);
        return false;
    }
    if (done)
        *done = DWORD(n);
    return true;
}

bool ZFileUnix::WriteFile(const void* buffer, DWORD length, DWORD* done, _OVERLAPPED*) {
    static const char kWhere[] = "ZFileUnix::WriteFile";
    if (done)
        *done = 0;
    if (!buffer || m_fd == -1) {
        errno = m_fd == -1 ? EBADF : EFAULT;
        Report(QS_E_INVALIDARG, "%hs:  no file handle open or buffer null.", kWhere);
        return false;
    }
    ssize_t n = ::write(m_fd, buffer, length);
    if (n == -1) {
        Report(QS_E_FILE_WRITE, "%hs: write failed, %d <%>.", kWhere, errno);
        return false;
    }
    if (done)
        *done = DWORD(n);
    return true;
}

DWORD ZFileUnix::SetFilePointer(LONG low, LONG* high, DWORD moveMethod) {
    static const char kWhere[] = "ZFileUnix::SetFilePointer";
    if (!CheckOpen(kWhere, "%hs:  no file handle open."))
        return INVALID_SET_FILE_POINTER;
    int whence;
    switch (moveMethod) {
    case FILE_BEGIN:
        whence = SEEK_SET;
        break;
    case FILE_CURRENT:
        whence = SEEK_CUR;
        break;
    case FILE_END:
        whence = SEEK_END;
        break;
    default:
        errno = EINVAL;
        Report(QS_E_INVALIDARG, "%hs: unknown dwMoveMethod passed %d.", kWhere, int(moveMethod));
        return INVALID_SET_FILE_POINTER;
    }
    int64_t distance =
        high ? int64_t((uint64_t(uint32_t(*high)) << 32) | uint32_t(low)) : int64_t(low);
    off64_t position = lseek64(m_fd, distance, whence);
    if (position == -1) {
        Report(QS_E_FILE_SIZE, "%hs: lseek call failed.", kWhere);
        return INVALID_SET_FILE_POINTER;
    }
    if (high)
        *high = LONG(uint64_t(position) >> 32);
    DWORD lowPart = DWORD(uint64_t(position));
    if (lowPart == INVALID_SET_FILE_POINTER) {
        // A valid position that looks like the failure value: reported as
        // such, with errno 0 to tell it apart.
        errno = 0;
        Report(QS_E_FILE_SIZE, "%hs: lseek call failed.", kWhere);
    }
    return lowPart;
}

bool ZFileUnix::SetEndOfFile() {
    static const char kWhere[] = "ZFileUnix::SetEndOfFile";
    if (!CheckOpen(kWhere, "%hs:  no file handle open."))
        return false;
    off64_t position = lseek64(m_fd, 0, SEEK_CUR);
    if (position == -1 || ftruncate64(m_fd, position) != 0) {
        Report(QS_E_FILE_SIZE, "%hs: truncate call failed.", kWhere);
        return false;
    }
    return true;
}

// A probe as much as a query: the logging interface asks it whether its
// directory exists before any log stream is open, so a missing path is an
// answer, not a failure, and is never logged.
qsStatus ZFileUnix::GetWinFindData(const char* path, _WIN32_FIND_DATAA* data) {
    if (!path || !data) {
        errno = EINVAL;
        Report(QS_E_INVALIDARG, "%hs: path or record null.", "ZFileUnix::GetWinFindData");
        return QS_E_INVALIDARG;
    }
    struct stat64 st;
    if (stat64(path, &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return QS_E_NOT_FOUND;
        Report(QS_E_FILE_ATTRIBUTES, "%hs: stat failed %d <%s>.", "ZFileUnix::GetWinFindData",
               errno, path);
        return QS_E_FILE_ATTRIBUTES;
    }
    qsFillFindData(st, nullptr, 0, data);
    CopyLastComponent(path, data->cFileName, sizeof data->cFileName);
    return QS_OK;
}

bool ZFileUnix::IsDir(const char* path) {
    struct stat64 st;
    return path && stat64(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The part of MapFile that Windows calls creating the file mapping: the
// protection becomes the desired access of the view (0 when it is none of
// the supported ones, which MapViewOfFile then reports), the name decides
// sharing, and the file is grown so that the whole view lies inside it.
bool ZFileUnix::PrepareMapping(const char* where, DWORD protect, DWORD maxLow, const char* name,
                               DWORD* desiredAccess) {
    if (!CheckOpen(where, "%hs:  no file handle open"))
        return false;
    if (protect == PAGE_WRITECOPY) {
        errno = EINVAL;
        Report(QS_E_INVALIDARG, "%hs:  PAGE_WRITECOPY option not supported.", where);
        return false;
    }
    *desiredAccess = protect == PAGE_READONLY    ? FILE_MAP_READ
                     : protect == PAGE_READWRITE ? FILE_MAP_ALL_ACCESS
                                                 : 0;
    // A named mapping is the one several processes share (children forked
    // after the mapping see the same pages, and changes reach the file); an
    // unnamed one is a private scratch copy whose writes never reach it.
    m_MapFlags = name ? MAP_SHARED : MAP_PRIVATE;

    struct stat64 st;
    if (fstat64(m_fd, &st) != 0) {
        Report(QS_E_FILE_SIZE, "%hs: fstat call failed.", where);
        return false;
    }
    if (st.st_size < off64_t(maxLow) && ftruncate64(m_fd, off64_t(maxLow)) != 0) {
        Report(QS_E_FILE_SIZE, "%hs: truncate call failed.", where);
        return false;
    }
    return true;
}

void* ZFileUnix::MapFile(_SECURITY_ATTRIBUTES*, DWORD protect, DWORD, DWORD maxLow,
                         const char* name) {
    static const char kWhere[] = "ZFileUnix::MapFile";
    UnMapFile();
    DWORD desiredAccess;
    if (!PrepareMapping(kWhere, protect, maxLow, name, &desiredAccess))
        return nullptr;
    void* view = MapView(kWhere, desiredAccess, 0, maxLow);
    if (!view)
        Report(QS_E_MAP, "%hs: error mapping file %d.", kWhere, errno);
    return view;
}

void* ZFileUnix::CreateFileMappingA(_SECURITY_ATTRIBUTES*, DWORD protect, DWORD, DWORD maxLow,
                                    const char* name) {
    DWORD desiredAccess;
    if (!PrepareMapping("ZFileUnix::CreateFileMappingA", protect, maxLow, name, &desiredAccess))
        return nullptr;
    return this;
}

void* ZFileUnix::GetFileMapping() const { return m_pMapAddr; }

void* ZFileUnix::MapView(const char* where, DWORD desiredAccess, DWORD offsetLow, DWORD length) {
    if (!CheckOpen(where, "%hs:  no file handle open"))
        return nullptr;
    size_t bytes = length;
    if (bytes == 0) {
        struct stat64 st;
        if (fstat64(m_fd, &st) != 0)
            return nullptr;
        if (uint64_t(st.st_size) > SIZE_MAX) {
            errno = EFBIG;
            return nullptr;
        }
        bytes = size_t(st.st_size);
    }
    int prot = PROT_NONE;
    if (desiredAccess == FILE_MAP_READ)
        prot = PROT_READ;
    else if (desiredAccess == FILE_MAP_WRITE || desiredAccess == FILE_MAP_ALL_ACCESS)
        prot = PROT_READ | PROT_WRITE;
    else
        Report(QS_E_INVALIDARG, "%hs: Desired access does not appear to be a FILE_MAP_XXX constant",
               where);
    int kind = m_MapFlags & ~MAP_FIXED;
    if (kind != MAP_SHARED && kind != MAP_PRIVATE)
        Report(QS_E_INVALIDARG, "%hs: Mapping flags does not appear to be a MAP_XXX constant",
               where);

    void* address = mmap64(nullptr, bytes, prot, m_MapFlags, m_fd, off64_t(offsetLow));
    if (address == MAP_FAILED)
        return nullptr;
    // One view at a time: a new one replaces the last.
    UnMapFile();
    m_pMapAddr = address;
    m_MapLen = bytes;
    return address;
}

void* ZFileUnix::MapViewOfFile(DWORD desiredAccess, DWORD, DWORD offsetLow, DWORD length) {
    static const char kWhere[] = "ZFileUnix::MapViewOfFile";
    void* view = MapView(kWhere, desiredAccess, offsetLow, length);
    if (!view && m_fd != -1)
        Report(QS_E_MAP, "%hs: error mapping file %d.", kWhere, errno);
    return view;
}

bool ZFileUnix::FlushViewOfFile(void* base, DWORD length) const {
    if (!base) {
        if (!m_pMapAddr)
            return true;
        base = m_pMapAddr;
    }
    // Length 0 means to the end of the current view.  msync wants a page
    // boundary; a base inside a page flushes that whole page.
    uintptr_t start = reinterpret_cast<uintptr_t>(base);
    uintptr_t viewStart = reinterpret_cast<uintptr_t>(m_pMapAddr);
    size_t bytes = length;
    if (bytes == 0 && m_pMapAddr && start >= viewStart && start < viewStart + m_MapLen)
        bytes = viewStart + m_MapLen - start;
    uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    uintptr_t aligned = start & ~(page - 1);
    bytes += start - aligned;
    if (msync(reinterpret_cast<void*>(aligned), bytes, MS_SYNC) != 0) {
        Report(QS_E_FLUSH, "%hs:  failure flushing file, %d.", "ZFileUnix::FlushViewOfFile", errno);
        return false;
    }
    return true;
}

void ZFileUnix::UnMapFile() {
    if (m_pMapAddr)
        UnmapViewOfFile(m_pMapAddr);
}

// Only the object's own view can be unmapped: its length is known only here.
bool ZFileUnix::UnmapViewOfFile(const void* address) {
    if (!address || address != m_pMapAddr) {
        errno = EINVAL;
        Report(QS_E_INVALIDARG, "%hs: not the current view.", "ZFileUnix::UnmapViewOfFile");
        return false;
    }
    bool ok = munmap(m_pMapAddr, m_MapLen) == 0;
    if (!ok)
        Report(QS_E_MAP, "%hs: error unmapping file %d.", "ZFileUnix::UnmapViewOfFile", errno);
    m_pMapAddr = nullptr;
    m_MapLen = 0;
    return ok;
}

bool ZFileUnix::SetFileTime(const FILETIME*, const FILETIME* access, const FILETIME* write) {
    static const char kWhere[] = "ZFileUnix::SetFileTime";
    struct stat64 st;
    if (fstat64(m_fd, &st) != 0) {
        Report(QS_E_FILE_TIME, "%hs: fstat failed %d <%s>.", kWhere, errno, m_pName);
        return false;
    }
    utimbuf times{st.st_atime, st.st_mtime};
    if (access)
        times.actime = SecondsFromFileTime(*access);
    if (write)
        times.modtime = SecondsFromFileTime(*write);
    if (utime(m_pName, &times) != 0) {
        Report(QS_E_FILE_TIME, "%hs: utime call failed.", kWhere);
        return false;
    }
    return true;
}

bool ZFileUnix::GetFileTime(FILETIME*, FILETIME* access, FILETIME* write) {
    struct stat64 st;
    if (fstat64(m_fd, &st) != 0) {
        Report(QS_E_FILE_TIME, "%hs: fstat failed %d <%s>.", "ZFileUnix::GetFileTime", errno,
               m_pName);
        return false;
    }
    if (access)
        UNIXTimeToFILETIME(long(st.st_atime), *access);
    if (write)
        UNIXTimeToFILETIME(long(st.st_mtime), *write);
    return true;
}

void ZFileUnix::SetHandle(void* handle) {
    CloseHandleInternal(true);
    intptr_t fd = reinterpret_cast<intptr_t>(handle);
    if (fd > 0 && fd <= INT32_MAX)
        m_fd = int(fd);
}

int ZFileUnix::fstat(struct stat* st) {
    int result = ::fstat(m_fd, st);
    if (result != 0)
        Report(QS_E_FILE_SIZE, "%hs: fstat call failed.", "ZFileUnix::fstat");
    return result;
}

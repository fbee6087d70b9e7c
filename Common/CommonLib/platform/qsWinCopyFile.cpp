// CopyFileA: one mapping and one write, or a buffered loop when the source
// cannot be mapped.
//
// Inside the copy every failure is raised as a text exception; CopyFileA is
// the only place that sees them.  The descriptors and the mapping are owned
// by scoped classes, so whatever was opened is closed on the way out and the
// errno of the failing call is what the caller finds.
#include "qsWinApi.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kCopyChunk = 65536;

// Carries the errno of the failing call past the destructors that run while
// it propagates, and how many bytes the mapped copy had written.
class CopyFailure : public std::runtime_error {
public:
    explicit CopyFailure(const std::string& text, uint64_t written = 0)
        : std::runtime_error(text), m_Errno(errno), m_Written(written) {}
    int Errno() const { return m_Errno; }
    uint64_t Written() const { return m_Written; }

private:
    int m_Errno;
    uint64_t m_Written;
};

class FileHandle {
public:
    FileHandle(const char* path, int flags, mode_t mode = 0)
        : m_fd(open(path, flags | O_CLOEXEC, mode)) {
        if (m_fd < 0)
            throw CopyFailure(std::string("FileHandle::FileHandle open ") + path);
    }
    ~FileHandle() {
        if (m_fd >= 0)
            close(m_fd);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    int Fd() const { return m_fd; }
    // The target's close is checked: a delayed write error shows up there.
    bool Close() {
        int fd = m_fd;
        m_fd = -1;
        return close(fd) == 0;
    }

private:
    int m_fd;
};

class FileMap {
public:
    FileMap(int fd, uint64_t size) {
        // A size past the address space would be cut by the cast: refuse it
        // here so that the buffered copy takes over.
        if (size == 0 || size > uint64_t(SIZE_MAX)) {
            errno = size ? EFBIG : EINVAL;
            throw CopyFailure("FileMap::FileMap mmap");
        }
        m_Size = size_t(size);
        m_Base = mmap(nullptr, m_Size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (m_Base == MAP_FAILED)
            throw CopyFailure("FileMap::FileMap mmap");
    }
    ~FileMap() { munmap(m_Base, m_Size); }
    FileMap(const FileMap&) = delete;
    FileMap& operator=(const FileMap&) = delete;

    const void* Base() const { return m_Base; }
    size_t Size() const { return m_Size; }

private:
    void* m_Base;
    size_t m_Size;
};

void CopyMapped(int from, int to, uint64_t size) {
    FileMap map(from, size);
    ssize_t n = write(to, map.Base(), map.Size());
    if (n != ssize_t(map.Size()))
        throw CopyFailure("CopyFile_Mmap write", n > 0 ? uint64_t(n) : 0);
}

// Continues on the same descriptors without rewinding.  A write of more than
// 2 GiB is always short on Linux: the source is first moved past what the
// mapped copy did write, so that the target gets each byte exactly once.
void CopyBuffered(int from, int to, uint64_t size, uint64_t done) {
    if (done && lseek(from, off_t(done), SEEK_SET) < 0)
        throw CopyFailure("CopyFile_Buffered");
    std::unique_ptr<char[]> buffer(new char[kCopyChunk]);
    for (;;) {
        ssize_t n = read(from, buffer.get(), kCopyChunk);
        if (n < 0)
            throw CopyFailure("CopyFile_Buffered");
        if (n > 0 && write(to, buffer.get(), size_t(n)) != n)
            throw CopyFailure("CopyFile_Buffered");
        done += uint64_t(n);
        if (size_t(n) < kCopyChunk)
            break;
    }
    if (done != size) {
        errno = EIO; // the source changed size under the copy
        throw CopyFailure("CopyFile_Buffered");
    }
}

} // namespace

BOOL CopyFileA(const char* from, const char* to, BOOL failIfExists) {
    if (!from || !to) {
        errno = ERROR_INVALID_PARAMETER;
        return FALSE;
    }
    try {
        struct stat st;
        if (failIfExists && stat(to, &st) == 0) {
            errno = EEXIST;
            throw CopyFailure(std::string("CopyFileA target file ") + to + " exists");
        }
        FileHandle source(from, O_RDONLY);
        if (fstat(source.Fd(), &st) != 0)
            throw CopyFailure(std::string("CopyFileA fstat ") + from);
        // Neither may lose anything: a directory would leave an empty target
        // behind, and opening the source itself as target would truncate it.
        struct stat existing;
        if (S_ISDIR(st.st_mode) || (stat(to, &existing) == 0 && existing.st_dev == st.st_dev &&
                                    existing.st_ino == st.st_ino)) {
            errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
            throw CopyFailure(std::string("CopyFileA cannot copy ") + from + " to " + to);
        }
        FileHandle target(to, O_WRONLY | O_CREAT | O_TRUNC, st.st_mode & 0777);
        uint64_t size = uint64_t(st.st_size);
        try {
            CopyMapped(source.Fd(), target.Fd(), size);
        } catch (const CopyFailure& e) {
            CopyBuffered(source.Fd(), target.Fd(), size, e.Written());
        }
        if (!target.Close())
            throw CopyFailure(std::string("CopyFileA close ") + to);
        return TRUE;
    } catch (const CopyFailure& e) {
        errno = e.Errno();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return FALSE;
}

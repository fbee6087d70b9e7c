// The local delegate of ZFile: the Windows-style file operations on one
// POSIX file descriptor and at most one mapping of it.
//
// Failures are returned the Windows way (a status, false, null, 0xFFFFFFFF)
// with the cause in errno, and logged at severity 4 when the log-errors flag
// is set.  Descriptors are closed on exec: a program the watcher starts
// must not inherit its log files.
#pragma once

#include "ZFileABC.h"

#include <cstddef>

class ZFileUnix : public ZFileABC {
public:
    ZFileUnix();
    ~ZFileUnix() override;
    ZFileUnix(const ZFileUnix&) = delete;
    ZFileUnix& operator=(const ZFileUnix&) = delete;

    // Read-write when access has a read right (0x80120089) and a write right
    // (0x40120116) or GENERIC_ALL; write-only with write rights alone; else
    // read-only.  A new file's mode is the value of `sa` when that lies in
    // 1..0777 (the argument doubles as a mode), else 0660, less the umask.
    // CREATE_ALWAYS and OPEN_ALWAYS set the pre-existing flag when the file
    // was there.  Returns 0, 0xE0FF0108 when the file or a directory of its
    // path is missing, 0xE0020101 for other open failures, 0x80000003 for an
    // unknown disposition, or the (positive) errno of a failed close of the
    // file opened before: check IsOpen() rather than the sign alone.
    qsStatus CreateFileA(const char* path, DWORD access, DWORD share, _SECURITY_ATTRIBUTES* sa,
                         DWORD disposition, DWORD flagsAndAttributes,
                         ZFileABC* templateFile) override;
    bool IsOpen() const override;
    bool IsPreExisting() const override;
    const char* GetFileName() const override;
    bool CloseHandle() override;
    // *high is always 0.  A size whose low half is 0xFFFFFFFF leaves errno 0.
    DWORD GetFileSize(DWORD* high) override;
    bool GetFileSizeEx(_LARGE_INTEGER* size) override;
    // One read or write of the whole length; a short count is not a failure.
    bool ReadFile(void* buffer, DWORD length, DWORD* done, _OVERLAPPED* ov) override;
    bool WriteFile(const void* buffer, DWORD length, DWORD* done, _OVERLAPPED* ov) override;
    // The distance is *high:low when high is given, else low sign-extended.  A
    // position whose low half is 0xFFFFFFFF is returned as such with errno 0.
    DWORD SetFilePointer(LONG low, LONG* high, DWORD moveMethod) override;
    bool SetEndOfFile() override;
    // Attributes (by mode bits, as GetFileAttributesA), times to the second,
    // 64-bit size and the last path component.  A missing path gives
    // 0xE0FF0108 and is not logged.
    qsStatus GetWinFindData(const char* path, _WIN32_FIND_DATAA* data) override;
    // PAGE_READONLY or PAGE_READWRITE; PAGE_WRITECOPY is refused.  A named
    // mapping is shared (changes reach the file, and children forked later
    // share the pages), an unnamed one is private to the process.  A file
    // shorter than maxLow is grown first; maxHigh is not used.  Any current
    // view is dropped first.
    void* MapFile(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh, DWORD maxLow,
                  const char* name) override;
    void* GetFileMapping() const override;
    // Null base: the current view; length 0: to the end of the view.  A base
    // inside a page flushes from that page's start.  No view: true.
    bool FlushViewOfFile(void* base, DWORD length) const override;
    void UnMapFile() override;
    bool SetFileTime(const FILETIME* creation, const FILETIME* access,
                     const FILETIME* write) override;
    bool GetFileTime(FILETIME* creation, FILETIME* access, FILETIME* write) override;
    // True for a real directory (S_ISDIR), not by the attribute bit rule.
    bool IsDir(const char* path) override;
    // FILE_MAP_READ, FILE_MAP_WRITE or FILE_MAP_ALL_ACCESS; length 0 maps the
    // whole file; offsetHigh is not used.  Shared or private as the last
    // MapFile/CreateFileMappingA chose (shared before either).  The new view
    // replaces the current one.
    void* MapViewOfFile(DWORD desiredAccess, DWORD offsetHigh, DWORD offsetLow,
                        DWORD length) override;
    // Only the current view can be unmapped.
    bool UnmapViewOfFile(const void* address) override;
    // Takes ownership of the descriptor whose value the handle carries, after
    // closing the current file; null or a negative value leaves it closed.
    void SetHandle(void* handle) override;
    // MapFile without the view: sets sharing from the name and grows the
    // file.  Returns this object as the mapping's handle, or null.
    void* CreateFileMappingA(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh, DWORD maxLow,
                             const char* name) override;
    // fstat(2) on the descriptor; a 32-bit build fills the 32-bit record.
    int fstat(struct stat* st) override;

    // Unmaps (if asked) and closes; the name and the pre-existing flag are
    // cleared whatever happens.  True when nothing failed, also when nothing
    // was open.
    bool CloseHandleInternal(bool unmapFirst);

private:
    void Report(qsStatus code, const char* format, ...) const;
    bool CheckOpen(const char* where, const char* format) const;
    bool PrepareMapping(const char* where, DWORD protect, DWORD maxLow, const char* name,
                        DWORD* desiredAccess);
    void* MapView(const char* where, DWORD desiredAccess, DWORD offsetLow, DWORD length);

    int m_fd;
    char* m_pName;        // heap copy of the opened path, or the shared empty name
    bool m_bPreExisting;
    void* m_pMapAddr;
    size_t m_MapLen;
    int m_MapFlags;       // MAP_SHARED for named mappings, MAP_PRIVATE for unnamed ones
};

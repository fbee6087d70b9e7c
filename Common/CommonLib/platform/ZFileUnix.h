// The local delegate of ZFile: the Windows-style file operations on one
// POSIX file descriptor and at most one mapping of it.
#pragma once

#include "ZFileABC.h"

#include <cstddef>

class ZFileUnix : public ZFileABC {
public:
    ZFileUnix();
    ~ZFileUnix() override;
    ZFileUnix(const ZFileUnix&) = delete;
    ZFileUnix& operator=(const ZFileUnix&) = delete;

    qsStatus CreateFileA(const char* path, DWORD access, DWORD share, _SECURITY_ATTRIBUTES* sa,
                         DWORD disposition, DWORD flagsAndAttributes,
                         ZFileABC* templateFile) override;
    bool IsOpen() const override;
    bool IsPreExisting() const override;
    const char* GetFileName() const override;
    bool CloseHandle() override;
    DWORD GetFileSize(DWORD* high) override;
    bool GetFileSizeEx(_LARGE_INTEGER* size) override;
    bool ReadFile(void* buffer, DWORD length, DWORD* done, _OVERLAPPED* ov) override;
    bool WriteFile(const void* buffer, DWORD length, DWORD* done, _OVERLAPPED* ov) override;
    DWORD SetFilePointer(LONG low, LONG* high, DWORD moveMethod) override;
    bool SetEndOfFile() override;
    qsStatus GetWinFindData(const char* path, _WIN32_FIND_DATAA* data) override;
    // A named mapping is shared (changes reach the file), an unnamed one is
    // private to the process.  A file shorter than maxLow is grown first.
    void* MapFile(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh, DWORD maxLow,
                  const char* name) override;
    void* GetFileMapping() const override;
    bool FlushViewOfFile(void* base, DWORD length) const override;
    void UnMapFile() override;
    bool SetFileTime(const FILETIME* creation, const FILETIME* access,
                     const FILETIME* write) override;
    bool GetFileTime(FILETIME* creation, FILETIME* access, FILETIME* write) override;
    bool IsDir(const char* path) override;
    void* MapViewOfFile(DWORD desiredAccess, DWORD offsetHigh, DWORD offsetLow,
                        DWORD length) override;
    bool UnmapViewOfFile(const void* address) override;
    void SetHandle(void* handle) override;
    void* CreateFileMappingA(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh, DWORD maxLow,
                             const char* name) override;
    int fstat(struct stat* st) override;

    bool CloseHandleInternal(bool unmapFirst);

private:
    int m_fd;
    char* m_pName;        // heap copy of the opened path, or the shared empty name
    bool m_bPreExisting;
    void* m_pMapAddr;
    size_t m_MapLen;
    int m_MapFlags;       // MAP_SHARED for named mappings, MAP_PRIVATE otherwise
};

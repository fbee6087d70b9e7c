// The Windows-style file interface.
//
// ZFile is what callers hold; it forwards every operation to a delegate
// chosen from the path (ZFileUnix for local files, an NFS delegate for
// host:path names of other computers).  The operations keep the Windows
// names, arguments and constants; the virtual slot order below is part of
// the interface and must not change.
//
// Failures are returned (a status code, false, null or 0xFFFFFFFF) and, when
// the log-errors flag is set (the default), also logged at severity 4.
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

#include <vector>

struct stat;

class ZFileABC {
public:
    ZFileABC() = default;
    virtual ~ZFileABC();                                               // slot 1

    virtual qsStatus CreateFileA(const char* path, DWORD access, DWORD share,
                                 _SECURITY_ATTRIBUTES* sa, DWORD disposition,
                                 DWORD flagsAndAttributes, ZFileABC* templateFile) = 0;
    virtual bool IsOpen() const = 0;
    virtual bool IsPreExisting() const = 0;
    virtual const char* GetFileName() const = 0;                       // slot 5
    virtual bool CloseHandle() = 0;
    virtual DWORD GetFileSize(DWORD* high) = 0;
    virtual bool GetFileSizeEx(_LARGE_INTEGER* size) = 0;
    virtual bool ReadFile(void* buffer, DWORD length, DWORD* done, _OVERLAPPED* ov) = 0;
    virtual bool WriteFile(const void* buffer, DWORD length, DWORD* done,
                           _OVERLAPPED* ov) = 0;                       // slot 10
    virtual DWORD SetFilePointer(LONG low, LONG* high, DWORD moveMethod) = 0;
    virtual bool SetEndOfFile() = 0;
    virtual qsStatus GetWinFindData(const char* path, _WIN32_FIND_DATAA* data) = 0;
    virtual void* MapFile(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh, DWORD maxLow,
                          const char* name) = 0;
    virtual void* GetFileMapping() const = 0;                          // slot 15
    virtual bool FlushViewOfFile(void* base, DWORD length) const = 0;
    virtual void UnMapFile() = 0;
    virtual bool SetFileTime(const FILETIME* creation, const FILETIME* access,
                             const FILETIME* write) = 0;
    virtual bool GetFileTime(FILETIME* creation, FILETIME* access, FILETIME* write) = 0;
    virtual bool IsDir(const char* path) = 0;                          // slot 20
    virtual void* MapViewOfFile(DWORD desiredAccess, DWORD offsetHigh, DWORD offsetLow,
                                DWORD length) = 0;
    virtual bool UnmapViewOfFile(const void* address) = 0;
    virtual void SetHandle(void* handle) = 0;
    virtual void* CreateFileMappingA(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh,
                                     DWORD maxLow, const char* name) = 0;
    virtual int fstat(struct stat* st) = 0;                            // slot 25
    virtual void SetNFSCredentials(int uid, const std::vector<int>& gids);

    bool LogErrors() const { return m_bLogErrors; }
    void SetLogErrors(bool on) { m_bLogErrors = on; }

protected:
    int m_NFSUid = 0;
    std::vector<int> m_NFSGids{0};
    bool m_bLogErrors = true;
};

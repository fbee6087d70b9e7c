// The file object callers hold: it owns one delegate, chosen from the path
// by InitDelegate, and forwards every operation to it.  With no delegate,
// queries answer as for a closed file.
#pragma once

#include "ZFileABC.h"

class ZFile : public ZFileABC {
public:
    ZFile() = default;
    ~ZFile() override;
    ZFile(const ZFile&) = delete;
    ZFile& operator=(const ZFile&) = delete;

    // Replaces the delegate: a path without ':' is local; host:path is local
    // when the host is this computer (the prefix is then stripped before the
    // delegate sees the path) and otherwise needs the NFS delegate.
    // Returns 0, or a failure status when no delegate can serve the path.
    qsStatus InitDelegate(const char* path);
    ZFileABC* Delegate() const { return m_pDelegate; }
    // Also switches the current delegate (a new one inherits the flag).
    void SetLogErrors(bool on);

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
    void SetNFSCredentials(int uid, const std::vector<int>& gids) override;

private:
    ZFileABC* m_pDelegate = nullptr;
};

#include "ZFile.h"

#include "ZFileUnix.h"
#include "qsLog.h"
#include "qsWinApi.h"

#include <cstring>
#include <sys/stat.h>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls all use it.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

// Remote files need the NFS delegate, which this build does not have yet: a
// host prefix naming another computer is refused rather than misread as a
// local path.
constexpr qsStatus kNoRemoteDelegate = QS_E_NOT_VALID;

bool IsThisComputer(const char* host, size_t length) {
    char name[MAX_PATH];
    DWORD size = sizeof name;
    if (!GetComputerNameA(name, &size))
        return false;
    return strlen(name) == length && memcmp(name, host, length) == 0;
}

} // namespace

ZFile::~ZFile() { delete m_pDelegate; }

qsStatus ZFile::InitDelegate(const char* path) {
    delete m_pDelegate;
    m_pDelegate = nullptr;
    const char* colon = path ? strchr(path, ':') : nullptr;
    if (colon && !IsThisComputer(path, size_t(colon - path))) {
        if (m_bLogErrors)
            qsLogPrintfA(LONG(kNoRemoteDelegate), qsLogSevSysCall,
                         "%hs: no delegate for remote path <%s>.", "ZFile::InitDelegate", path);
        return kNoRemoteDelegate;
    }
    m_pDelegate = new ZFileUnix;
    m_pDelegate->SetLogErrors(m_bLogErrors);
    m_pDelegate->SetNFSCredentials(m_NFSUid, m_NFSGids);
    return QS_OK;
}

// The local delegate is handed the path without its host prefix.
static const char* LocalPart(const char* path) {
    const char* colon = path ? strchr(path, ':') : nullptr;
    return colon ? colon + 1 : path;
}

qsStatus ZFile::CreateFileA(const char* path, DWORD access, DWORD share, _SECURITY_ATTRIBUTES* sa,
                            DWORD disposition, DWORD flagsAndAttributes, ZFileABC*) {
    qsStatus s = InitDelegate(path);
    if (qsFailed(s))
        return s;
    return m_pDelegate->CreateFileA(LocalPart(path), access, share, sa, disposition,
                                    flagsAndAttributes, nullptr);
}

bool ZFile::IsOpen() const { return m_pDelegate && m_pDelegate->IsOpen(); }
bool ZFile::IsPreExisting() const { return m_pDelegate && m_pDelegate->IsPreExisting(); }
// A closed file's name is empty, never null: callers print it.
const char* ZFile::GetFileName() const { return m_pDelegate ? m_pDelegate->GetFileName() : ""; }
bool ZFile::CloseHandle() { return m_pDelegate && m_pDelegate->CloseHandle(); }

DWORD ZFile::GetFileSize(DWORD* high) {
    if (m_pDelegate)
        return m_pDelegate->GetFileSize(high);
    if (high)
        *high = 0;
    return 0;
}

bool ZFile::GetFileSizeEx(_LARGE_INTEGER* size) {
    return m_pDelegate && m_pDelegate->GetFileSizeEx(size);
}
bool ZFile::ReadFile(void* buffer, DWORD length, DWORD* done, _OVERLAPPED* ov) {
    return m_pDelegate && m_pDelegate->ReadFile(buffer, length, done, ov);
}
bool ZFile::WriteFile(const void* buffer, DWORD length, DWORD* done, _OVERLAPPED* ov) {
    return m_pDelegate && m_pDelegate->WriteFile(buffer, length, done, ov);
}
DWORD ZFile::SetFilePointer(LONG low, LONG* high, DWORD moveMethod) {
    return m_pDelegate ? m_pDelegate->SetFilePointer(low, high, moveMethod)
                       : INVALID_SET_FILE_POINTER;
}
bool ZFile::SetEndOfFile() { return m_pDelegate && m_pDelegate->SetEndOfFile(); }

// The find-data and directory queries pick a delegate for their own path only
// when the object has none yet; otherwise the existing delegate answers.
qsStatus ZFile::GetWinFindData(const char* path, _WIN32_FIND_DATAA* data) {
    if (!m_pDelegate) {
        qsStatus s = InitDelegate(path);
        if (qsFailed(s))
            return s;
    }
    return m_pDelegate->GetWinFindData(LocalPart(path), data);
}

void* ZFile::MapFile(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh, DWORD maxLow,
                     const char* name) {
    return m_pDelegate ? m_pDelegate->MapFile(sa, protect, maxHigh, maxLow, name) : nullptr;
}
void* ZFile::GetFileMapping() const {
    return m_pDelegate ? m_pDelegate->GetFileMapping() : nullptr;
}
bool ZFile::FlushViewOfFile(void* base, DWORD length) const {
    return m_pDelegate && m_pDelegate->FlushViewOfFile(base, length);
}
void ZFile::UnMapFile() {
    if (m_pDelegate)
        m_pDelegate->UnMapFile();
}
bool ZFile::SetFileTime(const FILETIME* creation, const FILETIME* access, const FILETIME* write) {
    return m_pDelegate && m_pDelegate->SetFileTime(creation, access, write);
}
bool ZFile::GetFileTime(FILETIME* creation, FILETIME* access, FILETIME* write) {
    return m_pDelegate && m_pDelegate->GetFileTime(creation, access, write);
}

bool ZFile::IsDir(const char* path) {
    if (!m_pDelegate && qsFailed(InitDelegate(path)))
        return false;
    return m_pDelegate->IsDir(LocalPart(path));
}

void* ZFile::MapViewOfFile(DWORD desiredAccess, DWORD offsetHigh, DWORD offsetLow, DWORD length) {
    return m_pDelegate ? m_pDelegate->MapViewOfFile(desiredAccess, offsetHigh, offsetLow, length)
                       : nullptr;
}
bool ZFile::UnmapViewOfFile(const void* address) {
    return m_pDelegate && m_pDelegate->UnmapViewOfFile(address);
}
void ZFile::SetHandle(void* handle) {
    if (m_pDelegate)
        m_pDelegate->SetHandle(handle);
}
void* ZFile::CreateFileMappingA(_SECURITY_ATTRIBUTES* sa, DWORD protect, DWORD maxHigh,
                                DWORD maxLow, const char* name) {
    return m_pDelegate ? m_pDelegate->CreateFileMappingA(sa, protect, maxHigh, maxLow, name)
                       : nullptr;
}
int ZFile::fstat(struct stat* st) { return m_pDelegate ? m_pDelegate->fstat(st) : -1; }

void ZFile::SetLogErrors(bool on) {
    ZFileABC::SetLogErrors(on);
    if (m_pDelegate)
        m_pDelegate->SetLogErrors(on);
}

void ZFile::SetNFSCredentials(int uid, const std::vector<int>& gids) {
    ZFileABC::SetNFSCredentials(uid, gids);
    if (m_pDelegate)
        m_pDelegate->SetNFSCredentials(uid, gids);
}

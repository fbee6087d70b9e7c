// Placeholder: only the queries the logging interface needs.  Replaced by the
// full local delegate.
#include "ZFileUnix.h"

#include "qsWinApi.h"

#include <cstring>
#include <sys/stat.h>

static char g_EmptyName[1] = "";

ZFileUnix::ZFileUnix()
    : m_fd(-1), m_pName(g_EmptyName), m_bPreExisting(false), m_pMapAddr(nullptr), m_MapLen(0),
      m_MapFlags(0) {}
ZFileUnix::~ZFileUnix() = default;

qsStatus ZFileUnix::CreateFileA(const char*, DWORD, DWORD, _SECURITY_ATTRIBUTES*, DWORD, DWORD,
                                ZFileABC*) {
    return QS_E_FILE_OPEN;
}
bool ZFileUnix::IsOpen() const { return false; }
bool ZFileUnix::IsPreExisting() const { return false; }
const char* ZFileUnix::GetFileName() const { return m_pName; }
bool ZFileUnix::CloseHandle() { return false; }
DWORD ZFileUnix::GetFileSize(DWORD*) { return INVALID_FILE_SIZE; }
bool ZFileUnix::GetFileSizeEx(_LARGE_INTEGER*) { return false; }
bool ZFileUnix::ReadFile(void*, DWORD, DWORD*, _OVERLAPPED*) { return false; }
bool ZFileUnix::WriteFile(const void*, DWORD, DWORD*, _OVERLAPPED*) { return false; }
DWORD ZFileUnix::SetFilePointer(LONG, LONG*, DWORD) { return INVALID_SET_FILE_POINTER; }
bool ZFileUnix::SetEndOfFile() { return false; }
qsStatus ZFileUnix::GetWinFindData(const char* path, _WIN32_FIND_DATAA* data) {
    WIN32_FILE_ATTRIBUTE_DATA a;
    if (GetFileAttributes_Common(path, &a) == INVALID_FILE_ATTRIBUTES)
        return QS_E_NOT_FOUND;
    memset(data, 0, sizeof *data);
    data->dwFileAttributes = a.dwFileAttributes;
    data->nFileSizeLow = a.nFileSizeLow;
    return QS_OK;
}
void* ZFileUnix::MapFile(_SECURITY_ATTRIBUTES*, DWORD, DWORD, DWORD, const char*) {
    return nullptr;
}
void* ZFileUnix::GetFileMapping() const { return nullptr; }
bool ZFileUnix::FlushViewOfFile(void*, DWORD) const { return false; }
void ZFileUnix::UnMapFile() {}
bool ZFileUnix::SetFileTime(const FILETIME*, const FILETIME*, const FILETIME*) { return false; }
bool ZFileUnix::GetFileTime(FILETIME*, FILETIME*, FILETIME*) { return false; }
bool ZFileUnix::IsDir(const char* path) {
    DWORD a = GetFileAttributesA(path);
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}
void* ZFileUnix::MapViewOfFile(DWORD, DWORD, DWORD, DWORD) { return nullptr; }
bool ZFileUnix::UnmapViewOfFile(const void*) { return false; }
void ZFileUnix::SetHandle(void*) {}
void* ZFileUnix::CreateFileMappingA(_SECURITY_ATTRIBUTES*, DWORD, DWORD, DWORD, const char*) {
    return nullptr;
}
int ZFileUnix::fstat(struct stat*) { return -1; }
bool ZFileUnix::CloseHandleInternal(bool) { return true; }

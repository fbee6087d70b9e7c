#include "qsSysInfo.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace {

// Zero-initialised before any code runs; only Fill writes it.
struct SysInfoRecord {
    WORD m_ProcessorArchitecture;
    DWORD m_PageSize;
    DWORD m_AllocationGranularity;
    DWORD m_MinValidAddress;
    DWORD m_MaxValidAddress;
    DWORD m_NumberOfProcessors;
    DWORD m_OsMajorVersion;
    DWORD m_OsMinorVersion;
    DWORD m_OsBuildNumber;
    char* m_OsCSDVersion;
    WORD m_OsServicePackMajor;
    WORD m_OsServicePackMinor;
    WORD m_OsSuiteMask;
    BYTE m_OsProductType;
    char* m_SystemDirectory;
    char* m_ComputerName;
    char* m_DomainName;
    char* m_CurrentUser;
};

constinit SysInfoRecord g_SysInfo{};
constinit pthread_once_t g_SysInfoOnce = PTHREAD_ONCE_INIT;

void ReleaseTexts() {
    char** texts[] = {&g_SysInfo.m_OsCSDVersion, &g_SysInfo.m_SystemDirectory,
                      &g_SysInfo.m_ComputerName, &g_SysInfo.m_DomainName, &g_SysInfo.m_CurrentUser};
    for (char** text : texts) {
        delete[] * text;
        *text = nullptr;
    }
}

void Fill() {
    SysInfoRecord& r = g_SysInfo;
    long page = sysconf(_SC_PAGESIZE);
    r.m_PageSize = page > 0 ? DWORD(page) : 0;
    r.m_AllocationGranularity = r.m_PageSize;
    long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    r.m_NumberOfProcessors = cpus > 0 ? DWORD(cpus) : 1;
    utsname u;
    if (uname(&u) == 0) {
        qsSysInfo::AllocAndCopyString(u.nodename, r.m_ComputerName);
        qsSysInfo::AllocAndCopyString(u.domainname, r.m_DomainName);
    }
    qsSysInfo::AllocAndCopyString(getenv("USER"), r.m_CurrentUser);
    // Registered once the texts exist, so the release runs after the exit
    // clean-up of anything whose construction triggered the first use.
    atexit(ReleaseTexts);
}

const SysInfoRecord& Record() {
    pthread_once(&g_SysInfoOnce, Fill);
    return g_SysInfo;
}

const char* Text(char* const SysInfoRecord::*field) {
    const char* text = Record().*field;
    return text ? text : "";
}

// Gathers the facts before main, for programs that never ask before then.
[[maybe_unused]] const bool g_SysInfoFilledAtStart = (Record(), true);

} // namespace

void qsSysInfo::AllocAndCopyString(const char* src, char*& dst) {
    if (!src) {
        dst = nullptr;
        return;
    }
    size_t n = strlen(src) + 1;
    dst = new char[n];
    memcpy(dst, src, n);
}

WORD qsSysInfo::ProcessorArchitecture() {
    return Record().m_ProcessorArchitecture;
}
DWORD qsSysInfo::PageSize() {
    return Record().m_PageSize;
}
DWORD qsSysInfo::AllocationGranularity() {
    return Record().m_AllocationGranularity;
}
DWORD qsSysInfo::MinValidAddress() {
    return Record().m_MinValidAddress;
}
DWORD qsSysInfo::MaxValidAddress() {
    return Record().m_MaxValidAddress;
}
DWORD qsSysInfo::NumberOfProcessors() {
    return Record().m_NumberOfProcessors;
}

DWORD qsSysInfo::OsMajorVersion() {
    return Record().m_OsMajorVersion;
}
DWORD qsSysInfo::OsMinorVersion() {
    return Record().m_OsMinorVersion;
}
DWORD qsSysInfo::OsBuildNumber() {
    return Record().m_OsBuildNumber;
}
const char* qsSysInfo::OsCSDVersion() {
    return Text(&SysInfoRecord::m_OsCSDVersion);
}
WORD qsSysInfo::OsServicePackMajor() {
    return Record().m_OsServicePackMajor;
}
WORD qsSysInfo::OsServicePackMinor() {
    return Record().m_OsServicePackMinor;
}
WORD qsSysInfo::OsSuiteMask() {
    return Record().m_OsSuiteMask;
}
BYTE qsSysInfo::OsProductType() {
    return Record().m_OsProductType;
}

bool qsSysInfo::IsWinNT() {
    return false;
}
bool qsSysInfo::IsWin9x() {
    return false;
}
bool qsSysInfo::IsWin95() {
    return false;
}
bool qsSysInfo::IsWin98OrGreater() {
    return false;
}
bool qsSysInfo::IsWin2KOrGreater() {
    return false;
}
bool qsSysInfo::IsWinXPOrGreater() {
    return false;
}
bool qsSysInfo::IsWinServer2003OrGreater() {
    return false;
}
bool qsSysInfo::IsWinServer2003R2OrGreater() {
    return false;
}

const char* qsSysInfo::GetSystemDirectoryA() {
    return Text(&SysInfoRecord::m_SystemDirectory);
}
const char* qsSysInfo::GetComputerNameA() {
    return Text(&SysInfoRecord::m_ComputerName);
}
const char* qsSysInfo::GetDomainName() {
    return Text(&SysInfoRecord::m_DomainName);
}
const char* qsSysInfo::GetCurrentUser() {
    return Text(&SysInfoRecord::m_CurrentUser);
}

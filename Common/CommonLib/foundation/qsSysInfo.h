// Facts about the host, gathered once per process.
//
// The record is filled on first use, under a once-only guard, and a static
// initialiser of the library makes that first use happen before main.  Its
// storage is constant-initialised, so the accessors may be called from any
// static initialiser, in any file, whatever the initialisation order: the
// first caller fills it.  The owned texts are released at exit; the text
// accessors never return null and answer "" for a text that is unset, could
// not be read, or has already been released.
//
// Several fields keep the shape of the Windows system record and are
// constant on this platform (zero, false or ""), as noted.
#pragma once

#include "qsWinTypes.h"

namespace qsSysInfo {

WORD ProcessorArchitecture();  // 0
DWORD PageSize();              // sysconf(_SC_PAGESIZE), 0 when unknown
DWORD AllocationGranularity(); // the page size
DWORD MinValidAddress();       // 0
DWORD MaxValidAddress();       // 0
DWORD NumberOfProcessors();    // processors online, 1 when unknown

DWORD OsMajorVersion();     // 0
DWORD OsMinorVersion();     // 0
DWORD OsBuildNumber();      // 0
const char* OsCSDVersion(); // ""
WORD OsServicePackMajor();  // 0
WORD OsServicePackMinor();  // 0
WORD OsSuiteMask();         // 0
BYTE OsProductType();       // 0

// All false.
bool IsWinNT();
bool IsWin9x();
bool IsWin95();
bool IsWin98OrGreater();
bool IsWin2KOrGreater();
bool IsWinXPOrGreater();
bool IsWinServer2003OrGreater();
bool IsWinServer2003R2OrGreater();

const char* GetSystemDirectoryA(); // ""
const char* GetComputerNameA();    // uname's node name
const char* GetDomainName();       // uname's domain name
const char* GetCurrentUser();      // $USER at the time of the first use

// Replaces *dst with an owned copy of src (an array of strlen + 1 bytes,
// released with delete[]); a null src leaves *dst null.  The previous value
// of dst is not released.
void AllocAndCopyString(const char* src, char*& dst);

} // namespace qsSysInfo

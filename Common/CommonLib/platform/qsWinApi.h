// The Windows-style system functions, implemented on POSIX.
//
// They keep the Windows names, argument orders and results (BOOL FALSE, 0,
// null, 0xFFFFFFFF).  There is no last-error slot: the cause of a failure is
// the C library's errno, into which a few functions store a Windows error
// number (87, 2, 5, 122).  Nothing here logs or throws.
#pragma once

#include "qsWinTypes.h"

#include <pthread.h>

// Sleeping and coarse time.
void Sleep(DWORD ms);
// Milliseconds of elapsed real time in whole-second steps: the tick count is
// divided by the clock rate before the multiplication by 1000.
DWORD GetTickCount();

// Time values.  "Local" FILETIMEs are the same numbers as UTC ones; only
// FileTimeToSystemTime renders in local time, which keeps it the inverse of
// SystemTimeToFileTime to the second.
void GetSystemTime(SYSTEMTIME* st);
void GetSystemTimeAsFileTime(FILETIME* ft);
void GetLocalTime(SYSTEMTIME* st);
BOOL SystemTimeToFileTime(const SYSTEMTIME* st, FILETIME* ft);
BOOL FileTimeToSystemTime(const FILETIME* ft, SYSTEMTIME* st);
BOOL FileTimeToLocalFileTime(const FILETIME* ft, FILETIME* local);
BOOL LocalFileTimeToFileTime(const FILETIME* local, FILETIME* ft);
// Whole seconds both ways; sub-second parts are dropped.  `long` as the
// interface has always had it: 32 bits on the library's own platform, where
// a FILETIME before 1970 wraps.
void UNIXTimeToFILETIME(const long& seconds, FILETIME& ft);
long FILETIMEToUNIXTime(const FILETIME& ft);

// 65536-aligned heap blocks; only the (null, n, MEM_COMMIT, PAGE_READWRITE)
// and (p, 0, MEM_RELEASE) forms are supported.
void* VirtualAlloc(void* address, DWORD size, DWORD type, DWORD protect);
BOOL VirtualFree(void* address, DWORD size, DWORD type);

// File attributes from stat(2).  The type is read by single mode bits (0x4000
// directory, else 0x8000 normal), so sockets and block devices report as
// directories; that rule is relied upon and must not be "fixed".
DWORD GetFileAttributes_Common(const char* path, WIN32_FILE_ATTRIBUTE_DATA* data);
DWORD GetFileAttributesA(const char* path);
// Only level 0; everything up to and including the first ':' is cut off.
BOOL GetFileAttributesExA(const char* path, int level, WIN32_FILE_ATTRIBUTE_DATA* data);
BOOL SetFileAttributesA(const char* path, DWORD attributes);

// One-line file-system calls.
BOOL CreateDirectoryA(const char* path, SECURITY_ATTRIBUTES* sa);
BOOL RemoveDirectoryA(const char* path);
BOOL MoveFileA(const char* from, const char* to);
BOOL DeleteFileA(const char* path);

// Copies a file's contents and permission bits (less the umask; times, owner
// and extended attributes are not copied), mapping the source and writing it
// with one write(2), or in 65536-byte chunks when it cannot be mapped (an
// empty file, say).  With failIfExists an existing target fails the call
// untouched, with errno EEXIST.  FALSE leaves errno as the cause; nothing is
// logged: callers report the failure in their own terms.
BOOL CopyFileA(const char* from, const char* to, BOOL failIfExists);

// A time-based GUID: 100-ns intervals of the current time, counted from
// 1963-07-16 16:00 UTC, in Data1..Data3 with the version-1 mark; Data4 is two
// bytes of rand_r seeded from the time's low word and six characters of a
// crypt(3) hash of the host name.  GUIDs made in one microsecond on one host
// are therefore equal.  crypt's result is a static buffer: concurrent calls
// may mix their hash characters.  Always S_OK; a null pointer does nothing.
HRESULT CoCreateGuid(GUID* guid);

// Paths and host facts.
DWORD GetTempPathA(DWORD size, char* buffer);
BOOL PathMatchSpec(const char* name, const char* pattern);
// FALSE only for a leading backslash or a ':' second character: a POSIX
// absolute path counts as relative here, as on Windows.
BOOL PathIsRelative(const char* path);
// Fails when *size is below 16, whatever the name's length; never updates *size.
BOOL GetComputerNameA(char* buffer, DWORD* size);

// The caller's process id, read once per process and refreshed in the child
// after fork(), so that hot paths need no system call; and the calling
// thread's handle truncated to 32 bits.
DWORD GetCurrentProcessId();
DWORD GetCurrentThreadId();

// The one process-wide lock that makes the library's reference-count changes
// atomic.  Held only around one counter change, never with another lock.
extern pthread_mutex_t gInterlockMutex;
LONG InterlockedIncrement(LONG* value);
LONG InterlockedDecrement(LONG* value);

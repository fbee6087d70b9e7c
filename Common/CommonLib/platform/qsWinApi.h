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
void UNIXTimeToFILETIME(const LONG& seconds, FILETIME& ft);
LONG FILETIMEToUNIXTime(const FILETIME& ft);

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

// The Windows-style records and constants the library is written against.
//
// Widths are those of the 32-bit Windows ABI whatever the build: DWORD and
// LONG are 32 bits here also on x86_64, where C++'s long is 64.
#pragma once

#include <cstdint>

typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef int32_t BOOL;
typedef int32_t HRESULT;
typedef void* HANDLE;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#ifndef MAX_PATH
#define MAX_PATH 260
#endif

// 100-ns intervals since 1601-01-01 UTC, low word first.
typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME;

// FILETIME of 1970-01-01 00:00:00 UTC, and the FILETIME units per second.
constexpr uint64_t QS_FILETIME_UNIX_EPOCH = 116444736000000000ULL;
constexpr uint64_t QS_FILETIME_PER_SECOND = 10000000ULL;

inline uint64_t qsFileTimeToUInt64(const FILETIME& ft) {
    return (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}
inline FILETIME qsUInt64ToFileTime(uint64_t v) {
    return FILETIME{DWORD(v), DWORD(v >> 32)};
}

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME;

typedef struct _WIN32_FILE_ATTRIBUTE_DATA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
} WIN32_FILE_ATTRIBUTE_DATA;

typedef struct _WIN32_FIND_DATAA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    char cFileName[MAX_PATH];
    char cAlternateFileName[14];
} WIN32_FIND_DATAA;

typedef struct _GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
} GUID;

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    int64_t QuadPart;
} LARGE_INTEGER;

// Accepted wherever a Windows signature has one; ignored by this system
// (except that CreateFileA reads a small value as the new file's mode).
typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    void* lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED {
    uintptr_t Internal;
    uintptr_t InternalHigh;
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent;
} OVERLAPPED;

// The records are laid out as on the 32-bit platform whatever the build.
static_assert(sizeof(FILETIME) == 8 && sizeof(SYSTEMTIME) == 16);
static_assert(sizeof(WIN32_FILE_ATTRIBUTE_DATA) == 36 && sizeof(WIN32_FIND_DATAA) == 320);
static_assert(sizeof(GUID) == 16 && sizeof(LARGE_INTEGER) == 8);

constexpr HRESULT S_OK = 0;

// File attributes.
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x100;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;

// Access rights, sharing and creation dispositions.
constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD GENERIC_WRITE = 0x40000000;
constexpr DWORD GENERIC_EXECUTE = 0x20000000;
constexpr DWORD GENERIC_ALL = 0x10000000;
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD FILE_SHARE_WRITE = 2;
constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;
constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;
constexpr DWORD FILE_END = 2;
constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFF;
constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFF;

// Memory and mapping.
constexpr DWORD MEM_COMMIT = 0x1000;
constexpr DWORD MEM_RESERVE = 0x2000;
constexpr DWORD MEM_RELEASE = 0x8000;
constexpr DWORD PAGE_READONLY = 2;
constexpr DWORD PAGE_READWRITE = 4;
constexpr DWORD PAGE_WRITECOPY = 8;
constexpr DWORD FILE_MAP_WRITE = 2;
constexpr DWORD FILE_MAP_READ = 4;
constexpr DWORD FILE_MAP_ALL_ACCESS = 0xF001F;

// Windows error numbers that the emulation stores into errno.
constexpr int ERROR_FILE_NOT_FOUND = 2;
constexpr int ERROR_PATH_NOT_FOUND = 3;
constexpr int ERROR_ACCESS_DENIED = 5;
constexpr int ERROR_INVALID_PARAMETER = 87;
constexpr int ERROR_INSUFFICIENT_BUFFER = 122;
constexpr int ERROR_ALREADY_EXISTS = 183;

// Internal: how the platform layer turns stat(2) results into Windows-style
// attributes and find records.  One rule for the attribute query, the file
// object and the directory enumerator, so that they never disagree.
#pragma once

#include "qsWinTypes.h"

#include <cstddef>
#include <sys/stat.h>

// By single mode bits, not by the type field: 0x4000 is a directory, else
// 0x8000 a normal file, else 0.  Sockets and block devices, whose type codes
// hold the 0x4000 bit, read as directories.  Relied upon; keep it.
inline DWORD qsAttributesFromMode(uint32_t mode) {
    if (mode & 0x4000)
        return FILE_ATTRIBUTE_DIRECTORY;
    if (mode & 0x8000)
        return FILE_ATTRIBUTE_NORMAL;
    return 0;
}

// Clears the record whole, then: attributes by the rule above, access and
// write times to the second, the 64-bit size in two words and `name` (its
// first `length` bytes, cut to fit the 260-byte field with its terminator).
void qsFillFindData(const struct stat64& st, const char* name, size_t length,
                    WIN32_FIND_DATAA* data);

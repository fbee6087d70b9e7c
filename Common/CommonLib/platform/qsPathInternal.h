// Internal: the small pieces the path grammar's source files share.
#pragma once

#include "qsStatus.h"

#include <cstddef>
#include <cstring>

namespace qsPath {

// ASCII only: drive letters are never locale-dependent.
inline bool IsLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// A letter, ":" and a backslash: the root of a drive path.
inline bool IsDriveRoot(const char* p) {
    return IsLetter(p[0]) && p[1] == ':' && p[2] == '\\';
}

// Leaves an output buffer terminated on the way out of a failure.
inline qsStatus Terminate(char* buffer, unsigned long size, qsStatus status) {
    if (buffer && size)
        buffer[0] = '\0';
    return status;
}

// Copies `length` bytes and a terminator when they fit in `size`.
inline qsStatus CopyOut(const char* text, size_t length, char* buffer, unsigned long size) {
    if (!buffer)
        return QS_E_INVALIDARG;
    if (length >= size)
        return Terminate(buffer, size, QS_E_BUFFER_TOO_SMALL);
    memcpy(buffer, text, length);
    buffer[length] = '\0';
    return QS_OK;
}

} // namespace qsPath

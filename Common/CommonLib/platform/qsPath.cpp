// Classification, slashes, nodes and path relations.
#include "qsPath.h"
#include "qsPathInternal.h"

#include "ZCString.h"
#include "qsLog.h"

#include <cstring>
#include <strings.h>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls use it.
#pragma GCC diagnostic ignored "-Wformat"

namespace qsPath {

bool IsSlash(char c) {
    return c == '\\' || c == '/';
}

bool GetLongPathPrefixLen(const char* path, int& length, bool* isDrive) {
    length = 0;
    bool ok = true;
    if (path && IsSlash(path[0]) && IsSlash(path[1]) && path[2] == '?') {
        if (path[0] != '\\' || path[1] != '\\' || path[3] != '\\') {
            ok = false;
        } else if (strncasecmp(path + 4, "UNC", 3) == 0 && path[7] == '\\') {
            length = 8;
            ok = !IsSlash(path[8]);
        } else if (IsLetter(path[4]) && path[5] == ':' && path[6] == '\\') {
            length = 4;
        } else {
            ok = false;
        }
    }
    if (isDrive)
        *isDrive = length == 4;
    return ok;
}

eFormat GetFormat(const char* path) {
    if (!path || !path[0])
        return eFormatUnknown;
    if (path[0] == '\\' && path[1] == '\\') {
        int length;
        bool isDrive;
        if (!GetLongPathPrefixLen(path, length, &isDrive))
            return eFormatUnknown;
        if (length == 0)
            return eFormatUnc;
        return isDrive ? eFormatLongDrive : eFormatLongUnc;
    }
    if (path[0] == '/')
        return eFormatUnix;
    if (IsDriveRoot(path))
        return eFormatDrive;
    const char* colon = strchr(path, ':');
    if (!colon)
        return eFormatUnknown;
    const char* after = colon + 1;
    if (after[0] == '/')
        return eFormatNfs;
    if (IsDriveRoot(after))
        return eFormatHostDrive;
    int length;
    bool isDrive;
    if (GetLongPathPrefixLen(after, length, &isDrive) && isDrive)
        return eFormatHostLongDrive;
    return eFormatUnknown;
}

bool ValidateFormat(const char* path, eFormat allowed) {
    eFormat format = GetFormat(path);
    return format != eFormatUnknown && (format & allowed) != 0;
}

bool HasIllegalPathChars(const char* path, unsigned long allowMask, ZCString* illegalList) {
    static const char kCandidates[] = "\\/:*?\"<>|";
    if (!path || !path[0])
        return false;
    char remaining[sizeof kCandidates];
    size_t n = 0;
    for (size_t i = 0; i + 1 < sizeof kCandidates; ++i) {
        if (!(allowMask & (1ul << i)))
            remaining[n++] = kCandidates[i];
    }
    remaining[n] = '\0';
    if (n == 0 || !strpbrk(path, remaining))
        return false;
    if (illegalList) {
        illegalList->Empty();
        for (size_t i = 0; i < n; ++i) {
            if (i)
                *illegalList += ' ';
            *illegalList += remaining[i];
        }
    }
    return true;
}

const char* GetLastSlash(const char* path) {
    if (!path)
        return nullptr;
    const char* last = nullptr;
    for (const char* p = path; *p; ++p) {
        if (IsSlash(*p))
            last = p;
    }
    return last;
}

const char* GetNextSlash(const char* path, bool eitherKind) {
    if (!path)
        return nullptr;
    return eitherKind ? strpbrk(path, "\\/") : strchr(path, '\\');
}

qsStatus GetFirstNode(const char* path, char* buffer, unsigned long size) {
    if (!path)
        return Terminate(buffer, size, QS_E_INVALIDARG);
    if (path[0] == '/')
        return CopyOut(path, 1, buffer, size);
    const char* node = path;
    if (path[0] == '\\' && path[1] == '\\') {
        int length;
        if (!GetLongPathPrefixLen(path, length, nullptr))
            return Terminate(buffer, size, QS_E_INVALIDARG);
        node += length ? length : 2;
    }
    size_t n = strcspn(node, "\\/:");
    if (n == 1 && node[1] == ':' && node[2] == '\\')
        n = 3;
    return CopyOut(node, n, buffer, size);
}

qsStatus GetLastNode(const char* path, char* buffer, unsigned long size) {
    if (!path)
        return Terminate(buffer, size, QS_E_INVALIDARG);
    size_t end = strlen(path);
    if (end == 1 && path[0] == '/')
        return CopyOut(path, 1, buffer, size);
    if (end > 0 && IsSlash(path[end - 1]))
        --end;
    if (end == 0)
        return CopyOut(path, 0, buffer, size);
    // The walk never takes the first character: "abc" gives "bc".
    size_t start = end - 1;
    while (start > 0 && !IsSlash(path[start]))
        --start;
    ++start;
    return CopyOut(path + start, end - start, buffer, size);
}

// A node is never longer than its path.
template <typename Fill> qsStatus FillString(std::string& out, size_t size, Fill fill) {
    out.assign(size, '\0');
    qsStatus s = fill(out.data(), (unsigned long)size);
    out.resize(strlen(out.c_str()));
    return s;
}

qsStatus GetFirstNode(const char* path, std::string& node) {
    return FillString(node, path ? strlen(path) + 1 : 1,
                      [&](char* b, unsigned long n) { return GetFirstNode(path, b, n); });
}

qsStatus GetLastNode(const char* path, std::string& node) {
    return FillString(node, path ? strlen(path) + 1 : 1,
                      [&](char* b, unsigned long n) { return GetLastNode(path, b, n); });
}

bool PathMatch(const char* a, const char* b, ePathMatchType type, bool caseSensitive) {
    bool aEmpty = !a || !a[0], bEmpty = !b || !b[0];
    if (aEmpty || bEmpty)
        return aEmpty && bEmpty;
    auto equal = [&](const char* x, const char* y) {
        return (caseSensitive ? strcmp(x, y) : strcasecmp(x, y)) == 0;
    };
    auto below = [&](const char* child, const char* parent) {
        size_t n = strlen(parent);
        return strlen(child) > n &&
               (caseSensitive ? strncmp(child, parent, n) : strncasecmp(child, parent, n)) == 0 &&
               IsSlash(child[n]);
    };
    switch (type) {
    case ePathMatchExact:
        return equal(a, b);
    case ePathMatchChild:
        return below(a, b);
    case ePathMatchExactOrChild:
        return equal(a, b) || below(a, b);
    case ePathMatchParent:
        return below(b, a);
    case ePathMatchExactOrParent:
        return equal(a, b) || below(b, a);
    }
    qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall, "%hs: unknown match type %d",
                 "qsPath::PathMatch", int(type));
    return false;
}

} // namespace qsPath

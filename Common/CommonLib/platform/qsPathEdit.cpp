// Changing paths in place: appending, trimming, tightening, normalising, and
// turning path specifications into wildcard patterns.
#include "qsPath.h"
#include "qsPathInternal.h"

#include "ZBuffer.h"

#include <cctype>

namespace qsPath {

namespace {

// std::string never shares its characters: the buffer forms run on them
// directly and the string is then cut at the new terminator.
template <typename Edit> auto OnString(std::string& path, Edit edit) {
    auto result = edit(path.data());
    path.resize(strlen(path.c_str()));
    return result;
}

// One pass over the path.  Without `out` it only checks and tells whether
// anything would be dropped; with it, it writes the result there, which may
// be the path itself: characters are only ever dropped, so writing never
// overtakes reading.
bool Tighten(const char* path, char* out, bool& changed) {
    const char* p = path;
    while (*p == ' ')
        ++p;
    changed = p != path;
    size_t root = 0;
    if (p[0] == '\\' && p[1] == '\\') {
        int length;
        if (!GetLongPathPrefixLen(p, length, nullptr))
            return false;
        root = length ? size_t(length) : 2;
    } else if (IsSlash(p[0])) {
        root = 1;
    }
    char* w = out;
    auto put = [&w](const char* text, size_t n) {
        if (w) {
            memmove(w, text, n);
            w += n;
        }
    };
    put(p, root);
    p += root;
    for (;;) {
        const char* end = p + strcspn(p, "\\/");
        const char* first = p;
        while (first < end && *first == ' ')
            ++first;
        const char* last = end;
        while (last > first && last[-1] == ' ')
            --last;
        if (*end && first == last)
            return false; // an empty or blank node before a separator
        changed = changed || first != p || last != end;
        put(first, size_t(last - first));
        if (!*end)
            break;
        put(end, 1);
        p = end + 1;
    }
    if (w)
        *w = '\0';
    return true;
}

constexpr const char* kSpecWho = "qsPath::SetPathSpecListString";

qsStatus Put(ZBuffer& storage, const char* text, size_t n) {
    DWORD used = storage.BytesUsed();
    if (used + n > storage.Size()) {
        qsStatus s = storage.IncreaseBufferSize(DWORD(used + n - storage.Size()), 64, kSpecWho);
        if (qsFailed(s))
            return QS_E_OUT_OF_MEMORY;
    }
    if (n) {
        memcpy(storage.GetPtr(used, DWORD(n)), text, n);
        storage.IncreaseBytesUsed(DWORD(n));
    }
    return QS_OK;
}

qsStatus PutPattern(ZBuffer& storage, const char* prefix, const char* spec, size_t length) {
    const char* suffix = IsSlash(spec[length - 1]) ? "*" : "";
    qsStatus s = Put(storage, prefix, strlen(prefix));
    if (qsSucceeded(s))
        s = Put(storage, spec, length);
    if (qsSucceeded(s))
        s = Put(storage, suffix, strlen(suffix) + 1);
    return s;
}

// A spec that could name something at any depth is made to match there.
qsStatus AddSpec(ZBuffer& storage, const char* spec, size_t length) {
    bool rooted = false;
    for (size_t i = 0; i + 1 < length && !rooted; ++i)
        rooted = spec[i] == ':' && IsSlash(spec[i + 1]);
    if (rooted || IsSlash(spec[0]) || spec[0] == '*')
        return PutPattern(storage, "", spec, length);
    bool slash = memchr(spec, '/', length), backslash = memchr(spec, '\\', length);
    qsStatus s = QS_OK;
    if (slash || !backslash)
        s = PutPattern(storage, "*/", spec, length);
    if (qsSucceeded(s) && (backslash || !slash))
        s = PutPattern(storage, "*\\", spec, length);
    return s;
}

} // namespace

bool Append(char* path, const char* name, char separator) {
    if (!path)
        return false;
    if (!separator) {
        eFormat format = GetFormat(path);
        if (format == eFormatUnknown)
            return false;
        separator = format == eFormatUnix || format == eFormatNfs ? '/' : '\\';
    }
    size_t n = strlen(path);
    if (n == 0 || !IsSlash(path[n - 1]))
        path[n++] = separator;
    path[n] = '\0';
    if (name)
        strcpy(path + n, IsSlash(name[0]) ? name + 1 : name);
    return true;
}

bool Append(std::string& path, const char* name, char separator) {
    path.resize(path.size() + (name ? strlen(name) : 0) + 1);
    return OnString(path, [&](char* p) { return Append(p, name, separator); });
}

void StripLeading(char* path, bool spaces, bool slashes) {
    if (!path)
        return;
    size_t n = 0;
    while (path[n] &&
           ((spaces && isspace((unsigned char)path[n])) || (slashes && IsSlash(path[n]))))
        ++n;
    if (n && path[n])
        memmove(path, path + n, strlen(path + n) + 1);
}

void StripLeading(std::string& path, bool spaces, bool slashes) {
    OnString(path, [&](char* p) { return StripLeading(p, spaces, slashes), 0; });
}

void StripTrailing(char* path, bool spaces, bool slashes) {
    if (!path)
        return;
    size_t n = strlen(path);
    while (n > 0) {
        char c = path[n - 1];
        bool keptRoot = n == 1 || path[n - 2] == ':';
        if (!(spaces && isspace((unsigned char)c)) && !(slashes && IsSlash(c) && !keptRoot))
            break;
        --n;
    }
    path[n] = '\0';
}

void StripTrailing(std::string& path, bool spaces, bool slashes) {
    OnString(path, [&](char* p) { return StripTrailing(p, spaces, slashes), 0; });
}

// The check runs first so that a path that fails is never half changed.
bool TightenPath(char* path) {
    bool changed;
    if (!path || !Tighten(path, nullptr, changed))
        return false;
    if (changed)
        Tighten(path, path, changed);
    return true;
}

bool TightenPath(std::string& path) {
    return OnString(path, [](char* p) { return TightenPath(p); });
}

void Normalize(char* path) {
    if (!path)
        return;
    eFormat format = GetFormat(path);
    bool forward = format == eFormatUnix || format == eFormatNfs;
    // How much to lower-case: nothing, the host, or everything.
    size_t lower = format == eFormatUnix  ? 0
                   : format == eFormatNfs ? size_t(strchr(path, ':') - path)
                                          : strlen(path);
    for (size_t i = 0; path[i]; ++i) {
        if (IsSlash(path[i]))
            path[i] = forward ? '/' : '\\';
        else if (i < lower)
            path[i] = char(tolower((unsigned char)path[i]));
    }
}

void Normalize(std::string& path) {
    OnString(path, [](char* p) { return Normalize(p), 0; });
}

qsStatus SetPathSpecListString(const char* specs, const char*& list, ZBuffer& storage) {
    list = nullptr;
    if (!specs || !specs[0])
        return storage.Resize(0, kSpecWho);
    storage.SetBytesUsed(0);
    qsStatus s = storage.Resize(DWORD(strlen(specs) + 12), kSpecWho);
    if (qsFailed(s))
        return QS_E_OUT_OF_MEMORY;
    // "a" "b": each spec runs to the next quote; the quote, a blank and the
    // opening quote of the next one are stepped over.
    const char* p = specs[0] == '"' ? specs + 1 : specs;
    for (;;) {
        const char* end = p + strcspn(p, "\"");
        if (end > p) {
            s = AddSpec(storage, p, size_t(end - p));
            if (qsFailed(s))
                return s;
        }
        if (!*end)
            break;
        p = end + 1;
        if (*p == ' ')
            ++p;
        if (*p == '"')
            ++p;
    }
    s = Put(storage, "", 1);
    if (qsFailed(s))
        return s;
    list = reinterpret_cast<const char*>(storage.Data());
    return QS_OK;
}

} // namespace qsPath

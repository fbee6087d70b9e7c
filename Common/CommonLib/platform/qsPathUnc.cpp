// Taking UNC and DFS paths apart.  The output buffers are the caller's, of
// the fixed sizes the header gives; every output may be null.
#include "qsPath.h"
#include "qsPathInternal.h"

namespace qsPath {

namespace {

struct UncParts {
    const char* server = nullptr;
    size_t serverLength = 0;
    char separator = 0; // the one after the server, 0 when there is none
    const char* share = nullptr;
    size_t shareLength = 0;
    const char* rest = nullptr; // after the separator that follows the share
};

bool ParseUnc(const char* path, UncParts& u) {
    if (!path || path[0] != '\\' || path[1] != '\\' || path[2] == '\0' || path[2] == '\\')
        return false;
    int length;
    bool isDrive;
    if (!GetLongPathPrefixLen(path, length, &isDrive) || isDrive)
        return false;
    u.server = path + (length ? length : 2);
    const char* end = GetNextSlash(u.server, true);
    if (end == u.server)
        return false;
    if (!end) {
        u.serverLength = strlen(u.server);
        return u.serverLength > 0 && u.serverLength <= kMaxUncServer;
    }
    u.serverLength = size_t(end - u.server);
    u.separator = *end;
    const char* share = end + 1;
    if (*share) {
        if (IsSlash(*share))
            return false;
        u.share = share;
        end = GetNextSlash(share, true);
        u.shareLength = end ? size_t(end - share) : strlen(share);
        if (end) {
            u.rest = end + 1;
            if (IsSlash(*u.rest))
                return false;
        }
    }
    return u.serverLength <= kMaxUncServer && u.shareLength <= kMaxUncShare;
}

void CopyPart(const char* text, size_t length, char* out) {
    if (!out)
        return;
    if (length)
        memcpy(out, text, length);
    out[length] = '\0';
}

void Clear(char* a, char* b, char* c = nullptr) {
    for (char* out : {a, b, c}) {
        if (out)
            out[0] = '\0';
    }
}

} // namespace

qsStatus SplitUnc2(const char* path, char* server, char* share, const char*& rest) {
    rest = nullptr;
    Clear(server, share);
    UncParts u;
    if (!ParseUnc(path, u))
        return QS_E_INVALIDARG;
    CopyPart(u.server, u.serverLength, server);
    CopyPart(u.share, u.shareLength, share);
    rest = u.rest;
    return QS_OK;
}

qsStatus SplitUnc(const char* path, char* server, char* share, char* rest) {
    Clear(server, share, rest);
    UncParts u;
    if (!ParseUnc(path, u))
        return QS_E_INVALIDARG;
    size_t restLength = u.rest ? strlen(u.rest) : 0;
    if (restLength > kMaxUncRest)
        return QS_E_INVALIDARG;
    CopyPart(u.server, u.serverLength, server);
    CopyPart(u.share, u.shareLength, share);
    CopyPart(u.rest, restLength, rest);
    return QS_OK;
}

int GetUncPathContents(const char* path) {
    char server[kMaxUncServer + 1], share[kMaxUncShare + 1], rest[kMaxUncRest + 1];
    if (SplitUnc(path, server, share, rest) != QS_OK)
        return 0;
    for (const char* p = rest; *p; ++p) {
        if (IsSlash(p[0]) && IsSlash(p[1]))
            return 0;
    }
    if (!server[0])
        return 0;
    if (share[0])
        return rest[0] ? 3 : 2;
    return rest[0] ? 0 : 1;
}

qsStatus SplitDfs(const char* path, char* root, char* rest) {
    Clear(root, rest);
    UncParts u;
    if (!ParseUnc(path, u) || !u.separator || u.shareLength == 0)
        return QS_E_INVALIDARG;
    size_t rootLength = 2 + u.serverLength + 1 + u.shareLength;
    size_t restLength = u.rest ? strlen(u.rest) : 0;
    if (rootLength > kMaxDfsRoot || restLength > kMaxUncRest)
        return QS_E_INVALIDARG;
    if (root) {
        char* p = root;
        *p++ = '\\';
        *p++ = '\\';
        memcpy(p, u.server, u.serverLength);
        p += u.serverLength;
        *p++ = u.separator;
        CopyPart(u.share, u.shareLength, p);
    }
    CopyPart(u.rest, restLength, rest);
    return QS_OK;
}

} // namespace qsPath

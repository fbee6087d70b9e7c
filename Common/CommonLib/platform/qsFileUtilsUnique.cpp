// Unique file names, made safe against other processes by creating the file
// exclusively: the name is only ever checked by the open that claims it.
#include "qsFileUtils.h"
#include "qsFileUtilsInternal.h"

#include "qsPath.h"
#include "qsWinApi.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace qsFileUtils {

namespace {

// Enough for any directory a counter can fill; GUIDs made in one
// microsecond are equal, and the next attempt's clock has moved on.
constexpr uint32_t kMaxAttempts = 1u << 20;

std::string GuidText() {
    GUID g;
    CoCreateGuid(&g);
    char text[40];
    snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
             unsigned(g.Data1), unsigned(g.Data2), unsigned(g.Data3), g.Data4[0], g.Data4[1],
             g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

} // namespace

qsStatus CreateUniqueFile(const char* dir, const char* prefix, const char* suffix, eUniqueName kind,
                          std::string& path) {
    static const char* const who = "qsFileUtils::CreateUniqueFile";
    if (!dir || !dir[0] || !prefix || (kind != eUniqueNameCounter && kind != eUniqueNameGuid))
        return Invalid(who);
    std::string candidate;
    for (uint32_t attempt = 1; attempt <= kMaxAttempts; ++attempt) {
        candidate = dir;
        std::string name = prefix;
        name += kind == eUniqueNameCounter ? std::to_string(attempt) : GuidText();
        name += suffix ? suffix : "";
        qsPath::Append(candidate, name.c_str(), '/');
        int fd = open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            close(fd);
            path = candidate;
            return QS_OK;
        }
        if (errno != EEXIST)
            return Fail(who, "creating", candidate, QS_E_FILE_OPEN);
    }
    errno = EEXIST;
    return Fail(who, "creating", candidate, QS_E_FILE_EXISTS);
}

} // namespace qsFileUtils

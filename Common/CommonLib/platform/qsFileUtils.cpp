// Creating and removing trees and files.
#include "qsFileUtils.h"
#include "qsFileUtilsInternal.h"

#include "qsDirRead.h"
#include "qsLog.h"
#include "qsPath.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls use it.
#pragma GCC diagnostic ignored "-Wformat"

namespace qsFileUtils {

qsStatus Fail(const char* who, const char* doing, const std::string& path, qsStatus code,
              const char* other) {
    int error = errno;
    if (other)
        qsLogPrintfA(LONG(error), qsLogSevSysCall, "%hs: error %d %hs <%s> to <%s>.", who, error,
                     doing, path.c_str(), other);
    else
        qsLogPrintfA(LONG(error), qsLogSevSysCall, "%hs: error %d %hs <%s>.", who, error, doing,
                     path.c_str());
    errno = error;
    return error == ENOENT ? QS_E_NOT_FOUND : code;
}

qsStatus Invalid(const char* who) {
    errno = EINVAL;
    qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall, "%hs: invalid argument.", who);
    return QS_E_INVALIDARG;
}

namespace {

bool IsDirectory(const std::string& path) {
    struct stat64 st;
    return stat64(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// mkdir, making the parents first when they are missing.  EEXIST from a
// directory is success: another process may be creating the same tree.
qsStatus MakeDirectories(const std::string& path, const char* who) {
    if (mkdir(path.c_str(), 0777) == 0 || (errno == EEXIST && IsDirectory(path)))
        return QS_OK;
    if (errno == ENOENT) {
        size_t slash = path.find_last_of('/');
        while (slash != std::string::npos && slash > 0 && path[slash - 1] == '/')
            --slash;
        if (slash != std::string::npos && slash > 0) {
            qsStatus s = MakeDirectories(path.substr(0, slash), who);
            if (qsFailed(s))
                return s;
            if (mkdir(path.c_str(), 0777) == 0 || (errno == EEXIST && IsDirectory(path)))
                return QS_OK;
        }
    }
    qsStatus s = Fail(who, "creating directory", path, QS_E_DIR_CREATE);
    return s == QS_E_NOT_FOUND ? QS_E_DIR_CREATE : s;
}

} // namespace

qsStatus RemoveContents(const std::string& dir, const char* who) {
    std::vector<std::string> names;
    if (int error = qsReadDirectoryNames(dir, names)) {
        errno = error;
        return error == ENOENT ? QS_E_NOT_FOUND
                               : Fail(who, "reading directory", dir, QS_E_DIR_READ);
    }
    qsStatus first = QS_OK;
    for (const std::string& name : names) {
        std::string path = dir;
        qsPath::Append(path, name.c_str(), '/');
        qsStatus s = RemoveEntry(path, who);
        if (qsFailed(s) && s != QS_E_NOT_FOUND && qsSucceeded(first))
            first = s;
    }
    return first;
}

// Something that vanished meanwhile (another process cleaning the same tree)
// is as good as removed: QS_E_NOT_FOUND, unreported, for the caller to judge.
qsStatus RemoveEntry(const std::string& path, const char* who) {
    struct stat64 st;
    if (lstat64(path.c_str(), &st) != 0) {
        if (errno == ENOENT)
            return QS_E_NOT_FOUND;
        return Fail(who, "examining", path, QS_E_FILE_DELETE);
    }
    if (!S_ISDIR(st.st_mode)) {
        if (unlink(path.c_str()) == 0 || errno == ENOENT)
            return QS_OK;
        return Fail(who, "removing", path, QS_E_FILE_DELETE);
    }
    qsStatus s = RemoveContents(path, who);
    if (qsFailed(s) && s != QS_E_NOT_FOUND)
        return s;
    if (rmdir(path.c_str()) == 0 || errno == ENOENT)
        return QS_OK;
    return Fail(who, "removing directory", path, QS_E_FILE_DELETE);
}

qsStatus CreateDirectoryTree(const char* path) {
    static const char* const who = "qsFileUtils::CreateDirectoryTree";
    if (!path || !path[0])
        return Invalid(who);
    std::string p = path;
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    return MakeDirectories(p, who);
}

qsStatus CleanDirectoryTree(const char* path) {
    static const char* const who = "qsFileUtils::CleanDirectoryTree";
    if (!path || !path[0])
        return Invalid(who);
    struct stat64 st;
    if (stat64(path, &st) != 0)
        return Fail(who, "examining", path, QS_E_DIR_READ);
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return Fail(who, "cleaning", path, QS_E_DIR_READ);
    }
    return RemoveContents(path, who);
}

qsStatus RemoveDirectoryTree(const char* path) {
    static const char* const who = "qsFileUtils::RemoveDirectoryTree";
    if (!path || !path[0])
        return Invalid(who);
    qsStatus s = RemoveEntry(path, who);
    if (s == QS_E_NOT_FOUND) {
        errno = ENOENT;
        return Fail(who, "removing", path, QS_E_NOT_FOUND);
    }
    return s;
}

qsStatus RemoveFile(const char* path) {
    static const char* const who = "qsFileUtils::RemoveFile";
    if (!path || !path[0])
        return Invalid(who);
    if (unlink(path) == 0)
        return QS_OK;
    return Fail(who, "removing", path, QS_E_FILE_DELETE);
}

const char* GetLastSlash(const char* path) {
    return qsPath::GetLastSlash(path);
}

} // namespace qsFileUtils

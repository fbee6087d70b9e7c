// Copying and moving trees.
#include "qsFileUtils.h"
#include "qsFileUtilsInternal.h"

#include "qsDirRead.h"
#include "qsPath.h"
#include "qsWinApi.h"

#include <cerrno>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace qsFileUtils {

namespace {

struct CopyJob {
    const char* who;
    bool failIfExists;
    bool exclusiveTop;       // the top target must be new: a move never merges
    bool topCreated = false; // so a failed move knows what it may take back
    bool haveRoot = false;   // the target's root directory, never copied into itself
    dev_t rootDev = 0;
    ino_t rootIno = 0;
};

qsStatus CopyEntry(const std::string& from, const std::string& to, const struct stat64& st,
                   CopyJob& job, bool top);

qsStatus ExistsOr(qsStatus code) {
    return errno == EEXIST ? QS_E_FILE_EXISTS : code;
}

qsStatus CopyLink(const std::string& from, const std::string& to, const struct stat64& st,
                  CopyJob& job) {
    std::string target(st.st_size > 0 ? size_t(st.st_size) + 1 : PATH_MAX, '\0');
    ssize_t n = readlink(from.c_str(), target.data(), target.size());
    if (n < 0)
        return Fail(job.who, "reading link", from, QS_E_FILE_COPY);
    target.resize(size_t(n));
    if (symlink(target.c_str(), to.c_str()) == 0)
        return QS_OK;
    if (errno == EEXIST && !job.failIfExists && unlink(to.c_str()) == 0 &&
        symlink(target.c_str(), to.c_str()) == 0)
        return QS_OK;
    return Fail(job.who, "copying link", from, ExistsOr(QS_E_FILE_COPY), to.c_str());
}

qsStatus CopyDirectory(const std::string& from, const std::string& to, const struct stat64& st,
                       CopyJob& job, bool top) {
    // Owner rights first, so that a read-only source can be filled in; the
    // source's own bits are put back at the end.
    bool created = mkdir(to.c_str(), (st.st_mode & 0777) | 0700) == 0;
    struct stat64 target;
    if (!created) {
        int error = errno;
        bool merge = error == EEXIST && !(top && job.exclusiveTop) &&
                     stat64(to.c_str(), &target) == 0 && S_ISDIR(target.st_mode);
        errno = error;
        if (!merge)
            return Fail(job.who, "creating directory", to, ExistsOr(QS_E_DIR_CREATE));
    }
    if (top)
        job.topCreated = created;
    if (!job.haveRoot) {
        if (stat64(to.c_str(), &target) != 0)
            return Fail(job.who, "examining", to, QS_E_FILE_COPY);
        if (target.st_dev == st.st_dev && target.st_ino == st.st_ino) {
            errno = EINVAL;
            return Fail(job.who, "copying directory onto itself", from, QS_E_FILE_COPY, to.c_str());
        }
        job.haveRoot = true;
        job.rootDev = target.st_dev;
        job.rootIno = target.st_ino;
    }

    qsStatus first = QS_OK;
    auto note = [&first](qsStatus s) {
        if (qsFailed(s) && qsSucceeded(first))
            first = s;
    };
    std::vector<std::string> names;
    if (int error = qsReadDirectoryNames(from, names)) {
        errno = error;
        note(Fail(job.who, "reading directory", from, QS_E_DIR_READ));
    }
    for (const std::string& name : names) {
        std::string childFrom = from, childTo = to;
        qsPath::Append(childFrom, name.c_str(), '/');
        qsPath::Append(childTo, name.c_str(), '/');
        struct stat64 child;
        if (lstat64(childFrom.c_str(), &child) != 0) {
            if (errno != ENOENT) // gone meanwhile: nothing to copy
                note(Fail(job.who, "examining", childFrom, QS_E_FILE_COPY));
            continue;
        }
        if (S_ISDIR(child.st_mode) && child.st_dev == job.rootDev && child.st_ino == job.rootIno)
            continue; // the copy itself, when it lies inside the source
        note(CopyEntry(childFrom, childTo, child, job, false));
    }

    if (created && (st.st_mode & 0700) != 0700) {
        // What mkdir made of the source's bits, the umask applied.
        mode_t lacking = 0700 & ~st.st_mode;
        if (stat64(to.c_str(), &target) != 0 ||
            chmod(to.c_str(), target.st_mode & 07777 & ~lacking))
            note(Fail(job.who, "setting permissions of", to, QS_E_FILE_COPY));
    }
    return first;
}

qsStatus CopyEntry(const std::string& from, const std::string& to, const struct stat64& st,
                   CopyJob& job, bool top) {
    if (S_ISDIR(st.st_mode))
        return CopyDirectory(from, to, st, job, top);
    if (S_ISLNK(st.st_mode))
        return CopyLink(from, to, st, job);
    if (!S_ISREG(st.st_mode)) {
        errno = EOPNOTSUPP;
        return Fail(job.who, "copying special file", from, QS_E_FILE_COPY);
    }
    if (CopyFileA(from.c_str(), to.c_str(), job.failIfExists))
        return QS_OK;
    if (top && errno != EEXIST)
        job.topCreated = true; // perhaps in part
    return Fail(job.who, "copying", from, ExistsOr(QS_E_FILE_COPY), to.c_str());
}

} // namespace

qsStatus CopyDirectoryTree(const char* from, const char* to, bool failIfExists) {
    static const char* const who = "qsFileUtils::CopyDirectoryTree";
    if (!from || !from[0] || !to || !to[0])
        return Invalid(who);
    struct stat64 st;
    if (lstat64(from, &st) != 0)
        return Fail(who, "examining", from, QS_E_FILE_COPY);
    CopyJob job{who, failIfExists, false};
    return CopyEntry(from, to, st, job, true);
}

qsStatus RenameDirectoryTree(const char* from, const char* to) {
    static const char* const who = "qsFileUtils::RenameDirectoryTree";
    if (!from || !from[0] || !to || !to[0])
        return Invalid(who);
    struct stat64 st;
    if (lstat64(to, &st) == 0) {
        errno = EEXIST;
        return Fail(who, "renaming", from, QS_E_FILE_EXISTS, to);
    }
    if (rename(from, to) == 0)
        return QS_OK;
    if (errno != EXDEV)
        return Fail(who, "renaming", from, QS_E_FILE_RENAME, to);

    // Across file systems: copy, then remove the original.
    if (lstat64(from, &st) != 0)
        return Fail(who, "examining", from, QS_E_FILE_RENAME);
    CopyJob job{who, true, true};
    qsStatus s = CopyEntry(from, to, st, job, true);
    if (qsFailed(s)) {
        if (job.topCreated)
            RemoveEntry(to, who);
        return s;
    }
    s = RemoveEntry(from, who);
    return s == QS_E_NOT_FOUND ? QS_OK : s;
}

} // namespace qsFileUtils

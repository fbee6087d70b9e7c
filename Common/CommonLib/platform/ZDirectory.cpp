#include "ZDirectory.h"

#include "qsDirRead.h"
#include "qsFindData.h"
#include "qsLog.h"
#include "qsPath.h"
#include "qsWinApi.h"

#include <cerrno>
#include <sys/stat.h>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls use it.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

void Report(const char* who, int error, const char* doing, const std::string& path) {
    qsLogPrintfA(LONG(error), qsLogSevSysCall, "%hs: error %d %hs <%s>.", who, error, doing,
                 path.c_str());
}

} // namespace

ZDirectory::ZDirectory() : m_Kinds(0), m_Recursive(false), m_Skipped(0) {}

ZDirectory::~ZDirectory() = default;

void ZDirectory::Close() {
    m_Stack.clear();
    m_Root.clear();
    m_Pattern.clear();
    m_Current.clear();
    m_Skipped = 0;
}

bool ZDirectory::OnStack(dev_t dev, ino_t ino) const {
    for (const Frame& f : m_Stack) {
        if (f.dev == dev && f.ino == ino)
            return true;
    }
    return false;
}

// Reads the directory's names whole, so that nothing stays open between
// calls, and stacks them for FindNext.
bool ZDirectory::Push(const char* who, std::string relativeDir, dev_t dev, ino_t ino, int* error) {
    std::string path = m_Root;
    if (!relativeDir.empty())
        qsPath::Append(path, relativeDir.c_str(), '/');
    Frame frame{std::move(relativeDir), {}, 0, dev, ino};
    *error = qsReadDirectoryNames(path, frame.names);
    if (*error) {
        if (*error != ENOENT) // gone meanwhile: nothing to skip
            Report(who, *error, "reading directory", path);
        return false;
    }
    m_Stack.push_back(std::move(frame));
    return true;
}

qsStatus ZDirectory::FindFirst(const char* dir, const char* pattern, DWORD kinds, bool recursive,
                               WIN32_FIND_DATAA* data) {
    static const char* const who = "ZDirectory::FindFirst";
    Close();
    if (!dir || !dir[0] || !data || !(kinds & eFilesAndDirectories)) {
        qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall, "%hs: invalid argument.", who);
        return QS_E_INVALIDARG;
    }
    struct stat64 st;
    if (stat64(dir, &st) != 0) {
        int error = errno;
        Report(who, error, "listing", dir);
        return error == ENOENT ? QS_E_NOT_FOUND : QS_E_DIR_READ;
    }
    if (!S_ISDIR(st.st_mode)) {
        Report(who, ENOTDIR, "listing", dir);
        return QS_E_DIR_READ;
    }
    m_Root = dir;
    m_Pattern = pattern && pattern[0] ? pattern : "*";
    m_Kinds = kinds;
    m_Recursive = recursive;
    int error;
    if (!Push(who, "", st.st_dev, st.st_ino, &error)) {
        m_Root.clear();
        return error == ENOENT ? QS_E_NOT_FOUND : QS_E_DIR_READ;
    }
    return FindNext(data);
}

qsStatus ZDirectory::FindNext(WIN32_FIND_DATAA* data) {
    static const char* const who = "ZDirectory::FindNext";
    if (!data) {
        qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall, "%hs: invalid argument.", who);
        return QS_E_INVALIDARG;
    }
    while (!m_Stack.empty()) {
        Frame& top = m_Stack.back();
        if (top.next == top.names.size()) {
            m_Stack.pop_back();
            continue;
        }
        std::string name = top.names[top.next++];
        std::string relative = top.relativeDir;
        if (!relative.empty())
            relative += '/';
        relative += name;
        std::string path = m_Root;
        qsPath::Append(path, relative.c_str(), '/');

        // As the attribute query sees it (links followed); a dangling link
        // is returned as itself.
        struct stat64 st;
        if (stat64(path.c_str(), &st) != 0 &&
            (errno != ENOENT || lstat64(path.c_str(), &st) != 0)) {
            if (errno != ENOENT) // gone meanwhile: not an entry any more
                Report(who, errno, "examining", path);
            continue;
        }
        if (m_Recursive && S_ISDIR(st.st_mode) && !OnStack(st.st_dev, st.st_ino)) {
            int error;
            if (!Push(who, relative, st.st_dev, st.st_ino, &error) && error != ENOENT)
                ++m_Skipped;
        }
        bool isDirectory = qsAttributesFromMode(st.st_mode) & FILE_ATTRIBUTE_DIRECTORY;
        if (!(m_Kinds & (isDirectory ? eDirectories : eFiles)) ||
            !PathMatchSpec(name.c_str(), m_Pattern.c_str()))
            continue;
        qsFillFindData(st, name.data(), name.size(), data);
        m_Current = std::move(relative);
        return QS_OK;
    }
    return QS_W_NO_MORE_ENTRIES;
}

qsStatus ZDirectory::List(const char* dir, const char* pattern, DWORD kinds, bool recursive,
                          std::vector<Entry>& entries) {
    entries.clear();
    ZDirectory d;
    Entry e;
    qsStatus s = d.FindFirst(dir, pattern, kinds, recursive, &e.data);
    for (; s == QS_OK; s = d.FindNext(&e.data)) {
        e.relativePath = d.GetRelativePath();
        entries.push_back(e);
    }
    return s == QS_W_NO_MORE_ENTRIES ? QS_OK : s;
}

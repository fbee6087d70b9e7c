#include "qsLog.h"

#include "ZFile.h"
#include "ZLogStream.h"
#include "qsException.h"
#include "qsLogGuard.h"
#include "qsLogState.h"
#include "qsLogSwitchMap.h"
#include "qsWinApi.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <syslog.h>
#include <unistd.h>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls all use it.
#pragma GCC diagnostic ignored "-Wformat"

ZLogStream* g_pZLogStreamDefault = nullptr;
ZLogStream* g_pZLogStreamEvents = nullptr;
ZLogStream* g_pZLogStreamPerfCtrs = nullptr;
DWORD g_ZLogStreamDefaultSize = 4096;
DWORD g_ZLogStreamEventsSize = 4096;
DWORD g_ZLogStreamPerfCtrsSize = 0;

qsLogStreamInfo g_ZLogInfo[QS_LOG_STREAM_COUNT] = {
    {&g_pZLogStreamDefault, "Default.log", &g_ZLogStreamDefaultSize, "LogDefaultSize"},
    {&g_pZLogStreamEvents, "Events.log", &g_ZLogStreamEventsSize, "LogEventsSize"},
    {&g_pZLogStreamPerfCtrs, "PerfCtrs.log", &g_ZLogStreamPerfCtrsSize, "LogPerfCtrsSize"},
};

bool g_LogInfoMessages = false;
__attribute__((weak)) bool g_bLoggingDoAutoInit = true;
bool g_LoggingInitialized = false;

// Defined before the automatic start below, so that both exist when it runs.
std::map<std::string, uint32_t> g_traceSwitchMap;

namespace {

constexpr DWORD kMaxDirName = 260;

std::string g_PublicDataPath; // empty until the first successful lookup

template <typename Op> qsStatus OnDefaultStream(const char* function, Op op) {
    return qsLogGuardedCall(g_pZLogStreamDefault, function, op);
}

qsStatus CopyOut(const std::string& value, char* buffer, DWORD& length) {
    if (value.size() >= length)
        return QS_E_BUFFER_TOO_SMALL;
    memcpy(buffer, value.c_str(), value.size() + 1);
    length = DWORD(value.size());
    return QS_OK;
}

const char* OrUnknown(const char* where) { return where ? where : "???"; }

} // namespace

qsStatus qsLogPrintfA(LONG code, qsLogSev severity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    qsStatus s = OnDefaultStream("qsLogPrintfA", [&](ZLogStream& stream) {
        return stream.vPrintf(code, severity, 0, format, args);
    });
    va_end(args);
    return s;
}

qsStatus qsLogPrintfW(LONG code, qsLogSev severity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    qsStatus s = OnDefaultStream("qsLogPrintfW", [&](ZLogStream& stream) {
        return stream.vPrintf(code, severity, 0, format, args);
    });
    va_end(args);
    return s;
}

qsStatus qsLogvPrintfA(LONG code, qsLogSev severity, const char* format, va_list args) {
    return OnDefaultStream("qsLogvPrintfA", [&](ZLogStream& stream) {
        return stream.vPrintf(code, severity, 0, format, args);
    });
}

qsStatus qsLogvPrintfW(LONG code, qsLogSev severity, const wchar_t* format, va_list args) {
    return OnDefaultStream("qsLogvPrintfW", [&](ZLogStream& stream) {
        return stream.vPrintf(code, severity, 0, format, args);
    });
}

qsStatus qsLogPrintfEx(LONG code, qsLogSev severity, DWORD flags, const char* format, ...) {
    va_list args;
    va_start(args, format);
    qsStatus s = OnDefaultStream("qsLogPrintfEx", [&](ZLogStream& stream) {
        return stream.vPrintf(code, severity, flags, format, args);
    });
    va_end(args);
    return s;
}

qsStatus qsLogPrintStringA(const char* text, LONG code, qsLogSev severity, DWORD flags) {
    return OnDefaultStream("qsLogPrintStringA", [&](ZLogStream& stream) {
        return stream.PrintString(text, code, severity, flags);
    });
}

qsStatus qsLogPrintStringW(const char* text, LONG code, qsLogSev severity, DWORD flags) {
    return OnDefaultStream("qsLogPrintStringW", [&](ZLogStream& stream) {
        return stream.PrintString(text, code, severity, flags);
    });
}

qsStatus qsLogBigMsgPrintfA(LONG code, qsLogSev severity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    qsStatus s = OnDefaultStream("qsLogBigMsgPrintfA", [&](ZLogStream& stream) {
        return stream.vBigMsgPrintf(code, severity, 0, format, args);
    });
    va_end(args);
    return s;
}

void qsLogReportEscapedException(const char* function) noexcept {
    char text[96];
    snprintf(text, sizeof text, "unhandled exception in %s", function);
    qsLogEventStringA(text, LONG(QS_E_EXCEPTION), qsLogSevError, nullptr);
}

void qsLogEventStringA(const char* text, LONG, qsLogSev severity, const char* source) {
    int priority = LOG_ERR;
    if (severity == qsLogSevInfo || severity == qsLogSevNormal)
        priority = LOG_INFO;
    else if (severity == qsLogSevWarning)
        priority = LOG_WARNING;
    openlog(source ? source : "qsLog", LOG_PID, LOG_USER);
    // The text is logged as it stands: a '%' in it must not be taken for a
    // conversion that would read arguments nobody passed.
    syslog(priority, "%s", text ? text : "");
    closelog();
}

void qsLogInfoMessages(bool on) { g_LogInfoMessages = on; }

qsStatus qsLogPrintModuleMessage(const char* text, HANDLE) {
    return qsLogPrintfEx(LONG(QS_I_MODULE_MESSAGE), qsLogSevNormal, 2, "%hs",
                         text ? text : "App Info");
}

void qsLogSetSwitchLevel(const char* name, DWORD level) {
    g_traceSwitchMap.emplace(name ? name : "", level);
}

DWORD qsLogGetSwitchLevel(const char*) { return 0; }

void qsLogSetSwitchLevelsUsingRegistry(const char*, const char*) {}

qsStatus qsLogGetPublicDataPath(char* buffer, DWORD& length) {
    if (g_PublicDataPath.empty()) {
        const char* dir = getenv("QS_LOG_DIR");
        if (!dir)
            dir = getenv("HOME");
        if (!dir)
            return QS_E_NOT_FOUND;
        g_PublicDataPath = dir;
    }
    return CopyOut(g_PublicDataPath, buffer, length);
}

bool qsLogIsRelativePath(const char* path) {
    if (!path || !path[0])
        return true;
    if (path[1] == ':' && path[2] == '\\')
        return false;
    return path[0] != '/';
}

qsStatus qsLogCreateDirectoryTree(const char* path, SECURITY_ATTRIBUTES* sa) {
    if (!path)
        return QS_E_INVALIDARG;
    size_t len = strlen(path);
    if (len > kMaxDirName)
        return QS_E_INVALIDARG;
    if (len == 0)
        return QS_OK;

    char copy[kMaxDirName + 1];
    memcpy(copy, path, len + 1);
    if (len > 1 && (copy[len - 1] == '\\' || copy[len - 1] == '/'))
        copy[--len] = '\0';

    DWORD attributes = GetFileAttributesA(copy);
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return (attributes & FILE_ATTRIBUTE_DIRECTORY) ? QS_OK : QS_E_INVALIDARG;
    if (errno != ERROR_FILE_NOT_FOUND && errno != ERROR_PATH_NOT_FOUND)
        return QS_E_FILE_ATTRIBUTES;

    // The parent first; a separator at index 0 is the root and is not searched for.
    for (size_t i = len - 1; i >= 1; --i) {
        char c = copy[i];
        if (c != '\\' && c != '/')
            continue;
        copy[i] = '\0';
        qsStatus s = qsLogCreateDirectoryTree(copy, nullptr);
        if (qsFailed(s))
            return s;
        copy[i] = c;
        break;
    }
    return CreateDirectoryA(copy, sa) ? QS_OK : QS_E_DIR_CREATE;
}

namespace {

qsStatus ResolveLogDirectory(std::string& path) {
    const char* name = getenv("QS_LOG_DIR");
    if (!name || strlen(name) > kMaxDirName)
        name = "Logs";
    if (!name[0])
        return QS_E_EMPTY_NAME;

    if (!qsLogIsRelativePath(name)) {
        path = name;
    } else {
        char base[kMaxDirName + 1];
        DWORD length = sizeof base;
        qsStatus s = qsLogGetPublicDataPath(base, length);
        if (qsFailed(s))
            return s;
        char separator = strchr(base, '/') ? '/' : '\\';
        path = base;
        if (!path.empty() && path.back() != separator && name[0] != separator)
            path += separator;
        path += name;
    }
    // A relative QS_LOG_DIR was joined to itself as its own base: still relative.
    if (qsLogIsRelativePath(path.c_str()))
        return QS_E_NO_LOG_STREAM;
    while (path.size() > 3 && (path.back() == '\\' || path.back() == '/'))
        path.pop_back();
    return QS_OK;
}

// strtoul as on the 32-bit platform: a value past 32 bits saturates (and is
// then refused as too large) rather than wrapping to some smaller size.
DWORD SizeFromText(const char* text) {
    unsigned long long v = strtoull(text, nullptr, 0);
    return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : DWORD(v);
}

std::string StreamFileName(const qsLogStreamInfo& entry) {
    char computer[MAX_PATH];
    DWORD size = sizeof computer;
    if (!GetComputerNameA(computer, &size))
        return entry.fileName;
    return std::string(computer) + "_" + entry.fileName;
}

} // namespace

qsStatus qsLogGetLogDirectory(char* buffer, DWORD& length) {
    std::string path;
    qsStatus s = ResolveLogDirectory(path);
    return qsFailed(s) ? s : CopyOut(path, buffer, length);
}

qsStatus qsLogGetStreamFileName(int index, char* buffer, DWORD& length) {
    if (index < 0 || index >= QS_LOG_STREAM_COUNT)
        return QS_E_INVALIDARG;
    return CopyOut(StreamFileName(g_ZLogInfo[index]), buffer, length);
}

qsStatus qsLogStreamObjectsInit(const char*) {
    std::string path;
    qsStatus s = ResolveLogDirectory(path);
    if (qsFailed(s))
        return s;

    ZFile lookup;
    WIN32_FIND_DATAA found;
    if (qsSucceeded(lookup.GetWinFindData(path.c_str(), &found))) {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            return QS_E_NO_LOG_STREAM;
    } else {
        s = qsLogCreateDirectoryTree(path.c_str(), nullptr);
        if (qsFailed(s))
            return s;
    }

    qsLogInfoMessages(true);

    const char* sizeOverride = getenv("QS_LOG_SIZE");
    qsStatus result = QS_OK;
    for (qsLogStreamInfo& entry : g_ZLogInfo) {
        if (*entry.stream)
            continue;
        DWORD sizeKB = sizeOverride ? SizeFromText(sizeOverride) : *entry.sizeKB;
        if (sizeKB == 0)
            continue;
        auto* stream =
            new ZLogStream(path.c_str(), StreamFileName(entry).c_str(), sizeKB, 16384, true);
        if (stream->StateWord() == STREAM_SIG_VALID) {
            *entry.stream = stream;
            continue;
        }
        delete stream;
        result = QS_E_NO_LOG_STREAM;
    }
    return result;
}

void qsLogStreamObjectsTerm() {
    // The global goes first: whatever the closing stream reports must not be
    // appended to the stream being destroyed.
    for (qsLogStreamInfo& entry : g_ZLogInfo) {
        ZLogStream* stream = *entry.stream;
        *entry.stream = nullptr;
        delete stream;
    }
}

// The process id and the module handle are not kept: nothing read them, and
// a recorded process id was wrong in every forked child.
qsStatus qsLogInitDll(HANDLE) {
    if (g_LoggingInitialized)
        qsLogStreamObjectsTerm();
    g_LoggingInitialized = true;
    return qsLogStreamObjectsInit(nullptr);
}

namespace qsLogging {

qsStatus StartLogging(bool restart, const char* dir, DWORD defaultSize, DWORD eventsSize,
                      DWORD perfCtrsSize) {
    g_ZLogStreamDefaultSize = defaultSize;
    g_ZLogStreamEventsSize = eventsSize;
    g_ZLogStreamPerfCtrsSize = perfCtrsSize;
    if (restart) {
        qsLogStreamObjectsTerm();
        g_LoggingInitialized = false;
    }
    if (g_LoggingInitialized)
        return QS_OK;
    g_LoggingInitialized = true;
    qsLogStreamObjectsInit(dir);
    return QS_OK;
}

qsStatus StopLogging() {
    qsLogStreamObjectsTerm();
    g_LoggingInitialized = false;
    return QS_OK;
}

} // namespace qsLogging

qsStatus qsLogPrintUnhandledExceptionMessage(const char* where, int number) {
    qsLogPrintfA(LONG(QS_E_EXCEPTION), qsLogSevError, "%hs: unhandled exception (%d)",
                 OrUnknown(where), number);
    return QS_E_EXCEPTION;
}

qsStatus qsLogPrintStructuredExceptionMessage(const char* where, DWORD exceptionCode, int number) {
    qsLogPrintfA(LONG(QS_E_EXCEPTION), qsLogSevError, "%hs: structured exception 0x%X (%d)",
                 OrUnknown(where), exceptionCode, number);
    return QS_E_EXCEPTION;
}

qsStatus qsLogPrintMemoryExceptionMessage(const char* where, int number) {
    qsLogPrintfA(LONG(QS_E_EXCEPTION), qsLogSevError, "%hs: memory exception (%d)",
                 OrUnknown(where), number);
    return QS_E_EXCEPTION;
}

qsStatus qsLogPrintQsExceptionMessage(const char* where, const qsException& e, qsLogSev severity) {
    qsStatus code = e.Code() ? e.Code() : QS_E_EXCEPTION;
    qsLogPrintfA(LONG(code), severity, "%hs: %hs: %s", OrUnknown(where),
                 e.Text() ? e.Text() : "???", e.Detail());
    return code;
}

namespace {

// At exit other threads may still be inside a logging call with a stream's
// pointer already read, so the streams are not destroyed here: their objects
// and mappings live until the process is gone.  The mapping is shared, so
// every record is already in the page cache; flushing is all that is left
// to do.  Appends that come later are refused, so that the process does not
// end in the middle of one, holding the lock its forked relatives share.
// StopLogging() still closes the streams for callers that stop on purpose.
void FlushLoggingAtExit() {
    for (qsLogStreamInfo& entry : g_ZLogInfo)
        if (ZLogStream* stream = *entry.stream)
            stream->FlushForExit();
}

// The default streams are open before main, so that a program's first
// message already has somewhere to go.  Everything this needs from this file
// is defined above; the rest of the library it reaches is constant-initialised.
struct AutoStart {
    AutoStart() {
        if (g_bLoggingDoAutoInit && !g_LoggingInitialized)
            qsLogInitDll(reinterpret_cast<HANDLE>(intptr_t(getpid())));
        atexit(FlushLoggingAtExit);
    }
} g_AutoStart;

} // namespace

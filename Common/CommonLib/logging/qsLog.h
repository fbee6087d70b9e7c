// The logging interface used by every part of the system.
//
// Messages go to the process-wide default stream, opened before main by the
// library's static initialiser (see "Automatic start" below).  The calls never
// throw and never stop the program: they return a status, 0xE0010101 when no
// stream is open (the message is then lost), 0xA0010103 for a severity-0
// message while informational messages are off, 0xE0FF010B when something
// inside threw (that is reported once to the system log).
//
// Format strings are the C library's; "%hs" is a narrow string, as on the
// platform the texts were written for.
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

#include <cstdarg>
#include <cstdint>

class qsException;

// Severity of a message.  Values above 2 are errors to the system log.
typedef int32_t qsLogSev;
enum : qsLogSev {
    qsLogSevInfo = 0,      // recorded only while the info switch is on
    qsLogSevNormal = 1,
    qsLogSevWarning = 2,
    qsLogSevError = 3,
    qsLogSevSysCall = 4,   // a failed system call
    qsLogSevFatal = 5,     // the watcher's own daemonising fork failed
};

// The compiler checks the formats of the narrow message functions against
// their arguments.
#define QS_LOG_PRINTF(formatIndex, firstArg) __attribute__((format(printf, formatIndex, firstArg)))

// Messages.  `code` is stored beside the severity: 0 for plain messages, an
// errno value or a status code when the message reports a failure.  The W
// forms of Printf and PrintString take narrow text, like the A forms.
qsStatus qsLogPrintfA(LONG code, qsLogSev severity, const char* format, ...) QS_LOG_PRINTF(3, 4);
qsStatus qsLogPrintfW(LONG code, qsLogSev severity, const char* format, ...) QS_LOG_PRINTF(3, 4);
qsStatus qsLogvPrintfA(LONG code, qsLogSev severity, const char* format, va_list args)
    QS_LOG_PRINTF(3, 0);
qsStatus qsLogvPrintfW(LONG code, qsLogSev severity, const wchar_t* format, va_list args);
qsStatus qsLogPrintfEx(LONG code, qsLogSev severity, DWORD flags, const char* format, ...)
    QS_LOG_PRINTF(4, 5);
qsStatus qsLogPrintStringA(const char* text, LONG code, qsLogSev severity, DWORD flags);
qsStatus qsLogPrintStringW(const char* text, LONG code, qsLogSev severity, DWORD flags);
// Up to 4088 bytes of text instead of 1016.
qsStatus qsLogBigMsgPrintfA(LONG code, qsLogSev severity, const char* format, ...)
    QS_LOG_PRINTF(3, 4);

// One line to the system log under `source` ("qsLog" when null).
void qsLogEventStringA(const char* text, LONG code, qsLogSev severity, const char* source);
void qsLogInfoMessages(bool on);
// A severity-1 message stamped 0x60FFFF01 with flags 2; "App Info" when text is null.
qsStatus qsLogPrintModuleMessage(const char* text, HANDLE module);

// The switch-level map is kept but never consulted: the first level set for
// a name stays, and every query answers 0.
void qsLogSetSwitchLevel(const char* name, DWORD level);
DWORD qsLogGetSwitchLevel(const char* name);
void qsLogSetSwitchLevelsUsingRegistry(const char* key, const char* path);

// QS_LOG_DIR, else HOME, cached for the life of the process after the first
// successful lookup.  `length`: capacity in, string length out.
qsStatus qsLogGetPublicDataPath(char* buffer, DWORD& length);
bool qsLogIsRelativePath(const char* path);
// Creates a directory and its missing parents; 0 when it already exists.
qsStatus qsLogCreateDirectoryTree(const char* path, SECURITY_ATTRIBUTES* sa);

// The directory of the default streams, resolved from QS_LOG_DIR (else
// "Logs" under the public data path) without looking at the file system:
// the same rules qsLogStreamObjectsInit applies.  `length`: capacity in,
// string length out.  0xE0010101 when the result is still relative.
qsStatus qsLogGetLogDirectory(char* buffer, DWORD& length);
// "<computer name>_<file name>" of default-stream entry `index` (0 Default,
// 1 Events, 2 PerfCtrs); the file name alone when the computer name cannot
// be read.
qsStatus qsLogGetStreamFileName(int index, char* buffer, DWORD& length);

// Opening and closing the default streams (the argument is ignored: the
// directory always comes from the environment).
qsStatus qsLogStreamObjectsInit(const char* dir);
void qsLogStreamObjectsTerm();
qsStatus qsLogInitDll(HANDLE module);

namespace qsLogging {
// Sizes in KiB; 0 means the stream is not created.  With restart the open
// streams are closed first; otherwise an initialised process keeps them.
qsStatus StartLogging(bool restart, const char* dir, DWORD defaultSize, DWORD eventsSize,
                      DWORD perfCtrsSize);
qsStatus StopLogging();
} // namespace qsLogging

// Exception reporters; each returns the code it logged.
qsStatus qsLogPrintUnhandledExceptionMessage(const char* where, int number);
qsStatus qsLogPrintStructuredExceptionMessage(const char* where, DWORD exceptionCode, int number);
qsStatus qsLogPrintMemoryExceptionMessage(const char* where, int number);
qsStatus qsLogPrintQsExceptionMessage(const char* where, const qsException& e, qsLogSev severity);

// Automatic start: the library opens the default streams before main unless
// this is false when its static initialiser runs.  A program opts out by
// defining its own (the library's definition is weak):
//     bool g_bLoggingDoAutoInit = false;
extern bool g_bLoggingDoAutoInit;

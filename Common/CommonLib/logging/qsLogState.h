// The logging interface's process-wide state, for the library and its tests.
// Programs log through qsLog.h and never need these names; they are plain
// globals, written at start, stop and by qsLogInfoMessages, not protected.
#pragma once

#include "qsWinTypes.h"

class ZLogStream;

// One entry of the default-stream table.
struct qsLogStreamInfo {
    ZLogStream** stream;
    const char* fileName;
    DWORD* sizeKB;
    const char* settingsKey; // kept for the table's shape; not read on this platform
};
constexpr int QS_LOG_STREAM_COUNT = 3;
// Default.log, Events.log, PerfCtrs.log, in this order.
extern qsLogStreamInfo g_ZLogInfo[QS_LOG_STREAM_COUNT];

// Every message of the logging calls goes to the first; the other two are
// only opened and closed.  Null when not open.
extern ZLogStream* g_pZLogStreamDefault;
extern ZLogStream* g_pZLogStreamEvents;
extern ZLogStream* g_pZLogStreamPerfCtrs;
// Sizes in KiB the streams are opened with (0: not opened).
extern DWORD g_ZLogStreamDefaultSize;
extern DWORD g_ZLogStreamEventsSize;
extern DWORD g_ZLogStreamPerfCtrsSize;

// The switch for severity-0 messages (qsLogInfoMessages).
extern bool g_LogInfoMessages;
extern bool g_LoggingInitialized;

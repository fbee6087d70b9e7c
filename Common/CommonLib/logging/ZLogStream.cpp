// Placeholder until the log file format lands: no stream can open, so every
// message returns 0xE0010101 and programs run without logs.
#include "ZLogStream.h"

ZLogStream::ZLogStream(const char*, const char*, DWORD, DWORD, bool)
    : m_State(STREAM_SIG_INVALID), m_pImage(nullptr), m_RecsSinceFlush(0),
      m_FlushInterval(16384), m_bMapped(true), m_OpenStatus(QS_E_NO_LOG_STREAM) {}
ZLogStream::ZLogStream(const char*)
    : m_State(STREAM_SIG_INVALID), m_pImage(nullptr), m_RecsSinceFlush(0),
      m_FlushInterval(16384), m_bMapped(false), m_OpenStatus(QS_E_NO_LOG_STREAM) {}
ZLogStream::~ZLogStream() = default;

qsStatus ZLogStream::WriteRec(const void*, DWORD, qsLogRecType, DWORD) { return QS_E_NOT_VALID; }
qsStatus ZLogStream::WriteRec(const void*, DWORD, const FILETIME&, DWORD, DWORD, qsLogRecType,
                              DWORD) {
    return QS_E_NOT_VALID;
}
qsStatus ZLogStream::PrintString(const char*, LONG, qsLogSev, DWORD) { return QS_E_NOT_VALID; }
qsStatus ZLogStream::PrintString(const wchar_t*, LONG, qsLogSev, DWORD) { return QS_E_NOT_VALID; }
qsStatus ZLogStream::vPrintf(LONG, qsLogSev, DWORD, const char*, va_list) {
    return QS_E_NOT_VALID;
}
qsStatus ZLogStream::vBigMsgPrintf(LONG, qsLogSev, DWORD, const char*, va_list) {
    return QS_E_NOT_VALID;
}
qsStatus ZLogStream::vPrintf(LONG, qsLogSev, DWORD, const wchar_t*, va_list) {
    return QS_E_NOT_VALID;
}

#include "ZLogStream.h"

#include "qsLogFormat.h"
#include "qsLogState.h"
#include "qsWinApi.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

static_assert(sizeof(wchar_t) == 4, "wide records store 4-byte units");

namespace {

constexpr DWORD kLockTimeoutMs = 500;
constexpr DWORD kLockAttempts = 4;
// Opening may wait behind another process's resize copy of a large file.
constexpr DWORD kOpenLockTimeoutMs = 30000;
constexpr DWORD kMaxSizeKB = 1048576;
constexpr DWORD kMaxSnapshotBytes = 1073741824;
constexpr size_t kMaxPath = 260;
// The resize record that follows the records a resize carries over.
constexpr DWORD kResizeRecStride = ZLogRecActualSize(LOG_REC_HEADER_SIZE + 8);
// Room for the rewritten format of a message; longer formats are used as given.
constexpr size_t kPlainFormatBytes = 256;

// Flushes since the last touch, shared by every stream of the process: the
// flush that finds 2 touches the file and starts again at 0.  Not locked;
// at worst a touch comes one flush early or late.
DWORD g_FlushesSinceTouch = 0;

DWORD CappedLength(int formatted, DWORD cap) {
    if (formatted == -1)
        return cap;
    if (formatted < 0)
        return 0;
    return std::min(DWORD(formatted), cap);
}

} // namespace

// ---------------------------------------------------------------------------
// Life

ZLogStream::ZLogStream(const char* dir, const char* name, DWORD sizeKB, DWORD flushInterval,
                       bool writeStartRec)
    : m_FlushInterval(flushInterval), m_bMapped(true) {
    KeepFailuresToItself();
    // Streams are opened from a static initialiser before main: nothing may
    // escape from here.
    try {
        m_OpenStatus = OpenLive(dir, name, sizeKB, writeStartRec);
    } catch (...) {
        m_OpenStatus = QS_E_EXCEPTION;
        ReleaseResources();
    }
}

ZLogStream::ZLogStream(const char* path) : m_FlushInterval(16384), m_bMapped(false) {
    KeepFailuresToItself();
    try {
        m_OpenStatus = OpenSnapshot(path);
    } catch (...) {
        m_OpenStatus = QS_E_EXCEPTION;
        ReleaseResources();
    }
}

// The stream's own file and lock report nothing through the logging calls:
// the stream may be the default one, and a report from inside an append
// would be appended under the held lock, whose nested release (one release
// frees it) would leave the rest of the outer append unlocked.  Their
// failures come back as status codes instead.
void ZLogStream::KeepFailuresToItself() {
    m_File.SetLogErrors(false);
    m_Mutex.SetLogErrors(false);
}

ZLogStream::~ZLogStream() {
    // A stream whose lock cannot be had is left unflushed and untouched: its
    // holder may be in the middle of a record.  The image goes while the
    // lock is held, so that a writer that was waiting for it finds no image
    // rather than an unmapped one.
    if (qsSucceeded(LockLogfile(kLockTimeoutMs, kLockAttempts))) {
        TouchLogfile();
        ReleaseImage();
        UnlockLogfile();
        ResetMemberVariables(true, 16384);
    }
    m_Mutex.Close();
}

void ZLogStream::ResetMemberVariables(bool mapped, DWORD flushInterval) {
    m_State = STREAM_SIG_INVALID;
    m_pImage = nullptr;
    m_ImageBytes = 0;
    m_File.CloseHandle();
    m_FlushInterval = flushInterval;
    m_RecsSinceFlush = 0;
    m_bMapped = mapped;
}

void ZLogStream::ReleaseImage() {
    m_State = STREAM_SIG_INVALID;
    if (m_bMapped)
        m_File.UnMapFile();
    else if (m_pImage)
        VirtualFree(m_pImage, 0, MEM_RELEASE);
    m_pImage = nullptr;
    m_ImageBytes = 0;
    m_File.CloseHandle();
}

void ZLogStream::ReleaseResources() {
    ReleaseImage();
    m_Mutex.Close();
}

void ZLogStream::CreateAuxName(char* out, const char* path, const char* suffix) {
    char* p = out;
    for (const char* s : {path, suffix}) {
        for (; *s; ++s) {
            char c = *s;
            *p++ = (c == '\\' || c == '/') ? '_' : char(toupper((unsigned char)c));
        }
    }
    *p = '\0';
}

// ---------------------------------------------------------------------------
// Opening the live form

qsStatus ZLogStream::OpenLive(const char* dir, const char* name, DWORD sizeKB,
                              bool writeStartRec) {
    if (!dir || !*dir || !name || !*name || sizeKB == 0 || sizeKB > kMaxSizeKB)
        return QS_E_INVALIDARG;
    size_t dirLen = strlen(dir);
    if (dirLen + strlen(name) > kMaxPath - 1)
        return QS_E_INVALIDARG;

    m_State = STREAM_SIG_OPENING;
    char separator = strchr(dir, '/') ? '/' : '\\';
    char path[kMaxPath + 1];
    bool needSeparator = dir[dirLen - 1] != separator;
    snprintf(path, sizeof path, "%s%s%s", dir, needSeparator ? (separator == '/' ? "/" : "\\") : "",
             name);

    char auxName[kMaxPath + 16];
    CreateAuxName(auxName, path, "_MUTEX");
    errno = 0;
    qsStatus s = m_Mutex.Create(auxName, false);
    if (qsFailed(s)) {
        ReleaseResources();
        return s;
    }
    // Only the first process to open the file (with no one to share the
    // mutex with) may re-initialise a damaged file.
    bool mutexIsNew = errno != ERROR_ALREADY_EXISTS;

    s = LockLogfile(kOpenLockTimeoutMs, kLockAttempts);
    if (qsFailed(s)) {
        ReleaseResources();
        return s;
    }

    s = OpenLocked(path, sizeKB, writeStartRec, mutexIsNew);
    UnlockLogfile();
    if (qsFailed(s))
        ReleaseResources();
    return s;
}

qsStatus ZLogStream::OpenLocked(const char* path, DWORD sizeKB, bool writeStartRec,
                                bool mutexIsNew) {
    const DWORD sizeBytes = sizeKB << 10;
    qsStatus s = m_File.CreateFileA(path, GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (qsFailed(s) || !m_File.IsOpen())
        return QS_E_FILE_OPEN;

    bool needInit = !m_File.IsPreExisting();
    bool resized = false;
    DWORD oldKB = 0;
    if (!needInit) {
        errno = 0;
        DWORD high = 0;
        DWORD fileSize = m_File.GetFileSize(&high);
        if (fileSize == INVALID_FILE_SIZE && errno != 0)
            return QS_E_FILE_SIZE;
        if (high != 0 || fileSize % 1024 != 0) {
            needInit = true;
        } else {
            bool resizeDue = fileSize != sizeBytes;
            alignas(ZLogFile) unsigned char header[LOG_FILE_HEADER_SIZE];
            DWORD done = 0;
            if (!m_File.ReadFile(header, sizeof header, &done, nullptr) || done < sizeof header)
                return QS_E_FILE_READ;
            auto* hdr = reinterpret_cast<const ZLogFile*>(header);
            if (!hdr->IsValid(resizeDue ? fileSize >> 10 : sizeKB))
                needInit = true;
            else if (resizeDue) {
                oldKB = fileSize >> 10;
                needInit = !ResizeFile(path, fileSize, sizeKB);
                resized = !needInit;
            }
        }
    }

    if (needInit) {
        // Another process has the file open and may be writing to it.
        if (!mutexIsNew)
            return QS_E_NO_LOG_STREAM;
        s = InitialiseFile(sizeKB);
        if (qsFailed(s))
            return s;
    }

    char mapName[kMaxPath + 16];
    CreateAuxName(mapName, path, "_FMAP");
    void* view = m_File.MapFile(nullptr, PAGE_READWRITE, 0, sizeBytes, mapName);
    // The file object reports a failed mapping and a failed view alike, so
    // 0xE0020402 (no view) never arises here.
    if (!view)
        return QS_E_MAP;
    m_pImage = static_cast<ZLogFile*>(view);
    m_ImageBytes = sizeBytes;

    if (needInit && writeStartRec) {
        s = m_pImage->WriteStartRec();
        if (qsFailed(s))
            return s;
    }
    if (resized) {
        s = m_pImage->WriteResizeRec(oldKB, sizeKB);
        if (qsFailed(s))
            return s;
    }
    m_State = STREAM_SIG_VALID;
    TouchLogfile();
    return QS_OK;
}

// A fresh header cut to 28 bytes; mapping the file brings it back to full
// size with a record area of zeros.
qsStatus ZLogStream::InitialiseFile(DWORD sizeKB) {
    ZLogFile header(sizeKB);
    DWORD done = 0;
    if (m_File.SetFilePointer(0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER ||
        !m_File.WriteFile(&header, sizeof header, &done, nullptr) || done != sizeof header ||
        !m_File.SetEndOfFile())
        return QS_E_FILE_INIT;
    return QS_OK;
}

// Carries the records of a file of another size over into a new image of
// sizeKB: the newest that fit (all of them when growing) with room left for
// the resize record, oldest first and renumbered from 1.  They are found by
// the walk from the newest record back, which reaches every intact record;
// the cursors' forward rule can stop short at the wrap point and would lose
// the newest ones.  The new image is built in a private mapping of a
// temporary file and written over the log file only when it holds at least
// one record.  The lock is held throughout.  Returns true when the file now
// holds the new image.
bool ZLogStream::ResizeFile(const char* path, DWORD oldSizeBytes, DWORD sizeKB) {
    const DWORD newSizeBytes = sizeKB << 10;
    char tmpPath[kMaxPath + 8];
    snprintf(tmpPath, sizeof tmpPath, "%s_tmp", path);
    ZFile tmp;
    bool done = false;

    try {
        auto* old = static_cast<const ZLogFile*>(
            m_File.MapFile(nullptr, PAGE_READONLY, 0, oldSizeBytes, nullptr));
        void* newImage = nullptr;
        if (old && qsSucceeded(tmp.CreateFileA(tmpPath, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                               CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY, nullptr)))
            newImage = tmp.MapFile(nullptr, PAGE_READWRITE, 0, newSizeBytes, nullptr);

        DWORD copied = 0;
        if (newImage)
            copied = (new (newImage) ZLogFile(sizeKB))->CopyNewestRecords(*old, kResizeRecStride);
        m_File.UnMapFile();
        if (copied) {
            DWORD written = 0;
            done = m_File.SetFilePointer(LONG(newSizeBytes), nullptr, FILE_BEGIN) !=
                       INVALID_SET_FILE_POINTER &&
                   m_File.SetEndOfFile() &&
                   m_File.SetFilePointer(0, nullptr, FILE_BEGIN) != INVALID_SET_FILE_POINTER &&
                   m_File.WriteFile(newImage, newSizeBytes, &written, nullptr) &&
                   written == newSizeBytes;
        }
    } catch (...) {
        qsLogEventStringA("unhandled exception resizing", LONG(QS_E_EXCEPTION), qsLogSevError,
                          nullptr);
        m_File.UnMapFile();
        done = false;
    }

    tmp.UnMapFile();
    tmp.CloseHandle();
    DeleteFileA(tmpPath);
    return done;
}

// ---------------------------------------------------------------------------
// Opening the snapshot form

qsStatus ZLogStream::OpenSnapshot(const char* path) {
    if (!path || !*path || strpbrk(path, "*?"))
        return QS_E_INVALIDARG;
    WIN32_FIND_DATAA found;
    qsStatus s = m_File.GetWinFindData(path, &found);
    if (qsFailed(s))
        return s;
    if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
        return QS_E_INVALIDARG;
    // An empty file passes the multiple-of-1024 test but holds no header.
    DWORD size = found.nFileSizeLow;
    if (found.nFileSizeHigh != 0 || size % 1024 != 0 || size == 0 || size > kMaxSnapshotBytes)
        return QS_E_NOT_VALID;

    s = m_File.CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (qsFailed(s))
        return s;
    s = ReadSnapshot(size);
    m_File.CloseHandle();
    if (qsFailed(s))
        ReleaseResources();
    return s;
}

qsStatus ZLogStream::ReadSnapshot(DWORD size) {
    qsStatus s = m_Mutex.Create();
    if (qsFailed(s))
        return s;
    m_pImage = static_cast<ZLogFile*>(VirtualAlloc(nullptr, size, MEM_COMMIT, PAGE_READWRITE));
    if (!m_pImage)
        return QS_E_OUT_OF_MEMORY;
    m_ImageBytes = size;
    DWORD done = 0;
    if (!m_File.ReadFile(m_pImage, size, &done, nullptr) || done != size)
        return QS_E_FILE_READ;
    if (!m_pImage->IsValid(size >> 10))
        return QS_E_NOT_VALID;
    m_State = STREAM_SIG_VALID;
    return QS_OK;
}

// ---------------------------------------------------------------------------
// Locking

qsStatus ZLogStream::LockLogfile(DWORD timeoutMs, DWORD attempts) const {
    if (m_State != STREAM_SIG_VALID && m_State != STREAM_SIG_OPENING)
        return QS_E_NOT_VALID;
    return AcquireLock(timeoutMs, attempts);
}

// Only a time-out is worth another attempt.
qsStatus ZLogStream::AcquireLock(DWORD timeoutMs, DWORD attempts) const {
    qsStatus s = QS_W_TIMEOUT;
    for (DWORD i = 0; i < attempts; ++i) {
        s = m_Mutex.Lock(timeoutMs);
        if (s != QS_W_TIMEOUT)
            break;
    }
    return s;
}

qsStatus ZLogStream::UnlockLogfile() const {
    return qsFailed(m_Mutex.Unlock()) ? QS_E_MUTEX_RELEASE : QS_OK;
}

ZLogStream::Lock::Lock(const ZLogStream* stream, bool acquireNow)
    : m_pStream(stream), m_bHeld(false) {
    if (acquireNow)
        AcquireLock();
}

ZLogStream::Lock::~Lock() { ReleaseLock(); }

bool ZLogStream::Lock::AcquireLock() {
    if (m_bHeld)
        return true;
    if (!m_pStream || !m_pStream->IsValid())
        return false;
    m_bHeld = qsSucceeded(m_pStream->LockLogfile(kLockTimeoutMs, kLockAttempts));
    return m_bHeld;
}

void ZLogStream::Lock::ReleaseLock() {
    if (!m_bHeld)
        return;
    m_pStream->UnlockLogfile();
    m_bHeld = false;
}

// ---------------------------------------------------------------------------
// Writing

qsStatus ZLogStream::WriteRec(const void* data, DWORD size, qsLogRecType type, DWORD flags) {
    if (!IsValid())
        return QS_E_NOT_VALID;
    return Append(type, flags, size, nullptr, [&](void* payload) { memcpy(payload, data, size); });
}

qsStatus ZLogStream::WriteRec(const void* data, DWORD size, const FILETIME& time, DWORD processId,
                              DWORD threadId, qsLogRecType type, DWORD flags) {
    if (!IsValid())
        return QS_E_NOT_VALID;
    RecordOrigin origin{time, processId, threadId};
    return Append(type, flags, size, &origin,
                  [&](void* payload) { memcpy(payload, data, size); });
}

// Places one record and lets `fill` write its payload straight into the
// mapping, all under the lock.  This is the whole append path: no allocation,
// no system call beyond what the lock needs.  The caller has checked the
// state word once; under the lock only the image itself is checked, since
// another process may have resized the file.
template <typename Fill>
qsStatus ZLogStream::Append(qsLogRecType type, DWORD flags, DWORD size, const RecordOrigin* origin,
                            Fill fill) {
    qsStatus s = AcquireLock(kLockTimeoutMs, kLockAttempts);
    if (qsFailed(s))
        return s;
    if (!ImageIntact()) {
        UnlockLogfile();
        return QS_E_NOT_VALID;
    }
    void* payload = nullptr;
    s = origin ? m_pImage->NewRecord(origin->time, origin->processId, origin->threadId, type, flags,
                                     size, &payload)
               : m_pImage->NewRecord(type, flags, size, &payload);
    if (qsSucceeded(s)) {
        fill(payload);
        CheckFlushLogfile();
    }
    UnlockLogfile();
    return s;
}

qsStatus ZLogStream::AppendMessage(LONG code, qsLogSev severity, DWORD flags, qsLogRecType type,
                                   const void* text, DWORD textBytes) {
    return Append(type, flags, LOG_REC_STRING_PREFIX + textBytes, nullptr, [&](void* payload) {
        auto* p = static_cast<unsigned char*>(payload);
        memcpy(p, &code, 4);
        memcpy(p + 4, &severity, 4);
        memcpy(p + LOG_REC_STRING_PREFIX, text, textBytes);
    });
}

// Why a print operation does nothing: the stream is not usable, or the
// message is informational while those are switched off.  0 otherwise.
qsStatus ZLogStream::PrintRefusal(qsLogSev severity) const {
    if (m_State != STREAM_SIG_VALID)
        return QS_E_NOT_VALID;
    if (severity == qsLogSevInfo && !g_LogInfoMessages)
        return QS_W_MSG_SUPPRESSED;
    return QS_OK;
}

qsStatus ZLogStream::PrintString(const char* text, LONG code, qsLogSev severity, DWORD flags) {
    if (qsStatus refused = PrintRefusal(severity))
        return refused;
    if (!text)
        text = "";
    return AppendMessage(code, severity, flags, LOGREC_STRING_A, text,
                         DWORD(strnlen(text, LOG_MSG_MAX_TEXT)));
}

qsStatus ZLogStream::PrintString(const wchar_t* text, LONG code, qsLogSev severity, DWORD flags) {
    if (qsStatus refused = PrintRefusal(severity))
        return refused;
    if (!text)
        text = L"";
    return AppendMessage(code, severity, flags, LOGREC_STRING_W, text,
                         DWORD(wcsnlen(text, LOG_MSG_MAX_WCHARS)) * 4);
}

// Formats a narrow message into `text` (cap + 1 bytes: the C library always
// spends a byte on the terminator, which is not stored, so a truncated text
// keeps all of its cap) and returns the length to store.  A formatting error
// (-1, say for a wide argument it cannot convert) counts as the whole cap; the
// buffer is then formatted again over zeros so that what it did not write is
// never stack contents.
static DWORD FormatNarrow(char* text, DWORD cap, const char* format, va_list args) {
    // "%hs" sends glibc down its slow path; the plain form prints the same text.
    char plain[kPlainFormatBytes];
    format = qsLogPlainFormat(format ? format : "", plain, sizeof plain);
    va_list again;
    va_copy(again, args);
    int n = vsnprintf(text, cap + 1, format, args);
    if (n == -1) {
        memset(text, 0, cap + 1);
        vsnprintf(text, cap + 1, format, again);
    }
    va_end(again);
    return CappedLength(n, cap);
}

template <DWORD Cap>
qsStatus ZLogStream::PrintNarrow(LONG code, qsLogSev severity, DWORD flags, const char* format,
                                 va_list args) {
    if (qsStatus refused = PrintRefusal(severity))
        return refused;
    char text[Cap + 1];
    DWORD length = FormatNarrow(text, Cap, format, args);
    return AppendMessage(code, severity, flags, LOGREC_STRING_A, text, length);
}

qsStatus ZLogStream::vPrintf(LONG code, qsLogSev severity, DWORD flags, const char* format,
                             va_list args) {
    return PrintNarrow<LOG_MSG_MAX_TEXT>(code, severity, flags, format, args);
}

qsStatus ZLogStream::vBigMsgPrintf(LONG code, qsLogSev severity, DWORD flags, const char* format,
                                   va_list args) {
    return PrintNarrow<LOG_BIG_MSG_MAX_TEXT>(code, severity, flags, format, args);
}

qsStatus ZLogStream::vPrintf(LONG code, qsLogSev severity, DWORD flags, const wchar_t* format,
                             va_list args) {
    if (qsStatus refused = PrintRefusal(severity))
        return refused;
    // vswprintf answers -1 both for a truncated text and for one it could not
    // convert; either way the full 1022 characters are stored, so the buffer
    // starts zeroed to keep stack contents out of the file.
    wchar_t text[LOG_MSG_MAX_WCHARS + 1] = {};
    int n = vswprintf(text, LOG_MSG_MAX_WCHARS + 1, format ? format : L"", args);
    DWORD bytes = n == -1 ? LOG_MSG_MAX_WCHARS * 4 : CappedLength(n, LOG_MSG_MAX_WCHARS) * 4;
    return AppendMessage(code, severity, flags, LOGREC_STRING_W, text, bytes);
}

qsStatus ZLogStream::ClearRecs() {
    if (m_State != STREAM_SIG_VALID)
        return QS_E_NOT_VALID;
    qsStatus s = LockLogfile(kLockTimeoutMs, kLockAttempts);
    if (qsFailed(s))
        return s;
    s = ImageIntact() ? m_pImage->ClearRecs() : QS_E_NOT_VALID;
    UnlockLogfile();
    return s;
}

qsStatus ZLogStream::Flush() {
    qsStatus s = LockLogfile(kLockTimeoutMs, kLockAttempts);
    if (qsFailed(s))
        return s;
    s = FlushLogfile();
    UnlockLogfile();
    return s;
}

// Taken for a moment only, so that no append of this process is half done
// when every later one is made to find the image no longer its own (as after
// a resize by another process) and give up before it writes.  The lock is
// then held by this process only for the moment of that test, so the
// process is most unlikely to end holding the lock it shares with its forked
// relatives.  The flush needs no lock and is made without it, so that the
// relatives' appends never wait behind the disk.
qsStatus ZLogStream::FlushForExit() {
    qsStatus s = LockLogfile(kLockTimeoutMs, kLockAttempts);
    if (qsFailed(s))
        return s;
    m_ImageBytes = 0;
    UnlockLogfile();
    return FlushLogfile();
}

// The mapping is flushed synchronously only every flush-interval records; in
// between, the data reaches the disk through the kernel's own write-back.
void ZLogStream::CheckFlushLogfile() {
    if (!m_bMapped || ++m_RecsSinceFlush < m_FlushInterval)
        return;
    m_RecsSinceFlush = 0;
    m_File.FlushViewOfFile(m_pImage, 0);
    if (g_FlushesSinceTouch < 2) {
        ++g_FlushesSinceTouch;
        return;
    }
    g_FlushesSinceTouch = 0;
    TouchLogfile();
}

qsStatus ZLogStream::FlushLogfile() {
    if (m_State != STREAM_SIG_VALID || !m_pImage || !m_bMapped)
        return QS_E_NOT_VALID;
    return m_File.FlushViewOfFile(m_pImage, 0) ? QS_OK : QS_E_FLUSH;
}

qsStatus ZLogStream::TouchLogfile() {
    if (m_State != STREAM_SIG_VALID)
        return QS_E_NOT_VALID;
    if (!m_bMapped || !m_File.IsOpen())
        return QS_OK;
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return m_File.SetFileTime(nullptr, nullptr, &now) ? QS_OK : QS_E_FILE_TOUCH;
}

// ---------------------------------------------------------------------------
// Queries

int32_t ZLogStream::SizeInBytes() const { return IsValid() ? int32_t(m_pImage->SizeInBytes()) : -1; }
int32_t ZLogStream::RecordCount() const { return IsValid() ? int32_t(m_pImage->RecordCount()) : -1; }
int32_t ZLogStream::WrapCount() const { return IsValid() ? int32_t(m_pImage->WrapCount()) : -1; }
const char* ZLogStream::GetLogFileName() const { return m_File.GetFileName(); }
const ZLogFile* ZLogStream::Image() const { return IsValid() ? m_pImage : nullptr; }

// The header must describe the bytes this stream holds.  Processes that open
// the same file independently do not share its lock, and one of them may
// re-initialise or resize the file under the others; a writer or reader that
// trusted the new size would then run past its own mapping.
bool ZLogStream::ImageIntact() const {
    return m_pImage && m_pImage->SizeInBytes() == m_ImageBytes;
}

// ---------------------------------------------------------------------------
// Cursors

ZLogStream::iterator_base ZLogStream::begin() const {
    return CursorAt([](const ZLogFile* image) { return image->LastRec(); });
}

ZLogStream::iterator_base ZLogStream::rbegin() const {
    return CursorAt([](const ZLogFile* image) { return image->FirstRec(); });
}

template <typename Find> ZLogStream::iterator_base ZLogStream::CursorAt(Find find) const {
    if (qsFailed(LockLogfile(kLockTimeoutMs, kLockAttempts)))
        return end();
    iterator_base it;
    const ZLogRec* rec = ImageIntact() && m_pImage->RecordCount() != 0 ? find(m_pImage) : nullptr;
    if (rec && static_cast<const void*>(rec) != m_pImage && m_pImage->IsRecordValid(rec, 0))
        it = iterator_base(this, rec);
    UnlockLogfile();
    return it;
}

ZLogStream::iterator_base::iterator_base(const ZLogStream* stream, const ZLogRec* rec) {
    if (!stream || !stream->IsValid() || !rec || !rec->IsValid())
        return;
    m_pStream = stream;
    m_pRec = rec;
    m_RecordId = rec->GetRecInfoRecordId();
}

ZLogStream::iterator_base::iterator_base(const iterator_base& other) { *this = other; }

ZLogStream::iterator_base& ZLogStream::iterator_base::operator=(const iterator_base& other) {
    if (this == &other)
        return *this;
    if (!other.IsValid()) {
        BecomeEnd();
        return *this;
    }
    m_pStream = other.m_pStream;
    m_pRec = other.m_pRec;
    m_RecordId = other.m_RecordId;
    return *this;
}

bool ZLogStream::iterator_base::IsValid() const {
    return m_pStream && m_pStream->IsValid() && m_pRec && m_pRec->IsValid();
}

void ZLogStream::iterator_base::BecomeEnd() {
    m_pStream = nullptr;
    m_pRec = nullptr;
    m_RecordId = 0;
}

// Called under the lock: another writer may have overwritten the record
// since the cursor last looked.  Also bounds the payload by the image, which
// the pointer form of the record check alone does not.
bool ZLogStream::iterator_base::StillOnRecord() const {
    const ZLogFile* image = m_pStream->m_pImage;
    if (!m_pStream->ImageIntact() || !image->IsRecordValid(m_pRec, 0) || m_pRec->GetRecInfoRecordId() != m_RecordId)
        return false;
    uint64_t end = uint64_t(image->OffsetOf(m_pRec)) + m_pRec->GetRecSize();
    return m_pRec->GetRecSize() >= LOG_REC_HEADER_SIZE && end <= image->SizeInBytes();
}

template <typename Step> ZLogStream::iterator_base& ZLogStream::iterator_base::Walk(Step step) {
    if (!IsValid()) {
        BecomeEnd();
        return *this;
    }
    const ZLogStream* stream = m_pStream;
    if (qsFailed(stream->LockLogfile(kLockTimeoutMs, kLockAttempts))) {
        BecomeEnd();
        return *this;
    }
    const ZLogRec* next = StillOnRecord() ? step(stream->m_pImage, m_pRec) : nullptr;
    if (next) {
        m_pRec = next;
        m_RecordId = next->GetRecInfoRecordId();
    } else {
        BecomeEnd();
    }
    stream->UnlockLogfile();
    return *this;
}

ZLogStream::iterator_base& ZLogStream::iterator_base::NextRec() {
    return Walk([](const ZLogFile* image, const ZLogRec* rec) { return image->NextRec(rec); });
}

ZLogStream::iterator_base& ZLogStream::iterator_base::PrevRec() {
    return Walk([](const ZLogFile* image, const ZLogRec* rec) { return image->PrevRec(rec); });
}

qsStatus ZLogStream::iterator_base::GetRecData(void* buffer, DWORD* size, ZLogRecInfo* info) {
    if (!size)
        return QS_E_INVALIDARG;
    if (!IsValid()) {
        BecomeEnd();
        return QS_E_CURSOR_STALE;
    }
    const ZLogStream* stream = m_pStream;
    qsStatus s = stream->LockLogfile(kLockTimeoutMs, kLockAttempts);
    if (qsFailed(s))
        return s;
    if (!StillOnRecord()) {
        stream->UnlockLogfile();
        BecomeEnd();
        return QS_E_CURSOR_STALE;
    }
    DWORD length = m_pRec->GetRecSize() - LOG_REC_HEADER_SIZE;
    DWORD copied = std::min(*size, length);
    if (buffer && copied) {
        memcpy(buffer, m_pRec->Payload(), copied);
        if (m_pRec->IsOppositeEndian())
            ZLogRec::ConvertPayload(m_pRec->GetRecInfoType(), buffer, copied);
    }
    if (info)
        *info = m_pRec->GetRecInfo();
    s = *size < length ? QS_E_BUFFER_TOO_SMALL : QS_OK;
    *size = length;
    stream->UnlockLogfile();
    return s;
}

// One open log file.
//
// The live form opens or creates <dir>/<name>, repairs or resizes it, maps it
// shared and appends records to the mapping under a named cross-process lock,
// so that every process that opened the file (and every child forked after
// that) can write to it at once.  The snapshot form reads a whole existing
// file into private memory for reading only.  Both walk their records with
// the same cursor.
//
// Every operation checks the state word first; a stream that failed to open
// answers 0xE0FF0103 (or -1 / null).  Nothing throws.
#pragma once

#include "ZFile.h"
#include "ZLogFile.h"
#include "ZMutex.h"
#include "qsLog.h"

#include <cstdarg>

constexpr uint32_t STREAM_SIG_VALID = 0x7469A48C;
constexpr uint32_t STREAM_SIG_OPENING = 0x67A47A69;
constexpr uint32_t STREAM_SIG_INVALID = 0x6E69A59A;

// Longest text of one message record: 1016 narrow bytes (4088 for the big
// form), 1022 wide characters.
constexpr DWORD LOG_MSG_MAX_TEXT = 1016;
constexpr DWORD LOG_BIG_MSG_MAX_TEXT = 4088;
constexpr DWORD LOG_MSG_MAX_WCHARS = 1022;

class ZLogStream {
public:
    // The live form.  sizeKB in 1 .. 1048576; the default streams use a
    // flush interval of 16384 records and write a start record.
    ZLogStream(const char* dir, const char* name, DWORD sizeKB, DWORD flushInterval,
               bool writeStartRec);
    // The snapshot form: a private copy of the file at `path`.
    explicit ZLogStream(const char* path);
    ~ZLogStream();
    ZLogStream(const ZLogStream&) = delete;
    ZLogStream& operator=(const ZLogStream&) = delete;

    // The first word of the object; STREAM_SIG_VALID once usable.
    uint32_t StateWord() const { return m_State; }
    bool IsValid() const { return m_State == STREAM_SIG_VALID; }
    // The status the constructor ended with (0 when the stream opened).
    qsStatus OpenStatus() const { return m_OpenStatus; }

    qsStatus WriteRec(const void* data, DWORD size, qsLogRecType type, DWORD flags);
    qsStatus WriteRec(const void* data, DWORD size, const FILETIME& time, DWORD processId,
                      DWORD threadId, qsLogRecType type, DWORD flags);
    qsStatus PrintString(const char* text, LONG code, qsLogSev severity, DWORD flags);
    qsStatus PrintString(const wchar_t* text, LONG code, qsLogSev severity, DWORD flags);
    qsStatus vPrintf(LONG code, qsLogSev severity, DWORD flags, const char* format, va_list args);
    qsStatus vBigMsgPrintf(LONG code, qsLogSev severity, DWORD flags, const char* format,
                           va_list args);
    qsStatus vPrintf(LONG code, qsLogSev severity, DWORD flags, const wchar_t* format,
                     va_list args);
    qsStatus ClearRecs();
    qsStatus Flush();
    // For the end of the process while other threads may still be logging:
    // flushes, and from then on this object's appends and cursor steps
    // answer 0xE0FF0103 without taking the lock for longer than a test.  The
    // object and its mapping stay as they are.
    qsStatus FlushForExit();

    // Header fields read without the lock; -1 when the stream is not valid.
    int32_t SizeInBytes() const;
    int32_t RecordCount() const;
    int32_t WrapCount() const;
    const char* GetLogFileName() const;

    // A cursor on one record.  It holds no lock between steps: every step and
    // read re-checks, under the lock, that its record still carries the
    // remembered id, and becomes the end position when a writer overran it.
    class iterator_base {
    public:
        iterator_base() = default;
        iterator_base(const ZLogStream* stream, const ZLogRec* rec);
        iterator_base(const iterator_base& other);
        iterator_base& operator=(const iterator_base& other);

        bool IsValid() const;
        bool IsEnd() const { return !IsValid(); }
        DWORD RecordId() const { return m_RecordId; }
        // Newer / older record; the end position when the chain breaks.
        iterator_base& NextRec();
        iterator_base& PrevRec();
        // Copies min(*size, payload) bytes, sets *size to the payload length
        // and fills info in native order.  0; 0xE0FF0101 when the buffer was
        // smaller (the cursor stays); 0xE0010102 when the record is gone (the
        // cursor becomes the end position).
        qsStatus GetRecData(void* buffer, DWORD* size, ZLogRecInfo* info);

        bool operator==(const iterator_base& other) const {
            return m_pStream == other.m_pStream && m_pRec == other.m_pRec &&
                   m_RecordId == other.m_RecordId;
        }

    private:
        bool StillOnRecord() const;
        void BecomeEnd();
        template <typename Step> iterator_base& Walk(Step step);

        const ZLogStream* m_pStream = nullptr;
        const ZLogRec* m_pRec = nullptr;
        DWORD m_RecordId = 0;
    };

    // begin() is the newest record (walk older with PrevRec), rbegin() the
    // oldest (walk newer with NextRec); the end position when there is none.
    iterator_base begin() const;
    iterator_base rbegin() const;
    static iterator_base end() { return iterator_base(); }

    // Scoped holder of the stream's lock.  The lock is re-entrant but one
    // release frees it entirely: a Lock held around WriteRec no longer holds
    // it after the write.  That is how this lock behaves; do not rely on
    // nesting.
    class Lock {
    public:
        Lock(const ZLogStream* stream, bool acquireNow);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        bool AcquireLock();
        void ReleaseLock();
        bool IsHeld() const { return m_bHeld; }

    private:
        const ZLogStream* m_pStream;
        bool m_bHeld;
    };

    // out = path + suffix with every '\\' and '/' made '_' and upper-cased.
    // `out` must hold strlen(path) + strlen(suffix) + 1 bytes.
    static void CreateAuxName(char* out, const char* path, const char* suffix);

    // The image (for readers that walk it under the lock); null when not valid.
    const ZLogFile* Image() const;

private:
    // Time, process and thread of a record copied from elsewhere.
    struct RecordOrigin {
        FILETIME time;
        DWORD processId;
        DWORD threadId;
    };

    qsStatus OpenLive(const char* dir, const char* name, DWORD sizeKB, bool writeStartRec);
    qsStatus OpenLocked(const char* path, DWORD sizeKB, bool writeStartRec, bool mutexIsNew);
    bool ResizeFile(const char* path, DWORD oldSizeBytes, DWORD sizeKB);
    qsStatus InitialiseFile(DWORD sizeKB);
    qsStatus OpenSnapshot(const char* path);
    qsStatus ReadSnapshot(DWORD size);
    template <typename Fill>
    qsStatus Append(qsLogRecType type, DWORD flags, DWORD size, const RecordOrigin* origin,
                    Fill fill);
    qsStatus AppendMessage(LONG code, qsLogSev severity, DWORD flags, qsLogRecType type,
                           const void* text, DWORD textBytes);
    qsStatus PrintRefusal(qsLogSev severity) const;
    template <DWORD Cap>
    qsStatus PrintNarrow(LONG code, qsLogSev severity, DWORD flags, const char* format,
                         va_list args);
    bool ImageIntact() const;
    template <typename Find> iterator_base CursorAt(Find find) const;
    qsStatus LockLogfile(DWORD timeoutMs, DWORD attempts) const;
    qsStatus AcquireLock(DWORD timeoutMs, DWORD attempts) const;
    qsStatus UnlockLogfile() const;
    void CheckFlushLogfile();
    qsStatus FlushLogfile();
    qsStatus TouchLogfile();
    void KeepFailuresToItself();
    void ReleaseImage();
    void ReleaseResources();
    void ResetMemberVariables(bool mapped, DWORD flushInterval);

    uint32_t m_State = STREAM_SIG_INVALID; // first word
    mutable ZFile m_File;
    ZLogFile* m_pImage = nullptr;
    DWORD m_ImageBytes = 0; // bytes mapped or copied at m_pImage
    // Written by every append: on a cache line of its own, so that writers in
    // other threads do not lose the read-mostly fields around it each time.
    alignas(64) DWORD m_RecsSinceFlush = 0;
    DWORD m_FlushInterval;
    alignas(64) mutable ZMutex m_Mutex; // named after the file; private in the snapshot form
    bool m_bMapped;
    qsStatus m_OpenStatus = QS_E_NOT_VALID;
};

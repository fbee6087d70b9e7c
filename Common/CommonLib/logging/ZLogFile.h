// The binary circular log file: byte layout and in-place operations.
//
// A log file is a 28-byte header followed by a circular area of
// variable-length records.  ZLogFile is an overlay on the first 28 bytes of a
// file image (the shared mapping, or a private copy), ZLogRec on the first 40
// bytes of one record, ZLogRecInfo on the 28 information bytes inside a
// record header.  None owns memory; the image must be at least as large as
// the header's size field claims, and every "offset" is from the image start.
//
// Nothing here locks.  Whoever writes or walks a shared image holds the
// stream's lock around the call.
//
// Byte order: images are written in the writer's native order.  A reader
// tells the order from the signatures and every getter converts; appending is
// defined only on a native-order image.
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

#include <cstdint>

// Four-character record types; the characters read in order in memory on a
// little-endian machine.
typedef uint32_t qsLogRecType;
enum : qsLogRecType {
    LOGREC_START = 0x54525453,    // "STRT": no payload
    LOGREC_RESIZE = 0x5A534552,   // "RESZ": old KiB, new KiB
    LOGREC_CLEAR = 0x52454C43,    // "CLER": no payload
    LOGREC_STRING_A = 0x41525453, // "STRA": code, severity, narrow text (no terminator)
    LOGREC_STRING_W = 0x57525453, // "STRW": code, severity, 4-byte wide units (no terminator)
    LOGREC_EVENT = 0x544E5645,    // "EVNT": eight words; read, never written here
};

constexpr uint32_t LOG_FILE_SIGNATURE = 0xC0A1469C;
constexpr uint32_t LOG_FILE_VERSION = 0x00010002;
constexpr uint32_t LOG_REC_SIGNATURE = 0x87EE9E9C;

constexpr DWORD LOG_FILE_HEADER_SIZE = 28;
constexpr DWORD LOG_REC_HEADER_SIZE = 40;
// Flags carried by the file's own bookkeeping records (start, resize, clear).
constexpr DWORD LOG_REC_FLAG_BOOKKEEPING = 2;
// Payload bytes in front of a message's text: the code and the severity.
constexpr DWORD LOG_REC_STRING_PREFIX = 8;

// A record's stride: its size rounded up to a multiple of 4.
template <typename T> constexpr T ZLogRecActualSize(T recSize) { return T((recSize + 3) & ~T(3)); }

// Timestamp, writer's process and thread, record id, flags and type.  Held
// in native order when handed to readers; no conversion in the accessors.
class ZLogRecInfo {
public:
    FILETIME GetTimestamp() const { return m_Timestamp; }
    DWORD GetProcessId() const { return m_ProcessId; }
    DWORD GetThreadId() const { return m_ThreadId; }
    DWORD GetRecordId() const { return m_RecordId; }
    DWORD GetFlags() const { return m_Flags; }
    qsLogRecType GetType() const { return m_Type; }

    bool SetTimestamp(const FILETIME& t) { m_Timestamp = t; return true; }
    bool SetProcessId(DWORD v) { m_ProcessId = v; return true; }
    bool SetThreadId(DWORD v) { m_ThreadId = v; return true; }
    bool SetRecordId(DWORD v) { m_RecordId = v; return true; }
    bool SetFlags(DWORD v) { m_Flags = v; return true; }
    bool SetType(qsLogRecType v) { m_Type = v; return true; }

private:
    FILETIME m_Timestamp;
    DWORD m_ProcessId;
    DWORD m_ThreadId;
    DWORD m_RecordId;
    DWORD m_Flags;
    qsLogRecType m_Type;
};

// One record header; the payload follows it directly.  Getters convert by
// the record's own byte order, setters store as given.
class ZLogRec {
public:
    bool IsValid() const;          // signature matches in either byte order
    bool IsOppositeEndian() const;

    DWORD GetSignature() const;
    DWORD GetRecSize() const;
    DWORD GetPrevOffset() const;
    FILETIME GetRecInfoTimestamp() const;
    DWORD GetRecInfoProcessId() const;
    DWORD GetRecInfoThreadId() const;
    DWORD GetRecInfoRecordId() const;
    DWORD GetRecInfoFlags() const;
    qsLogRecType GetRecInfoType() const;
    // The information block converted to native order.
    ZLogRecInfo GetRecInfo() const;

    bool SetSignature(DWORD v);
    bool SetRecSize(DWORD v);
    bool SetPrevOffset(DWORD v);
    bool SetRecInfoTimestamp(const FILETIME& t);
    bool SetRecInfoProcessId(DWORD v);
    bool SetRecInfoThreadId(DWORD v);
    bool SetRecInfoRecordId(DWORD v);
    bool SetRecInfoFlags(DWORD v);
    bool SetRecInfoType(qsLogRecType v);

    const void* Payload() const { return this + 1; }
    void* Payload() { return this + 1; }

    // Converts a payload copied out of an opposite-order record to native
    // order, by type, touching only words wholly inside its first `size`
    // bytes.  The event conversion keeps its historical quirk: word 2 keeps
    // its stored value and the stored word 3 is lost.
    static void ConvertPayload(qsLogRecType type, void* payload, DWORD size);

private:
    DWORD m_Signature;
    DWORD m_RecSize;
    ZLogRecInfo m_Info;
    DWORD m_PrevOffset;
};

class ZLogFile {
public:
    // A fresh header for a file of sizeKB KiB; the record area is untouched.
    explicit ZLogFile(DWORD sizeKB);

    bool IsOppositeEndian() const;
    bool IsHdrDataValid() const;
    // Header data valid, size field equal to sizeKB << 10, offsets in range.
    // A header without any record yet does not pass.
    bool IsValid(DWORD sizeKB) const;

    // Header fields converted to native order; 0 on a header that is not valid.
    DWORD SizeInBytes() const;
    DWORD RecordCount() const;
    DWORD WrapCount() const;
    DWORD LastRecOffset() const;
    DWORD NextRecOffset() const;

    // Newest record; the image start itself when there is none (so that the
    // first record's previous offset is 0); null when the header is not valid
    // or its last offset cannot hold a record.
    const ZLogRec* LastRec() const;
    // Oldest intact record, found by walking back from offset 28; or null.
    const ZLogRec* FirstRec() const;
    // One step of a walk: the next newer / older record, or null when the
    // chain ends (signature or id mismatch).  `rec` must point into this
    // image; the caller checks that it is still the record it expects.
    const ZLogRec* NextRec(const ZLogRec* rec) const;
    const ZLogRec* PrevRec(const ZLogRec* rec) const;

    // Never read past the image: an offset (or a pointer) below 28, not a
    // multiple of 4, or within 40 bytes of the end holds no record.  Any
    // image, however damaged, can be walked; every walk ends.
    bool IsRecordValid(const ZLogRec* rec, DWORD offset) const;
    bool IsRecordValid(DWORD offset) const;

    // Whether a whole record lies at `offset` of an image of `imageSize`
    // bytes: at a multiple of 4 in the record area, with a record signature
    // in either byte order and a record id (ids start at 1), its size
    // covering its own header, and header and payload wholly inside the
    // image.  This is what every reader of the format besides the cursors
    // (which keep their own rules) takes for "a record is there"; the image
    // need not have a valid header.
    static bool IsWholeRecordAt(const void* image, DWORD imageSize, uint64_t offset);
    // The whole record at `offset` of this image (bounded by its size
    // field), or null.
    const ZLogRec* WholeRecAt(DWORD offset) const;

    // The walk from the newest record to the oldest: the header's newest
    // record, then along the previous offsets while the record there is
    // whole and its id one less.  It reaches every record still intact,
    // wherever placement wrapped, which the forward cursor rule does not.
    // visit(const ZLogRec*) answers whether to go on to the next older one.
    // Returns the last record visited, or null when the newest is not whole.
    template <typename Visit> const ZLogRec* WalkNewestFirst(Visit visit) const;

    // Fills this image, fresh from ZLogFile(sizeKB) and native, with the
    // newest records of `from` that fit while leaving `reserve` bytes free
    // (room for a record to follow): in order oldest first, renumbered from
    // 1, placed from offset 28 without wrapping, with their time, process,
    // thread, type and flags; payloads of the other byte order converted.
    // Returns how many were copied (0: none fit, or `from` has none).
    DWORD CopyNewestRecords(const ZLogFile& from, DWORD reserve);

    // Plain address arithmetic on the image, no checks.
    DWORD OffsetOf(const ZLogRec* rec) const;
    const ZLogRec* RecAt(DWORD offset) const;

    // Places a record (wrapping to offset 28 when it does not fit before the
    // end), fills its header and returns its payload's address through
    // `payload` for the caller to fill.  0, or 0xE0010101 when it can never fit.
    qsStatus NewRecord(const FILETIME& time, DWORD processId, DWORD threadId, qsLogRecType type,
                       DWORD flags, DWORD payloadSize, void** payload);
    // The same with the current time, process and thread.
    qsStatus NewRecord(qsLogRecType type, DWORD flags, DWORD payloadSize, void** payload);

    qsStatus WriteStartRec();
    qsStatus WriteResizeRec(DWORD oldKB, DWORD newKB);
    // Restarts numbering with a "CLER" record at 28; old bytes stay but no
    // chain reaches them.
    qsStatus ClearRecs();

private:
    // Writes a record header at `offset`; returns the record's first byte.
    char* WriteRecHeader(DWORD offset, DWORD recSize, DWORD prevOffset, DWORD recordId,
                         const FILETIME& time, DWORD processId, DWORD threadId, qsLogRecType type,
                         DWORD flags);

    DWORD m_Signature;
    DWORD m_Version;
    DWORD m_SizeInBytes;
    DWORD m_LastRecOffset;
    DWORD m_NextRecOffset;
    DWORD m_RecordCount;
    DWORD m_WrapCount;
};

template <typename Visit> const ZLogRec* ZLogFile::WalkNewestFirst(Visit visit) const {
    const ZLogRec* rec = WholeRecAt(LastRecOffset());
    while (rec && visit(rec)) {
        const ZLogRec* older = WholeRecAt(rec->GetPrevOffset());
        if (!older || older->GetRecInfoRecordId() != rec->GetRecInfoRecordId() - 1)
            break;
        rec = older;
    }
    return rec;
}

static_assert(sizeof(ZLogRecInfo) == 28);
static_assert(sizeof(ZLogRec) == LOG_REC_HEADER_SIZE);
static_assert(sizeof(ZLogFile) == LOG_FILE_HEADER_SIZE);

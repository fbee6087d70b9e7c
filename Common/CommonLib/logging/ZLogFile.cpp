// The binary circular log file: placement, walks and validity checks.
//
// The image may be a shared mapping that another process has damaged, or a
// file copied from anywhere, so every offset and size read from it is
// untrusted.  Only the header's size field is believed (callers check it
// against the real size first); every other value is bounds-checked before
// anything is read at the place it designates, and sums that could pass
// 2^32 are formed in 64 bits.
#include "ZLogFile.h"

#include "qsBitUtils.h"
#include "qsWinApi.h"

#include <cstring>

using qsBitUtils::ReverseEndiannessOf;

namespace {

inline DWORD ToNative(DWORD stored, bool opposite) {
    return opposite ? ReverseEndiannessOf(stored) : stored;
}

// Whether a whole record header could sit at `offset`: inside the record
// area, wholly before the end of the image, and at a multiple of 4.  Writers
// only ever place records at multiples of 4 (28 and every stride are), so a
// misaligned offset can only come from damaged bytes; refusing it keeps
// every field access aligned.
inline bool HoldsRecord(uint64_t offset, DWORD size) {
    return offset >= LOG_FILE_HEADER_SIZE && (offset & 3) == 0 &&
           offset + LOG_REC_HEADER_SIZE <= size;
}

// A pointer's distance from the image start, in full pointer width: a
// pointer far outside the image must not truncate onto an offset inside it.
inline uintptr_t Distance(const void* image, const void* rec) {
    return reinterpret_cast<uintptr_t>(rec) - reinterpret_cast<uintptr_t>(image);
}

inline uint32_t LoadWord(const unsigned char* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

inline void StoreWord(unsigned char* p, uint32_t v) {
    memcpy(p, &v, sizeof v);
}

inline void ReverseWord(unsigned char* p) {
    StoreWord(p, ReverseEndiannessOf(LoadWord(p)));
}

} // namespace

// ---------------------------------------------------------------- ZLogRec

bool ZLogRec::IsOppositeEndian() const {
    return m_Signature != LOG_REC_SIGNATURE;
}

bool ZLogRec::IsValid() const {
    return m_Signature == LOG_REC_SIGNATURE ||
           m_Signature == ReverseEndiannessOf(LOG_REC_SIGNATURE);
}

DWORD ZLogRec::GetSignature() const {
    return ToNative(m_Signature, IsOppositeEndian());
}
DWORD ZLogRec::GetRecSize() const {
    return ToNative(m_RecSize, IsOppositeEndian());
}
DWORD ZLogRec::GetPrevOffset() const {
    return ToNative(m_PrevOffset, IsOppositeEndian());
}

// The timestamp is one 64-bit value: reversing it also swaps its halves.
FILETIME ZLogRec::GetRecInfoTimestamp() const {
    if (!IsOppositeEndian())
        return m_Info.GetTimestamp();
    t_FILETIME_UInt64 v;
    v.ft = m_Info.GetTimestamp();
    return ReverseEndiannessOf(v).ft;
}

DWORD ZLogRec::GetRecInfoProcessId() const {
    return ToNative(m_Info.GetProcessId(), IsOppositeEndian());
}
DWORD ZLogRec::GetRecInfoThreadId() const {
    return ToNative(m_Info.GetThreadId(), IsOppositeEndian());
}
DWORD ZLogRec::GetRecInfoRecordId() const {
    return ToNative(m_Info.GetRecordId(), IsOppositeEndian());
}
DWORD ZLogRec::GetRecInfoFlags() const {
    return ToNative(m_Info.GetFlags(), IsOppositeEndian());
}
qsLogRecType ZLogRec::GetRecInfoType() const {
    return ToNative(m_Info.GetType(), IsOppositeEndian());
}

ZLogRecInfo ZLogRec::GetRecInfo() const {
    if (!IsOppositeEndian())
        return m_Info;
    ZLogRecInfo info;
    info.SetTimestamp(GetRecInfoTimestamp());
    info.SetProcessId(GetRecInfoProcessId());
    info.SetThreadId(GetRecInfoThreadId());
    info.SetRecordId(GetRecInfoRecordId());
    info.SetFlags(GetRecInfoFlags());
    info.SetType(GetRecInfoType());
    return info;
}

bool ZLogRec::SetSignature(DWORD v) {
    m_Signature = v;
    return true;
}
bool ZLogRec::SetRecSize(DWORD v) {
    m_RecSize = v;
    return true;
}
bool ZLogRec::SetPrevOffset(DWORD v) {
    m_PrevOffset = v;
    return true;
}
bool ZLogRec::SetRecInfoTimestamp(const FILETIME& t) {
    return m_Info.SetTimestamp(t);
}
bool ZLogRec::SetRecInfoProcessId(DWORD v) {
    return m_Info.SetProcessId(v);
}
bool ZLogRec::SetRecInfoThreadId(DWORD v) {
    return m_Info.SetThreadId(v);
}
bool ZLogRec::SetRecInfoRecordId(DWORD v) {
    return m_Info.SetRecordId(v);
}
bool ZLogRec::SetRecInfoFlags(DWORD v) {
    return m_Info.SetFlags(v);
}
bool ZLogRec::SetRecInfoType(qsLogRecType v) {
    return m_Info.SetType(v);
}

// The buffer is the caller's copy and may be unaligned or cut short, hence
// the byte copies and the test of every word against `size`.
void ZLogRec::ConvertPayload(qsLogRecType type, void* payload, DWORD size) {
    unsigned char* p = static_cast<unsigned char*>(payload);
    DWORD words = size / 4;
    if (!p)
        return;
    switch (type) {
    case LOGREC_STRING_A:
    case LOGREC_STRING_W:
    case LOGREC_RESIZE:
        for (DWORD i = 0; i < 2 && i < words; i++)
            ReverseWord(p + 4 * i);
        return;
    case LOGREC_EVENT:
        for (DWORD i = 0; i < 2 && i < words; i++)
            ReverseWord(p + 4 * i);
        // Word 3 takes the reversed word 2, and word 2 the reversal of that,
        // which is its own stored value again: the stored word 3 is lost.
        // That is the format's defined conversion, kept on purpose.
        if (words > 3) {
            StoreWord(p + 12, ReverseEndiannessOf(LoadWord(p + 8)));
            StoreWord(p + 8, ReverseEndiannessOf(LoadWord(p + 12)));
        }
        for (DWORD i = 4; i < 8 && i < words; i++)
            ReverseWord(p + 4 * i);
        return;
    default:
        return;
    }
}

// ---------------------------------------------------------------- ZLogFile

ZLogFile::ZLogFile(DWORD sizeKB)
    : m_Signature(LOG_FILE_SIGNATURE), m_Version(LOG_FILE_VERSION), m_SizeInBytes(sizeKB << 10),
      m_LastRecOffset(0), m_NextRecOffset(LOG_FILE_HEADER_SIZE), m_RecordCount(0), m_WrapCount(0) {}

bool ZLogFile::IsOppositeEndian() const {
    return m_Signature != LOG_FILE_SIGNATURE;
}

bool ZLogFile::IsHdrDataValid() const {
    bool opposite = IsOppositeEndian();
    return ToNative(m_Signature, opposite) == LOG_FILE_SIGNATURE &&
           ToNative(m_Version, opposite) == LOG_FILE_VERSION;
}

// The size is compared in 64 bits so that a huge sizeKB cannot match a small
// file through the overflow of the shift.
bool ZLogFile::IsValid(DWORD sizeKB) const {
    if (!IsHdrDataValid())
        return false;
    DWORD size = SizeInBytes();
    DWORD last = LastRecOffset();
    DWORD next = NextRecOffset();
    return (uint64_t(sizeKB) << 10) == size && last >= LOG_FILE_HEADER_SIZE && last < size &&
           next >= LOG_FILE_HEADER_SIZE && next <= size;
}

// The header queries answer 0 for a header that is not one: a size of 0
// then makes every record check fail without reading anything.
DWORD ZLogFile::SizeInBytes() const {
    return IsHdrDataValid() ? ToNative(m_SizeInBytes, IsOppositeEndian()) : 0;
}
DWORD ZLogFile::RecordCount() const {
    return IsHdrDataValid() ? ToNative(m_RecordCount, IsOppositeEndian()) : 0;
}
DWORD ZLogFile::WrapCount() const {
    return IsHdrDataValid() ? ToNative(m_WrapCount, IsOppositeEndian()) : 0;
}
DWORD ZLogFile::LastRecOffset() const {
    return IsHdrDataValid() ? ToNative(m_LastRecOffset, IsOppositeEndian()) : 0;
}
DWORD ZLogFile::NextRecOffset() const {
    return IsHdrDataValid() ? ToNative(m_NextRecOffset, IsOppositeEndian()) : 0;
}

DWORD ZLogFile::OffsetOf(const ZLogRec* rec) const {
    return DWORD(reinterpret_cast<uintptr_t>(rec) - reinterpret_cast<uintptr_t>(this));
}

const ZLogRec* ZLogFile::RecAt(DWORD offset) const {
    return reinterpret_cast<const ZLogRec*>(reinterpret_cast<const char*>(this) + offset);
}

// A last offset that cannot hold a record header is damage; it gives null
// like an invalid header rather than a pointer that is unsafe to read.
const ZLogRec* ZLogFile::LastRec() const {
    if (!IsHdrDataValid())
        return nullptr;
    DWORD last = LastRecOffset();
    if (last == 0)
        return reinterpret_cast<const ZLogRec*>(this);
    if (!HoldsRecord(last, SizeInBytes()))
        return nullptr;
    return RecAt(last);
}

// The record at 28 is the newest one placed there; the chain of previous
// offsets leads back from it through every intact record.  Ids fall by
// exactly 1 per step, so no record is visited twice and the walk ends on any
// image.
const ZLogRec* ZLogFile::FirstRec() const {
    if (!IsHdrDataValid() || RecordCount() == 0)
        return nullptr;
    if (!HoldsRecord(LOG_FILE_HEADER_SIZE, SizeInBytes()))
        return nullptr;
    const ZLogRec* rec = RecAt(LOG_FILE_HEADER_SIZE);
    while (const ZLogRec* older = PrevRec(rec))
        rec = older;
    return rec;
}

// The slot after this record holds the next one unless placement wrapped
// there, in which case the next one is at 28.  The id decides.
const ZLogRec* ZLogFile::NextRec(const ZLogRec* rec) const {
    DWORD size = SizeInBytes();
    if (!rec || !HoldsRecord(Distance(this, rec), size))
        return nullptr;
    uint64_t after = OffsetOf(rec) + ZLogRecActualSize(uint64_t(rec->GetRecSize()));
    const ZLogRec* next = nullptr;
    if (after <= size && IsRecordValid(DWORD(after)))
        next = RecAt(DWORD(after));
    else if (HoldsRecord(LOG_FILE_HEADER_SIZE, size))
        next = RecAt(LOG_FILE_HEADER_SIZE);
    if (!next || !next->IsValid() || next->GetRecInfoRecordId() != rec->GetRecInfoRecordId() + 1)
        return nullptr;
    return next;
}

const ZLogRec* ZLogFile::PrevRec(const ZLogRec* rec) const {
    DWORD size = SizeInBytes();
    if (!rec || !HoldsRecord(Distance(this, rec), size))
        return nullptr;
    DWORD prevOffset = rec->GetPrevOffset();
    if (prevOffset == 0 || !HoldsRecord(prevOffset, size))
        return nullptr;
    const ZLogRec* prev = RecAt(prevOffset);
    if (!prev->IsValid() || prev->GetRecInfoRecordId() != rec->GetRecInfoRecordId() - 1)
        return nullptr;
    return prev;
}

// `rec` must point into this image; one that does not, or whose header
// would reach past the end, holds no record.
bool ZLogFile::IsRecordValid(const ZLogRec* rec, DWORD offset) const {
    DWORD size = SizeInBytes();
    if (!rec || !HoldsRecord(Distance(this, rec), size))
        return false;
    return rec->GetSignature() == LOG_REC_SIGNATURE &&
           uint64_t(rec->GetRecSize()) + offset < size && rec->GetPrevOffset() < size;
}

bool ZLogFile::IsRecordValid(DWORD offset) const {
    // The offset counts as signed: a header claiming more than 2 GiB still
    // has no record beyond that point.
    if (LONG(offset) < 0 || !HoldsRecord(offset, SizeInBytes()))
        return false;
    return IsRecordValid(RecAt(offset), offset);
}

bool ZLogFile::IsWholeRecordAt(const void* image, DWORD imageSize, uint64_t offset) {
    if (!image || !HoldsRecord(offset, imageSize))
        return false;
    auto* rec = reinterpret_cast<const ZLogRec*>(static_cast<const char*>(image) + offset);
    DWORD size = rec->GetRecSize();
    return rec->IsValid() && size >= LOG_REC_HEADER_SIZE && offset + size <= imageSize &&
           rec->GetRecInfoRecordId() != 0;
}

const ZLogRec* ZLogFile::WholeRecAt(DWORD offset) const {
    return IsWholeRecordAt(this, SizeInBytes(), offset) ? RecAt(offset) : nullptr;
}

// Two walks back over the same records: the first finds how many of the
// newest fit and how much room they take, the second lays each one where it
// belongs counted from the end of that room.  So the copy needs no list of
// the records however many there are, and never depends on the forward
// rule, which can stop short at the wrap point.
DWORD ZLogFile::CopyNewestRecords(const ZLogFile& from, DWORD reserve) {
    const uint64_t room = uint64_t(m_SizeInBytes) - LOG_FILE_HEADER_SIZE;
    uint64_t used = reserve;
    DWORD count = 0;
    from.WalkNewestFirst([&](const ZLogRec* rec) {
        uint64_t stride = ZLogRecActualSize(uint64_t(rec->GetRecSize()));
        if (used + stride > room)
            return false;
        used += stride;
        ++count;
        return true;
    });
    if (count == 0)
        return 0;

    const DWORD end = DWORD(LOG_FILE_HEADER_SIZE + used - reserve);
    DWORD offset = end, id = count;
    ZLogRec* newer = nullptr;
    from.WalkNewestFirst([&](const ZLogRec* rec) {
        const DWORD size = rec->GetRecSize();
        offset -= ZLogRecActualSize(size);
        ZLogRecInfo info = rec->GetRecInfo();
        auto* copy = reinterpret_cast<ZLogRec*>(
            WriteRecHeader(offset, size, 0, id, info.GetTimestamp(), info.GetProcessId(),
                           info.GetThreadId(), info.GetType(), info.GetFlags()));
        const DWORD payload = size - LOG_REC_HEADER_SIZE;
        memcpy(copy->Payload(), rec->Payload(), payload);
        if (rec->IsOppositeEndian())
            ZLogRec::ConvertPayload(info.GetType(), copy->Payload(), payload);
        if (newer)
            newer->SetPrevOffset(offset);
        else
            m_LastRecOffset = offset;
        newer = copy;
        return --id != 0;
    });
    m_NextRecOffset = end;
    m_RecordCount = count;
    m_WrapCount = 0;
    return count;
}

// The header is composed aside and copied in whole: a damaged header's next
// offset may be misaligned, and the record still goes exactly there.
char* ZLogFile::WriteRecHeader(DWORD offset, DWORD recSize, DWORD prevOffset, DWORD recordId,
                               const FILETIME& time, DWORD processId, DWORD threadId,
                               qsLogRecType type, DWORD flags) {
    ZLogRec header;
    header.SetSignature(LOG_REC_SIGNATURE);
    header.SetRecSize(recSize);
    header.SetPrevOffset(prevOffset);
    header.SetRecInfoProcessId(processId);
    header.SetRecInfoThreadId(threadId);
    header.SetRecInfoRecordId(recordId);
    header.SetRecInfoFlags(flags);
    header.SetRecInfoType(type);
    header.SetRecInfoTimestamp(time);
    char* at = reinterpret_cast<char*>(this) + offset;
    memcpy(at, &header, sizeof header);
    return at;
}

// The append path: header fields are used as stored (appending is defined
// on a native image only), and the stride is formed in 64 bits so that a
// huge payload size cannot wrap around into a small one.
qsStatus ZLogFile::NewRecord(const FILETIME& time, DWORD processId, DWORD threadId,
                             qsLogRecType type, DWORD flags, DWORD payloadSize, void** payload) {
    uint64_t recSize = uint64_t(payloadSize) + LOG_REC_HEADER_SIZE;
    uint64_t stride = ZLogRecActualSize(recSize);
    DWORD size = m_SizeInBytes;
    DWORD offset = m_NextRecOffset;
    if (offset + stride > size) {
        if (stride + LOG_FILE_HEADER_SIZE > size)
            return QS_E_NO_LOG_STREAM;
        offset = LOG_FILE_HEADER_SIZE;
        m_WrapCount++;
    }

    char* at = WriteRecHeader(offset, DWORD(recSize), m_LastRecOffset, ++m_RecordCount, time,
                              processId, threadId, type, flags);
    m_LastRecOffset = offset;
    m_NextRecOffset = DWORD(offset + stride);
    if (payload)
        *payload = at + LOG_REC_HEADER_SIZE;
    return QS_OK;
}

qsStatus ZLogFile::NewRecord(qsLogRecType type, DWORD flags, DWORD payloadSize, void** payload) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return NewRecord(now, GetCurrentProcessId(), GetCurrentThreadId(), type, flags, payloadSize,
                     payload);
}

qsStatus ZLogFile::WriteStartRec() {
    if (!IsHdrDataValid() || RecordCount() != 0)
        return QS_E_NO_LOG_STREAM;
    return NewRecord(LOGREC_START, LOG_REC_FLAG_BOOKKEEPING, 0, nullptr);
}

qsStatus ZLogFile::WriteResizeRec(DWORD oldKB, DWORD newKB) {
    if (!IsHdrDataValid())
        return QS_E_NO_LOG_STREAM;
    void* payload;
    const DWORD sizes[2] = {oldKB, newKB};
    qsStatus status = NewRecord(LOGREC_RESIZE, LOG_REC_FLAG_BOOKKEEPING, sizeof sizes, &payload);
    if (qsSucceeded(status))
        memcpy(payload, sizes, sizeof sizes);
    return status;
}

// A file too small for even the clear record is refused before the header
// is reset, so that a failure leaves the image as it was.
qsStatus ZLogFile::ClearRecs() {
    if (!IsHdrDataValid() || LOG_FILE_HEADER_SIZE + LOG_REC_HEADER_SIZE > m_SizeInBytes)
        return QS_E_NO_LOG_STREAM;
    m_LastRecOffset = 0;
    m_NextRecOffset = LOG_FILE_HEADER_SIZE;
    m_RecordCount = 0;
    m_WrapCount = 0;
    return NewRecord(LOGREC_CLEAR, LOG_REC_FLAG_BOOKKEEPING, 0, nullptr);
}

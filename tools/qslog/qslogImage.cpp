#include "qslogImage.h"

#include "qsBitUtils.h"
#include "qslogRecord.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace qslog {

namespace {

// The largest file the library makes (1 GiB); anything larger is not a log.
constexpr uint64_t kMaxFileBytes = 1073741824;
// Zeros after the bytes read, so that reading a whole record header at any
// offset the walks can reach stays inside the allocation.
constexpr size_t kSlackBytes = 64;
// The smallest header size field that leaves room for one record.
constexpr DWORD kMinLogBytes = LOG_FILE_HEADER_SIZE + LOG_REC_HEADER_SIZE;

enum HeaderIndex { kSignature, kVersion, kSize, kLastOffset, kNextOffset, kCount, kWraps };

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char buf[256];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    return buf;
}

} // namespace

LogImage::Load LogImage::Read(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0)
        return Load::ReadError;
    // A pipe's size is not known first: it is read to its end as it comes,
    // into a buffer that grows.
    const bool regular = S_ISREG(st.st_mode);
    if (regular && uint64_t(st.st_size) > kMaxFileBytes) {
        errno = EFBIG;
        return Load::TooLarge;
    }
    size_t capacity = regular ? size_t(st.st_size) : 65536;
    if (!Allocate(capacity, 0))
        return Load::ReadError;
    // A file cut short while we read it (a writer re-initialising it) gives
    // a short copy, which the checks below report as truncated.
    size_t done = 0;
    for (;;) {
        if (done == capacity) {
            if (regular)
                break;
            if (capacity > kMaxFileBytes) {
                errno = EFBIG;
                return Load::TooLarge;
            }
            // One byte past the largest log tells a pipe that brings more.
            capacity = std::min<size_t>(capacity * 2, kMaxFileBytes + 1);
            if (!Allocate(capacity, done))
                return Load::ReadError;
        }
        ssize_t n = regular ? pread(fd, Bytes() + done, capacity - done, off_t(done))
                            : read(fd, Bytes() + done, capacity - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return Load::ReadError;
        if (n == 0)
            break;
        done += size_t(n);
    }
    m_FileSize = DWORD(done);
    return Check();
}

// Room for `bytes` and the zero slack after them, keeping the first `keep`
// bytes of the current buffer.
bool LogImage::Allocate(size_t bytes, size_t keep) {
    std::unique_ptr<uint64_t[]> data(new (std::nothrow) uint64_t[(bytes + kSlackBytes + 7) / 8]());
    if (!data) {
        errno = ENOMEM;
        return false;
    }
    if (keep)
        memcpy(data.get(), m_Data.get(), keep);
    m_Data = std::move(data);
    return true;
}

DWORD LogImage::Word(int index) const {
    DWORD w;
    memcpy(&w, Bytes() + index * 4, 4);
    return w;
}

void LogImage::StoreWord(int index, DWORD value) {
    if (File()->IsOppositeEndian())
        value = qsBitUtils::ReverseEndiannessOf(value);
    memcpy(Bytes() + index * 4, &value, 4);
}

LogImage::Load LogImage::Check() {
    m_Problems.clear();
    m_Rebuilt = false;
    m_HeaderValid = false;
    m_Size = m_FileSize & ~DWORD(3);

    if (m_FileSize == 0) {
        AddProblem("empty file");
        return Load::NotALog;
    }
    DWORD first = Word(kSignature);
    bool signature =
        first == LOG_FILE_SIGNATURE || first == qsBitUtils::ReverseEndiannessOf(LOG_FILE_SIGNATURE);
    if (m_FileSize < LOG_FILE_HEADER_SIZE) {
        AddProblem(signature ? Format("truncated: %u bytes, less than a header", m_FileSize)
                             : Format("not a log file (%u bytes)", m_FileSize));
        return Load::NotALog;
    }

    m_Opposite = File()->IsOppositeEndian();
    HeaderWords& h = m_Original;
    DWORD* words[] = {&h.signature,  &h.version, &h.size, &h.lastOffset,
                      &h.nextOffset, &h.count,   &h.wraps};
    for (int i = 0; i < 7; ++i)
        *words[i] = m_Opposite ? qsBitUtils::ReverseEndiannessOf(Word(i)) : Word(i);

    if (!File()->IsHdrDataValid()) {
        const ZLogRec* newest = ScanForNewest();
        if (!newest) {
            AddProblem(Format("not a log file (it starts with %08X)", Word(kSignature)));
            return Load::NotALog;
        }
        AddProblem(Format("header damaged (signature %08X, version %08X)", h.signature, h.version));
        m_Opposite = newest->IsOppositeEndian();
        Rebuild(newest);
        return Load::Ok;
    }

    m_HeaderValid = h.size == m_FileSize && h.size % 1024 == 0 && File()->IsValid(h.size >> 10);
    if (h.size > m_FileSize)
        AddProblem(
            Format("truncated: the header says %u bytes, the file has %u", h.size, m_FileSize));
    else if (h.size < m_FileSize)
        AddProblem(Format("%u bytes after the end of the log (the header says %u bytes)",
                          m_FileSize - h.size, h.size));
    else if (h.size % 1024 != 0)
        AddProblem(Format("size %u is not a multiple of 1024", h.size));
    // The walks bound everything by the size field: make it the bytes we have.
    if (h.size < m_Size && h.size >= kMinLogBytes)
        m_Size = h.size & ~DWORD(3);
    StoreWord(kSize, m_Size);

    if (h.count == 0 && h.lastOffset == 0) {
        AddProblem("no records yet (a header only)");
        return Load::Ok;
    }
    Record newest;
    bool lastIntact = h.lastOffset >= LOG_FILE_HEADER_SIZE &&
                      h.lastOffset + uint64_t(LOG_REC_HEADER_SIZE) <= m_Size &&
                      ReadRecord(File(), m_Size, File()->RecAt(h.lastOffset), newest);
    if (!lastIntact) {
        AddProblem(Format("the header's newest record (offset %u) is %s", h.lastOffset,
                          h.lastOffset < m_Size ? "damaged" : "outside the file"));
        const ZLogRec* found = ScanForNewest();
        if (found)
            Rebuild(found);
        return Load::Ok;
    }
    if (!m_HeaderValid && m_Problems.empty())
        AddProblem(Format("header fields out of range (last %u, next %u, size %u)", h.lastOffset,
                          h.nextOffset, h.size));
    return Load::Ok;
}

// The intact record with the highest id anywhere in the image.  Only used
// when the header cannot say where the newest record is; after a clear,
// stale records further on may carry higher ids, so this is a last resort.
const ZLogRec* LogImage::ScanForNewest() const {
    const ZLogRec* best = nullptr;
    DWORD bestId = 0;
    Record r;
    for (DWORD off = LOG_FILE_HEADER_SIZE; off + LOG_REC_HEADER_SIZE <= m_Size; off += 4) {
        auto* rec = reinterpret_cast<const ZLogRec*>(Bytes() + off);
        if (ReadRecord(File(), m_Size, rec, r) && r.Id() > bestId) {
            best = rec;
            bestId = r.Id();
        }
    }
    return best;
}

// A native header that makes `newest` the newest record, so that the
// library's walks can run over the copy.
void LogImage::Rebuild(const ZLogRec* newest) {
    DWORD offset = DWORD(reinterpret_cast<const uint8_t*>(newest) - Bytes());
    DWORD next = offset + ZLogRecActualSize(newest->GetRecSize());
    DWORD words[7] = {LOG_FILE_SIGNATURE,
                      LOG_FILE_VERSION,
                      m_Size,
                      offset,
                      next > m_Size ? m_Size : next,
                      newest->GetRecInfoRecordId(),
                      0};
    memcpy(Bytes(), words, sizeof words);
    m_Rebuilt = true;
    m_HeaderValid = false;
    AddProblem(Format("rebuilt the header from record #%u found at offset %u",
                      newest->GetRecInfoRecordId(), offset));
}

} // namespace qslog

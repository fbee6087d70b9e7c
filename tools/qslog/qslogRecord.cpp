#include "qslogRecord.h"

#include "qsBitUtils.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qslog {

namespace {

constexpr DWORD kHeadBytes = sizeof(Record::head);

std::string_view StripNewline(std::string_view s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

std::string_view WideText(const Record& r, std::string& scratch) {
    scratch.clear();
    const uint8_t* p = r.payload + LOG_REC_STRING_PREFIX;
    DWORD units = (r.payloadSize - LOG_REC_STRING_PREFIX) / 4;
    scratch.reserve(units);
    for (DWORD i = 0; i < units; ++i) {
        uint32_t u;
        memcpy(&u, p + i * 4, 4);
        // The conversion of a payload leaves the text as stored.
        AppendUtf8(scratch, r.opposite ? qsBitUtils::ReverseEndiannessOf(u) : u);
    }
    return scratch;
}

std::string_view MarkerText(const Record& r, std::string& scratch) {
    char buf[160];
    switch (r.Type()) {
    case LOGREC_START:
        return "log started";
    case LOGREC_CLEAR:
        return "cleared";
    case LOGREC_RESIZE:
        if (r.payloadSize < 8)
            break;
        snprintf(buf, sizeof buf, "resized %u KiB to %u KiB", r.head[0], r.head[1]);
        return scratch.assign(buf);
    case LOGREC_EVENT: {
        scratch.assign("event");
        for (DWORD i = 0; i < std::min<DWORD>(r.payloadSize, kHeadBytes) / 4; ++i) {
            snprintf(buf, sizeof buf, " %08X", r.head[i]);
            scratch.append(buf);
        }
        return scratch;
    }
    default:
        break;
    }
    // Unknown types (and malformed known ones) are shown, never skipped.
    snprintf(buf, sizeof buf, "record of type %s, %u bytes", TypeName(r.Type()).c_str(),
             r.payloadSize);
    scratch.assign(buf);
    DWORD shown = std::min<DWORD>(r.payloadSize, 16);
    for (DWORD i = 0; i < shown; ++i) {
        snprintf(buf, sizeof buf, "%s%02X", i == 0 ? ": " : " ", r.payload[i]);
        scratch.append(buf);
    }
    if (shown < r.payloadSize)
        scratch.append(" ...");
    return scratch;
}

} // namespace

bool Record::IsMessage() const {
    return (Type() == LOGREC_STRING_A || Type() == LOGREC_STRING_W) &&
           payloadSize >= LOG_REC_STRING_PREFIX;
}

bool Record::IsBookkeeping() const {
    return Type() == LOGREC_START || Type() == LOGREC_RESIZE || Type() == LOGREC_CLEAR;
}

bool ReadRecord(const ZLogFile* file, DWORD imageSize, const ZLogRec* rec, Record& out) {
    if (!file || !rec)
        return false;
    auto base = reinterpret_cast<uintptr_t>(file);
    auto at = reinterpret_cast<uintptr_t>(rec);
    if (at < base)
        return false;
    uint64_t offset = at - base;
    if (!ZLogFile::IsWholeRecordAt(file, imageSize, offset))
        return false;
    DWORD size = rec->GetRecSize();

    out.offset = DWORD(offset);
    out.recSize = size;
    out.prevOffset = rec->GetPrevOffset();
    out.opposite = rec->IsOppositeEndian();
    out.info = rec->GetRecInfo();
    out.payloadSize = size - LOG_REC_HEADER_SIZE;
    out.payload = static_cast<const uint8_t*>(rec->Payload());
    DWORD head = std::min(out.payloadSize, kHeadBytes);
    memset(out.head, 0, sizeof out.head);
    memcpy(out.head, out.payload, head);
    if (out.opposite)
        ZLogRec::ConvertPayload(out.Type(), out.head, head);
    return true;
}

std::string_view MessageText(const Record& r, std::string& scratch) {
    if (!r.IsMessage())
        return MarkerText(r, scratch);
    if (r.Type() == LOGREC_STRING_W)
        return WideText(r, scratch);
    return std::string_view(reinterpret_cast<const char*>(r.payload) + LOG_REC_STRING_PREFIX,
                            r.payloadSize - LOG_REC_STRING_PREFIX);
}

std::string_view RecordText(const Record& r, std::string& scratch) {
    return StripNewline(MessageText(r, scratch));
}

std::string_view SeverityName(int32_t severity, std::string& scratch) {
    switch (severity) {
    case 0:
        return "info";
    case 1:
        return "normal";
    case 2:
        return "warning";
    default:
        break;
    }
    if (severity >= 3)
        return "error";
    return scratch.assign(std::to_string(severity));
}

std::string TypeName(qsLogRecType type) {
    char c[4];
    memcpy(c, &type, 4);
    // The characters read in order in memory on a little-endian machine.
    if constexpr (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__)
        std::reverse(c, c + 4);
    bool printable = std::all_of(c, c + 4, [](char ch) { return ch >= 0x20 && ch < 0x7F; });
    if (printable)
        return std::string(c, 4);
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08X", type);
    return buf;
}

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        cp = 0xFFFD;
    if (cp < 0x80) {
        out.push_back(char(cp));
    } else if (cp < 0x800) {
        out.push_back(char(0xC0 | (cp >> 6)));
        out.push_back(char(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(char(0xE0 | (cp >> 12)));
        out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(char(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(char(0xF0 | (cp >> 18)));
        out.push_back(char(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(char(0x80 | (cp & 0x3F)));
    }
}

} // namespace qslog

// One record as qslog prints it: the header fields in native order, the
// payload's leading words converted to native order, and the text left where
// it is in the image.
#pragma once

#include "ZLogFile.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace qslog {

struct Record {
    DWORD offset = 0;  // in the file
    DWORD recSize = 0; // 40 + payload bytes
    DWORD prevOffset = 0;
    bool opposite = false; // written on a machine of the other byte order
    ZLogRecInfo info = {}; // native order
    DWORD payloadSize = 0;
    const uint8_t* payload = nullptr; // as stored; only valid while its image lives
    // The first 32 payload bytes (fewer when the payload is shorter) as
    // words converted to native order, the way the library converts them.
    uint32_t head[8] = {};

    uint64_t Time() const { return qsFileTimeToUInt64(info.GetTimestamp()); }
    DWORD Id() const { return info.GetRecordId(); }
    qsLogRecType Type() const { return info.GetType(); }
    bool IsMessage() const;
    bool IsBookkeeping() const;
    // Message records only.
    int32_t Code() const { return int32_t(head[0]); }
    int32_t Severity() const { return int32_t(head[1]); }
};

// The record `rec` of `file`, whose image holds `imageSize` bytes, if it is
// intact: a valid signature, an id, and header and payload wholly inside the
// image.  Never reads outside the image.
bool ReadRecord(const ZLogFile* file, DWORD imageSize, const ZLogRec* rec, Record& out);

// The text a record stands for, as UTF-8 without the trailing newline:
// the message for message records (wide text decoded, in the record's own
// byte order; invalid units become U+FFFD), a short marker for the others
// ("log started", "resized 4096 KiB to 1024 KiB", "cleared", ...).  Uses
// `scratch` when the text must be built; otherwise points into the image.
std::string_view RecordText(const Record& r, std::string& scratch);
// The same, but the message exactly as stored (trailing newline kept).
std::string_view MessageText(const Record& r, std::string& scratch);

// "info", "normal", "warning", "error" (3 and above); a negative severity as
// its number.
std::string_view SeverityName(int32_t severity, std::string& scratch);
// "STRA"; the hex value when the four bytes are not printable.
std::string TypeName(qsLogRecType type);

// Appends the UTF-8 form of one code point; invalid ones as U+FFFD.
void AppendUtf8(std::string& out, uint32_t codePoint);

} // namespace qslog

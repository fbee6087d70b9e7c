#include "qslogFormat.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>

namespace qslog {

namespace {

const char* const kReset = "\033[0m";
const char* const kError = "\033[1;31m";
const char* const kWarning = "\033[33m";
const char* const kInfo = "\033[2m";
const char* const kMarker = "\033[36m";
const char* const kLost = "\033[1;35m";

const char* LineColor(const Record& r) {
    if (!r.IsMessage())
        return kMarker;
    if (r.Severity() >= 3)
        return kError;
    if (r.Severity() == 2)
        return kWarning;
    if (r.Severity() <= 0)
        return kInfo;
    return nullptr;
}

std::string Hex(uint64_t v, int width) {
    char buf[24];
    snprintf(buf, sizeof buf, "0x%0*llX", width, (unsigned long long)v);
    return buf;
}

std::string HexBytes(const uint8_t* p, size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    s.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        s.push_back(kDigits[p[i] >> 4]);
        s.push_back(kDigits[p[i] & 0xF]);
    }
    return s;
}

DWORD StoredSignature(const Record& r) {
    DWORD w;
    memcpy(&w, r.payload - LOG_REC_HEADER_SIZE, 4);
    return w;
}

} // namespace

Formatter::Formatter(OutputFormat format, bool color, std::vector<std::string> files, bool tagFiles)
    : m_Format(format), m_Color(color && format != OutputFormat::Json), m_Files(std::move(files)),
      m_TagFiles(tagFiles) {}

void Formatter::Color(Writer& out, const char* code) {
    if (m_Color && code)
        out.Put(code);
}

void Formatter::EndLine(Writer& out, bool colored) {
    if (m_Color && colored)
        out.Put(kReset);
    out.Put('\n');
}

void Formatter::Prefix(Writer& out, int file) {
    if (!m_TagFiles || file < 0 || size_t(file) >= m_Files.size())
        return;
    out.Put(m_Files[size_t(file)]);
    out.Put(": ");
}

void Formatter::Put(Writer& out, const Entry& e) {
    if (m_Format == OutputFormat::Json) {
        Json(out, e);
        return;
    }
    if (e.IsGap()) {
        Gap(out, e);
        return;
    }
    Prefix(out, e.file);
    if (m_Format == OutputFormat::Raw)
        Raw(out, e.rec);
    else
        Short(out, e.rec);
}

void Formatter::Short(Writer& out, const Record& r) {
    const char* color = LineColor(r);
    Color(out, color);
    out.Put(m_Time.Short(r.Time()));
    out.Put(" [");
    out.PutUInt(r.info.GetProcessId());
    out.Put(':');
    out.PutHex(r.info.GetThreadId());
    out.Put("] #");
    out.PutUInt(r.Id());
    out.Put(' ');
    if (r.IsMessage()) {
        out.Put(SeverityName(r.Severity(), m_Scratch));
        if (r.Code() != 0) {
            out.Put(" 0x");
            out.PutHex(DWORD(r.Code()));
        }
        out.Put(": ");
    } else {
        out.Put("-- ");
    }
    out.PutEscaped(RecordText(r, m_Text));
    EndLine(out, color != nullptr);
}

void Formatter::Raw(Writer& out, const Record& r) {
    out.Put('@');
    out.PutUInt(r.offset);
    out.Put(" sig=");
    out.PutHex(StoredSignature(r), 8);
    out.Put(r.opposite ? " order=opposite" : " order=native");
    out.Put(" size=");
    out.PutUInt(r.recSize);
    out.Put(" stride=");
    out.PutUInt(ZLogRecActualSize(r.recSize));
    out.Put(" prev=");
    out.PutUInt(r.prevOffset);
    out.Put(" id=");
    out.PutUInt(r.Id());
    out.Put(" flags=0x");
    out.PutHex(r.info.GetFlags());
    out.Put(" type=");
    out.Put(TypeName(r.Type()));
    out.Put(" pid=");
    out.PutUInt(r.info.GetProcessId());
    out.Put(" tid=");
    out.PutHex(r.info.GetThreadId(), 8);
    out.Put(" filetime=");
    out.PutUInt(r.Time());
    out.Put(" time=");
    out.Put(m_Time.Iso(r.Time()));
    out.Put(" payload=");
    out.PutUInt(r.payloadSize);
    if (r.IsMessage()) {
        out.Put(" code=0x");
        out.PutHex(DWORD(r.Code()), 8);
        out.Put(" sev=");
        out.PutInt(r.Severity());
    }
    out.Put(" text=");
    out.PutEscaped(MessageText(r, m_Text));
    out.Put('\n');
}

void Formatter::Json(Writer& out, const Entry& e) {
    nlohmann::ordered_json j;
    if (size_t(e.file) < m_Files.size())
        j["file"] = m_Files[size_t(e.file)];
    if (e.IsGap()) {
        j["lost"] = e.lost;
        j["first_id"] = e.lostFirst;
        j["last_id"] = e.lostLast;
        j["reason"] = "unreadable";
    } else {
        const Record& r = e.rec;
        j["id"] = r.Id();
        j["time"] = std::string(m_Time.Iso(r.Time()));
        j["filetime"] = r.Time();
        j["pid"] = r.info.GetProcessId();
        j["tid"] = r.info.GetThreadId();
        j["type"] = TypeName(r.Type());
        j["type_code"] = r.Type();
        j["flags"] = r.info.GetFlags();
        j["offset"] = r.offset;
        j["size"] = r.recSize;
        j["prev_offset"] = r.prevOffset;
        j["byte_order"] = r.opposite ? "opposite" : "native";
        if (r.IsMessage()) {
            j["severity"] = r.Severity();
            j["level"] = std::string(SeverityName(r.Severity(), m_Scratch));
            j["code"] = r.Code();
            j["code_hex"] = Hex(DWORD(r.Code()), 8);
        } else if (r.Type() == LOGREC_RESIZE && r.payloadSize >= 8) {
            j["old_kib"] = r.head[0];
            j["new_kib"] = r.head[1];
        } else if (r.Type() == LOGREC_EVENT) {
            auto& words = j["words"] = nlohmann::ordered_json::array();
            for (DWORD i = 0; i < std::min<DWORD>(r.payloadSize, sizeof r.head) / 4; ++i)
                words.push_back(r.head[i]);
        } else if (!r.IsBookkeeping()) {
            j["payload"] = HexBytes(r.payload, r.payloadSize);
        }
        j["text"] = std::string(MessageText(r, m_Text));
    }
    // Texts are bytes: what is not UTF-8 becomes U+FFFD rather than an error.
    out.Put(j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    out.Put('\n');
}

void Formatter::Gap(Writer& out, const Entry& e) {
    Prefix(out, e.file);
    Color(out, kLost);
    out.Put("-- ");
    out.PutUInt(e.lost);
    out.Put(e.lost == 1 ? " record" : " records");
    out.Put(" unreadable (#");
    out.PutUInt(e.lostFirst);
    out.Put(" to #");
    out.PutUInt(e.lostLast);
    out.Put(") --");
    EndLine(out, true);
}

void Formatter::PutLost(Writer& out, DWORD count, int file) {
    if (m_Format == OutputFormat::Json) {
        nlohmann::ordered_json j;
        if (size_t(file) < m_Files.size())
            j["file"] = m_Files[size_t(file)];
        j["lost"] = count;
        j["reason"] = "overrun";
        out.Put(j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
        out.Put('\n');
        return;
    }
    Prefix(out, file);
    Color(out, kLost);
    out.Put("-- ");
    out.PutUInt(count);
    out.Put(count == 1 ? " record lost --" : " records lost --");
    EndLine(out, true);
}

void Formatter::PutHeader(Writer& out, const LogImage& image, int file) {
    if (m_Format != OutputFormat::Raw)
        return;
    const HeaderWords& h = image.Original();
    Prefix(out, file);
    out.Put("header sig=");
    out.PutHex(h.signature, 8);
    out.Put(" version=");
    out.PutHex(h.version, 8);
    out.Put(" size=");
    out.PutUInt(h.size);
    out.Put(" last=");
    out.PutUInt(h.lastOffset);
    out.Put(" next=");
    out.PutUInt(h.nextOffset);
    out.Put(" count=");
    out.PutUInt(h.count);
    out.Put(" wraps=");
    out.PutUInt(h.wraps);
    out.Put(image.OppositeOrder() ? " order=opposite" : " order=native");
    out.Put(" file_size=");
    out.PutUInt(image.FileSize());
    out.Put(image.HeaderValid() ? " valid=yes" : " valid=no");
    out.Put('\n');
}

} // namespace qslog

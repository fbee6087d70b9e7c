#include "qslogWriter.h"

#include <charconv>
#include <unistd.h>

namespace qslog {

Writer::Writer(int fd, size_t capacity) : m_Fd(fd), m_Buffer(capacity) {}

Writer::~Writer() {
    Flush();
}

void Writer::Spill(size_t) {
    Flush();
}

void Writer::WriteAll(const char* p, size_t n) {
    while (n > 0 && !m_Failed) {
        // An interrupted write is a stop signal while following (nothing
        // else is caught): give up rather than block again.
        ssize_t done = write(m_Fd, p, n);
        if (done <= 0) {
            m_Failed = true;
            return;
        }
        p += done;
        n -= size_t(done);
    }
}

bool Writer::Flush() {
    WriteAll(m_Buffer.data(), m_Used);
    m_Used = 0;
    return !m_Failed;
}

void Writer::PutUInt(uint64_t v) {
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    Put(std::string_view(buf, size_t(r.ptr - buf)));
}

void Writer::PutInt(int64_t v) {
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    Put(std::string_view(buf, size_t(r.ptr - buf)));
}

void Writer::PutHex(uint64_t v, int width) {
    static const char kDigits[] = "0123456789ABCDEF";
    char buf[16];
    int n = 0;
    do {
        buf[n++] = kDigits[v & 0xF];
        v >>= 4;
    } while (v != 0 || n < width);
    while (n > 0)
        Put(buf[--n]);
}

namespace {

// The length of the well-formed UTF-8 sequence at s[i] (2 to 4 bytes), 0
// when there is none: a stray continuation byte, a bad lead byte, a sequence
// cut short, an overlong form, a surrogate or a code point past U+10FFFF.
size_t Utf8Length(std::string_view s, size_t i) {
    unsigned char lead = (unsigned char)s[i];
    size_t n;
    uint32_t cp, least;
    if (lead >= 0xC2 && lead <= 0xDF)
        n = 2, cp = lead & 0x1Fu, least = 0x80;
    else if (lead >= 0xE0 && lead <= 0xEF)
        n = 3, cp = lead & 0x0Fu, least = 0x800;
    else if (lead >= 0xF0 && lead <= 0xF4)
        n = 4, cp = lead & 0x07u, least = 0x10000;
    else
        return 0;
    if (n > s.size() - i)
        return 0;
    for (size_t k = 1; k < n; ++k) {
        unsigned char c = (unsigned char)s[i + k];
        if ((c & 0xC0) != 0x80)
            return 0;
        cp = cp << 6 | (c & 0x3Fu);
    }
    if (cp < least || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

} // namespace

void Writer::PutEscaped(std::string_view s) {
    static const char kDigits[] = "0123456789abcdef";
    size_t start = 0;
    for (size_t i = 0; i < s.size();) {
        unsigned char c = (unsigned char)s[i];
        if (c >= 0x20 && c != 0x7F && c < 0x80) {
            ++i;
            continue;
        }
        size_t n = c >= 0x80 ? Utf8Length(s, i) : 0;
        // U+0080 to U+009F are the C1 controls, which some terminals obey.
        bool c1 = n == 2 && c == 0xC2 && (unsigned char)s[i + 1] < 0xA0;
        if (n > 0 && !c1) {
            i += n;
            continue;
        }
        Put(s.substr(start, i - start));
        for (size_t end = i + (c1 ? 2 : 1); i < end; ++i) {
            c = (unsigned char)s[i];
            if (c == '\n') {
                Put("\\n");
            } else if (c == '\r') {
                Put("\\r");
            } else if (c == '\t') {
                Put("\\t");
            } else {
                char esc[4] = {'\\', 'x', kDigits[c >> 4], kDigits[c & 0xF]};
                Put(std::string_view(esc, 4));
            }
        }
        start = i;
    }
    Put(s.substr(start));
}

} // namespace qslog

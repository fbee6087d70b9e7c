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

void Writer::PutEscaped(std::string_view s) {
    static const char kDigits[] = "0123456789abcdef";
    size_t start = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        unsigned char c = (unsigned char)s[i];
        if (c >= 0x20 && c != 0x7F)
            continue;
        if (c == '\t')
            continue;
        Put(s.substr(start, i - start));
        start = i + 1;
        if (c == '\n') {
            Put("\\n");
        } else if (c == '\r') {
            Put("\\r");
        } else {
            char esc[4] = {'\\', 'x', kDigits[c >> 4], kDigits[c & 0xF]};
            Put(std::string_view(esc, 4));
        }
    }
    Put(s.substr(start));
}

} // namespace qslog

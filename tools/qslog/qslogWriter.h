// One large output buffer written to a file descriptor with write(2): no
// stream, no locale, no allocation per line.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace qslog {

class Writer {
public:
    explicit Writer(int fd, size_t capacity = 1 << 20);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void Put(std::string_view s) {
        if (s.size() > m_Buffer.size() - m_Used)
            Spill(s.size());
        if (s.size() > m_Buffer.size()) {
            WriteAll(s.data(), s.size());
            return;
        }
        memcpy(m_Buffer.data() + m_Used, s.data(), s.size());
        m_Used += s.size();
    }
    void Put(char c) {
        if (m_Used == m_Buffer.size())
            Spill(1);
        m_Buffer[m_Used++] = c;
    }
    void PutUInt(uint64_t v);
    void PutInt(int64_t v);
    // Upper-case hex digits, at least `width` of them.
    void PutHex(uint64_t v, int width = 1);
    // The text on one line, unable to drive a terminal: newline, carriage
    // return and tab as \n, \r and \t; the other control characters (C0,
    // DEL, and C1 as its two UTF-8 bytes) and every byte that is not part of
    // well-formed UTF-8 as \xNN.  Everything else, backslashes included, as is.
    void PutEscaped(std::string_view s);

    // Writes out what is buffered.  False once any write failed.
    bool Flush();
    bool Failed() const { return m_Failed; }

private:
    void Spill(size_t needed);
    void WriteAll(const char* p, size_t n);

    int m_Fd;
    std::vector<char> m_Buffer;
    size_t m_Used = 0;
    bool m_Failed = false;
};

} // namespace qslog

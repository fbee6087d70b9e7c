#include "qsnfsProgress.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qsnfs {

namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);

void WriteAll(int fd, const std::string& text) {
    size_t at = 0;
    while (at < text.size()) {
        ssize_t n = write(fd, text.data() + at, text.size() - at);
        if (n <= 0)
            return; // a bar is worth no error of its own
        at += size_t(n);
    }
}

int Columns(int fd) {
    struct winsize ws {};
    if (ioctl(fd, TIOCGWINSZ, &ws) == 0 && ws.ws_col >= 20)
        return ws.ws_col;
    return 80;
}

std::string Mib(uint64_t bytes) {
    char text[32];
    snprintf(text, sizeof text, "%.1f MiB", double(bytes) / (1 << 20));
    return text;
}

} // namespace

Progress::Progress(uint64_t total, int fd)
    : m_Fd(fd), m_Total(total), m_Active(total >= kThreshold && isatty(fd)),
      m_Start(std::chrono::steady_clock::now()), m_Last(m_Start) {}

void Progress::Update(uint64_t done) {
    if (!m_Active)
        return;
    auto now = std::chrono::steady_clock::now();
    if (now - m_Last < kInterval && done < m_Total)
        return;
    m_Last = now;
    double seconds = std::chrono::duration<double>(now - m_Start).count();
    std::string line(1, '\r');
    line += Render(done, m_Total, seconds, Columns(m_Fd));
    WriteAll(m_Fd, line);
    m_Shown = true;
}

void Progress::Finish() {
    if (m_Shown)
        WriteAll(m_Fd, "\r\033[K");
    m_Shown = false;
    m_Active = false;
}

std::string Progress::Render(uint64_t done, uint64_t total, double seconds, int columns) {
    done = std::min(done, total);
    char tail[96];
    double rate = seconds > 0 ? double(done) / seconds / 1e6 : 0;
    snprintf(tail, sizeof tail, " %3u%%  %s / %s  %.1f MB/s",
             unsigned(total ? done * 100 / total : 100), Mib(done).c_str(), Mib(total).c_str(),
             rate);
    // The last column stays empty: some terminals wrap on writing it.
    int width = std::max(10, columns - 1 - int(strlen(tail)) - 2);
    int filled = int(total ? double(done) / double(total) * width : width);
    std::string bar(size_t(width + 2), ' ');
    bar.front() = '[';
    bar.back() = ']';
    bar.replace(1, size_t(filled), size_t(filled), '#');
    return bar + tail;
}

} // namespace qsnfs

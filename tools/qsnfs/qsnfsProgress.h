// The progress bar of get and put: on standard error, only when it is a
// terminal and the transfer is large enough to be worth watching.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qsnfs {

class Progress {
public:
    // Smaller transfers end before a bar could tell anything.
    static constexpr uint64_t kThreshold = 4 << 20;

    // `total` 0: unknown, no bar.
    Progress(uint64_t total, int fd = 2);
    ~Progress() { Finish(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Update(uint64_t done);
    // Clears the bar, so that what follows (a failure's line, the shell's
    // prompt) starts on a clean line.
    void Finish();

    // "[#####     ]  48%  122.9 MiB / 256.0 MiB  812.4 MB/s" in `columns`.
    static std::string Render(uint64_t done, uint64_t total, double seconds, int columns);

private:
    int m_Fd;
    uint64_t m_Total;
    bool m_Shown = false;
    bool m_Active;
    std::chrono::steady_clock::time_point m_Start, m_Last;
};

} // namespace qsnfs

// What another process (or thread) is doing right now, read from /proc, so
// that a test waits for a state instead of sleeping and hoping.
#pragma once

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <sys/types.h>
#include <unistd.h>

namespace qsTest {

// The state letter of /proc/<id>/stat ('R', 'S', 'D', 't', 'Z', ...), or 0
// when the process is gone.  `id` may be a thread id.
inline char ProcessState(pid_t id) {
    std::ifstream in("/proc/" + std::to_string(id) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    // The command name in parentheses may itself hold spaces and parentheses.
    size_t close = text.rfind(')');
    return close == std::string::npos || close + 2 >= text.size() ? 0 : text[close + 2];
}

// The number of the system call the process is blocked in, or -1 when it is
// running in user space or cannot be inspected.
inline long BlockedSyscall(pid_t id) {
    std::ifstream in("/proc/" + std::to_string(id) + "/syscall");
    long number = -1;
    return in >> number ? number : -1;
}

// Asleep in the kernel inside system call `number` (for example SYS_futex).
inline bool AsleepIn(pid_t id, long number) {
    return ProcessState(id) == 'S' && BlockedSyscall(id) == number;
}

// Polls `done` until it holds (true) or `timeout` passes (false).  The
// limit only ends a test that would otherwise hang; keep it generous.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        usleep(1000);
    }
    return true;
}

} // namespace qsTest

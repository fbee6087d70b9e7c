// Runs a check in a forked child whose address space may grow only a little,
// so that a large request fails there as in a full 32-bit process (with
// overcommit a 64-bit build may otherwise get its 4 GiB).
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qsTest {

// A request the capped child cannot satisfy on any build.
constexpr uint32_t kImpossibleSize = 0xFFFFFFF0;

// The child's exit status: what body returned (0 when every check held),
// 255 when the cap could not be set, -1 when the child did not exit normally.
inline int RunWithMemoryCap(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        unsigned long pages = 0;
        FILE* f = fopen("/proc/self/statm", "r");
        if (!f || fscanf(f, "%lu", &pages) != 1)
            _exit(255);
        rlim_t cap = rlim_t(pages) * sysconf(_SC_PAGESIZE) + (64u << 20);
        rlimit lim{cap, cap};
        _exit(setrlimit(RLIMIT_AS, &lim) == 0 ? body() : 255);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace qsTest

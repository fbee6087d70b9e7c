// Runs a check in a forked child whose address space may grow only a little,
// so that a large request fails there as it would in a full 32-bit process
// (on a 64-bit build with overcommit a 4 GiB malloc may otherwise succeed).
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

// The child's exit status: what body returned (0 for success, else the
// number of the check that failed), 255 when the cap could not be set, -1
// when the child did not exit normally.
inline int RunWithMemoryCap(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        unsigned long pages = 0;
        FILE* f = fopen("/proc/self/statm", "r");
        if (!f || fscanf(f, "%lu", &pages) != 1)
            _exit(255);
        fclose(f);
        rlim_t cap = rlim_t(pages) * sysconf(_SC_PAGESIZE) + (64u << 20);
        rlimit lim{cap, cap};
        if (setrlimit(RLIMIT_AS, &lim) != 0)
            _exit(255);
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace qsTest

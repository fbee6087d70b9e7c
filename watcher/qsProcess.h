// One child program under supervision.
//
// The object keeps the target's argument list and drives one child at a time:
// start it with fork and execv, reap it, forward signals to it, and end it in
// two stages.  Every step is logged.  Only the argument pointers are copied;
// the strings stay the caller's and must outlive the object.
#pragma once

#include <cstdint>
#include <sys/types.h>

namespace qsProcess {

class process {
public:
    // `argc` is the number of target words and `argv` points at the first of
    // them (the path), followed by the caller's terminating null pointer.
    // argc + 1 pointers are copied, that null included, and one more null is
    // stored after them.  With argc == -1 no array is kept at all.
    process(int argc, char** argv);
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    // Forks and executes the target, path used as given (no PATH search).
    // True in the parent after a successful fork, false when fork failed;
    // never returns in the child, which exits 1 when execv fails.
    bool start();
    // Blocks in waitpid (no options, no retry on EINTR) for the child, or for
    // any child while none is held.  On success stores the raw status when
    // `status` is not null and forgets the child once it is reaped.  False,
    // with nothing stored, when waitpid fails.
    bool wait(int* status);
    // kill(2) on the child; -1 without a call when no child is held.
    int signal(int sig);
    // SIGTERM, a fixed grace of 15 seconds, SIGKILL unless the probe says the
    // child is gone, then reaps it.  Always true.
    bool kill();

    // The running child's id, -1 when there is none (never started, fork
    // failed, or reaped).
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid;
    int32_t m_argc;
    char** m_argv;
};

} // namespace qsProcess

// The watcher's own signals and the order in which it acts on them.
//
// The watcher keeps SIGINT, SIGTERM, SIGHUP and SIGCHLD blocked except while
// it sleeps in sigsuspend, and after each wake-up it acts on one signal only:
// the first of them, in the order below, that arrived.  Whatever else arrived
// in the same wake-up is dropped.
#pragma once

#include <csignal>

namespace qsWatcher {

// Priority order: an interrupt outranks termination, which outranks a
// hang-up, which outranks news about the child.
constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGCHLD};

// Fills `set` with exactly the four signals; used both for the blocked mask
// and for the mask the handler runs under.
inline void FillWatchedSet(sigset_t* set) {
    sigemptyset(set);
    for (int sig : kSignals)
        sigaddset(set, sig);
}

// The signal of `received` to act on, or 0 when none of the four is there.
inline int FirstPending(const sigset_t& received) {
    for (int sig : kSignals) {
        if (sigismember(&received, sig) == 1)
            return sig;
    }
    return 0;
}

} // namespace qsWatcher

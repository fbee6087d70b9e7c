// The watcher's choice among its signals, and the kernel behaviour that
// makes the choice untestable through the real watcher.
#include "qsWatcher.h"

#include <gtest/gtest.h>

#include <vector>

// Of whatever arrived, the first of SIGINT, SIGTERM, SIGHUP, SIGCHLD wins;
// other signals never count.
TEST(WatcherSignals, PriorityOrder) {
    const int order[] = {SIGINT, SIGTERM, SIGHUP, SIGCHLD};
    for (unsigned subset = 0; subset < 16; subset++) {
        sigset_t received;
        sigemptyset(&received);
        sigaddset(&received, SIGUSR1);
        for (int i = 0; i < 4; i++) {
            if (subset & (1u << i))
                sigaddset(&received, order[i]);
        }
        int expected = subset ? order[__builtin_ctz(subset)] : 0;
        EXPECT_EQ(expected, qsWatcher::FirstPending(received)) << "subset " << subset;
    }
}

namespace {
std::vector<int> g_Handled;
void Record(int sig) {
    g_Handled.push_back(sig);
}
} // namespace

// With the four blocked and a handler that blocks the other three, two
// pending signals and one sigsuspend run exactly one handler, for the lower
// signal number; the other waits for the next sigsuspend.  So the watcher
// never sees two signals in one wake-up from real signals, and the priority
// choice above is tested directly instead.
TEST(WatcherSignals, OneHandlerPerSigsuspend) {
    sigset_t watched, old;
    qsWatcher::FillWatchedSet(&watched);
    sigprocmask(SIG_BLOCK, &watched, &old);
    struct sigaction sa = {};
    sa.sa_handler = Record;
    sa.sa_mask = watched;
    for (int sig : qsWatcher::kSignals)
        sigaction(sig, &sa, nullptr);

    for (auto [first, second] :
         {std::pair{SIGINT, SIGHUP}, {SIGCHLD, SIGTERM}, {SIGINT, SIGCHLD}}) {
        g_Handled.clear();
        kill(getpid(), first);
        kill(getpid(), second);
        sigsuspend(&old);
        ASSERT_EQ(1u, g_Handled.size());
        sigsuspend(&old);
        EXPECT_EQ((std::vector<int>{std::min(first, second), std::max(first, second)}), g_Handled);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

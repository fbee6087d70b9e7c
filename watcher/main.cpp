// The watcher: starts one target program, restarts it when it ends
// abnormally, a bounded number of times and after a fixed delay, and ends when
// the target exits with status 0, when the restart budget is spent, or on
// SIGTERM.
//
//     watcher [-d seconds] [-f] [-r restarts] path [arguments...]
//
// Its controls are signals.  SIGINT and SIGHUP are forwarded to the target;
// SIGTERM stops the target (TERM, 15 s, KILL) and ends the watcher; SIGCHLD
// reaps the target and decides on a restart.  The four are blocked at all
// times except inside sigsuspend, so the handler never runs while the loop is
// logging or touching ssReceived, and the loop reads ssReceived without races.
#include "qsLog.h"
#include "qsProcess.h"
#include "qsWatcher.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

int32_t nRetries = 10;   // the target is started at most nRetries + 1 times
int32_t nRetryDelay = 5; // seconds before a restart, once the child is reaped
bool bRunInForeground = false;
sigset_t ssReceived; // written by the handler, read and cleared by the loop

void signal_handler(int signo) {
    qsLogPrintfA(0, 1, "Received signal: %d\n", signo);
    sigaddset(&ssReceived, signo);
    switch (signo) {
    case SIGHUP:
        qsLogPrintfA(0, 1, "Received SIGHUP\n");
        break;
    case SIGINT:
        qsLogPrintfA(0, 1, "Received SIGINT\n");
        break;
    case SIGTERM:
        qsLogPrintfA(0, 1, "Received SIGTERM\n");
        break;
    case SIGCHLD:
        qsLogPrintfA(0, 1, "Received SIGCHLD\n");
        break;
    default: {
        // Unreachable while only the four signals are installed.  The message
        // takes a string, so the number is passed formatted as text.
        char text[16];
        snprintf(text, sizeof text, "%d", signo);
        qsLogPrintfA(0, 1, "Unexecpected signal: %s\n", text);
        break;
    }
    }
}

// No flags: in particular no SA_RESTART, and SIGCHLD is also reported for a
// stopped or continued child.  The handler runs with all four blocked.
void set_signal_handling() {
    struct sigaction sa = {};
    sa.sa_handler = signal_handler;
    qsWatcher::FillWatchedSet(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    sigaction(SIGCHLD, &sa, nullptr);
}

namespace {

// The value word of -d and -r.  No validation: a non-number gives 0, and a
// missing word (option last on the line) counts as 0 with nothing left to
// parse.
int32_t OptionValue(int argc, char** argv, int& i) {
    if (i + 1 >= argc)
        return 0;
    i++;
    return int32_t(strtol(argv[i], nullptr, 10));
}

void Daemonize(const char* lastWord) {
    pid_t pid = fork();
    if (pid == -1) {
        qsLogPrintfA(errno, 5, "%s: fork failed", lastWord);
        exit(1);
    }
    if (pid != 0) {
        qsLogPrintfA(0, 0, "parent exiting, forked %x\n", pid);
        exit(0);
    }
    // The constant 0 in this line is deliberate; it is not a process id.
    qsLogPrintfA(0, 0, "Watcher (%x) daemonizing", 0);
    // Results ignored: a daemon that cannot leave its directory or start a
    // session still supervises.
    if (chdir("/") != 0) {
    }
    setsid();
}

} // namespace

int main(int argc, char** argv) {
    // Only the second character of an option word counts (-fast is -f), and
    // the values of -d and -r are always the next word, never glued on: -d5
    // takes the following word as the delay.  Parsing stops at the first word
    // not beginning with '-'; that word and the rest are the target's.
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        switch (argv[i][1]) {
        case 'd':
            nRetryDelay = OptionValue(argc, argv, i);
            break;
        case 'f':
            bRunInForeground = true;
            break;
        case 'r':
            nRetries = OptionValue(argc, argv, i);
            break;
        default:
            break;
        }
    }
    // A failed daemonising fork names the last word the parser consumed (the
    // value word for -d and -r), or the program itself without options.
    if (!bRunInForeground)
        Daemonize(argv[i - 1]);

    sigset_t ssWatched, ssOldMask;
    qsWatcher::FillWatchedSet(&ssWatched);
    sigprocmask(SIG_BLOCK, &ssWatched, &ssOldMask);
    sigemptyset(&ssReceived);
    set_signal_handling();

    qsProcess::process child(argc - i, argv + i);
    bool bNeedStart = true;
    bool bKeepRunning = true;
    int32_t nStarts = 0;
    int nStatus = 0;

    for (;;) {
        if (nStarts <= nRetries && bNeedStart) {
            child.start();
            nStarts++;
            bNeedStart = false;
        }
        sigsuspend(&ssOldMask);

        switch (qsWatcher::FirstPending(ssReceived)) {
        case SIGINT:
            qsLogPrintfA(0, 1, "send SIGINT to watched process");
            child.signal(SIGINT);
            break;
        case SIGTERM:
            qsLogPrintfA(0, 1, "terminating watched process");
            child.kill();
            exit(0);
        case SIGHUP:
            qsLogPrintfA(0, 1, "restarting watched process");
            child.signal(SIGHUP);
            break;
        case SIGCHLD:
            qsLogPrintfA(0, 1, "watched process exited.");
            nStatus = 0;
            // A failed wait leaves nStatus 0, which reads as a clean exit.
            child.wait(&nStatus);
            qsLogPrintfA(0, 1, "Target exit status %x", nStatus);
            if (WIFEXITED(nStatus)) {
                int exitCode = WEXITSTATUS(nStatus);
                qsLogPrintfA(0, 1, "exit stat = %d", exitCode);
                if (exitCode == 0) {
                    bKeepRunning = false;
                    qsLogPrintfA(0, 0, "normal exit, no restart necessary");
                }
                bNeedStart = true;
            } else if (WIFSIGNALED(nStatus)) {
                qsLogPrintfA(0, 1, "exit due to signal %d", WTERMSIG(nStatus));
                if (WCOREDUMP(nStatus))
                    qsLogPrintfA(0, 0, "core dump produced");
                bNeedStart = true;
            } else {
                bNeedStart = true; // stopped: low 7 bits 0x7F
            }
            break;
        default:
            qsLogPrintfA(0, 1, "some vague signal received.\n");
            break;
        }
        // Lower-priority signals of the same wake-up are dropped here.
        sigemptyset(&ssReceived);

        // Checked after every dispatch, whatever the signal: once the last
        // permitted start is made, the next signal ends the watcher, and the
        // child (possibly still running) is left alone.
        if (nStarts > nRetries) {
            qsLogPrintfA(0, 0, "restart count exceeded");
            return 0;
        }
        if (!bKeepRunning)
            return 0;
        if (child.pid() != -1)
            continue;
        // The signals stay blocked while sleeping; whatever arrives now waits
        // for the next sigsuspend.
        qsLogPrintfA(0, 0, "sleeping for %d", nRetryDelay);
        sleep(nRetryDelay);
    }
}

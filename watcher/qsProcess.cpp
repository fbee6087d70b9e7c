#include "qsProcess.h"

#include "qsLog.h"
#include "qsWatcher.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace qsProcess {

// Seconds between the polite and the forced stop in kill(): a fixed grace,
// waited out in full even when the child obeys at once.
constexpr unsigned kTermGraceSeconds = 15;

process::process(int argc, char** argv) : m_pid(-1), m_argc(argc + 1), m_argv(nullptr) {
    if (m_argc == 0)
        return;
    m_argv = new char*[size_t(argc) + 2];
    for (int i = 0; i <= argc; i++)
        m_argv[i] = argv[i];
    m_argv[argc + 1] = nullptr;
}

process::~process() {
    delete[] m_argv;
}

bool process::start() {
    qsLogPrintfA(0, 0, "process::start()");
    m_pid = fork();
    if (m_pid == -1) {
        qsLogPrintfA(errno, 4, "fork() failed!\n");
        return false;
    }
    if (m_pid != 0)
        return true;

    // Without an argument array (argc -1) the path is null like that of an
    // empty list: execv fails with EFAULT and the child exits 1.
    char* path = m_argv ? m_argv[0] : nullptr;
    qsLogPrintfA(0, 1, "starting process: %s. with PID %x", path, getpid());
    // The one piece of the watcher's state touched here besides the mask.  A
    // signal the watcher forwards right after the fork (one that arrived
    // during the restart delay is acted on at once) may find this child still
    // blocking it and still holding the watcher's handler: unblocked, it would
    // run that handler here and be swallowed, and the target would never see
    // it.  With the default actions back first, it takes its normal effect on
    // this child instead.  The target loses nothing: execv resets caught
    // signals to their defaults anyway.
    for (int sig : qsWatcher::kSignals)
        ::signal(sig, SIG_DFL);
    // The watcher keeps its own signals blocked; the target must not inherit
    // that, or it could never be interrupted, hung up or terminated.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(path, m_argv);
    qsLogPrintfA(errno, 4, "execv() failed! errno: %d\n", errno);
    exit(1);
}

bool process::wait(int* status) {
    qsLogPrintfA(0, 0, "waiting for %x", m_pid);
    int st = 0;
    pid_t r = waitpid(m_pid, &st, 0);
    if (r == -1) {
        int err = errno;
        qsLogPrintfA(0, 4, "return value from wait is %d, errno %d (%s)", -1, err, strerror(err));
        return false;
    }
    if (r == m_pid)
        m_pid = -1;
    if (status)
        *status = st;
    return true;
}

int process::signal(int sig) {
    if (m_pid == -1)
        return -1;
    qsLogPrintfA(0, 1, "process::signal(): sending signal %d to process %x", sig, m_pid);
    return ::kill(m_pid, sig);
}

bool process::kill() {
    signal(SIGTERM);
    sleep(kTermGraceSeconds);
    // An unreaped child still answers the probe; SIGKILL to a zombie is
    // harmless.  With no child held the probe is signal 0 to pid -1, which
    // delivers nothing, and signal() then sends nothing either.
    if (::kill(m_pid, 0) != -1)
        signal(SIGKILL);
    wait(nullptr);
    return true;
}

} // namespace qsProcess

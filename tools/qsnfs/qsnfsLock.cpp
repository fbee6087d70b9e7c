// lock: a command run while the server holds a whole-file lock for it.
#include "qsNFSStatus.h"
#include "qsnfsTool.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace qsnfs {

namespace {

volatile sig_atomic_t g_Child = 0;

// The lock must outlive the command and be released after it, so a request
// to stop is the command's to act on, not ours.
void Forward(int sig) {
    if (g_Child > 0)
        kill(pid_t(g_Child), sig);
}

// The exit status as a shell reports it: 128 + the signal for a command
// killed by one, 126 and 127 for one that could not be run.
int RunProgram(const std::vector<std::string>& program) {
    std::vector<char*> argv;
    for (const std::string& word : program)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "qsnfs: lock: cannot start %s: %s\n", argv[0], strerror(errno));
        return kExitFailed;
    }
    if (pid == 0) {
        execvp(argv[0], argv.data());
        int error = errno;
        fprintf(stderr, "qsnfs: lock: cannot run %s: %s\n", argv[0], strerror(error));
        _exit(error == ENOENT ? 127 : 126);
    }
    g_Child = pid;
    // The terminal sends its keys' signals to the command too.
    struct sigaction ignore = {}, forward = {}, old[4];
    ignore.sa_handler = SIG_IGN;
    forward.sa_handler = Forward;
    sigemptyset(&forward.sa_mask);
    sigaction(SIGINT, &ignore, &old[0]);
    sigaction(SIGQUIT, &ignore, &old[1]);
    sigaction(SIGTERM, &forward, &old[2]);
    sigaction(SIGHUP, &forward, &old[3]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    g_Child = 0;
    sigaction(SIGINT, &old[0], nullptr);
    sigaction(SIGQUIT, &old[1], nullptr);
    sigaction(SIGTERM, &old[2], nullptr);
    sigaction(SIGHUP, &old[3], nullptr);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int Tool::Lock() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    EntryPtr file = OpenOrCreate(remote, 0666 & ~m_Umask, code);
    if (!file)
        return Fail(remote, code);
    qsNFSUtils::NFSBrowse* browse = Browse(remote.host, code);
    bool exclusive = !m_Opt.shared;
    // LockFile answers only yes or no; a code it left behind says why.
    int32_t before = browse->GetLastObjectError();
    if (!browse->LockFile(*file, true, exclusive)) {
        int32_t after = browse->GetLastObjectError();
        bool told = after != before && qsFailed(qsStatus(after));
        return Fail(remote, told ? after : int32_t(QS_E_NLM_DENIED), "lock not granted");
    }
    int status = RunProgram(m_Opt.program);
    if (!browse->LockFile(*file, false, exclusive)) {
        Fail(remote, browse->GetLastObjectError(), "the lock could not be released");
        return status ? status : kExitFailed;
    }
    return status;
}

} // namespace qsnfs

// A target for the watcher's process tests: it records what it finds at
// start and every signal it receives, and then behaves as its plan says.
//
//     watcher_probe record-file plan-for-run-0 [plan-for-run-1 ...]
//
// The run number is the count of "start" lines already in the record file;
// runs past the last plan repeat it.  A plan is a comma-separated list of
//     exit=N    exit with status N at once
//     raise=N   die by signal N at once
//     keep=N    record signal N and carry on (default: die by it)
//     stay=S    wait for signals at most S seconds, then exit 0 (default 60,
//               which also bounds a probe that a failed test leaves behind)
// Lines appended to the record file, one write each:
//     start run=R pid=P ppid=P sid=S pgid=G mask=HEX t=MS cwd=PATH
//     signal run=R pid=P sig=N
// mask has bit N-1 set for each blocked signal N; t is CLOCK_MONOTONIC in ms.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

const char* g_Record;

int64_t NowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void Append(const char* line) {
    int fd = open(g_Record, O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (fd < 0)
        return;
    if (write(fd, line, strlen(line)) < 0) {
    }
    close(fd);
}

int CountRuns() {
    FILE* in = fopen(g_Record, "r");
    if (!in)
        return 0;
    int runs = 0;
    char line[4096];
    while (fgets(line, sizeof line, in)) {
        if (strncmp(line, "start ", 6) == 0)
            runs++;
    }
    fclose(in);
    return runs;
}

[[noreturn]] void DieBy(int sig) {
    signal(sig, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, sig);
    raise(sig);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
    _exit(99); // the signal's default action was not fatal
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return 2;
    g_Record = argv[1];

    // What the probe inherited, before it changes anything.
    sigset_t inherited;
    sigprocmask(SIG_SETMASK, nullptr, &inherited);
    unsigned long long mask = 0;
    for (int sig = 1; sig < 65; sig++) {
        if (sigismember(&inherited, sig) == 1)
            mask |= 1ULL << (sig - 1);
    }

    // Blocked before the start line is written: once a test sees the line,
    // a signal sent is recorded, never lost to a default action.
    const int waited[] = {SIGINT, SIGHUP, SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2};
    sigset_t set;
    sigemptyset(&set);
    for (int sig : waited) {
        signal(sig, SIG_DFL);
        sigaddset(&set, sig);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);

    int run = CountRuns();
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd))
        strcpy(cwd, "?");
    char line[8192];
    snprintf(line, sizeof line,
             "start run=%d pid=%d ppid=%d sid=%d pgid=%d mask=%llx t=%lld cwd=%s\n", run,
             int(getpid()), int(getppid()), int(getsid(0)), int(getpgid(0)), mask,
             (long long)NowMs(), cwd);
    Append(line);

    std::string plan = argc > 2 ? argv[2 + (run < argc - 2 ? run : argc - 3)] : "";
    sigset_t keep;
    sigemptyset(&keep);
    long stay = 60;
    for (size_t pos = 0; pos < plan.size();) {
        size_t end = plan.find(',', pos);
        if (end == std::string::npos)
            end = plan.size();
        std::string item = plan.substr(pos, end - pos);
        pos = end + 1;
        size_t eq = item.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = item.substr(0, eq);
        long value = strtol(item.c_str() + eq + 1, nullptr, 10);
        if (key == "exit")
            exit(int(value));
        if (key == "raise")
            DieBy(int(value));
        if (key == "keep")
            sigaddset(&keep, int(value));
        if (key == "stay")
            stay = value;
    }

    int64_t deadline = NowMs() + stay * 1000;
    for (int64_t now = NowMs(); now < deadline; now = NowMs()) {
        int64_t left = deadline - now;
        timespec ts = {time_t(left / 1000), long(left % 1000) * 1000000};
        int sig = sigtimedwait(&set, nullptr, &ts);
        if (sig < 0)
            continue; // EAGAIN ends the loop through the deadline; EINTR retries
        snprintf(line, sizeof line, "signal run=%d pid=%d sig=%d\n", run, int(getpid()), sig);
        Append(line);
        if (sigismember(&keep, sig) != 1)
            DieBy(sig);
    }
    return 0;
}

// Helpers for tests that run real processes: spawning, bounded waits, the
// probe's record file, and a fixture that leaves no process behind.
#pragma once

#include "qsTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace qsWatcherTest {

using Args = std::vector<std::string>;

inline Args operator+(Args a, const Args& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// CLOCK_MONOTONIC in ms, the clock of the probe's "t=".
inline int64_t NowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Polls `done` every 10 ms for at most `seconds`.
template <typename Pred> bool WaitUntil(Pred done, double seconds) {
    int64_t deadline = NowMs() + int64_t(seconds * 1000);
    for (;;) {
        if (done())
            return true;
        if (NowMs() >= deadline)
            return false;
        usleep(10000);
    }
}

// Waits at most `seconds` for the child `pid` to end and reaps it.
inline bool WaitExit(pid_t pid, int* status, double seconds) {
    return WaitUntil([&] { return waitpid(pid, status, WNOHANG) == pid; }, seconds);
}

inline bool ExitedWith(int status, int code) {
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

// Runs args[0] with a clean slate: default dispositions and the given blocked
// mask (empty by default).  The process is killed should this test die first.
inline pid_t Spawn(const Args& args, const char* cwd = nullptr, const sigset_t* mask = nullptr) {
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    sigset_t none;
    sigemptyset(&none);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    for (int sig = 1; sig < NSIG; sig++)
        signal(sig, SIG_DFL);
    sigprocmask(SIG_SETMASK, mask ? mask : &none, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (cwd && chdir(cwd) != 0)
        _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
}

// Fields of /proc/<pid>/stat after the command name: state, ppid, pgrp, session.
struct ProcStat {
    char state = '?';
    pid_t ppid = -1, pgrp = -1, session = -1;
};

inline bool ReadProcStat(pid_t pid, ProcStat* st) {
    std::string text = qsTest::ReadFileText("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = text.rfind(')');
    if (paren == std::string::npos)
        return false;
    std::istringstream in(text.substr(paren + 1));
    in >> st->state >> st->ppid >> st->pgrp >> st->session;
    return bool(in);
}

// Alive and not a zombie.
inline bool Running(pid_t pid) {
    ProcStat st;
    return ReadProcStat(pid, &st) && st.state != 'Z';
}

// True once `pid` catches SIGINT, SIGTERM, SIGHUP and SIGCHLD (the watcher's
// handlers are in place, so a signal sent now is acted on, not fatal).
inline bool CatchesWatchedSignals(pid_t pid) {
    std::string text = qsTest::ReadFileText("/proc/" + std::to_string(pid) + "/status");
    size_t at = text.find("SigCgt:");
    if (at == std::string::npos)
        return false;
    uint64_t caught = strtoull(text.c_str() + at + 7, nullptr, 16);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
        if (!(caught & (1ULL << (sig - 1))))
            return false;
    }
    return true;
}

inline std::vector<pid_t> ChildrenOfThisProcess() {
    std::vector<pid_t> kids;
    DIR* proc = opendir("/proc");
    if (!proc)
        return kids;
    while (dirent* e = readdir(proc)) {
        pid_t pid = pid_t(atoi(e->d_name));
        ProcStat st;
        if (pid > 0 && ReadProcStat(pid, &st) && st.ppid == getpid())
            kids.push_back(pid);
    }
    closedir(proc);
    return kids;
}

// One run of the probe as its record file tells it.
struct ProbeRun {
    int run = -1;
    pid_t pid = -1, ppid = -1, sid = -1, pgid = -1;
    uint64_t mask = 0;
    int64_t t = 0;
    std::string cwd;
    std::vector<int> sigs; // in the order received
};

inline std::vector<ProbeRun> ReadRuns(const std::string& record) {
    std::vector<ProbeRun> runs;
    std::istringstream in(qsTest::ReadFileText(record));
    for (std::string line; std::getline(in, line);) {
        ProbeRun r;
        char cwd[4096] = "";
        unsigned long long mask = 0;
        long long t = 0;
        int sig = 0;
        if (sscanf(line.c_str(),
                   "start run=%d pid=%d ppid=%d sid=%d pgid=%d mask=%llx t=%lld cwd=%4095[^\n]",
                   &r.run, &r.pid, &r.ppid, &r.sid, &r.pgid, &mask, &t, cwd) == 8) {
            r.mask = mask;
            r.t = t;
            r.cwd = cwd;
            runs.push_back(r);
        } else if (sscanf(line.c_str(), "signal run=%d pid=%*d sig=%d", &r.run, &sig) == 2 &&
                   r.run >= 0 && size_t(r.run) < runs.size()) {
            runs[size_t(r.run)].sigs.push_back(sig);
        }
    }
    return runs;
}

// Fixture for tests that start processes.  This process becomes a subreaper,
// so a daemon whose parent exits, and a target whose watcher ends, become its
// children: they can be waited for, and the teardown kills and reaps every
// one of them whatever the test's outcome.
class ProcessTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1)); }

    void TearDown() override {
        for (int round = 0; round < 50; round++) {
            std::vector<pid_t> kids = ChildrenOfThisProcess();
            for (pid_t pid : kids)
                kill(pid, SIGKILL);
            pid_t reaped;
            while ((reaped = waitpid(-1, nullptr, WNOHANG)) > 0) {
            }
            if (kids.empty() && reaped == -1)
                return;
            usleep(20000);
        }
        ADD_FAILURE() << "processes left behind";
    }

    std::vector<ProbeRun> Runs() const { return ReadRuns(Record()); }
    std::string Record(const char* name = "record") const { return m_Dir / name; }

    qsTest::TempDir m_Dir{"watcher"};
};

} // namespace qsWatcherTest

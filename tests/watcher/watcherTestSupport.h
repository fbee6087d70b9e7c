// Helpers for tests that run the watcher and its targets as real processes:
// bounded waits, /proc, the probe's record file, the watcher's lines in the
// log, and a fixture that leaves no process behind.
#pragma once

#include "qsLog.h"
#include "qsLogRecords.h"
#include "qsTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qsWatcherTest {

using Args = std::vector<std::string>;
using Sigs = std::vector<int>;

// CLOCK_MONOTONIC in ms, the clock of the probe's start times.
inline int64_t NowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Polls `done` every 10 ms for at most `seconds`.
template <typename Pred> bool WaitUntil(Pred done, double seconds = 10) {
    for (int64_t end = NowMs() + int64_t(seconds * 1000); !done(); usleep(10000)) {
        if (NowMs() >= end)
            return false;
    }
    return true;
}

// A number of /proc/PID/status ("PPid", "NSsid", hex "SigBlk"), -1 when gone.
inline long long Proc(pid_t pid, const std::string& key, int base = 10) {
    std::string s = qsTest::ReadFileText("/proc/" + std::to_string(pid) + "/status");
    size_t at = s.find("\n" + key + ":\t");
    return at == std::string::npos ? -1 : strtoll(s.c_str() + at + key.size() + 3, nullptr, base);
}
inline bool Running(pid_t pid) {
    std::string s = qsTest::ReadFileText("/proc/" + std::to_string(pid) + "/status");
    return !s.empty() && s.find("State:\tZ") == std::string::npos;
}

// A run of the probe as its record file tells it.
struct ProbeRun {
    pid_t pid;
    int64_t t;
    Sigs sigs; // in the order received
};
inline std::string Hex(long v) {
    std::ostringstream s;
    s << std::hex << v;
    return s.str();
}

// A message line of the log as "pid severity text".
inline std::string Line(pid_t pid, int32_t severity, const std::string& text) {
    return std::to_string(pid) + " " + std::to_string(severity) + " " + text;
}

// The default log of this test's QS_LOG_DIR.
inline std::string LogPath() {
    char file[300];
    DWORD length = sizeof file;
    EXPECT_EQ(qsLogGetStreamFileName(0, file, length), QS_OK);
    return std::string(getenv("QS_LOG_DIR")) + "/" + file;
}

// The message lines of the default log written by processes other than this
// test, oldest first.
inline std::vector<std::string> WatcherLines() {
    std::vector<std::string> lines;
    for (const auto& r : qsTest::ReadRecords(LogPath())) {
        if (r.Type() == LOGREC_STRING_A && r.info.GetProcessId() != DWORD(getpid()))
            lines.push_back(Line(pid_t(r.info.GetProcessId()), r.Severity(), r.Text()));
    }
    return lines;
}

// Fixture for tests that start processes.  This process becomes a subreaper,
// so a daemon whose parent exits, and a target whose watcher ends, become its
// children: they can be waited for, and the teardown kills and reaps every
// one of them whatever the test's outcome.
class ProcessTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1)); }
    void TearDown() override {
        for (int round = 0; round < 50; round++, usleep(20000)) {
            bool any = false;
            for (const auto& e : std::filesystem::directory_iterator("/proc")) {
                pid_t pid = pid_t(atoi(e.path().filename().c_str()));
                if (pid > 0 && Proc(pid, "PPid") == getpid())
                    any = kill(pid, SIGKILL) == 0 || any;
            }
            while (waitpid(-1, nullptr, WNOHANG) > 0) {
            }
            if (!any)
                return;
        }
        ADD_FAILURE() << "processes left behind";
    }

    // Runs the watcher with `options` and `target` in m_Dir, with SIGUSR1
    // blocked (which the target must not inherit); it is killed should this
    // test die first.
    pid_t Watch(Args options, const Args& target = {}) {
        options.insert(options.begin(), WATCHER_PATH);
        options.insert(options.end(), target.begin(), target.end());
        std::vector<char*> argv;
        for (std::string& w : options)
            argv.push_back(w.data());
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid != 0)
            return pid;
        sigset_t usr1;
        sigemptyset(&usr1);
        sigaddset(&usr1, SIGUSR1);
        sigprocmask(SIG_SETMASK, &usr1, nullptr);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (chdir(m_Dir.Path().c_str()) == 0)
            execv(argv[0], argv.data());
        _exit(127);
    }
    // Waits for the watcher (or its daemonising parent) to exit with status 0.
    void Ends(pid_t watcher, double seconds = 10) {
        int status = -1;
        ASSERT_TRUE(
            WaitUntil([&] { return waitpid(watcher, &status, WNOHANG) == watcher; }, seconds));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << std::hex << status;
        m_EndMs = NowMs();
    }

    // The probe's words with its plans, and its runs, for a record file.
    Args Probe(Args plans, const char* record = "record") const {
        plans.insert(plans.begin(), {PROBE_PATH, m_Dir / record});
        return plans;
    }
    std::vector<ProbeRun> Runs(const char* record = "record") const {
        std::vector<ProbeRun> runs;
        std::istringstream in(qsTest::ReadFileText(m_Dir / record));
        long long a, b;
        for (std::string word; in >> word >> a >> b;) {
            if (word == "start")
                runs.push_back({pid_t(a), b, {}});
            else if (size_t(a) < runs.size())
                runs[size_t(a)].sigs.push_back(int(b));
        }
        return runs;
    }
    bool HasRuns(size_t n, const char* record = "record") const {
        return WaitUntil([&] { return Runs(record).size() >= n; });
    }

    qsTest::TempDir m_Dir{"watcher"};
    int64_t m_EndMs = 0;
};

} // namespace qsWatcherTest

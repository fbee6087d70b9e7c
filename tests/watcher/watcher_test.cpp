// The real watcher binary, driven with real signals and observed through the
// probe's record file.  Delays are 0-2 s except in the two SIGTERM cases,
// whose 15-second grace is fixed.
#include "watcherLogLines.h"
#include "watcherTestSupport.h"

#include <filesystem>

using namespace qsWatcherTest;

namespace {

const std::string kWatcher = WATCHER_PATH;
const std::string kProbe = PROBE_PATH;

class Watcher : public ProcessTest {
protected:
    Args Probe(const Args& plans, const char* record = "record") const {
        return Args{kProbe, Record(record)} + plans;
    }
    pid_t Start(const Args& options, const Args& target, const char* cwd = nullptr,
                const sigset_t* mask = nullptr) {
        m_StartMs = NowMs();
        return Spawn(Args{kWatcher} + options + target, cwd, mask);
    }
    bool HasRuns(size_t n) const {
        return WaitUntil([&] { return Runs().size() >= n; }, 10);
    }
    // Waits for the watcher to end; its exit status must be `code`.
    void ExpectExit(pid_t watcher, int code, double seconds = 10) {
        int status = -1;
        ASSERT_TRUE(WaitExit(watcher, &status, seconds)) << "watcher still running";
        EXPECT_TRUE(ExitedWith(status, code)) << "status " << std::hex << status;
        m_EndMs = NowMs();
    }

    int64_t m_StartMs = 0, m_EndMs = 0;
};

std::vector<int> Sigs(std::initializer_list<int> s) {
    return s;
}

} // namespace

// SIGINT and SIGHUP are only forwarded: a child that survives them is not
// restarted and the watcher waits on without its delay; one that dies of
// them is restarted; a clean exit ends the watcher.
TEST_F(Watcher, ForwardsInterruptAndHangUp) {
    pid_t w = Start({"-f", "-d", "1"}, Probe({"keep=2,keep=1", "", "", "exit=0"}));
    ASSERT_TRUE(HasRuns(1));

    kill(w, SIGINT);
    ASSERT_TRUE(WaitUntil([&] { return Runs()[0].sigs == Sigs({SIGINT}); }, 10));
    int64_t hupMs = NowMs();
    kill(w, SIGHUP);
    ASSERT_TRUE(WaitUntil([&] { return Runs()[0].sigs == Sigs({SIGINT, SIGHUP}); }, 10));
    EXPECT_LT(NowMs() - hupMs, 500);
    usleep(300000);
    ASSERT_EQ(1u, Runs().size());
    ASSERT_TRUE(Running(Runs()[0].pid));

    kill(Runs()[0].pid, SIGUSR1);
    ASSERT_TRUE(HasRuns(2));
    kill(w, SIGINT);
    ASSERT_TRUE(HasRuns(3));
    kill(w, SIGHUP);
    ExpectExit(w, 0);

    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(4u, runs.size());
    EXPECT_EQ(Sigs({SIGINT}), runs[1].sigs);
    EXPECT_EQ(Sigs({SIGHUP}), runs[2].sigs);
    for (const ProbeRun& r : runs)
        EXPECT_EQ(w, r.ppid);
}

// Non-zero exits and deaths by signal are restarted once the delay has
// passed; the clean exit that follows ends the watcher without a delay.
TEST_F(Watcher, RestartsAbnormalEndsAfterTheDelay) {
    pid_t w = Start({"-f", "-d", "1"},
                    Probe({"exit=3", "raise=" + std::to_string(SIGUSR1), "raise=9", "exit=0"}));
    ExpectExit(w, 0, 20);

    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(4u, runs.size());
    for (size_t i = 1; i < runs.size(); i++) {
        EXPECT_GE(runs[i].t - runs[i - 1].t, 1000) << "run " << i;
        EXPECT_LT(runs[i].t - runs[i - 1].t, 4000) << "run " << i;
    }
    EXPECT_LT(m_EndMs - runs[3].t, 900);
}

// In the foreground there is no fork and no new session: the target is the
// watcher's own child in the caller's session and directory.  The target's
// signal mask is empty, even of what the watcher itself inherited blocked.
// With the default delay of 5 s a clean first exit still ends at once.
TEST_F(Watcher, ForegroundKeepsSessionAndDirectory) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pid_t w = Start({"-f"}, Probe({"exit=0"}), m_Dir.Path().c_str(), &usr1);
    ExpectExit(w, 0);
    EXPECT_LT(m_EndMs - m_StartMs, 3000);

    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(1u, runs.size());
    EXPECT_EQ(w, runs[0].ppid);
    EXPECT_EQ(getsid(0), runs[0].sid);
    EXPECT_EQ(std::filesystem::canonical(m_Dir.Path()).string(), runs[0].cwd);
    EXPECT_EQ(0u, runs[0].mask);
}

// -r N allows N + 1 starts; the default is 10 restarts.
TEST_F(Watcher, RestartBudget) {
    pid_t w = Start({"-f", "-d", "0", "-r", "2"}, Probe({"exit=1"}));
    ExpectExit(w, 0);
    EXPECT_EQ(3u, Runs().size());

    w = Start({"-f", "-d", "0"}, Probe({"exit=1"}, "default"));
    ExpectExit(w, 0, 20);
    EXPECT_EQ(11u, ReadRuns(Record("default")).size());
}

// With -r 0 the first signal of any kind ends the watcher, even a SIGHUP
// that leaves the target running; the target is neither killed nor
// restarted.
TEST_F(Watcher, ZeroRetriesEndOnFirstSignal) {
    pid_t w = Start({"-f", "-d", "0", "-r", "0"}, Probe({"keep=1"}));
    ASSERT_TRUE(HasRuns(1));
    kill(w, SIGHUP);
    ExpectExit(w, 0);

    ASSERT_TRUE(WaitUntil([&] { return !Runs()[0].sigs.empty(); }, 5));
    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(1u, runs.size());
    EXPECT_EQ(Sigs({SIGHUP}), runs[0].sigs);
    EXPECT_TRUE(Running(runs[0].pid));
}

// A negative -r makes no start at all; the first signal ends the watcher.
TEST_F(Watcher, NegativeRetriesNeverStart) {
    pid_t w = Start({"-f", "-d", "0", "-r", "-1"}, Probe({"exit=0"}));
    ASSERT_TRUE(WaitUntil([&] { return CatchesWatchedSignals(w); }, 10));
    usleep(300000);
    kill(w, SIGINT);
    ExpectExit(w, 0);
    EXPECT_FALSE(std::filesystem::exists(Record()));
}

// A target that cannot be executed ends with status 1 and is restarted until
// the budget is spent; the path is used as given, never searched along PATH.
TEST_F(Watcher, ExecFailureIsRestarted) {
    pid_t w = Start({"-f", "-d", "1", "-r", "2"}, {"/nonexistent/target"});
    ExpectExit(w, 0);
    EXPECT_GE(m_EndMs - m_StartMs, 2000); // three failed starts, two delays
    EXPECT_LT(m_EndMs - m_StartMs, 6000);

    // The target appears only after the first attempt has failed.
    std::string late = m_Dir / "late";
    w = Start({"-f", "-d", "1", "-r", "5"}, Args{late, Record(), "exit=0"});
    ASSERT_TRUE(WaitUntil([&] { return CatchesWatchedSignals(w); }, 10));
    usleep(500000);
    std::filesystem::create_symlink(kProbe, late);
    ExpectExit(w, 0);
    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(1u, runs.size());
    EXPECT_GE(runs[0].t - m_StartMs, 1000);

    std::string dir = std::filesystem::path(kProbe).parent_path();
    std::string name = std::filesystem::path(kProbe).filename();
    setenv("PATH", dir.c_str(), 1);
    w = Start({"-f", "-d", "0", "-r", "0"}, Args{name, Record("path")}, m_Dir.Path().c_str());
    ExpectExit(w, 0);
    EXPECT_TRUE(ReadRuns(Record("path")).empty());
    w = Start({"-f", "-d", "0", "-r", "0"}, Args{name, Record("path"), "exit=0"}, dir.c_str());
    ExpectExit(w, 0);
    EXPECT_EQ(1u, ReadRuns(Record("path")).size());
}

// Without target words every start fails to execute.  An option without its
// value (-r last) counts as 0.
TEST_F(Watcher, NoTargetWords) {
    pid_t w = Start({"-f", "-d", "2", "-r", "1"}, {});
    ExpectExit(w, 0);
    EXPECT_GE(m_EndMs - m_StartMs, 2000);

    w = Start({"-f", "-d", "2", "-r"}, {});
    ExpectExit(w, 0);
    EXPECT_LT(m_EndMs - m_StartMs, 1500);
}

// Only the second character of an option word counts, unknown options and a
// lone "--" are skipped, and a value is always the next word: "-d5" takes the
// following word (a path, read as 0) as the delay.
TEST_F(Watcher, OptionWords) {
    pid_t w = Start({"-f", "-d5", "/nonexistent/target"}, Probe({"exit=1", "exit=0"}));
    ExpectExit(w, 0);
    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(2u, runs.size());
    EXPECT_LT(runs[1].t - runs[0].t, 1500);

    w = Start({"-fast", "-xyz", "--", "-retries", "1", "-delay", "0"}, Probe({"exit=1"}, "words"));
    ExpectExit(w, 0);
    runs = ReadRuns(Record("words"));
    ASSERT_EQ(2u, runs.size());
    EXPECT_EQ(w, runs[1].ppid);
}

// Without -f the watcher forks once: the parent exits 0 at once and the
// daemon leads a new session in "/", where the target runs with an empty
// signal mask.  SIGTERM then stops the target within the fixed grace and the
// daemon exits 0 without a restart.
TEST_F(Watcher, DaemonizesAndTerminates) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pid_t parent = Start({"-d", "0"}, Probe({""}), m_Dir.Path().c_str(), &usr1);
    ExpectExit(parent, 0, 3);
    ASSERT_TRUE(HasRuns(1));

    ProbeRun run = Runs()[0];
    pid_t daemon = run.ppid;
    ProcStat st;
    ASSERT_TRUE(ReadProcStat(daemon, &st));
    EXPECT_NE(parent, daemon);
    EXPECT_EQ(daemon, st.session);
    EXPECT_EQ(daemon, run.sid);
    EXPECT_EQ(daemon, run.pgid);
    EXPECT_EQ("/", run.cwd);
    EXPECT_EQ("/", std::filesystem::read_symlink("/proc/" + std::to_string(daemon) + "/cwd"));
    EXPECT_EQ(0u, run.mask);

    int64_t termMs = NowMs();
    kill(daemon, SIGTERM);
    ASSERT_TRUE(WaitUntil([&] { return !Runs()[0].sigs.empty(); }, 5));
    ExpectExit(daemon, 0, 25);
    EXPECT_GE(m_EndMs - termMs, 14900);
    EXPECT_FALSE(Running(run.pid));
    EXPECT_EQ(Sigs({SIGTERM}), Runs()[0].sigs);
    EXPECT_EQ(1u, Runs().size());

    // The log tells the same story.  The target died of the TERM but stayed
    // unreaped through the grace (SIGCHLD is blocked there), so the probe
    // still finds it and the KILL goes to the zombie.
    std::vector<Line> lines = WatcherLines();
    const Line parentLine{"parent exiting, forked " + Hex(daemon) + "\n", 0, DWORD(parent)};
    const Line daemonLine{"Watcher (0) daemonizing", 0, DWORD(daemon)};
    EXPECT_NE(std::find(lines.begin(), lines.end(), parentLine), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), daemonLine), lines.end());
    const std::string target = Hex(run.pid);
    std::vector<Line> tail{
        {"terminating watched process", 1, DWORD(daemon)},
        {"process::signal(): sending signal 15 to process " + target, 1, DWORD(daemon)},
        {"process::signal(): sending signal 9 to process " + target, 1, DWORD(daemon)},
        {"waiting for " + target, 0, DWORD(daemon)},
    };
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(std::vector<Line>(lines.end() - long(tail.size()), lines.end()), tail);
}

// A target that ignores SIGTERM is killed when the grace is over.
TEST_F(Watcher, TerminationKillsStubbornTarget) {
    pid_t w = Start({"-f", "-d", "0"}, Probe({"keep=15"}));
    ASSERT_TRUE(HasRuns(1));
    pid_t target = Runs()[0].pid;

    int64_t termMs = NowMs();
    kill(w, SIGTERM);
    ASSERT_TRUE(WaitUntil([&] { return !Runs()[0].sigs.empty(); }, 5));
    sleep(5);
    EXPECT_TRUE(Running(target));
    ExpectExit(w, 0, 25);
    EXPECT_GE(m_EndMs - termMs, 14900);
    EXPECT_FALSE(Running(target));
    EXPECT_EQ(Sigs({SIGTERM}), Runs()[0].sigs);
}

// The demo target of the README: fails twice, then succeeds and clears its
// state file.
TEST_F(Watcher, DemoTargetSucceedsOnThirdRun) {
    std::string state = m_Dir / "demo.count";
    pid_t w = Start({"-f", "-d", "0"}, {DEMO_TARGET_PATH, state, "2"});
    ExpectExit(w, 0);
    EXPECT_FALSE(std::filesystem::exists(state));
}

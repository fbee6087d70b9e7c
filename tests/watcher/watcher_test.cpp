// The real watcher binary, driven with real signals and observed through the
// probe, /proc and the log.  Delays are 0-1 s except in the two SIGTERM
// cases, whose 15-second grace is fixed.
#include "qsProcState.h"
#include "watcherTestSupport.h"

#include <optional>
#include <sched.h>
#include <sys/syscall.h>

using namespace qsWatcherTest;
namespace fs = std::filesystem;

namespace {

class Watcher : public ProcessTest {};

// Starts made by the watcher `w`, counted from its log lines.
size_t Starts(pid_t w) {
    auto lines = WatcherLines();
    return size_t(std::count(lines.begin(), lines.end(), Line(w, 0, "process::start()")));
}

} // namespace

// Every row of the decision table, in the foreground with a 1 s delay (only
// the second character of an option word counts; unknown ones are skipped).
// SIGINT and SIGHUP are forwarded; a target that survives them is neither
// restarted nor made to wait for the delay.  Death by a signal (forwarded or
// not) and a non-zero exit restart it after the delay; exit 0 ends the
// watcher at once.  The target is the watcher's own child in the caller's
// session and directory, with an empty signal mask whatever the watcher
// inherited blocked.
TEST_F(Watcher, DecisionTable) {
    pid_t w = Watch({"-fast", "-xyz", "-delay", "1"},
                    Probe({"keep=2,keep=1", "", "", "exit=3", "exit=0"}));
    ASSERT_TRUE(HasRuns(1));
    const pid_t first = Runs()[0].pid;
    EXPECT_EQ(w, Proc(first, "PPid"));
    EXPECT_EQ(getsid(0), Proc(first, "NSsid"));
    EXPECT_EQ(0, Proc(first, "SigBlk", 16));
    EXPECT_EQ(fs::canonical(m_Dir.Path()).string(),
              fs::read_symlink("/proc/" + std::to_string(first) + "/cwd"));

    kill(w, SIGINT);
    ASSERT_TRUE(WaitUntil([&] { return Runs()[0].sigs.size() == 1; }));
    kill(w, SIGHUP);
    ASSERT_TRUE(WaitUntil([&] { return Runs()[0].sigs.size() == 2; }));
    // Back in its wait for signals (not in the delay's sleep), and no start.
    ASSERT_TRUE(WaitUntil([&] { return qsTest::AsleepIn(w, SYS_rt_sigsuspend); }));
    ASSERT_EQ(1u, Runs().size());

    kill(first, SIGUSR1);
    ASSERT_TRUE(HasRuns(2));
    kill(w, SIGINT);
    ASSERT_TRUE(HasRuns(3));
    kill(w, SIGHUP); // then exit 3, then exit 0
    Ends(w, 20);

    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(5u, runs.size());
    EXPECT_EQ((Sigs{SIGINT, SIGHUP, SIGUSR1}), runs[0].sigs);
    EXPECT_EQ(Sigs{SIGINT}, runs[1].sigs);
    EXPECT_EQ(Sigs{SIGHUP}, runs[2].sigs);
    for (size_t i = 2; i < runs.size(); i++)
        EXPECT_GE(runs[i].t - runs[i - 1].t, 1000) << "run " << i;
    // Exit 0 ended it without the delay's sleep.
    std::vector<std::string> own;
    for (const std::string& l : WatcherLines())
        if (l.rfind(std::to_string(w) + " ", 0) == 0)
            own.push_back(l);
    ASSERT_FALSE(own.empty());
    EXPECT_EQ(own.back(), Line(w, 0, "normal exit, no restart necessary"));
}

// -r N allows N + 1 starts (10 restarts by default), also when no start can
// execute (a missing program, a bare name, or no target words at all); -r without its
// value counts as 0, and "-d5" takes the next word (a path, read as 0) as
// its value.  With -r 0 the first signal of any kind ends the
// watcher and leaves the target running; a negative -r makes no start.
TEST_F(Watcher, RestartBudget) {
    const std::tuple<Args, Args, size_t> rows[] = {
        {{"-r", "2"}, Probe({"exit=1"}), 3},
        {{}, Probe({"exit=1"}), 11},
        {{"-r", "2"}, {"/nonexistent/target"}, 3},
        {{"-r", "1"}, {}, 2},
        {{"-r"}, {}, 1},
        {{"-r", "1"}, {"sh", "-c", "exit 0"}, 2}, // no PATH search: sh cannot execute
        {{"-retries", "1", "-d5", "/nonexistent/target"}, Probe({"exit=1"}, "d5"), 2},
        {{}, {DEMO_TARGET_PATH, m_Dir / "demo.count", "2"}, 3}, // fails twice, then exits 0
    };
    for (auto [options, target, starts] : rows) {
        options.insert(options.begin(), {"-f", "-d", "0"});
        pid_t w = Watch(options, target);
        Ends(w);
        EXPECT_EQ(starts, Starts(w)) << testing::PrintToString(options) << target.size();
    }
    EXPECT_EQ(2u, Runs("d5").size());

    pid_t w = Watch({"-f", "-r", "0"}, Probe({"keep=1"}, "zero"));
    ASSERT_TRUE(HasRuns(1, "zero"));
    kill(w, SIGHUP);
    Ends(w);
    ASSERT_TRUE(WaitUntil([&] { return !Runs("zero")[0].sigs.empty(); }));
    EXPECT_TRUE(Running(Runs("zero")[0].pid));
    EXPECT_EQ(1u, Runs("zero").size());

    // Signalled once it catches SIGHUP, SIGINT, SIGTERM and SIGCHLD.
    w = Watch({"-f", "-r", "-1"}, Probe({"exit=0"}));
    ASSERT_TRUE(WaitUntil([&] { return (Proc(w, "SigCgt", 16) & 0x14003) == 0x14003; }));
    kill(w, SIGINT);
    Ends(w);
    EXPECT_EQ(0u, Starts(w));
}

// Without -f the watcher forks once: the parent exits 0 at once and the
// daemon leads a new session in "/", where the target runs with an empty
// signal mask.  SIGTERM then stops the target within the fixed grace and the
// daemon exits 0 without a restart; the log tells the same story.
TEST_F(Watcher, DaemonizesAndTerminates) {
    pid_t parent = Watch({"-d", "0"}, Probe({""}));
    Ends(parent);
    ASSERT_TRUE(HasRuns(1));
    const pid_t target = Runs()[0].pid, daemon = pid_t(Proc(target, "PPid"));
    EXPECT_NE(parent, daemon);
    EXPECT_EQ(daemon, Proc(daemon, "NSsid"));
    EXPECT_EQ(daemon, Proc(target, "NSsid"));
    EXPECT_EQ("/", fs::read_symlink("/proc/" + std::to_string(target) + "/cwd"));
    EXPECT_EQ(0, Proc(target, "SigBlk", 16));

    int64_t termMs = NowMs();
    kill(daemon, SIGTERM);
    Ends(daemon, 25);
    EXPECT_GE(m_EndMs - termMs, 14900);
    EXPECT_FALSE(Running(target));
    EXPECT_EQ(Sigs{SIGTERM}, Runs()[0].sigs);
    EXPECT_EQ(1u, Runs().size());

    // The target died of the TERM but stays unreaped through the grace
    // (SIGCHLD is blocked there), so the probe still finds it and the KILL
    // goes to the zombie.
    std::vector<std::string> lines = WatcherLines();
    for (const std::string& l : {Line(parent, 0, "parent exiting, forked " + Hex(daemon) + "\n"),
                                 Line(daemon, 0, "Watcher (0) daemonizing")})
        EXPECT_NE(std::find(lines.begin(), lines.end(), l), lines.end()) << l;
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(
        Args(lines.end() - 4, lines.end()),
        (Args{Line(daemon, 1, "terminating watched process"),
              Line(daemon, 1, "process::signal(): sending signal 15 to process " + Hex(target)),
              Line(daemon, 1, "process::signal(): sending signal 9 to process " + Hex(target)),
              Line(daemon, 0, "waiting for " + Hex(target))}));
}

// A target that ignores SIGTERM is killed when the grace is over.
TEST_F(Watcher, TerminationKillsStubbornTarget) {
    pid_t w = Watch({"-f", "-d", "0"}, Probe({"keep=15"}));
    ASSERT_TRUE(HasRuns(1));
    pid_t target = Runs()[0].pid;
    int64_t termMs = NowMs();
    kill(w, SIGTERM);
    ASSERT_TRUE(WaitUntil([&] { return !Runs()[0].sigs.empty(); }));
    sleep(5);
    EXPECT_TRUE(Running(target));
    Ends(w, 25);
    EXPECT_GE(m_EndMs - termMs, 14900);
    EXPECT_FALSE(Running(target));
    EXPECT_EQ(Sigs{SIGTERM}, Runs()[0].sigs);
}

// A signal that reaches the watcher during the restart delay is acted on
// just after the next fork, perhaps before the new child has executed the
// target.  It must take its normal effect there: the child dies of it, or
// the target receives it; no child may run the watcher's own handler and
// swallow it.  The watcher is kept on one CPU, where it forwards the signal
// before its new child has run at all: the moment this is about.
TEST_F(Watcher, SignalDuringRestartDelayReachesTheNewChild) {
    cpu_set_t mine, one;
    ASSERT_EQ(0, sched_getaffinity(0, sizeof mine, &mine));
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
        if (CPU_ISSET(cpu, &mine)) {
            CPU_SET(cpu, &one);
            break;
        }
    }
    std::vector<pid_t> watchers;
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        const std::string record = "record" + std::to_string(sig);
        pid_t w = Watch({"-f", "-d", "2"}, Probe({"exit=1", ""}, record.c_str()));
        watchers.push_back(w);
        ASSERT_EQ(0, sched_setaffinity(w, sizeof one, &one));
        // The rest of the first line of the log that starts with `prefix`.
        auto logged = [&](const std::string& prefix) -> std::optional<std::string> {
            for (const std::string& l : WatcherLines()) {
                if (l.compare(0, prefix.size(), prefix) == 0)
                    return l.substr(prefix.size());
            }
            return std::nullopt;
        };
        ASSERT_TRUE(WaitUntil([&] { return logged(Line(w, 0, "sleeping for 2")).has_value(); }));
        kill(w, sig);
        const std::string sent =
            Line(w, 1, "process::signal(): sending signal " + std::to_string(sig) + " to process ");
        ASSERT_TRUE(WaitUntil([&] { return logged(sent).has_value(); })) << sig;
        const pid_t child = pid_t(strtol(logged(sent)->c_str(), nullptr, 16));
        // Well inside the 15-second grace after a TERM.
        EXPECT_TRUE(WaitUntil([&] { return !Running(child); })) << sig;
        for (const ProbeRun& r : Runs(record.c_str())) {
            if (r.pid == child) {
                EXPECT_EQ(Sigs{sig}, r.sigs);
            }
        }
        kill(w, SIGKILL);
        EXPECT_EQ(w, waitpid(w, nullptr, 0));
    }
    for (const std::string& l : WatcherLines()) {
        if (l.find(" Received ") == std::string::npos)
            continue;
        pid_t by = pid_t(atoi(l.c_str()));
        EXPECT_NE(std::find(watchers.begin(), watchers.end(), by), watchers.end()) << l;
    }
}

// The child control on its own, with real children of the test process.
#include "qsProcess.h"
#include "watcherTestSupport.h"

using namespace qsWatcherTest;

namespace {

class ChildProcess : public ProcessTest {
protected:
    // A probe command line that outlives the call, as the object requires.
    char** ProbeArgs(std::initializer_list<const char*> plans) {
        m_Words = {PROBE_PATH, Record()};
        for (const char* p : plans)
            m_Words.push_back(p);
        m_Argv.clear();
        for (std::string& w : m_Words)
            m_Argv.push_back(w.data());
        m_Argv.push_back(nullptr);
        return m_Argv.data();
    }
    int WordCount() const { return int(m_Words.size()); }

    std::vector<std::string> m_Words;
    std::vector<char*> m_Argv;
};

} // namespace

// The child starts with an empty signal mask whatever its parent blocks; the
// raw status comes back and the child is forgotten once reaped.  Waiting
// without a child fails and leaves the caller's status alone.
TEST_F(ChildProcess, StartWaitAndStatus) {
    sigset_t blocked, old;
    sigemptyset(&blocked);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1})
        sigaddset(&blocked, sig);
    sigprocmask(SIG_BLOCK, &blocked, &old);

    qsProcess::process child(WordCount(), ProbeArgs({"exit=7"}));
    EXPECT_EQ(-1, child.pid());
    ASSERT_TRUE(child.start());
    pid_t pid = child.pid();
    EXPECT_GT(pid, 0);
    int status = 0;
    ASSERT_TRUE(child.wait(&status));
    sigprocmask(SIG_SETMASK, &old, nullptr);
    EXPECT_TRUE(ExitedWith(status, 7));
    EXPECT_EQ(-1, child.pid());

    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(1u, runs.size());
    EXPECT_EQ(pid, runs[0].pid);
    EXPECT_EQ(getpid(), runs[0].ppid);
    EXPECT_EQ(0u, runs[0].mask);

    status = 12345;
    EXPECT_FALSE(child.wait(&status));
    EXPECT_EQ(12345, status);
}

// signal() reaches only a held child; without one it returns -1.
TEST_F(ChildProcess, SignalNeedsAChild) {
    qsProcess::process child(WordCount(), ProbeArgs({"stay=30"}));
    EXPECT_EQ(-1, child.signal(SIGTERM));
    ASSERT_TRUE(child.start());
    ASSERT_TRUE(WaitUntil([&] { return Runs().size() == 1; }, 10));
    EXPECT_EQ(0, child.signal(SIGHUP));
    int status = 0;
    ASSERT_TRUE(child.wait(&status));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP) << std::hex << status;
    EXPECT_EQ(-1, child.signal(SIGTERM));
}

// An empty argument list, and no list at all (argc -1), make children that
// fail to execute and exit 1; so does a path that would only be found along
// PATH.
TEST_F(ChildProcess, ExecFailureExitsOne) {
    char* none[] = {nullptr};
    char sh[] = "sh";
    char* bare[] = {sh, nullptr};
    setenv("PATH", "/usr/bin:/bin", 1);
    ASSERT_EQ(0, chdir(m_Dir.Path().c_str()));
    for (auto [argc, argv] : {std::pair{0, none}, std::pair{-1, none}, std::pair{1, bare}}) {
        qsProcess::process child(argc, argv);
        ASSERT_TRUE(child.start());
        int status = 0;
        ASSERT_TRUE(child.wait(&status));
        EXPECT_TRUE(ExitedWith(status, 1)) << "argc " << argc << " status " << std::hex << status;
    }
}

// The watcher's reports, read back from the binary log it leaves in
// QS_LOG_DIR (private to each test case).
#include "watcherTestSupport.h"

#include "watcherLogLines.h"

using namespace qsWatcherTest;

namespace {

const std::string kWatcher = WATCHER_PATH;
const std::string kProbe = PROBE_PATH;

class WatcherLog : public ProcessTest {};

} // namespace

// Every step of a restart loop, in order, with its severity, from the
// watcher and (before exec) from each child; codes are 0 throughout.
TEST_F(WatcherLog, RestartLoopIsLoggedInOrder) {
    pid_t w = Spawn({kWatcher, "-f", "-d", "0", "-r", "1", kProbe, Record(), "exit=3"});
    int status = -1;
    ASSERT_TRUE(WaitExit(w, &status, 10));
    ASSERT_TRUE(ExitedWith(status, 0));
    auto runs = Runs();
    ASSERT_EQ(runs.size(), 2u);

    const DWORD W = DWORD(w);
    auto run = [&](const ProbeRun& r) {
        const DWORD C = DWORD(r.pid);
        return std::vector<Line>{
            {"process::start()", 0, W},
            {"starting process: " + kProbe + ". with PID " + Hex(r.pid), 1, C},
            {"Received signal: 17\n", 1, W},
            {"Received SIGCHLD\n", 1, W},
            {"watched process exited.", 1, W},
            {"waiting for " + Hex(r.pid), 0, W},
            {"Target exit status 300", 1, W},
            {"exit stat = 3", 1, W},
        };
    };
    std::vector<Line> expected = run(runs[0]);
    expected.push_back({"sleeping for 0", 0, W});
    for (const Line& l : run(runs[1]))
        expected.push_back(l);
    expected.push_back({"restart count exceeded", 0, W});
    EXPECT_EQ(WatcherLines(), expected);

    auto records = qsTest::ReadRecords(LogPath("Default"));
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.front().Type(), LOGREC_START);
    for (const auto& r : records)
        EXPECT_EQ(r.Code(), 0);
    EXPECT_EQ(FileSize(LogPath("Default")), 4 << 20);
    EXPECT_EQ(FileSize(LogPath("Events")), 4 << 20);
}

// QS_LOG_SIZE applies on the next start: the log shrinks, keeps the earlier
// run's records (renumbered), and notes the resize before the new run's.
TEST_F(WatcherLog, QsLogSizeResizesOnTheNextStart) {
    int status = -1;
    pid_t first = Spawn({kWatcher, "-f", kProbe, Record(), "exit=0"});
    ASSERT_TRUE(WaitExit(first, &status, 10));
    auto before = WatcherLines();
    ASSERT_FALSE(before.empty());

    setenv("QS_LOG_SIZE", "1024", 1);
    pid_t second = Spawn({kWatcher, "-f", kProbe, Record(), "exit=0"});
    unsetenv("QS_LOG_SIZE");
    ASSERT_TRUE(WaitExit(second, &status, 10));

    EXPECT_EQ(FileSize(LogPath("Default")), 1 << 20);
    auto records = qsTest::ReadRecords(LogPath("Default"));
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.front().info.GetRecordId(), 1u);
    auto resize = std::find_if(records.begin(), records.end(),
                               [](const auto& r) { return r.Type() == LOGREC_RESIZE; });
    ASSERT_NE(resize, records.end());
    EXPECT_EQ(resize->Word(0), 4096);
    EXPECT_EQ(resize->Word(1), 1024);
    auto after = WatcherLines();
    ASSERT_GT(after.size(), before.size());
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
    EXPECT_EQ(after.back().text, "normal exit, no restart necessary");
    EXPECT_EQ(after.back().pid, DWORD(second));
}

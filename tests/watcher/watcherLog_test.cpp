// The watcher's reports, read back from the binary log it leaves in
// QS_LOG_DIR (private to each test case).
#include "watcherTestSupport.h"

using namespace qsWatcherTest;

namespace {
class WatcherLog : public ProcessTest {};
} // namespace

// Every step of a restart loop, in order and with its severity, from the
// watcher and (before exec) from each child; codes are 0 throughout.
// QS_LOG_SIZE applies on the next start: the log shrinks, keeps the earlier
// run's records (renumbered) and notes the resize.
TEST_F(WatcherLog, RestartLoopAndResize) {
    pid_t w = Watch({"-f", "-d", "0", "-r", "1"}, Probe({"exit=3"}));
    Ends(w);
    std::vector<ProbeRun> runs = Runs();
    ASSERT_EQ(2u, runs.size());
    std::vector<std::string> expected;
    for (const ProbeRun& r : runs) {
        if (!expected.empty())
            expected.push_back(Line(w, 0, "sleeping for 0"));
        for (const std::string& l :
             {Line(w, 0, "process::start()"),
              Line(r.pid, 1, "starting process: " PROBE_PATH ". with PID " + Hex(r.pid)),
              Line(w, 1, "Received signal: 17\n"), Line(w, 1, "Received SIGCHLD\n"),
              Line(w, 1, "watched process exited."), Line(w, 0, "waiting for " + Hex(r.pid)),
              Line(w, 1, "Target exit status 300"), Line(w, 1, "exit stat = 3")})
            expected.push_back(l);
    }
    expected.push_back(Line(w, 0, "restart count exceeded"));
    EXPECT_EQ(expected, WatcherLines());
    auto records = qsTest::ReadRecords(LogPath());
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(LOGREC_START, records.front().Type());
    for (const auto& r : records)
        EXPECT_EQ(0, r.Code());
    EXPECT_EQ(4u << 20, std::filesystem::file_size(LogPath()));

    setenv("QS_LOG_SIZE", "1024", 1);
    pid_t second = Watch({"-f"}, Probe({"exit=0"}));
    unsetenv("QS_LOG_SIZE");
    Ends(second);
    EXPECT_EQ(1u << 20, std::filesystem::file_size(LogPath()));
    records = qsTest::ReadRecords(LogPath());
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(1u, records.front().info.GetRecordId());
    auto resize = std::find_if(records.begin(), records.end(),
                               [](const auto& r) { return r.Type() == LOGREC_RESIZE; });
    ASSERT_NE(resize, records.end());
    EXPECT_EQ(4096, resize->Word(0));
    EXPECT_EQ(1024, resize->Word(1));
    std::vector<std::string> after = WatcherLines();
    ASSERT_GT(after.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), after.begin()));
    EXPECT_EQ(Line(second, 0, "normal exit, no restart necessary"), after.back());
}

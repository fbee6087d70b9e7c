// qslog -f against live writers: this process and the real watcher appending
// while qslog follows.
#include "qsLog.h"
#include "qslogTestSupport.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>

using namespace qsTest;

namespace {

// Checks that every printed id follows the one before, except where a
// "-- N records lost --" line accounts for exactly the records skipped;
// returns the ids and the total reported lost.
std::pair<std::vector<DWORD>, DWORD> Accounted(const std::string& out) {
    std::vector<DWORD> ids;
    DWORD lost = 0, pending = 0;
    std::istringstream in(out);
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
        if (std::regex_match(line, m, std::regex(R"(^-- (\d+) records? lost --$)"))) {
            pending += DWORD(std::stoul(m[1]));
        } else if (size_t hash = line.find("] #"); hash != std::string::npos) {
            ids.push_back(DWORD(strtoul(line.c_str() + hash + 3, nullptr, 10)));
            if (ids.size() > 1) {
                EXPECT_EQ(ids.back() - ids[ids.size() - 2] - 1, pending)
                    << "before #" << ids.back();
            }
            lost += pending;
            pending = 0;
        }
    }
    return {ids, lost};
}

} // namespace

// The last 10 records first, then every new one, through many wraps of a
// small file; SIGINT ends it with status 0.
TEST(QslogFollow, SeesNewRecordsAcrossWrapsAndStopsOnSigint) {
    TempDir dir("follow");
    auto log = OpenLog(dir.Path(), "w.log", 2);
    for (int i = 0; i < 20; ++i)
        log->PrintString(("before " + std::to_string(i)).c_str(), 0, 1, 0);
    QslogProcess q({"-f", dir / "w.log"});
    ASSERT_TRUE(q.ReadUntilContains("before 19")) << q.Out();
    EXPECT_EQ(PrintedIds(q.Out()).size(), 10u);

    // A 2 KiB file holds about 30 of these: after every 20 the writer waits
    // until the reader has printed them, so that none is overwritten unread.
    for (int i = 0; i < 300; ++i) {
        std::string text = "live " + std::to_string(i);
        log->PrintString(text.c_str(), 0, i % 4, 0);
        if (i % 20 == 19) {
            ASSERT_TRUE(q.ReadUntilContains(text + "\n")) << q.Out();
        }
    }
    ASSERT_GT(log->WrapCount(), 5);
    q.Signal(SIGINT);
    EXPECT_EQ(q.Wait(30s), 0);
    auto [ids, lost] = Accounted(q.Out());
    EXPECT_EQ(ids.back(), DWORD(log->RecordCount()));
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(ids.size(), 10u + 300u);
    EXPECT_EQ(q.Err(), "");
}

// Far more than a 1 KiB file holds between two polls: the records that were
// overwritten are reported lost, the rest printed, and a clear (ids start
// again at 1) is followed too.
TEST(QslogFollow, AnOverrunIsReportedLost) {
    TempDir dir("overrun");
    auto log = OpenLog(dir.Path(), "o.log", 1);
    QslogProcess q({"-f", dir / "o.log"});
    ASSERT_TRUE(q.ReadUntilContains("log started"));
    for (int i = 0; i < 400; ++i)
        log->PrintString(("burst " + std::to_string(i)).c_str(), 0, 1, 0);
    ASSERT_TRUE(q.ReadUntilContains("burst 399\n")) << q.Out();
    auto [ids, lost] = Accounted(q.Out());
    EXPECT_EQ(ids.front(), 1u);
    EXPECT_EQ(ids.back(), DWORD(log->RecordCount()));
    EXPECT_GT(lost, 300u);

    log->ClearRecs();
    log->PrintString("after the clear", 0, 1, 0);
    ASSERT_TRUE(q.ReadUntilContains("after the clear")) << q.Out();
    q.Signal(SIGTERM);
    EXPECT_EQ(q.Wait(5s), 0);
}

// Following only reads: the file is left as it was.  It ends with status 0
// when the file is replaced.
TEST(QslogFollow, EndsWhenTheFileIsReplaced) {
    TempDir dir("replace");
    OpenLog(dir.Path(), "other.log", 2);
    std::string path = dir / "r.log";
    OpenLog(dir.Path(), "r.log", 2)->PrintString("only this", 0, 1, 0);
    const auto bytes = ReadFileBytes(path);
    const auto mtime = std::filesystem::last_write_time(path);

    QslogProcess q({"-f", path});
    ASSERT_TRUE(q.ReadUntilContains("only this"));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(ReadFileBytes(path), bytes);
    EXPECT_EQ(std::filesystem::last_write_time(path), mtime);
    ASSERT_EQ(rename((dir / "other.log").c_str(), path.c_str()), 0);
    EXPECT_EQ(q.Wait(5s), 0);
    EXPECT_TRUE(Has(q.Err(), "removed or replaced")) << q.Err();
}

// The watcher logs to the default stream of the log directory this test
// process opened before main; qslog follows the same file.
TEST(QslogFollow, FollowsTheRealWatcher) {
    std::string marker = "watcher test start " + std::to_string(getpid());
    ASSERT_EQ(qsLogPrintfA(0, 1, "%s", marker.c_str()), QS_OK);
    QslogProcess q({"-f"});
    ASSERT_TRUE(q.ReadUntilContains(marker)) << q.Err();

    pid_t pid = fork();
    if (pid == 0) {
        execl(WATCHER_PATH, WATCHER_PATH, "-f", "-r", "2", "-d", "0", "/bin/false", nullptr);
        _exit(127);
    }
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    // Only what follows the marker: the log may hold earlier runs.
    auto seen = [&] {
        std::string out = q.Out();
        return out.substr(out.find(marker));
    };
    ASSERT_TRUE(Until([&] { return Has(seen(), "restart count exceeded"); })) << q.Out();
    q.Signal(SIGINT);
    EXPECT_EQ(q.Wait(5s), 0);
    std::regex started("normal: starting process: /bin/false\\.");
    std::string after = seen();
    EXPECT_EQ(std::distance(std::sregex_iterator(after.begin(), after.end(), started),
                            std::sregex_iterator()),
              3);
}

// As tail -F does, -f waits for a log that does not exist yet, its directory
// included (without creating either), then prints it from its first record
// and follows it.  The same for the default stream of a log directory not
// made yet.
TEST(QslogFollow, WaitsForALogThatDoesNotExistYet) {
    TempDir dir("later");
    char name[512];
    DWORD length = sizeof name;
    ASSERT_EQ(qsLogGetStreamFileName(0, name, length), QS_OK);
    const std::tuple<std::vector<std::string>, EnvChanges, std::string, std::string> runs[] = {
        {{"-f", dir / "a/w.log"}, {}, dir / "a", "w.log"},
        {{"-f"}, {{"QS_LOG_DIR", dir / "b"}}, dir / "b", name},
    };
    for (const auto& [args, env, logDir, file] : runs) {
        QslogProcess q(args, env);
        ASSERT_TRUE(Until([&] { return Has(q.Err(), "waiting for it to appear"); })) << q.Err();
        std::this_thread::sleep_for(300ms);
        EXPECT_FALSE(std::filesystem::exists(logDir));
        auto log = OpenLog(logDir, file, 4);
        log->PrintString("it is here", 0, 1, 0);
        ASSERT_TRUE(q.ReadUntilContains("it is here")) << q.Out() << q.Err();
        log->PrintString("and goes on", 0, 1, 0);
        ASSERT_TRUE(q.ReadUntilContains("and goes on")) << q.Out();
        EXPECT_EQ(PrintedIds(q.Out()), (std::vector<DWORD>{1, 2, 3}));
        EXPECT_TRUE(Has(q.Err(), logDir + "/" + file + ": has appeared; following it")) << q.Err();
        q.Signal(SIGINT);
        EXPECT_EQ(q.Wait(5s), 0);
    }
}

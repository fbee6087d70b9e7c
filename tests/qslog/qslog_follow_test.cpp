// qslog -f against live writers: this process, forked processes and the
// real watcher appending while qslog follows.
#include "qsLog.h"
#include "qslogTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>
#include <set>
#include <sys/stat.h>
#include <thread>

using namespace qsTest;
using namespace std::chrono_literals;

namespace {

// Follow output as (id, lost) events: each printed record, and each
// "N records lost" line.
struct Seen {
    std::vector<DWORD> ids;
    std::vector<std::pair<size_t, DWORD>> lost; // (records printed before it, count)
};

Seen Parse(const std::string& out) {
    Seen s;
    std::istringstream in(out);
    std::regex lostLine(R"(^-- (\d+) records? lost --$)");
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, lostLine)) {
            s.lost.emplace_back(s.ids.size(), DWORD(std::stoul(m[1])));
            continue;
        }
        size_t hash = line.find("] #");
        if (hash != std::string::npos)
            s.ids.push_back(DWORD(strtoul(line.c_str() + hash + 3, nullptr, 10)));
    }
    return s;
}

// Every id follows the one before, except where a lost line accounts for
// exactly the records skipped.
void ExpectAccountedFor(const Seen& s) {
    size_t next = 0;
    for (size_t i = 1; i < s.ids.size(); ++i) {
        DWORD skipped = s.ids[i] - s.ids[i - 1] - 1;
        DWORD reported = 0;
        while (next < s.lost.size() && s.lost[next].first <= i) {
            if (s.lost[next].first == i)
                reported += s.lost[next].second;
            ++next;
        }
        EXPECT_EQ(skipped, reported) << "between #" << s.ids[i - 1] << " and #" << s.ids[i];
    }
}

std::string LastLine(const std::string& out) {
    size_t end = out.rfind('\n');
    if (end == std::string::npos || end == 0)
        return "";
    size_t start = out.rfind('\n', end - 1);
    return out.substr(start == std::string::npos ? 0 : start + 1, end - start - 1);
}

} // namespace

TEST(QslogFollow, SeesNewRecordsAcrossWrapsAndStopsOnSigint) {
    TempDir dir("follow");
    auto log = OpenLog(dir.Path(), "w.log", 2);
    for (int i = 0; i < 20; ++i)
        log->PrintString(("before " + std::to_string(i)).c_str(), 0, 1, 0);
    std::string path = dir / "w.log";

    QslogProcess q({"-f", path});
    ASSERT_TRUE(q.ReadUntilContains("before 19", 10s)) << q.Result().out;
    EXPECT_EQ(Parse(q.Result().out).ids.size(), 10u); // the last 10 first

    // Slow enough for a 100 ms poll: a 2 KiB file holds about 30 of these.
    const int total = 300;
    for (int i = 0; i < total; ++i) {
        log->PrintString(("live " + std::to_string(i)).c_str(), 0, i % 4, 0);
        if (i % 5 == 4)
            std::this_thread::sleep_for(20ms);
    }
    ASSERT_GT(log->WrapCount(), 5);
    std::string lastText = "live " + std::to_string(total - 1);
    ASSERT_TRUE(q.ReadUntilContains(lastText, 10s)) << q.Result().out;

    q.Signal(SIGINT);
    EXPECT_EQ(q.Wait(5s), 0);
    Seen s = Parse(q.Result().out);
    ExpectAccountedFor(s);
    EXPECT_EQ(s.ids.back(), DWORD(log->RecordCount())) << q.Result().out;
    // A loaded machine may make the reader miss a poll; it must still see most.
    EXPECT_GT(s.ids.size(), size_t(total / 2));
    EXPECT_NE(LastLine(q.Result().out).find(lastText), std::string::npos);
    EXPECT_EQ(q.Result().err, "");
}

TEST(QslogFollow, AnOverrunPrintsOneLostLineAndGoesOn) {
    TempDir dir("overrun");
    auto log = OpenLog(dir.Path(), "o.log", 1);
    std::string path = dir / "o.log";
    QslogProcess q({"-f", path});
    ASSERT_TRUE(q.ReadUntilContains("log started", 10s));

    // Far more than a 1 KiB file holds, between two polls.
    for (int i = 0; i < 400; ++i)
        log->PrintString(("burst " + std::to_string(i)).c_str(), 0, 1, 0);
    ASSERT_TRUE(q.ReadUntilContains("burst 399", 10s)) << q.Result().out;
    log->PrintString("afterwards", 0, 1, 0);
    ASSERT_TRUE(q.ReadUntilContains("afterwards", 10s)) << q.Result().out;
    q.Signal(SIGTERM);
    EXPECT_EQ(q.Wait(5s), 0);

    // One line per poll that found records overwritten: normally one.
    Seen s = Parse(q.Result().out);
    ASSERT_FALSE(s.lost.empty()) << q.Result().out;
    DWORD lost = 0;
    for (const auto& l : s.lost)
        lost += l.second;
    EXPECT_GT(lost, 300u);
    ExpectAccountedFor(s);
    EXPECT_EQ(s.ids.front(), 1u);
    EXPECT_EQ(s.ids.back(), DWORD(log->RecordCount()));
}

TEST(QslogFollow, EndsWhenTheFileIsReplacedOrRemoved) {
    TempDir dir("replace");
    auto log = OpenLog(dir.Path(), "r.log", 2);
    { auto other = OpenLog(dir.Path(), "other.log", 2); }
    std::string path = dir / "r.log";

    QslogProcess q({"-f", path});
    ASSERT_TRUE(q.ReadUntilContains("log started", 10s));
    ASSERT_EQ(rename((dir / "other.log").c_str(), path.c_str()), 0);
    EXPECT_EQ(q.Wait(5s), 0);
    EXPECT_NE(q.Result().err.find("removed or replaced"), std::string::npos) << q.Result().err;

    QslogProcess q2({"-f", path});
    ASSERT_TRUE(q2.ReadUntilContains("log started", 10s));
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(q2.Wait(5s), 0);
}

TEST(QslogFollow, FollowingNeverWritesTheFile) {
    TempDir dir("readonly");
    {
        auto log = OpenLog(dir.Path(), "ro.log", 4);
        log->PrintString("only this", 0, 1, 0);
    }
    std::string path = dir / "ro.log";
    auto before = ReadFileBytes(path);
    struct stat st0;
    ASSERT_EQ(stat(path.c_str(), &st0), 0);
    std::this_thread::sleep_for(20ms);

    QslogProcess q({"-f", path});
    ASSERT_TRUE(q.ReadUntilContains("only this", 10s));
    std::this_thread::sleep_for(400ms);
    q.Signal(SIGINT);
    EXPECT_EQ(q.Wait(5s), 0);

    struct stat st1;
    ASSERT_EQ(stat(path.c_str(), &st1), 0);
    EXPECT_EQ(ReadFileBytes(path), before);
    EXPECT_EQ(st1.st_mtim.tv_sec, st0.st_mtim.tv_sec);
    EXPECT_EQ(st1.st_mtim.tv_nsec, st0.st_mtim.tv_nsec);
    EXPECT_EQ(st1.st_size, st0.st_size);
}

TEST(QslogFollow, FollowsWritersInOtherProcessesThroughAClear) {
    TempDir dir("procs");
    auto log = OpenLog(dir.Path(), "p.log", 4);
    std::string path = dir / "p.log";
    QslogProcess q({"-f", "-o", "json", path});
    ASSERT_TRUE(q.ReadUntilContains("STRT", 10s));

    // Three processes forked after the open append at once through the
    // stream, mapping and lock they inherited.
    std::vector<pid_t> kids;
    for (int k = 0; k < 3; ++k) {
        pid_t pid = fork();
        if (pid == 0) {
            for (int i = 0; i < 50; ++i) {
                log->PrintString(("child " + std::to_string(k) + " " + std::to_string(i)).c_str(),
                                 0, 1, 0);
                usleep(20000);
            }
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int st;
        waitpid(pid, &st, 0);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    // A writer whose lock wait starts late in a second loses its message
    // (the lock's time-out quirk), so count what was written: every record
    // after the start record.
    const size_t written = size_t(log->RecordCount()) - 1;
    ASSERT_GT(written, 100u);
    ASSERT_TRUE(q.ReadUntil(
        [&](const std::string& out) { return CountOf(out, "\"text\":\"child ") == written; }, 10s))
        << q.Result().out;

    log->ClearRecs();
    log->PrintString("after the clear", 0, 1, 0);
    ASSERT_TRUE(q.ReadUntilContains("after the clear", 10s)) << q.Result().out;
    q.Signal(SIGINT);
    EXPECT_EQ(q.Wait(5s), 0);

    std::set<pid_t> writers;
    bool cleared = false;
    for (const std::string& line : q.Result().Lines()) {
        auto j = nlohmann::json::parse(line);
        ASSERT_FALSE(j.contains("lost")) << line;
        if (j["type"] == "STRA" && j["text"].get<std::string>().rfind("child ", 0) == 0)
            writers.insert(j["pid"].get<pid_t>());
        cleared |= j["type"] == "CLER" && j["id"] == 1;
    }
    EXPECT_EQ(writers.size(), 3u);
    EXPECT_TRUE(cleared) << q.Result().out;
}

TEST(QslogFollow, FollowsTheRealWatcher) {
    // The watcher logs to the default stream of the log directory this test
    // process opened before main; qslog follows the same file.
    std::string marker = "watcher test start " + std::to_string(getpid());
    ASSERT_EQ(qsLogPrintfA(0, 1, "%hs", marker.c_str()), QS_OK);
    QslogProcess q({"-f"});
    ASSERT_TRUE(q.ReadUntilContains(marker, 10s)) << q.Result().err;

    pid_t pid = fork();
    if (pid == 0) {
        execl(WATCHER_PATH, WATCHER_PATH, "-f", "-r", "2", "-d", "0", "/bin/false", nullptr);
        _exit(127);
    }
    int st;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    // Only what follows the marker: the log may hold earlier runs.
    auto since = [&](const std::string& out) { return out.substr(out.find(marker)); };
    ASSERT_TRUE(q.ReadUntil(
        [&](const std::string& out) {
            return since(out).find("restart count exceeded") != std::string::npos;
        },
        10s))
        << q.Result().out;
    q.Signal(SIGINT);
    EXPECT_EQ(q.Wait(5s), 0);
    std::string seen = since(q.Result().out);
    EXPECT_EQ(CountOf(seen, "normal: watched process exited."), 3u) << seen;
    EXPECT_EQ(CountOf(seen, "normal: starting process: /bin/false."), 3u);
}

// qslog run on log files written by the library: what it prints, how it
// selects, and that it never makes a log of its own.
#include "qsLog.h"
#include "qsLogRecords.h"
#include "qslogTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <regex>
#include <stdlib.h>
#include <sys/stat.h>

using namespace qsTest;

namespace {

std::string HostFile(int index) {
    char name[512];
    DWORD len = sizeof name;
    EXPECT_EQ(qsLogGetStreamFileName(index, name, len), QS_OK);
    return name;
}

std::vector<std::string> DirEntries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

} // namespace

TEST(QslogRead, PrintsEveryRecordOldestFirstWithItsFields) {
    TempDir dir("read");
    auto log = OpenLog(dir.Path(), "a.log", 16);
    qsLogInfoMessages(true);
    log->PrintString("plain info", 0, 0, 0);
    log->PrintString("normal with newline\n", 0, 1, 0);
    log->PrintString("a warning", 2, 2, 0);
    log->PrintString("an error", int32_t(0xE0FF010B), 3, 0);
    log->PrintString("a failed call", 13, 4, 0);
    log->PrintString(L"wide h\u00e9llo \u2713 \U0001F600", 0, 5, 0);
    log->PrintString("two\nlines\x1b[31m", 0, 1, 0);
    std::string path = dir / "a.log";

    RunResult r = RunQslog({path});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::vector<std::string> lines = r.Lines();
    ASSERT_EQ(lines.size(), 8u) << r.out;
    std::regex shape(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[(\d+):[0-9A-F]+\] #(\d+) (.*)$)");
    for (size_t i = 0; i < lines.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, shape)) << lines[i];
        EXPECT_EQ(m[1].str(), std::to_string(getpid()));
        EXPECT_EQ(m[2].str(), std::to_string(i + 1));
    }
    auto tail = [&](size_t i) { return lines[i].substr(lines[i].find("] #") + 3 + 2); };
    EXPECT_EQ(tail(0), "-- log started");
    EXPECT_EQ(tail(1), "info: plain info");
    EXPECT_EQ(tail(2), "normal: normal with newline");
    EXPECT_EQ(tail(3), "warning 0x2: a warning");
    EXPECT_EQ(tail(4), "error 0xE0FF010B: an error");
    EXPECT_EQ(tail(5), "error 0xD: a failed call");
    EXPECT_EQ(tail(6), "error: wide h\u00e9llo \u2713 \U0001F600");
    // One line per record, and no text can reach the terminal as a control.
    EXPECT_EQ(tail(7), "normal: two\\nlines\\x1b[31m");

    // The same records the library's own reader finds.
    EXPECT_EQ(PrintedIds(r.out).size(), ReadRecords(path).size());
}

TEST(QslogRead, BookkeepingAndUnknownRecordsAreShownNotSkipped) {
    TempDir dir("marks");
    { auto log = OpenLog(dir.Path(), "b.log", 8); }
    auto log = OpenLog(dir.Path(), "b.log", 4); // carries the start record over, adds RESZ
    const unsigned char odd[3] = {1, 2, 0xAB};
    log->WriteRec(odd, sizeof odd, 0x44434241 /* "ABCD" */, 0);
    uint32_t words[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    log->WriteRec(words, sizeof words, LOGREC_EVENT, 0);
    log->PrintString("before clear", 0, 1, 0);

    RunResult r = RunQslog({dir / "b.log"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("#1 -- log started"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("#2 -- resized 8 KiB to 4 KiB"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("#3 -- record of type ABCD, 3 bytes: 01 02 AB"), std::string::npos);
    EXPECT_NE(r.out.find("#4 -- event 00000001 00000002 00000003 00000004 00000005 00000006 "
                         "00000007 00000008"),
              std::string::npos)
        << r.out;

    // Not messages: they have no code and count as severity normal.
    r = RunQslog({"-p", "normal", "--code", "0", dir / "b.log"});
    ASSERT_EQ(r.Lines().size(), 1u) << r.out;
    EXPECT_NE(r.out.find("normal: before clear"), std::string::npos);
    EXPECT_EQ(RunQslog({"-p", "normal", dir / "b.log"}).Lines().size(), 5u);

    log->ClearRecs();
    r = RunQslog({dir / "b.log"});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.Lines().size(), 1u) << r.out;
    EXPECT_NE(r.out.find("#1 -- cleared"), std::string::npos) << r.out;
}

TEST(QslogRead, ReadsTheDefaultStreamWhereTheLibraryPutsIt) {
    // This test process opened its default streams in its private QS_LOG_DIR.
    std::string marker = "default stream marker " + std::to_string(getpid());
    ASSERT_EQ(qsLogPrintfA(0, 1, "%hs", marker.c_str()), QS_OK);
    RunResult r = RunQslog({});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("normal: " + marker), std::string::npos) << r.out;

    r = RunQslog({"--stream", "events"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.Lines().size(), 1u);
    EXPECT_NE(r.out.find("-- log started"), std::string::npos);

    r = RunQslog({"--stream", "perfctrs"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find(HostFile(2) + ": no such file"), std::string::npos) << r.err;

    // Without QS_LOG_DIR: "Logs" under HOME.
    TempDir home("home");
    {
        auto log = OpenLog(home / "Logs", HostFile(0), 8);
        log->PrintString("from home", 0, 1, 0);
    }
    r = RunQslog({}, {{"QS_LOG_DIR", std::nullopt}, {"HOME", home.Path()}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("normal: from home"), std::string::npos) << r.out;
}

TEST(QslogRead, NeverCreatesALogOrALogDirectory) {
    TempDir dir("nolog");
    std::string missing = dir / "not-yet";
    for (std::vector<std::string> args :
         {std::vector<std::string>{}, {"--stat"}, {"-f"}, {"--stream", "events", "-n", "3"}}) {
        RunResult r = RunQslog(args, {{"QS_LOG_DIR", missing}});
        EXPECT_EQ(r.status, 2) << r.err;
        struct stat st;
        EXPECT_NE(stat(missing.c_str(), &st), 0) << "qslog created " << missing;
    }
    // An existing, empty log directory stays empty; so does HOME.
    std::string empty = dir / "empty";
    mkdir(empty.c_str(), 0755);
    RunResult r = RunQslog({}, {{"QS_LOG_DIR", empty}});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(DirEntries(empty).empty());
    r = RunQslog({}, {{"QS_LOG_DIR", std::nullopt}, {"HOME", empty}});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(DirEntries(empty).empty());

    // Reading a real log leaves its directory as it was and names no lock
    // or mapping after the default stream.
    { auto log = OpenLog(dir.Path(), "c.log", 4); }
    auto before = DirEntries(dir.Path());
    auto shmBefore = DirEntries("/dev/shm");
    r = RunQslog({dir / "c.log"}, {{"QS_LOG_DIR", empty}});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(DirEntries(dir.Path()), before);
    EXPECT_TRUE(DirEntries(empty).empty());
    for (const std::string& name : DirEntries("/dev/shm"))
        EXPECT_TRUE(std::find(shmBefore.begin(), shmBefore.end(), name) != shmBefore.end() ||
                    name.find("EMPTY") == std::string::npos)
            << name;
}

TEST(QslogRead, FiltersSelectRecords) {
    TempDir dir("filter");
    auto log = OpenLog(dir.Path(), "f.log", 16, false);
    const uint64_t now = NowFileTime();
    WriteMessageAt(*log, now - 180 * kMinute, 100, 1, 0, "disk mounted");
    WriteMessageAt(*log, now - 90 * kMinute, 200, 2, 2, "net slow");
    WriteMessageAt(*log, now - 20 * kMinute, 100, 3, 0xE0FF010B, "Disk failed");
    WriteMessageAt(*log, now - 5 * kMinute, 200, 0, 0, "tick");
    std::string path = dir / "f.log";
    auto texts = [](const RunResult& r) {
        std::vector<std::string> t;
        for (const std::string& l : r.Lines())
            t.push_back(l.substr(l.rfind(": ") + 2));
        return t;
    };
    using V = std::vector<std::string>;

    EXPECT_EQ(texts(RunQslog({"-n", "2", path})), (V{"Disk failed", "tick"}));
    EXPECT_EQ(texts(RunQslog({"-n", "2", "-r", path})), (V{"tick", "Disk failed"}));
    EXPECT_EQ(texts(RunQslog({"-p", "warning", path})), (V{"net slow", "Disk failed"}));
    EXPECT_EQ(texts(RunQslog({"-p", "3", path})), (V{"Disk failed"}));
    EXPECT_EQ(texts(RunQslog({"--pid", "200", path})), (V{"net slow", "tick"}));
    EXPECT_EQ(texts(RunQslog({"--pid", "100", "--pid", "200", "-n", "1", path})), (V{"tick"}));
    EXPECT_EQ(texts(RunQslog({"--since", "1 hour ago", path})), (V{"Disk failed", "tick"}));
    EXPECT_EQ(texts(RunQslog({"--since", "-100min", "--until", "30 min ago", path})),
              (V{"net slow"}));
    EXPECT_EQ(texts(RunQslog({"-g", "^(disk|net)", path})), (V{"disk mounted", "net slow"}));
    EXPECT_EQ(texts(RunQslog({"-g", "^disk", "-i", path})), (V{"disk mounted", "Disk failed"}));
    EXPECT_EQ(texts(RunQslog({"--code", "0xe0ff010b", path})), (V{"Disk failed"}));
    EXPECT_EQ(texts(RunQslog({"--code", "2", "--code", "0", "-p", "normal", "-r", path})),
              (V{"net slow", "disk mounted"}));
    EXPECT_EQ(RunQslog({"-p", "normal", "-n", "9", path}).Lines().size(), 3u);
    EXPECT_EQ(RunQslog({"-n", "0", path}).out, "");

    // An absolute --since in local time, as printed.
    std::string third = RunQslog({"-n", "2", path}).Lines()[0].substr(0, 23);
    EXPECT_EQ(texts(RunQslog({"--since", third, path})), (V{"Disk failed", "tick"}));
}

TEST(QslogRead, JsonLinesCarryEveryFieldAndParse) {
    TempDir dir("json");
    auto log = OpenLog(dir.Path(), "j.log", 8);
    std::string nasty = "quote\" backslash\\ tab\t nl\n ctl\x01 bad\xff end";
    log->PrintString(nasty.c_str(), -5, 3, 0);
    log->PrintString(L"wide \u20ac", 0, 1, 0);

    RunResult r = RunQslog({"-o", "json", dir / "j.log"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<nlohmann::json> objects;
    for (const std::string& line : r.Lines())
        objects.push_back(nlohmann::json::parse(line)); // throws on bad JSON
    ASSERT_EQ(objects.size(), 3u);
    auto records = ReadRecords(dir / "j.log");
    for (size_t i = 0; i < 3; ++i) {
        const nlohmann::json& j = objects[i];
        for (const char* key : {"file", "id", "time", "filetime", "pid", "tid", "type", "type_code",
                                "flags", "offset", "size", "prev_offset", "byte_order", "text"})
            EXPECT_TRUE(j.contains(key)) << key << " in " << j.dump();
        EXPECT_EQ(j["id"], records[i].info.GetRecordId());
        EXPECT_EQ(j["pid"], getpid());
        EXPECT_EQ(j["filetime"], qsFileTimeToUInt64(records[i].info.GetTimestamp()));
        EXPECT_EQ(j["file"], dir / "j.log");
    }
    EXPECT_EQ(objects[0]["type"], "STRT");
    EXPECT_EQ(objects[0]["flags"], 2);
    EXPECT_EQ(objects[0]["offset"], 28);
    EXPECT_FALSE(objects[0].contains("severity"));
    EXPECT_EQ(objects[1]["type"], "STRA");
    EXPECT_EQ(objects[1]["severity"], 3);
    EXPECT_EQ(objects[1]["level"], "error");
    EXPECT_EQ(objects[1]["code"], -5);
    EXPECT_EQ(objects[1]["code_hex"], "0xFFFFFFFB");
    EXPECT_EQ(objects[1]["prev_offset"], 28);
    // The text exactly as stored, with a byte that is not UTF-8 replaced.
    EXPECT_EQ(objects[1]["text"], "quote\" backslash\\ tab\t nl\n ctl\x01 bad\xef\xbf\xbd end");
    EXPECT_EQ(objects[2]["type"], "STRW");
    EXPECT_EQ(objects[2]["text"], "wide \u20ac");
}

TEST(QslogRead, ColourOnlyOnATerminalUnlessAsked) {
    TempDir dir("color");
    auto log = OpenLog(dir.Path(), "c.log", 8);
    log->PrintString("bad", 0, 3, 0);
    std::string path = dir / "c.log";

    EXPECT_EQ(RunQslog({path}).out.find('\033'), std::string::npos);
    EXPECT_NE(RunQslog({"--color", path}).out.find("\033[1;31m"), std::string::npos);
    EXPECT_EQ(RunQslog({"--color", "--no-color", path}).status, 2);

    auto onTerminal = [&](std::vector<std::string> args, EnvChanges env = {}) {
        int master = posix_openpt(O_RDWR | O_NOCTTY);
        EXPECT_GE(master, 0);
        grantpt(master);
        unlockpt(master);
        int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
        args.push_back(path);
        env.emplace("TERM", "xterm");
        env.emplace("NO_COLOR", std::nullopt);
        QslogProcess p(args, env, slave);
        close(slave);
        EXPECT_EQ(p.Wait(std::chrono::seconds(10)), 0);
        std::string seen;
        char buf[4096];
        fcntl(master, F_SETFL, O_NONBLOCK);
        for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;)
            seen.append(buf, size_t(n));
        close(master);
        return seen;
    };
    EXPECT_NE(onTerminal({}).find("\033[1;31m"), std::string::npos);
    EXPECT_EQ(onTerminal({"--no-color"}).find('\033'), std::string::npos);
    EXPECT_EQ(onTerminal({}, {{"NO_COLOR", "1"}}).find('\033'), std::string::npos);
}

TEST(QslogRead, StatAndRawDescribeAWrappedFile) {
    TempDir dir("stat");
    auto log = OpenLog(dir.Path(), "s.log", 2);
    for (int i = 0; i < 100; ++i)
        log->PrintString(("message number " + std::to_string(i)).c_str(), 0, 1, 0);
    std::string path = dir / "s.log";
    auto records = ReadRecords(path);
    ASSERT_FALSE(records.empty());

    RunResult r = RunQslog({"--stat", path});
    ASSERT_EQ(r.status, 0) << r.err;
    auto has = [&](const std::string& s) { return r.out.find(s) != std::string::npos; };
    EXPECT_TRUE(has("size:          2048 bytes (2 KiB)")) << r.out;
    EXPECT_TRUE(has("byte order:    native")) << r.out;
    EXPECT_TRUE(has("records:       101 written")) << r.out;
    EXPECT_TRUE(has("wraps:         " + std::to_string(log->WrapCount()))) << r.out;
    EXPECT_GT(log->WrapCount(), 0);
    EXPECT_TRUE(has("oldest:        #" + std::to_string(records.front().info.GetRecordId())));
    EXPECT_TRUE(has("newest:        #101  ")) << r.out;
    EXPECT_TRUE(has("header:        valid\n")) << r.out;
    EXPECT_TRUE(has("record chain:  valid\n")) << r.out;

    // Raw: the header words, then each record where the library's walk finds it.
    r = RunQslog({"-o", "raw", path});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines = r.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].rfind("header sig=C0A1469C version=00010002 size=2048 ", 0), 0u);
    EXPECT_NE(lines[0].find(" count=101 "), std::string::npos);
    std::vector<DWORD> offsets = RecordOffsets(ReadFileBytes(path));
    ASSERT_EQ(lines.size(), offsets.size() + 1);
    for (size_t i = 1; i < lines.size(); ++i)
        EXPECT_EQ(lines[i].rfind("@" + std::to_string(offsets[offsets.size() - i]) + " sig=", 0),
                  0u)
            << lines[i];
}

TEST(QslogRead, ARecordEndingExactlyAtTheEndOfTheFileIsNotMissed) {
    // 1 KiB: the start record takes 28..67; sixteen records of stride 56 and
    // one of stride 60 fill 68..1023 exactly, and the next one wraps.
    TempDir dir("exact");
    auto log = OpenLog(dir.Path(), "e.log", 1);
    for (int i = 0; i < 16; ++i)
        log->PrintString("12345678", 0, 1, 0);
    log->PrintString("123456789012", 0, 1, 0); // record 18, ends at 1024
    for (int i = 0; i < 3; ++i)
        log->PrintString("after", 0, 1, 0);
    ASSERT_EQ(log->WrapCount(), 1);
    std::string path = dir / "e.log";

    RunResult r = RunQslog({path});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<DWORD> ids = PrintedIds(r.out);
    ASSERT_FALSE(ids.empty());
    EXPECT_EQ(ids.back(), 21u);
    for (size_t i = 1; i < ids.size(); ++i)
        EXPECT_EQ(ids[i], ids[i - 1] + 1);
    EXPECT_NE(std::find(ids.begin(), ids.end(), 18u), ids.end());
}

TEST(QslogRead, SeveralFilesAreMergedByTime) {
    TempDir dir("merge");
    auto a = OpenLog(dir.Path(), "a.log", 4, false);
    auto b = OpenLog(dir.Path(), "b.log", 4, false);
    const uint64_t now = NowFileTime();
    WriteMessageAt(*a, now - 3 * kMinute, 1, 1, 0, "first");
    WriteMessageAt(*b, now - 2 * kMinute, 2, 1, 0, "second");
    WriteMessageAt(*a, now - 1 * kMinute, 1, 1, 0, "third");
    RunResult r = RunQslog({"-g", "first|second|third", dir / "a.log", dir / "b.log"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> lines = r.Lines();
    ASSERT_EQ(lines.size(), 3u) << r.out;
    EXPECT_EQ(lines[0].rfind(dir / "a.log: ", 0), 0u);
    EXPECT_NE(lines[0].find("first"), std::string::npos);
    EXPECT_EQ(lines[1].rfind(dir / "b.log: ", 0), 0u);
    EXPECT_NE(lines[1].find("second"), std::string::npos);
    EXPECT_NE(lines[2].find("third"), std::string::npos);
}

TEST(QslogRead, UsageErrorsExitWithTwo) {
    TempDir dir("usage");
    { auto log = OpenLog(dir.Path(), "u.log", 4); }
    std::string path = dir / "u.log";
    for (std::vector<std::string> args : {std::vector<std::string>{"--bogus", path},
                                          {"-f", "-r", path},
                                          {"-f", "--stat", path},
                                          {"--since", "next tuesday", path},
                                          {"-p", "loud", path},
                                          {"-o", "xml", path},
                                          {"-n", "-3", path},
                                          {"--stream", "events", path},
                                          {"--code", "0x1FFFFFFFF", path},
                                          {"-g", "(unclosed", path},
                                          {dir.Path()},
                                          {dir / "missing.log"}}) {
        RunResult r = RunQslog(args);
        EXPECT_EQ(r.status, 2) << args[0] << ": " << r.err;
        EXPECT_NE(r.err.find("qslog: "), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
    }
    RunResult r = RunQslog({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Examples:"), std::string::npos);
    EXPECT_NE(r.out.find("Exit status:"), std::string::npos);
    EXPECT_EQ(RunQslog({"--version"}).status, 0);
}

// qslog run on log files written by the library: what it prints, how it
// selects, and that it never makes a log of its own.
#include "qsLog.h"
#include "qsLogRecords.h"
#include "qslogTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>

using namespace qsTest;
using Words = std::vector<std::string>;

// Every record oldest first, one line each: time, process and thread, id,
// severity, code when not zero, and the text as one line of UTF-8.  The JSON
// form parses and carries what the library stored, the text exactly (bytes
// that are not UTF-8 replaced).  No colour off a terminal (a file, a pipe)
// unless asked for.
TEST(QslogRead, FieldsJsonAndColour) {
    TempDir dir("read");
    auto log = OpenLog(dir.Path(), "a.log", 16);
    qsLogInfoMessages(true);
    log->PrintString("plain info", 0, 0, 0);
    log->PrintString("a warning\n", 2, 2, 0);
    log->PrintString("an error", int32_t(0xE0FF010B), 3, 0);
    log->PrintString(L"wide h\u00e9llo \u2713 \U0001F600", 0, 5, 0);
    log->PrintString("two\nlines\x1b[31m \"q\\\t bad\xff", -5, 1, 0);
    std::string path = dir / "a.log";

    RunResult r = RunQslog({path});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(Has(r.out, "\033"));
    std::regex shape(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[(\d+):[0-9A-F]+\] #(\d+) (.*)$)");
    Words tails;
    for (size_t i = 0; i < r.lines.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(r.lines[i], m, shape)) << r.lines[i];
        EXPECT_EQ(m[1].str(), std::to_string(getpid()));
        EXPECT_EQ(m[2].str(), std::to_string(i + 1));
        tails.push_back(m[3]);
    }
    EXPECT_EQ(tails,
              (Words{"-- log started", "info: plain info", "warning 0x2: a warning",
                     "error 0xE0FF010B: an error", "error: wide h\u00e9llo \u2713 \U0001F600",
                     "normal 0xFFFFFFFB: two\\nlines\\x1b[31m \"q\\\t bad\xff"}));
    EXPECT_TRUE(Has(RunQslog({"--color", path}).out, "\033[1;31m"));
    std::string piped; // as in "qslog | less"
    FILE* pipe = popen((QSLOG_PATH " " + path).c_str(), "r");
    for (int c; (c = fgetc(pipe)) != EOF;)
        piped += char(c);
    EXPECT_EQ(pclose(pipe), 0);
    EXPECT_EQ(piped, r.out);

    r = RunQslog({"-o", "json", path});
    ASSERT_EQ(r.status, 0) << r.err;
    auto records = ReadRecords(path);
    ASSERT_EQ(r.lines.size(), records.size());
    std::vector<nlohmann::json> j;
    for (size_t i = 0; i < records.size(); ++i) {
        j.push_back(nlohmann::json::parse(r.lines[i]));
        EXPECT_EQ(j[i]["id"], records[i].info.GetRecordId());
        EXPECT_EQ(j[i]["pid"], getpid());
        EXPECT_EQ(j[i]["filetime"], qsFileTimeToUInt64(records[i].info.GetTimestamp()));
        EXPECT_EQ(j[i]["file"], path);
    }
    EXPECT_EQ(j[0]["type"], "STRT");
    EXPECT_FALSE(j[0].contains("severity"));
    EXPECT_EQ(j[3]["level"], "error");
    EXPECT_EQ(j[3]["code_hex"], "0xE0FF010B");
    EXPECT_EQ(j[4]["type"], "STRW");
    EXPECT_EQ(j[4]["text"], "wide h\u00e9llo \u2713 \U0001F600");
    EXPECT_EQ(j[5]["severity"], 1);
    EXPECT_EQ(j[5]["code"], -5);
    EXPECT_EQ(j[5]["text"], "two\nlines\x1b[31m \"q\\\t bad\xef\xbf\xbd");
}

namespace {

// A narrow message record with a given time and process, laid out as the
// library lays it out: code, severity, then the text.
void WriteMessageAt(ZLogStream& log, uint64_t filetime, DWORD pid, int32_t severity, int32_t code,
                    const std::string& text) {
    std::vector<unsigned char> payload(8 + text.size());
    memcpy(payload.data(), &code, 4);
    memcpy(payload.data() + 4, &severity, 4);
    memcpy(payload.data() + 8, text.data(), text.size());
    log.WriteRec(payload.data(), DWORD(payload.size()), qsUInt64ToFileTime(filetime), pid, 7,
                 LOGREC_STRING_A, 0);
}

} // namespace

TEST(QslogRead, FiltersSelectRecords) {
    TempDir dir("filter");
    auto log = OpenLog(dir.Path(), "f.log", 16, false);
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    const uint64_t now = qsFileTimeToUInt64(ft), minute = 60ULL * 10000000ULL;
    WriteMessageAt(*log, now - 180 * minute, 100, 1, 0, "disk mounted");
    WriteMessageAt(*log, now - 90 * minute, 200, 2, 2, "net slow");
    WriteMessageAt(*log, now - 20 * minute, 100, 3, 0xE0FF010B, "Disk failed");
    WriteMessageAt(*log, now - 5 * minute, 200, 0, 0, "tick");

    const std::pair<Words, Words> rows[] = {
        {{"-n", "2"}, {"Disk failed", "tick"}},
        {{"-n", "2", "-r"}, {"tick", "Disk failed"}},
        {{"-n", "0"}, {}},
        {{"-p", "warning"}, {"net slow", "Disk failed"}},
        {{"-p", "3"}, {"Disk failed"}},
        {{"--pid", "200"}, {"net slow", "tick"}},
        {{"--pid", "100", "--pid", "200", "-n", "1"}, {"tick"}},
        {{"--since", "1 hour ago"}, {"Disk failed", "tick"}},
        {{"--since", "-100min", "--until", "30 min ago"}, {"net slow"}},
        {{"-g", "^(disk|net)"}, {"disk mounted", "net slow"}},
        {{"-g", "^disk", "-i"}, {"disk mounted", "Disk failed"}},
        {{"--code", "0xe0ff010b"}, {"Disk failed"}},
        {{"--code", "2", "--code", "0", "-p", "normal", "-r"}, {"net slow", "disk mounted"}},
    };
    for (auto [args, expected] : rows) {
        args.push_back(dir / "f.log");
        Words texts;
        for (const std::string& l : RunQslog(args).lines)
            texts.push_back(l.substr(l.rfind(": ") + 2));
        EXPECT_EQ(texts, expected) << testing::PrintToString(args);
    }
}

// Without FILE qslog reads this host's default stream in QS_LOG_DIR, else in
// $HOME/Logs.  It never creates a log or a log directory, whatever it is
// asked to read.
TEST(QslogRead, DefaultStreamAndNothingCreated) {
    std::string marker = "default stream marker " + std::to_string(getpid());
    ASSERT_EQ(qsLogPrintfA(0, 1, "%s", marker.c_str()), QS_OK);
    RunResult r = RunQslog({});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Has(r.out, "normal: " + marker)) << r.out;

    TempDir home("home"), dir("nolog");
    char name[512];
    DWORD length = sizeof name;
    ASSERT_EQ(qsLogGetStreamFileName(0, name, length), QS_OK);
    OpenLog(home / "Logs", name, 8)->PrintString("from home", 0, 1, 0);
    r = RunQslog({}, {{"QS_LOG_DIR", std::nullopt}, {"HOME", home.Path()}});
    EXPECT_TRUE(Has(r.out, "normal: from home")) << r.out;

    std::string missing = dir / "not-yet", empty = dir / "empty";
    std::filesystem::create_directory(empty);
    OpenLog(dir.Path(), "c.log", 4);
    for (const EnvChanges& env : {EnvChanges{{"QS_LOG_DIR", missing}},
                                  {{"QS_LOG_DIR", empty}},
                                  {{"QS_LOG_DIR", std::nullopt}, {"HOME", empty}}}) {
        for (const Words& args : {Words{}, {"-f"}, {"--stat"}, {"--stream", "events"}})
            EXPECT_EQ(RunQslog(args, env).status, 2);
        EXPECT_EQ(RunQslog({dir / "c.log"}, env).status, 0);
    }
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_TRUE(std::filesystem::is_empty(empty));
}

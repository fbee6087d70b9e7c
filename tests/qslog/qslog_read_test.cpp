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
                     "normal 0xFFFFFFFB: two\\nlines\\x1b[31m \"q\\\\t bad\\xff"}));
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
        const uint64_t filetime = qsFileTimeToUInt64(records[i].info.GetTimestamp());
        EXPECT_EQ(j[i]["filetime"], filetime);
        EXPECT_EQ(j[i]["file"], path);
        // The same time as text that no JSON reader rounds: RFC 3339, in
        // microseconds.
        std::smatch m;
        const std::string time = j[i]["time"];
        ASSERT_TRUE(std::regex_match(
            time, m, std::regex(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.(\d{6})[+-]\d\d:\d\d$)")))
            << time;
        EXPECT_EQ(std::stoul(m[1]), filetime / 10 % 1000000) << time;
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
// asked to read (-f, which waits for a missing log, is tested with follow).
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
        for (const Words& args : {Words{}, {"--stat"}, {"--stream", "events"}})
            EXPECT_EQ(RunQslog(args, env).status, 2);
        EXPECT_EQ(RunQslog({dir / "c.log"}, env).status, 0);
    }
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_TRUE(std::filesystem::is_empty(empty));
}

// -n wants a plain count.  An end given as a time copied from the output
// takes in every record printed with that time, though their FILETIMEs
// differ below the millisecond.
TEST(QslogRead, CountsAndTimesAsUsersGiveThem) {
    TempDir dir("count");
    std::string path = dir / "c.log";
    for (const char* bad : {"-1", "abc", "3x", "", "1.5", "+2", " 4"}) {
        RunResult r = RunQslog({"-n", bad, path});
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(r.err.substr(0, r.err.find('\n')),
                  "qslog: -n takes a count of 0 or more, not '" + std::string(bad) + "'");
    }

    auto log = OpenLog(dir.Path(), "c.log", 16, false);
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    const uint64_t second = 10000000, ms = 10000;
    const uint64_t t = qsFileTimeToUInt64(ft) / second * second + 500 * ms + 1234;
    WriteMessageAt(*log, t, 100, 1, 0, "a");
    WriteMessageAt(*log, t + 5000, 100, 1, 0, "b");      // the same millisecond
    WriteMessageAt(*log, t + ms - 1234, 100, 1, 0, "c"); // the next one
    WriteMessageAt(*log, t + second, 100, 1, 0, "d");    // the next second
    const std::string printedMs = RunQslog({path}).lines.at(0).substr(0, 23);
    const std::pair<Words, Words> rows[] = {
        {{"--until", printedMs}, {"a", "b"}},
        {{"--since", printedMs, "--until", printedMs}, {"a", "b"}},
        {{"--until", printedMs.substr(0, 19)}, {"a", "b", "c"}},
        {{"--since", printedMs.substr(0, 19) + ".5007"}, {"c", "d"}},
    };
    for (auto [args, expected] : rows) {
        args.push_back(path);
        Words texts;
        for (const std::string& l : RunQslog(args).lines)
            texts.push_back(l.substr(l.rfind(": ") + 2));
        EXPECT_EQ(texts, expected) << testing::PrintToString(args);
    }
}

// "-" reads a log image from standard input, a pipe or a file, with the same
// output as the file itself; it cannot be followed.
TEST(QslogRead, StandardInput) {
    TempDir dir("stdin");
    auto log = OpenLog(dir.Path(), "s.log", 8);
    for (int i = 0; i < 50; ++i)
        log->PrintString(("piped " + std::to_string(i)).c_str(), 0, 1, 0);
    const std::string path = dir / "s.log", q = QSLOG_PATH;
    const std::string direct = RunQslog({path}).out;
    ASSERT_EQ(PrintedIds(direct).size(), 51u);
    const std::pair<std::string, std::string> runs[] = {
        {"cat " + path + " | " + q + " -", direct},
        {q + " - < " + path, direct},
        {"cat " + path + " | " + q + " -n 1 -o json -", "\"file\":\"(standard input)\""},
        {"cat " + path + " | " + q + " --stat -", "file:          (standard input)\n"},
        {"head -c 5000 " + path + " | " + q + " - 2>&1", "(standard input): truncated"},
    };
    for (const auto& [command, part] : runs) {
        std::string out;
        FILE* pipe = popen(command.c_str(), "r");
        for (int c; (c = fgetc(pipe)) != EOF;)
            out += char(c);
        int status = pclose(pipe);
        EXPECT_EQ(WEXITSTATUS(status), Has(part, "truncated") ? 1 : 0) << command;
        EXPECT_TRUE(Has(out, part)) << command << "\n" << out;
    }
    RunResult r = RunQslog({"-f", "-"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(Has(r.err, "cannot follow standard input")) << r.err;
}

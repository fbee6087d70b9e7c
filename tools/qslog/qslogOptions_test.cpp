#include "qslogOptions.h"

#include "qslogTime.h"

#include <gtest/gtest.h>

using namespace qslog;

namespace {

int Parse(std::vector<const char*> args, Options& out, std::string& text) {
    args.insert(args.begin(), "qslog");
    return ParseOptions(int(args.size()), args.data(), UnixMsToFileTime(1795266187000), out, text);
}

} // namespace

TEST(QslogOptions, ReadsEveryOption) {
    Options o;
    std::string text;
    ASSERT_EQ(Parse({"-n",    "5",          "-r",      "-p",         "warn",    "--pid",       "7",
                     "--pid", "9",          "--since", "10 min ago", "--until", "@1795266000", "-g",
                     "a|b",   "-i",         "--code",  "0x2",        "--code",  "-1",          "-o",
                     "json",  "--no-color", "x.log",   "y.log"},
                    o, text),
              -1)
        << text;
    EXPECT_EQ(o.files, (std::vector<std::string>{"x.log", "y.log"}));
    EXPECT_EQ(o.lines, 5u);
    EXPECT_TRUE(o.reverse);
    EXPECT_FALSE(o.follow);
    EXPECT_EQ(o.filter.minSeverity, 2);
    EXPECT_EQ(o.filter.pids, (std::vector<DWORD>{7, 9}));
    EXPECT_EQ(o.filter.codes, (std::vector<DWORD>{2, 0xFFFFFFFF}));
    EXPECT_EQ(FileTimeToUnixMs(*o.filter.since), 1795266187000 - 600000);
    EXPECT_EQ(FileTimeToUnixMs(*o.filter.until), 1795266000000);
    ASSERT_TRUE(o.filter.pattern);
    EXPECT_TRUE(o.filter.pattern->Search("xBx"));
    EXPECT_EQ(o.format, OutputFormat::Json);
    EXPECT_EQ(o.color, ColorMode::Never);

    Options d;
    ASSERT_EQ(Parse({"-f", "--stream", "events", "-oraw", "--color"}, d, text), -1) << text;
    EXPECT_TRUE(d.follow);
    EXPECT_EQ(d.stream, 1);
    EXPECT_TRUE(d.files.empty());
    EXPECT_FALSE(d.lines);
    EXPECT_EQ(d.format, OutputFormat::Raw);
    EXPECT_EQ(d.color, ColorMode::Always);
    EXPECT_FALSE(d.filter.minSeverity);
    EXPECT_FALSE(d.filter.pattern);
}

TEST(QslogOptions, UsageErrorsAreTwoWithAReason) {
    struct Case {
        std::vector<const char*> args;
        const char* reason;
    };
    for (const Case& c : std::vector<Case>{
             {{"--nope"}, "--nope"},
             {{"-f", "-r"}, "excludes"},
             {{"--stat", "-f"}, "excludes"},
             {{"--stream", "perf"}, "perf"},
             {{"--stream", "events", "a.log"}, "give no FILE"},
             {{"-p", "chatty"}, "unknown severity 'chatty'"},
             {{"--since", "whenever"}, "cannot read time 'whenever'"},
             {{"--code", "12abc"}, "bad code '12abc'"},
             {{"-g", "a{"}, "bad pattern 'a{'"},
             {{"-n", "many"}, "many"},
         }) {
        Options o;
        std::string text;
        EXPECT_EQ(Parse(c.args, o, text), kExitUsage) << c.args[0];
        EXPECT_NE(text.find(c.reason), std::string::npos) << text;
        EXPECT_EQ(text.rfind("qslog: ", 0), 0u) << text;
        EXPECT_NE(text.find("qslog --help"), std::string::npos);
    }
}

TEST(QslogOptions, HelpAndVersionAreNotErrors) {
    Options o;
    std::string text;
    EXPECT_EQ(Parse({"--help"}, o, text), kExitOk);
    for (const char* part :
         {"Usage:", "--follow", "--since", "Examples:", "QS_LOG_DIR", "100 ms", "Exit status:"})
        EXPECT_NE(text.find(part), std::string::npos) << part;
    EXPECT_EQ(Parse({"--version"}, o, text), kExitOk);
    EXPECT_EQ(text, "qslog 1.0\n");
}

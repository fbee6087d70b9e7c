// The command line: which operand is which, the credentials sent by
// default, and everything that must end in a usage error (exit status 2)
// before the server is asked anything.
#include "qsnfsOptions.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace qsnfs;
using Words = std::vector<std::string>;

namespace {

int Parse(Words words, Options& out, std::string& text) {
    words.insert(words.begin(), "qsnfs");
    std::vector<const char*> argv;
    for (const std::string& w : words)
        argv.push_back(w.c_str());
    return ParseOptions(int(argv.size()), argv.data(), out, text);
}

// The options of an accepted command line.
Options Parsed(const Words& words) {
    Options o;
    std::string text;
    EXPECT_EQ(Parse(words, o, text), -1) << text;
    return o;
}

Words Paths(const Options& o) {
    Words paths;
    for (const RemotePath& r : o.remotes)
        paths.push_back(r.path);
    return paths;
}

} // namespace

TEST(QsnfsOptions, OperandsGoWhereTheyBelong) {
    Options o = Parsed({"get", "h:/e/f", "-"});
    EXPECT_EQ(Paths(o), Words{"/e/f"});
    EXPECT_EQ(o.local, "-");
    o = Parsed({"put", "local.bin", "h:/e/f"});
    EXPECT_EQ(Paths(o), Words{"/e/f"});
    EXPECT_EQ(o.local, "local.bin");

    // A hard link's target is a remote path, a symbolic link's is text.
    EXPECT_EQ(Paths(Parsed({"ln", "h:/e/target", "h:/e/link"})), (Words{"/e/link", "/e/target"}));
    o = Parsed({"ln", "-s", "../any thing", "h:/e/link"});
    EXPECT_EQ(Paths(o), Words{"/e/link"});
    EXPECT_EQ(o.linkText, "../any thing");

    // The command's own options stay the command's.
    o = Parsed({"lock", "-s", "h:/e/l", "sh", "-c", "exit 3", "-s"});
    EXPECT_TRUE(o.shared);
    EXPECT_EQ(o.program, (Words{"sh", "-c", "exit 3", "-s"}));

    o = Parsed({"--proto", "udp", "--pipelined", "ls", "-l", "-R", "-o", "json", "h:/e"});
    EXPECT_TRUE(o.pipelined && o.longList && o.recursive && o.json);
    EXPECT_EQ(o.proto, Proto::Udp);
    EXPECT_EQ(Parsed({"truncate", "-s", "5G", "h:/e/f"}).size, 5ull << 30);
    EXPECT_EQ(Parsed({"exports", "fs1:"}).host, "fs1");
}

TEST(QsnfsOptions, CredentialsDefaultToTheCaller) {
    Options o = Parsed({"ls", "h:/e"});
    EXPECT_EQ(o.uid, getuid());
    ASSERT_FALSE(o.gids.empty());
    EXPECT_EQ(o.gids[0], int(getgid()));
    EXPECT_LE(o.gids.size(), kMaxGroups);

    o = Parsed({"--uid", "4294967294", "--gid", "7,0,4000000000", "ls", "h:/e"});
    EXPECT_EQ(o.uid, 4294967294u);
    EXPECT_EQ(o.gids, (std::vector<int>{7, 0, int(4000000000u)}));
}

// Malformed paths and sizes are their parsers' cases: one of each shows that
// the command line refuses them.
TEST(QsnfsOptions, UsageErrorsExitTwo) {
    const Words cases[] = {
        {},
        {"frob", "h:/e"},
        {"ls"},
        {"ls", "-x", "h:/e"},
        {"ls", "h:relative"},
        {"cat", "h:/a", "local"},
        {"get", "h:/a"},
        {"get", "h:/a", ""},
        {"put", "local", "h:/a", "extra"},
        {"mv", "h:/a"},
        {"ln", "local-target", "h:/e/l"},
        {"truncate", "h:/a"},
        {"truncate", "-s", "1X", "h:/a"},
        {"lock", "h:/a"},
        {"stat", "-o", "yaml", "h:/a"},
        {"--uid", "-1", "ls", "h:/e"},
        {"--uid", "4294967296", "ls", "h:/e"},
        {"--gid", "1,,2", "ls", "h:/e"},
        {"--gid", "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17", "ls", "h:/e"},
        {"--proto", "sctp", "ls", "h:/e"},
        {"exports", "a/b"},
    };
    for (const Words& words : cases) {
        Options o;
        std::string text;
        EXPECT_EQ(Parse(words, o, text), kExitUsage) << testing::PrintToString(words);
        EXPECT_EQ(text.rfind("qsnfs: ", 0), 0u) << text;
    }
    Options o;
    std::string text;
    EXPECT_EQ(Parse({"frob"}, o, text), kExitUsage);
    EXPECT_NE(text.find("unknown command 'frob'"), std::string::npos) << text;
    EXPECT_EQ(Parse({"--version"}, o, text), kExitOk);
    EXPECT_EQ(text.rfind("qsnfs ", 0), 0u);
}

TEST(QsnfsOptions, Sizes) {
    uint64_t v = 0;
    EXPECT_TRUE(ParseSize("4097", v) && v == 4097);
    EXPECT_TRUE(ParseSize("5GiB", v) && v == 5ull << 30);
    EXPECT_TRUE(ParseSize("16777215T", v) && v == 16777215ull << 40);
    for (const char* bad : {"16777216T", "", "K", "1.5M", "1k"})
        EXPECT_FALSE(ParseSize(bad, v)) << bad;
}

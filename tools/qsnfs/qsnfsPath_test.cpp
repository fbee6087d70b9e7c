// Remote paths as a user types them: what reaches the server, and what is
// refused before anything is sent.
#include "qsnfsPath.h"

#include <gtest/gtest.h>

using namespace qsnfs;

TEST(QsnfsPath, NormalisesWhatTheServerWalks) {
    const std::pair<const char*, const char*> cases[] = {
        {"fs1:/srv/data/a.txt", "/srv/data/a.txt"},
        {"fs1:/srv//data/./a.txt/", "/srv/data/a.txt"},
        {"fs1:/srv/data/../x", "/srv/x"},
        {"fs1:/", "/"},
        {"fs1:/a/..", "/"},
        {"10.0.0.7:/e/f", "/e/f"},
        {"C:/x", "/x"}, // a one-letter host, as the path grammar reads it
        {"h:/with space/a\\b", "/with space/a\\b"},
    };
    for (const auto& [text, path] : cases) {
        RemotePath r;
        std::string why;
        ASSERT_TRUE(ParseRemotePath(text, r, why)) << text << ": " << why;
        EXPECT_EQ(r.path, path) << text;
        EXPECT_EQ(r.text, text);
    }
    RemotePath r;
    std::string why;
    ASSERT_TRUE(ParseRemotePath("fs1.example:/srv", r, why));
    EXPECT_EQ(r.host, "fs1.example");
}

TEST(QsnfsPath, RefusesMalformedPaths) {
    for (const char* text : {"", "fs1", "fs1:", "fs1:rel/x", ":/x", "/local/path", "rel/x",
                             "a/b:/x", "fs1:/..", "fs1:/a/../..", "fs 1:/x", "fs1:C:\\x"}) {
        RemotePath r;
        std::string why;
        EXPECT_FALSE(ParseRemotePath(text, r, why)) << text;
        EXPECT_NE(why.find(std::string("'") + text + "'"), std::string::npos) << why;
    }
    std::string host, why;
    EXPECT_TRUE(ParseHost("fs1", host, why));
    EXPECT_TRUE(ParseHost("fs1:", host, why));
    EXPECT_TRUE(ParseHost("fs2:/srv", host, why));
    EXPECT_EQ(host, "fs2");
    EXPECT_FALSE(ParseHost("fs1:x", host, why));
    EXPECT_FALSE(ParseHost("a/b", host, why));
}

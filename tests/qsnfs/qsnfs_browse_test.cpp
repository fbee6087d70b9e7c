// qsnfs's read-only commands against the real server, checked against the
// export directory itself: listings, attributes, JSON, and every way a
// command fails.
#include "qsnfsTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>
#include <sys/statvfs.h>

using namespace qsnfsTest;

namespace {

// a (3 bytes), d/ with x, l -> a, and a name that is not UTF-8.
void MakeTree(const Dir& t) {
    qsTest::WriteFileText(t / "a", "abc");
    mkdir((t / "d").c_str(), 0750);
    qsTest::WriteFileText(t / "d/x", "x");
    symlink("a", (t / "l").c_str());
    qsTest::WriteFileText(t / "n\xff", "");
}

} // namespace

// Names sorted byte by byte; -l matches lstat of each file field by field;
// -R walks the tree depth first under headers; a file lists as itself.
TEST(QsnfsBrowse, ListingsMatchTheExport) {
    Dir t("browse-ls");
    MakeTree(t);
    Result r = Qsnfs({"ls", t.R()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "a\nd\nl\nn\xff\n");
    EXPECT_EQ(r.err, "");

    r = Qsnfs({"ls", "-l", t.R()});
    Words lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 4u) << r.out;
    EXPECT_EQ(lines[1].substr(0, 10), "drwxr-x---");
    std::regex shape(R"(^([-dl])[-rwxsStT]{9} +(\d+) +\d+ +(\d+) \d{4}-\d\d-\d\d \d\d:\d\d (.*)$)");
    for (const std::string& line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
        std::string name = m[4] == "l -> a" ? "l" : m[4].str();
        struct stat st = Lstat(t / name);
        EXPECT_EQ(m[1], S_ISDIR(st.st_mode) ? "d" : S_ISLNK(st.st_mode) ? "l" : "-") << line;
        EXPECT_EQ(std::stoul(m[2]), st.st_uid) << line;
        EXPECT_EQ(std::stoull(m[3]), uint64_t(st.st_size)) << line;
    }

    r = Qsnfs({"ls", "-R", t.R()});
    EXPECT_EQ(r.out, t.R() + ":\na\nd\nl\nn\xff\n\n" + t.R("d") + ":\nx\n");
    r = Qsnfs({"ls", t.R("d/x")});
    EXPECT_EQ(r.out, "x\n");
}

// JSON parses back, names that are not UTF-8 included, and carries what the
// server holds: ids, size, mode bits, times to 100 ns in UTC, link text.
TEST(QsnfsBrowse, JsonMatchesTheExport) {
    Dir t("browse-json");
    MakeTree(t);
    ASSERT_EQ(lchown((t / "a").c_str(), 1234, 5678), 0);
    const timespec times[2] = {{1795266000, 0}, {1795266187, 123456700}};
    ASSERT_EQ(utimensat(AT_FDCWD, (t / "a").c_str(), times, 0), 0);
    Result r = Qsnfs({"ls", "-R", "-o", "json", t.R()});
    ASSERT_EQ(r.status, 0) << r.err;
    std::map<std::string, nlohmann::json> byName;
    for (const std::string& line : Lines(r.out)) {
        auto j = nlohmann::json::parse(line);
        byName[j["name"]] = j;
    }
    EXPECT_EQ(byName.size(), 5u) << r.out;
    EXPECT_EQ(byName.count("n\xef\xbf\xbd"), 1u);
    EXPECT_EQ(byName["x"]["path"], t.R("d/x"));
    EXPECT_EQ(byName["d"]["type"], "directory");
    EXPECT_EQ(byName["l"]["type"], "symlink");
    EXPECT_EQ(byName["l"]["target"], "a");

    r = Qsnfs({"stat", "-o", "json", t.R("a")});
    ASSERT_EQ(r.status, 0) << r.err;
    auto j = nlohmann::json::parse(r.out);
    struct stat st = Lstat(t / "a");
    EXPECT_EQ(j["size"], 3);
    EXPECT_EQ(j["mode"], st.st_mode & 07777);
    EXPECT_EQ(j["uid"], 1234);
    EXPECT_EQ(j["gid"], 5678);
    EXPECT_EQ(j["links"], 1);
    EXPECT_EQ(j["fileid"], st.st_ino);
    EXPECT_EQ(j["atime"], "2026-11-21T13:00:00.0000000Z");
    EXPECT_EQ(j["mtime"], "2026-11-21T13:03:07.1234567Z");
    EXPECT_NE(j["ctime"], j["mtime"]);
    r = Qsnfs({"stat", t.R("a")});
    EXPECT_NE(r.out.find("\ntype    regular file\nsize    3\n"), std::string::npos) << r.out;
}

// exports and df name the export; df's byte counts are the file system's.
TEST(QsnfsBrowse, ExportsAndSpace) {
    std::string exportDir = qsNFSTest::ExportDir();
    Result r = Qsnfs({"exports", "127.0.0.1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(("\n" + r.out).find("\n" + exportDir + "\n"), std::string::npos) << r.out;
    r = Qsnfs({"exports", "-o", "json", "127.0.0.1"});
    EXPECT_EQ(nlohmann::json::parse(Lines(r.out).at(0))["path"], exportDir);

    Dir t("browse-df");
    r = Qsnfs({"df", "-o", "json", t.R()});
    ASSERT_EQ(r.status, 0) << r.err;
    auto j = nlohmann::json::parse(r.out);
    struct statvfs vfs {};
    ASSERT_EQ(statvfs(exportDir.c_str(), &vfs), 0);
    EXPECT_EQ(j["export"], Remote(exportDir));
    EXPECT_EQ(j["total_bytes"], uint64_t(vfs.f_blocks) * vfs.f_frsize);
    EXPECT_LE(j["available_bytes"].get<uint64_t>(), j["free_bytes"].get<uint64_t>());
    r = Qsnfs({"df", Remote(exportDir)});
    ASSERT_EQ(Lines(r.out).size(), 2u);
    EXPECT_EQ(Lines(r.out)[1].rfind(Remote(exportDir) + " ", 0), 0u) << r.out;
}

// Each command that meets a missing object or one of the wrong kind fails
// alone: exit status 1, one line with the code, nothing on standard
// output, no local file made.  Usage errors and malformed paths (the cases
// are the unit tests'): status 2, the reason and a hint.
TEST(QsnfsBrowse, FailuresAreOneLineWithTheCode) {
    Dir t("browse-fail");
    MakeTree(t);
    std::string missing = t.R("missing");
    const struct {
        Words args;
        std::string path;
        const char* code;
    } cases[] = {
        {{"stat", missing}, missing, "0xE0030207"},
        {{"ls", missing}, missing, "0xE0030207"},
        {{"cat", missing}, missing, "0xE0030207"},
        {{"readlink", missing}, missing, "0xE0030207"},
        {{"rm", missing}, missing, "0xE0030207"},
        {{"rmdir", missing}, missing, "0xE0030207"},
        {{"get", missing, t / "local"}, missing, "0xE0030207"},
        {{"mv", missing, t.R("b")}, missing, "0xE0030207"},
        {{"ls", t.R("a/below")}, t.R("a/below"), "0xE003020A"},
        {{"rm", t.R("d")}, t.R("d"), "0xE003020A"},
        {{"rmdir", t.R("d")}, t.R("d"), "0xE0030209"},
        {{"cat", t.R("d")}, t.R("d"), "0xE003020A"},
        {{"readlink", t.R("a")}, t.R("a"), "0xE003020A"},
        {{"mkdir", t.R("d")}, t.R("d"), "0xE0030210"},
        {{"mv", t.R("a"), "127.0.0.2:/elsewhere"}, t.R("a"), "0xE0030204"},
    };
    for (const auto& c : cases) {
        Result r = Qsnfs(c.args);
        EXPECT_FAILED(r, c.args[0], c.path, c.code);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(Exists(t / "local"));
    EXPECT_TRUE(Exists(t / "a") && Exists(t / "d"));

    // cat goes on past a failed file; the status still says it failed.
    Result r = Qsnfs({"cat", missing, t.R("d/x")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "x");
    EXPECT_EQ(r.errLines.size(), 1u) << r.err;

    for (const Words& args : {Words{"ls", "127.0.0.1:relative"}, Words{"frob"}}) {
        r = Qsnfs(args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_EQ(r.errLines.size(), 2u) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

// A host with no route and a port with nothing behind it fail at once with
// status 1, never a hang.
TEST(QsnfsBrowse, UnreachableServerFailsAtOnce) {
    Result r = Qsnfs({"ls", "192.0.2.1:/srv"});
    ASSERT_NE(r.status, -1) << "qsnfs hung on an unreachable host";
    EXPECT_FAILED(r, "ls", "192.0.2.1:/srv", "0x");
    EXPECT_NE(r.err.find("unreachable"), std::string::npos) << r.err;

    // A network namespace of its own, whose loopback has no server.
    r = RunProgram({"unshare", "--net", "sh", "-c", "ip link set lo up && exec \"$0\" \"$@\"",
                    QSNFS_PATH, "stat", "127.0.0.1:/srv"});
    ASSERT_NE(r.status, -1) << "qsnfs hung on a closed port";
    EXPECT_FAILED(r, "stat", "127.0.0.1:/srv", "0x");
    EXPECT_NE(r.err.find("refused"), std::string::npos) << r.err;
}

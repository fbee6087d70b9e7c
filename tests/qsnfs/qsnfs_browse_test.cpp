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

// RFC 3339 in UTC to 100 ns, as -o json shows times.
std::string Utc(const struct timespec& ts) {
    char date[64], out[96];
    struct tm tm {};
    gmtime_r(&ts.tv_sec, &tm);
    strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &tm);
    snprintf(out, sizeof out, "%s.%07ldZ", date, ts.tv_nsec / 100);
    return out;
}

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
    ASSERT_EQ(r.status, 0) << r.err;
    Words lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 4u) << r.out;
    std::regex shape(R"(^([-dl][-rwxsStT]{9}) +(\d+) +(\d+) +(\d+) (\d{4}-\d\d-\d\d \d\d:\d\d) (.*)$)");
    for (const std::string& line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
        std::string name = m[6];
        if (name.rfind("l -> ", 0) == 0) {
            EXPECT_EQ(name, "l -> a");
            name = "l";
        }
        struct stat st = Lstat(t / name);
        EXPECT_EQ(m[1].str()[0], S_ISDIR(st.st_mode) ? 'd' : S_ISLNK(st.st_mode) ? 'l' : '-');
        EXPECT_EQ(std::stoul(m[2]), st.st_uid) << line;
        EXPECT_EQ(std::stoull(m[4]), uint64_t(st.st_size)) << line;
    }
    EXPECT_EQ(lines[1].substr(0, 10), "drwxr-x---");

    r = Qsnfs({"ls", "-R", t.R()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, t.R() + ":\na\nd\nl\nn\xff\n\n" + t.R("d") + ":\nx\n");

    r = Qsnfs({"ls", t.R("d/x")});
    EXPECT_EQ(r.out, "x\n");
}

// JSON parses back, names that are not UTF-8 included, and carries what
// lstat says: ids, sizes, mode bits, times to the nanosecond, link text.
TEST(QsnfsBrowse, JsonMatchesTheExport) {
    Dir t("browse-json");
    MakeTree(t);
    Result r = Qsnfs({"ls", "-R", "-o", "json", t.R()});
    ASSERT_EQ(r.status, 0) << r.err;
    Words lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 5u) << r.out;
    std::map<std::string, nlohmann::json> byName;
    for (const std::string& line : lines) {
        auto j = nlohmann::json::parse(line);
        byName[j["name"]] = j;
    }
    EXPECT_EQ(byName.count("n\xef\xbf\xbd"), 1u);
    EXPECT_EQ(byName["x"]["path"], t.R("d/x"));
    EXPECT_EQ(byName["l"]["type"], "symlink");
    EXPECT_EQ(byName["l"]["target"], "a");
    EXPECT_EQ(byName["d"]["type"], "directory");

    for (const char* name : {"a", "d", "l"}) {
        r = Qsnfs({"stat", "-o", "json", t.R(name)});
        ASSERT_EQ(r.status, 0) << r.err;
        auto j = nlohmann::json::parse(r.out);
        struct stat st = Lstat(t / name);
        EXPECT_EQ(j["size"], uint64_t(st.st_size)) << name;
        EXPECT_EQ(j["mode"], st.st_mode & 07777) << name;
        EXPECT_EQ(j["uid"], st.st_uid);
        EXPECT_EQ(j["gid"], st.st_gid);
        EXPECT_EQ(j["links"], st.st_nlink) << name;
        EXPECT_EQ(j["fileid"], st.st_ino) << name;
        EXPECT_EQ(j["mtime"], Utc(st.st_mtim)) << name;
        EXPECT_EQ(j["ctime"], Utc(st.st_ctim)) << name;
    }
    r = Qsnfs({"stat", t.R("a")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("\ntype    regular file\nsize    3\n"), std::string::npos) << r.out;
}

// exports and df name the export; df's byte counts are the file system's.
TEST(QsnfsBrowse, ExportsAndSpace) {
    std::string exportDir = qsNFSTest::ExportDir();
    Result r = Qsnfs({"exports", "127.0.0.1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(("\n" + r.out).find("\n" + exportDir + "\n"), std::string::npos) << r.out;
    r = Qsnfs({"exports", "-o", "json", "127.0.0.1"});
    ASSERT_EQ(r.status, 0) << r.err;
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
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(Lines(r.out).size(), 2u);
    EXPECT_EQ(Lines(r.out)[1].rfind(Remote(exportDir) + " ", 0), 0u) << r.out;
}

// Each command that meets a missing object or one of the wrong kind fails
// alone: exit status 1, one line with the code, nothing on standard
// output, no local file made.
TEST(QsnfsBrowse, FailuresAreOneLineWithTheCode) {
    Dir t("browse-fail");
    MakeTree(t);
    std::string missing = t.R("missing");
    for (const Words& args : {Words{"stat", missing}, Words{"ls", missing},
                              Words{"cat", missing}, Words{"readlink", missing},
                              Words{"rm", missing}, Words{"rmdir", missing},
                              Words{"get", missing, t / "local"},
                              Words{"mv", missing, t.R("b")}}) {
        Result r = Qsnfs(args);
        EXPECT_FAILED(r, args[0], missing, "0xE0030207");
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(Exists(t / "local"));

    Result r = Qsnfs({"ls", t.R("a/below")});
    EXPECT_FAILED(r, "ls", t.R("a/below"), "0xE003020A");
    r = Qsnfs({"rm", t.R("d")});
    EXPECT_FAILED(r, "rm", t.R("d"), "0xE003020A");
    r = Qsnfs({"rmdir", t.R("d")});
    EXPECT_FAILED(r, "rmdir", t.R("d"), "0xE0030209");
    r = Qsnfs({"cat", t.R("d")});
    EXPECT_FAILED(r, "cat", t.R("d"), "0xE003020A");
    r = Qsnfs({"readlink", t.R("a")});
    EXPECT_FAILED(r, "readlink", t.R("a"), "0xE003020A");
    r = Qsnfs({"mkdir", t.R("d")});
    EXPECT_FAILED(r, "mkdir", t.R("d"), "0xE0030210");
    r = Qsnfs({"mv", t.R("a"), "127.0.0.2:/elsewhere"});
    EXPECT_FAILED(r, "mv", t.R("a"), "0xE0030204");
    EXPECT_TRUE(Exists(t / "a"));

    // cat goes on past a failed file; the status still says it failed.
    r = Qsnfs({"cat", missing, t.R("d/x")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.errLines.size(), 1u) << r.err;

    // Usage errors and malformed paths (the cases are the unit tests'):
    // status 2, the reason and a hint on standard error.
    for (const Words& args : {Words{"ls", "127.0.0.1:relative"}, Words{"frob"}}) {
        r = Qsnfs(args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_EQ(r.errLines.size(), 2u) << r.err;
        EXPECT_EQ(r.out, "");
    }
    r = Qsnfs({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("qsnfs ", 0), 0u);
}

// A host with no route and a port with nothing behind it fail at once with
// status 1, never a hang.
TEST(QsnfsBrowse, UnreachableServerFailsAtOnce) {
    Result r = Qsnfs({"ls", "192.0.2.1:/srv"});
    ASSERT_NE(r.status, -1) << "qsnfs hung on an unreachable host";
    EXPECT_FAILED(r, "ls", "192.0.2.1:/srv", "0x");
    EXPECT_NE(r.err.find("unreachable"), std::string::npos) << r.err;

    // A network namespace of its own, whose loopback has no server.
    r = RunProgram({"unshare", "--net", "sh", "-c",
             "ip link set lo up && exec \"$0\" \"$@\"", QSNFS_PATH, "stat", "127.0.0.1:/srv"});
    ASSERT_NE(r.status, -1) << "qsnfs hung on a closed port";
    EXPECT_FAILED(r, "stat", "127.0.0.1:/srv", "0x");
    EXPECT_NE(r.err.find("refused"), std::string::npos) << r.err;
}

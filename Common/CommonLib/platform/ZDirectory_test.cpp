#include "ZDirectory.h"

#include "qsTestTree.h"
#include "qsUnprivileged.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <utime.h>

using Paths = std::vector<std::string>;

static Paths ListPaths(const std::string& dir, const char* pattern, DWORD kinds, bool recursive) {
    std::vector<ZDirectory::Entry> entries;
    EXPECT_EQ(ZDirectory::List(dir.c_str(), pattern, kinds, recursive, entries), QS_OK);
    Paths paths;
    for (auto& e : entries)
        paths.push_back(e.relativePath);
    return paths;
}

// Links: "loop" to the listed directory itself (never entered), "up" to a
// sibling (entered like any directory), "dangling" to nothing (a file).
TEST(ZDirectory, PatternsKindsAndRecursion) {
    qsTest::TempDir dir;
    std::string root = dir / "r";
    qsTest::MakeTree(root,
                     {"a.txt=aaa", "b.log=b", ".hidden.txt=h", "empty/", "sub/", "sub/c.txt=c",
                      "sub/deep/", "sub/deep/d.txt=d", "loop->.", "up->sub", "dangling->missing"});
    using ZD = ZDirectory;
    // Pattern, kinds, recursive, the paths in order.
    std::tuple<const char*, DWORD, bool, Paths> cases[] = {
        {"*",
         ZD::eFilesAndDirectories,
         false,
         {".hidden.txt", "a.txt", "b.log", "dangling", "empty", "loop", "sub", "up"}},
        {nullptr, ZD::eFiles, false, {".hidden.txt", "a.txt", "b.log", "dangling"}},
        {"[ab].*", ZD::eFiles, false, {"a.txt", "b.log"}},
        {"*.txt",
         ZD::eFiles,
         true,
         {".hidden.txt", "a.txt", "sub/c.txt", "sub/deep/d.txt", "up/c.txt", "up/deep/d.txt"}},
        {"*", ZD::eDirectories, true, {"empty", "loop", "sub", "sub/deep", "up", "up/deep"}},
        {"d*", ZD::eFiles, true, {"dangling", "sub/deep/d.txt", "up/deep/d.txt"}},
        {"d*", ZD::eDirectories, true, {"sub/deep", "up/deep"}},
        {"*.none", ZD::eFilesAndDirectories, true, {}}};
    for (auto& [pattern, kinds, recursive, paths] : cases)
        EXPECT_EQ(ListPaths(root, pattern, kinds, recursive), paths)
            << (pattern ? pattern : "null") << " " << kinds << " " << recursive;

    // The cursor gives what the whole list gives, then stays at the end.
    ZDirectory d;
    WIN32_FIND_DATAA fd;
    Paths walked;
    for (qsStatus s = d.FindFirst(root.c_str(), "*", ZD::eFilesAndDirectories, true, &fd);
         s == QS_OK; s = d.FindNext(&fd))
        walked.push_back(d.GetRelativePath() + (fd.dwFileAttributes & 0x10 ? "/" : ""));
    EXPECT_EQ(walked.size(), 14u);
    EXPECT_EQ(walked[5], "loop/");
    EXPECT_EQ(d.FindNext(&fd), QS_W_NO_MORE_ENTRIES);
    EXPECT_EQ(d.GetSkippedCount(), 0u);

    // Directory, status.
    std::pair<std::string, qsStatus> failures[] = {{dir / "missing", QS_E_NOT_FOUND},
                                                   {root + "/a.txt", QS_E_DIR_READ},
                                                   {root + "/empty", QS_W_NO_MORE_ENTRIES},
                                                   {"", QS_E_INVALIDARG}};
    for (auto& [path, status] : failures)
        EXPECT_EQ(d.FindFirst(path.c_str(), "*", ZD::eFiles, false, &fd), status) << path;
    EXPECT_EQ(d.FindFirst(root.c_str(), "*", 0, false, &fd), QS_E_INVALIDARG);
    EXPECT_EQ(qsTest::Logged("ZDirectory::FindFirst: error 2 listing <" + dir / "missing>.").size(),
              1u);
}

// Cleared whole, attributes by mode bits, times to the second, the size in
// two words.
TEST(ZDirectory, FindRecords) {
    qsTest::TempDir dir;
    std::string big = dir / "big", sub = dir / "sub";
    int fd = open(big.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_EQ(ftruncate(fd, (5ll << 30) + 7), 0); // sparse
    close(fd);
    utimbuf times{1000000000, 1234567890};
    utime(big.c_str(), &times);
    mkdir(sub.c_str(), 0755);
    WIN32_FIND_DATAA f;
    memset(&f, 0xAB, sizeof f);
    ZDirectory d;
    ASSERT_EQ(d.FindFirst(dir.Path().c_str(), "*", ZDirectory::eFilesAndDirectories, false, &f),
              QS_OK);
    EXPECT_STREQ(f.cFileName, "big");
    EXPECT_EQ(f.dwFileAttributes, FILE_ATTRIBUTE_NORMAL);
    EXPECT_TRUE(f.nFileSizeHigh == 1 && f.nFileSizeLow == 0x40000007);
    EXPECT_EQ(qsFileTimeToUInt64(f.ftLastAccessTime),
              1000000000ull * 10000000 + QS_FILETIME_UNIX_EPOCH);
    EXPECT_EQ(qsFileTimeToUInt64(f.ftLastWriteTime),
              1234567890ull * 10000000 + QS_FILETIME_UNIX_EPOCH);
    EXPECT_EQ(qsFileTimeToUInt64(f.ftCreationTime), 0u);
    EXPECT_TRUE(f.dwReserved0 == 0 && f.dwReserved1 == 0 && f.cAlternateFileName[0] == 0);
    EXPECT_EQ(std::string(f.cFileName, sizeof f.cFileName),
              std::string("big") + std::string(257, '\0'));
    ASSERT_EQ(d.FindNext(&f), QS_OK);
    EXPECT_STREQ(f.cFileName, "sub");
    EXPECT_EQ(f.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
}

// An unreadable subdirectory is reported once and skipped; the rest is listed.
TEST(ZDirectory, UnreadableSubdirectoryIsSkipped) {
    qsTest::TempDir dir;
    int result = qsTest::RunUnprivileged(dir.Path(), [] {
        qsTest::MakeTree("t", {"a/", "a/locked/", "a/locked/x=x", "b/", "b/y=y"});
        chmod("t/a/locked", 0);
        ZDirectory d;
        WIN32_FIND_DATAA fd;
        Paths paths;
        for (qsStatus s = d.FindFirst("t", "*", ZDirectory::eFilesAndDirectories, true, &fd);
             s == QS_OK; s = d.FindNext(&fd))
            paths.push_back(d.GetRelativePath());
        return paths == Paths{"a", "a/locked", "b", "b/y"} && d.GetSkippedCount() == 1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(
        qsTest::Logged("ZDirectory::FindNext: error 13 reading directory <t/a/locked>.").size(),
        1u);
}

// 100 directories of 99 files each: 10,000 entries, in order.
TEST(ZDirectory, TenThousandEntries) {
    qsTest::TempDir dir;
    for (int i = 0; i < 100; ++i) {
        std::string sub = dir / ("d" + std::to_string(100 + i));
        mkdir(sub.c_str(), 0755);
        for (int j = 0; j < 99; ++j)
            close(open(
                (sub + "/f" + std::to_string(100 + j) + (j % 10 == 7 ? ".log" : ".dat")).c_str(),
                O_CREAT | O_WRONLY, 0644));
    }
    Paths all = ListPaths(dir.Path(), "*", ZDirectory::eFilesAndDirectories, true);
    ASSERT_EQ(all.size(), 10000u);
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end())); // each directory before its contents
    EXPECT_EQ(all[0], "d100");
    EXPECT_EQ(all[1], "d100/f100.dat");
    EXPECT_EQ(ListPaths(dir.Path(), "*.log", ZDirectory::eFiles, true).size(), 1000u);
    EXPECT_EQ(ListPaths(dir.Path(), "*", ZDirectory::eFilesAndDirectories, false).size(), 100u);
    EXPECT_EQ(ListPaths(dir.Path(), "f1?7.*", ZDirectory::eFiles, true).size(), 1000u);
}

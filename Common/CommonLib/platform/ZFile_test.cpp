#include "ZFile.h"

#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

qsStatus Open(ZFile& f, const std::string& path, DWORD disposition) {
    return f.CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
}

std::string ComputerName() {
    char name[MAX_PATH];
    DWORD size = sizeof name;
    return GetComputerNameA(name, &size) ? name : "";
}

void ExpectClosed(ZFile& f) {
    char buf[4];
    DWORD done, high = 7;
    EXPECT_FALSE(f.IsOpen());
    EXPECT_STREQ(f.GetFileName(), "");
    EXPECT_FALSE(f.CloseHandle());
    EXPECT_EQ(f.GetFileSize(&high), 0u);
    EXPECT_EQ(high, 0u);
    EXPECT_FALSE(f.ReadFile(buf, 1, &done, nullptr));
    EXPECT_EQ(f.SetFilePointer(0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(f.MapFile(nullptr, PAGE_READWRITE, 0, 4096, "n"), nullptr);
    EXPECT_FALSE(f.FlushViewOfFile(nullptr, 0));
    EXPECT_EQ(f.Delegate(), nullptr); // queries never create one
}

} // namespace

TEST(ZFile, WithoutDelegateAnswersAsAClosedFile) {
    ZFile f;
    ExpectClosed(f);
}

// The log stream's sequence: open-or-create, read the size, write a header,
// cut the file there, map it shared at full size, flush, touch; a second
// opener then finds the file pre-existing with the header in place.
TEST(ZFile, LocalFileThroughTheLogStreamSequence) {
    qsTest::TempDir dir;
    std::string path = dir / "H_Default.log";
    ZFile f;
    ASSERT_EQ(Open(f, path, OPEN_ALWAYS), QS_OK);
    ASSERT_NE(f.Delegate(), nullptr);
    EXPECT_FALSE(f.IsPreExisting());
    EXPECT_STREQ(f.GetFileName(), path.c_str());
    DWORD high = 7, done = 0;
    EXPECT_EQ(f.GetFileSize(&high), 0u);
    EXPECT_EQ(high, 0u);
    ASSERT_TRUE(f.WriteFile("header", 6, &done, nullptr));
    EXPECT_EQ(f.SetFilePointer(6, nullptr, FILE_BEGIN), 6u);
    ASSERT_TRUE(f.SetEndOfFile());
    auto* view = static_cast<char*>(f.MapFile(nullptr, PAGE_READWRITE, 0, 8192, "_H_FMAP"));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(memcmp(view, "header", 6), 0);
    memcpy(view + 28, "STRT", 4);
    EXPECT_TRUE(f.FlushViewOfFile(view, 0));
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    EXPECT_TRUE(f.SetFileTime(nullptr, nullptr, &now));

    ZFile second;
    ASSERT_EQ(Open(second, path, OPEN_ALWAYS), QS_OK);
    EXPECT_TRUE(second.IsPreExisting());
    EXPECT_EQ(second.GetFileSize(nullptr), 8192u);
    char buf[32];
    ASSERT_TRUE(second.ReadFile(buf, 32, &done, nullptr));
    EXPECT_EQ(memcmp(buf + 28, "STRT", 4), 0);

    // Reopening replaces the delegate; the first file is closed and unmapped.
    ASSERT_EQ(Open(f, dir / "other", CREATE_NEW), QS_OK);
    EXPECT_EQ(f.GetFileMapping(), nullptr);
    EXPECT_STREQ(f.GetFileName(), (dir / "other").c_str());
}

TEST(ZFile, HostPrefixOfThisComputerOpensTheLocalFile) {
    std::string host = ComputerName();
    ASSERT_FALSE(host.empty());
    qsTest::TempDir dir;
    std::string path = dir / "local";
    ZFile f;
    ASSERT_EQ(Open(f, host + ":" + path, CREATE_NEW), QS_OK);
    EXPECT_TRUE(f.IsOpen());
    EXPECT_STREQ(f.GetFileName(), path.c_str()); // the prefix is stripped
    EXPECT_EQ(access(path.c_str(), F_OK), 0);

    ZFile probe;
    WIN32_FIND_DATAA data;
    ASSERT_EQ(probe.GetWinFindData((host + ":" + dir.Path()).c_str(), &data), QS_OK);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_TRUE(probe.IsDir((host + ":" + dir.Path()).c_str()));
}

TEST(ZFile, OtherHostFailsCleanly) {
    std::string other = ComputerName() + "-not";
    ZFile f;
    qsStatus s = Open(f, other + ":/tmp/x", OPEN_ALWAYS);
    EXPECT_TRUE(qsFailed(s));
    EXPECT_EQ(f.Delegate(), nullptr);
    ExpectClosed(f);

    WIN32_FIND_DATAA data;
    EXPECT_TRUE(qsFailed(f.GetWinFindData((other + ":/tmp").c_str(), &data)));
    EXPECT_FALSE(f.IsDir((other + ":/tmp").c_str()));
}

// The logging interface probes its directory before any stream exists; the
// delegate chosen then answers later queries whatever their path.
TEST(ZFile, FindDataProbeChoosesTheDelegateOnlyOnce) {
    qsTest::TempDir dir;
    ZFile f;
    WIN32_FIND_DATAA data;
    EXPECT_EQ(f.GetWinFindData((dir / "missing").c_str(), &data), QS_E_NOT_FOUND);
    ZFileABC* chosen = f.Delegate();
    ASSERT_NE(chosen, nullptr);
    EXPECT_TRUE(f.IsDir(("elsewhere:" + dir.Path()).c_str()));
    EXPECT_EQ(f.Delegate(), chosen);
}

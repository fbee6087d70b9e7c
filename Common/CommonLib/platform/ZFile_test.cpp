#include "ZFile.h"

#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <cstring>
#include <gtest/gtest.h>

static qsStatus Open(ZFile& f, const std::string& path, DWORD disposition) {
    return f.CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Without a delegate every query answers as for a closed file; none makes one.
static void ExpectClosed(ZFile& f) {
    char buf[4];
    DWORD done, high = 7;
    EXPECT_TRUE(!f.IsOpen() && *f.GetFileName() == '\0' && !f.CloseHandle());
    EXPECT_TRUE(f.GetFileSize(&high) == 0 && high == 0 && !f.ReadFile(buf, 1, &done, nullptr));
    EXPECT_EQ(f.SetFilePointer(0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_TRUE(!f.MapFile(nullptr, PAGE_READWRITE, 0, 4096, "n") &&
                !f.FlushViewOfFile(nullptr, 0));
    EXPECT_EQ(f.Delegate(), nullptr);
}

// The logging interface probes its directory before any stream exists; the
// delegate chosen then answers later queries whatever their path.
TEST(ZFile, WithoutDelegateAnswersAsClosedUntilAProbeChoosesOne) {
    qsTest::TempDir dir;
    ZFile f;
    WIN32_FIND_DATAA data;
    ExpectClosed(f);
    EXPECT_EQ(f.GetWinFindData((dir / "missing").c_str(), &data), QS_E_NOT_FOUND);
    ZFileABC* chosen = f.Delegate();
    ASSERT_NE(chosen, nullptr);
    EXPECT_TRUE(f.IsDir(("elsewhere:" + dir.Path()).c_str()));
    EXPECT_EQ(f.Delegate(), chosen);
}

// The log stream's sequence through the forwarding object: open-or-create,
// write a header, map the file shared at full size; a second opener then
// finds it pre-existing with the mapped write in place.
TEST(ZFile, LocalFileThroughTheLogStreamSequence) {
    qsTest::TempDir dir;
    std::string path = dir / "H_Default.log";
    ZFile f, second;
    DWORD high = 7, done = 0;
    char buf[32];
    ASSERT_EQ(Open(f, path, OPEN_ALWAYS), QS_OK);
    EXPECT_TRUE(!f.IsPreExisting() && f.GetFileSize(&high) == 0 && high == 0);
    ASSERT_TRUE(f.WriteFile("header", 6, &done, nullptr));
    auto* view = static_cast<char*>(f.MapFile(nullptr, PAGE_READWRITE, 0, 8192, "_H_FMAP"));
    ASSERT_TRUE(view && memcmp(view, "header", 6) == 0);
    memcpy(view + 28, "STRT", 4);
    ASSERT_EQ(Open(second, path, OPEN_ALWAYS), QS_OK);
    EXPECT_TRUE(second.IsPreExisting() && second.GetFileSize(nullptr) == 8192);
    ASSERT_TRUE(second.ReadFile(buf, 32, &done, nullptr) && memcmp(buf + 28, "STRT", 4) == 0);
    // Reopening replaces the delegate; the first file is closed and unmapped.
    ASSERT_EQ(Open(f, dir / "other", CREATE_NEW), QS_OK);
    EXPECT_TRUE(!f.GetFileMapping() && dir / "other" == f.GetFileName());
}

// host:path is a local file for this computer (the prefix is then stripped);
// any other host is refused and leaves no delegate.
TEST(ZFile, HostPrefixOfThisComputerOnly) {
    char name[MAX_PATH];
    DWORD size = sizeof name;
    ASSERT_TRUE(GetComputerNameA(name, &size));
    std::string host = name, other = host + "-not:/tmp";
    qsTest::TempDir dir;
    std::string path = dir / "local";
    ZFile f, probe, remote;
    ASSERT_EQ(Open(f, host + ":" + path, CREATE_NEW), QS_OK);
    EXPECT_TRUE(f.IsOpen() && path == f.GetFileName() && access(path.c_str(), F_OK) == 0);
    WIN32_FIND_DATAA data;
    ASSERT_EQ(probe.GetWinFindData((host + ":" + dir.Path()).c_str(), &data), QS_OK);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);

    EXPECT_TRUE(qsFailed(Open(remote, other + "/x", OPEN_ALWAYS)));
    ExpectClosed(remote);
    EXPECT_TRUE(qsFailed(remote.GetWinFindData(other.c_str(), &data)));
    EXPECT_FALSE(remote.IsDir(other.c_str()));
}

#include "ZFileUnix.h"

#include "qsTestSupport.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

qsStatus Open(ZFileUnix& f, const std::string& path, DWORD disposition, DWORD access = kReadWrite,
              SECURITY_ATTRIBUTES* sa = nullptr) {
    return f.CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, sa, disposition,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
}

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// Runs `body` in a forked child and returns its exit status.
template <typename Body> int InChild(Body body) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

} // namespace

TEST(ZFileUnix, DispositionsAndPreExistingFlag) {
    qsTest::TempDir dir;
    std::string path = dir / "f";
    ZFileUnix f;
    EXPECT_EQ(Open(f, path, OPEN_EXISTING), QS_E_NOT_FOUND);
    EXPECT_EQ(Open(f, path, TRUNCATE_EXISTING), QS_E_NOT_FOUND);
    EXPECT_EQ(Open(f, dir / "none/f", OPEN_ALWAYS), QS_E_NOT_FOUND);

    ASSERT_EQ(Open(f, path, CREATE_NEW), QS_OK);
    EXPECT_FALSE(f.IsPreExisting());
    EXPECT_STREQ(f.GetFileName(), path.c_str());
    EXPECT_EQ(Open(f, path, CREATE_NEW), QS_E_FILE_OPEN);
    EXPECT_FALSE(f.IsOpen());
    EXPECT_STREQ(f.GetFileName(), "");

    struct Case {
        DWORD disposition;
        bool preExisting;
        DWORD size;
    } onExisting[] = {{OPEN_ALWAYS, true, 10},
                      {OPEN_EXISTING, false, 10},
                      {CREATE_ALWAYS, true, 0},
                      {TRUNCATE_EXISTING, false, 0}};
    for (const Case& c : onExisting) {
        qsTest::WriteFileText(path, "0123456789");
        ASSERT_EQ(Open(f, path, c.disposition), QS_OK) << c.disposition;
        EXPECT_EQ(f.IsPreExisting(), c.preExisting) << c.disposition;
        EXPECT_EQ(f.GetFileSize(nullptr), c.size) << c.disposition;
    }

    mode_t old = umask(0);
    ASSERT_EQ(Open(f, dir / "g", CREATE_ALWAYS), QS_OK);
    EXPECT_FALSE(f.IsPreExisting());
    ASSERT_EQ(Open(f, dir / "h", OPEN_ALWAYS), QS_OK);
    umask(old);
    EXPECT_FALSE(f.IsPreExisting());
    EXPECT_EQ(ModeOf(dir / "h"), 0660u);

    EXPECT_TRUE(f.CloseHandle());
    EXPECT_FALSE(f.IsPreExisting());
    EXPECT_TRUE(f.CloseHandle()); // nothing open is not a failure
}

TEST(ZFileUnix, UnknownDispositionOpensNothing) {
    qsTest::TempDir dir;
    ZFileUnix f;
    ASSERT_EQ(Open(f, dir / "open", OPEN_ALWAYS), QS_OK);
    for (DWORD disposition : {0u, 6u}) {
        EXPECT_EQ(Open(f, dir / "x", disposition), QS_E_INVALIDARG);
        EXPECT_FALSE(f.IsOpen()); // the file open before is closed all the same
        EXPECT_EQ(access((dir / "x").c_str(), F_OK), -1);
    }
}

TEST(ZFileUnix, AccessRightsChooseTheOpenMode) {
    qsTest::TempDir dir;
    std::string path = dir / "f";
    qsTest::WriteFileText(path, "abc");
    char buf[8];
    DWORD done = 99;
    struct Case {
        DWORD access;
        bool reads, writes;
    } cases[] = {
        {GENERIC_READ, true, false}, {GENERIC_WRITE, false, true}, {kReadWrite, true, true},
        {GENERIC_ALL, true, true},   {0, true, false},
        {0x00020000, true, true},  // READ_CONTROL is in both masks
        {0x00000002, false, true}, // FILE_WRITE_DATA
    };
    for (const Case& c : cases) {
        ZFileUnix f;
        ASSERT_EQ(Open(f, path, OPEN_EXISTING, c.access), QS_OK);
        EXPECT_EQ(f.ReadFile(buf, 1, &done, nullptr), c.reads) << c.access;
        EXPECT_EQ(f.WriteFile("z", 1, &done, nullptr), c.writes) << c.access;
        EXPECT_EQ(done, c.writes ? 1u : 0u);
    }

    ZFileUnix f;
    ASSERT_EQ(Open(f, path, OPEN_EXISTING), QS_OK);
    EXPECT_FALSE(f.ReadFile(nullptr, 1, &done, nullptr));
    ASSERT_TRUE(f.ReadFile(buf, sizeof buf, &done, nullptr));
    EXPECT_EQ(done, 3u); // a short read is not a failure
}

TEST(ZFileUnix, SecurityAttributesValueIsTheNewFileMode) {
    qsTest::TempDir dir;
    SECURITY_ATTRIBUTES real{};
    auto asSa = [](uintptr_t v) { return reinterpret_cast<SECURITY_ATTRIBUTES*>(v); };
    std::pair<SECURITY_ATTRIBUTES*, mode_t> cases[] = {
        {asSa(0640), 0640}, {asSa(1), 01},     {asSa(0777), 0777},
        {asSa(01000), 0660}, {nullptr, 0660}, {&real, 0660},
    };
    mode_t old = umask(0);
    int n = 0;
    for (auto [sa, mode] : cases) {
        std::string path = dir / std::to_string(n++);
        ZFileUnix f;
        ASSERT_EQ(Open(f, path, CREATE_NEW, kReadWrite, sa), QS_OK);
        EXPECT_EQ(ModeOf(path), mode) << path;
    }
    umask(old);
}

// The log stream's live form: a named mapping is the one all processes write
// through, so a child's writes are seen by the parent and reach the file.
TEST(ZFileUnix, NamedMappingIsSharedWithForkedChildren) {
    qsTest::TempDir dir;
    std::string path = dir / "shared";
    ZFileUnix f;
    ASSERT_EQ(Open(f, path, OPEN_ALWAYS), QS_OK);
    auto* view = static_cast<char*>(f.MapFile(nullptr, PAGE_READWRITE, 0, 8192, "_SHARED_FMAP"));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(f.GetFileMapping(), view);
    EXPECT_EQ(InChild([&] { return memcpy(view + 5000, "child", 5) ? 0 : 1; }), 0);
    EXPECT_EQ(memcmp(view + 5000, "child", 5), 0);
    EXPECT_TRUE(f.FlushViewOfFile(view + 5000, 5)); // inside a page: flushed from its start
    EXPECT_TRUE(f.FlushViewOfFile(nullptr, 0));
    std::string text = qsTest::ReadFileText(path);
    ASSERT_EQ(text.size(), 8192u);
    EXPECT_EQ(text.substr(5000, 5), "child");
}

// The resize copy's scratch image: unnamed, so nothing written reaches the file.
TEST(ZFileUnix, UnnamedMappingIsPrivate) {
    qsTest::TempDir dir;
    std::string path = dir / "private";
    ZFileUnix f;
    ASSERT_EQ(Open(f, path, CREATE_ALWAYS), QS_OK);
    auto* view = static_cast<char*>(f.MapFile(nullptr, PAGE_READWRITE, 0, 4096, nullptr));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(InChild([&] { return memcpy(view, "child", 5) ? 0 : 1; }), 0);
    EXPECT_EQ(view[0], 0);
    memcpy(view + 100, "parent", 6);
    EXPECT_TRUE(f.FlushViewOfFile(nullptr, 0));
    EXPECT_TRUE(f.CloseHandle());
    EXPECT_EQ(f.GetFileMapping(), nullptr);
    EXPECT_EQ(qsTest::ReadFileBytes(path), std::vector<uint8_t>(4096, 0));
}

TEST(ZFileUnix, MapFileGrowsTheFileAndRefusesWriteCopy) {
    qsTest::TempDir dir;
    std::string path = dir / "empty";
    ZFileUnix f;
    EXPECT_EQ(f.MapFile(nullptr, PAGE_READWRITE, 0, 4096, "n"), nullptr); // nothing open
    ASSERT_EQ(Open(f, path, CREATE_NEW), QS_OK);
    ASSERT_NE(f.MapFile(nullptr, PAGE_READWRITE, 0, 4096, "n"), nullptr);
    EXPECT_EQ(qsTest::ReadFileBytes(path), std::vector<uint8_t>(4096, 0));
    ASSERT_NE(f.MapFile(nullptr, PAGE_READONLY, 0, 1024, "n"), nullptr);
    EXPECT_EQ(f.GetFileSize(nullptr), 4096u); // never shrunk
    EXPECT_EQ(f.MapFile(nullptr, PAGE_WRITECOPY, 0, 4096, "n"), nullptr);
    EXPECT_EQ(f.GetFileMapping(), nullptr);

    // A read-only descriptor maps for reading but cannot grow the file.
    ZFileUnix r;
    ASSERT_EQ(Open(r, path, OPEN_EXISTING, GENERIC_READ), QS_OK);
    EXPECT_NE(r.MapFile(nullptr, PAGE_READONLY, 0, 4096, nullptr), nullptr);
    EXPECT_EQ(r.MapFile(nullptr, PAGE_READONLY, 0, 8192, nullptr), nullptr);
}

TEST(ZFileUnix, ViewsThroughCreateFileMapping) {
    qsTest::TempDir dir;
    ZFileUnix f;
    ASSERT_EQ(Open(f, dir / "v", CREATE_NEW), QS_OK);
    ASSERT_NE(f.CreateFileMappingA(nullptr, PAGE_READWRITE, 0, 8192, "v"), nullptr);
    auto* whole = static_cast<char*>(f.MapViewOfFile(FILE_MAP_WRITE, 0, 0, 0)); // 0: whole file
    ASSERT_NE(whole, nullptr);
    memcpy(whole + 4096, "second page", 11);
    auto* page = static_cast<char*>(f.MapViewOfFile(FILE_MAP_READ, 0, 4096, 4096));
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(memcmp(page, "second page", 11), 0);
    EXPECT_FALSE(f.UnmapViewOfFile(whole)); // replaced by the second view
    EXPECT_TRUE(f.UnmapViewOfFile(page));
    EXPECT_TRUE(f.FlushViewOfFile(nullptr, 0));  // no view: nothing to do
    EXPECT_FALSE(f.FlushViewOfFile(page, 4096)); // no longer mapped: msync fails
}

TEST(ZFileUnix, FilePointerEndOfFileAndSize) {
    qsTest::TempDir dir;
    ZFileUnix f;
    EXPECT_EQ(f.SetFilePointer(0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_FALSE(f.SetEndOfFile());
    EXPECT_EQ(f.GetFileSize(nullptr), INVALID_FILE_SIZE);
    EXPECT_NE(errno, 0);

    ASSERT_EQ(Open(f, dir / "p", CREATE_NEW), QS_OK);
    DWORD done;
    ASSERT_TRUE(f.WriteFile("0123456789", 10, &done, nullptr));
    EXPECT_EQ(f.SetFilePointer(4, nullptr, FILE_BEGIN), 4u);
    EXPECT_TRUE(f.SetEndOfFile());
    EXPECT_EQ(f.GetFileSize(nullptr), 4u);
    EXPECT_EQ(f.SetFilePointer(-1, nullptr, FILE_END), 3u); // low alone is sign-extended
    EXPECT_EQ(f.SetFilePointer(2, nullptr, FILE_CURRENT), 5u);
    EXPECT_EQ(f.SetFilePointer(-10, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(f.SetFilePointer(0, nullptr, 3), INVALID_SET_FILE_POINTER);

    // With high given, low is the unsigned low half of a 64-bit distance.
    LONG high = 0;
    EXPECT_EQ(f.SetFilePointer(-1, &high, FILE_BEGIN), 0xFFFFFFFFu);
    EXPECT_EQ(errno, 0); // a real position, not a failure
    high = 1;
    EXPECT_EQ(f.SetFilePointer(0x10, &high, FILE_BEGIN), 0x10u);
    EXPECT_EQ(high, 1);
    EXPECT_TRUE(f.SetEndOfFile());
    DWORD sizeHigh = 7;
    EXPECT_EQ(f.GetFileSize(&sizeHigh), 0x10u);
    EXPECT_EQ(sizeHigh, 0u); // the high part is always 0 here
    LARGE_INTEGER size;
    ASSERT_TRUE(f.GetFileSizeEx(&size));
    EXPECT_EQ(size.QuadPart, 0x100000010LL);
    high = -1;
    EXPECT_EQ(f.SetFilePointer(-0x10, &high, FILE_CURRENT), 0u);
    EXPECT_EQ(high, 1);
}

TEST(ZFileUnix, FileTimesInWholeSecondsWith32BitConversion) {
    qsTest::TempDir dir;
    std::string path = dir / "t";
    ZFileUnix f;
    ASSERT_EQ(Open(f, path, CREATE_NEW), QS_OK);
    const uint64_t seconds = 1700000000;
    FILETIME write =
        qsUInt64ToFileTime(seconds * QS_FILETIME_PER_SECOND + QS_FILETIME_UNIX_EPOCH + 1234567);
    FILETIME access = qsUInt64ToFileTime(QS_FILETIME_UNIX_EPOCH + 86400 * QS_FILETIME_PER_SECOND);
    ASSERT_TRUE(f.SetFileTime(nullptr, &access, &write));
    FILETIME gotAccess, gotWrite;
    ASSERT_TRUE(f.GetFileTime(nullptr, &gotAccess, &gotWrite));
    EXPECT_EQ(qsFileTimeToUInt64(gotWrite), qsFileTimeToUInt64(write) - 1234567);
    EXPECT_EQ(qsFileTimeToUInt64(gotAccess), qsFileTimeToUInt64(access));

    // Only the given time changes.  The conversion adds 0x49EF6F00 modulo
    // 2^32, so FILETIME 0 (1601) lands in 2009, not before 1970.
    FILETIME zero{0, 0};
    ASSERT_TRUE(f.SetFileTime(nullptr, nullptr, &zero));
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, time_t(0x49EF6F00));
    EXPECT_EQ(st.st_atime, time_t(86400));
}

TEST(ZFileUnix, FindDataAndIsDir) {
    qsTest::TempDir dir;
    ZFileUnix f;
    WIN32_FIND_DATAA data;
    EXPECT_EQ(f.GetWinFindData((dir / "missing").c_str(), &data), QS_E_NOT_FOUND);
    EXPECT_EQ(f.GetWinFindData((dir / "missing/deeper").c_str(), &data), QS_E_NOT_FOUND);
    EXPECT_FALSE(f.IsDir((dir / "missing").c_str()));
    ASSERT_EQ(f.GetWinFindData(dir.Path().c_str(), &data), QS_OK);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_TRUE(f.IsDir(dir.Path().c_str()));

    // A sparse file of 4 GiB + 5 bytes: the high part is filled.
    std::string path = dir / "big";
    ASSERT_EQ(Open(f, path, CREATE_NEW), QS_OK);
    LONG high = 1;
    f.SetFilePointer(5, &high, FILE_BEGIN);
    ASSERT_TRUE(f.SetEndOfFile());
    ASSERT_EQ(f.GetWinFindData(path.c_str(), &data), QS_OK);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(data.nFileSizeHigh, 1u);
    EXPECT_EQ(data.nFileSizeLow, 5u);
    EXPECT_STREQ(data.cFileName, "big");
    EXPECT_FALSE(f.IsDir(path.c_str()));
}

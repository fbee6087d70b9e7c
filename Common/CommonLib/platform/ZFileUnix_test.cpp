#include "ZFileUnix.h"

#include "qsTestSupport.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

static qsStatus Open(ZFileUnix& f, const std::string& path, DWORD disposition,
                     DWORD access = kReadWrite, SECURITY_ATTRIBUTES* sa = nullptr) {
    return f.CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, sa, disposition,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
}

// One file object throughout: every open closes the file opened before, also
// when the new one fails.  A 10-byte file exists or not before each open.
TEST(ZFileUnix, DispositionsAndPreExistingFlag) {
    qsTest::TempDir dir;
    std::string path = dir / "f";
    ZFileUnix f;
    EXPECT_EQ(Open(f, dir / "none/f", OPEN_ALWAYS), QS_E_NOT_FOUND);
    // Disposition, file there before, status, pre-existing flag, size after.
    std::tuple<DWORD, int, qsStatus, int, DWORD> cases[] = {
        {OPEN_EXISTING, 0, QS_E_NOT_FOUND, 0, 0},
        {TRUNCATE_EXISTING, 0, QS_E_NOT_FOUND, 0, 0},
        {CREATE_NEW, 0, QS_OK, 0, 0},
        {CREATE_ALWAYS, 0, QS_OK, 0, 0},
        {OPEN_ALWAYS, 0, QS_OK, 0, 0},
        {CREATE_NEW, 1, QS_E_FILE_OPEN, 0, 0},
        {OPEN_ALWAYS, 1, QS_OK, 1, 10},
        {OPEN_EXISTING, 1, QS_OK, 0, 10},
        {CREATE_ALWAYS, 1, QS_OK, 1, 0},
        {0, 0, QS_E_INVALIDARG, 0, 0},
        {TRUNCATE_EXISTING, 1, QS_OK, 0, 0},
        {6, 0, QS_E_INVALIDARG, 0, 0}};
    for (auto [disposition, exists, status, preExisting, size] : cases) {
        unlink(path.c_str());
        if (exists)
            qsTest::WriteFileText(path, "0123456789");
        EXPECT_EQ(Open(f, path, disposition), status) << disposition << " " << exists;
        EXPECT_STREQ(f.GetFileName(), status == QS_OK ? path.c_str() : "");
        EXPECT_EQ(f.IsPreExisting(), preExisting) << disposition << " " << exists;
        EXPECT_EQ(f.IsOpen() ? f.GetFileSize(nullptr) : 0u, size) << disposition;
        EXPECT_EQ(access(path.c_str(), F_OK) == 0, exists || status == QS_OK);
    }
    EXPECT_TRUE(!f.IsOpen() && f.CloseHandle()); // nothing open is not a failure
}

// Access rights {access, reads, writes}: read-write needs a read and a write
// right (READ_CONTROL 0x20000 is in both masks, FILE_WRITE_DATA 2 only in the
// write mask) or GENERIC_ALL.  A security-attributes value in 1..0777 is a new
// file's mode.
TEST(ZFileUnix, AccessRightsAndNewFileMode) {
    qsTest::TempDir dir;
    std::string path = dir / "f";
    qsTest::WriteFileText(path, "abc");
    char buf[8];
    DWORD done = 99;
    std::tuple<DWORD, int, int> rights[] = {
        {GENERIC_READ, 1, 0}, {GENERIC_WRITE, 0, 1}, {kReadWrite, 1, 1}, {GENERIC_ALL, 1, 1},
        {0x00000000, 1, 0},   {0x00020000, 1, 1},    {0x00000002, 0, 1}};
    for (auto [access, reads, writes] : rights) {
        ZFileUnix f;
        ASSERT_EQ(Open(f, path, OPEN_EXISTING, access), QS_OK);
        EXPECT_EQ(f.ReadFile(buf, 1, &done, nullptr), reads) << access;
        EXPECT_EQ(f.WriteFile("z", 1, &done, nullptr), writes) << access;
        EXPECT_EQ(done, writes ? 1u : 0u);
    }

    auto asSa = [](uintptr_t v) { return reinterpret_cast<SECURITY_ATTRIBUTES*>(v); };
    SECURITY_ATTRIBUTES real{};
    std::pair<SECURITY_ATTRIBUTES*, mode_t> modes[] = {
        {asSa(1), 01}, {asSa(0777), 0777}, {asSa(01000), 0660}, {nullptr, 0660}, {&real, 0660}};
    mode_t old = umask(0);
    for (auto [sa, mode] : modes) {
        std::string created = dir / std::to_string(uintptr_t(sa));
        ZFileUnix f;
        struct stat st;
        ASSERT_EQ(Open(f, created, CREATE_NEW, kReadWrite, sa), QS_OK);
        ASSERT_EQ(stat(created.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, mode) << created;
    }
    umask(old);
}

// A named mapping is the log stream's live form, shared by all processes: a
// forked child's writes reach the file.  An unnamed one is private.  Either
// grows an empty file to the mapping's size.
TEST(ZFileUnix, NamedMappingIsSharedUnnamedIsPrivate) {
    qsTest::TempDir dir;
    for (const char* name : {"_SHARED_FMAP", static_cast<const char*>(nullptr)}) {
        std::string path = dir / (name ? "named" : "unnamed");
        ZFileUnix f;
        ASSERT_EQ(Open(f, path, CREATE_NEW), QS_OK);
        auto* view = static_cast<char*>(f.MapFile(nullptr, PAGE_READWRITE, 0, 8192, name));
        ASSERT_TRUE(view && f.GetFileMapping() == view);
        pid_t child = fork();
        if (child == 0)
            _exit(memcpy(view + 5000, "child", 5) ? 0 : 1);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        memcpy(view + 100, "parent", 6);
        EXPECT_TRUE(f.FlushViewOfFile(view + 5000, 5)); // inside a page: flushed from its start
        EXPECT_TRUE(f.CloseHandle() && !f.GetFileMapping());
        std::string text = qsTest::ReadFileText(path);
        ASSERT_EQ(text.size(), 8192u);
        EXPECT_EQ(text.substr(5000, 5) + text.substr(100, 6),
                  name ? "childparent" : std::string(11, '\0'));
    }
}

TEST(ZFileUnix, MapFileNeverShrinksTheFile) {
    qsTest::TempDir dir;
    std::string path = dir / "m";
    ZFileUnix f, r;
    EXPECT_EQ(f.MapFile(nullptr, PAGE_READWRITE, 0, 4096, "n"), nullptr); // nothing open
    ASSERT_EQ(Open(f, path, CREATE_NEW), QS_OK);
    ASSERT_NE(f.MapFile(nullptr, PAGE_READWRITE, 0, 4096, "n"), nullptr);
    ASSERT_NE(f.MapFile(nullptr, PAGE_READONLY, 0, 1024, "n"), nullptr);
    EXPECT_EQ(f.GetFileSize(nullptr), 4096u);
    EXPECT_EQ(f.MapFile(nullptr, PAGE_WRITECOPY, 0, 4096, "n"), nullptr);
    EXPECT_EQ(f.GetFileMapping(), nullptr);
    // A read-only descriptor maps for reading but cannot grow the file.
    ASSERT_EQ(Open(r, path, OPEN_EXISTING, GENERIC_READ), QS_OK);
    EXPECT_NE(r.MapFile(nullptr, PAGE_READONLY, 0, 4096, nullptr), nullptr);
    EXPECT_EQ(r.MapFile(nullptr, PAGE_READONLY, 0, 8192, nullptr), nullptr);
}

TEST(ZFileUnix, FilePointerSizeFindDataAndTimes) {
    qsTest::TempDir dir;
    std::string path = dir / "p";
    ZFileUnix f;
    DWORD done, sizeHigh = 7;
    EXPECT_EQ(f.SetFilePointer(0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_TRUE(!f.SetEndOfFile() && f.GetFileSize(nullptr) == INVALID_FILE_SIZE);
    ASSERT_EQ(Open(f, path, CREATE_NEW), QS_OK);
    ASSERT_TRUE(f.WriteFile("0123456789", 10, &done, nullptr));
    EXPECT_EQ(f.SetFilePointer(4, nullptr, FILE_BEGIN), 4u);
    EXPECT_TRUE(f.SetEndOfFile() && f.GetFileSize(nullptr) == 4);
    // Without high the distance is low sign-extended; with it, *high:low.
    LONG high = 0;
    const DWORD moves[] = {
        f.SetFilePointer(-1, nullptr, FILE_END), f.SetFilePointer(2, nullptr, FILE_CURRENT),
        f.SetFilePointer(-10, nullptr, FILE_BEGIN), f.SetFilePointer(0, nullptr, 3),
        f.SetFilePointer(-1, &high, FILE_BEGIN)};
    EXPECT_EQ(std::vector<DWORD>(moves, moves + 5), (std::vector<DWORD>{3, 5, ~0u, ~0u, ~0u}));
    EXPECT_EQ(errno, 0); // 0xFFFFFFFF was a real position, not a failure
    high = 1;
    EXPECT_EQ(f.SetFilePointer(0x10, &high, FILE_BEGIN), 0x10u);
    EXPECT_TRUE(f.SetEndOfFile());
    EXPECT_TRUE(f.GetFileSize(&sizeHigh) == 0x10 && sizeHigh == 0); // the high part is always 0
    LARGE_INTEGER size;
    EXPECT_TRUE(f.GetFileSizeEx(&size) && size.QuadPart == 0x100000010LL);
    high = -1;
    EXPECT_TRUE(f.SetFilePointer(-0x10, &high, FILE_CURRENT) == 0 && high == 1);

    WIN32_FIND_DATAA data;
    ASSERT_EQ(f.GetWinFindData(path.c_str(), &data), QS_OK);
    EXPECT_TRUE(data.dwFileAttributes == FILE_ATTRIBUTE_NORMAL && data.nFileSizeHigh == 1 &&
                data.nFileSizeLow == 0x10 && strcmp(data.cFileName, "p") == 0);
    EXPECT_EQ(f.GetWinFindData((dir / "missing/deeper").c_str(), &data), QS_E_NOT_FOUND);
    ASSERT_EQ(f.GetWinFindData(dir.Path().c_str(), &data), QS_OK);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_TRUE(f.IsDir(dir.Path().c_str()) && !f.IsDir(path.c_str()));

    // Times are whole seconds.  The conversion adds 0x49EF6F00 modulo 2^32, so
    // FILETIME 0 (1601) lands in 2009, not before 1970; only given times change.
    uint64_t day = QS_FILETIME_UNIX_EPOCH + 86400 * QS_FILETIME_PER_SECOND;
    FILETIME write = qsUInt64ToFileTime(day + 1234567), access = qsUInt64ToFileTime(day), zero{};
    ASSERT_TRUE(f.SetFileTime(nullptr, &access, &write));
    ASSERT_TRUE(f.GetFileTime(nullptr, &access, &write));
    EXPECT_TRUE(qsFileTimeToUInt64(write) == day && qsFileTimeToUInt64(access) == day);
    ASSERT_TRUE(f.SetFileTime(nullptr, nullptr, &zero));
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(st.st_mtime == time_t(0x49EF6F00) && st.st_atime == time_t(86400));
}

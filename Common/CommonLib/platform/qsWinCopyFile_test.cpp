#include "qsWinApi.h"

#include "qsTestSupport.h"
#include "qsUnprivileged.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>

static std::vector<uint8_t> Pattern(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = uint8_t((i * 2654435761u) >> 13);
    return bytes;
}

static mode_t ModeOf(const std::string& path) {
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

// Contents byte for byte and permission bits less the umask, through the
// mapped copy, and through the buffered one for the empty file.
TEST(CopyFileA, ContentsAndPermissionBits) {
    qsTest::TempDir dir;
    mode_t old = umask(027);
    // Size, source mode, target mode.
    std::tuple<size_t, mode_t, mode_t> cases[] = {{0, 0644, 0640},
                                                  {5, 0755, 0750},
                                                  {65536, 0600, 0600},
                                                  {65537, 0777, 0750},
                                                  {100u << 20, 0640, 0640}};
    for (auto [size, mode, expected] : cases) {
        std::string from = dir / ("s" + std::to_string(size)),
                    to = dir / ("t" + std::to_string(size));
        auto bytes = Pattern(size);
        qsTest::WriteFileBytes(from, bytes.data(), size);
        ASSERT_EQ(chmod(from.c_str(), mode), 0);
        ASSERT_TRUE(CopyFileA(from.c_str(), to.c_str(), TRUE)) << size << " errno " << errno;
        EXPECT_TRUE(qsTest::ReadFileBytes(to) == bytes) << size;
        EXPECT_EQ(ModeOf(to), expected) << size;
    }
    umask(old);
}

// failIfExists leaves an existing target as it was; without it the contents
// are replaced (the target keeps its own mode).  Failures leave errno as
// the cause and create nothing.
TEST(CopyFileA, ExistingTargetsAndFailures) {
    qsTest::TempDir dir;
    std::string from = dir / "from", to = dir / "to", sub = dir / "sub";
    qsTest::WriteFileText(from, "new contents");
    qsTest::WriteFileText(to, "keep");
    chmod(to.c_str(), 0604);
    errno = 0;
    EXPECT_FALSE(CopyFileA(from.c_str(), to.c_str(), TRUE));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(qsTest::ReadFileText(to) == "keep" && ModeOf(to) == 0604);
    EXPECT_TRUE(CopyFileA(from.c_str(), to.c_str(), FALSE));
    EXPECT_TRUE(qsTest::ReadFileText(to) == "new contents" && ModeOf(to) == 0604);

    mkdir(sub.c_str(), 0755);
    // Source, target, errno.  Copying a file onto itself must not truncate it.
    std::tuple<std::string, std::string, int> failures[] = {{dir / "missing", dir / "t1", ENOENT},
                                                            {from, dir / "none/t2", ENOENT},
                                                            {sub, dir / "t3", EISDIR},
                                                            {from, from, EINVAL}};
    for (auto& [source, target, error] : failures) {
        errno = 0;
        EXPECT_FALSE(CopyFileA(source.c_str(), target.c_str(), FALSE)) << source;
        EXPECT_EQ(errno, error) << source;
        EXPECT_TRUE(target == from || access(target.c_str(), F_OK) != 0) << target;
    }
    EXPECT_EQ(qsTest::ReadFileText(from), "new contents");
    EXPECT_FALSE(CopyFileA(nullptr, to.c_str(), FALSE));
    EXPECT_EQ(errno, 87);

    // A source its reader may not open; root reads everything, so as nobody.
    qsTest::WriteFileText(dir / "secret", "x");
    chmod((dir / "secret").c_str(), 0);
    int result = qsTest::RunUnprivileged(dir.Path(), [] {
        if (CopyFileA("secret", "copy", FALSE))
            return 1;
        return errno == EACCES && access("copy", F_OK) != 0 ? 0 : 2;
    });
    EXPECT_EQ(result, 0);
}

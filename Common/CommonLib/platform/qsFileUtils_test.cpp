#include "qsFileUtils.h"

#include "qsTestTree.h"
#include "qsUnprivileged.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

using namespace qsFileUtils;
using qsTest::DescribeTree;
using qsTest::Logged;
using qsTest::MakeTree;

using Tree = std::vector<std::string>;

// A private directory on another file system than the build tree.
class ShmDir {
public:
    ShmDir() {
        char templ[] = "/dev/shm/qsFileUtils-XXXXXX";
        m_Path = mkdtemp(templ) ? templ : "";
    }
    ~ShmDir() { std::filesystem::remove_all(m_Path); }
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }
    const std::string& Path() const { return m_Path; }

private:
    std::string m_Path;
};

TEST(qsFileUtils, CreateCleanAndRemoveTrees) {
    qsTest::TempDir dir;
    std::string root = dir / "a";
    MakeTree(dir.Path(), {"file=x", "outside/", "outside/kept=k"});
    // Path, status.  An existing tree is no failure; a file in the way is.
    std::pair<std::string, qsStatus> creates[] = {{root + "/b/c", QS_OK},
                                                  {root + "/b/c", QS_OK},
                                                  {root + "/d//e//", QS_OK},
                                                  {dir / "file", QS_E_DIR_CREATE},
                                                  {dir / "file/x/y", QS_E_DIR_CREATE},
                                                  {"", QS_E_INVALIDARG}};
    for (auto& [path, status] : creates)
        EXPECT_EQ(CreateDirectoryTree(path.c_str()), status) << path;
    EXPECT_EQ(Logged("creating directory <" + dir / "file").size(), 2u); // once each

    MakeTree(root, {"b/c/f=1", "b/g=2", "link->../outside", "b/c/loop->.."});
    EXPECT_EQ(CleanDirectoryTree((root + "/b").c_str()), QS_OK);
    EXPECT_EQ(DescribeTree(root + "/b"), Tree{});
    EXPECT_EQ(RemoveDirectoryTree(root.c_str()), QS_OK);
    EXPECT_EQ(access(root.c_str(), F_OK), -1);
    EXPECT_EQ(DescribeTree(dir / "outside"), Tree{"kept=k"}); // links are not followed

    // Operation, path, status, what its one report says.
    using Op = qsStatus (*)(const char*);
    std::tuple<Op, std::string, qsStatus, std::string> failures[] = {
        {RemoveDirectoryTree, root, QS_E_NOT_FOUND,
         "qsFileUtils::RemoveDirectoryTree: error 2 removing <" + root + ">."},
        {RemoveFile, dir / "gone", QS_E_NOT_FOUND,
         "qsFileUtils::RemoveFile: error 2 removing <" + dir / "gone>."},
        {RemoveFile, dir / "outside", QS_E_FILE_DELETE,
         "qsFileUtils::RemoveFile: error 21 removing <"},
        {CleanDirectoryTree, dir / "file", QS_E_DIR_READ,
         "qsFileUtils::CleanDirectoryTree: error 20 cleaning <"}};
    for (auto& [op, path, status, text] : failures) {
        EXPECT_EQ(op(path.c_str()), status) << path;
        int error = errno;
        auto records = Logged(text);
        ASSERT_EQ(records.size(), 1u) << text;
        EXPECT_TRUE(records[0].Severity() == 4 && records[0].Code() == error) << text;
    }
    EXPECT_EQ(RemoveFile((dir / "file").c_str()), QS_OK);
}

TEST(qsFileUtils, CopyTrees) {
    qsTest::TempDir dir;
    std::string from = dir / "from", to = dir / "to";
    mode_t old = umask(0);
    MakeTree(from, {"a=alpha", "empty/", "ro/", "ro/x=x", "sub/", "sub/deep/", "sub/deep/b=beta",
                    "link->sub/deep", "dangling->nowhere"});
    chmod((from + "/ro").c_str(), 0555);
    chmod((from + "/a").c_str(), 0604);
    Tree original = DescribeTree(from, true);
    ASSERT_EQ(CopyDirectoryTree(from.c_str(), to.c_str(), true), QS_OK);
    EXPECT_EQ(DescribeTree(to, true), original);

    // Again with failIfExists: every file and link is in the way, reported
    // once each, and left alone; without it they are replaced.
    qsTest::WriteFileText(to + "/a", "changed");
    EXPECT_EQ(CopyDirectoryTree(from.c_str(), to.c_str(), true), QS_E_FILE_EXISTS);
    EXPECT_EQ(qsTest::ReadFileText(to + "/a"), "changed");
    EXPECT_EQ(Logged("qsFileUtils::CopyDirectoryTree: error 17 copying").size(), 5u);
    EXPECT_EQ(CopyDirectoryTree(from.c_str(), to.c_str(), false), QS_OK);
    EXPECT_EQ(DescribeTree(to, true), original);

    // Into itself: the copy is not copied again.  Onto itself: refused.
    std::string inside = from + "/sub/copy";
    ASSERT_EQ(CopyDirectoryTree(from.c_str(), inside.c_str(), false), QS_OK);
    EXPECT_EQ(DescribeTree(inside, true), original);
    EXPECT_EQ(CopyDirectoryTree(from.c_str(), from.c_str(), false), QS_E_FILE_COPY);

    // A pipe cannot be copied; everything else still is.
    MakeTree(dir / "special", {"pipe|", "z=z"});
    EXPECT_EQ(CopyDirectoryTree((dir / "special").c_str(), (dir / "special2").c_str(), false),
              QS_E_FILE_COPY);
    EXPECT_EQ(DescribeTree(dir / "special2"), Tree{"z=z"});
    chmod((from + "/ro").c_str(), 0755);
    umask(old);
}

// Unreadable parts, where permissions really apply: reported once each and
// skipped, and everything else done.
TEST(qsFileUtils, UnreadableEntriesInTrees) {
    qsTest::TempDir dir;
    int result = qsTest::RunUnprivileged(dir.Path(), [] {
        MakeTree("t", {"locked/", "locked/x=x", "open/", "open/y=y", "secret=s"});
        chmod("t/locked", 0);
        chmod("t/secret", 0);
        if (CopyDirectoryTree("t", "copy", false) != QS_E_DIR_READ)
            return 1;
        if (DescribeTree("copy") != Tree{"locked/", "open/", "open/y=y"})
            return 2;
        if (RemoveDirectoryTree("t") != QS_E_DIR_READ)
            return 3;
        chmod("t/locked", 0700);
        return DescribeTree("t") == Tree{"locked/", "locked/x=x"} ? 0 : 4;
    });
    ASSERT_EQ(result, 0);
    EXPECT_EQ(Logged("error 13 reading directory <t/locked>.").size(), 2u); // copy, remove
    EXPECT_EQ(Logged("error 13 copying <t/secret>").size(), 1u);
}

TEST(qsFileUtils, MovesWithinAndAcrossFileSystems) {
    qsTest::TempDir dir;
    ShmDir shm;
    std::initializer_list<std::string> tree = {"a=alpha", "sub/", "sub/b=beta", "l->sub"};
    MakeTree(shm / "t", tree);
    Tree original = DescribeTree(shm / "t", true);
    // From, to: out of /dev/shm into the build tree, within it, and back.
    std::pair<std::string, std::string> moves[] = {
        {shm / "t", dir / "t"}, {dir / "t", dir / "u"}, {dir / "u", shm / "t"}};
    for (auto& [from, to] : moves) {
        ASSERT_EQ(RenameDirectoryTree(from.c_str(), to.c_str()), QS_OK) << from << " " << to;
        EXPECT_EQ(DescribeTree(to, true), original) << to;
        EXPECT_EQ(access(from.c_str(), F_OK), -1) << from;
    }
    qsTest::WriteFileText(shm / "f", "single");
    ASSERT_EQ(RenameDirectoryTree((shm / "f").c_str(), (dir / "f").c_str()), QS_OK);
    EXPECT_EQ(qsTest::ReadFileText(dir / "f"), "single");

    // Nothing is lost: an existing target is refused, and a copy that fails
    // (a pipe cannot be copied) is taken back, leaving the original.
    EXPECT_EQ(RenameDirectoryTree((shm / "t").c_str(), (dir / "f").c_str()), QS_E_FILE_EXISTS);
    MakeTree(shm / "t", {"pipe|"});
    EXPECT_EQ(RenameDirectoryTree((shm / "t").c_str(), (dir / "v").c_str()), QS_E_FILE_COPY);
    EXPECT_EQ(access((dir / "v").c_str(), F_OK), -1);
    EXPECT_EQ(DescribeTree(shm / "t").size(), original.size() + 1);

    // An original that cannot be removed after a complete copy stays, and so
    // does the copy.
    std::string source = shm / "ro";
    MakeTree(source, {"fixed/", "fixed/x=x"});
    chmod(shm.Path().c_str(), 0755);
    chown(source.c_str(), qsTest::kNobody, qsTest::kNobody);
    chmod((source + "/fixed").c_str(), 0555);
    int result = qsTest::RunUnprivileged(dir.Path(), [&] {
        if (RenameDirectoryTree(source.c_str(), "moved") != QS_E_FILE_DELETE)
            return 1;
        Tree both{"fixed/", "fixed/x=x"};
        return DescribeTree("moved") == both && DescribeTree(source) == both ? 0 : 2;
    });
    EXPECT_EQ(result, 0);
}

TEST(qsFileUtils, UniqueFileNames) {
    qsTest::TempDir dir;
    MakeTree(dir.Path(), {"log1.txt=", "log2.txt="});
    std::string path;
    ASSERT_EQ(CreateUniqueFile(dir.Path().c_str(), "log", ".txt", eUniqueNameCounter, path), QS_OK);
    EXPECT_EQ(path, dir / "log3.txt");
    struct stat st {};
    EXPECT_TRUE(stat(path.c_str(), &st) == 0 && st.st_size == 0 && (st.st_mode & 0777) == 0600);
    ASSERT_EQ(CreateUniqueFile(dir.Path().c_str(), "", nullptr, eUniqueNameGuid, path), QS_OK);
    std::string name = path.substr(dir.Path().size() + 1); // 8-4-4-4-12 hex digits
    std::string shape = name;
    for (char& c : shape)
        c = isxdigit((unsigned char)c) && !islower((unsigned char)c) ? 'h' : c;
    EXPECT_EQ(shape, "hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh") << name;
    EXPECT_EQ(CreateUniqueFile((dir / "none").c_str(), "x", "", eUniqueNameGuid, path),
              QS_E_NOT_FOUND);
    EXPECT_EQ(Logged("qsFileUtils::CreateUniqueFile: error 2 creating <" + dir / "none/").size(),
              1u);

    // Four processes, two of each kind, ask at once.  Had two of them been
    // given one name, fewer files than names given out would exist.
    constexpr int kEach = 150;
    ASSERT_EQ(CreateDirectoryTree((dir / "race").c_str()), QS_OK);
    std::vector<pid_t> children;
    for (int child = 0; child < 4; ++child) {
        if ((children.emplace_back(fork())) != 0)
            continue;
        for (int i = 0; i < kEach; ++i) {
            if (CreateUniqueFile((dir / "race").c_str(), "u", 0, eUniqueName(child % 2), path))
                _exit(1);
        }
        _exit(0);
    }
    for (pid_t pid : children) {
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(DescribeTree(dir / "race").size(), 4u * kEach);

    const char* p = "host:/export/dir/name";
    EXPECT_STREQ(GetLastSlash(p), "/name");
    EXPECT_EQ(GetLastSlash("name"), nullptr);
}

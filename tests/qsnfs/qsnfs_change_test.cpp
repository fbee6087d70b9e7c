// qsnfs's commands that change the server, each effect checked in the
// export directory itself; and whole files through put, get and cat.
#include "qsnfsTestSupport.h"

#include <gtest/gtest.h>

#include <random>
#include <sys/time.h>

using namespace qsnfsTest;

namespace {

mode_t Umask() {
    mode_t mask = umask(0);
    umask(mask);
    return mask;
}

std::string RandomBytes(size_t size, unsigned seed) {
    std::mt19937 gen(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = char(gen());
    return bytes;
}

void Ok(const Words& args) {
    Result r = Qsnfs(args);
    EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
    EXPECT_EQ(r.err, "") << args[0];
}

} // namespace

// mkdir (-p through existing and missing parents, and again), rmdir, rm of
// several, mv within a directory, into a directory and across directories.
TEST(QsnfsChange, DirectoriesNamesAndMoves) {
    Dir t("change-tree");
    Ok({"mkdir", t.R("m")});
    EXPECT_EQ(Lstat(t / "m").st_mode & 07777, 0777 & ~Umask());
    Ok({"mkdir", "-p", t.R("m/a/b/c")});
    Ok({"mkdir", "-p", t.R("m/a/b/c")});
    EXPECT_TRUE(S_ISDIR(Lstat(t / "m/a/b/c").st_mode));
    qsTest::WriteFileText(t / "f", "f");
    Result r = Qsnfs({"mkdir", "-p", t.R("f/x")});
    EXPECT_FAILED(r, "mkdir", t.R("f"), "0xE003020A");

    ino_t ino = Lstat(t / "f").st_ino;
    Ok({"mv", t.R("f"), t.R("g")});
    EXPECT_FALSE(Exists(t / "f"));
    EXPECT_EQ(Lstat(t / "g").st_ino, ino);
    Ok({"mv", t.R("g"), t.R("m")});
    EXPECT_EQ(Lstat(t / "m/g").st_ino, ino);
    Ok({"mv", t.R("m/g"), t.R("m/a/b/h")});
    EXPECT_EQ(Lstat(t / "m/a/b/h").st_ino, ino);
    Ok({"mv", t.R("m/a"), t.R("n")});
    EXPECT_EQ(Lstat(t / "n/b/h").st_ino, ino);

    qsTest::WriteFileText(t / "r1", "");
    qsTest::WriteFileText(t / "r2", "");
    Ok({"rm", t.R("r1"), t.R("r2"), t.R("n/b/h")});
    EXPECT_FALSE(Exists(t / "r1") || Exists(t / "r2") || Exists(t / "n/b/h"));
    Ok({"rmdir", t.R("n/b/c")});
    EXPECT_FALSE(Exists(t / "n/b/c"));
    EXPECT_TRUE(Exists(t / "n/b"));
}

// ln, ln -s and readlink; truncate past 4 GiB (sparse) and back; touch
// making a file and setting an old one's times to now.
TEST(QsnfsChange, LinksSizesAndTimes) {
    Dir t("change-attr");
    qsTest::WriteFileText(t / "f", "0123456789");
    Ok({"ln", t.R("f"), t.R("hard")});
    EXPECT_EQ(Lstat(t / "hard").st_ino, Lstat(t / "f").st_ino);
    Ok({"ln", "-s", "../some where/f", t.R("soft")});
    EXPECT_EQ(std::filesystem::read_symlink(t / "soft"), "../some where/f");
    EXPECT_EQ(Qsnfs({"readlink", t.R("soft")}).out, "../some where/f\n");

    Ok({"truncate", "-s", "5G", t.R("f")});
    EXPECT_EQ(Lstat(t / "f").st_size, 5ll << 30);
    Ok({"truncate", "-s", "4", t.R("f")});
    EXPECT_EQ(qsTest::ReadFileText(t / "f"), "0123");
    Ok({"truncate", "-s", "3K", t.R("new")});
    EXPECT_EQ(Lstat(t / "new").st_size, 3072);

    Ok({"touch", t.R("touched")});
    EXPECT_EQ(Lstat(t / "touched").st_mode & 07777, 0666 & ~Umask());
    struct timeval old[2] = {{946684800, 0}, {946684800, 0}}; // 2000-01-01
    ASSERT_EQ(utimes((t / "f").c_str(), old), 0);
    time_t before = time(nullptr);
    Ok({"touch", t.R("f")});
    struct stat st = Lstat(t / "f");
    EXPECT_GE(st.st_mtime, before);
    EXPECT_LE(st.st_mtime, time(nullptr));
    EXPECT_GE(st.st_atime, before);
}

// Objects made under --uid/--gid belong to them.  A put the server refuses
// says how much reached it: nothing when the target could not be emptied
// (it is left as it was), or when the first WRITE was refused.
TEST(QsnfsChange, CredentialsReachTheServer) {
    Dir t("change-creds");
    const Words user = {"--uid", "1234", "--gid", "5678,42"};
    auto as = [&](Words args) {
        args.insert(args.begin(), user.begin(), user.end());
        return Qsnfs(args);
    };
    EXPECT_EQ(as({"touch", t.R("mine")}).status, 0);
    EXPECT_EQ(Lstat(t / "mine").st_uid, 1234u);
    EXPECT_EQ(Lstat(t / "mine").st_gid, 5678u);

    qsTest::WriteFileText(t / "roots", "keep");
    qsTest::WriteFileText(t / "empty", "");
    qsTest::WriteFileText(t / "local", "new");
    Result r = as({"put", t / "local", t.R("roots")});
    EXPECT_FAILED(r, "put", t.R("roots"), "0xE0030206");
    EXPECT_NE(r.err.find("; the target was left as it was"), std::string::npos) << r.err;
    EXPECT_EQ(qsTest::ReadFileText(t / "roots"), "keep");
    r = as({"put", t / "local", t.R("empty")});
    EXPECT_FAILED(r, "put", t.R("empty"), "0xE0030206");
    EXPECT_NE(r.err.find("; 0 of 3 bytes reached the server"), std::string::npos) << r.err;
}

// put then get, cat and get - give back the same bytes, for a size that is
// a multiple of no chunk size, over each transport and the pipelined path;
// put replaces a longer file and reads standard input; only a terminal gets
// a progress bar.
TEST(QsnfsChange, PutGetRoundTrip) {
    Dir t("change-copy");
    qsTest::TempDir local("copy");
    const std::string data = RandomBytes(3 * 1048576 + 12345, 1);
    qsTest::WriteFileText(local / "src", data);

    Ok({"put", local / "src", t.R("f")});
    EXPECT_TRUE(qsTest::ReadFileText(t / "f") == data);
    Ok({"get", t.R("f"), local / "back"});
    EXPECT_TRUE(qsTest::ReadFileText(local / "back") == data);
    Result r = Qsnfs({"cat", t.R("f"), t.R("f")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out == data + data);
    for (const Words& mode : {Words{"--proto", "udp"}, Words{"--pipelined"}}) {
        Words put = mode, get = mode;
        put.insert(put.end(), {"put", local / "src", t.R(mode.back())});
        get.insert(get.end(), {"get", t.R(mode.back()), "-"});
        Ok(put);
        EXPECT_TRUE(qsTest::ReadFileText(t / mode.back()) == data) << mode.back();
        EXPECT_TRUE(Qsnfs(get).out == data) << mode.back();
    }

    // A shorter file replaces the longer one whole.
    RunOptions in;
    in.input = "short";
    r = Qsnfs({"put", "-", t.R("f")}, in);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(qsTest::ReadFileText(t / "f"), "short");
    Ok({"put", local / "src", t.R("")}); // into a directory, by name
    EXPECT_TRUE(qsTest::ReadFileText(t / "src") == data);

    // 4 MiB and more on a terminal: a bar, cleared at the end.
    qsTest::WriteFileText(t / "big", RandomBytes(6 << 20, 2));
    RunOptions tty;
    tty.ttyStderr = true;
    r = Qsnfs({"get", t.R("big"), local / "big"}, tty);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("100%"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.substr(r.err.size() - 4), "\r\033[K");
    EXPECT_EQ(Lstat(local / "big").st_size, 6 << 20);
}

// The command runs only while the server grants the lock, and its status
// is qsnfs's; without the lock it does not run at all.
TEST(QsnfsChange, LockRunsTheCommandOnlyWhenGranted) {
    Dir t("change-lock");
    std::string marker = t / "ran";
    Result r = Qsnfs({"lock", t.R("l"), "sh", "-c", "touch \"$0\"; exit 3", marker});
    EXPECT_TRUE(Exists(t / "l"));
    if (r.status == 1) {
        EXPECT_FAILED(r, "lock", t.R("l"), "0x");
        EXPECT_NE(r.err.find("lock not granted"), std::string::npos);
        EXPECT_FALSE(Exists(marker));
        return;
    }
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_TRUE(Exists(marker));
}

// Running the real qsnfs as a user does, beside the NFS test server: the
// tests run in the server's network namespace, where 127.0.0.1 is the
// server and QS_NFS_EXPORT the directory it exports.
#pragma once

#include "qsNFSTestServer.h"
#include "qsTestSupport.h"

#include <csignal>
#include <fcntl.h>
#include <optional>
#include <pty.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace qsnfsTest {

using Words = std::vector<std::string>;

struct Result {
    int status = -1; // the exit status; 128 + signal; -1: killed at the deadline
    std::string out, err;
    Words errLines;
};

struct RunOptions {
    std::optional<std::string> input; // standard input; else /dev/null
    bool ttyStderr = false;           // standard error on a terminal
};

inline Words Lines(const std::string& text) {
    Words lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Runs `argv` to its end, under a deadline far beyond any RPC time-out: a
// hang shows as status -1, not as a stuck test.
inline Result RunProgram(Words argv, const RunOptions& options = {}) {
    argv.insert(argv.begin(), {"timeout", "-s", "KILL", "90"});
    qsTest::TempDir dir("qsnfs");
    std::string in = options.input ? dir / "in" : "/dev/null";
    if (options.input)
        qsTest::WriteFileText(in, *options.input);
    int master = -1, slave = -1;
    if (options.ttyStderr && openpty(&master, &slave, nullptr, nullptr, nullptr) != 0)
        ADD_FAILURE() << "openpty failed";
    std::vector<char*> args;
    for (std::string& a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open(in.c_str(), O_RDONLY), STDIN_FILENO);
        dup2(open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(slave >= 0 ? slave : open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
             STDERR_FILENO);
        execvp(args[0], args.data());
        _exit(127);
    }
    Result r;
    if (slave >= 0) {
        // Read as the program writes, so that it never blocks on a full
        // terminal; the reads end when it closes its side.
        close(slave);
        char buffer[4096];
        for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;)
            r.err.append(buffer, size_t(n));
        close(master);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    if (r.status == 128 + SIGKILL)
        r.status = -1;
    r.out = qsTest::ReadFileText(dir / "out");
    if (!options.ttyStderr)
        r.err = qsTest::ReadFileText(dir / "err");
    r.errLines = Lines(r.err);
    return r;
}

inline Result Qsnfs(Words args, const RunOptions& options = {}) {
    args.insert(args.begin(), QSNFS_PATH);
    return RunProgram(args, options);
}

// The remote path of a local path in the export.
inline std::string Remote(const std::string& local) {
    return "127.0.0.1:" + local;
}

// A test's own directory of the export, emptied, with its local and remote
// names.
struct Dir {
    explicit Dir(const std::string& name) : sub(name) {}
    std::string operator/(const std::string& name) const { return sub / name; }
    std::string R(const std::string& name = "") const {
        return Remote(name.empty() ? sub.Path() : sub / name);
    }
    qsNFSTest::ExportSubdir sub;
};

using qsNFSTest::Lstat;

inline bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// A failure as qsnfs reports it: exit status 1 and exactly one line naming
// the command and the path, with the status code (or its start) in
// parentheses.
#define EXPECT_FAILED(r, command, path, code)                                                      \
    do {                                                                                           \
        EXPECT_EQ((r).status, 1) << (r).err;                                                       \
        ASSERT_EQ((r).errLines.size(), 1u) << (r).err;                                             \
        EXPECT_EQ(                                                                                 \
            (r).errLines[0].rfind(std::string("qsnfs: ") + (command) + " " + (path) + ": ", 0),    \
            0u)                                                                                    \
            << (r).err;                                                                            \
        EXPECT_NE((r).errLines[0].find(std::string("(") + (code)), std::string::npos) << (r).err;  \
    } while (0)

} // namespace qsnfsTest

// Running part of a test where file permissions really apply.
//
// Root passes every permission check, so a test that needs an unreadable
// file or directory runs that part in a forked child that has given root
// up: as root, the child switches to uid and gid 65534 ("nobody").  The
// directory `dir` is handed to that user for the run and is the child's
// working directory, entered by a descriptor opened before the switch, so
// the body works with relative paths whatever the access to dir's parents.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace qsTest {

constexpr uid_t kNobody = 65534;

// The body's exit code (0 for success by convention), or -1 when the child
// could not give up root or enter `dir`.
template <typename Body> int RunUnprivileged(const std::string& dir, Body body) {
    bool root = geteuid() == 0;
    if (root && chown(dir.c_str(), kNobody, kNobody) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
        if (fd < 0 ||
            (root &&
             (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) ||
            fchdir(fd) != 0)
            _exit(255);
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (root && chown(dir.c_str(), 0, 0) != 0)
        return -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 255)
        return -1;
    return WEXITSTATUS(status);
}

} // namespace qsTest

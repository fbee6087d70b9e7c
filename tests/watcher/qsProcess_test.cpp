// The child control on its own, with real children of the test process.
#include "qsProcess.h"
#include "watcherTestSupport.h"

using namespace qsWatcherTest;

namespace {
class ChildProcess : public ProcessTest {};
} // namespace

// Without a child held, signal() sends nothing and wait() fails, leaving the
// caller's status alone (the watcher reads an untouched 0 as a clean exit).
// An empty argument list and none at all (argc -1) make children that fail
// to execute and exit 1; once reaped, the child is no longer held.
TEST_F(ChildProcess, ExecFailureAndNoChild) {
    char* none[] = {nullptr};
    for (int argc : {0, -1}) {
        qsProcess::process child(argc, none);
        EXPECT_EQ(-1, child.signal(SIGTERM));
        int status = 12345;
        EXPECT_FALSE(child.wait(&status));
        EXPECT_EQ(12345, status);
        ASSERT_TRUE(child.start());
        ASSERT_TRUE(child.wait(&status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << argc << " " << status;
        EXPECT_EQ(-1, child.pid());
        EXPECT_EQ(-1, child.signal(SIGTERM));
    }
}

// The writer under every output form: escaping, numbers, and output larger
// than its buffer.
#include "qslogWriter.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace qslog;

TEST(QslogWriter, EscapesControlsAndSpillsLargeOutput) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    {
        Writer w(fds[1], 16);
        w.PutEscaped("a\tb\nc\rd\x1b[0m\x7f\xc3\xa9");
        w.Put('|');
        w.PutHex(0xABC, 6);
        w.Put('|');
        w.PutInt(-12);
        w.Put('|');
        w.PutUInt(18446744073709551615ULL);
        w.Put(std::string(40, 'x'));
    }
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        out.append(buf, size_t(n));
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(out, "a\tb\\nc\\rd\\x1b[0m\\x7f\xc3\xa9|000ABC|-12|18446744073709551615" +
                       std::string(40, 'x'));
}

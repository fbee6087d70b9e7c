// What a log text may put on a terminal: one line, well-formed UTF-8 without
// control characters; everything else is shown as an escape.
#include "qslogWriter.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace qslog;

namespace {

std::string Escaped(std::string_view text) {
    int fds[2];
    EXPECT_EQ(0, pipe(fds));
    {
        Writer out(fds[1]);
        out.PutEscaped(text);
    }
    close(fds[1]);
    std::string got(256, '\0');
    ssize_t n = read(fds[0], got.data(), got.size());
    close(fds[0]);
    got.resize(n > 0 ? size_t(n) : 0);
    return got;
}

} // namespace

TEST(QslogWriter, EscapesWhatCouldDriveATerminal) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"plain C:\\dir \"q\"", "plain C:\\dir \"q\""},
        {"h\u00e9llo \u2713 \U0001F600 \U0010FFFF", "h\u00e9llo \u2713 \U0001F600 \U0010FFFF"},
        {"a\nb\rc\td", "a\\nb\\rc\\td"},
        {std::string_view("\x1b[31m\x7f\0z", 8), "\\x1b[31m\\x7f\\x00z"},
        {"\u009b31m \u00a0", "\\xc2\\x9b31m \u00a0"}, // C1 CSI; NBSP is text
        {"bad\xff \xfe", "bad\\xff \\xfe"},           // never in UTF-8
        {"cut \xe2\x9c", "cut \\xe2\\x9c"},           // sequence cut short
        {"\xe2\x9c\xe2\x9c\x93", "\\xe2\\x9c\u2713"}, // cut short, then whole
        {"lone \x80 \xbf", "lone \\x80 \\xbf"},       // continuation bytes
        {"over \xc0\xaf \xe0\x80\xaf", "over \\xc0\\xaf \\xe0\\x80\\xaf"},
        {"sur \xed\xa0\x80", "sur \\xed\\xa0\\x80"},          // U+D800
        {"big \xf4\x90\x80\x80", "big \\xf4\\x90\\x80\\x80"}, // past U+10FFFF
    };
    for (auto [text, shown] : rows)
        EXPECT_EQ(Escaped(text), shown) << testing::PrintToString(std::string(text));
}

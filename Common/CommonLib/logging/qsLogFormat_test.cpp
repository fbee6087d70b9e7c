#include "qsLogFormat.h"

#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string Print(const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"

// Only the 'h' of "%hs" goes, and the plain form prints the same text.
TEST(qsLogFormat, DropsTheHOfNarrowStringsAndPrintsTheSameText) {
    struct {
        const char *format, *plain;
        bool print; // only strings are passed
    } cases[] = {{"%hs: error %hs waiting", "%s: error %s waiting", true},
                 {"[%-8.2hs|%*hs|%hd|%hhs|%hS|%ls]", "[%-8.2s|%*s|%hd|%hhs|%hS|%ls]", false},
                 {"100%% %%hs %hs", "100%% %%hs %s", true},
                 {"%hs%hs%%%.0hs", "%s%s%%%.0s", true},
                 {"no conversion: hs", "no conversion: hs", true}};
    for (const auto& c : cases) {
        char scratch[64];
        const char* plain = qsLogPlainFormat(c.format, scratch, sizeof scratch);
        EXPECT_STREQ(plain, c.plain);
        if (c.print) {
            EXPECT_EQ(Print(c.format, "ZMutex::Lock", "ab", "cde"),
                      Print(plain, "ZMutex::Lock", "ab", "cde"));
        }
    }
    // Positional arguments, a format too long for the scratch, none at all.
    char scratch[8];
    for (const char* kept : {"%1$hs %2$d", "%hs and more than eight", "%s %d"})
        EXPECT_EQ(qsLogPlainFormat(kept, scratch, sizeof scratch), kept);
    EXPECT_EQ(qsLogPlainFormat(nullptr, scratch, sizeof scratch), nullptr);
}

} // namespace

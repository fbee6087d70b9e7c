#include "qsLogFormat.h"

#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string Plain(const char* format) {
    char scratch[64];
    return qsLogPlainFormat(format, scratch, sizeof scratch);
}

// What the C library prints for a format, and for its plain form, must be the
// same characters.
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

TEST(qsLogFormat, DropsTheHOfNarrowStringConversionsOnly) {
    EXPECT_EQ(Plain("%hs: error %d waiting"), "%s: error %d waiting");
    EXPECT_EQ(Plain("%-12.3hs|%*hs|%hd|%hhs|%hS|%ls"), "%-12.3s|%*s|%hd|%hhs|%hS|%ls");
    EXPECT_EQ(Plain("100%% %%hs %hs"), "100%% %%hs %s");
    EXPECT_EQ(Plain("no conversion at all: hs"), "no conversion at all: hs");
}

TEST(qsLogFormat, LeavesFormatsItCannotRewriteAlone) {
    char scratch[8];
    const char* positional = "%1$hs %2$d";
    const char* longer = "%hs and more than eight";
    EXPECT_EQ(qsLogPlainFormat(positional, scratch, 64), positional);
    EXPECT_EQ(qsLogPlainFormat(longer, scratch, sizeof scratch), longer);
    EXPECT_EQ(qsLogPlainFormat(nullptr, scratch, sizeof scratch), nullptr);
    const char* none = "%s %d";
    EXPECT_EQ(qsLogPlainFormat(none, scratch, sizeof scratch), none);
}

TEST(qsLogFormat, PlainFormPrintsTheSameText) {
    const char* formats[] = {"%hs: error %d waiting on mutex", "[%8hs|%-8.2hs|%.0hs]",
                             "%hs%hs%%%hs"};
    for (const char* f : formats) {
        char scratch[128];
        const char* p = qsLogPlainFormat(f, scratch, sizeof scratch);
        EXPECT_EQ(Print(f, "ZMutex::Lock", "ab", "cde", 42),
                  Print(p, "ZMutex::Lock", "ab", "cde", 42))
            << f;
    }
}

} // namespace

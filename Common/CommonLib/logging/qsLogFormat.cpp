#include "qsLogFormat.h"

#include <cstring>

namespace {

bool IsFlag(char c) {
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\'' || c == 'I';
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Skips digits; null when they end in '$' (a positional argument).
const char* SkipNumber(const char* p) {
    while (IsDigit(*p))
        p++;
    return *p == '$' ? nullptr : p;
}

// Skips flags, width and precision of the conversion that starts after '%'.
// Null for a conversion with positional arguments.
const char* SkipToLength(const char* p) {
    if (!(p = SkipNumber(p)))
        return nullptr;
    while (IsFlag(*p))
        p++;
    if (*p == '*')
        p++;
    if (!(p = SkipNumber(p)))
        return nullptr;
    if (*p == '.') {
        p++;
        if (*p == '*')
            p++;
        if (!(p = SkipNumber(p)))
            return nullptr;
    }
    return p;
}

} // namespace

// One pass over the format; the text between conversions is copied in whole
// runs, and only once a "%...hs" shows that a copy is needed at all.
const char* qsLogPlainFormat(const char* format, char* scratch, size_t scratchSize) {
    if (!format)
        return format;
    char* out = scratch;
    const char* copied = format; // everything before this is in `out`
    for (const char* p = strchr(format, '%'); p; p = strchr(p, '%')) {
        if (p[1] == '%') {
            p += 2;
            continue;
        }
        if (!(p = SkipToLength(p + 1)))
            return format;
        // Exactly one 'h' before 's': leave it out.  "%hhs", "%hS" and the
        // rest go to the C library as written.
        if (p[0] != 'h' || p[1] != 's')
            continue;
        size_t run = size_t(p - copied);
        if (size_t(out - scratch) + run >= scratchSize)
            return format;
        memcpy(out, copied, run);
        out += run;
        copied = ++p;
    }
    if (copied == format)
        return format;
    size_t rest = strlen(copied) + 1;
    if (size_t(out - scratch) + rest > scratchSize)
        return format;
    memcpy(out, copied, rest);
    return scratch;
}

#include "qsLogFormat.h"

#include <cstring>

namespace {

bool IsFlag(char c) {
    return c && strchr("-+ #0'I", c);
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Skips flags, width and precision of the conversion that starts after '%'.
const char* SkipToLength(const char* p) {
    while (IsFlag(*p))
        p++;
    if (*p == '*')
        p++;
    while (IsDigit(*p))
        p++;
    if (*p == '.') {
        p++;
        if (*p == '*')
            p++;
        while (IsDigit(*p))
            p++;
    }
    return p;
}

} // namespace

const char* qsLogPlainFormat(const char* format, char* scratch, size_t scratchSize) {
    if (!format || !strstr(format, "hs") || strchr(format, '$'))
        return format;
    size_t length = strlen(format);
    if (length >= scratchSize)
        return format;

    char* out = scratch;
    bool changed = false;
    for (const char* p = format; *p;) {
        if (*p != '%') {
            *out++ = *p++;
            continue;
        }
        if (p[1] == '%') {
            *out++ = *p++;
            *out++ = *p++;
            continue;
        }
        const char* length_ = SkipToLength(p + 1);
        size_t head = size_t(length_ - p);
        memcpy(out, p, head);
        out += head;
        p = length_;
        // Exactly one 'h' before 's': drop it.  "%hhs", "%hS" and the rest
        // are left for the C library as written.
        if (p[0] == 'h' && p[1] == 's') {
            p++;
            changed = true;
        }
    }
    *out = '\0';
    return changed ? scratch : format;
}

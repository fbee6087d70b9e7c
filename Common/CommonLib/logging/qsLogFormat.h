// Narrow formats made cheaper for the C library without changing their text.
//
// The library's callers write "%hs" for a narrow string.  glibc prints it
// exactly like "%s" (the 'h' means nothing to 's'), but its fast formatter
// does not know the pair and hands the whole format to its general,
// positional one, which costs about as much again as the rest of a message.
#pragma once

#include <cstddef>

// Returns `format` itself, or a copy in `scratch` with the 'h' of every "%hs"
// conversion left out; the copy prints the same characters for the same
// arguments.  Formats with positional arguments ("%1$...") or too long for
// `scratch` come back unchanged.  A null format comes back null.
const char* qsLogPlainFormat(const char* format, char* scratch, size_t scratchSize);

// What every fuzz target shares: the libFuzzer entry point, and no default
// log streams (a target must not write log files of its own while it runs).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// A property that must hold for every input; a violation is a finding, so it
// aborts like a sanitizer report would.
#define FUZZ_CHECK(cond)                                                                           \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);               \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

// Byte-order reversal and bit counting.
//
// Used on the log append and read paths, so everything here is inline.
#pragma once

#include "qsWinTypes.h"

#include <cstdint>
#include <cstring>

// A 64-bit time value held as two 32-bit halves, low half first (a FILETIME).
union t_FILETIME_UInt64 {
    FILETIME ft;
    uint64_t u64;
};

namespace qsBitUtils {

inline uint16_t ReverseEndiannessOf(uint16_t v) { return __builtin_bswap16(v); }
inline uint32_t ReverseEndiannessOf(uint32_t v) { return __builtin_bswap32(v); }
inline int32_t ReverseEndiannessOf(int32_t v) { return int32_t(__builtin_bswap32(uint32_t(v))); }
inline uint64_t ReverseEndiannessOf(uint64_t v) { return __builtin_bswap64(v); }
inline int64_t ReverseEndiannessOf(int64_t v) { return int64_t(__builtin_bswap64(uint64_t(v))); }

// The pointer value itself, not the pointee: all of its bytes, which are
// four on the 32-bit platform and eight on a 64-bit build.
inline const void* ReverseEndiannessOf(const void* p) {
    uintptr_t v;
    memcpy(&v, &p, sizeof v);
    if constexpr (sizeof v == 8)
        v = uintptr_t(__builtin_bswap64(uint64_t(v)));
    else
        v = uintptr_t(__builtin_bswap32(uint32_t(v)));
    const void* r;
    memcpy(&r, &v, sizeof r);
    return r;
}

// Each half is reversed and the halves change places, which is the same as
// reversing all eight bytes of the 64-bit value.
inline t_FILETIME_UInt64 ReverseEndiannessOf(t_FILETIME_UInt64 v) {
    t_FILETIME_UInt64 r;
    r.ft.dwLowDateTime = __builtin_bswap32(v.ft.dwHighDateTime);
    r.ft.dwHighDateTime = __builtin_bswap32(v.ft.dwLowDateTime);
    return r;
}

// Clears the lowest set bit until nothing is left.
inline uint32_t CountBitsSet(uint32_t v) {
    uint32_t n = 0;
    for (; v != 0; v &= v - 1)
        ++n;
    return n;
}

} // namespace qsBitUtils

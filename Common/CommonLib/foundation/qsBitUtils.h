// Byte-order reversal and bit counting.
//
// Used on the log append and read paths, so everything here is inline.
#pragma once

#include "qsWinTypes.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

// A 64-bit time value held as two 32-bit halves, low half first (a FILETIME).
union t_FILETIME_UInt64 {
    FILETIME ft;
    uint64_t u64;
};

namespace qsBitUtils {

// Every integer type of 2, 4 or 8 bytes, whatever its name on this build
// (the same spelling is 4 bytes on one platform and 8 on another).
template <typename T>
    requires std::is_integral_v<T> && (sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8)
constexpr T ReverseEndiannessOf(T v) {
    if constexpr (sizeof(T) == 2)
        return T(__builtin_bswap16(uint16_t(v)));
    else if constexpr (sizeof(T) == 4)
        return T(__builtin_bswap32(uint32_t(v)));
    else
        return T(__builtin_bswap64(uint64_t(v)));
}

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

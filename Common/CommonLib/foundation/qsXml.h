// Numbers as hexadecimal texts of their stored bytes.
//
// The text is the value's bit pattern, not its decimal value: floating-point
// numbers round-trip exactly, NaNs and infinities included (1.0f is
// "3f800000").  Bytes are written from the most significant (the last in
// memory) to the least, two lowercase digits each, with leading zero digits
// left out; an all-zero value is "0".  Every byte of storage counts, so a
// long double carries its padding: up to 32 digits on x86_64, 24 on i386.
//
// Reading zeroes the value, then takes the digits from the end of the text
// backwards, two per byte from the least significant byte up.  Only 0-9, a-f
// and A-F are accepted: "0x", signs and blanks are rejected with 0xE0FF011A
// (the value may then be partly written), as is a text of more than
// 2 x sizeof(T) digits or a null text.  An empty text reads as 0.
#pragma once

#include "qsStatus.h"

#include <bit>
#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>

namespace qsXml {

static_assert(std::endian::native == std::endian::little,
              "the most significant byte is taken to be the last in memory");

// `out` must hold 2 * sizeof(T) + 1 characters.
template <typename T> qsStatus NumberToString(const T& value, char* out) {
    static_assert(std::is_trivially_copyable_v<T>);
    static const char kDigits[] = "0123456789abcdef";
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(std::addressof(value));
    char* p = out;
    for (size_t i = sizeof(T); i-- > 0;) {
        unsigned b = bytes[i];
        if (p != out || b >= 0x10)
            *p++ = kDigits[b >> 4];
        if (p != out || b != 0)
            *p++ = kDigits[b & 0xF];
    }
    if (p == out)
        *p++ = '0';
    *p = '\0';
    return QS_OK;
}

template <typename T> qsStatus NumberFromString(T& value, const char* text) {
    static_assert(std::is_trivially_copyable_v<T>);
    unsigned char* bytes = reinterpret_cast<unsigned char*>(std::addressof(value));
    memset(bytes, 0, sizeof(T));
    if (!text)
        return QS_E_BAD_NUMBER_TEXT;
    size_t n = strlen(text);
    if (n > 2 * sizeof(T))
        return QS_E_BAD_NUMBER_TEXT;
    for (size_t k = 0; k < n; ++k) {
        char c = text[n - 1 - k];
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = unsigned(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = unsigned(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            digit = unsigned(c - 'A' + 10);
        else
            return QS_E_BAD_NUMBER_TEXT;
        bytes[k / 2] |= static_cast<unsigned char>(k % 2 ? digit << 4 : digit);
    }
    return QS_OK;
}

} // namespace qsXml

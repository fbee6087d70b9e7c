// Number texts: any text is read without harm, and every value written out
// reads back to the same bytes, for every width in use.
//
// The input's first byte picks the type; the rest is the text.
#include "fuzzTarget.h"

#include "qsWinTypes.h"
#include "qsXml.h"

#include <cstring>
#include <string>

bool g_bLoggingDoAutoInit = false;

namespace {

template <typename T> void Check(const std::string& text) {
    T value;
    qsStatus s = qsXml::NumberFromString(value, text.c_str());
    bool hexOnly = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    FUZZ_CHECK(qsSucceeded(s) == (hexOnly && text.size() <= 2 * sizeof(T)));
    if (qsFailed(s))
        return;
    char out[2 * sizeof(T) + 1];
    FUZZ_CHECK(qsSucceeded(qsXml::NumberToString(value, out)));
    FUZZ_CHECK(strlen(out) <= 2 * sizeof(T) && (strlen(out) == 1 || out[0] != '0'));
    T again;
    FUZZ_CHECK(qsSucceeded(qsXml::NumberFromString(again, out)));
    FUZZ_CHECK(memcmp(&value, &again, sizeof(T)) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    // The library reads C strings: the text ends at the first zero byte.
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    text.resize(strlen(text.c_str()));
    switch (data[0] % 8) {
    case 0:
        return Check<bool>(text), 0;
    case 1:
        return Check<LONG>(text), 0;
    case 2:
        return Check<DWORD>(text), 0;
    case 3:
        return Check<float>(text), 0;
    case 4:
        return Check<long long>(text), 0;
    case 5:
        return Check<unsigned long long>(text), 0;
    case 6:
        return Check<double>(text), 0;
    default:
        return Check<long double>(text), 0;
    }
}

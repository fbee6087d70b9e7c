// Tokenising: tokens are the maximal runs of non-delimiters, in order, and
// nothing else comes out, except the one documented refusal: a non-empty
// text made only of delimiters throws std::out_of_range.
//
// The input's first byte is the number of delimiter characters that follow
// it (modulo 8); the rest is the text.
#include "fuzzTarget.h"

#include "qsTokenizeString.h"

#include <stdexcept>
#include <string>
#include <vector>

bool g_bLoggingDoAutoInit = false;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    size_t n = std::min<size_t>(data[0] % 8, size - 1);
    std::string delimiters(reinterpret_cast<const char*>(data + 1), n);
    std::string text(reinterpret_cast<const char*>(data + 1 + n), size - 1 - n);

    std::vector<std::string> tokens{"kept"};
    bool onlyDelimiters = text.find_first_not_of(delimiters) == std::string::npos;
    try {
        qsTokenizeString(text, delimiters, tokens);
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(!text.empty() && onlyDelimiters);
        return 0;
    }
    FUZZ_CHECK(text.empty() || !onlyDelimiters);
    FUZZ_CHECK(!tokens.empty() && tokens[0] == "kept");

    // The same split done the obvious way.
    std::vector<std::string> expected{"kept"};
    std::string run;
    for (char c : text) {
        if (delimiters.find(c) == std::string::npos) {
            run += c;
        } else if (!run.empty()) {
            expected.push_back(run);
            run.clear();
        }
    }
    if (!run.empty())
        expected.push_back(run);
    FUZZ_CHECK(tokens == expected);
    return 0;
}

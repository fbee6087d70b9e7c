// Splitting a string at delimiter characters.
#pragma once

#include <type_traits>
#include <vector>

// Appends the tokens of `text` to `tokens`, a token being a maximal run of
// characters not in `delimiters`; runs of delimiters make no empty tokens,
// and an empty text appends nothing.
//
// A non-empty text made only of delimiters throws std::out_of_range (from
// substr, asked to start past the end): callers rely on that to tell such a
// text from an empty one.
template <typename S>
void qsTokenizeString(const S& text, const std::type_identity_t<S>& delimiters,
                      std::vector<S>& tokens) {
    if (text.empty())
        return;
    typename S::size_type start = text.find_first_not_of(delimiters);
    typename S::size_type end = text.find_first_of(delimiters, start);
    for (;;) {
        tokens.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(delimiters, end);
        if (start == S::npos)
            return;
        end = text.find_first_of(delimiters, start);
    }
}

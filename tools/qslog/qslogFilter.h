// Which records to show: severity, process, time range, text pattern, code.
#pragma once

#include "qslogRecord.h"

#include <memory>
#include <optional>
#include <regex.h>
#include <string>
#include <string_view>
#include <vector>

namespace qslog {

// A POSIX extended regular expression (as grep -E), matched anywhere in a
// text that need not be NUL-terminated.
class Pattern {
public:
    Pattern() = default;
    ~Pattern();
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    bool Compile(const std::string& expression, bool ignoreCase, std::string& error);
    bool Search(std::string_view text) const;

private:
    regex_t m_Regex;
    bool m_Compiled = false;
};

// Reads a severity: a word (info, normal, warning or warn, error or err) or
// a number.  False when it is neither.
bool ParseSeverity(std::string_view text, int32_t& out);

struct Filter {
    // Records that are not messages count as severity 1 (normal).
    std::optional<int32_t> minSeverity;
    std::vector<DWORD> pids;
    // Message records only; compared as unsigned 32-bit.
    std::vector<DWORD> codes;
    std::optional<uint64_t> since; // FILETIMEs, inclusive
    std::optional<uint64_t> until;
    std::shared_ptr<Pattern> pattern; // on RecordText

    // True when the text of the record is needed to decide.
    bool NeedsText() const { return pattern != nullptr; }
    // `text` is RecordText(r), needed only when NeedsText().
    bool Matches(const Record& r, std::string_view text) const;
    // The same, rendering the text into `scratch` only when needed.
    bool Matches(const Record& r, std::string& scratch) const {
        return Matches(r, NeedsText() ? RecordText(r, scratch) : std::string_view());
    }
};

} // namespace qslog

#include "qslogFilter.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace qslog {

Pattern::~Pattern() {
    if (m_Compiled)
        regfree(&m_Regex);
}

bool Pattern::Compile(const std::string& expression, bool ignoreCase, std::string& error) {
    int flags = REG_EXTENDED | REG_NOSUB | (ignoreCase ? REG_ICASE : 0);
    int rc = regcomp(&m_Regex, expression.c_str(), flags);
    if (rc != 0) {
        char buf[256];
        regerror(rc, &m_Regex, buf, sizeof buf);
        error = "bad pattern '" + expression + "': " + buf;
        return false;
    }
    m_Compiled = true;
    return true;
}

bool Pattern::Search(std::string_view text) const {
    // REG_STARTEND bounds the match by the range given, so the text needs no
    // terminator and may hold NULs.
    regmatch_t range[1];
    range[0].rm_so = 0;
    range[0].rm_eo = regoff_t(text.size());
    static const char empty[1] = {};
    return regexec(&m_Regex, text.empty() ? empty : text.data(), 1, range, REG_STARTEND) == 0;
}

bool ParseSeverity(std::string_view text, int32_t& out) {
    static const struct {
        const char* name;
        int32_t value;
    } kNames[] = {{"info", 0}, {"normal", 1}, {"warning", 2},
                  {"warn", 2}, {"error", 3},  {"err", 3}};
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return char(tolower(c)); });
    for (const auto& n : kNames)
        if (lower == n.name) {
            out = n.value;
            return true;
        }
    if (lower.empty())
        return false;
    char* end = nullptr;
    long v = strtol(lower.c_str(), &end, 10);
    if (*end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return false;
    out = int32_t(v);
    return true;
}

bool Filter::Matches(const Record& r, std::string_view text) const {
    if (minSeverity && (r.IsMessage() ? r.Severity() : 1) < *minSeverity)
        return false;
    if (!pids.empty() && std::find(pids.begin(), pids.end(), r.info.GetProcessId()) == pids.end())
        return false;
    if (!codes.empty() &&
        (!r.IsMessage() || std::find(codes.begin(), codes.end(), DWORD(r.Code())) == codes.end()))
        return false;
    if (since && r.Time() < *since)
        return false;
    if (until && r.Time() > *until)
        return false;
    return !pattern || pattern->Search(text);
}

} // namespace qslog

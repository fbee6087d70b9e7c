#include "qslogSelect.h"

#include <algorithm>
#include <string>

namespace qslog {

std::vector<Entry> MergeByTime(std::vector<std::vector<Entry>>& perFile) {
    if (perFile.size() == 1)
        return std::move(perFile[0]);
    size_t total = 0;
    for (const auto& f : perFile)
        total += f.size();
    std::vector<Entry> out;
    out.reserve(total);
    // A handful of files: picking the earliest head each time is enough.
    std::vector<size_t> next(perFile.size(), 0);
    std::vector<uint64_t> lastTime(perFile.size(), 0);
    auto key = [&](size_t f) {
        const Entry& e = perFile[f][next[f]];
        return e.IsGap() ? lastTime[f] : e.rec.Time();
    };
    while (out.size() < total) {
        size_t best = perFile.size();
        for (size_t f = 0; f < perFile.size(); ++f)
            if (next[f] < perFile[f].size() && (best == perFile.size() || key(f) < key(best)))
                best = f;
        const Entry& e = perFile[best][next[best]++];
        if (!e.IsGap())
            lastTime[best] = e.rec.Time();
        out.push_back(e);
    }
    return out;
}

std::vector<size_t> Select(const std::vector<Entry>& entries, const Filter& filter,
                           std::optional<uint64_t> limit) {
    std::vector<size_t> chosen;
    std::string scratch;
    // Newest first, so that -n stops as soon as it has enough.
    uint64_t records = 0;
    for (size_t i = entries.size(); i-- > 0;) {
        if (limit && records >= *limit)
            break;
        const Entry& e = entries[i];
        if (e.IsGap()) {
            if (records > 0)
                chosen.push_back(i);
            continue;
        }
        if (!filter.Matches(e.rec, scratch))
            continue;
        chosen.push_back(i);
        ++records;
    }
    // Gaps found after the oldest record chosen lie outside the range.
    while (!chosen.empty() && entries[chosen.back()].IsGap())
        chosen.pop_back();
    std::reverse(chosen.begin(), chosen.end());
    return chosen;
}

} // namespace qslog

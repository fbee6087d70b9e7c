// Putting the records of several files in one order, and choosing those to
// print.
#pragma once

#include "qslogFilter.h"
#include "qslogWalk.h"

#include <optional>
#include <vector>

namespace qslog {

// One sequence ordered by record time, each file's own order kept (a gap
// stays behind the record it follows).
std::vector<Entry> MergeByTime(std::vector<std::vector<Entry>>& perFile);

// Positions in `entries` to print, in order: the records passing `filter`,
// only the last `limit` of them when given, and the gaps that lie between
// the first and the last record chosen.
std::vector<size_t> Select(const std::vector<Entry>& entries, const Filter& filter,
                           std::optional<uint64_t> limit);

} // namespace qslog

// --stat: what a log file's header says, and whether its records agree.
#pragma once

#include "qslogSource.h"
#include "qslogWriter.h"

#include <vector>

namespace qslog {

// One block of "name: value" lines for `source`, whose records (oldest
// first) are `entries`.
void PutStat(Writer& out, const LogSource& source, const std::vector<Entry>& entries);

} // namespace qslog

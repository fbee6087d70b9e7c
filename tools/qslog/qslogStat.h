// --stat: what a log file's header says, and whether its records agree.
#pragma once

#include "qslogSource.h"
#include "qslogWriter.h"

#include <vector>

namespace qslog {

// One block of "name: value" lines for `source`, whose records (oldest
// first) are `entries`.  The problems found in the file are not repeated
// here: they go to standard error, once, like those of every other mode.
void PutStat(Writer& out, const LogSource& source, const std::vector<Entry>& entries);

} // namespace qslog

// qslog's command line.
#pragma once

#include "qslogFilter.h"
#include "qslogFormat.h"

#include <optional>
#include <string>
#include <vector>

namespace qslog {

enum class ColorMode { Auto, Always, Never };

// Exit codes, shared by everything the tool reports.
enum : int {
    kExitOk = 0,
    kExitDamaged = 1, // a file could not be read, or only in part
    kExitUsage = 2,   // bad option or value, no such file, a directory
};

struct Options {
    std::vector<std::string> files; // empty: this host's default stream
    int stream = 0;                 // which default stream: 0 Default, 1 Events, 2 PerfCtrs
    bool follow = false;
    bool reverse = false;
    bool stat = false;
    std::optional<uint64_t> lines; // -n: the last N records shown
    OutputFormat format = OutputFormat::Short;
    ColorMode color = ColorMode::Auto;
    Filter filter;
};

// The follow loop's poll interval.
constexpr int kPollIntervalMs = 100;
// Records shown before following when -n is not given.
constexpr uint64_t kFollowBacklog = 10;

// Parses the command line; relative times are taken from `now` (a
// FILETIME).  Returns -1 when the program should go on with `out`; else the
// exit code, with the text to print in `text`: --help and --version (0, for
// standard output), a usage error (kExitUsage, for standard error).
int ParseOptions(int argc, const char* const* argv, uint64_t now, Options& out, std::string& text);

} // namespace qslog

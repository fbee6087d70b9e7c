#include "qslogOptions.h"

#include "qsVersion.h"
#include "qslogTime.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace qslog {

namespace {

const char* const kFooter = R"(Examples:
  qslog                           this host's default log, oldest record first
  qslog -n 20 -p warning          the last 20 warnings and errors
  qslog -f                        print the last 10 records, then follow (Ctrl-C stops)
  qslog --since "10 min ago" -g "exit|signal"
  qslog --stream events -r        the events log, newest first
  qslog -o json alpha_Default.log | jq -r 'select(.severity >= 3) | .text'
  qslog --stat alpha_Default.log  header, record count, wraps, validity
  ssh alpha cat Logs/alpha_Default.log | qslog -
                                  a log image read from standard input

Times for --since and --until: "2026-11-21 14:03[:07[.123]]", "14:03" (today),
"10 min ago", "-2h", "+30s", "@1790000000" (seconds since 1970), "today",
"yesterday", "now".  --until takes in the whole of its last field: a time
copied from the output includes the records printed with it.  Severities:
info (0), normal (1), warning (2), error (3+).

Without FILE, qslog reads <host>_Default.log in the log directory of the
logging library: QS_LOG_DIR, else "Logs" under HOME.  It only ever reads:
it never creates, writes or locks a log.  -f polls every 100 ms, and waits
for a log that does not exist yet.

Exit status: 0 every record read; 1 a file is damaged or cannot be read (what
is intact is still printed); 2 usage error: bad option or value, no such file,
a directory.  -f ends with 0 on SIGINT, SIGTERM, or when the file is replaced.)";

// Decimal digits only: no sign, no space, no fraction.  A count beyond any
// log's record count means all of them.
bool ParseCount(const std::string& text, uint64_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    out = strtoull(text.c_str(), nullptr, 10); // saturates
    return true;
}

bool ParseCode(const std::string& text, DWORD& out) {
    errno = 0;
    char* end = nullptr;
    if (!text.empty() && text[0] == '-') {
        long long v = strtoll(text.c_str(), &end, 0);
        if (errno || *end || v < INT32_MIN)
            return false;
        out = DWORD(int32_t(v));
        return true;
    }
    unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (text.empty() || errno || *end || v > UINT32_MAX)
        return false;
    out = DWORD(v);
    return true;
}

} // namespace

int ParseOptions(int argc, const char* const* argv, uint64_t now, Options& out, std::string& text) {
    CLI::App app{"Prints the records of the binary, circular log files written by the logging "
                 "library, oldest first.",
                 "qslog"};
    app.footer(kFooter);
    app.set_version_flag("--version", "qslog " QS_VERSION);
    app.get_formatter()->column_width(32);

    std::string stream = "default", output = "short", priority, since, until, pattern, lines;
    std::vector<std::string> codes;
    bool ignoreCase = false, color = false, noColor = false;

    app.add_option("FILE", out.files,
                   "Log files to read, - for standard input (default: this host's default "
                   "stream)");
    auto* streamOpt = app.add_option("--stream", stream, "Which default stream to read")
                          ->check(CLI::IsMember({"default", "events", "perfctrs"}));
    auto* follow =
        app.add_flag("-f,--follow", out.follow, "Keep printing records as they are appended");
    app.add_option("-n,--lines", lines, "Show only the last N records");
    auto* reverse = app.add_flag("-r,--reverse", out.reverse, "Newest record first");
    app.add_option("-p,--priority", priority,
                   "Minimum severity: info, normal, warning, error, or a number");
    app.add_option("--pid", out.filter.pids, "Only records of this process (repeatable)")
        ->allow_extra_args(false);
    app.add_option("--since", since, "Only records at or after this time");
    app.add_option("--until", until, "Only records at or before this time");
    app.add_option("-g,--grep", pattern, "Only records whose text matches this extended regex");
    app.add_flag("-i,--ignore-case", ignoreCase, "Match -g without regard to case");
    app.add_option("--code", codes, "Only messages with this code, hex or decimal (repeatable)")
        ->allow_extra_args(false);
    app.add_option("-o,--output", output, "Output form: short, json (one object per line), raw")
        ->check(CLI::IsMember({"short", "json", "raw"}));
    auto* stat = app.add_flag("--stat", out.stat,
                              "Print the header: size, counts, ids, times, byte order, validity");
    auto* colorOpt = app.add_flag("--color", color, "Colour by severity even into a pipe");
    auto* noColorOpt = app.add_flag("--no-color", noColor, "Never colour");
    colorOpt->excludes(noColorOpt);
    follow->excludes(reverse);
    follow->excludes(stat);

    try {
        app.parse(argc, argv);
        if (streamOpt->count() && !out.files.empty())
            throw CLI::ValidationError("--stream", "reads a default stream: give no FILE with it");
        if (out.follow && std::count(out.files.begin(), out.files.end(), "-"))
            throw CLI::ValidationError("--follow", "cannot follow standard input ('-')");
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            text = e.get_name() == "CallForVersion" ? std::string(e.what()) + "\n" : app.help();
            return kExitOk;
        }
        text = std::string("qslog: ") + e.what() + "\nTry 'qslog --help' for more information.\n";
        return kExitUsage;
    }

    auto usage = [&](const std::string& why) {
        text = "qslog: " + why + "\nTry 'qslog --help' for more information.\n";
        return kExitUsage;
    };
    out.stream = stream == "events" ? 1 : stream == "perfctrs" ? 2 : 0;
    out.format = output == "json"  ? OutputFormat::Json
                 : output == "raw" ? OutputFormat::Raw
                                   : OutputFormat::Short;
    out.color = color ? ColorMode::Always : noColor ? ColorMode::Never : ColorMode::Auto;

    if (app.count("--lines")) {
        uint64_t n;
        if (!ParseCount(lines, n))
            return usage("-n takes a count of 0 or more, not '" + lines + "'");
        out.lines = n;
    }
    if (!priority.empty()) {
        int32_t sev;
        if (!ParseSeverity(priority, sev))
            return usage("unknown severity '" + priority +
                         "' (info, normal, warning, error, or a number)");
        out.filter.minSeverity = sev;
    }
    for (const std::string& c : codes) {
        DWORD v;
        if (!ParseCode(c, v))
            return usage("bad code '" + c + "' (a 32-bit number, hex with 0x)");
        out.filter.codes.push_back(v);
    }
    std::string error;
    uint64_t span;
    if (!since.empty()) {
        if (!ParseTime(since, now, out.filter.since.emplace(), span, error))
            return usage(error);
    }
    // An end copied from the output ("14:03:07.123") takes in every record
    // printed with that time, not only those of its first 100 ns.
    if (!until.empty()) {
        if (!ParseTime(until, now, out.filter.until.emplace(), span, error))
            return usage(error);
        if (span > 0)
            *out.filter.until += span - 1;
    }
    if (!pattern.empty()) {
        auto p = std::make_shared<Pattern>();
        if (!p->Compile(pattern, ignoreCase, error))
            return usage(error);
        out.filter.pattern = p;
    }
    return -1;
}

} // namespace qslog

// qslog: prints, filters and follows the binary log files of the logging
// library.  See qslog --help and qslog(1).
#include "qsLog.h"
#include "qslogFollow.h"
#include "qslogOptions.h"
#include "qslogSelect.h"
#include "qslogSource.h"
#include "qslogStat.h"
#include "qslogTime.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

// A reader of logs must not open (and so create) the default streams that
// the library starts before main in every other program.
bool g_bLoggingDoAutoInit = false;

namespace {

using namespace qslog;

volatile sig_atomic_t g_Stop = 0;

void OnStopSignal(int) {
    g_Stop = 1;
}

// SIGINT, SIGTERM and SIGHUP end a follow cleanly; without SA_RESTART, so
// that a sleep or a blocked write returns at once.
void CatchStopSignals() {
    struct sigaction sa = {};
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
}

// The file of default stream `index` in the directory the library would
// use, found by the library's own code.
bool DefaultStreamPath(int index, std::string& path) {
    char dir[4096];
    DWORD dirLen = sizeof dir;
    char name[512];
    DWORD nameLen = sizeof name;
    if (qsFailed(qsLogGetLogDirectory(dir, dirLen)) ||
        qsFailed(qsLogGetStreamFileName(index, name, nameLen)))
        return false;
    path = std::string(dir) + "/" + name;
    return true;
}

bool UseColor(ColorMode mode) {
    if (mode != ColorMode::Auto)
        return mode == ColorMode::Always;
    const char* term = getenv("TERM");
    return isatty(STDOUT_FILENO) && !getenv("NO_COLOR") && !(term && strcmp(term, "dumb") == 0);
}

void Report(const std::string& path, const std::string& what) {
    fprintf(stderr, "qslog: %s: %s\n", path.c_str(), what.c_str());
}

} // namespace

int main(int argc, char** argv) {
    Options opt;
    std::string text;
    int rc = ParseOptions(argc, argv, NowFileTime(), opt, text);
    if (rc >= 0) {
        fputs(text.c_str(), rc == kExitOk ? stdout : stderr);
        return rc;
    }

    std::vector<std::string> paths = opt.files;
    if (paths.empty()) {
        std::string path;
        if (!DefaultStreamPath(opt.stream, path)) {
            fputs("qslog: cannot tell the log directory: set QS_LOG_DIR (absolute) or HOME\n",
                  stderr);
            return kExitUsage;
        }
        paths.push_back(path);
    }

    std::vector<std::string> names;
    for (const std::string& path : paths)
        names.push_back(LogSource::DisplayName(path));
    Writer out(STDOUT_FILENO);
    Formatter format(opt.format, UseColor(opt.color), names, paths.size() > 1);
    int status = kExitOk;
    std::vector<std::unique_ptr<LogSource>> sources;
    std::vector<int> sourceFile; // each source's index among the paths
    std::vector<std::vector<Entry>> perFile;

    for (size_t i = 0; i < paths.size(); ++i) {
        auto source = std::make_unique<LogSource>(paths[i]);
        std::vector<Entry> entries;
        bool opened = source->Open();
        // As tail -F does: a log that does not exist yet is waited for.
        if (!opened && opt.follow && source->Missing()) {
            Report(names[i], "does not exist yet; waiting for it to appear");
            sources.push_back(std::move(source));
            sourceFile.push_back(int(i));
            continue;
        }
        bool read = opened && source->Read(int(i), entries);
        for (const std::string& problem : source->Image().Problems())
            Report(names[i], problem);
        if (!source->Error().empty())
            Report(names[i], source->Error());
        status = std::max(status, source->Status());
        if (!read)
            continue;
        if (opt.stat) {
            if (i > 0)
                out.Put('\n');
            PutStat(out, *source, entries);
            continue;
        }
        format.PutHeader(out, source->Image(), int(i));
        perFile.push_back(std::move(entries));
        sources.push_back(std::move(source));
        sourceFile.push_back(int(i));
    }
    if (opt.stat) {
        out.Flush();
        return out.Failed() ? kExitDamaged : status;
    }

    std::vector<Entry> all = MergeByTime(perFile);
    std::optional<uint64_t> lines = opt.lines;
    if (opt.follow && !lines)
        lines = kFollowBacklog;
    std::vector<size_t> chosen = Select(all, opt.filter, lines);
    if (opt.reverse)
        std::reverse(chosen.begin(), chosen.end());
    for (size_t i : chosen)
        format.Put(out, all[i]);
    if (!out.Flush())
        return kExitDamaged;

    if (!opt.follow || sources.empty())
        return status;
    CatchStopSignals();
    std::vector<Follower> followers;
    followers.reserve(sources.size());
    for (size_t i = 0; i < sources.size(); ++i)
        followers.emplace_back(*sources[i], sourceFile[i], all);
    return FollowLoop(followers, opt.filter, format, out, g_Stop);
}

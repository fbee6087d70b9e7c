// The watcher's own lines in the default log of this test's QS_LOG_DIR.
#pragma once

#include "qsLog.h"
#include "qsLogRecords.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace qsWatcherTest {

inline std::string LogPath(const char* stream) {
    char dir[600], file[300];
    DWORD dirLength = sizeof dir, fileLength = sizeof file;
    EXPECT_EQ(qsLogGetLogDirectory(dir, dirLength), QS_OK);
    EXPECT_EQ(qsLogGetStreamFileName(stream[0] == 'D' ? 0 : 1, file, fileLength), QS_OK);
    return std::string(dir) + "/" + file;
}

inline off_t FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

struct Line {
    std::string text;
    int32_t severity;
    DWORD pid;
    bool operator==(const Line&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Line& l) {
    return out << "{" << l.text << ", sev " << l.severity << ", pid " << l.pid << "}";
}

// The message records of the default log written by processes other than
// this test.
inline std::vector<Line> WatcherLines() {
    std::vector<Line> lines;
    for (const auto& r : qsTest::ReadRecords(LogPath("Default"))) {
        if (r.Type() == LOGREC_STRING_A && r.info.GetProcessId() != DWORD(getpid()))
            lines.push_back({r.Text(), r.Severity(), r.info.GetProcessId()});
    }
    return lines;
}

inline std::string Hex(long v) {
    char s[32];
    snprintf(s, sizeof s, "%lx", v);
    return s;
}

} // namespace qsWatcherTest

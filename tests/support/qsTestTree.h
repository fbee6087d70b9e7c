// Small file trees for tests: built from a list, and described back as a
// list, with the standard library rather than the code under test.
#pragma once

#include "qsLog.h"
#include "qsLogRecords.h"
#include "qsTestSupport.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sys/stat.h>

namespace qsTest {

// Entries relative to root, parents first: "dir/" a directory, "name=text"
// a file, "name->target" a symbolic link, "name|" a named pipe.
inline void MakeTree(const std::string& root, std::initializer_list<std::string> entries) {
    namespace fs = std::filesystem;
    fs::create_directories(root);
    for (const std::string& e : entries) {
        size_t eq = e.find('='), arrow = e.find("->");
        if (arrow != std::string::npos)
            fs::create_symlink(e.substr(arrow + 2), root + "/" + e.substr(0, arrow));
        else if (eq != std::string::npos)
            WriteFileText(root + "/" + e.substr(0, eq), e.substr(eq + 1));
        else if (e.back() == '|')
            mkfifo((root + "/" + e.substr(0, e.size() - 1)).c_str(), 0644);
        else
            fs::create_directories(root + "/" + e);
    }
}

// The tree in MakeTree's notation, sorted, links not followed; with modes,
// each entry also carries its permission bits in octal.
inline std::vector<std::string> DescribeTree(const std::string& root, bool modes = false) {
    namespace fs = std::filesystem;
    std::vector<std::string> out;
    auto options = fs::directory_options::skip_permission_denied;
    for (auto it = fs::recursive_directory_iterator(root, options);
         it != fs::recursive_directory_iterator(); ++it) {
        std::string rel = fs::relative(it->path(), root).string();
        if (it->is_symlink())
            rel += "->" + fs::read_symlink(it->path()).string();
        else if (it->is_directory())
            rel += "/";
        else if (it->is_fifo())
            rel += "|";
        else
            rel += "=" + ReadFileText(it->path());
        if (modes) {
            struct stat st {};
            lstat(it->path().c_str(), &st);
            char octal[8];
            snprintf(octal, sizeof octal, " %o", unsigned(st.st_mode & 0777));
            rel += octal;
        }
        out.push_back(rel);
    }
    std::sort(out.begin(), out.end());
    return out;
}

// The default stream's messages that contain `text`.
inline std::vector<LogRecord> Logged(const std::string& text) {
    std::vector<LogRecord> found;
    for (LogRecord& r : ReadRecords(*g_pZLogStreamDefault)) {
        if (r.Text().find(text) != std::string::npos)
            found.push_back(std::move(r));
    }
    return found;
}

} // namespace qsTest

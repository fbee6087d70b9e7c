// One log file given to qslog: opened read-only, copied, walked.  The name
// "-" stands for standard input, which holds a log image (a pipe or a file);
// it is read once, as it comes.
#pragma once

#include "qslogImage.h"
#include "qslogWalk.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace qslog {

class LogSource {
public:
    explicit LogSource(std::string path) : m_Path(std::move(path)) {}
    ~LogSource();
    LogSource(const LogSource&) = delete;
    LogSource& operator=(const LogSource&) = delete;

    // Opens the file.  False with Status() and Error() set when it is
    // missing or a directory (usage) or cannot be opened (damaged/unreadable).
    bool Open();
    // Open() failed because there is no such file (yet).
    bool Missing() const { return m_Missing; }
    // Standard input ("-"): never re-read, so never followed.
    bool IsStdin() const { return m_Path == kStdinName; }
    // The name to show for it: the path, or "(standard input)".
    std::string Name() const { return DisplayName(m_Path); }
    static std::string DisplayName(const std::string& path) {
        return path == kStdinName ? "(standard input)" : path;
    }
    static constexpr const char* kStdinName = "-";
    // Copies the file and appends its records to `out`, oldest first, tagged
    // `file`.  False when nothing in it could be read as a log.
    bool Read(int file, std::vector<Entry>& out);

    const std::string& Path() const { return m_Path; }
    int Fd() const { return m_Fd; }
    dev_t Device() const { return m_Device; }
    ino_t Inode() const { return m_Inode; }
    const LogImage& Image() const { return m_Image; }
    const ChainSummary& Chain() const { return m_Chain; }
    // 0, or the exit code this file calls for: kExitDamaged or kExitUsage.
    int Status() const { return m_Status; }
    const std::string& Error() const { return m_Error; }

private:
    std::string m_Path;
    int m_Fd = -1;
    dev_t m_Device = 0;
    ino_t m_Inode = 0;
    LogImage m_Image;
    ChainSummary m_Chain;
    bool m_Regular = false;
    bool m_Missing = false;
    int m_Status = 0;
    std::string m_Error;
};

} // namespace qslog

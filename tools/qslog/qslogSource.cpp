#include "qslogSource.h"

#include "qslogOptions.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qslog {

namespace {
constexpr int kReadAttempts = 5;
}

LogSource::~LogSource() {
    if (m_Fd >= 0)
        close(m_Fd);
}

bool LogSource::Open() {
    m_Status = 0;
    m_Error.clear();
    m_Missing = false;
    struct stat st;
    if (IsStdin()) {
        m_Fd = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
        if (m_Fd < 0 || fstat(m_Fd, &st) != 0) {
            m_Status = kExitDamaged;
            m_Error = strerror(errno);
            return false;
        }
    } else if (stat(m_Path.c_str(), &st) != 0) {
        m_Missing = errno == ENOENT;
        m_Status = errno == ENOENT || errno == ENOTDIR ? kExitUsage : kExitDamaged;
        m_Error = errno == ENOENT ? "no such file" : strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        m_Status = kExitUsage;
        m_Error = "is a directory, not a log file";
        return false;
    }
    if (!S_ISREG(st.st_mode) && !IsStdin()) {
        m_Status = kExitUsage;
        m_Error = "not a regular file";
        return false;
    }
    if (!IsStdin())
        m_Fd = open(m_Path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (m_Fd < 0 || fstat(m_Fd, &st) != 0) {
        m_Status = kExitDamaged;
        m_Error = strerror(errno);
        return false;
    }
    m_Regular = S_ISREG(st.st_mode);
    m_Device = st.st_dev;
    m_Inode = st.st_ino;
    return true;
}

bool LogSource::Read(int file, std::vector<Entry>& out) {
    // Writers that go round the whole file while it is copied leave nothing
    // certain in the copy: copy again, a few times.
    std::vector<Entry> mine;
    Confirm confirm = Confirm::Overrun;
    for (int attempt = 0; attempt < kReadAttempts && confirm == Confirm::Overrun; ++attempt) {
        switch (m_Image.Read(m_Fd)) {
        case LogImage::Load::Ok:
            break;
        case LogImage::Load::NotALog:
            m_Status = kExitDamaged;
            return false;
        case LogImage::Load::TooLarge:
            m_Status = kExitDamaged;
            m_Error = "too large to be a log file";
            return false;
        case LogImage::Load::ReadError:
            m_Status = kExitDamaged;
            m_Error = strerror(errno);
            return false;
        }
        mine.clear();
        m_Chain = CollectRecords(m_Image, 0, file, mine);
        // A pipe cannot be read again, and nobody writes what it brings.
        confirm = m_Regular ? ConfirmWithFile(m_Fd, m_Image, mine) : Confirm::Whole;
    }
    if (confirm == Confirm::Overrun) {
        mine.clear();
        m_Image.AddProblem("written over faster than it can be read; try again");
    }
    out.insert(out.end(), mine.begin(), mine.end());
    if (!m_Image.Problems().empty())
        m_Status = kExitDamaged;
    return true;
}

} // namespace qslog

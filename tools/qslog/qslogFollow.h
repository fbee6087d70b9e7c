// Following a log that other processes append to, without writing to it or
// taking its lock.
//
// Each poll reads the 28-byte header; when it changed (or the newest record
// was still being written last time) the file is copied again and walked
// from the newest record back to the last one printed.  The copy is checked
// against the file afterwards (see ConfirmWithFile): a record is printed only
// once its bytes are known to be whole.  When the writers have overwritten
// records before they could be printed, one line says how many were lost.
// When record ids start again (the log was cleared, re-initialised or
// resized), printing resumes after the last record printed if it is still
// there (found by its time, process, thread and type), else from the oldest.
// The file being removed or replaced by another one ends the follow.  A file
// that did not exist when following began is looked for at every poll and,
// once it appears, followed from its first record.
#pragma once

#include "qslogFilter.h"
#include "qslogFormat.h"
#include "qslogSource.h"

#include <csignal>
#include <string>
#include <vector>

namespace qslog {

class Follower {
public:
    // `source` has been read, and `seen` are the records of that read; or it
    // could not be opened because it does not exist yet.
    Follower(LogSource& source, int file, const std::vector<Entry>& seen);

    enum class Poll { Quiet, Fresh, Replaced, Appeared, Failed };
    // Looks for new records; on Fresh, `fresh` holds them (oldest first) and
    // `lost` the count of records overwritten before they could be read.
    // While the file does not exist: Quiet, then Appeared once it could be
    // opened (records come with the next Check), or Failed when it appeared
    // but cannot be opened (see the source's Error()).
    Poll Check(std::vector<Entry>& fresh, DWORD& lost);
    const LogSource& Source() const { return m_Source; }
    int File() const { return m_File; }

private:
    void Remember(const Record& r);
    bool SameAsLast(const Record& r) const;

    LogSource& m_Source;
    int m_File;
    LogImage m_Image; // the copy the latest fresh records point into
    uint8_t m_Header[LOG_FILE_HEADER_SIZE] = {};
    std::string m_Held; // the newest record's bytes, waiting to be seen unchanged
    bool m_Pending = true;
    bool m_HaveLast = false;
    DWORD m_LastId = 0;
    uint64_t m_LastTime = 0;
    DWORD m_LastPid = 0, m_LastTid = 0;
    qsLogRecType m_LastType = 0;
};

// Polls every kPollIntervalMs until `stop` is set (by a signal handler) or
// every file has been replaced (or has appeared and cannot be read),
// printing what passes `filter`.  Returns the exit code.
int FollowLoop(std::vector<Follower>& followers, const Filter& filter, Formatter& format,
               Writer& out, volatile sig_atomic_t& stop);

} // namespace qslog

// Pattern-matched listing of a directory, optionally recursive, as
// Windows-style find records.
//
//     ZDirectory d;
//     WIN32_FIND_DATAA fd;
//     for (qsStatus s = d.FindFirst("/var/log", "*.log", ZDirectory::eFiles, true, &fd);
//          s == QS_OK; s = d.FindNext(&fd))
//         use(d.GetRelativePath(), fd);
//
// Names are matched with PathMatchSpec (shell wildcards; a leading "." is not
// special).  "." and ".." are never returned.  Each directory's entries come
// in byte order of their names; a recursive listing returns a directory
// before its contents.  A record is cleared whole and then filled as the
// attribute query would: attributes by the mode bits (so a socket counts as a
// directory, and a symbolic link's target decides), access and write times
// to the second, the 64-bit size in two words, the name.
//
// Symbolic links to directories are followed, but never into a directory
// that is already being listed further up, so a link cannot lead into a
// loop.  A subdirectory that cannot be read is reported once and skipped;
// the listing goes on (GetSkippedCount tells how many were skipped).  Other
// failures are reported once, where they happen, in the "%hs: error %d ..."
// form.  One object is used by one thread at a time.
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

#include <string>
#include <sys/types.h>
#include <vector>

class ZDirectory {
public:
    // Which entries to return; by the directory attribute bit.
    enum eKinds : DWORD {
        eFiles = 1,
        eDirectories = 2,
        eFilesAndDirectories = 3,
    };

    ZDirectory();
    ~ZDirectory();
    ZDirectory(const ZDirectory&) = delete;
    ZDirectory& operator=(const ZDirectory&) = delete;

    // Starts a listing of `dir` (any listing already under way is closed)
    // and returns its first entry: QS_OK with *data filled;
    // QS_W_NO_MORE_ENTRIES when nothing matches; 0xE0FF0108 (missing) or
    // 0xE002010E (not a directory, unreadable) when `dir` cannot be listed;
    // 0x80000003 for a null argument or no kind.  A null or empty pattern
    // matches every name.
    qsStatus FindFirst(const char* dir, const char* pattern, DWORD kinds, bool recursive,
                       WIN32_FIND_DATAA* data);
    // The next entry: QS_OK, or QS_W_NO_MORE_ENTRIES at the end (and when no
    // listing is under way).
    qsStatus FindNext(WIN32_FIND_DATAA* data);
    // The last entry's path relative to the listed directory ("sub/name").
    const std::string& GetRelativePath() const { return m_Current; }
    DWORD GetSkippedCount() const { return m_Skipped; }
    void Close();

    struct Entry {
        std::string relativePath;
        WIN32_FIND_DATAA data;
    };
    // The whole listing at once.  QS_OK, also when nothing matches; the
    // failures of FindFirst otherwise, with `entries` empty.
    static qsStatus List(const char* dir, const char* pattern, DWORD kinds, bool recursive,
                         std::vector<Entry>& entries);

private:
    struct Frame {
        std::string relativeDir; // "" for the listed directory itself
        std::vector<std::string> names;
        size_t next;
        dev_t dev;
        ino_t ino;
    };

    bool OnStack(dev_t dev, ino_t ino) const;
    bool Push(const char* who, std::string relativeDir, dev_t dev, ino_t ino, int* error);

    std::string m_Root;
    std::string m_Pattern;
    DWORD m_Kinds;
    bool m_Recursive;
    std::vector<Frame> m_Stack;
    std::string m_Current;
    DWORD m_Skipped;
};

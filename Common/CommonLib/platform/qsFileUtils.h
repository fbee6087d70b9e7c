// File and directory-tree utilities on local paths.
//
// Every function returns a status: 0 when everything was done, a code with
// the top bit set otherwise.  Each failure is reported once, where it
// happens, as "qsFileUtils::<Operation>: error <errno> <doing what> <path>."
// at severity 4 with errno as the code, so callers need not report it again.
// A missing path gives 0xE0FF0108.  Tree operations carry on past a failing
// entry, doing all they can, and return the status of the first failure.
//
// Symbolic links inside a tree are never followed: they are copied, moved
// and removed as links.  Paths are POSIX paths ("/" separates).
#pragma once

#include "qsStatus.h"

#include <string>

namespace qsFileUtils {

// Creates the directory and its missing parents (mode 0777 less the umask).
// One that exists already, also when another process has just made it, is
// success; a non-directory in its place is 0xE0020109.
qsStatus CreateDirectoryTree(const char* path);

// Copies the tree at `from` into `to`, creating `to` (and merging into it
// when it exists).  Files go through CopyFileA (contents and permission
// bits, less the umask); directories get their source's permission bits,
// less the umask; links are recreated as links.  With failIfExists a file
// or link already at its target fails (0xE002010F) and is left untouched.
// Other kinds of file (sockets, pipes, devices) cannot be copied: each is a
// failure (0xE002010C).  `from` may also be a single file or link.  Copying
// a directory into itself or below itself never copies the copy.
qsStatus CopyDirectoryTree(const char* from, const char* to, bool failIfExists);

// Empties the directory (a link to one counts), leaving it in place.
qsStatus CleanDirectoryTree(const char* path);

// Removes the tree, or the single file or link, at `path`.
qsStatus RemoveDirectoryTree(const char* path);

// Renames or moves the tree, file or link at `from` to `to`, which must not
// exist (0xE002010F).  Within one file system this is one rename(2); across
// file systems the tree is copied and then the original removed.  A copy
// that fails is taken back, leaving only the original; a removal that fails
// after a complete copy leaves both.  Either way nothing is lost.  Times are
// not kept across file systems.
qsStatus RenameDirectoryTree(const char* from, const char* to);

// Removes one file (not a directory); a failure is 0xE002010B or 0xE0FF0108.
qsStatus RemoveFile(const char* path);

enum eUniqueName {
    eUniqueNameCounter = 0, // prefix1suffix, prefix2suffix, ...: the first free one
    eUniqueNameGuid = 1,    // prefix, a GUID as 8-4-4-4-12 hex digits, suffix
};
// Creates a new empty file (mode 0600) in `dir` named from the prefix
// (may be empty), a counter or a GUID, and the suffix (may be null), and
// returns its path.  The file is created exclusively (O_EXCL), so two
// processes asking at once never get the same name: the loser of a race
// moves on to the next name.  The caller owns the file.
qsStatus CreateUniqueFile(const char* dir, const char* prefix, const char* suffix, eUniqueName kind,
                          std::string& path);

// The last separator of either kind, or null: where a path's last node
// begins (as qsPath::GetLastSlash).
const char* GetLastSlash(const char* path);

} // namespace qsFileUtils

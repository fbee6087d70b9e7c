// qsnfs's commands over the browse interface of the NFS client.
#pragma once

#include "qsNFSBrowse.h"
#include "qsnfsOptions.h"

#include <map>
#include <memory>
#include <string>

namespace qsnfs {

using EntryPtr = std::unique_ptr<qsNFSUtils::DirEntry>;

class Tool {
public:
    explicit Tool(const Options& options);
    ~Tool();
    Tool(const Tool&) = delete;
    Tool& operator=(const Tool&) = delete;

    // Runs the command and returns the exit status.
    int Run();

private:
    int Exports();
    int Ls();
    int Stat();
    int Cat();
    int Get();
    int Put();
    int Rm();
    int Mkdir();
    int Rmdir();
    int Mv();
    int Ln();
    int Readlink();
    int Truncate();
    int Touch();
    int Df();
    int Lock();

    // The browse object of `host`, made on first use with the options'
    // credentials and transport; null with the reason in `code`.
    qsNFSUtils::NFSBrowse* Browse(const std::string& host, int32_t& code);
    EntryPtr Open(const RemotePath& remote, int32_t& code);
    // The parent directory of `remote` and, when `entry` is given, the
    // object itself, found in it.
    EntryPtr OpenParent(const RemotePath& remote, qsNFSUtils::DirEntry* entry, int32_t& code);
    // The regular file at `remote`, made with `mode` when it is missing.
    EntryPtr OpenOrCreate(const RemotePath& remote, uint32_t mode, int32_t& code);
    std::string LinkText(const RemotePath& remote, const qsNFSUtils::DirEntry& entry);
    int ListDirectory(const RemotePath& remote, const qsNFSUtils::DirEntry& directory,
                      bool header);
    void PrintEntry(const RemotePath& remote, const qsNFSUtils::DirEntry& entry, size_t width);
    // Reads `file` to the end into `fd`; false after reporting a failure,
    // with what had been written in `written`.
    bool Copy(const RemotePath& remote, const qsNFSUtils::DirEntry& file, int fd,
              const std::string& target, uint64_t& written);

    // The one line a failure gets on standard error:
    // "qsnfs: COMMAND PATH: REASON (0xCODE)TAIL"; returns kExitFailed.
    int Fail(const RemotePath& remote, int32_t code, const std::string& reason = "",
             const std::string& tail = "");
    // The same for a local file and errno.
    int FailLocal(const std::string& path, const std::string& what, int error,
                  const std::string& tail = "");
    int FailType(const RemotePath& remote, const char* what);

    const Options& m_Opt;
    uint32_t m_Umask;
    std::map<std::string, std::unique_ptr<qsNFSUtils::NFSBrowse>> m_Browse;
    std::map<std::string, std::pair<int32_t, std::string>> m_BrowseFailures; // code, detail
    // Why the browse object just asked for could not be made, beyond its
    // code: the C library's reason, "connection refused" and the like.  The
    // next failure's line shows it and clears it.
    std::string m_CreateDetail;
};

} // namespace qsnfs

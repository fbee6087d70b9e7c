// The browse interface: the NFS client's handle on one server as seen by one
// set of credentials.
//
// A browse object mounts the server's exports, walks paths to file handles,
// reads and writes files, creates, deletes and renames objects and takes
// advisory locks.  Callers see only NFSBrowse and the records below; the
// implementation (NFS version 3 over the clients of qsRPCWrappers.h) is
// private to the library.
//
// Operations that return int32_t answer 0 on success and a negative status
// code (qsNFSStatus.h; qsStatus(result) for qsFailed()) on failure.  Every
// failure is logged once where it happens, through the error translation,
// and its code is kept as the object's last error until the next failure.
//
// One thread at a time uses a browse object; it has no lock of its own.
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

#include <cstdint>
#include <string>
#include <vector>

class ZBuffer;

namespace qsNFSUtils {

enum eUseProtocol : int;

// The NFS file types (ftype3): 1 regular file, 2 directory, 3 block device,
// 4 character device, 5 symbolic link, 6 socket, 7 named pipe; 8 marks an
// entry whose type is not known yet.
enum eFileType : uint32_t {
    eTypeRegular = 1,
    eTypeDirectory = 2,
    eTypeBlock = 3,
    eTypeCharacter = 4,
    eTypeSymlink = 5,
    eTypeSocket = 6,
    eTypeFifo = 7,
    eTypeUnknown = 8,
};

// Mask bits of NFSBrowse::SetAttributes: which of the entry's fields are
// sent to the server.  Size and the two times are the ones the NFS-backed
// file uses; mode and owner serve tools.
enum eAttributeMask : uint32_t {
    eAttrMode = 1,       // DirEntry::m_Mode, permission bits
    eAttrUid = 2,        // DirEntry::m_Uid
    eAttrGid = 4,        // DirEntry::m_Gid
    eAttrSize = 8,       // DirEntry::m_Size: truncate or extend
    eAttrAccessTime = 16, // DirEntry::m_LastAccessTime
    eAttrWriteTime = 32, // DirEntry::m_LastWriteTime
};

// Bits of NFSBrowse::Access, those of the NFS ACCESS procedure.
enum eAccessMask : uint32_t {
    eAccessRead = 0x01,
    eAccessLookup = 0x02,
    eAccessModify = 0x04,
    eAccessExtend = 0x08,
    eAccessDelete = 0x10,
    eAccessExecute = 0x20,
};

constexpr uint32_t QS_DIRENTRY_MARK = 0xFEFFFEFF;
constexpr uint32_t QS_NFS_HANDLE_MAX = 128;

// One object on the server.
struct DirEntry {
    uint32_t m_Mark = QS_DIRENTRY_MARK;
    std::string m_Path;                    // on the server, from the export's root: "/export/dir/name"
    uint32_t m_Type = eTypeUnknown;        // eFileType
    uint64_t m_Size = 0;
    FILETIME m_LastAccessTime = {0, 0};
    FILETIME m_LastWriteTime = {0, 0};
    // The NFS file handle.  The buffer is zero-filled past the handle's
    // length: lock requests send short handles padded to 32 bytes from it.
    uint8_t m_Handle[QS_NFS_HANDLE_MAX] = {};
    uint32_t m_HandleLength = 0;
    std::string m_Name;                    // the last component of m_Path

    // Beyond the fields above, the rest of what GETATTR tells.
    uint64_t m_FileSystemId = 0;
    uint64_t m_FileId = 0;
    uint32_t m_Mode = 0;                   // permission bits (07777)
    uint32_t m_Uid = 0;
    uint32_t m_Gid = 0;
    uint32_t m_LinkCount = 0;
    FILETIME m_ChangeTime = {0, 0};
    // A symbolic link's text, for NFSBrowse::CreateObject to send.
    std::string m_LinkText;

    // Fills a Windows-style find record: cleared whole, attributes 0x10 for a
    // directory and 0 for anything else, the two times, the size split in
    // two words and the part of m_Path after its last slash as the name.
    // 0x80000003 for a null record, 0xE0FF0109 when the name and its
    // terminator do not fit in the record's 260 characters.
    qsStatus CopyToWin32FindData(WIN32_FIND_DATAA* data) const;
};

// One export of the server and what the browse object has learnt of its file
// system.
struct ExportInfo {
    std::string m_Path;                    // the export's path on the server
    // The root directory's handle, once the export has been mounted.
    uint8_t m_RootHandle[QS_NFS_HANDLE_MAX] = {};
    uint32_t m_RootHandleLength = 0;

    // The numeric block, cleared by InitExportInfo and filled from FSINFO,
    // FSSTAT and PATHCONF of the export's root.
    struct Facts {
        bool m_Known;                      // the three procedures answered
        // FSINFO
        uint32_t m_ReadMax, m_ReadPreferred, m_ReadMultiple;
        uint32_t m_WriteMax, m_WritePreferred, m_WriteMultiple;
        uint32_t m_DirectoryPreferred;
        uint64_t m_MaxFileSize;
        uint32_t m_TimeDeltaSeconds, m_TimeDeltaNanoseconds;
        uint32_t m_Properties;             // FSF3_LINK 1, FSF3_SYMLINK 2, FSF3_HOMOGENEOUS 8, FSF3_CANSETTIME 0x10
        // FSSTAT
        uint64_t m_TotalBytes, m_FreeBytes, m_AvailableBytes;
        uint64_t m_TotalFiles, m_FreeFiles, m_AvailableFiles;
        uint32_t m_InvariantSeconds;
        // PATHCONF
        uint32_t m_LinkMax, m_NameMax;
        bool m_NoTrunc, m_ChownRestricted, m_CaseInsensitive, m_CasePreserving;
    } m_Facts;

    ExportInfo() { InitExportInfo(); }
    void InitExportInfo() { m_Facts = Facts{}; }
};

// A cursor over a directory's entries, made by GetFirstDirEntry and advanced
// by GetNextDirEntry; the caller deletes it.
class NFSGetNextHandle {
public:
    virtual ~NFSGetNextHandle() = default;
};

// A way for a caller to abandon a long operation; no operation polls it yet.
class CancelledIf {
public:
    virtual ~CancelledIf() = default;
    virtual bool Cancelled() = 0;
};

class NFSBrowse {
public:
    virtual ~NFSBrowse() = default;

    // True while the object is still usable: its connections answer.
    virtual bool Verify() = 0;

    virtual int32_t Exports(std::vector<ExportInfo>& exports) = 0;
    virtual int32_t ExportPaths(std::vector<std::string>& paths) = 0;

    // Every entry of a directory, "." and ".." left out, appended to
    // `entries` (on failure those gathered so far stay).
    virtual int32_t Entries(const DirEntry& directory, std::vector<DirEntry>& entries) = 0;

    // The object at `path` ("/export/dir/name"), walked one component at a
    // time from the export's root with LOOKUP; symbolic links on the way
    // are not followed.  With `create`, a missing regular file at the end is
    // created (mode 0777; one that appears meanwhile is opened instead).
    // `makeParents` (with `create` only) creates missing directories on the
    // way too, as mkdir -p would.  Returns a new entry the caller deletes,
    // or null (the reason in GetLastObjectError()).
    virtual DirEntry* Open(const std::string& path, bool create, bool makeParents) = 0;

    virtual int32_t Lookup(const DirEntry& directory, const std::string& name, DirEntry& entry) = 0;

    // Writes `count` bytes at `offset`; `count` returns how many reached the
    // server (all of them on success).
    virtual int32_t Write(const DirEntry& file, const void* source, int64_t offset,
                          uint32_t& count) = 0;
    // Reads up to `count` bytes at `offset`; `count` returns how many were
    // read (fewer only at the end of the file).
    virtual int32_t Read(const DirEntry& file, void* destination, int64_t offset,
                         uint32_t& count) = 0;

    // The export that holds `path` (the longest export path that is a prefix
    // of it at a component boundary), mounted on first use.
    virtual int32_t FindMountPoint(const std::string& path, ExportInfo& info) = 0;

    // Creates the object `entry` describes in `directory`: m_Name, and by
    // m_Type a regular file (mode 0777; QS_E_NFS_EXIST when the name is
    // taken), a directory (m_Mode, or 0777 when 0) or a symbolic link to
    // m_LinkText.  On success `entry` describes the new object.
    virtual int32_t CreateObject(const DirEntry& directory, DirEntry& entry) = 0;
    // Removes `entry` (by m_Name) from `directory`: RMDIR for a directory,
    // REMOVE for anything else.
    virtual int32_t DeleteObject(const DirEntry& directory, const DirEntry& entry) = 0;
    // Renames `entry` in `directory` to `newName`: a name in the same
    // directory, or a server path ("/export/dir/new") whose directory must
    // exist.  On success `entry` describes the object under its new name.
    virtual int32_t RenameObject(const DirEntry& directory, DirEntry& entry,
                                 const std::string& newName) = 0;

    virtual int32_t ReadSymlink(const DirEntry& link, ZBuffer& text) = 0;
    // Creates the symbolic link `entry` (m_Name) in `directory` pointing to
    // `text`; on success `entry` describes the link.
    virtual int32_t CreateSymlink(const DirEntry& directory, DirEntry& entry,
                                  const ZBuffer& text) = 0;

    // Like Lookup; a missing name is QS_E_NFS_NOENT, logged like any failure.
    virtual int32_t FileExists(const DirEntry& directory, const std::string& name,
                               DirEntry& entry) = 0;

    // `mask` (eAccessMask) in: the rights asked about; out: those granted.
    virtual int32_t Access(const DirEntry& entry, uint32_t& mask) = 0;

    // A whole-file advisory lock (exclusive or shared) or its release.  True
    // when the server granted the request; best effort, never blocks.
    virtual bool LockFile(const DirEntry& entry, bool lock, bool exclusive) = 0;

    // A hard link `name` in `directory` to `target`.
    virtual int32_t MakeLink(const DirEntry& target, const DirEntry& directory,
                             const std::string& name) = 0;

    // The first entry of a directory and a cursor for the rest; with an empty
    // directory QS_W_NO_MORE_ENTRIES and no cursor.
    virtual int32_t GetFirstDirEntry(const DirEntry& directory, DirEntry& entry,
                                     NFSGetNextHandle*& cursor) = 0;
    // The next entry; QS_W_NO_MORE_ENTRIES after the last.
    virtual int32_t GetNextDirEntry(NFSGetNextHandle* cursor, DirEntry& entry) = 0;

    // Sends the fields of `entry` that `mask` (eAttributeMask) selects.
    virtual int32_t SetAttributes(const DirEntry& entry, uint32_t mask) = 0;
    // Refreshes `entry` from the server.
    virtual int32_t GetAttributes(DirEntry& entry) = 0;

    // The code of the last failed operation; a success does not clear it.
    virtual int32_t GetLastObjectError() = 0;
};

// Factories.  On success they store a new browse object in `out` (the
// caller deletes it) and return 0; on failure `out` is untouched, nothing is
// left behind and the failure is logged once.
//
// For the server at an IPv4 address (network byte order), with AUTH_UNIX
// credentials `uid` and `gids` (the first group is the primary one).  The
// export list is read over MOUNT 3 on TCP; NFS 3 runs over the transport
// `protocol` names.
long CreateNFSBrowse(NFSBrowse*& out, unsigned long address, int uid, const std::vector<int>& gids,
                     CancelledIf* cancel, eUseProtocol protocol);
// The same for a host name or dotted address (0xE0FF012A when it does not
// resolve).
long CreateNFSBrowse(NFSBrowse*& out, const std::string& host, int uid,
                     const std::vector<int>& gids, CancelledIf* cancel, eUseProtocol protocol);

} // namespace qsNFSUtils

// Process-wide switches of the browse objects.  Read and Write use the
// pipelined transfer (several UDP calls in flight) instead of one call per
// chunk while g_NFSUtils_UseScatterGather is set.
extern bool g_NFSUtils_UseScatterGather;
extern bool g_NFSUtils_FragmentCorrectly;

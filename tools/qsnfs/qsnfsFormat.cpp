#include "qsnfsFormat.h"

#include "qsNFSStatus.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace qsnfs {

using qsNFSUtils::DirEntry;
using qsNFSUtils::ExportInfo;

std::string Reason(qsStatus code) {
    switch (code) {
    case QS_E_NFS_PERM:
        return "operation not permitted";
    case QS_E_NFS_ACCES:
        return "permission denied";
    case QS_E_NFS_NOENT:
        return "no such file or directory";
    case QS_E_NFS_NAMETOOLONG:
        return "file name too long";
    case QS_E_NFS_NOTEMPTY:
        return "directory not empty";
    // The server's not-a-directory and is-a-directory arrive as one code.
    case QS_E_NFS_WRONG_TYPE:
        return "wrong type of object (a directory, or not one)";
    case QS_E_NFS_STALE:
        return "stale file handle";
    case QS_E_NFS_BADTYPE:
        return "type of object not supported by the server";
    case QS_E_NFS_SERVERFAULT:
        return "server fault";
    case QS_E_NFS_ROFS:
        return "read-only file system";
    case QS_E_NFS_BADHANDLE:
        return "bad file handle";
    case QS_E_NFS_EXIST:
        return "file exists";
    case QS_E_NFS_FAILED:
        return "the server could not do it (input/output error, no space, or not supported)";
    case QS_E_RPC_CLIENT:
        return "no connection to the server";
    case QS_E_RPC_AUTH:
        return "credentials refused";
    case QS_E_RPC_CANTENCODEARGS:
        return "request could not be encoded";
    case QS_E_RPC_CANTDECODERES:
        return "reply could not be decoded";
    case QS_E_RPC_CANTSEND:
        return "request could not be sent";
    case QS_E_RPC_TIMEDOUT:
        return "the server did not answer in time";
    case QS_E_RPC_VERSMISMATCH:
        return "RPC or protocol version not supported by the server";
    case QS_E_RPC_PROGUNAVAIL:
        return "NFS service not available on the server";
    case QS_E_RPC_PROCUNAVAIL:
        return "procedure not available on the server";
    case QS_E_RPC_UNKNOWNHOST:
        return "unknown host";
    case QS_E_RPC_UNKNOWNPROTO:
        return "unknown transport";
    case QS_E_RPC_PMAPFAILURE:
        return "the server's port mapper did not answer";
    case QS_E_RPC_SYSTEMERROR:
        return "system error talking to the server";
    case QS_E_NLM_DENIED:
    case QS_E_NLM_BLOCKED:
        return "lock not granted";
    case QS_E_NLM_NOLOCKS:
        return "the server has no locks left";
    case QS_E_NLM_GRACE_PERIOD:
        return "the server is in its grace period after a restart";
    case QS_E_NLM_FAILED:
        return "lock request failed";
    case QS_E_HOST_UNRESOLVED:
        return "host name does not resolve";
    case QS_E_NOT_DONE: // a browse object could not read the export list
        return "cannot read the server's export list";
    case QS_E_INVALIDARG:
        return "invalid argument";
    case QS_E_OUT_OF_MEMORY:
        return "out of memory";
    case QS_W_TIMEOUT:
        return "timed out";
    }
    return "error";
}

const char* TypeName(uint32_t type) {
    switch (type) {
    case qsNFSUtils::eTypeRegular:
        return "regular file";
    case qsNFSUtils::eTypeDirectory:
        return "directory";
    case qsNFSUtils::eTypeBlock:
        return "block device";
    case qsNFSUtils::eTypeCharacter:
        return "character device";
    case qsNFSUtils::eTypeSymlink:
        return "symbolic link";
    case qsNFSUtils::eTypeSocket:
        return "socket";
    case qsNFSUtils::eTypeFifo:
        return "fifo";
    }
    return "unknown";
}

std::string ModeString(uint32_t type, uint32_t mode) {
    static const char kLetters[] = "?-dbclsp?";
    std::string s(10, '-');
    s[0] = kLetters[type < 9 ? type : 0];
    static const char kRwx[] = "rwx";
    for (int i = 0; i < 9; ++i) {
        if (mode & (0400u >> i))
            s[1 + i] = kRwx[i % 3];
    }
    // The execute slot shows a set-id or sticky bit, upper case without x.
    auto special = [&](int at, uint32_t bit, char letter) {
        if (mode & bit)
            s[at] = s[at] == 'x' ? letter : char(letter - 'a' + 'A');
    };
    special(3, 04000, 's');
    special(6, 02000, 's');
    special(9, 01000, 't');
    return s;
}

namespace {

constexpr int64_t kTicksPerSecond = int64_t(QS_FILETIME_PER_SECOND);

// Seconds since 1970 and the 100-ns ticks past them, by floor division: a
// time before 1970 still has a fraction counting upwards.  In ticks, not
// nanoseconds: a FILETIME reaches back to 1601, which nanoseconds in 64
// bits do not.  False when the seconds do not fit a time_t.
bool Split(const FILETIME& ft, time_t& seconds, int64_t& ticks) {
    int64_t t = int64_t(qsFileTimeToUInt64(ft) - QS_FILETIME_UNIX_EPOCH);
    int64_t s = t / kTicksPerSecond;
    ticks = t % kTicksPerSecond;
    if (ticks < 0) {
        ticks += kTicksPerSecond;
        --s;
    }
    seconds = time_t(s);
    return int64_t(seconds) == s;
}

std::string Render(const FILETIME& ft, bool local, const char* format, bool fraction,
                   const char* tail) {
    time_t s;
    int64_t ticks;
    struct tm tm {};
    if (!Split(ft, s, ticks) || !(local ? localtime_r(&s, &tm) : gmtime_r(&s, &tm)))
        return "?";
    char date[64];
    strftime(date, sizeof date, format, &tm);
    std::string out = date;
    if (fraction) {
        char digits[24];
        snprintf(digits, sizeof digits, ".%07ld", long(ticks));
        out += digits;
    }
    if (tail) {
        strftime(date, sizeof date, tail, &tm);
        out += date;
    }
    return out;
}

} // namespace

std::string LocalTime(const FILETIME& ft) {
    return Render(ft, true, "%Y-%m-%d %H:%M:%S", true, " %z");
}

std::string ShortTime(const FILETIME& ft) {
    return Render(ft, true, "%Y-%m-%d %H:%M", false, nullptr);
}

std::string UtcTime(const FILETIME& ft) {
    return Render(ft, false, "%Y-%m-%dT%H:%M:%S", true, "Z");
}

std::string LongLine(const DirEntry& entry, size_t width, const std::string& linkText) {
    char owner[32];
    snprintf(owner, sizeof owner, " %5" PRIu32 " %5" PRIu32 " ", entry.m_Uid, entry.m_Gid);
    std::string size = std::to_string(entry.m_Size);
    std::string line = ModeString(entry.m_Type, entry.m_Mode) + owner;
    if (size.size() < width)
        line.append(width - size.size(), ' ');
    line += size + " " + ShortTime(entry.m_LastWriteTime) + " " + entry.m_Name;
    if (entry.m_Type == qsNFSUtils::eTypeSymlink)
        line += " -> " + linkText;
    return line;
}

std::string StatText(const std::string& path, const DirEntry& e) {
    char mode[16];
    snprintf(mode, sizeof mode, "%04" PRIo32, e.m_Mode & 07777);
    std::string out;
    auto field = [&](const char* name, const std::string& value) {
        out += name;
        out.append(8 - std::string(name).size(), ' ');
        out += value + "\n";
    };
    field("path", path);
    field("type", TypeName(e.m_Type));
    field("size", std::to_string(e.m_Size));
    field("mode", std::string(mode) + " " + ModeString(e.m_Type, e.m_Mode));
    field("uid", std::to_string(e.m_Uid));
    field("gid", std::to_string(e.m_Gid));
    field("links", std::to_string(e.m_LinkCount));
    field("fileid", std::to_string(e.m_FileId));
    field("fsid", std::to_string(e.m_FileSystemId));
    field("atime", LocalTime(e.m_LastAccessTime));
    field("mtime", LocalTime(e.m_LastWriteTime));
    field("ctime", LocalTime(e.m_ChangeTime));
    return out;
}

nlohmann::ordered_json EntryJson(const std::string& path, const DirEntry& e,
                         const std::string& linkText) {
    static const char* const kTypes[] = {"unknown", "file",    "directory", "block",
                                         "character", "symlink", "socket",    "fifo"};
    nlohmann::ordered_json j = {
        {"path", path},
        {"name", e.m_Name},
        {"type", kTypes[e.m_Type < 8 ? e.m_Type : 0]},
        {"size", e.m_Size},
        {"mode", e.m_Mode & 07777},
        {"uid", e.m_Uid},
        {"gid", e.m_Gid},
        {"links", e.m_LinkCount},
        {"fileid", e.m_FileId},
        {"fsid", e.m_FileSystemId},
        {"atime", UtcTime(e.m_LastAccessTime)},
        {"mtime", UtcTime(e.m_LastWriteTime)},
        {"ctime", UtcTime(e.m_ChangeTime)},
    };
    if (e.m_Type == qsNFSUtils::eTypeSymlink)
        j["target"] = linkText;
    return j;
}

std::string DfHeader() {
    char line[128];
    snprintf(line, sizeof line, "%-30s %14s %14s %14s %5s", "Export", "1K-blocks", "Used",
             "Available", "Use%");
    return line;
}

std::string DfLine(const std::string& name, const ExportInfo::Facts& f) {
    uint64_t used = f.m_TotalBytes > f.m_FreeBytes ? f.m_TotalBytes - f.m_FreeBytes : 0;
    // As df: of the space a user may fill, how much is taken, rounded up.
    uint64_t usable = used + f.m_AvailableBytes;
    unsigned percent = usable ? unsigned((used * 100 + usable - 1) / usable) : 0;
    char line[512];
    snprintf(line, sizeof line, "%-30s %14" PRIu64 " %14" PRIu64 " %14" PRIu64 " %4u%%",
             name.c_str(), f.m_TotalBytes / 1024, used / 1024, f.m_AvailableBytes / 1024, percent);
    return line;
}

nlohmann::ordered_json DfJson(const std::string& name, const ExportInfo& info) {
    const ExportInfo::Facts& f = info.m_Facts;
    return {
        {"export", name},
        {"path", info.m_Path},
        {"total_bytes", f.m_TotalBytes},
        {"free_bytes", f.m_FreeBytes},
        {"available_bytes", f.m_AvailableBytes},
        {"total_files", f.m_TotalFiles},
        {"free_files", f.m_FreeFiles},
        {"available_files", f.m_AvailableFiles},
        {"read_max", f.m_ReadMax},
        {"read_preferred", f.m_ReadPreferred},
        {"write_max", f.m_WriteMax},
        {"write_preferred", f.m_WritePreferred},
        {"directory_preferred", f.m_DirectoryPreferred},
        {"max_file_size", f.m_MaxFileSize},
        {"link_max", f.m_LinkMax},
        {"name_max", f.m_NameMax},
    };
}

std::string JsonLine(const nlohmann::ordered_json& value) {
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace qsnfs

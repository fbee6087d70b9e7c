#include "qsNFS3Attributes.h"

#include <cstring>

namespace qsNFSUtils {

constexpr uint64_t kFileTimePerNanosecond = 100;

FILETIME FileTimeFromNfs(const nfstime3& t) {
    return qsUInt64ToFileTime(QS_FILETIME_UNIX_EPOCH +
                              uint64_t(t.seconds) * QS_FILETIME_PER_SECOND +
                              t.nseconds / kFileTimePerNanosecond);
}

// Times before 1970 do not exist on the wire: they become the epoch, and
// those past 2106 its last second, rather than wrapping.
nfstime3 NfsTimeFromFileTime(const FILETIME& ft) {
    uint64_t v = qsFileTimeToUInt64(ft);
    if (v < QS_FILETIME_UNIX_EPOCH)
        return nfstime3{0, 0};
    v -= QS_FILETIME_UNIX_EPOCH;
    uint64_t seconds = v / QS_FILETIME_PER_SECOND;
    if (seconds > UINT32_MAX)
        return nfstime3{UINT32_MAX, 999999900};
    return nfstime3{u_int(seconds), u_int((v % QS_FILETIME_PER_SECOND) * kFileTimePerNanosecond)};
}

void SetAttributes(DirEntry& entry, const fattr3& a) {
    entry.m_Type = uint32_t(a.type);
    entry.m_Size = a.size;
    entry.m_LastAccessTime = FileTimeFromNfs(a.atime);
    entry.m_LastWriteTime = FileTimeFromNfs(a.mtime);
    entry.m_ChangeTime = FileTimeFromNfs(a.ctime);
    entry.m_FileSystemId = a.fsid;
    entry.m_FileId = a.fileid;
    entry.m_Mode = a.mode & 07777;
    entry.m_Uid = a.uid;
    entry.m_Gid = a.gid;
    entry.m_LinkCount = a.nlink;
}

bool SetAttributes(DirEntry& entry, const post_op_attr& attributes) {
    if (!attributes.attributes_follow)
        return false;
    SetAttributes(entry, attributes.post_op_attr_u.attributes);
    return true;
}

bool SetHandle(DirEntry& entry, const nfs_fh3& handle) {
    u_int length = handle.data.data_len;
    if (length > QS_NFS_HANDLE_MAX || (length && !handle.data.data_val))
        return false;
    // The bytes past the handle stay zero: a lock request pads short handles
    // with them.
    memset(entry.m_Handle, 0, sizeof entry.m_Handle);
    if (length)
        memcpy(entry.m_Handle, handle.data.data_val, length);
    entry.m_HandleLength = length;
    return true;
}

nfs_fh3 HandleOf(const DirEntry& entry) {
    nfs_fh3 fh;
    fh.data.data_len = entry.m_HandleLength;
    fh.data.data_val = reinterpret_cast<char*>(const_cast<uint8_t*>(entry.m_Handle));
    return fh;
}

sattr3 AttributesToSet(const DirEntry& entry, uint32_t mask) {
    sattr3 s{};
    if (mask & eAttrMode) {
        s.mode.set_it = TRUE;
        s.mode.set_mode3_u.mode = entry.m_Mode & 07777;
    }
    if (mask & eAttrUid) {
        s.uid.set_it = TRUE;
        s.uid.set_uid3_u.uid = entry.m_Uid;
    }
    if (mask & eAttrGid) {
        s.gid.set_it = TRUE;
        s.gid.set_gid3_u.gid = entry.m_Gid;
    }
    if (mask & eAttrSize) {
        s.size.set_it = TRUE;
        s.size.set_size3_u.size = entry.m_Size;
    }
    s.atime.set_it = DONT_CHANGE;
    if (mask & eAttrAccessTime) {
        s.atime.set_it = SET_TO_CLIENT_TIME;
        s.atime.set_atime_u.atime = NfsTimeFromFileTime(entry.m_LastAccessTime);
    }
    s.mtime.set_it = DONT_CHANGE;
    if (mask & eAttrWriteTime) {
        s.mtime.set_it = SET_TO_CLIENT_TIME;
        s.mtime.set_mtime_u.mtime = NfsTimeFromFileTime(entry.m_LastWriteTime);
    }
    return s;
}

std::string JoinPath(const std::string& directory, const std::string& name) {
    if (directory.empty())
        return "/" + name;
    if (directory.back() == '/')
        return directory + name;
    return directory + "/" + name;
}

} // namespace qsNFSUtils

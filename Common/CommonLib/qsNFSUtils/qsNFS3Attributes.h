// Conversions between the browse records and NFS version 3's wire types,
// internal to the library and its tests (it includes the generated protocol
// header).
#pragma once

#include "qsNFS3Prot.h"
#include "qsNFSBrowse.h"

#include <string>

namespace qsNFSUtils {

// Server times carry nanoseconds; FILETIME counts 100 ns from 1601.
FILETIME FileTimeFromNfs(const nfstime3& t);
nfstime3 NfsTimeFromFileTime(const FILETIME& ft);

// Copies type, size, times, ids, mode and link count into `entry`.
void SetAttributes(DirEntry& entry, const fattr3& attributes);
// The same when the server sent attributes; false when it did not.
bool SetAttributes(DirEntry& entry, const post_op_attr& attributes);

// Stores a handle in the entry's zero-filled 128-byte buffer; false (entry
// untouched) for a handle that does not fit.
bool SetHandle(DirEntry& entry, const nfs_fh3& handle);
// The entry's handle as the wire type.  It points into the entry, which
// must outlive it; the protocol's encoders never write through it.
nfs_fh3 HandleOf(const DirEntry& entry);

// The new attributes of a SETATTR that sends the fields of `entry` that
// `mask` (eAttributeMask) selects.
sattr3 AttributesToSet(const DirEntry& entry, uint32_t mask);

// "dir/name", with exactly one slash between them.
std::string JoinPath(const std::string& directory, const std::string& name);

} // namespace qsNFSUtils

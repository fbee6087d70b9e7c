// The data transfer of the NFS version 3 browse object: READ and WRITE of a
// file's bytes, internal to the library and its tests.
//
// A browse object owns one NFS3Transfer over its NFS client and forwards its
// Read and Write to it.  The transfer chooses chunk sizes from the export's
// FSINFO facts (clamped to what the transport can carry), decodes READ data
// straight into the caller's buffer, and, while g_NFSUtils_UseScatterGather
// is set, keeps several UDP calls in flight through RPCClient::Call and
// RecvReply instead of one call per chunk.
//
// Failures are translated and logged once here (the READ, WRITE and
// pipelined formats of the error translation, the file's path as detail);
// the result is the translated code, which the browse object keeps as its
// last error.
#pragma once

#include "qsNFSBrowse.h"

#include <cstdint>
#include <memory>

namespace qsNFSUtils {

class RPCAuth;
class RPCClient;

class NFS3Transfer {
public:
    // `nfs` is the browse object's NFS client (TCP or UDP), `auth` its
    // credential and `address` the server's IPv4 address (network byte
    // order), from which the pipelined path creates its own UDP client when
    // `nfs` is not one.  All three outlive the transfer.
    NFS3Transfer(RPCClient& nfs, RPCAuth& auth, unsigned long address);
    ~NFS3Transfer();

    // Reads up to `count` bytes of `file` at `offset` into `destination`;
    // `count` returns the bytes read, fewer than asked only at the end of
    // the file.  `limits` are the facts of the export holding the file.
    int32_t Read(const DirEntry& file, const ExportInfo::Facts& limits, void* destination,
                 int64_t offset, uint32_t& count);

    // Writes `count` bytes of `source` at `offset`, stable on the server
    // before it returns; `count` returns the bytes that reached the server.
    int32_t Write(const DirEntry& file, const ExportInfo::Facts& limits, const void* source,
                  int64_t offset, uint32_t& count);

    // True while the transfer's own connections (the pipelined path's UDP
    // client, when it has one) are usable.
    bool Verify();

private:
    struct State;
    std::unique_ptr<State> m_State;
};

} // namespace qsNFSUtils

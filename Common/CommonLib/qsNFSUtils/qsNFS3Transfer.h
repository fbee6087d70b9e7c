// The data transfer of the NFS version 3 browse object: READ and WRITE of a
// file's bytes, internal to the library and its tests.
//
// A browse object owns one NFS3Transfer over its NFS client and forwards its
// Read and Write to it.  The transfer chooses chunk sizes from the export's
// FSINFO facts (the preferred size, clamped to the maximum and to what the
// transport carries: 8 KiB over UDP, 1 MiB over TCP; 32 KiB when the facts
// are not known) and puts READ data straight into the caller's buffer.  Over
// TCP a few READs or WRITEs are in flight on the client's connection, the
// data going between the socket and the caller's buffer without a copy;
// over UDP one call at a time goes through the C library's client.  Writes
// go UNSTABLE and end with one COMMIT per Write; a write verifier that
// changes on the way means that the server restarted, and the range is
// sent again.
//
// While g_NFSUtils_UseScatterGather is set, READ and WRITE travel as UDP
// datagrams through RPCClient::Call and RecvReply instead, several in
// flight, lost ones sent again a bounded number of times; over a TCP browse
// client the transfer makes a UDP client of its own for them.
//
// Failures are translated and logged once here (the READ, WRITE, COMMIT and
// pipelined formats of the error translation, the file's path as detail);
// the result is the translated code, which the browse object keeps as its
// last error.  A server that answers without progress (a READ of nothing
// before the end of the file, a WRITE of nothing) or keeps restarting under
// a Write gives QS_E_NFS_NO_FAILURE: no status says what went wrong.  A
// transport failure (0xE00303xx) may leave a TCP connection unusable: the
// browse object replaces it.
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
    // the file (on failure: those read before it, from `offset` on).
    // `limits` are the facts of the export holding the file.
    int32_t Read(const DirEntry& file, const ExportInfo::Facts& limits, void* destination,
                 int64_t offset, uint32_t& count);

    // Writes `count` bytes of `source` at `offset`, stable on the server
    // before it returns; `count` returns the bytes that reached the server
    // (on failure: those the server acknowledged, from `offset` on).
    int32_t Write(const DirEntry& file, const ExportInfo::Facts& limits, const void* source,
                  int64_t offset, uint32_t& count);

    // True while the transfer's own connections (the pipelined path's UDP
    // client, when it has one) are usable: that client answers the NULL
    // procedure within 5 seconds.  False also while that client could not
    // be made.
    bool Verify();

private:
    struct State;
    std::unique_ptr<State> m_State;
};

} // namespace qsNFSUtils

// The pipelined READ and WRITE of NFS3Transfer, internal to the library and
// its tests (it includes the generated protocol header).
//
// A transfer is cut into pieces, several of which are in flight at once;
// each reply is matched to its piece by transaction id and placed by offset,
// in whatever order replies arrive.  Two carriers share that engine:
//
// - NFS3Datagrams: UDP datagrams through RPCClient::Call and RecvReply.  A
//   piece whose reply does not come in time is sent again under a new id; a
//   late reply to any id of the piece still counts, and a duplicate is
//   recognised and dropped.
// - NFS3Stream: READs and WRITEs over a TCP client's own connection,
//   record-marked, the data going between the socket and the caller's
//   buffer without a copy.  The connection must be between records, as it
//   is after any call that succeeded; after a failure that leaves it
//   mid-record it is shut down, so that its next call fails instead of
//   misreading.
#pragma once

#include "qsNFS3Prot.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qsNFSUtils {

class RPCClient;

// What one pass of WRITEs over a range learnt: how much the server took and
// whether a COMMIT must follow.  The caller sends the COMMIT.
struct WritePass {
    // Bytes the server acknowledged, as a prefix of the range: what the
    // caller may be told reached the server.
    uint32_t acknowledged = 0;
    bool uncommitted = false; // some reply took the data UNSTABLE
    bool restarted = false;   // replies carried different verifiers
    bool haveVerifier = false;
    char verifier[NFS3_WRITEVERFSIZE] = {};

    // Records the stability and verifier of one WRITE reply.
    void Note(const WRITE3resok& reply);
    // True when `verf` differs from the pass's verifier: the server
    // restarted since the pass's first reply.
    bool Changed(const char* verf) const;
};

// Failures of both carriers are translated and logged once, with the file's
// path as the detail; `count` returns the bytes done as a prefix of the
// range, on failure too.

class NFS3Datagrams {
public:
    // `udp`: a UDP client created from an address.  One thread at a time.
    explicit NFS3Datagrams(RPCClient& udp);

    // Data bytes one datagram carries for `file`, within the export's
    // largest READ or WRITE (`serverMax`, 0 when unknown).  The datagram
    // size it fits is g_NFSUtils_FragmentCorrectly's to choose.
    uint32_t PieceSize(const nfs_fh3& file, uint32_t serverMax) const;

    int32_t Read(const nfs_fh3& file, const std::string& path, uint32_t pieceSize,
                 char* destination, uint64_t offset, uint32_t& count);
    // UNSTABLE WRITEs; `pass` records what the COMMIT that follows needs.
    int32_t Write(const nfs_fh3& file, const std::string& path, uint32_t pieceSize,
                  const char* source, uint64_t offset, uint32_t count, WritePass& pass);

    // Drops the datagrams waiting on the client's socket: between transfers
    // they are late replies to calls already settled.  Each transfer does
    // it as it ends; call it before a synchronous call on the same client.
    void DropQueued();

private:
    RPCClient& m_Udp;
    // READ data lands here first: RecvReply decodes a reply before its id
    // tells which piece it answers.
    std::vector<char> m_Staging;
};

class NFS3Stream {
public:
    // `tcp`: a TCP client.  One thread at a time.
    explicit NFS3Stream(RPCClient& tcp);

    // READs, or UNSTABLE WRITEs, of `pieceSize` bytes, a few in flight;
    // `pass` records what the COMMIT after the WRITEs needs.
    int32_t Read(const nfs_fh3& file, const std::string& path, uint32_t pieceSize,
                 char* destination, uint64_t offset, uint32_t& count);
    int32_t Write(const nfs_fh3& file, const std::string& path, uint32_t pieceSize,
                  const char* source, uint64_t offset, uint32_t count, WritePass& pass);

private:
    RPCClient& m_Tcp;
    uint32_t m_NextXid;
};

} // namespace qsNFSUtils

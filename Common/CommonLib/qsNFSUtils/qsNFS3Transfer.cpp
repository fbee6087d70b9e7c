#include "qsNFS3Transfer.h"

#include "qsLog.h"
#include "qsNFS3Pipeline.h"
#include "qsNFS3ReadResult.h"
#include "qsNFSErrorMap.h"
#include "qsNFSStatus.h"
#include "qsRPCWrappers.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined.
#pragma GCC diagnostic ignored "-Wformat"

bool g_NFSUtils_UseScatterGather = false;

// Whether the network between client and server fragments and reassembles
// large UDP datagrams correctly; it shapes the pipelined transfer only.
// True: each datagram carries as much data as the 8192-byte call and reply
// buffers allow (7680 bytes with the usual credentials), leaving IP to
// fragment it where the path's MTU is smaller.  False: each datagram fits
// one Ethernet frame (1472 bytes of UDP payload, 1024 bytes of data), so
// that nothing depends on fragments that a firewall or a NAT may drop; it
// costs about seven times as many datagrams.
bool g_NFSUtils_FragmentCorrectly = true;

namespace {

using qsNFSUtils::NFS3Datagrams;
using qsNFSUtils::NFS3Stream;
using qsNFSUtils::RPCClient;
using qsNFSUtils::WritePass;
using qsNFSUtils::XdrProc;

// The synchronous stubs' total time-out.
constexpr timeval kCallTimeout{25, 0};
constexpr timeval kVerifyTimeout{5, 0};
constexpr int kNfsProgram = 100003;
constexpr int kNfsVersion = 3;

// A UDP client made by clntudp_create sends and receives in 8800-byte
// buffers: 8 KiB of data plus the largest headers.
constexpr uint32_t kUdpChunk = 8192;
// A TCP record may be any size; beyond 1 MiB a larger call saves nothing
// measurable and only delays the first failure.
constexpr uint32_t kTcpChunk = 1 << 20;
// Without FSINFO: a size every version 3 server accepts.
constexpr uint32_t kUnknownChunk = 32768;
// Passes over a Write's range while the server keeps restarting under it.
constexpr int kWriteRounds = 3;

const std::string kReadFormat = "nfsproc3_read_3 (status %d, err 0x%8.8X)";
const std::string kWriteFormat = "nfsproc3_write_3 (status %d, err 0x%8.8X)";
const std::string kCommitFormat = "nfsproc3_commit_3 (status %d, err 0x%8.8X)";
const std::string kPipelineFormat = "NFSBrowseImpl3::ScatterGatherIO (status %d, err 0x%8.8X)";

bool_t XdrNothing(XDR*, void*) {
    return TRUE;
}

int32_t Translate(clnt_stat rpc, nfsstat3 status, const std::string& format,
                  const std::string& path) {
    return int32_t(TranslateError(g_NFSErrorMap, rpc, status, format, path));
}

nfs_fh3 Handle(const qsNFSUtils::DirEntry& file) {
    return {{file.m_HandleLength, const_cast<char*>(reinterpret_cast<const char*>(file.m_Handle))}};
}

// The export's preferred transfer size, within its maximum and what the
// transport carries, rounded down to the server's preferred multiple.
uint32_t ChunkSize(bool known, uint32_t preferred, uint32_t maximum, uint32_t multiple,
                   RPCClient::PROTOCOL protocol) {
    uint32_t size = known && preferred ? preferred : kUnknownChunk;
    if (known && maximum)
        size = std::min(size, maximum);
    size = std::min(size, protocol == RPCClient::PROTOCOL_UDP ? kUdpChunk : kTcpChunk);
    if (known && multiple && size >= multiple)
        size -= size % multiple;
    return std::max(size, 1u);
}

bool Valid(const char* who, const qsNFSUtils::DirEntry& file, const void* buffer, int64_t offset,
           uint32_t count) {
    if (offset >= 0 && uint64_t(offset) + count <= uint64_t(INT64_MAX) && (buffer || !count))
        return true;
    qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevError,
                 "%hs: error %d: %u bytes at offset %" PRId64 " of '%hs'", who,
                 int(QS_E_INVALIDARG), count, offset, file.m_Path.c_str());
    return false;
}

// READs of at most `chunk` bytes, one at a time through the C library's
// client, each decoded straight into its place in `destination`.
int32_t PlainRead(CLIENT* client, const nfs_fh3& file, const std::string& path, uint32_t chunk,
                  char* destination, uint64_t offset, uint32_t& count) {
    uint32_t wanted = count;
    count = 0;
    while (count < wanted) {
        uint32_t ask = std::min(chunk, wanted - count);
        READ3args args{file, offset + count, ask};
        READ3res res{};
        res.READ3res_u.resok.data.data_len = ask;
        res.READ3res_u.resok.data.data_val = destination + count;
        clnt_stat rpc = clnt_call(
            client, NFSPROC3_READ, XdrProc(xdr_READ3args), reinterpret_cast<char*>(&args),
            XdrProc(qsNFSUtils::XdrReadResultInto), reinterpret_cast<char*>(&res), kCallTimeout);
        if (rpc != RPC_SUCCESS || res.status != NFS3_OK)
            return Translate(rpc, res.status, kReadFormat, path);
        const READ3resok& ok = res.READ3res_u.resok;
        count += ok.data.data_len;
        if (ok.eof)
            return 0;
        // Neither data nor the end of the file: asking again would loop.
        if (ok.data.data_len == 0)
            return Translate(RPC_SUCCESS, NFS3_OK, kReadFormat, path);
    }
    return 0;
}

// One pass of WRITEs of at most `chunk` bytes over the range, one at a time
// through the C library's client; it stops early once the verifier shows
// that the server restarted.
int32_t PlainWrite(CLIENT* client, const nfs_fh3& file, const std::string& path, uint32_t chunk,
                   const char* source, uint64_t offset, uint32_t count, WritePass& pass) {
    while (pass.acknowledged < count) {
        uint32_t done = pass.acknowledged;
        uint32_t ask = std::min(chunk, count - done);
        WRITE3args args{
            file, offset + done, ask, UNSTABLE, {ask, const_cast<char*>(source + done)}};
        WRITE3res res{};
        clnt_stat rpc = clnt_call(client, NFSPROC3_WRITE, XdrProc(xdr_WRITE3args),
                                  reinterpret_cast<char*>(&args), XdrProc(xdr_WRITE3res),
                                  reinterpret_cast<char*>(&res), kCallTimeout);
        if (rpc != RPC_SUCCESS || res.status != NFS3_OK)
            return Translate(rpc, res.status, kWriteFormat, path);
        const WRITE3resok& ok = res.WRITE3res_u.resok;
        if (ok.count > ask)
            return Translate(RPC_CANTDECODERES, NFS3_OK, kWriteFormat, path);
        if (ok.count == 0)
            return Translate(RPC_SUCCESS, NFS3_OK, kWriteFormat, path);
        pass.Note(ok);
        if (pass.restarted)
            return 0;
        pass.acknowledged += ok.count;
    }
    return 0;
}

int32_t Commit(CLIENT* client, const nfs_fh3& file, const std::string& path, uint64_t offset,
               uint32_t count, char* verifier) {
    COMMIT3args args{file, offset, count};
    COMMIT3res res{};
    clnt_stat rpc =
        clnt_call(client, NFSPROC3_COMMIT, XdrProc(xdr_COMMIT3args), reinterpret_cast<char*>(&args),
                  XdrProc(xdr_COMMIT3res), reinterpret_cast<char*>(&res), kCallTimeout);
    if (rpc != RPC_SUCCESS || res.status != NFS3_OK)
        return Translate(rpc, res.status, kCommitFormat, path);
    memcpy(verifier, res.COMMIT3res_u.resok.verf, NFS3_WRITEVERFSIZE);
    return 0;
}

} // namespace

namespace qsNFSUtils {

struct NFS3Transfer::State {
    State(RPCClient& nfs, RPCAuth& auth, unsigned long address)
        : m_Nfs(nfs), m_Auth(auth), m_Address(address) {}

    RPCClient& m_Nfs;
    RPCAuth& m_Auth;
    unsigned long m_Address;
    // The pipelined path's UDP client, when the browse object's is TCP.
    std::unique_ptr<RPCClient> m_Udp;
    bool m_UdpFailed = false;
    std::unique_ptr<NFS3Datagrams> m_Datagrams;
    std::unique_ptr<NFS3Stream> m_Stream;

    int32_t Datagrams(const std::string& path, NFS3Datagrams*& datagrams);
    NFS3Stream& Stream() {
        if (!m_Stream)
            m_Stream = std::make_unique<NFS3Stream>(m_Nfs);
        return *m_Stream;
    }
};

int32_t NFS3Transfer::State::Datagrams(const std::string& path, NFS3Datagrams*& datagrams) {
    if (!m_Datagrams) {
        RPCClient* udp = &m_Nfs;
        // A client made from a host name has no address to send datagrams to.
        if (m_Nfs.ProtocolUsed() != RPCClient::PROTOCOL_UDP || m_Nfs.Socket() < 0) {
            RPCClient* created = nullptr;
            rpc_createerr.cf_stat = RPC_SUCCESS;
            if (qsFailed(qsStatus(CreateRPCClient(created, m_Address, kNfsProgram, kNfsVersion,
                                                  RPCClient::PROTOCOL_UDP)))) {
                m_UdpFailed = true;
                clnt_stat why = rpc_createerr.cf_stat;
                return Translate(why == RPC_SUCCESS ? RPC_FAILED : why, NFS3_OK, kPipelineFormat,
                                 path);
            }
            m_UdpFailed = false;
            m_Udp.reset(created);
            m_Udp->SetAuth(m_Auth.Handle());
            udp = created;
        }
        m_Datagrams = std::make_unique<NFS3Datagrams>(*udp);
    }
    datagrams = m_Datagrams.get();
    return 0;
}

NFS3Transfer::NFS3Transfer(RPCClient& nfs, RPCAuth& auth, unsigned long address)
    : m_State(new State(nfs, auth, address)) {}

NFS3Transfer::~NFS3Transfer() = default;

int32_t NFS3Transfer::Read(const DirEntry& file, const ExportInfo::Facts& limits, void* destination,
                           int64_t offset, uint32_t& count) {
    if (!Valid("NFS3Transfer::Read", file, destination, offset, count)) {
        count = 0;
        return int32_t(QS_E_INVALIDARG);
    }
    if (!count)
        return 0;
    nfs_fh3 fh = Handle(file);
    char* into = static_cast<char*>(destination);
    if (!g_NFSUtils_UseScatterGather) {
        RPCClient& nfs = m_State->m_Nfs;
        uint32_t chunk = ChunkSize(limits.m_Known, limits.m_ReadPreferred, limits.m_ReadMax,
                                   limits.m_ReadMultiple, nfs.ProtocolUsed());
        // The stream needs the connection's socket, which a client made
        // from a host name does not tell.
        if (nfs.ProtocolUsed() == RPCClient::PROTOCOL_UDP || nfs.Socket() < 0)
            return PlainRead(nfs.Handle(), fh, file.m_Path, chunk, into, uint64_t(offset), count);
        return m_State->Stream().Read(fh, file.m_Path, chunk, into, uint64_t(offset), count);
    }
    NFS3Datagrams* datagrams = nullptr;
    if (int32_t result = m_State->Datagrams(file.m_Path, datagrams)) {
        count = 0;
        return result;
    }
    uint32_t piece = datagrams->PieceSize(fh, limits.m_Known ? limits.m_ReadMax : 0);
    return datagrams->Read(fh, file.m_Path, piece, into, uint64_t(offset), count);
}

int32_t NFS3Transfer::Write(const DirEntry& file, const ExportInfo::Facts& limits,
                            const void* source, int64_t offset, uint32_t& count) {
    uint32_t total = count;
    count = 0;
    if (!Valid("NFS3Transfer::Write", file, source, offset, total))
        return int32_t(QS_E_INVALIDARG);
    if (!total)
        return 0;
    nfs_fh3 fh = Handle(file);
    const char* from = static_cast<const char*>(source);
    RPCClient& nfs = m_State->m_Nfs;
    NFS3Datagrams* datagrams = nullptr;
    uint32_t chunk;
    if (g_NFSUtils_UseScatterGather) {
        if (int32_t result = m_State->Datagrams(file.m_Path, datagrams))
            return result;
        chunk = datagrams->PieceSize(fh, limits.m_Known ? limits.m_WriteMax : 0);
    } else {
        chunk = ChunkSize(limits.m_Known, limits.m_WritePreferred, limits.m_WriteMax,
                          limits.m_WriteMultiple, nfs.ProtocolUsed());
    }
    // UNSTABLE with one COMMIT, even for a range that fits one call, where
    // FILE_SYNC would save the COMMIT's round trip: against the test server
    // a FILE_SYNC write of 512 bytes took 2.6 to 3.8 ms and UNSTABLE plus
    // COMMIT 1.5 to 2.1 ms; from 8 KiB to 1 MiB the two were equal within
    // the noise of the disk's sync (benchNFSTransfer's "stability" mode).
    for (int round = 0; round < kWriteRounds; ++round) {
        WritePass pass;
        int32_t result;
        if (datagrams)
            result = datagrams->Write(fh, file.m_Path, chunk, from, uint64_t(offset), total, pass);
        else if (nfs.ProtocolUsed() == RPCClient::PROTOCOL_UDP || nfs.Socket() < 0)
            result = PlainWrite(nfs.Handle(), fh, file.m_Path, chunk, from, uint64_t(offset), total,
                                pass);
        else
            result = m_State->Stream().Write(fh, file.m_Path, chunk, from, uint64_t(offset), total,
                                             pass);
        count = pass.acknowledged;
        if (result)
            return result;
        if (pass.restarted)
            continue;
        if (!pass.uncommitted)
            return 0;
        char verifier[NFS3_WRITEVERFSIZE];
        if (int32_t failed =
                Commit(nfs.Handle(), fh, file.m_Path, uint64_t(offset), total, verifier))
            return failed;
        if (!pass.Changed(verifier))
            return 0;
    }
    // Nothing is known to be stable after a restart the data did not outlast.
    count = 0;
    return Translate(RPC_SUCCESS, NFS3_OK, kCommitFormat, file.m_Path);
}

bool NFS3Transfer::Verify() {
    State& s = *m_State;
    if (!s.m_Udp)
        return !s.m_UdpFailed;
    s.m_Datagrams->DropQueued();
    char none = 0;
    return clnt_call(s.m_Udp->Handle(), NFSPROC3_NULL, XdrProc(XdrNothing), &none,
                     XdrProc(XdrNothing), &none, kVerifyTimeout) == RPC_SUCCESS;
}

} // namespace qsNFSUtils

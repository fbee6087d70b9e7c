// The browse implementation of the NFS client and its error translation.
//
// A browse object (NFSBrowseImpl3 over NFSBrowseImplCommon) owns its
// credential, a MOUNT client (ExportMount) and an NFS client, all to one
// server.  Paths are the server's: "/export/dir/name", the export being one
// of the server's export paths.  Each failed remote call is translated and
// logged once, right where its statuses are known; the code becomes the
// operation's result and the object's last error.

#include "qsNFSBrowse.h"
#include "ZBuffer.h"
#include "qsFileUtils.h"
#include "qsLog.h"
#include "qsNFS3Attributes.h"
#include "qsNFS3Transfer.h"
#include "qsNFSErrorMap.h"
#include "qsNFSStatus.h"
#include "qsNetUtils.h"
#include "qsRPCWrappers.h"
#include "qsSysInfo.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>

namespace {

constexpr long Code(qsStatus s) {
    return qsStatusAsLong(s);
}

// The detail is text from outside (paths, names): its '%' must print as
// itself, not start a conversion, since the joined text is the format.
std::string LiteralForFormat(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        out += c;
        if (c == '%')
            out += '%';
    }
    return out;
}

} // namespace

// Shared codes are intended: both version mismatches are one condition for
// a caller, as are a missing and an unregistered program, and a server that
// could not decode the arguments and one that failed otherwise.
RPCErrorMap::RPCErrorMap()
    : ErrorMap(Code(QS_E_RPC_CLIENT), {
                                          {RPC_CANTENCODEARGS, Code(QS_E_RPC_CANTENCODEARGS)},
                                          {RPC_CANTDECODERES, Code(QS_E_RPC_CANTDECODERES)},
                                          {RPC_CANTSEND, Code(QS_E_RPC_CANTSEND)},
                                          {RPC_TIMEDOUT, Code(QS_E_RPC_TIMEDOUT)},
                                          {RPC_VERSMISMATCH, Code(QS_E_RPC_VERSMISMATCH)},
                                          {RPC_AUTHERROR, Code(QS_E_RPC_AUTH)},
                                          {RPC_PROGUNAVAIL, Code(QS_E_RPC_PROGUNAVAIL)},
                                          {RPC_PROGVERSMISMATCH, Code(QS_E_RPC_VERSMISMATCH)},
                                          {RPC_PROCUNAVAIL, Code(QS_E_RPC_PROCUNAVAIL)},
                                          {RPC_CANTDECODEARGS, Code(QS_E_RPC_SYSTEMERROR)},
                                          {RPC_SYSTEMERROR, Code(QS_E_RPC_SYSTEMERROR)},
                                          {RPC_UNKNOWNHOST, Code(QS_E_RPC_UNKNOWNHOST)},
                                          {RPC_PMAPFAILURE, Code(QS_E_RPC_PMAPFAILURE)},
                                          {RPC_PROGNOTREGISTERED, Code(QS_E_RPC_PROGUNAVAIL)},
                                          {RPC_UNKNOWNPROTO, Code(QS_E_RPC_UNKNOWNPROTO)},
                                      }) {}

// Not-a-directory and is-a-directory share a code: either way the object
// has the wrong type for the operation.
NFSErrorMap::NFSErrorMap()
    : ErrorMap(Code(QS_E_NFS_FAILED), {
                                          {NFS3ERR_PERM, Code(QS_E_NFS_PERM)},
                                          {NFS3ERR_NOENT, Code(QS_E_NFS_NOENT)},
                                          {NFS3ERR_ACCES, Code(QS_E_NFS_ACCES)},
                                          {NFS3ERR_EXIST, Code(QS_E_NFS_EXIST)},
                                          {NFS3ERR_NOTDIR, Code(QS_E_NFS_WRONG_TYPE)},
                                          {NFS3ERR_ISDIR, Code(QS_E_NFS_WRONG_TYPE)},
                                          {NFS3ERR_ROFS, Code(QS_E_NFS_ROFS)},
                                          {NFS3ERR_NAMETOOLONG, Code(QS_E_NFS_NAMETOOLONG)},
                                          {NFS3ERR_NOTEMPTY, Code(QS_E_NFS_NOTEMPTY)},
                                          {NFS3ERR_STALE, Code(QS_E_NFS_STALE)},
                                          {NFS3ERR_BADHANDLE, Code(QS_E_NFS_BADHANDLE)},
                                          {NFS3ERR_SERVERFAULT, Code(QS_E_NFS_SERVERFAULT)},
                                          {NFS3ERR_BADTYPE, Code(QS_E_NFS_BADTYPE)},
                                      }) {}

Mount3ErrorMap::Mount3ErrorMap()
    : ErrorMap(Code(QS_E_NFS_FAILED), {
                                          {MNT3ERR_PERM, Code(QS_E_NFS_PERM)},
                                          {MNT3ERR_NOENT, Code(QS_E_NFS_NOENT)},
                                          {MNT3ERR_ACCES, Code(QS_E_NFS_ACCES)},
                                          {MNT3ERR_NOTDIR, Code(QS_E_NFS_WRONG_TYPE)},
                                          {MNT3ERR_NAMETOOLONG, Code(QS_E_NFS_NAMETOOLONG)},
                                          {MNT3ERR_SERVERFAULT, Code(QS_E_NFS_SERVERFAULT)},
                                      }) {}

NLMErrorMap::NLMErrorMap()
    : ErrorMap(Code(QS_E_NLM_FAILED), {
                                          {nlm_denied, Code(QS_E_NLM_DENIED)},
                                          {nlm_denied_nolocks, Code(QS_E_NLM_NOLOCKS)},
                                          {nlm_blocked, Code(QS_E_NLM_BLOCKED)},
                                          {nlm_denied_grace_period, Code(QS_E_NLM_GRACE_PERIOD)},
                                      }) {}

DWORDErrorMap::DWORDErrorMap() : ErrorMap(0, {}) {}

RPCErrorMap g_RPCErrorMap;
NFSErrorMap g_NFSErrorMap;
Mount3ErrorMap g_Mount3ErrorMap;
NLMErrorMap g_NLMErrorMap;
DWORDErrorMap g_DWORDErrorMap;

// A transport failure wins over whatever protocol status came with it, and
// it is always looked up in the global transport map.  A system error whose
// call the C library saw succeed therefore translates to 0 (DWORDErrorMap):
// the caller decides what it returns then.
template <typename T, T Success>
long TranslateError(ErrorMap<T>& map, clnt_stat rpcStatus, T status, const std::string& format,
                    const std::string& detail) {
    long result = Code(QS_E_NFS_NO_FAILURE);
    std::string text = format;
    if (!detail.empty()) {
        text += ' ';
        text += LiteralForFormat(detail);
    }
    if (rpcStatus != RPC_SUCCESS)
        result = g_RPCErrorMap.TranslateError(rpcStatus);
    else if (status != Success)
        result = map.TranslateError(status);
    qsLogPrintfA(LONG(result), qsLogSevWarning, text.c_str(), uint32_t(status),
                 uint32_t(rpcStatus));
    return result;
}

template long TranslateError<unsigned long, 0ul>(ErrorMap<unsigned long>&, clnt_stat, unsigned long,
                                                 const std::string&, const std::string&);
template long TranslateError<nfsstat3, NFS3_OK>(ErrorMap<nfsstat3>&, clnt_stat, nfsstat3,
                                                const std::string&, const std::string&);
template long TranslateError<mountstat3, MNT3_OK>(ErrorMap<mountstat3>&, clnt_stat, mountstat3,
                                                  const std::string&, const std::string&);
template long TranslateError<nlm_stats, nlm_granted>(ErrorMap<nlm_stats>&, clnt_stat, nlm_stats,
                                                     const std::string&, const std::string&);

// ---- browse objects -------------------------------------------------------

using namespace qsNFSUtils;

namespace {

constexpr int kNfsProgram = 100003;
constexpr int kMountProgram = 100005;

// The null procedure's answer, awaited by Verify, is a question of seconds:
// a server that takes longer is as good as gone for a caller deciding
// whether to reuse the object.
constexpr timeval kPingTimeout = {5, 0};

// READDIRPLUS sizes.  dircount bounds the names and cookies, maxcount the
// whole reply with attributes and handles, which are several times larger
// than the names: about 8 to 1, so that a batch is limited by its names and
// a directory costs few round trips.  A UDP reply must fit the C library's
// 8800-byte datagram buffer.
constexpr uint32_t kDirCountTcp = 8192, kMaxCountTcp = 65536;
constexpr uint32_t kDirCountUdp = 1024, kMaxCountUdp = 8192;

constexpr uint32_t kNewFileMode = 0777;

// The attributes a new object is made with: its mode, nothing else.
sattr3 ModeOnly(uint32_t mode) {
    DirEntry entry;
    entry.m_Mode = mode;
    return AttributesToSet(entry, eAttrMode);
}

// A decoded result record, freed when it goes out of scope.  Zero-filled
// first: the decoders allocate only into null pointers.
template <class T> class Reply {
public:
    explicit Reply(bool_t (*xdr)(XDR*, T*)) : m_Xdr(xdr) {}
    ~Reply() { xdr_free(XdrProc(m_Xdr), reinterpret_cast<char*>(&m_Res)); }
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    T* get() { return &m_Res; }
    T* operator->() { return &m_Res; }

private:
    bool_t (*m_Xdr)(XDR*, T*);
    T m_Res{};
};

// Statuses after which a client's connection cannot be trusted any more:
// the stream may be out of step, or the server gone or restarted.
bool ConnectionLost(clnt_stat status) {
    return status == RPC_CANTSEND || status == RPC_CANTRECV || status == RPC_TIMEDOUT ||
           status == RPC_CANTDECODERES;
}

// The null procedure's arguments and results.
bool_t XdrNothing(XDR*, void*) {
    return TRUE;
}

// Why a client could not be created, as a transport status for the log line
// of the call that needed it.
clnt_stat CreationFailure() {
    return rpc_createerr.cf_stat == RPC_SUCCESS ? RPC_FAILED : rpc_createerr.cf_stat;
}

std::string Dotted(unsigned long address) {
    char text[INET_ADDRSTRLEN] = "";
    in_addr a{in_addr_t(address)};
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

std::string LastComponent(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The export `path` lies in: the longest export path that equals it or is
// followed in it by a slash.  Null when none holds it.
template <class Exports> auto* LongestPrefix(Exports& exports, const std::string& path) {
    decltype(&exports.front()) best = nullptr;
    for (auto& e : exports) {
        const std::string& root = e.m_Path;
        bool holds = path.compare(0, root.size(), root) == 0 &&
                     (path.size() == root.size() || path[root.size()] == '/' || root == "/");
        if (holds && (!best || root.size() > best->m_Path.size()))
            best = &e;
    }
    return best;
}

// The MOUNT side of a browse object: the server's export list and the root
// handle of each export once mounted.  MOUNT runs over TCP only.
class ExportMount {
public:
    ExportMount(unsigned long address, RPCAuth& auth) : m_Address(address), m_Auth(auth) {}

    // Creates the MOUNT client and reads the export list: 0x80000008 when
    // the list cannot be read, whatever the reason (the factory reports
    // the C library's).
    long Init() {
        if (!Client() || ListExports() != 0)
            return qsStatusAsLong(QS_E_NOT_DONE);
        return 0;
    }

    // MNT of one export: its root handle into `info`.
    int32_t Mount(ExportInfo& info) {
        CLIENT* client = Client();
        clnt_stat status = client ? RPC_SUCCESS : CreationFailure();
        std::string path = info.m_Path;
        dirpath arg = path.data();
        Reply<mountres3> res(xdr_mountres3);
        if (client)
            status = mountproc3_mnt_3(&arg, res.get(), client);
        if (ConnectionLost(status))
            m_Client.reset();
        if (status == RPC_SUCCESS && res->fhs_status == MNT3_OK) {
            const fhandle3& fh = res->mountres3_u.mountinfo.fhandle;
            if (fh.fhandle3_len <= QS_NFS_HANDLE_MAX) {
                memcpy(info.m_RootHandle, fh.fhandle3_val, fh.fhandle3_len);
                info.m_RootHandleLength = fh.fhandle3_len;
                return 0;
            }
        }
        // A handle too long for the records is the server's fault.
        mountstat3 why = status == RPC_SUCCESS && res->fhs_status == MNT3_OK ? MNT3ERR_SERVERFAULT
                                                                             : res->fhs_status;
        return int32_t(TranslateError(g_Mount3ErrorMap, status, why,
                                      "mountproc3_mnt_3 (status %d, err 0x%8.8X)", path));
    }

    std::vector<ExportInfo> m_Exports;

private:
    CLIENT* Client() {
        if (m_Client)
            return m_Client->Handle();
        RPCClient* client = nullptr;
        if (qsFailed(qsStatus(
                CreateRPCClient(client, m_Address, kMountProgram, 3, RPCClient::PROTOCOL_TCP))))
            return nullptr;
        m_Client.reset(client);
        m_Client->SetAuth(m_Auth.Handle());
        return m_Client->Handle();
    }

    int ListExports() {
        char none = 0;
        exports list = nullptr;
        clnt_stat status = mountproc3_export_3(&none, &list, m_Client->Handle());
        if (status == RPC_SUCCESS) {
            for (exportnode* node = list; node; node = node->ex_next) {
                m_Exports.emplace_back();
                m_Exports.back().m_Path = node->ex_dir;
            }
        }
        xdr_free(XdrProc(xdr_exports), reinterpret_cast<char*>(&list));
        return status == RPC_SUCCESS ? 0 : -1;
    }

    unsigned long m_Address;
    RPCAuth& m_Auth;
    std::unique_ptr<RPCClient> m_Client;
};

// What every version of the browse object shares: credentials, the mount
// helper, the NFS client and its recovery, the mount points, the last error.
class NFSBrowseImplCommon : public NFSBrowse {
public:
    NFSBrowseImplCommon(unsigned long address, RPCAuth* auth, int nfsVersion, CancelledIf* cancel)
        : m_Address(address), m_Auth(auth), m_NfsVersion(nfsVersion), m_Cancel(cancel),
          m_Mount(address, *auth) {}
    ~NFSBrowseImplCommon() override = default;

    long Init(eUseProtocol protocol) {
        long result = m_Mount.Init();
        if (qsFailed(qsStatus(result)))
            return result;
        m_Protocol = protocol;
        if (!Connect())
            return qsStatusAsLong(QS_E_RPC_CLIENT);
        m_MachineName = qsSysInfo::GetComputerNameA();
        return 0;
    }

    // Usable while the NFS server answers its null procedure, on the
    // connection the object has or, after a lost one, on a new one.
    bool Verify() override { return (Ping() || (Panic(), Ping())) && VerifyMore(); }

    // The free space and file counts change: an export mounted earlier has
    // its facts read again.
    int32_t FindMountPoint(const std::string& path, ExportInfo& info) override {
        ExportInfo* found = LongestPrefix(m_Mount.m_Exports, path);
        bool mounted = found && found->m_RootHandleLength;
        int32_t result = MountPoint(path, found);
        if (result == 0 && mounted)
            result = Fail(ReadFacts(*found));
        if (result == 0)
            info = *found;
        return result;
    }

    // Granted locks arrive with the lock manager's client; until then no
    // lock is ever taken, which callers must expect of a server anyway.
    bool LockFile(const DirEntry&, bool, bool) override { return false; }

    int32_t GetLastObjectError() override { return m_LastError; }

protected:
    // The export holding `path`, mounted and its file-system facts read on
    // first use.
    int32_t MountPoint(const std::string& path, ExportInfo*& info) {
        info = LongestPrefix(m_Mount.m_Exports, path);
        if (!info)
            return Fail(TranslateError(
                g_Mount3ErrorMap, RPC_SUCCESS, MNT3ERR_NOENT,
                "NFSBrowseImplCommon::FindMountPoint (status %d, err 0x%8.8X)", path));
        if (info->m_RootHandleLength)
            return 0;
        int32_t result = m_Mount.Mount(*info);
        if (result == 0)
            result = ReadFacts(*info);
        if (result != 0)
            info->m_RootHandleLength = 0;
        return Fail(result);
    }

    // FSINFO, FSSTAT and PATHCONF of an export's root into its facts.
    virtual int32_t ReadFacts(ExportInfo& info) = 0;
    // The rest of Verify: connections a version keeps beside the NFS client.
    virtual bool VerifyMore() { return true; }
    // Drops what depends on the NFS client before it is replaced.
    virtual void DropConnection() {}

    // The NFS client, connected again after a lost connection; null (and
    // the reason in `why`) when the server cannot be reached.
    CLIENT* Nfs(clnt_stat& why) {
        if (m_Nfs || Connect())
            return m_Nfs->Handle();
        why = CreationFailure();
        return nullptr;
    }

    // After a transport failure: the connection is dropped, and the next
    // call makes a new one, so that a server that restarted is reached
    // again.  The failed call itself is not repeated.
    void Panic() {
        DropConnection();
        m_Nfs.reset();
    }

    template <class Args, class Res>
    clnt_stat Invoke(clnt_stat (*stub)(Args*, Res*, CLIENT*), Args& args, Res* res) {
        clnt_stat status = RPC_SUCCESS;
        CLIENT* client = Nfs(status);
        if (!client)
            return status;
        status = stub(&args, res, client);
        if (ConnectionLost(status))
            Panic();
        return status;
    }

    // Keeps a failure's code as the last error; passes success through.
    int32_t Fail(long code) {
        if (code != 0)
            m_LastError = int32_t(code);
        return int32_t(code);
    }

    RPCClient::PROTOCOL Transport() const {
        return m_Nfs ? m_Nfs->ProtocolUsed() : RPCClient::PROTOCOL_TCP;
    }

    unsigned long m_Address;
    // Declared first, destroyed last: every client carries it.
    std::unique_ptr<RPCAuth> m_Auth;
    int m_NfsVersion;
    // Kept for callers that pass one; no operation here is long enough to
    // poll it between calls.
    CancelledIf* m_Cancel;
    ExportMount m_Mount;
    std::unique_ptr<RPCClient> m_Nfs;
    eUseProtocol m_Protocol = eUseTCPThenUDP;
    // The caller name of lock requests.
    std::string m_MachineName;
    int32_t m_LastError = 0;

private:
    bool Connect() {
        RPCClient* client = nullptr;
        long result = qsStatusAsLong(QS_E_RPC_CLIENT);
        if (m_Protocol != eUseUDP)
            result = CreateRPCClient(client, m_Address, kNfsProgram, m_NfsVersion,
                                     RPCClient::PROTOCOL_TCP);
        if (qsFailed(qsStatus(result)) && m_Protocol != eUseTCP)
            result = CreateRPCClient(client, m_Address, kNfsProgram, m_NfsVersion,
                                     RPCClient::PROTOCOL_UDP);
        if (qsFailed(qsStatus(result)))
            return false;
        m_Nfs.reset(client);
        m_Nfs->SetAuth(m_Auth->Handle());
        return true;
    }

    bool Ping() {
        if (!m_Nfs && !Connect())
            return false;
        timeval timeout = kPingTimeout;
        clnt_stat status = clnt_call(m_Nfs->Handle(), NULLPROC, XdrProc(XdrNothing), nullptr,
                                     XdrProc(XdrNothing), nullptr, timeout);
        return status == RPC_SUCCESS;
    }
};

// A cursor over one directory: the current READDIRPLUS batch and where the
// next one starts.  Only one batch is held at a time.
class NFS3GetNextHandle final : public NFSGetNextHandle {
public:
    explicit NFS3GetNextHandle(const DirEntry& directory) : m_Directory(directory) {}
    ~NFS3GetNextHandle() override = default;

    DirEntry m_Directory;
    cookie3 m_Cookie = 0;
    cookieverf3 m_Verifier = {};
    bool m_Eof = false;
    std::unique_ptr<Reply<READDIRPLUS3res>> m_Batch;
    entryplus3* m_Next = nullptr; // the next entry of the batch to hand out
};

class NFSBrowseImpl3 final : public NFSBrowseImplCommon {
public:
    NFSBrowseImpl3(unsigned long address, RPCAuth* auth, CancelledIf* cancel)
        : NFSBrowseImplCommon(address, auth, 3, cancel) {}
    ~NFSBrowseImpl3() override { DropConnection(); }

    int32_t Exports(std::vector<ExportInfo>& exports) override {
        exports = m_Mount.m_Exports;
        return 0;
    }

    int32_t ExportPaths(std::vector<std::string>& paths) override {
        paths.clear();
        for (const ExportInfo& e : m_Mount.m_Exports)
            paths.push_back(e.m_Path);
        return 0;
    }

    int32_t Entries(const DirEntry& directory, std::vector<DirEntry>& entries) override;
    DirEntry* Open(const std::string& path, bool create, bool makeParents) override;
    int32_t Lookup(const DirEntry& directory, const std::string& name, DirEntry& entry) override;
    int32_t Write(const DirEntry& file, const void* source, int64_t offset,
                  uint32_t& count) override;
    int32_t Read(const DirEntry& file, void* destination, int64_t offset, uint32_t& count) override;
    int32_t CreateObject(const DirEntry& directory, DirEntry& entry) override;
    int32_t DeleteObject(const DirEntry& directory, const DirEntry& entry) override;
    int32_t RenameObject(const DirEntry& directory, DirEntry& entry,
                         const std::string& newName) override;
    int32_t ReadSymlink(const DirEntry& link, ZBuffer& text) override;
    int32_t CreateSymlink(const DirEntry& directory, DirEntry& entry, const ZBuffer& text) override;
    int32_t FileExists(const DirEntry& directory, const std::string& name,
                       DirEntry& entry) override {
        return Lookup(directory, name, entry);
    }
    int32_t Access(const DirEntry& entry, uint32_t& mask) override;
    int32_t MakeLink(const DirEntry& target, const DirEntry& directory,
                     const std::string& name) override;
    int32_t GetFirstDirEntry(const DirEntry& directory, DirEntry& entry,
                             NFSGetNextHandle*& cursor) override;
    int32_t GetNextDirEntry(NFSGetNextHandle* cursor, DirEntry& entry) override;
    int32_t SetAttributes(const DirEntry& entry, uint32_t mask) override;
    int32_t GetAttributes(DirEntry& entry) override;

protected:
    int32_t ReadFacts(ExportInfo& info) override;
    bool VerifyMore() override { return !m_Transfer || m_Transfer->Verify(); }
    void DropConnection() override { m_Transfer.reset(); }

private:
    // The result of a call whose reply carries an nfsstat3: 0, or the
    // translated and logged code, kept as the last error.
    int32_t Check(clnt_stat rpc, nfsstat3 status, const char* format, const std::string& detail) {
        if (rpc == RPC_SUCCESS && status == NFS3_OK)
            return 0;
        return Fail(TranslateError(g_NFSErrorMap, rpc, status, format, detail));
    }

    // One call and its outcome: 0, or the failure translated, logged and
    // kept (Check).
    template <class Args, class Res>
    int32_t Ask(clnt_stat (*stub)(Args*, Res*, CLIENT*), Args& args, Res* res, const char* format,
                const std::string& detail) {
        clnt_stat rpc = Invoke(stub, args, res);
        return Check(rpc, res->status, format, detail);
    }

    // A reply that cannot be what the server meant (a handle longer than
    // any version 3 handle, an entry without a handle that then cannot be
    // looked up): the server's fault.
    int32_t ServerFault(const char* format, const std::string& detail) {
        return Check(RPC_SUCCESS, NFS3ERR_SERVERFAULT, format, detail);
    }

    // Completes a new object's entry from what its creation returned, with
    // a LOOKUP where the server left out the handle or the attributes.
    int32_t Created(const DirEntry& directory, DirEntry& entry, const post_op_fh3& handle,
                    const post_op_attr& attributes, const char* format);
    int32_t CreateFile(const DirEntry& directory, DirEntry& entry, createmode3 mode);
    int32_t CreateLink(const DirEntry& directory, DirEntry& entry, const std::string& text);
    int32_t FetchBatch(NFS3GetNextHandle& cursor);
    int32_t Transfer(const DirEntry& file, const char* format, uint32_t& count,
                     const std::function<int32_t(NFS3Transfer&, const ExportInfo::Facts&)>& run);

    std::unique_ptr<NFS3Transfer> m_Transfer;
};

int32_t NFSBrowseImpl3::ReadFacts(ExportInfo& info) {
    nfs_fh3 fh{{info.m_RootHandleLength, reinterpret_cast<char*>(info.m_RootHandle)}};
    ExportInfo::Facts& f = info.m_Facts;
    info.InitExportInfo();

    FSINFO3args fsinfoArgs{fh};
    Reply<FSINFO3res> fsinfo(xdr_FSINFO3res);
    if (int32_t r = Ask(nfsproc3_fsinfo_3, fsinfoArgs, fsinfo.get(),
                        "nfsproc3_fsinfo_3 (status %d, err 0x%8.8X)", info.m_Path))
        return r;
    const FSINFO3resok& i = fsinfo->FSINFO3res_u.resok;
    f.m_ReadMax = i.rtmax, f.m_ReadPreferred = i.rtpref, f.m_ReadMultiple = i.rtmult;
    f.m_WriteMax = i.wtmax, f.m_WritePreferred = i.wtpref, f.m_WriteMultiple = i.wtmult;
    f.m_DirectoryPreferred = i.dtpref;
    f.m_MaxFileSize = i.maxfilesize;
    f.m_TimeDeltaSeconds = i.time_delta.seconds;
    f.m_TimeDeltaNanoseconds = i.time_delta.nseconds;
    f.m_Properties = i.properties;

    FSSTAT3args fsstatArgs{fh};
    Reply<FSSTAT3res> fsstat(xdr_FSSTAT3res);
    if (int32_t r = Ask(nfsproc3_fsstat_3, fsstatArgs, fsstat.get(),
                        "nfsproc3_fsstat_3 (status %d, err 0x%8.8X)", info.m_Path))
        return r;
    const FSSTAT3resok& s = fsstat->FSSTAT3res_u.resok;
    f.m_TotalBytes = s.tbytes, f.m_FreeBytes = s.fbytes, f.m_AvailableBytes = s.abytes;
    f.m_TotalFiles = s.tfiles, f.m_FreeFiles = s.ffiles, f.m_AvailableFiles = s.afiles;
    f.m_InvariantSeconds = s.invarsec;

    PATHCONF3args pathconfArgs{fh};
    Reply<PATHCONF3res> pathconf(xdr_PATHCONF3res);
    if (int32_t r = Ask(nfsproc3_pathconf_3, pathconfArgs, pathconf.get(),
                        "nfsproc3_pathconf_3 (status %d, err 0x%8.8X)", info.m_Path))
        return r;
    const PATHCONF3resok& p = pathconf->PATHCONF3res_u.resok;
    f.m_LinkMax = p.linkmax, f.m_NameMax = p.name_max;
    f.m_NoTrunc = p.no_trunc, f.m_ChownRestricted = p.chown_restricted;
    f.m_CaseInsensitive = p.case_insensitive, f.m_CasePreserving = p.case_preserving;
    f.m_Known = true;
    return 0;
}

int32_t NFSBrowseImpl3::Lookup(const DirEntry& directory, const std::string& name,
                               DirEntry& entry) {
    std::string path = JoinPath(directory.m_Path, name);
    std::string copy = name;
    LOOKUP3args args{{HandleOf(directory), copy.data()}};
    Reply<LOOKUP3res> res(xdr_LOOKUP3res);
    const char* format = "nfsproc3_lookup_3 (status %d, err 0x%8.8X)";
    if (int32_t r = Ask(nfsproc3_lookup_3, args, res.get(), format, path))
        return r;
    DirEntry found;
    found.m_Path = path;
    found.m_Name = LastComponent(path);
    if (!SetHandle(found, res->LOOKUP3res_u.resok.object))
        return ServerFault(format, path);
    if (!qsNFSUtils::SetAttributes(found, res->LOOKUP3res_u.resok.obj_attributes)) {
        if (int32_t r = GetAttributes(found))
            return r;
    }
    entry = std::move(found);
    return 0;
}

int32_t NFSBrowseImpl3::GetAttributes(DirEntry& entry) {
    GETATTR3args args{HandleOf(entry)};
    Reply<GETATTR3res> res(xdr_GETATTR3res);
    if (int32_t r = Ask(nfsproc3_getattr_3, args, res.get(),
                        "nfsproc3_getattr_3 (status %d, err 0x%8.8X)", entry.m_Path))
        return r;
    qsNFSUtils::SetAttributes(entry, res->GETATTR3res_u.resok.obj_attributes);
    return 0;
}

int32_t NFSBrowseImpl3::SetAttributes(const DirEntry& entry, uint32_t mask) {
    SETATTR3args args{};
    args.object = HandleOf(entry);
    args.new_attributes = AttributesToSet(entry, mask);
    args.guard.check = FALSE;
    Reply<SETATTR3res> res(xdr_SETATTR3res);
    return Ask(nfsproc3_setattr_3, args, res.get(), "nfsproc3_setattr_3 (status %d, err 0x%8.8X)",
               entry.m_Path);
}

int32_t NFSBrowseImpl3::Access(const DirEntry& entry, uint32_t& mask) {
    ACCESS3args args{HandleOf(entry), mask};
    Reply<ACCESS3res> res(xdr_ACCESS3res);
    if (int32_t r = Ask(nfsproc3_access_3, args, res.get(),
                        "nfsproc3_access_3 (status %d, err 0x%8.8X)", entry.m_Path))
        return r;
    mask = res->ACCESS3res_u.resok.access;
    return 0;
}

// The walk resolves no symbolic links: each component is looked up in the
// directory the previous one named, as the server sees it.
DirEntry* NFSBrowseImpl3::Open(const std::string& path, bool create, bool makeParents) {
    ExportInfo* mount = nullptr;
    if (MountPoint(path, mount) != 0)
        return nullptr;
    auto current = std::make_unique<DirEntry>();
    current->m_Path = mount->m_Path;
    current->m_Name = LastComponent(mount->m_Path);
    memcpy(current->m_Handle, mount->m_RootHandle, mount->m_RootHandleLength);
    current->m_HandleLength = mount->m_RootHandleLength;
    current->m_Type = eTypeDirectory;

    std::vector<std::string> names;
    for (size_t at = mount->m_Path.size(); at < path.size();) {
        size_t end = path.find('/', at);
        if (end == std::string::npos)
            end = path.size();
        if (end > at && path.compare(at, end - at, ".") != 0)
            names.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    if (names.empty())
        return GetAttributes(*current) == 0 ? current.release() : nullptr;

    for (size_t i = 0; i < names.size(); ++i) {
        bool last = i + 1 == names.size();
        DirEntry next;
        int32_t result = Lookup(*current, names[i], next);
        if (result == int32_t(QS_E_NFS_NOENT) && create && (last || makeParents)) {
            next.m_Name = names[i];
            next.m_Type = last ? eTypeRegular : eTypeDirectory;
            // Unchecked: a file another client creates meanwhile is opened,
            // not refused, as an open-or-create must.
            result = last ? CreateFile(*current, next, UNCHECKED) : CreateObject(*current, next);
        }
        if (result != 0)
            return nullptr;
        *current = std::move(next);
    }
    return current.release();
}

int32_t NFSBrowseImpl3::Created(const DirEntry& directory, DirEntry& entry,
                                const post_op_fh3& handle, const post_op_attr& attributes,
                                const char* format) {
    std::string name = entry.m_Name;
    if (!handle.handle_follows)
        return Lookup(directory, name, entry);
    DirEntry made;
    made.m_Path = JoinPath(directory.m_Path, name);
    made.m_Name = name;
    if (!SetHandle(made, handle.post_op_fh3_u.handle))
        return ServerFault(format, made.m_Path);
    if (!qsNFSUtils::SetAttributes(made, attributes)) {
        if (int32_t r = GetAttributes(made))
            return r;
    }
    entry = std::move(made);
    return 0;
}

// New files get mode 0777 whatever the entry says: the server applies no
// mask, and access is left to the directory's and the server's rules.
int32_t NFSBrowseImpl3::CreateFile(const DirEntry& directory, DirEntry& entry, createmode3 mode) {
    std::string name = entry.m_Name;
    CREATE3args args{};
    args.where = {HandleOf(directory), name.data()};
    args.how.mode = mode;
    args.how.createhow3_u.obj_attributes = ModeOnly(kNewFileMode);
    Reply<CREATE3res> res(xdr_CREATE3res);
    const char* format = "nfsproc3_create_3 (status %d, err 0x%8.8X)";
    if (int32_t r =
            Ask(nfsproc3_create_3, args, res.get(), format, JoinPath(directory.m_Path, name)))
        return r;
    const CREATE3resok& ok = res->CREATE3res_u.resok;
    return Created(directory, entry, ok.obj, ok.obj_attributes, format);
}

int32_t NFSBrowseImpl3::CreateLink(const DirEntry& directory, DirEntry& entry,
                                   const std::string& text) {
    std::string name = entry.m_Name, target = text;
    SYMLINK3args args{};
    args.where = {HandleOf(directory), name.data()};
    args.symlink.symlink_attributes = ModeOnly(kNewFileMode);
    args.symlink.symlink_data = target.data();
    Reply<SYMLINK3res> res(xdr_SYMLINK3res);
    const char* format = "nfsproc3_symlink_3 (status %d, err 0x%8.8X)";
    if (int32_t r =
            Ask(nfsproc3_symlink_3, args, res.get(), format, JoinPath(directory.m_Path, name)))
        return r;
    const SYMLINK3resok& ok = res->SYMLINK3res_u.resok;
    return Created(directory, entry, ok.obj, ok.obj_attributes, format);
}

int32_t NFSBrowseImpl3::CreateObject(const DirEntry& directory, DirEntry& entry) {
    const char* format = "NFSBrowseImpl3::CreateObject (status %d, err 0x%8.8X)";
    if (entry.m_Type == eTypeRegular)
        return CreateFile(directory, entry, GUARDED);
    if (entry.m_Type == eTypeSymlink)
        return CreateLink(directory, entry, entry.m_LinkText);
    if (entry.m_Type != eTypeDirectory)
        return Check(RPC_SUCCESS, NFS3ERR_BADTYPE, format,
                     JoinPath(directory.m_Path, entry.m_Name));

    std::string name = entry.m_Name;
    MKDIR3args args{};
    args.where = {HandleOf(directory), name.data()};
    args.attributes = ModeOnly(entry.m_Mode ? entry.m_Mode & 07777 : kNewFileMode);
    Reply<MKDIR3res> res(xdr_MKDIR3res);
    if (int32_t r =
            Ask(nfsproc3_mkdir_3, args, res.get(), format, JoinPath(directory.m_Path, name)))
        return r;
    const MKDIR3resok& ok = res->MKDIR3res_u.resok;
    return Created(directory, entry, ok.obj, ok.obj_attributes, format);
}

int32_t NFSBrowseImpl3::CreateSymlink(const DirEntry& directory, DirEntry& entry,
                                      const ZBuffer& text) {
    const char* bytes = reinterpret_cast<const char*>(text.Data());
    std::string target = bytes ? std::string(bytes, strnlen(bytes, text.BytesUsed())) : "";
    return CreateLink(directory, entry, target);
}

int32_t NFSBrowseImpl3::ReadSymlink(const DirEntry& link, ZBuffer& text) {
    READLINK3args args{HandleOf(link)};
    Reply<READLINK3res> res(xdr_READLINK3res);
    if (int32_t r = Ask(nfsproc3_readlink_3, args, res.get(),
                        "nfsproc3_readlink_3 (status %d, err 0x%8.8X)", link.m_Path))
        return r;
    const char* target = res->READLINK3res_u.resok.data;
    return Fail(long(int32_t(text.Assign(target ? target : ""))));
}

int32_t NFSBrowseImpl3::DeleteObject(const DirEntry& directory, const DirEntry& entry) {
    std::string name = entry.m_Name;
    diropargs3 what{HandleOf(directory), name.data()};
    if (entry.m_Type == eTypeDirectory) {
        RMDIR3args args{what};
        Reply<RMDIR3res> res(xdr_RMDIR3res);
        return Ask(nfsproc3_rmdir_3, args, res.get(), "nfsproc3_rmdir_3 (status %d, err 0x%8.8X)",
                   entry.m_Path);
    }
    REMOVE3args args{what};
    Reply<REMOVE3res> res(xdr_REMOVE3res);
    return Ask(nfsproc3_remove_3, args, res.get(), "nfsproc3_remove_3 (status %d, err 0x%8.8X)",
               entry.m_Path);
}

int32_t NFSBrowseImpl3::RenameObject(const DirEntry& directory, DirEntry& entry,
                                     const std::string& newName) {
    // A path names the new directory too; it must already exist.
    std::unique_ptr<DirEntry> target;
    const DirEntry* to = &directory;
    std::string toName = newName;
    size_t slash = newName.find_last_of('/');
    if (slash != std::string::npos) {
        target.reset(Open(slash ? newName.substr(0, slash) : "/", false, false));
        if (!target)
            return m_LastError;
        to = target.get();
        toName = newName.substr(slash + 1);
    }
    std::string fromName = entry.m_Name;
    RENAME3args args{{HandleOf(directory), fromName.data()}, {HandleOf(*to), toName.data()}};
    Reply<RENAME3res> res(xdr_RENAME3res);
    if (int32_t r = Ask(nfsproc3_rename_3, args, res.get(),
                        "nfsproc3_rename_3 (status %d, err 0x%8.8X)", entry.m_Path))
        return r;
    entry.m_Path = JoinPath(to->m_Path, toName);
    entry.m_Name = toName;
    return 0;
}

int32_t NFSBrowseImpl3::MakeLink(const DirEntry& target, const DirEntry& directory,
                                 const std::string& name) {
    std::string copy = name;
    LINK3args args{HandleOf(target), {HandleOf(directory), copy.data()}};
    Reply<LINK3res> res(xdr_LINK3res);
    return Ask(nfsproc3_link_3, args, res.get(), "nfsproc3_link_3 (status %d, err 0x%8.8X)",
               JoinPath(directory.m_Path, name));
}

// One READDIRPLUS after the cursor's cookie.  A batch that brings nothing
// new before the end (no entries, or a last cookie the same as the one
// asked with) would be asked for again for ever: it is an error.
int32_t NFSBrowseImpl3::FetchBatch(NFS3GetNextHandle& cursor) {
    const char* format = "nfsproc3_readdirplus_3 (status %d, err 0x%8.8X)";
    bool udp = Transport() == RPCClient::PROTOCOL_UDP;
    READDIRPLUS3args args{};
    args.dir = HandleOf(cursor.m_Directory);
    args.cookie = cursor.m_Cookie;
    memcpy(args.cookieverf, cursor.m_Verifier, NFS3_COOKIEVERFSIZE);
    args.dircount = udp ? kDirCountUdp : kDirCountTcp;
    args.maxcount = udp ? kMaxCountUdp : kMaxCountTcp;
    cursor.m_Batch.reset(); // one batch at a time
    cursor.m_Next = nullptr;
    auto batch = std::make_unique<Reply<READDIRPLUS3res>>(xdr_READDIRPLUS3res);
    if (int32_t r =
            Ask(nfsproc3_readdirplus_3, args, batch->get(), format, cursor.m_Directory.m_Path))
        return r;
    READDIRPLUS3resok& ok = (*batch)->READDIRPLUS3res_u.resok;
    entryplus3* last = ok.reply.entries;
    while (last && last->nextentry)
        last = last->nextentry;
    bool stuck = last ? last->cookie == cursor.m_Cookie && cursor.m_Cookie != 0 : !ok.reply.eof;
    if (stuck)
        return Check(RPC_SUCCESS, NFS3ERR_BAD_COOKIE, format,
                     cursor.m_Directory.m_Path + " (the server's cookie does not advance)");
    memcpy(cursor.m_Verifier, ok.cookieverf, NFS3_COOKIEVERFSIZE);
    if (last)
        cursor.m_Cookie = last->cookie;
    cursor.m_Eof = ok.reply.eof;
    cursor.m_Next = ok.reply.entries;
    cursor.m_Batch = std::move(batch);
    return 0;
}

int32_t NFSBrowseImpl3::GetNextDirEntry(NFSGetNextHandle* base, DirEntry& entry) {
    auto* cursor = dynamic_cast<NFS3GetNextHandle*>(base);
    if (!cursor)
        return Fail(qsStatusAsLong(QS_E_INVALIDARG));
    for (;;) {
        if (!cursor->m_Next) {
            if (cursor->m_Eof)
                return int32_t(QS_W_NO_MORE_ENTRIES);
            if (int32_t r = FetchBatch(*cursor))
                return r;
            continue;
        }
        entryplus3* e = cursor->m_Next;
        cursor->m_Next = e->nextentry;
        std::string name = e->name ? e->name : "";
        if (name == "." || name == ".." || name.empty())
            continue;
        DirEntry found;
        found.m_Path = JoinPath(cursor->m_Directory.m_Path, name);
        found.m_Name = name;
        bool complete = e->name_handle.handle_follows &&
                        SetHandle(found, e->name_handle.post_op_fh3_u.handle) &&
                        qsNFSUtils::SetAttributes(found, e->name_attributes);
        if (!complete)
            return Lookup(cursor->m_Directory, name, entry);
        entry = std::move(found);
        return 0;
    }
}

int32_t NFSBrowseImpl3::GetFirstDirEntry(const DirEntry& directory, DirEntry& entry,
                                         NFSGetNextHandle*& cursor) {
    auto made = std::make_unique<NFS3GetNextHandle>(directory);
    if (int32_t r = FetchBatch(*made))
        return r;
    int32_t result = GetNextDirEntry(made.get(), entry);
    if (result == 0)
        cursor = made.release();
    return result;
}

int32_t NFSBrowseImpl3::Entries(const DirEntry& directory, std::vector<DirEntry>& entries) {
    NFSGetNextHandle* raw = nullptr;
    DirEntry entry;
    int32_t result = GetFirstDirEntry(directory, entry, raw);
    std::unique_ptr<NFSGetNextHandle> cursor(raw);
    while (result == 0) {
        entries.push_back(std::move(entry));
        result = GetNextDirEntry(cursor.get(), entry);
    }
    return result == int32_t(QS_W_NO_MORE_ENTRIES) ? 0 : result;
}

// The transfer works on the NFS client of the moment: it is made anew after
// a lost connection, and a transport failure inside it drops the connection
// as any other call's does.  `run` reads or writes with the facts of the
// export holding the file.
int32_t NFSBrowseImpl3::Transfer(
    const DirEntry& file, const char* format, uint32_t& count,
    const std::function<int32_t(NFS3Transfer&, const ExportInfo::Facts&)>& run) {
    ExportInfo* mount = LongestPrefix(m_Mount.m_Exports, file.m_Path);
    ExportInfo::Facts facts =
        mount && mount->m_RootHandleLength ? mount->m_Facts : ExportInfo::Facts{};
    if (!m_Transfer) {
        clnt_stat why = RPC_SUCCESS;
        if (!Nfs(why)) {
            count = 0;
            return Check(why, NFS3_OK, format, file.m_Path);
        }
        m_Transfer = std::make_unique<NFS3Transfer>(*m_Nfs, *m_Auth, m_Address);
    }
    int32_t result = run(*m_Transfer, facts);
    if ((uint32_t(result) & 0xFFFFFF00u) == (QS_E_RPC_CLIENT & 0xFFFFFF00u))
        Panic();
    return Fail(result);
}

int32_t NFSBrowseImpl3::Read(const DirEntry& file, void* destination, int64_t offset,
                             uint32_t& count) {
    return Transfer(file, "nfsproc3_read_3 (status %d, err 0x%8.8X)", count,
                    [&](NFS3Transfer& transfer, const ExportInfo::Facts& facts) {
                        return transfer.Read(file, facts, destination, offset, count);
                    });
}

int32_t NFSBrowseImpl3::Write(const DirEntry& file, const void* source, int64_t offset,
                              uint32_t& count) {
    return Transfer(file, "nfsproc3_write_3 (status %d, err 0x%8.8X)", count,
                    [&](NFS3Transfer& transfer, const ExportInfo::Facts& facts) {
                        return transfer.Write(file, facts, source, offset, count);
                    });
}

} // namespace

qsStatus DirEntry::CopyToWin32FindData(WIN32_FIND_DATAA* data) const {
    if (!data)
        return QS_E_INVALIDARG;
    memset(data, 0, sizeof *data);
    data->dwFileAttributes = m_Type == eTypeDirectory ? FILE_ATTRIBUTE_DIRECTORY : 0;
    data->ftLastAccessTime = m_LastAccessTime;
    data->ftLastWriteTime = m_LastWriteTime;
    data->nFileSizeHigh = DWORD(m_Size >> 32);
    data->nFileSizeLow = DWORD(m_Size);
    const char* name = qsFileUtils::GetLastSlash(m_Path.c_str());
    name = name ? name + 1 : m_Path.c_str();
    size_t length = strlen(name);
    if (length + 1 > sizeof data->cFileName)
        return QS_E_EMPTY_NAME;
    memcpy(data->cFileName, name, length + 1);
    return QS_OK;
}

long qsNFSUtils::CreateNFSBrowse(NFSBrowse*& out, unsigned long address, int uid,
                                 const std::vector<int>& gids, CancelledIf* cancel,
                                 eUseProtocol protocol) {
    memset(&rpc_createerr, 0, sizeof rpc_createerr);
    RPCAuth* auth = nullptr;
    long result = CreateRPCAuth(auth, uid, gids);
    if (!qsFailed(qsStatus(result))) {
        auto browse = std::make_unique<NFSBrowseImpl3>(address, auth, cancel);
        result = browse->Init(protocol);
        if (!qsFailed(qsStatus(result))) {
            out = browse.release();
            return 0;
        }
    }
    // The C library's creation status tells why a client could not be
    // made; when it saw nothing wrong (a list that could not be read, a
    // credential refused) the translation is 0 and the failure's own code
    // is returned.
    unsigned long systemError = unsigned(errno);
    long translated = TranslateError(g_DWORDErrorMap, rpc_createerr.cf_stat, systemError,
                                     "CreateNFSBrowse failed (system err 0x%8.8x, RPC status %d)",
                                     Dotted(address));
    return translated ? translated : result;
}

long qsNFSUtils::CreateNFSBrowse(NFSBrowse*& out, const std::string& host, int uid,
                                 const std::vector<int>& gids, CancelledIf* cancel,
                                 eUseProtocol protocol) {
    unsigned long address = 0;
    long result = qsNetUtils::GetHostIPAddress(host.c_str(), address, false);
    if (qsFailed(qsStatus(result)))
        return result;
    return CreateNFSBrowse(out, address, uid, gids, cancel, protocol);
}

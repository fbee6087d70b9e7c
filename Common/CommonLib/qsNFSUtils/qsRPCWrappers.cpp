#include "qsRPCWrappers.h"

#include "qsLog.h"
#include "qsNFSStatus.h"
#include "qsNetUtils.h"
#include "qsRPCLocks.h"
#include "qsSysInfo.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls use it.
#pragma GCC diagnostic ignored "-Wformat"

constinit ZCriticalSection g_ClientCreateCS;
constinit ZCriticalSection g_RPCAuthCritSect;

namespace {

using qsNFSUtils::RPCClient;

// Pipelined calls are built in, and replies decoded from, buffers of this
// size: one UDP datagram of the NFS client never exceeds it.
constexpr unsigned kCallBufferSize = 8192;
// Room for one 32 KiB transfer plus its headers.
constexpr unsigned kTcpBufferSize = 33792;
constexpr time_t kUdpRetransmitSeconds = 2;

// The receive buffer of RecvReply, one for the whole process: replies are
// decoded in place, with no allocation per call.
char inBuffer[kCallBufferSize];

// Any start will do, since only the decrements matter; varying it between
// clients and runs keeps a server's duplicate-request cache from taking a
// new call for an answered one.
uint32_t FirstTransactionId(const void* client) {
    timeval now;
    gettimeofday(&now, nullptr);
    return uint32_t(now.tv_sec) ^ (uint32_t(now.tv_usec) << 12) ^ (uint32_t(getpid()) << 20) ^
           uint32_t(uintptr_t(client));
}

class RPCClientImpl final : public RPCClient {
public:
    RPCClientImpl(int program, int version, PROTOCOL protocol)
        : m_Program(program), m_Version(version), m_Protocol(protocol) {}
    ~RPCClientImpl() override;
    RPCClientImpl(const RPCClientImpl&) = delete;
    RPCClientImpl& operator=(const RPCClientImpl&) = delete;

    long Init(unsigned long address);
    long Init(const std::string& host);

    void SetAuth(AUTH* auth) override;
    CLIENT* Handle() override { return m_Client; }
    int Socket() override { return m_Socket; }
    PROTOCOL ProtocolUsed() override { return m_Protocol; }
    clnt_stat Call(long procedure, xdrproc_t encode, char* args, unsigned int& xid) override;
    clnt_stat RecvReply(xdrproc_t decode, char* result, unsigned int& xid) override;

private:
    long ValidateClient() const { return m_Client ? 0 : qsStatusAsLong(QS_E_RPC_CLIENT); }
    void InitForCalls();

    CLIENT* m_Client = nullptr;
    int m_Socket = RPC_ANYSOCK;
    int m_Program;
    int m_Version;
    PROTOCOL m_Protocol;
    sockaddr_in m_ServerAddr{};
    // Prepared by the first Call or RecvReply.
    rpc_msg* m_CallHeader = nullptr;
    XDR* m_SendXdr = nullptr;
    unsigned m_SendBufferSize = 0;
    char* m_SendBuffer = nullptr;
};

RPCClientImpl::~RPCClientImpl() {
    if (m_Client)
        clnt_destroy(m_Client);
    delete[] m_SendBuffer;
    if (m_SendXdr)
        xdr_destroy(m_SendXdr);
    delete m_SendXdr;
    delete m_CallHeader;
}

// The port is left 0 so that the C library asks the server's port mapper;
// it writes the port it learns back into m_ServerAddr, where Call finds it.
long RPCClientImpl::Init(unsigned long address) {
    ZCriticalSection::Holder hold(g_ClientCreateCS);
    m_ServerAddr.sin_family = AF_INET;
    m_ServerAddr.sin_port = 0;
    m_ServerAddr.sin_addr.s_addr = in_addr_t(address);
    m_Socket = RPC_ANYSOCK;
    if (m_Protocol == PROTOCOL_UDP) {
        timeval retransmit{kUdpRetransmitSeconds, 0};
        m_Client = clntudp_create(&m_ServerAddr, m_Program, m_Version, retransmit, &m_Socket);
    } else {
        m_Client = clnttcp_create(&m_ServerAddr, m_Program, m_Version, &m_Socket, kTcpBufferSize,
                                  kTcpBufferSize);
    }
    return ValidateClient();
}

long RPCClientImpl::Init(const std::string& host) {
    m_Client = clnt_create(host.c_str(), m_Program, m_Version, m_Protocol ? "udp" : "tcp");
    return ValidateClient();
}

// A CLIENT carries its credential itself; this object never owns it.
void RPCClientImpl::SetAuth(AUTH* auth) {
    if (m_Client)
        m_Client->cl_auth = auth;
}

void RPCClientImpl::InitForCalls() {
    m_SendBufferSize = kCallBufferSize;
    m_SendBuffer = new char[m_SendBufferSize];
    m_CallHeader = new rpc_msg{};
    m_CallHeader->rm_xid = FirstTransactionId(this);
    m_CallHeader->rm_direction = CALL;
    m_CallHeader->rm_call.cb_rpcvers = RPC_MSG_VERSION;
    m_CallHeader->rm_call.cb_prog = m_Program;
    m_CallHeader->rm_call.cb_vers = m_Version;
    m_SendXdr = new XDR;
    xdrmem_create(m_SendXdr, m_SendBuffer, m_SendBufferSize, XDR_ENCODE);
}

clnt_stat RPCClientImpl::Call(long procedure, xdrproc_t encode, char* args, unsigned int& xid) {
    if (!m_SendXdr)
        InitForCalls();
    xid = --m_CallHeader->rm_xid;
    XDR* xdrs = m_SendXdr;
    XDR_SETPOS(xdrs, 0);
    if (!xdr_callhdr(xdrs, m_CallHeader) || !XDR_PUTLONG(xdrs, &procedure) ||
        !AUTH_MARSHALL(m_Client->cl_auth, xdrs) || !encode(xdrs, args))
        return RPC_CANTENCODEARGS;
    size_t length = XDR_GETPOS(xdrs);
    ssize_t sent = sendto(m_Socket, m_SendBuffer, length, 0,
                          reinterpret_cast<const sockaddr*>(&m_ServerAddr), sizeof m_ServerAddr);
    return sent == ssize_t(length) ? RPC_SUCCESS : RPC_CANTSEND;
}

// A failed receive counts as a time-out on purpose: for the pipelined
// transfer both mean that this reply will not come.
clnt_stat RPCClientImpl::RecvReply(xdrproc_t decode, char* result, unsigned int& xid) {
    if (!m_SendXdr)
        InitForCalls();
    ssize_t received = recvfrom(m_Socket, inBuffer, sizeof inBuffer, 0, nullptr, nullptr);
    if (received < 1)
        return RPC_TIMEDOUT;

    rpc_msg reply{};
    opaque_auth& verifier = reply.acpted_rply.ar_verf;
    verifier = _null_auth;
    reply.acpted_rply.ar_results.where = result;
    reply.acpted_rply.ar_results.proc = decode;
    // Only the datagram's own bytes: over the whole buffer, a truncated reply
    // would decode as a complete one, its missing tail read from zeros or
    // from an earlier, longer reply.
    XDR xdrs;
    xdrmem_create(&xdrs, inBuffer, u_int(received), XDR_DECODE);
    bool decoded = xdr_replymsg(&xdrs, &reply);
    // Only an accepted reply has a verifier; in a denied one the same bytes
    // hold the rejection.
    bool accepted = reply.rm_reply.rp_stat == MSG_ACCEPTED;
    clnt_stat status = RPC_SUCCESS;
    if (!decoded)
        status = RPC_CANTDECODERES;
    else if (!accepted || reply.acpted_rply.ar_stat != SUCCESS)
        status = RPC_FAILED;
    else
        AUTH_VALIDATE(m_Client->cl_auth, &verifier);
    if (decoded)
        xid = reply.rm_xid;
    if (accepted && verifier.oa_base) {
        xdrs.x_op = XDR_FREE;
        xdr_opaque_auth(&xdrs, &verifier);
    }
    xdr_destroy(&xdrs);
    return status;
}

class RPCAuthImpl final : public qsNFSUtils::RPCAuth {
public:
    RPCAuthImpl() = default;
    ~RPCAuthImpl() override {
        if (m_Auth)
            AUTH_DESTROY(m_Auth);
    }
    RPCAuthImpl(const RPCAuthImpl&) = delete;
    RPCAuthImpl& operator=(const RPCAuthImpl&) = delete;

    AUTH* Handle() override { return m_Auth; }

    long Init() {
        GetMachineName();
        m_Auth = authnone_create();
        return ValidateAuth();
    }

    long Init(int uid, const std::vector<int>& gids) {
        GetMachineName();
        if (gids.empty())
            return ValidateAuth();
        std::vector<gid_t> groups(gids.begin(), gids.end());
        // The C library copies the name; it only lacks the const.
        m_Auth = authunix_create(const_cast<char*>(m_MachineName.c_str()), uid_t(uid), groups[0],
                                 int(groups.size()), groups.data());
        return ValidateAuth();
    }

    // Sent in every AUTH_UNIX credential of the process; looked up once and
    // never refreshed.
    static std::string m_MachineName;

private:
    static void GetMachineName() {
        ZCriticalSection::Holder hold(g_RPCAuthCritSect);
        if (m_MachineName.empty())
            m_MachineName = qsSysInfo::GetComputerNameA();
    }
    long ValidateAuth() const { return m_Auth ? 0 : qsStatusAsLong(QS_E_RPC_AUTH); }

    AUTH* m_Auth = nullptr;
};

std::string RPCAuthImpl::m_MachineName;

// The factories' common rule: hand the object out only when it works, and
// leave nothing behind otherwise (also when a lock throws).
template <class Interface, class Impl, class... Args>
long Adopt(Interface*& out, std::unique_ptr<Impl> object, const Args&... args) {
    long result = object->Init(args...);
    if (qsFailed(qsStatus(result)))
        return result;
    out = object.release();
    return 0;
}

} // namespace

long qsNFSUtils::CreateRPCClient(RPCClient*& out, unsigned long address, int program, int version,
                                 RPCClient::PROTOCOL protocol) {
    return Adopt(out, std::make_unique<RPCClientImpl>(program, version, protocol), address);
}

long qsNFSUtils::CreateRPCClient(RPCClient*& out, const std::string& host, int program, int version,
                                 RPCClient::PROTOCOL protocol) {
    return Adopt(out, std::make_unique<RPCClientImpl>(program, version, protocol), host);
}

long qsNFSUtils::CreateRPCAuth(RPCAuth*& out) {
    return Adopt(out, std::make_unique<RPCAuthImpl>());
}

long qsNFSUtils::CreateRPCAuth(RPCAuth*& out, int uid, const std::vector<int>& gids) {
    return Adopt(out, std::make_unique<RPCAuthImpl>(), uid, gids);
}

long qsNetUtils::GetHostIPAddresses(const char* host, std::vector<unsigned long>& addresses, bool) {
    if (!host || !*host)
        return qsStatusAsLong(QS_E_INVALIDARG);
    const char* name = host + strspn(host, "\\/");

    // A dotted quad needs no resolver.  A text that only looks like one
    // converts to INADDR_NONE, which stays first in the list while the
    // resolver is asked too; callers have always seen that entry.  The test
    // is on the list's first entry, whatever the caller put there.
    if (isdigit(static_cast<unsigned char>(name[0])) &&
        std::count(name, name + strlen(name), '.') == 3) {
        addresses.push_back(inet_addr(name));
        if (addresses.front() != INADDR_NONE)
            return 0;
    }

    hostent entry;
    hostent* found = nullptr;
    char work[1024];
    int error = 0;
    if (gethostbyname_r(name, &entry, work, sizeof work, &found, &error) != 0)
        found = nullptr;
    if (!found || found->h_addrtype != AF_INET || found->h_length != 4) {
        qsLogPrintfA(LONG(QS_E_HOST_UNRESOLVED), qsLogSevSysCall,
                     "%hs: error %d getting IP address for '%hs'", "qsNetUtils::GetHostIPAddress",
                     error, name);
        return qsStatusAsLong(QS_E_HOST_UNRESOLVED);
    }
    for (char** address = found->h_addr_list; *address; ++address) {
        in_addr_t value;
        memcpy(&value, *address, sizeof value);
        addresses.push_back(value);
    }
    return 0;
}

long qsNetUtils::GetHostIPAddress(const char* host, unsigned long& address, bool unused) {
    std::vector<unsigned long> addresses;
    long result = GetHostIPAddresses(host, addresses, unused);
    if (!qsFailed(qsStatus(result)))
        address = addresses.front();
    return result;
}

qsNetUtils::WinsockInitHelper::WinsockInitHelper(unsigned short version, bool startup)
    : m_Started(false) {
    if (startup)
        Startup(version);
}

int qsNetUtils::WinsockInitHelper::Startup(unsigned short) {
    m_Started = true;
    return 0;
}

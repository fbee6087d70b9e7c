// ONC RPC clients and credentials: the transport of the NFS client.
//
// An RPCClient owns one C library client connection (CLIENT) to one program
// and version on one server; an RPCAuth owns one credential (AUTH).  Both are
// reached only through these interfaces and the factories below.  Protocol
// calls go through the generated stubs with Handle(); besides them a client
// offers Call and RecvReply, which send a request without waiting and
// receive any reply later, so that several requests can be in flight.
//
// Results are status codes as a sign-extended long (qsNFSStatus.h): 0 on
// success, negative on failure.
#pragma once

#include <rpc/rpc.h>

#include <string>
#include <vector>

namespace qsNFSUtils {

// The transports a browse object may use for NFS.
enum eUseProtocol : int {
    eUseTCP = 0,
    eUseUDP = 1,
    eUseTCPThenUDP = 2, // TCP, and UDP when no TCP client can be created
};

class RPCClient {
public:
    enum PROTOCOL {
        PROTOCOL_TCP = 0,
        PROTOCOL_UDP = 1,
    };

    // Destroys the C library client, closing a socket the library opened.
    // The credential installed with SetAuth is not the client's: destroy the
    // client first, or give it another credential.
    virtual ~RPCClient() = default;

    // Installs the credential that every later call on this client carries.
    virtual void SetAuth(AUTH* auth) = 0;

    // The C library client, for the generated stubs.
    virtual CLIENT* Handle() = 0;

    // The client's socket; -1 for a client created from a host name.
    virtual int Socket() = 0;

    virtual PROTOCOL ProtocolUsed() = 0;

    // Encodes one call of `procedure` (arguments written by `encode`) into
    // the client's 8192-byte buffer and sends it as one datagram, without
    // waiting for the reply.  `xid` receives the call's transaction id: the
    // ids of one client count down by one from call to call.  Returns
    // RPC_SUCCESS, RPC_CANTENCODEARGS (also: the call does not fit in 8192
    // bytes) or RPC_CANTSEND.  UDP clients created from an address only: no
    // record marking is added, and a client created from a host name has no
    // address to send to.
    virtual clnt_stat Call(long procedure, xdrproc_t encode, char* args, unsigned int& xid) = 0;

    // Receives one datagram on the client's socket and decodes it as a reply
    // whose results `decode` writes into `result`.  Blocks: wait for the
    // socket to be readable first.  `xid` receives the reply's transaction
    // id, also for a reply that reports an error; matching it to a call is
    // the caller's business.  Returns RPC_SUCCESS; RPC_TIMEDOUT when nothing
    // (or an empty datagram) was received; RPC_CANTDECODERES for a datagram
    // that is not a whole reply (xid then unset); RPC_FAILED for a denied reply or
    // an accepted one whose status is not SUCCESS.  Whatever the result, free
    // the result record afterwards with xdr_free(decode, result); it must be
    // zero-filled before the call.
    //
    // The receive buffer is one for the whole process: only one thread at a
    // time may be inside RecvReply.
    virtual clnt_stat RecvReply(xdrproc_t decode, char* result, unsigned int& xid) = 0;
};

class RPCAuth {
public:
    // Destroys the credential.
    virtual ~RPCAuth() = default;
    virtual AUTH* Handle() = 0;
};

// An XDR routine (rpcgen's xdr_<type>, for instance) as the xdrproc_t that
// the C library and Call/RecvReply take.
template <typename T> xdrproc_t XdrProc(bool_t (*routine)(XDR*, T*)) {
    // Through void(*)(), the one cast that converts any function pointer
    // without a warning; the C library calls it with (XDR*, T*).
    return reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(routine));
}

// Factories.  On success they store the new object in `out` and return 0;
// on failure they destroy what they built, leave `out` untouched and return
// the error.

// A client of `program`/`version` at an IPv4 address (network byte order),
// whose port is asked of the server's port mapper.  UDP clients retransmit
// every 2 seconds; TCP clients use 33792-byte socket buffers.  Creation by
// address is serialised within the process.  0xE0030300 when the client
// cannot be created; the C library's reason is then in rpc_createerr.
long CreateRPCClient(RPCClient*& out, unsigned long address, int program, int version,
                     RPCClient::PROTOCOL protocol);

// The same for a host name, resolved by the C library, without the
// process-wide serialisation.  Such a client serves the generated stubs
// only, not Call/RecvReply.
long CreateRPCClient(RPCClient*& out, const std::string& host, int program, int version,
                     RPCClient::PROTOCOL protocol);

// AUTH_NONE.  0xE0030301 when it cannot be created.
long CreateRPCAuth(RPCAuth*& out);

// AUTH_UNIX for `uid` and the groups `gids`: the first group is the primary
// group and the whole list, first entry included, the supplementary groups.
// The machine name is this computer's, looked up once per process.
// 0xE0030301 for an empty group list or when the C library refuses.
long CreateRPCAuth(RPCAuth*& out, int uid, const std::vector<int>& gids);

} // namespace qsNFSUtils

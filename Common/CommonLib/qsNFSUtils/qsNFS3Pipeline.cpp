#include "qsNFS3Pipeline.h"

#include "qsNFS3ReadResult.h"
#include "qsNFSBrowse.h"
#include "qsNFSErrorMap.h"
#include "qsRPCWrappers.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

using qsNFSUtils::RPCClient;
using qsNFSUtils::WritePass;
using qsNFSUtils::XdrProc;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kNfsProgram = 100003;
constexpr int kNfsVersion = 3;

// Call builds, and RecvReply receives, datagrams of at most this size.
constexpr uint32_t kDatagramBuffer = 8192;
// A 1500-byte Ethernet frame less the IP and UDP headers.
constexpr uint32_t kFramePayload = 1472;
// A server's reply verifier for AUTH_UNIX or AUTH_NONE is empty or a short
// handle; a reply with a longer one would not fit and would count as lost.
constexpr uint32_t kReplyVerifierAllowance = 32;
// The protocol's limit on a credential's or verifier's body.
constexpr uint32_t kMaxAuthBody = 400;
constexpr uint32_t kFileAttributesSize = 84; // fattr3 on the wire
constexpr uint32_t kWccAttributesSize = 24;  // wcc_attr: size, mtime, ctime

const std::string kReadFormat = "nfsproc3_read_3 (status %d, err 0x%8.8X)";
const std::string kWriteFormat = "nfsproc3_write_3 (status %d, err 0x%8.8X)";
const std::string kPipelineFormat = "NFSBrowseImpl3::ScatterGatherIO (status %d, err 0x%8.8X)";

// How many calls a carrier keeps in flight and how long it waits for each.
struct Policy {
    size_t window;
    int tries;
    Clock::duration firstWait, longestWait;
};
// 16 datagrams of 8 KiB keep a LAN busy without overrunning the receive
// buffer when replies come in a burst.  A lost datagram is sent again after
// 250 ms, then after twice as long each time up to 2 s: about 8 s of
// silence fails the transfer, well before the 25 s the stubs wait.
constexpr Policy kDatagramPolicy{16, 6, 250ms, 2s};
// TCP loses nothing: one try, as long as a stub waits.  Four calls in
// flight keep the server busy while the client sends or drains another.
constexpr Policy kStreamPolicy{4, 1, 25s, 25s};
constexpr int kStreamWaitMs = 25000;
constexpr int kDatagramReceiveBuffer = 1 << 20;

// RecvReply decodes from one buffer shared by the whole process: transfers
// of different browse objects on different threads take turns.
std::mutex g_ReceiveLock;

// Replies that came after their transfer ended (duplicates, answers to
// calls sent again) would be taken by the C library's UDP client for a
// reply to its own call: it sends that call again on each and counts a
// whole retransmission interval against its time-out.
void DropQueued(int socket) {
    char byte;
    while (recv(socket, &byte, 1, MSG_DONTWAIT) >= 0) {
    }
}

constexpr uint32_t RoundUp4(uint32_t n) {
    return (n + 3) & ~3u;
}

Clock::duration Wait(const Policy& policy, int tries) {
    Clock::duration wait = policy.firstWait * (1 << std::min(tries - 1, 8));
    return std::min(wait, policy.longestWait);
}

// What a reply tells about its piece.
struct Progress {
    nfsstat3 status;
    uint32_t bytes;
    bool eof;
};

enum class Head {
    Reply,   // a reply, whose id is known; its status says whether the call worked
    Nothing, // nothing usable arrived, as if lost
    Broken,  // the carrier can no longer be read; the status says why
};

// The engine's view of a carrier and a procedure:
//   Send(at, length, xid)      one call for that stretch of the range
//   Receive(xid, status)       the next reply, up to its data
//   Take()                     what that reply says
//   Place(at, bytes) / Skip()  take the reply's data, or pass over it;
//                              exactly one follows every Head::Reply
//   Settle()                   once the transfer is over
//   kStopsAtEof                whether an end-of-file ends the transfer

// The common part of the datagram procedures.
class DatagramCarrier {
public:
    explicit DatagramCarrier(RPCClient& udp) : m_Udp(udp) {}
    int Socket() const { return m_Udp.Socket(); }
    clnt_stat Skip() { return RPC_SUCCESS; }
    void Settle() { DropQueued(m_Udp.Socket()); }

protected:
    template <class Args>
    clnt_stat Send(long procedure, xdrproc_t encode, Args& args, unsigned& xid) {
        return m_Udp.Call(procedure, encode, reinterpret_cast<char*>(&args), xid);
    }
    Head Receive(xdrproc_t decode, void* result, unsigned& xid, clnt_stat& status) {
        {
            std::lock_guard<std::mutex> hold(g_ReceiveLock);
            status = m_Udp.RecvReply(decode, static_cast<char*>(result), xid);
        }
        // Nothing, or a datagram that is no whole reply.
        if (status == RPC_TIMEDOUT || status == RPC_CANTDECODERES)
            return Head::Nothing;
        return Head::Reply;
    }

    RPCClient& m_Udp;
};

class DatagramRead : public DatagramCarrier {
public:
    DatagramRead(RPCClient& udp, const nfs_fh3& file, uint64_t offset, char* destination,
                 std::vector<char>& staging)
        : DatagramCarrier(udp), m_File(file), m_Offset(offset), m_Destination(destination),
          m_Staging(staging) {}

    clnt_stat Send(uint32_t at, uint32_t length, unsigned& xid) {
        READ3args args{m_File, m_Offset + at, length};
        return DatagramCarrier::Send(NFSPROC3_READ, XdrProc(xdr_READ3args), args, xid);
    }
    Head Receive(unsigned& xid, clnt_stat& status) {
        m_Result = {};
        m_Result.READ3res_u.resok.data.data_len = u_int(m_Staging.size());
        m_Result.READ3res_u.resok.data.data_val = m_Staging.data();
        return DatagramCarrier::Receive(XdrProc(qsNFSUtils::XdrReadResultInto), &m_Result, xid,
                                        status);
    }
    Progress Take() const {
        const READ3resok& ok = m_Result.READ3res_u.resok;
        return {m_Result.status, ok.data.data_len, bool(ok.eof)};
    }
    clnt_stat Place(uint32_t at, uint32_t bytes) {
        memcpy(m_Destination + at, m_Staging.data(), bytes);
        return RPC_SUCCESS;
    }
    static constexpr bool kStopsAtEof = true;

private:
    nfs_fh3 m_File;
    uint64_t m_Offset;
    char* m_Destination;
    std::vector<char>& m_Staging;
    READ3res m_Result{};
};

// What the WRITEs of both carriers share: the range they send and what
// their replies tell the pass.
class WriteRange {
public:
    WriteRange(const nfs_fh3& file, uint64_t offset, const char* source, WritePass& pass)
        : m_File(file), m_Offset(offset), m_Source(source), m_Pass(pass) {}

    Progress Take() const { return {m_Result.status, m_Result.WRITE3res_u.resok.count, false}; }
    static constexpr bool kStopsAtEof = false;

protected:
    WRITE3args Args(uint32_t at, uint32_t length) const {
        return {
            m_File, m_Offset + at, length, UNSTABLE, {length, const_cast<char*>(m_Source + at)}};
    }
    void Note() { m_Pass.Note(m_Result.WRITE3res_u.resok); }

    WRITE3res m_Result{};

private:
    nfs_fh3 m_File;
    uint64_t m_Offset;
    const char* m_Source;
    WritePass& m_Pass;
};

class DatagramWrite : public DatagramCarrier, public WriteRange {
public:
    DatagramWrite(RPCClient& udp, const nfs_fh3& file, uint64_t offset, const char* source,
                  WritePass& pass)
        : DatagramCarrier(udp), WriteRange(file, offset, source, pass) {}

    clnt_stat Send(uint32_t at, uint32_t length, unsigned& xid) {
        WRITE3args args = Args(at, length);
        return DatagramCarrier::Send(NFSPROC3_WRITE, XdrProc(xdr_WRITE3args), args, xid);
    }
    Head Receive(unsigned& xid, clnt_stat& status) {
        m_Result = {};
        return DatagramCarrier::Receive(XdrProc(xdr_WRITE3res), &m_Result, xid, status);
    }
    clnt_stat Place(uint32_t, uint32_t) {
        Note();
        return RPC_SUCCESS;
    }
};

// The common part of the stream procedures: calls record-marked onto a TCP
// client's connection and replies parsed by hand, so that READ data goes
// from the socket straight into its place and WRITE data from the caller's
// buffer straight into the socket; the C library's record stream would pass
// both through a buffer of its own.
class StreamCarrier {
public:
    StreamCarrier(RPCClient& tcp, uint32_t& nextXid)
        : m_Socket(tcp.Socket()), m_Auth(tcp.Handle()->cl_auth), m_NextXid(nextXid) {}

    int Socket() const { return m_Socket; }

    clnt_stat Skip() {
        if (!Discard(m_Pending) || !SkipRecord())
            return Break(m_Why);
        m_Pending = 0;
        return RPC_SUCCESS;
    }

    // Replies still on their way (to pieces past the end of the file, or
    // after a failure) are read and dropped, so that the connection is left
    // between records.
    void Settle() {
        while (!m_Broken && m_Outstanding > 0) {
            unsigned xid;
            clnt_stat status;
            if (ReceiveHeader(xid, status) == Head::Broken || Skip() != RPC_SUCCESS)
                break;
        }
        if (m_Broken)
            shutdown(m_Socket, SHUT_RDWR);
    }

protected:
    // One call of `procedure`: `encode` writes the arguments but for the
    // `length` bytes of `data` that close them (an opaque's body), which
    // follow from where they are, padded.
    template <class Args>
    clnt_stat Send(long procedure, bool_t (*encode)(XDR*, Args*), Args& args, const char* data,
                   uint32_t length, unsigned& xid) {
        char call[1024];
        XDR xdrs;
        xdrmem_create(&xdrs, call + 4, sizeof call - 4, XDR_ENCODE);
        rpc_msg header{};
        header.rm_xid = xid = m_NextXid--;
        header.rm_direction = CALL;
        header.rm_call.cb_rpcvers = RPC_MSG_VERSION;
        header.rm_call.cb_prog = kNfsProgram;
        header.rm_call.cb_vers = kNfsVersion;
        if (!xdr_callhdr(&xdrs, &header) || !XDR_PUTLONG(&xdrs, &procedure) ||
            !AUTH_MARSHALL(m_Auth, &xdrs) || !encode(&xdrs, &args))
            return RPC_CANTENCODEARGS;
        uint32_t size = XDR_GETPOS(&xdrs);
        // One fragment, the record's last.
        uint32_t mark = htonl(0x80000000u | (size + RoundUp4(length)));
        memcpy(call, &mark, 4);
        static const char zeros[4] = {};
        iovec parts[3] = {{call, size + 4},
                          {const_cast<char*>(data), length},
                          {const_cast<char*>(zeros), RoundUp4(length) - length}};
        if (!SendAll(parts, 3))
            return Break(RPC_CANTSEND);
        ++m_Outstanding;
        return RPC_SUCCESS;
    }

    // The reply's header, up to the procedure's results.  A reply that
    // reports a failure of the call is read to its end.
    Head ReceiveHeader(unsigned& xid, clnt_stat& status) {
        m_Left = 0;
        m_Last = false;
        m_Pending = 0;
        uint32_t w[3];
        if (!Words(w, 3))
            return Broken(status);
        if (w[1] != REPLY)
            return Broken(status, RPC_CANTDECODERES);
        xid = w[0];
        --m_Outstanding;
        status = RPC_SUCCESS;
        if (w[2] == MSG_DENIED) {
            if (!Words(w, 1))
                return Broken(status);
            // RPC_MISMATCH carries the versions; AUTH_ERROR the reason.
            status = w[0] == RPC_MISMATCH ? RPC_VERSMISMATCH : RPC_AUTHERROR;
            return EndOfRecord(status);
        }
        if (w[2] != MSG_ACCEPTED || !Words(w, 2) || w[1] > kMaxAuthBody ||
            !Discard(RoundUp4(w[1])) || !Words(w, 1))
            return Broken(status, RPC_CANTDECODERES);
        if (w[0] != SUCCESS) {
            static const clnt_stat kAccepted[] = {RPC_SUCCESS,          RPC_PROGUNAVAIL,
                                                  RPC_PROGVERSMISMATCH, RPC_PROCUNAVAIL,
                                                  RPC_CANTDECODEARGS,   RPC_SYSTEMERROR};
            status = w[0] < std::size(kAccepted) ? kAccepted[w[0]] : RPC_FAILED;
            return EndOfRecord(status);
        }
        return Head::Reply;
    }

    // The reply up to the results' status and the attributes after it (READ
    // has one post_op_attr, WRITE a wcc_data: a pre_op_attr, then a
    // post_op_attr).  `more` tells whether the results go on, as they do
    // after NFS3_OK; otherwise the reply has been read to its end.
    Head ReceiveResults(unsigned& xid, clnt_stat& status, nfsstat3& result, bool wcc, bool& more) {
        more = false;
        Head head = ReceiveHeader(xid, status);
        if (head != Head::Reply || status != RPC_SUCCESS)
            return head;
        uint32_t w;
        if (!Words(&w, 1))
            return Broken(status, RPC_CANTDECODERES);
        result = nfsstat3(w);
        if (wcc && (!Words(&w, 1) || (w && !Discard(kWccAttributesSize))))
            return Broken(status, RPC_CANTDECODERES);
        if (!Words(&w, 1) || (w && !Discard(kFileAttributesSize)))
            return Broken(status, RPC_CANTDECODERES);
        if (result != NFS3_OK)
            return EndOfRecord(status);
        more = true;
        return Head::Reply;
    }

    clnt_stat Break(clnt_stat why) {
        m_Broken = true;
        return why;
    }
    Head Broken(clnt_stat& status, clnt_stat why = RPC_SUCCESS) {
        status = Break(why == RPC_SUCCESS ? m_Why : why);
        return Head::Broken;
    }
    Head EndOfRecord(clnt_stat& status) {
        if (!SkipRecord())
            return Broken(status);
        return Head::Reply;
    }

    bool Words(uint32_t* words, size_t n) {
        if (!Bytes(words, n * 4))
            return false;
        for (size_t i = 0; i < n; ++i)
            words[i] = ntohl(words[i]);
        return true;
    }

    // `n` bytes of the current record, across its fragments.
    bool Bytes(void* into, size_t n) {
        char* at = static_cast<char*>(into);
        while (n) {
            if (!m_Left && !NextFragment())
                return false;
            size_t take = std::min<size_t>(n, m_Left);
            if (!RecvAll(at, take, m_Left))
                return false;
            at += take;
            n -= take;
            m_Left -= uint32_t(take);
        }
        return true;
    }

    bool Discard(size_t n) {
        char scratch[4096];
        while (n) {
            size_t take = std::min(n, sizeof scratch);
            if (!Bytes(scratch, take))
                return false;
            n -= take;
        }
        return true;
    }

    // Data and padding of the current reply not taken yet.
    uint32_t m_Pending = 0;
    clnt_stat m_Why = RPC_CANTRECV;

private:
    bool NextFragment() {
        uint32_t mark;
        if (m_Last) { // the record ended before the reply did
            m_Why = RPC_CANTDECODERES;
            return false;
        }
        if (!RecvAll(reinterpret_cast<char*>(&mark), 4, 4))
            return false;
        mark = ntohl(mark);
        m_Last = mark >> 31;
        m_Left = mark & 0x7FFFFFFF;
        return true;
    }

    // Whatever the server sent beyond the fields read: nothing, normally.
    bool SkipRecord() {
        while (m_Left || !m_Last) {
            if (!m_Left) {
                if (!NextFragment())
                    return false;
                continue;
            }
            if (!Discard(m_Left))
                return false;
        }
        return true;
    }

    // `n` bytes off the connection, of which `room` (n or more) belong to the
    // fragment being read.  Waits only when the socket has nothing, so that
    // a reply already there costs one call per stretch; never longer than a
    // stub would.  The small fields of a reply's header come through a
    // read-ahead buffer, a few system calls per reply instead of one per
    // field; data goes straight into place.  The read-ahead stays within
    // the fragment: what follows it stays on the socket, where the engine's
    // wait for the next reply looks.
    bool RecvAll(char* at, size_t n, size_t room) {
        while (n) {
            if (m_AheadBegin < m_AheadEnd) {
                size_t take = std::min(n, m_AheadEnd - m_AheadBegin);
                memcpy(at, m_Ahead + m_AheadBegin, take);
                m_AheadBegin += take;
                at += take;
                n -= take;
                room -= take;
                continue;
            }
            bool ahead = n < sizeof m_Ahead && room > n;
            ssize_t got =
                ahead ? recv(m_Socket, m_Ahead, std::min(room, sizeof m_Ahead), MSG_DONTWAIT)
                      : recv(m_Socket, at, n, MSG_DONTWAIT);
            if (got > 0 && ahead) {
                m_AheadBegin = 0;
                m_AheadEnd = size_t(got);
                continue;
            }
            if (got > 0) {
                at += got;
                n -= size_t(got);
                room -= size_t(got);
                continue;
            }
            if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                m_Why = RPC_CANTRECV;
                return false;
            }
            if (!Await(POLLIN))
                return false;
        }
        return true;
    }

    bool SendAll(iovec* parts, size_t count) {
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = count;
        while (message.msg_iovlen) {
            ssize_t sent = sendmsg(m_Socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0) {
                if ((errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) || !Await(POLLOUT))
                    return false;
                continue;
            }
            size_t done = size_t(sent);
            while (message.msg_iovlen && done >= message.msg_iov->iov_len) {
                done -= message.msg_iov->iov_len;
                ++message.msg_iov;
                --message.msg_iovlen;
            }
            if (message.msg_iovlen) {
                message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + done;
                message.msg_iov->iov_len -= done;
            }
        }
        return true;
    }

    bool Await(short event) {
        pollfd ready{m_Socket, event, 0};
        int n = poll(&ready, 1, kStreamWaitMs);
        if (n > 0 || (n < 0 && errno == EINTR))
            return true;
        m_Why = n == 0 ? RPC_TIMEDOUT : RPC_CANTRECV;
        return false;
    }

    int m_Socket;
    AUTH* m_Auth;
    // Read ahead of the field being decoded, within its fragment:
    // m_Ahead[m_AheadBegin, m_AheadEnd) came off the socket, not taken yet.
    char m_Ahead[512];
    size_t m_AheadBegin = 0, m_AheadEnd = 0;
    uint32_t& m_NextXid;
    // The reply being read: what is left of its current fragment, and
    // whether that fragment is the record's last.
    uint32_t m_Left = 0;
    bool m_Last = false;
    size_t m_Outstanding = 0; // calls sent whose reply has not been read
    bool m_Broken = false;
};

class StreamRead : public StreamCarrier {
public:
    StreamRead(RPCClient& tcp, uint32_t& nextXid, const nfs_fh3& file, uint64_t offset,
               char* destination)
        : StreamCarrier(tcp, nextXid), m_File(file), m_Offset(offset), m_Destination(destination) {}

    clnt_stat Send(uint32_t at, uint32_t length, unsigned& xid) {
        READ3args args{m_File, m_Offset + at, length};
        return StreamCarrier::Send(NFSPROC3_READ, xdr_READ3args, args, nullptr, 0, xid);
    }

    Head Receive(unsigned& xid, clnt_stat& status) {
        m_Progress = {NFS3_OK, 0, false};
        bool more;
        Head head = ReceiveResults(xid, status, m_Progress.status, false, more);
        if (!more)
            return head;
        uint32_t w[3]; // count, eof, the data's length
        if (!Words(w, 3))
            return Broken(status, RPC_CANTDECODERES);
        m_Progress.eof = w[1] != 0;
        m_Progress.bytes = w[2];
        m_Pending = RoundUp4(w[2]);
        return Head::Reply;
    }

    Progress Take() const { return m_Progress; }

    clnt_stat Place(uint32_t at, uint32_t bytes) {
        if (!Bytes(m_Destination + at, bytes))
            return Break(m_Why);
        m_Pending -= bytes;
        return Skip();
    }

    static constexpr bool kStopsAtEof = true;

private:
    nfs_fh3 m_File;
    uint64_t m_Offset;
    char* m_Destination;
    Progress m_Progress{};
};

// WRITE3args less the data's bytes, which StreamCarrier::Send adds.
bool_t EncodeWriteHead(XDR* xdrs, WRITE3args* args) {
    return xdr_nfs_fh3(xdrs, &args->file) && xdr_offset3(xdrs, &args->offset) &&
           xdr_count3(xdrs, &args->count) && xdr_stable_how(xdrs, &args->stable) &&
           xdr_u_int(xdrs, &args->data.data_len);
}

class StreamWrite : public StreamCarrier, public WriteRange {
public:
    StreamWrite(RPCClient& tcp, uint32_t& nextXid, const nfs_fh3& file, uint64_t offset,
                const char* source, WritePass& pass)
        : StreamCarrier(tcp, nextXid), WriteRange(file, offset, source, pass) {}

    clnt_stat Send(uint32_t at, uint32_t length, unsigned& xid) {
        WRITE3args args = Args(at, length);
        return StreamCarrier::Send(NFSPROC3_WRITE, EncodeWriteHead, args, args.data.data_val,
                                   length, xid);
    }

    Head Receive(unsigned& xid, clnt_stat& status) {
        m_Result = {};
        bool more;
        Head head = ReceiveResults(xid, status, m_Result.status, true, more);
        if (!more)
            return head;
        WRITE3resok& ok = m_Result.WRITE3res_u.resok;
        uint32_t w[2]; // count, committed; then the verifier
        if (!Words(w, 2) || !Bytes(ok.verf, sizeof ok.verf))
            return Broken(status, RPC_CANTDECODERES);
        ok.count = w[0];
        ok.committed = stable_how(w[1]);
        return Head::Reply;
    }

    clnt_stat Place(uint32_t, uint32_t) {
        Note();
        return Skip();
    }
};

// A stretch of the caller's buffer that travels as one call.  `pos`
// advances when a reply covers less than was asked; the rest goes out
// again from there.
struct Piece {
    uint32_t begin, end, pos;
    int tries = 0;
    bool finished = false;
    Clock::time_point deadline{};
};

// A call in flight: the piece it serves and where the piece stood when it
// went out, so that a late reply to a range that has moved on is dropped.
struct Sent {
    unsigned xid;
    uint32_t piece;
    uint32_t pos;
};

template <class Carrier>
int32_t Run(Carrier& carrier, const Policy& policy, const std::string& format,
            const std::string& path, uint32_t total, uint32_t pieceSize, uint32_t& count) {
    std::vector<Piece> pieces;
    pieces.reserve(total / pieceSize + 1);
    for (uint32_t at = 0; at < total; at += std::min(pieceSize, total - at))
        pieces.push_back({at, at + std::min(pieceSize, total - at), at});
    std::vector<uint32_t> active; // sent, not finished
    std::vector<Sent> sent;
    size_t next = 0;
    uint32_t end = total; // where the file ended, for READ
    bool failed = false;
    clnt_stat rpc = RPC_SUCCESS;
    nfsstat3 status = NFS3_OK;

    auto send = [&](uint32_t i) {
        Piece& p = pieces[i];
        unsigned xid = 0;
        clnt_stat s = carrier.Send(p.pos, p.end - p.pos, xid);
        if (s != RPC_SUCCESS) {
            rpc = s;
            failed = true;
            return;
        }
        sent.push_back({xid, i, p.pos});
        p.deadline = Clock::now() + Wait(policy, ++p.tries);
    };
    auto finish = [&](uint32_t i) {
        pieces[i].finished = true;
        active.erase(std::find(active.begin(), active.end(), i));
        std::erase_if(sent, [i](const Sent& s) { return s.piece == i; });
    };

    while (!failed) {
        while (!failed && active.size() < policy.window && next < pieces.size()) {
            uint32_t i = uint32_t(next++);
            if (pieces[i].begin >= end) {
                pieces[i].finished = true;
                continue;
            }
            active.push_back(i);
            send(i);
        }
        if (failed || active.empty())
            break;

        Clock::time_point deadline = Clock::time_point::max();
        for (uint32_t i : active)
            deadline = std::min(deadline, pieces[i].deadline);
        auto wait = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd readable{carrier.Socket(), POLLIN, 0};
        int ready = poll(&readable, 1, int(std::max<int64_t>(wait.count(), 0)));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0) {
            rpc = RPC_CANTRECV;
            failed = true;
            break;
        }
        if (ready == 0) {
            Clock::time_point now = Clock::now();
            for (size_t k = 0; k < active.size() && !failed; ++k) {
                uint32_t i = active[k];
                if (pieces[i].deadline > now)
                    continue;
                if (pieces[i].tries >= policy.tries) {
                    rpc = RPC_TIMEDOUT;
                    failed = true;
                    break;
                }
                send(i);
            }
            continue;
        }

        unsigned xid = 0;
        clnt_stat replied = RPC_SUCCESS;
        Head head = carrier.Receive(xid, replied);
        if (head == Head::Nothing)
            continue;
        if (head == Head::Broken) {
            rpc = replied;
            failed = true;
            break;
        }
        auto call =
            std::find_if(sent.begin(), sent.end(), [xid](const Sent& s) { return s.xid == xid; });
        // A duplicate, or a reply to a call whose piece has moved on.
        if (call == sent.end() || call->pos != pieces[call->piece].pos) {
            if (clnt_stat s = carrier.Skip()) {
                rpc = s;
                failed = true;
            }
            continue;
        }
        uint32_t i = call->piece;
        Piece& p = pieces[i];
        Progress got = carrier.Take();
        if (replied != RPC_SUCCESS)
            rpc = replied;
        else if (got.status != NFS3_OK)
            status = got.status;
        else if (got.bytes > p.end - p.pos)
            rpc = RPC_CANTDECODERES;
        // Otherwise a failure only when the reply brought neither data nor
        // the end of the file: asking again would loop.
        failed = replied != RPC_SUCCESS || got.status != NFS3_OK || got.bytes > p.end - p.pos ||
                 (got.bytes == 0 && !got.eof);
        if (failed) {
            carrier.Skip();
            break;
        }
        if (clnt_stat s = carrier.Place(p.pos, got.bytes)) {
            rpc = s;
            failed = true;
            break;
        }
        p.pos += got.bytes;
        if (Carrier::kStopsAtEof && got.eof) {
            end = std::min(end, p.pos);
            finish(i);
            // Pieces past the end would only answer that it is the end.
            for (size_t k = 0; k < active.size();) {
                if (pieces[active[k]].begin >= end)
                    finish(active[k]);
                else
                    ++k;
            }
            continue;
        }
        if (p.pos == p.end) {
            finish(i);
            continue;
        }
        p.tries = 0;
        send(i);
    }
    carrier.Settle();

    count = 0;
    for (const Piece& p : pieces) {
        count += p.pos - p.begin;
        if (p.pos != p.end)
            break;
    }
    if (!failed)
        return 0;
    return int32_t(TranslateError(g_NFSErrorMap, rpc, status, format, path));
}

uint32_t FirstXid(const void* seed) {
    timeval now;
    gettimeofday(&now, nullptr);
    return uint32_t(now.tv_sec) ^ (uint32_t(now.tv_usec) << 12) ^ (uint32_t(getpid()) << 20) ^
           uint32_t(uintptr_t(seed));
}

} // namespace

void qsNFSUtils::WritePass::Note(const WRITE3resok& reply) {
    if (reply.committed != FILE_SYNC)
        uncommitted = true;
    if (!haveVerifier) {
        memcpy(verifier, reply.verf, sizeof verifier);
        haveVerifier = true;
        return;
    }
    if (Changed(reply.verf))
        restarted = true;
}

bool qsNFSUtils::WritePass::Changed(const char* verf) const {
    return memcmp(verifier, verf, sizeof verifier) != 0;
}

qsNFSUtils::NFS3Datagrams::NFS3Datagrams(RPCClient& udp) : m_Udp(udp), m_Staging(kDatagramBuffer) {
    // A full window of replies arriving at once must not overrun the socket.
    int size = kDatagramReceiveBuffer;
    setsockopt(m_Udp.Socket(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

void qsNFSUtils::NFS3Datagrams::DropQueued() {
    ::DropQueued(m_Udp.Socket());
}

uint32_t qsNFSUtils::NFS3Datagrams::PieceSize(const nfs_fh3& file, uint32_t serverMax) const {
    uint32_t limit = g_NFSUtils_FragmentCorrectly ? kDatagramBuffer : kFramePayload;
    const AUTH* auth = m_Udp.Handle()->cl_auth;
    // Call header with procedure, credential, verifier, WRITE3args less data.
    uint32_t call = 24 + 8 + RoundUp4(auth->ah_cred.oa_length) + 8 +
                    RoundUp4(auth->ah_verf.oa_length) + 4 + RoundUp4(file.data.data_len) + 20;
    // Reply header and READ3resok less data (the WRITE reply is shorter).
    uint32_t reply = 24 + kReplyVerifierAllowance + 4 + 4 + kFileAttributesSize + 12;
    uint32_t room = limit - std::max(call, reply);
    room -= room % 512;
    if (serverMax && serverMax < room)
        room = serverMax;
    return std::max(room, 1u);
}

int32_t qsNFSUtils::NFS3Datagrams::Read(const nfs_fh3& file, const std::string& path,
                                        uint32_t pieceSize, char* destination, uint64_t offset,
                                        uint32_t& count) {
    DatagramRead carrier(m_Udp, file, offset, destination, m_Staging);
    return Run(carrier, kDatagramPolicy, kPipelineFormat, path, count, pieceSize, count);
}

int32_t qsNFSUtils::NFS3Datagrams::Write(const nfs_fh3& file, const std::string& path,
                                         uint32_t pieceSize, const char* source, uint64_t offset,
                                         uint32_t count, WritePass& pass) {
    DatagramWrite carrier(m_Udp, file, offset, source, pass);
    return Run(carrier, kDatagramPolicy, kPipelineFormat, path, count, pieceSize,
               pass.acknowledged);
}

qsNFSUtils::NFS3Stream::NFS3Stream(RPCClient& tcp) : m_Tcp(tcp), m_NextXid(FirstXid(this)) {}

int32_t qsNFSUtils::NFS3Stream::Read(const nfs_fh3& file, const std::string& path,
                                     uint32_t pieceSize, char* destination, uint64_t offset,
                                     uint32_t& count) {
    StreamRead carrier(m_Tcp, m_NextXid, file, offset, destination);
    return Run(carrier, kStreamPolicy, kReadFormat, path, count, pieceSize, count);
}

int32_t qsNFSUtils::NFS3Stream::Write(const nfs_fh3& file, const std::string& path,
                                      uint32_t pieceSize, const char* source, uint64_t offset,
                                      uint32_t count, WritePass& pass) {
    StreamWrite carrier(m_Tcp, m_NextXid, file, offset, source, pass);
    return Run(carrier, kStreamPolicy, kWriteFormat, path, count, pieceSize, pass.acknowledged);
}

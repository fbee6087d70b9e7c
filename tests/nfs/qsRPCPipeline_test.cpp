// Call and RecvReply, the pipelined path: against the real server, and
// against a small UDP program of the test's own that answers with exactly
// the datagrams each case needs.

#include "qsNFSTestServer.h"

#include <fstream>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <rpc/pmap_clnt.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace qsNFSTest;
using qsNFSUtils::XdrProc;

namespace {

// Blocks until the client's socket has a datagram, as RecvReply's callers
// must; generous for a loaded machine.
bool Readable(RPCClient& client) {
    pollfd p{client.Socket(), POLLIN, 0};
    return poll(&p, 1, 60000) == 1;
}

bool_t Nothing(XDR*, void*) {
    return TRUE;
}

// The words of a reply; kXid stands for the id of the call it answers.
using Reply = std::vector<uint32_t>;
constexpr uint32_t kXid = 0xFFFFFFFF;

// A UDP program on 127.0.0.1, registered with the server's port mapper for
// the test's life, that answers each call it receives with the next reply
// of its script.
class ScriptedProgram {
public:
    ScriptedProgram(int program, std::vector<Reply> script)
        : m_Program(program), m_Script(std::move(script)) {
        m_Socket = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof addr;
        EXPECT_EQ(bind(m_Socket, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        EXPECT_EQ(getsockname(m_Socket, reinterpret_cast<sockaddr*>(&addr), &length), 0);
        pmap_unset(m_Program, 1);
        m_Registered = pmap_set(m_Program, 1, IPPROTO_UDP, ntohs(addr.sin_port));
        EXPECT_TRUE(m_Registered) << "pmap_set";
        m_Thread = std::thread([this] { Serve(); });
    }
    ~ScriptedProgram() {
        m_Thread.join();
        if (m_Registered)
            pmap_unset(m_Program, 1);
        close(m_Socket);
    }

private:
    void Serve() {
        for (Reply words : m_Script) {
            uint32_t call[2048];
            sockaddr_in from{};
            socklen_t length = sizeof from;
            if (recvfrom(m_Socket, call, sizeof call, 0, reinterpret_cast<sockaddr*>(&from),
                         &length) < 4)
                return;
            for (uint32_t& w : words)
                w = w == kXid ? call[0] : htonl(w);
            sendto(m_Socket, words.data(), words.size() * 4, 0, reinterpret_cast<sockaddr*>(&from),
                   length);
        }
    }

    int m_Program;
    std::vector<Reply> m_Script;
    int m_Socket = -1;
    bool m_Registered = false;
    std::thread m_Thread;
};

} // namespace

// Three GETATTRs in flight at once; each reply is decoded and matched to its
// call by transaction id, whatever order the replies come in.
TEST(RPCPipeline, GetattrRepliesFromTheServerMatchTheirCalls) {
    ExportSubdir dir("pipeline");
    std::ofstream(dir / "f1") << "contents";
    BrowsePtr browse = Browse();
    ClientPtr udp = Client(Loopback(), kNfsProgram, kNfsVersion, RPCClient::PROTOCOL_UDP);
    AuthPtr auth = UnixAuth(0, {0});
    ASSERT_TRUE(browse && udp && auth);
    udp->SetAuth(auth->Handle());
    EntryPtr objects[] = {Open(*browse, ExportDir()), Open(*browse, dir.Path()),
                          Open(*browse, dir / "f1")};

    std::map<unsigned, ino_t> expected;
    unsigned first = 0;
    for (const auto& object : objects) {
        ASSERT_TRUE(object);
        GETATTR3args args{{{object->m_HandleLength, reinterpret_cast<char*>(object->m_Handle)}}};
        unsigned xid = 0;
        ASSERT_EQ(udp->Call(NFSPROC3_GETATTR, XdrProc(xdr_GETATTR3args),
                            reinterpret_cast<char*>(&args), xid),
                  RPC_SUCCESS);
        first = first ? first : xid;
        EXPECT_EQ(xid, first - unsigned(expected.size())); // ids count down by one
        expected[xid] = Inode(object->m_Path);
    }
    while (!expected.empty()) {
        ASSERT_TRUE(Readable(*udp));
        GETATTR3res res{};
        unsigned xid = 0;
        ASSERT_EQ(udp->RecvReply(XdrProc(xdr_GETATTR3res), reinterpret_cast<char*>(&res), xid),
                  RPC_SUCCESS);
        ASSERT_EQ(expected.count(xid), 1u) << "reply to no call in flight: " << xid;
        EXPECT_EQ(res.status, NFS3_OK);
        EXPECT_EQ(res.GETATTR3res_u.resok.obj_attributes.fileid, expected[xid]);
        expected.erase(xid);
        xdr_free(XdrProc(xdr_GETATTR3res), reinterpret_cast<char*>(&res));
    }
}

// The results other than success: a datagram that is no reply, a denied
// reply, an accepted one that failed, an empty datagram, and a reply cut
// short after a longer one.  The id is reported for every reply, failed
// ones included.  A success whose verifier has a body frees it (the leak
// checker of the sanitizer build watches).
TEST(RPCPipeline, ErrorRepliesFromAProgramOfOurOwn) {
    const int program = 0x3F5B0000 + (getpid() & 0xFFFF);
    constexpr uint32_t kReply = 1, kAccepted = 0, kDenied = 1, kAuthError = 1, kBadCred = 1,
                       kProgUnavail = 1, kSuccess = 0, kAuthNone = 0;
    struct {
        Reply reply;
        clnt_stat status;
        bool reportsId;
    } cases[] = {
        {{0x6E6F7420, 0x61207265, 0x706C7900}, RPC_CANTDECODERES, false}, // "not a reply"
        {{kXid, kReply, kDenied, kAuthError, kBadCred}, RPC_FAILED, true},
        {{kXid, kReply, kAccepted, kAuthNone, 0, kProgUnavail}, RPC_FAILED, true},
        {{}, RPC_TIMEDOUT, false},
        // an 8-byte verifier body, then no results
        {{kXid, kReply, kAccepted, kAuthNone, 8, 0x01020304, 0x05060708, kSuccess},
         RPC_SUCCESS,
         true},
        {{kXid, kReply}, RPC_CANTDECODERES, false}, // cut short after its direction
    };
    std::vector<Reply> script;
    for (const auto& c : cases)
        script.push_back(c.reply);
    ScriptedProgram server(program, script);
    ClientPtr client = Client(Loopback(), program, 1, RPCClient::PROTOCOL_UDP);
    ASSERT_TRUE(client);

    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.reply));
        unsigned sent = 0;
        ASSERT_EQ(client->Call(1, XdrProc(Nothing), nullptr, sent), RPC_SUCCESS);
        ASSERT_TRUE(Readable(*client));
        unsigned received = 0xDEADBEEF;
        EXPECT_EQ(client->RecvReply(XdrProc(Nothing), nullptr, received), c.status);
        EXPECT_EQ(received, c.reportsId ? sent : 0xDEADBEEF);
    }

    // Arguments that do not fit the 8192-byte call buffer.
    std::vector<char> data(9000);
    WRITE3args args{};
    args.data.data_len = u_int(data.size());
    args.data.data_val = data.data();
    unsigned xid = 0;
    EXPECT_EQ(
        client->Call(NFSPROC3_WRITE, XdrProc(xdr_WRITE3args), reinterpret_cast<char*>(&args), xid),
        RPC_CANTENCODEARGS);
}

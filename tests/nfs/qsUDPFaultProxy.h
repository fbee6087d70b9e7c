// A test double for a lossy network: a UDP relay between the NFS client and
// the real server's NFS port that loses, repeats, holds back and alters
// datagrams as its script says.  No packaged server misbehaves on demand,
// so the relay stands between the two.
//
// It registers itself with the namespace's port mapper under a private
// program number; a UDP client of that program and version 3 reaches the
// real server through it (the relay writes NFS's program number into each
// call).  It also records what passed, for tests that check what a transfer
// sent again and how large its datagrams were.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <rpc/pmap_clnt.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace qsNFSTest {

class UDPFaultProxy {
public:
    // Counts start at 1: with `dropRequestEvery` 5 the 5th, 10th, ... call
    // is lost.  0 turns a fault off.
    struct Script {
        int dropRequestEvery = 0;
        int dropReplyEvery = 0;
        int duplicateReplyEvery = 0;
        int holdReplyEvery = 0; // sent after the reply that follows it
        bool silent = false;    // forwards nothing at all
        // WRITE and COMMIT replies after the nth WRITE reply carry another
        // verifier, as from a server that restarted.
        int changeVerifierAfter = 0;
        // READ replies with more data than this are cut to it and lose their
        // end-of-file flag, as from a server that answers short.
        int cutReadsTo = -1;
    };

    explicit UDPFaultProxy(Script script)
        : m_Script(script), m_Program(0x3F5C0000 + (getpid() & 0xFFFF)) {
        m_Client = Bound();
        m_Server = Bound();
        m_Stop = eventfd(0, 0);
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_ServerPort = pmap_getport(&server, 100003, 3, IPPROTO_UDP);
        EXPECT_NE(m_ServerPort, 0) << "NFS over UDP is not registered";
        pmap_unset(m_Program, 3);
        m_Registered = pmap_set(m_Program, 3, IPPROTO_UDP, Port(m_Client));
        EXPECT_TRUE(m_Registered) << "pmap_set";
        m_Thread = std::thread([this] { Relay(); });
    }

    ~UDPFaultProxy() {
        uint64_t one = 1;
        EXPECT_EQ(write(m_Stop, &one, sizeof one), ssize_t(sizeof one));
        m_Thread.join();
        if (m_Registered)
            pmap_unset(m_Program, 3);
        close(m_Client);
        close(m_Server);
        close(m_Stop);
    }

    int Program() const { return m_Program; }

    // How many calls of `procedure` passed, or of those (READ 6 and WRITE 7
    // carry an offset) how many at `offset`.
    size_t Calls(uint32_t procedure, int64_t offset = -1) {
        std::lock_guard<std::mutex> hold(m_Lock);
        return size_t(std::count_if(m_Calls.begin(), m_Calls.end(), [&](const Call& c) {
            return c.procedure == procedure && (offset < 0 || c.offset == uint64_t(offset));
        }));
    }
    size_t LargestDatagram() const { return m_Largest; }

private:
    static int Bound() {
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        return s;
    }
    static uint16_t Port(int s) {
        sockaddr_in addr{};
        socklen_t length = sizeof addr;
        EXPECT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&addr), &length), 0);
        return ntohs(addr.sin_port);
    }
    static uint32_t Word(const char* at) {
        uint32_t w;
        memcpy(&w, at, 4);
        return ntohl(w);
    }
    static bool Every(int n, int count) { return n && count % n == 0; }

    struct Call {
        uint32_t procedure;
        uint64_t offset;
    };

    // Procedure and, for READ (6) and WRITE (7), offset: after the call
    // header come the credential and verifier, then the handle.
    Call Parse(const char* d, size_t size) {
        Call call{Word(d + 20), 0};
        size_t at = 28;
        for (int auth = 0; auth < 2 && at + 4 <= size; ++auth)
            at += 4 + ((Word(d + at) + 3) & ~3u) + (auth == 0 ? 4 : 0);
        if ((call.procedure == 6 || call.procedure == 7) && at + 4 <= size) {
            at += 4 + ((Word(d + at) + 3) & ~3u);
            if (at + 8 <= size)
                call.offset = (uint64_t(Word(d + at)) << 32) | Word(d + at + 4);
        }
        return call;
    }

    void ToClient(const std::vector<char>& reply) {
        sendto(m_Client, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&m_From),
               sizeof m_From);
    }

    void FromClient() {
        std::vector<char> d(65536);
        socklen_t length = sizeof m_From;
        ssize_t n = recvfrom(m_Client, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&m_From),
                             &length);
        if (n < 24)
            return;
        m_Largest = std::max(m_Largest.load(), size_t(n));
        Call call = Parse(d.data(), size_t(n));
        {
            std::lock_guard<std::mutex> hold(m_Lock);
            m_Calls.push_back(call);
        }
        m_Procedure[Word(d.data())] = call.procedure;
        if (m_Script.silent || Every(m_Script.dropRequestEvery, ++m_RequestCount))
            return;
        uint32_t nfs = htonl(100003);
        memcpy(d.data() + 12, &nfs, 4);
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        server.sin_port = htons(m_ServerPort);
        sendto(m_Server, d.data(), size_t(n), 0, reinterpret_cast<sockaddr*>(&server),
               sizeof server);
    }

    void FromServer() {
        std::vector<char> reply(65536);
        ssize_t n = recv(m_Server, reply.data(), reply.size(), 0);
        if (n < 4)
            return;
        reply.resize(size_t(n));
        m_Largest = std::max(m_Largest.load(), size_t(n));
        // The verifier closes a successful WRITE or COMMIT reply.
        uint32_t procedure = m_Procedure[Word(reply.data())];
        m_WriteReplies += procedure == 7;
        if ((procedure == 7 || procedure == 21) && m_Script.changeVerifierAfter &&
            m_WriteReplies > m_Script.changeVerifierAfter)
            reply[reply.size() - 1] ^= 0x5A;
        if (procedure == 6 && m_Script.cutReadsTo >= 0)
            CutRead(reply);
        int count = ++m_ReplyCount;
        if (Every(m_Script.dropReplyEvery, count))
            return;
        if (Every(m_Script.holdReplyEvery, count)) {
            m_Held.push_back(reply);
            return;
        }
        ToClient(reply);
        if (Every(m_Script.duplicateReplyEvery, count))
            ToClient(reply);
        for (const auto& held : m_Held)
            ToClient(held);
        m_Held.clear();
    }

    // A successful READ reply: header, verifier, accept status, NFS status,
    // attributes, then count, eof, the data's length and the data.
    void CutRead(std::vector<char>& reply) {
        size_t at = 20 + ((Word(reply.data() + 16) + 3) & ~3u);
        if (reply.size() < at + 12 || Word(reply.data() + at) || Word(reply.data() + at + 4))
            return;
        at += 12 + (Word(reply.data() + at + 8) ? 84 : 0);
        uint32_t cut = uint32_t(m_Script.cutReadsTo);
        if (reply.size() < at + 12 || Word(reply.data() + at + 8) <= cut)
            return;
        uint32_t fields[3] = {htonl(cut), 0, htonl(cut)};
        memcpy(reply.data() + at, fields, sizeof fields);
        reply.resize(at + 12 + ((cut + 3) & ~3u));
    }

    void Relay() {
        for (;;) {
            pollfd fds[3] = {{m_Client, POLLIN, 0}, {m_Server, POLLIN, 0}, {m_Stop, POLLIN, 0}};
            if (poll(fds, 3, -1) < 0 || fds[2].revents)
                return;
            if (fds[0].revents)
                FromClient();
            if (fds[1].revents)
                FromServer();
        }
    }

    Script m_Script;
    int m_Program;
    int m_Client = -1, m_Server = -1, m_Stop = -1;
    uint16_t m_ServerPort = 0;
    bool m_Registered = false;
    sockaddr_in m_From{};
    int m_RequestCount = 0, m_ReplyCount = 0, m_WriteReplies = 0;
    std::map<uint32_t, uint32_t> m_Procedure; // by transaction id
    std::vector<std::vector<char>> m_Held;
    std::mutex m_Lock;
    std::vector<Call> m_Calls;
    std::atomic<size_t> m_Largest{0};
    std::thread m_Thread;
};

} // namespace qsNFSTest

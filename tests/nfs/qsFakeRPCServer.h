// A small ONC RPC server of the tests' own, a test double for what the real
// NFS server cannot be made to do on demand: vanish and come back, or
// answer against the protocol's rules.  It serves any program and version
// its procedures are added for, over TCP (record marking) and UDP on one
// port of 127.0.0.1, from one thread; a call to anything else is answered
// PROG_UNAVAIL.  Replies carry an AUTH_NONE verifier.
//
// Port 111 makes it a port mapper (program 100000 version 2, GETPORT) when
// AddPortMapper is used; the C library finds other programs through it.
#pragma once

#include <rpc/rpc.h>

#include <rpc/pmap_prot.h>

#include <algorithm>

#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace qsNFSTest {

class FakeRPCServer {
public:
    // Decodes the arguments from `args` and encodes the results into
    // `results`; false answers GARBAGE_ARGS.
    using Procedure = std::function<bool(XDR* args, XDR* results)>;

    FakeRPCServer() = default;
    ~FakeRPCServer() { Stop(); }
    FakeRPCServer(const FakeRPCServer&) = delete;
    FakeRPCServer& operator=(const FakeRPCServer&) = delete;

    // Procedures are added before Start.
    void Add(uint32_t program, uint32_t version, uint32_t procedure, Procedure body) {
        m_Procedures[{program, version, procedure}] = std::move(body);
    }

    // GETPORT answers `port` for each program in `programs`, any version
    // and transport.
    void AddPortMapper(std::vector<uint32_t> programs, uint16_t port) {
        Add(PMAPPROG, PMAPVERS, PMAPPROC_GETPORT, [=](XDR* in, XDR* out) {
            pmap query{};
            if (!xdr_pmap(in, &query))
                return false;
            u_int answer = 0;
            for (uint32_t p : programs)
                if (query.pm_prog == p)
                    answer = port;
            return bool(xdr_u_int(out, &answer));
        });
    }

    // Listens on `port` (0: one the kernel picks); false when it cannot.
    bool Start(uint16_t port = 0) {
        m_Listen = Bind(SOCK_STREAM, port);
        if (m_Listen < 0)
            return false;
        m_Port = LocalPort(m_Listen);
        m_Udp = Bind(SOCK_DGRAM, m_Port);
        if (m_Udp < 0 || listen(m_Listen, 8) != 0 || pipe(m_Wake) != 0) {
            Stop();
            return false;
        }
        m_Thread = std::thread([this] { Serve(); });
        return true;
    }

    // Closes every socket, connections included: to its clients the server
    // is gone.
    void Stop() {
        if (m_Thread.joinable()) {
            char c = 0;
            (void)!write(m_Wake[1], &c, 1);
            m_Thread.join();
        }
        for (int fd : {m_Listen, m_Udp, m_Wake[0], m_Wake[1]})
            if (fd >= 0)
                close(fd);
        m_Listen = m_Udp = m_Wake[0] = m_Wake[1] = -1;
    }

    uint16_t Port() const { return m_Port; }

private:
    static int Bind(int type, uint16_t port) {
        int fd = socket(AF_INET, type, 0);
        int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            return fd;
        if (fd >= 0)
            close(fd);
        return -1;
    }

    static uint16_t LocalPort(int fd) {
        sockaddr_in addr{};
        socklen_t length = sizeof addr;
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length);
        return ntohs(addr.sin_port);
    }

    static bool ReadAll(int fd, void* to, size_t n) {
        for (char* p = static_cast<char*>(to); n;) {
            ssize_t got = read(fd, p, n);
            if (got <= 0)
                return false;
            p += got, n -= size_t(got);
        }
        return true;
    }

    void Serve() {
        std::vector<int> connections;
        for (;;) {
            std::vector<pollfd> fds = {
                {m_Wake[0], POLLIN, 0}, {m_Listen, POLLIN, 0}, {m_Udp, POLLIN, 0}};
            for (int c : connections)
                fds.push_back({c, POLLIN, 0});
            if (poll(fds.data(), fds.size(), -1) < 0)
                continue;
            if (fds[0].revents)
                break;
            if (fds[1].revents & POLLIN)
                connections.push_back(accept(m_Listen, nullptr, nullptr));
            if (fds[2].revents & POLLIN)
                ServeDatagram();
            for (size_t i = 3; i < fds.size(); ++i) {
                if (fds[i].revents && !ServeRecord(fds[i].fd)) {
                    close(fds[i].fd);
                    connections.erase(std::find(connections.begin(), connections.end(), fds[i].fd));
                }
            }
        }
        for (int c : connections)
            close(c);
    }

    void ServeDatagram() {
        char call[65536];
        sockaddr_in from{};
        socklen_t length = sizeof from;
        ssize_t n =
            recvfrom(m_Udp, call, sizeof call, 0, reinterpret_cast<sockaddr*>(&from), &length);
        std::vector<char> reply;
        if (n > 0 && Dispatch(call, size_t(n), reply))
            sendto(m_Udp, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from),
                   length);
    }

    // One record: fragments up to the last one, then the reply as one.
    bool ServeRecord(int fd) {
        std::vector<char> call;
        for (bool last = false; !last;) {
            uint32_t mark;
            if (!ReadAll(fd, &mark, 4))
                return false;
            mark = ntohl(mark);
            last = mark & 0x80000000u;
            size_t at = call.size();
            call.resize(at + (mark & 0x7FFFFFFFu));
            if (!ReadAll(fd, call.data() + at, call.size() - at))
                return false;
        }
        std::vector<char> reply;
        if (!Dispatch(call.data(), call.size(), reply))
            return true;
        uint32_t mark = htonl(0x80000000u | uint32_t(reply.size()));
        reply.insert(reply.begin(), reinterpret_cast<char*>(&mark),
                     reinterpret_cast<char*>(&mark) + 4);
        return write(fd, reply.data(), reply.size()) == ssize_t(reply.size());
    }

    bool Dispatch(char* call, size_t n, std::vector<char>& reply) {
        char credentials[MAX_AUTH_BYTES], verifier[MAX_AUTH_BYTES];
        rpc_msg msg{};
        msg.rm_call.cb_cred.oa_base = credentials;
        msg.rm_call.cb_verf.oa_base = verifier;
        XDR in;
        xdrmem_create(&in, call, u_int(n), XDR_DECODE);
        if (!xdr_callmsg(&in, &msg) || msg.rm_direction != CALL)
            return false;

        reply.assign(1 << 20, 0);
        XDR out;
        xdrmem_create(&out, reply.data(), u_int(reply.size()), XDR_ENCODE);
        u_int xid = msg.rm_xid, direction = REPLY, accepted = MSG_ACCEPTED, none = AUTH_NONE,
              empty = 0;
        xdr_u_int(&out, &xid), xdr_u_int(&out, &direction), xdr_u_int(&out, &accepted);
        xdr_u_int(&out, &none), xdr_u_int(&out, &empty);
        u_int status = SUCCESS;
        u_int statusAt = XDR_GETPOS(&out);
        xdr_u_int(&out, &status);
        auto found =
            m_Procedures.find({uint32_t(msg.rm_call.cb_prog), uint32_t(msg.rm_call.cb_vers),
                               uint32_t(msg.rm_call.cb_proc)});
        if (found == m_Procedures.end() || !found->second(&in, &out)) {
            status = found == m_Procedures.end() ? PROG_UNAVAIL : GARBAGE_ARGS;
            XDR_SETPOS(&out, statusAt);
            xdr_u_int(&out, &status);
        }
        reply.resize(XDR_GETPOS(&out));
        xdr_destroy(&out);
        xdr_destroy(&in);
        return true;
    }

    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, Procedure> m_Procedures;
    int m_Listen = -1, m_Udp = -1, m_Wake[2] = {-1, -1};
    uint16_t m_Port = 0;
    std::thread m_Thread;
};

} // namespace qsNFSTest

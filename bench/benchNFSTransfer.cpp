// The NFS data transfer's speed: a big file written and read back through
// NFS3Transfer in each of its modes (plain over TCP, plain over UDP,
// pipelined), in MB/s, and the cost of one small stable write either way
// (UNSTABLE plus COMMIT, or FILE_SYNC), which decides how Write sends a
// range that fits one call.
//
// Runs beside the test server, where 127.0.0.1 reaches it:
//   tests/nfs/qsNFSServer.sh run BUILD/nfs-server
//       BUILD/bench/benchNFSTransfer BUILD/nfs-server/export [MiB [call-MiB [repeats [modes]]]]
// (one command line; modes: tcp,udp,pipelined,frames,stability, all by default)
// The server's export path is the local directory itself.

#include "qsMountProt.h"
#include "qsNFS3Prot.h"
#include "qsNFS3Transfer.h"
#include "qsRPCWrappers.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

using namespace qsNFSUtils;
using Clock = std::chrono::steady_clock;

namespace {

struct Handle {
    std::vector<char> bytes;
    nfs_fh3 Fh() { return {{u_int(bytes.size()), bytes.data()}}; }
};

[[noreturn]] void Die(const std::string& why) {
    fprintf(stderr, "benchNFSTransfer: %s\n", why.c_str());
    exit(1);
}

std::unique_ptr<RPCClient> Client(int program, RPCClient::PROTOCOL protocol, RPCAuth& auth) {
    RPCClient* client = nullptr;
    if (CreateRPCClient(client, htonl(INADDR_LOOPBACK), program, 3, protocol))
        Die("no client for program " + std::to_string(program));
    client->SetAuth(auth.Handle());
    return std::unique_ptr<RPCClient>(client);
}

Handle Mount(RPCClient& mount, std::string path) {
    dirpath arg = path.data();
    mountres3 res{};
    if (mountproc3_mnt_3(&arg, &res, mount.Handle()) != RPC_SUCCESS || res.fhs_status != MNT3_OK)
        Die("cannot mount " + path);
    const fhandle3& fh = res.mountres3_u.mountinfo.fhandle;
    Handle root{{fh.fhandle3_val, fh.fhandle3_val + fh.fhandle3_len}};
    xdr_free(XdrProc(xdr_mountres3), reinterpret_cast<char*>(&res));
    return root;
}

Handle Lookup(RPCClient& nfs, Handle& dir, std::string name) {
    LOOKUP3args args{{dir.Fh(), name.data()}};
    LOOKUP3res res{};
    if (nfsproc3_lookup_3(&args, &res, nfs.Handle()) != RPC_SUCCESS || res.status != NFS3_OK)
        Die("cannot look up " + name);
    const nfs_fh3& fh = res.LOOKUP3res_u.resok.object;
    Handle found{{fh.data.data_val, fh.data.data_val + fh.data.data_len}};
    xdr_free(XdrProc(xdr_LOOKUP3res), reinterpret_cast<char*>(&res));
    return found;
}

ExportInfo::Facts FsInfo(RPCClient& nfs, Handle& root) {
    FSINFO3args args{root.Fh()};
    FSINFO3res res{};
    if (nfsproc3_fsinfo_3(&args, &res, nfs.Handle()) != RPC_SUCCESS || res.status != NFS3_OK)
        Die("FSINFO failed");
    const FSINFO3resok& ok = res.FSINFO3res_u.resok;
    ExportInfo::Facts facts{};
    facts.m_Known = true;
    facts.m_ReadMax = ok.rtmax;
    facts.m_ReadPreferred = ok.rtpref;
    facts.m_ReadMultiple = ok.rtmult;
    facts.m_WriteMax = ok.wtmax;
    facts.m_WritePreferred = ok.wtpref;
    facts.m_WriteMultiple = ok.wtmult;
    printf("FSINFO: rtmax %u rtpref %u rtmult %u wtmax %u wtpref %u wtmult %u\n", ok.rtmax,
           ok.rtpref, ok.rtmult, ok.wtmax, ok.wtpref, ok.wtmult);
    return facts;
}

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Best of `repeats` writes and reads of the whole file, `call` bytes per
// Write or Read.
void Transfer(const char* mode, RPCClient& nfs, RPCAuth& auth, const DirEntry& file,
              const ExportInfo::Facts& facts, const std::vector<char>& data, uint32_t call,
              int repeats) {
    NFS3Transfer transfer(nfs, auth, htonl(INADDR_LOOPBACK));
    std::vector<char> back(data.size());
    double bestWrite = 1e9, bestRead = 1e9;
    for (int r = 0; r < repeats; ++r) {
        Clock::time_point start = Clock::now();
        for (size_t at = 0; at < data.size(); at += call) {
            uint32_t count = uint32_t(std::min<size_t>(call, data.size() - at));
            if (transfer.Write(file, facts, data.data() + at, int64_t(at), count))
                Die(std::string(mode) + ": write failed");
        }
        bestWrite = std::min(bestWrite, Seconds(start));
        memset(back.data(), 0, back.size());
        start = Clock::now();
        for (size_t at = 0; at < back.size(); at += call) {
            uint32_t count = uint32_t(std::min<size_t>(call, back.size() - at));
            if (transfer.Read(file, facts, back.data() + at, int64_t(at), count))
                Die(std::string(mode) + ": read failed");
        }
        bestRead = std::min(bestRead, Seconds(start));
        if (back != data)
            Die(std::string(mode) + ": read back differs");
    }
    double mb = double(data.size()) / 1e6;
    printf("%-22s write %8.1f MB/s   read %8.1f MB/s\n", mode, mb / bestWrite, mb / bestRead);
}

// Microseconds per stable write of `size` bytes, sent either way: the two
// ways take turns, each write extending the file, so that both pay for the
// same kind of allocation and neither profits from the other's sync.
void Stability(RPCClient& nfs, Handle& file, uint32_t size, int count) {
    std::vector<char> data(size, 'x');
    double took[2] = {0, 0};
    uint64_t offset = 0;
    for (int i = 0; i < 2 * count; ++i) {
        bool unstable = i % 2;
        Clock::time_point start = Clock::now();
        WRITE3args args{
            file.Fh(), offset, size, unstable ? UNSTABLE : FILE_SYNC, {size, data.data()}};
        WRITE3res res{};
        if (nfsproc3_write_3(&args, &res, nfs.Handle()) != RPC_SUCCESS || res.status)
            Die("WRITE failed");
        if (unstable) {
            COMMIT3args commit{file.Fh(), offset, size};
            COMMIT3res done{};
            if (nfsproc3_commit_3(&commit, &done, nfs.Handle()) != RPC_SUCCESS || done.status)
                Die("COMMIT failed");
        }
        took[unstable] += Seconds(start);
        offset += size;
    }
    printf("one stable write of %7u bytes: FILE_SYNC %7.0f us, UNSTABLE+COMMIT %7.0f us\n", size,
           took[0] * 1e6 / count, took[1] * 1e6 / count);
}

} // namespace

int main(int argc, char** argv) {
    // The library opens its log before main: give it a private directory.
    if (!getenv("QS_LOG_DIR")) {
        char dir[] = "/tmp/benchNFSTransfer.XXXXXX";
        if (!mkdtemp(dir))
            Die("mkdtemp");
        setenv("QS_LOG_DIR", dir, 1);
        execv("/proc/self/exe", argv);
        Die("execv");
    }
    if (argc < 2)
        Die("usage: benchNFSTransfer EXPORT_DIR [MiB [call-MiB [repeats [modes]]]]\n"
            "modes, comma-separated: tcp,udp,pipelined,frames,stability (default: all)");
    std::string exportDir = argv[1];
    size_t mib = argc > 2 ? strtoul(argv[2], nullptr, 10) : 256;
    uint32_t call = uint32_t(argc > 3 ? strtoul(argv[3], nullptr, 10) : 16) << 20;
    int repeats = argc > 4 ? atoi(argv[4]) : 3;
    std::string modes =
        "," + std::string(argc > 5 ? argv[5] : "tcp,udp,pipelined,frames,stability") + ",";
    auto wanted = [&](const char* mode) {
        return modes.find(std::string(",") + mode + ",") != std::string::npos;
    };
    if (!mib || !call || repeats < 1)
        Die("sizes and repeats must be positive");

    RPCAuth* rawAuth = nullptr;
    if (CreateRPCAuth(rawAuth, int(getuid()), {int(getgid())}))
        Die("no credential");
    std::unique_ptr<RPCAuth> auth(rawAuth);
    std::unique_ptr<RPCClient> mount = Client(100005, RPCClient::PROTOCOL_TCP, *auth);
    std::unique_ptr<RPCClient> tcp = Client(100003, RPCClient::PROTOCOL_TCP, *auth);
    std::unique_ptr<RPCClient> udp = Client(100003, RPCClient::PROTOCOL_UDP, *auth);
    Handle root = Mount(*mount, exportDir);
    ExportInfo::Facts facts = FsInfo(*tcp, root);

    // Made locally before the server first looks for it.
    const std::string name = "benchNFSTransfer-" + std::to_string(getpid()) + ".bin";
    const std::string path = exportDir + "/" + name;
    int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0666);
    if (fd < 0)
        Die("cannot create " + path);
    close(fd);
    Handle handle = Lookup(*tcp, root, name);
    DirEntry file;
    file.m_Path = path;
    file.m_Name = name;
    file.m_HandleLength = uint32_t(handle.bytes.size());
    memcpy(file.m_Handle, handle.bytes.data(), handle.bytes.size());

    std::vector<char> data(mib << 20);
    uint64_t x = 0x9E3779B97F4A7C15ull;
    for (size_t i = 0; i < data.size(); i += 8) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        memcpy(data.data() + i, &x, std::min<size_t>(8, data.size() - i));
    }
    printf("%zu MiB, %u MiB per call, best of %d\n", mib, call >> 20, repeats);

    if (wanted("tcp"))
        Transfer("plain TCP", *tcp, *auth, file, facts, data, call, repeats);
    if (wanted("udp"))
        Transfer("plain UDP", *udp, *auth, file, facts, data, call, repeats);
    g_NFSUtils_UseScatterGather = true;
    if (wanted("pipelined"))
        Transfer("pipelined", *tcp, *auth, file, facts, data, call, repeats);
    g_NFSUtils_FragmentCorrectly = false;
    if (wanted("frames"))
        Transfer("pipelined, frame-size", *tcp, *auth, file, facts, data, call, repeats);
    if (wanted("stability"))
        for (uint32_t size : {512u, 8192u, 65536u, 1u << 20})
            Stability(*tcp, handle, size, 300);
    unlink(path.c_str());
    return 0;
}

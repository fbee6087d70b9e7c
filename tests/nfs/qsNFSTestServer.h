// The NFS test server as the tests see it: 127.0.0.1 inside the namespace
// the tests run in, exporting QS_NFS_EXPORT, a local directory whose
// contents are the server's files.  Plus small helpers for the calls most
// tests need, each reporting failures through GoogleTest.
#pragma once

#include "qsMountProt.h"
#include "qsNFS3Prot.h"
#include "qsRPCWrappers.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace qsNFSTest {

using qsNFSUtils::RPCAuth;
using qsNFSUtils::RPCClient;
using ClientPtr = std::unique_ptr<RPCClient>;
using AuthPtr = std::unique_ptr<RPCAuth>;

constexpr int kNfsProgram = 100003;
constexpr int kNfsVersion = 3;
constexpr int kMountProgram = 100005;
constexpr int kMountVersion = 3;

inline unsigned long Loopback() {
    return htonl(INADDR_LOOPBACK);
}

// Set by CTest; by hand: QS_NFS_EXPORT=<tree>/nfs-server/export
// tests/nfs/qsNFSServer.sh run <tree>/nfs-server <tree>/tests/nfs/nfs_tests
inline std::string ExportDir() {
    const char* dir = getenv("QS_NFS_EXPORT");
    if (!dir || !*dir)
        ADD_FAILURE() << "QS_NFS_EXPORT is not set";
    return dir ? dir : "";
}

// A directory of the export for one test (mode 1777, so that any user the
// tests act as may create in it), emptied first.  Its path inside the
// export, as the server sees it, is Name().
class ExportSubdir {
public:
    explicit ExportSubdir(std::string name) : m_Name(std::move(name)) {
        std::filesystem::remove_all(Path());
        std::filesystem::create_directories(Path());
        chmod(Path().c_str(), 01777);
    }
    const std::string& Name() const { return m_Name; }
    std::string Path() const { return ExportDir() + "/" + m_Name; }
    std::string operator/(const std::string& entry) const { return Path() + "/" + entry; }

private:
    std::string m_Name;
};

inline ClientPtr Client(unsigned long address, int program, int version,
                        RPCClient::PROTOCOL protocol) {
    RPCClient* client = nullptr;
    long result = qsNFSUtils::CreateRPCClient(client, address, program, version, protocol);
    EXPECT_EQ(result, 0) << "program " << program << " protocol " << protocol;
    return ClientPtr(client);
}

inline AuthPtr UnixAuth(int uid, const std::vector<int>& gids) {
    RPCAuth* auth = nullptr;
    EXPECT_EQ(qsNFSUtils::CreateRPCAuth(auth, uid, gids), 0);
    return AuthPtr(auth);
}

// An NFS file handle that owns its bytes.
struct FileHandle {
    std::vector<char> bytes;
    nfs_fh3 Fh() { return nfs_fh3{{u_int(bytes.size()), bytes.data()}}; }
};

// The root handle of the export, from MNT over MOUNT version 3.
inline FileHandle MountExport(RPCClient& mount) {
    std::string path = ExportDir();
    dirpath arg = path.data();
    mountres3 res{};
    EXPECT_EQ(mountproc3_mnt_3(&arg, &res, mount.Handle()), RPC_SUCCESS);
    EXPECT_EQ(res.fhs_status, MNT3_OK);
    FileHandle root;
    if (res.fhs_status == MNT3_OK) {
        const fhandle3& fh = res.mountres3_u.mountinfo.fhandle;
        root.bytes.assign(fh.fhandle3_val, fh.fhandle3_val + fh.fhandle3_len);
    }
    xdr_free(qsNFSUtils::XdrProc(xdr_mountres3), reinterpret_cast<char*>(&res));
    return root;
}

// The handle of `name` in directory `dir`, by LOOKUP.
inline FileHandle Lookup(RPCClient& nfs, FileHandle& dir, const std::string& name) {
    std::string copy = name;
    LOOKUP3args args{{dir.Fh(), copy.data()}};
    LOOKUP3res res{};
    EXPECT_EQ(nfsproc3_lookup_3(&args, &res, nfs.Handle()), RPC_SUCCESS);
    EXPECT_EQ(res.status, NFS3_OK) << name;
    FileHandle found;
    if (res.status == NFS3_OK) {
        const nfs_fh3& fh = res.LOOKUP3res_u.resok.object;
        found.bytes.assign(fh.data.data_val, fh.data.data_val + fh.data.data_len);
    }
    xdr_free(qsNFSUtils::XdrProc(xdr_LOOKUP3res), reinterpret_cast<char*>(&res));
    return found;
}

// The root handle of the export, mounted with a fresh MOUNT client.
inline FileHandle ExportRoot() {
    ClientPtr mount = Client(Loopback(), kMountProgram, kMountVersion, RPCClient::PROTOCOL_TCP);
    return mount ? MountExport(*mount) : FileHandle{};
}

inline ino_t Inode(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_ino;
}

} // namespace qsNFSTest

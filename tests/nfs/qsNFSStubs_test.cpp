// The generated MOUNT and NFS stubs through RPCClient::Handle(), checked
// against the export directory itself.

#include "qsNFS3ReadResult.h"
#include "qsNFSTestServer.h"

#include <fstream>

using namespace qsNFSTest;
using qsNFSUtils::XdrProc;

namespace {

std::vector<std::string> ExportPaths(exports list) {
    std::vector<std::string> paths;
    for (exportnode* node = list; node; node = node->ex_next)
        paths.push_back(node->ex_dir);
    return paths;
}

} // namespace

// Version 3 over both transports, and version 1's list too: the types the
// two versions share travel alike.
TEST(MountStubs, ExportListNamesTheExport) {
    for (auto protocol : {RPCClient::PROTOCOL_TCP, RPCClient::PROTOCOL_UDP}) {
        for (int version : {3, 1}) {
            SCOPED_TRACE(testing::Message() << "protocol " << protocol << " version " << version);
            ClientPtr mount = Client(Loopback(), kMountProgram, version, protocol);
            ASSERT_TRUE(mount);
            char none = 0;
            exports list = nullptr;
            clnt_stat status = version == 3 ? mountproc3_export_3(&none, &list, mount->Handle())
                                            : mountproc_export_1(&none, &list, mount->Handle());
            ASSERT_EQ(status, RPC_SUCCESS);
            EXPECT_EQ(ExportPaths(list), std::vector<std::string>{ExportDir()});
            xdr_free(XdrProc(xdr_exports), reinterpret_cast<char*>(&list));
        }
    }
}

// MNT gives the root handle; GETATTR of it over either transport describes
// the export directory.
TEST(NFSStubs, GetattrOfTheMountedRoot) {
    ClientPtr mount = Client(Loopback(), kMountProgram, kMountVersion, RPCClient::PROTOCOL_TCP);
    AuthPtr auth = UnixAuth(0, {0});
    ASSERT_TRUE(mount && auth);
    mount->SetAuth(auth->Handle());
    FileHandle root = MountExport(*mount);
    ASSERT_FALSE(root.bytes.empty());
    for (auto protocol : {RPCClient::PROTOCOL_TCP, RPCClient::PROTOCOL_UDP}) {
        ClientPtr nfs = Client(Loopback(), kNfsProgram, kNfsVersion, protocol);
        ASSERT_TRUE(nfs);
        nfs->SetAuth(auth->Handle());
        GETATTR3args args{root.Fh()};
        GETATTR3res res{};
        ASSERT_EQ(nfsproc3_getattr_3(&args, &res, nfs->Handle()), RPC_SUCCESS);
        ASSERT_EQ(res.status, NFS3_OK);
        const fattr3& attributes = res.GETATTR3res_u.resok.obj_attributes;
        EXPECT_EQ(attributes.type, NF3DIR);
        EXPECT_EQ(attributes.fileid, Inode(ExportDir()));
        EXPECT_EQ(attributes.mode & 07777, 01777u);
        xdr_free(XdrProc(xdr_GETATTR3res), reinterpret_cast<char*>(&res));
    }
}

// The server acts as the user and group of the AUTH_UNIX credential: what
// it creates belongs to them.
TEST(NFSStubs, FileCreatedUnderAuthUnixBelongsToItsUserAndGroup) {
    ExportSubdir dir("authunix");
    FileHandle root = ExportRoot();
    ClientPtr nfs = Client(Loopback(), kNfsProgram, kNfsVersion, RPCClient::PROTOCOL_TCP);
    AuthPtr root_auth = UnixAuth(0, {0});
    AuthPtr user = UnixAuth(1234, {5678, 100});
    ASSERT_TRUE(nfs && root_auth && user);
    nfs->SetAuth(root_auth->Handle());
    FileHandle subdir = Lookup(*nfs, root, dir.Name());

    nfs->SetAuth(user->Handle());
    std::string name = "created-by-1234";
    CREATE3args args{};
    args.where.dir = subdir.Fh();
    args.where.name = name.data();
    args.how.mode = UNCHECKED;
    args.how.createhow3_u.obj_attributes.mode.set_it = TRUE;
    args.how.createhow3_u.obj_attributes.mode.set_mode3_u.mode = 0640;
    CREATE3res res{};
    ASSERT_EQ(nfsproc3_create_3(&args, &res, nfs->Handle()), RPC_SUCCESS);
    EXPECT_EQ(res.status, NFS3_OK);
    xdr_free(XdrProc(xdr_CREATE3res), reinterpret_cast<char*>(&res));

    struct stat st {};
    ASSERT_EQ(stat((dir / name).c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 5678u);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

// READ through the library's bounded decoder: the data lands in the
// caller's buffer; a reply longer than the buffer is refused, not stored.
TEST(NFSStubs, ReadDecodesIntoTheCallersBufferAndNeverPastIt) {
    ExportSubdir dir("read");
    std::string contents(3000, '\0');
    for (size_t i = 0; i < contents.size(); ++i)
        contents[i] = char('A' + i % 23);
    std::ofstream(dir / "data", std::ios::binary) << contents;
    FileHandle root = ExportRoot();
    AuthPtr auth = UnixAuth(0, {0});
    for (auto protocol : {RPCClient::PROTOCOL_TCP, RPCClient::PROTOCOL_UDP}) {
        SCOPED_TRACE(protocol);
        ClientPtr nfs = Client(Loopback(), kNfsProgram, kNfsVersion, protocol);
        ASSERT_TRUE(nfs && auth);
        nfs->SetAuth(auth->Handle());
        FileHandle subdir = Lookup(*nfs, root, dir.Name());
        FileHandle file = Lookup(*nfs, subdir, "data");
        for (unsigned capacity : {4096u, 1000u}) {
            std::string buffer(capacity + 16, '#');
            READ3args args{file.Fh(), 0, 3000};
            READ3res res{};
            res.READ3res_u.resok.data.data_val = buffer.data();
            res.READ3res_u.resok.data.data_len = capacity;
            timeval timeout{25, 0};
            clnt_stat status =
                clnt_call(nfs->Handle(), NFSPROC3_READ, XdrProc(xdr_READ3args),
                          reinterpret_cast<char*>(&args), XdrProc(qsNFSUtils::XdrReadResultInto),
                          reinterpret_cast<char*>(&res), timeout);
            EXPECT_EQ(buffer.substr(capacity), std::string(16, '#'));
            if (capacity < contents.size()) {
                EXPECT_EQ(status, RPC_CANTDECODERES);
                continue;
            }
            ASSERT_EQ(status, RPC_SUCCESS);
            ASSERT_EQ(res.status, NFS3_OK);
            EXPECT_TRUE(res.READ3res_u.resok.eof);
            ASSERT_EQ(res.READ3res_u.resok.data.data_len, contents.size());
            EXPECT_EQ(res.READ3res_u.resok.data.data_val, buffer.data());
            EXPECT_EQ(buffer.substr(0, contents.size()), contents);
        }
    }
}

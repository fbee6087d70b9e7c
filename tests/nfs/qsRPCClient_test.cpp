// RPC clients against the real server: creation over both transports and
// both creation paths, the generated MOUNT and NFS stubs through Handle(),
// failures, and the process-wide creation lock.

#include "qsNFSStatus.h"
#include "qsNFSTestServer.h"
#include "qsRPCLocks.h"

#include <atomic>
#include <fstream>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace qsNFSTest;
using qsNFSUtils::XdrProc;

namespace {

ClientPtr ByName(const char* host, int program, int version, RPCClient::PROTOCOL protocol) {
    RPCClient* client = nullptr;
    EXPECT_EQ(qsNFSUtils::CreateRPCClient(client, host, program, version, protocol), 0) << host;
    return ClientPtr(client);
}

// True while thread `tid` of this process sleeps in futex(2): a thread that
// waits for a lock that another one holds.
bool WaitsOnALock(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long number = -1;
    in >> number;
#ifdef SYS_futex_time64
    if (number == SYS_futex_time64)
        return true;
#endif
    return number == SYS_futex;
}

} // namespace

// Clients by address and by host name, over both transports, reach MOUNT
// and NFS through the generated stubs: the null procedure, the export list
// (version 1's too: the types the two versions share travel alike), MNT of
// the export, and GETATTR of its root, which describes the export directory.
TEST(RPCClient, StubsOverBothTransportsAndCreationPaths) {
    AuthPtr auth = UnixAuth(0, {0});
    char none = 0;
    for (auto protocol : {RPCClient::PROTOCOL_TCP, RPCClient::PROTOCOL_UDP}) {
        SCOPED_TRACE(protocol);
        ClientPtr mount = Client(Loopback(), kMountProgram, kMountVersion, protocol);
        ClientPtr nfs = Client(Loopback(), kNfsProgram, kNfsVersion, protocol);
        ClientPtr mount1 = ByName("localhost", kMountProgram, 1, protocol);
        ClientPtr nfsByName = ByName("localhost", kNfsProgram, kNfsVersion, protocol);
        ASSERT_TRUE(mount && nfs && mount1 && nfsByName);
        for (RPCClient* client : {mount.get(), nfs.get(), mount1.get(), nfsByName.get()}) {
            client->SetAuth(auth->Handle());
            EXPECT_EQ(client->ProtocolUsed(), protocol);
        }
        EXPECT_EQ(mountproc3_null_3(&none, &none, mount->Handle()), RPC_SUCCESS);
        EXPECT_EQ(nfsproc3_null_3(&none, &none, nfsByName->Handle()), RPC_SUCCESS);
        EXPECT_GE(nfs->Socket(), 0);
        EXPECT_EQ(nfsByName->Socket(), -1);

        for (int version : {3, 1}) {
            exports list = nullptr;
            ASSERT_EQ(version == 3 ? mountproc3_export_3(&none, &list, mount->Handle())
                                   : mountproc_export_1(&none, &list, mount1->Handle()),
                      RPC_SUCCESS);
            EXPECT_TRUE(list && !list->ex_next && list->ex_dir == ExportDir()) << version;
            xdr_free(XdrProc(xdr_exports), reinterpret_cast<char*>(&list));
        }

        std::string path = ExportDir();
        dirpath arg = path.data();
        mountres3 mnt{};
        ASSERT_EQ(mountproc3_mnt_3(&arg, &mnt, mount->Handle()), RPC_SUCCESS);
        ASSERT_EQ(mnt.fhs_status, MNT3_OK);
        fhandle3& root = mnt.mountres3_u.mountinfo.fhandle;
        GETATTR3args args{{{root.fhandle3_len, root.fhandle3_val}}};
        GETATTR3res res{};
        ASSERT_EQ(nfsproc3_getattr_3(&args, &res, nfs->Handle()), RPC_SUCCESS);
        ASSERT_EQ(res.status, NFS3_OK);
        EXPECT_EQ(res.GETATTR3res_u.resok.obj_attributes.type, NF3DIR);
        EXPECT_EQ(res.GETATTR3res_u.resok.obj_attributes.fileid, Inode(ExportDir()));
        xdr_free(XdrProc(xdr_GETATTR3res), reinterpret_cast<char*>(&res));
        xdr_free(XdrProc(xdr_mountres3), reinterpret_cast<char*>(&mnt));
    }
}

// Nothing is handed out, the out pointer keeps its value, and the C library
// says why.
TEST(RPCClient, ProgramNotRegisteredCreatesNothing) {
    const int unregistered = 0x3F5A0000;
    for (auto protocol : {RPCClient::PROTOCOL_TCP, RPCClient::PROTOCOL_UDP}) {
        for (bool byAddress : {true, false}) {
            SCOPED_TRACE(testing::Message()
                         << "protocol " << protocol << " by address " << byAddress);
            RPCClient* untouched = reinterpret_cast<RPCClient*>(0x1);
            rpc_createerr.cf_stat = RPC_SUCCESS;
            long result = byAddress ? qsNFSUtils::CreateRPCClient(untouched, Loopback(),
                                                                  unregistered, 1, protocol)
                                    : qsNFSUtils::CreateRPCClient(untouched, "127.0.0.1",
                                                                  unregistered, 1, protocol);
            EXPECT_EQ(qsStatus(result), QS_E_RPC_CLIENT);
            EXPECT_LT(result, 0);
            EXPECT_EQ(untouched, reinterpret_cast<RPCClient*>(0x1));
            EXPECT_EQ(rpc_createerr.cf_stat, RPC_PROGNOTREGISTERED);
        }
    }
}

// Creation by address is serialised process-wide; creation by host name is
// not.
TEST(RPCClient, CreationByAddressWaitsForTheProcessWideLock) {
    std::atomic<pid_t> tid{0};
    std::atomic<bool> created{false};
    ClientPtr waited;
    g_ClientCreateCS.Lock();
    std::thread byAddress([&] {
        tid = pid_t(syscall(SYS_gettid));
        waited = Client(Loopback(), kNfsProgram, kNfsVersion, RPCClient::PROTOCOL_UDP);
        created = true;
    });
    while (!created && !(tid && WaitsOnALock(tid)))
        std::this_thread::yield();
    EXPECT_FALSE(created);
    std::thread([] {
        EXPECT_TRUE(ByName("127.0.0.1", kNfsProgram, 3, RPCClient::PROTOCOL_TCP));
    }).join();
    EXPECT_FALSE(created);
    g_ClientCreateCS.Unlock();
    byAddress.join();
    ASSERT_TRUE(waited);
    char none = 0;
    EXPECT_EQ(nfsproc3_null_3(&none, &none, waited->Handle()), RPC_SUCCESS);
}

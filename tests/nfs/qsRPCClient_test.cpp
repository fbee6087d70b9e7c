// RPC clients against the real server: creation over both transports and
// both creation paths, the generated stubs through Handle(), failures, and
// the process-wide creation lock.

#include "qsNFSStatus.h"
#include "qsNFSTestServer.h"
#include "qsRPCLocks.h"

#include <atomic>
#include <fstream>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace qsNFSTest;

namespace {

clnt_stat NullCall(int program, CLIENT* handle) {
    char none = 0;
    if (program == kNfsProgram)
        return nfsproc3_null_3(&none, &none, handle);
    return mountproc3_null_3(&none, &none, handle);
}

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

TEST(RPCClient, NullProcedureOfNfsAndMountOverBothTransportsAndCreationPaths) {
    AuthPtr auth = UnixAuth(0, {0});
    for (int program : {kNfsProgram, kMountProgram}) {
        for (auto protocol : {RPCClient::PROTOCOL_TCP, RPCClient::PROTOCOL_UDP}) {
            SCOPED_TRACE(testing::Message() << program << " protocol " << protocol);
            ClientPtr byAddress = Client(Loopback(), program, 3, protocol);
            ClientPtr byName = ByName("localhost", program, 3, protocol);
            ASSERT_TRUE(byAddress && byName);
            for (RPCClient* client : {byAddress.get(), byName.get()}) {
                client->SetAuth(auth->Handle());
                EXPECT_EQ(client->Handle()->cl_auth, auth->Handle());
                EXPECT_EQ(client->ProtocolUsed(), protocol);
                EXPECT_EQ(NullCall(program, client->Handle()), RPC_SUCCESS);
            }
            EXPECT_GE(byAddress->Socket(), 0);
            EXPECT_EQ(byName->Socket(), -1);
        }
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
    EXPECT_EQ(NullCall(kNfsProgram, waited->Handle()), RPC_SUCCESS);
}

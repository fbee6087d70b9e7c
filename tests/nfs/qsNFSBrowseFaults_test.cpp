// Browse objects against servers that misbehave: one that goes away and
// comes back, one whose directory cookie does not advance.  The servers are
// the tests' own (qsFakeRPCServer.h), in a network namespace of the test's
// own, where they can take the port mapper's port.

#include "qsFakeRPCServer.h"
#include "qsNFSStatus.h"
#include "qsNFSTestServer.h"

#include <functional>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

using namespace qsNFSTest;
using qsNFSUtils::DirEntry;

namespace {

constexpr int kSkip = 77;

bool LoopbackUp() {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0 &&
              (ifr.ifr_flags |= IFF_UP, ioctl(s, SIOCSIFFLAGS, &ifr) == 0);
    if (s >= 0)
        close(s);
    return up;
}

// Runs `scenario` in a child with a network namespace of its own.  The
// child's failures print as they happen; its exit status is the verdict.
void InPrivateNetwork(const std::function<void()>& scenario) {
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (unshare(CLONE_NEWNET) != 0 || !LoopbackUp())
            _exit(kSkip);
        scenario();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kSkip)
        GTEST_SKIP() << "no network namespace of the test's own can be made here (needs root)";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
}

fattr3 DirectoryAttributes() {
    fattr3 a{};
    a.type = NF3DIR;
    a.mode = 0755;
    a.nlink = 2;
    a.fileid = 1;
    return a;
}

// A procedure that answers `res` whatever it is asked.
template <typename Res> FakeRPCServer::Procedure Answer(bool_t (*encode)(XDR*, Res*), Res res) {
    return [=](XDR*, XDR* out) mutable { return bool(encode(out, &res)); };
}

// MOUNT 3 with one export, "/fake", and the NFS 3 procedures a browse
// object needs to start and mount it, on one port; a port mapper on 111
// sends clients there.
struct FakeNfsServer {
    FakeRPCServer portMapper, service;

    FakeNfsServer() {
        service.Add(MOUNT_PROGRAM, MOUNT_V3, MOUNTPROC3_EXPORT, [](XDR*, XDR* out) {
            exportnode node{const_cast<char*>("/fake"), nullptr, nullptr};
            exports list = &node;
            return bool(xdr_exports(out, &list));
        });
        mountres3 mnt{};
        mnt.mountres3_u.mountinfo.fhandle = {4, const_cast<char*>("root")};
        service.Add(MOUNT_PROGRAM, MOUNT_V3, MOUNTPROC3_MNT, Answer(xdr_mountres3, mnt));
        service.Add(NFS_PROGRAM, NFS_V3, NULLPROC, [](XDR*, XDR*) { return true; });
        GETATTR3res getattr{};
        getattr.GETATTR3res_u.resok.obj_attributes = DirectoryAttributes();
        service.Add(NFS_PROGRAM, NFS_V3, NFSPROC3_GETATTR, Answer(xdr_GETATTR3res, getattr));
        FSINFO3res fsinfo{};
        fsinfo.FSINFO3res_u.resok.rtpref = fsinfo.FSINFO3res_u.resok.wtpref = 8192;
        service.Add(NFS_PROGRAM, NFS_V3, NFSPROC3_FSINFO, Answer(xdr_FSINFO3res, fsinfo));
        service.Add(NFS_PROGRAM, NFS_V3, NFSPROC3_FSSTAT, Answer(xdr_FSSTAT3res, FSSTAT3res{}));
        PATHCONF3res pathconf{};
        pathconf.PATHCONF3res_u.resok.name_max = 255;
        service.Add(NFS_PROGRAM, NFS_V3, NFSPROC3_PATHCONF, Answer(xdr_PATHCONF3res, pathconf));
    }

    bool Start() {
        if (!service.Start())
            return false;
        portMapper.AddPortMapper({MOUNT_PROGRAM, NFS_PROGRAM}, service.Port());
        return portMapper.Start(PMAPPORT);
    }
};

} // namespace

// Gone: Verify says so, and a call fails with a transport code, logged
// once, instead of hanging.  Back on the same port: the next Verify makes a
// new connection and the object is usable again.
TEST(NFSBrowseFaults, VerifyFollowsTheServerAwayAndBack) {
    InPrivateNetwork([] {
        FakeNfsServer server;
        ASSERT_TRUE(server.Start());
        BrowsePtr browse = Browse();
        ASSERT_TRUE(browse);
        EXPECT_TRUE(browse->Verify());
        EntryPtr root = Open(*browse, "/fake");
        ASSERT_TRUE(root);

        uint16_t port = server.service.Port();
        server.service.Stop();
        EXPECT_FALSE(browse->Verify());
        NewLogLines log;
        int32_t result = browse->GetAttributes(*root);
        EXPECT_EQ(uint32_t(result) & 0xFFFFFF00u, 0xE0030300u) << std::hex << result;
        EXPECT_EQ(browse->GetLastObjectError(), result);
        ASSERT_EQ(log.Texts().size(), 1u);
        EXPECT_TRUE(log.Texts()[0].starts_with("nfsproc3_getattr_3 (status 0, err 0x"))
            << log.Texts()[0];

        ASSERT_TRUE(server.service.Start(port));
        EXPECT_TRUE(browse->Verify());
        EXPECT_EQ(browse->GetAttributes(*root), 0);
    });
}

// A listing must end: a batch that brings nothing new before the end is an
// error, whether it is empty or repeats the cookie it was asked with.
TEST(NFSBrowseFaults, ACookieThatDoesNotAdvanceEndsTheListing) {
    InPrivateNetwork([] {
        for (bool emptyBatch : {false, true}) {
            SCOPED_TRACE(emptyBatch ? "empty batch" : "repeated cookie");
            FakeNfsServer server;
            server.service.Add(NFS_PROGRAM, NFS_V3, NFSPROC3_READDIRPLUS, [=](XDR* in, XDR* out) {
                READDIRPLUS3args args{};
                if (!xdr_READDIRPLUS3args(in, &args))
                    return false;
                cookie3 cookie = args.cookie;
                xdr_free(qsNFSUtils::XdrProc(xdr_READDIRPLUS3args), reinterpret_cast<char*>(&args));
                // first batch: a (7) and b (8); every later one: c (8) again
                entryplus3 c{3, const_cast<char*>("c"), 8, {}, {}, nullptr};
                entryplus3 b{2, const_cast<char*>("b"), 8, {}, {}, nullptr};
                entryplus3 a{1, const_cast<char*>("a"), 7, {}, {}, &b};
                for (entryplus3* e : {&a, &b, &c}) {
                    e->name_attributes.attributes_follow = TRUE;
                    e->name_attributes.post_op_attr_u.attributes = DirectoryAttributes();
                    e->name_handle.handle_follows = TRUE;
                    e->name_handle.post_op_fh3_u.handle.data = {1, e->name};
                }
                READDIRPLUS3res res{};
                bool first = cookie == 0 && !emptyBatch;
                res.READDIRPLUS3res_u.resok.reply.entries = first ? &a : emptyBatch ? nullptr : &c;
                return bool(xdr_READDIRPLUS3res(out, &res));
            });
            ASSERT_TRUE(server.Start());
            BrowsePtr browse = Browse();
            ASSERT_TRUE(browse);
            EntryPtr root = Open(*browse, "/fake");
            ASSERT_TRUE(root);
            NewLogLines log;
            std::vector<DirEntry> entries;
            EXPECT_EQ(qsStatus(browse->Entries(*root, entries)), QS_E_NFS_FAILED);
            EXPECT_EQ(entries.size(), emptyBatch ? 0u : 2u);
            EXPECT_EQ(log.Texts(), Lines{"nfsproc3_readdirplus_3 (status 10003, err 0x00000000) "
                                         "/fake (the server's cookie does not advance)"});
        }
    });
}

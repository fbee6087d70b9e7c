// The NFS test server as the tests see it: 127.0.0.1 inside the namespace
// the tests run in, exporting QS_NFS_EXPORT, a local directory whose
// contents are the server's files.  Plus small helpers for the calls most
// tests need, each reporting failures through GoogleTest.
#pragma once

#include "qsLogRecords.h"
#include "qsMountProt.h"
#include "qsNFS3Prot.h"
#include "qsNFSBrowse.h"
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
// tests act as may create in it), emptied first.
class ExportSubdir {
public:
    explicit ExportSubdir(const std::string& name) : m_Path(ExportDir() + "/" + name) {
        std::filesystem::remove_all(m_Path);
        std::filesystem::create_directories(m_Path);
        chmod(m_Path.c_str(), 01777);
    }
    const std::string& Path() const { return m_Path; }
    std::string operator/(const std::string& entry) const { return m_Path + "/" + entry; }

private:
    std::string m_Path;
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

using BrowsePtr = std::unique_ptr<qsNFSUtils::NFSBrowse>;
using EntryPtr = std::unique_ptr<qsNFSUtils::DirEntry>;

// A browse object of the server at 127.0.0.1.
inline BrowsePtr Browse(qsNFSUtils::eUseProtocol protocol = qsNFSUtils::eUseTCP, int uid = 0,
                        const std::vector<int>& gids = {0}) {
    qsNFSUtils::NFSBrowse* browse = nullptr;
    EXPECT_EQ(qsNFSUtils::CreateNFSBrowse(browse, "127.0.0.1", uid, gids, nullptr, protocol), 0);
    return BrowsePtr(browse);
}

inline EntryPtr Open(qsNFSUtils::NFSBrowse& browse, const std::string& path, bool create = false,
                     bool makeParents = false) {
    return EntryPtr(browse.Open(path, create, makeParents));
}

using Lines = std::vector<std::string>;

// The texts the default log gained since construction: a failure is logged
// once, where it happens, and nowhere else.
class NewLogLines {
public:
    NewLogLines() : m_Before(qsTest::ReadRecords(*g_pZLogStreamDefault).size()) {}
    Lines Texts() const {
        Lines texts;
        auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
        for (size_t i = m_Before; i < records.size(); ++i)
            texts.push_back(records[i].Text());
        return texts;
    }

private:
    size_t m_Before;
};

inline struct stat Lstat(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st;
}

inline ino_t Inode(const std::string& path) {
    return Lstat(path).st_ino;
}

} // namespace qsNFSTest

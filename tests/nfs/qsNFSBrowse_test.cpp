// Browse objects against the real server, every effect checked on the
// export directory itself (whose local path is also the server's).

#include "ZBuffer.h"
#include "qsNFSStatus.h"
#include "qsNFSTestServer.h"
#include "qsWinApi.h"

#include <fstream>
#include <set>
#include <sys/stat.h>
#include <utime.h>

using namespace qsNFSTest;
using qsNFSUtils::DirEntry;
using qsNFSUtils::ExportInfo;
using qsNFSUtils::NFSBrowse;
using qsNFSUtils::NFSGetNextHandle;

namespace {

DirEntry Named(const std::string& name, uint32_t type) {
    DirEntry e;
    e.m_Name = name;
    e.m_Type = type;
    return e;
}

qsTest::LogRecord LastLogRecord() {
    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    return records.empty() ? qsTest::LogRecord{} : records.back();
}

} // namespace

// Start-up over each transport choice: the export list, and the export's
// root mounted once, with its file-system facts, on first use.
TEST(NFSBrowse, StartsOverEachTransportAndMountsTheExport) {
    for (auto protocol : {qsNFSUtils::eUseTCP, qsNFSUtils::eUseUDP, qsNFSUtils::eUseTCPThenUDP}) {
        SCOPED_TRACE(protocol);
        BrowsePtr browse = Browse(protocol);
        ASSERT_TRUE(browse);
        EXPECT_TRUE(browse->Verify());
        std::vector<std::string> paths;
        EXPECT_EQ(browse->ExportPaths(paths), 0);
        EXPECT_EQ(paths, Lines{ExportDir()});

        ExportInfo info;
        ASSERT_EQ(browse->FindMountPoint(ExportDir() + "/some/file", info), 0);
        EXPECT_EQ(info.m_Path, ExportDir());
        const ExportInfo::Facts& f = info.m_Facts; // from FSINFO, FSSTAT and PATHCONF
        EXPECT_TRUE(f.m_Known && f.m_ReadPreferred && f.m_WritePreferred && f.m_TotalBytes);
        EXPECT_GE(f.m_NameMax, 255u);
        std::vector<ExportInfo> exports;
        EXPECT_EQ(browse->Exports(exports), 0);
        ASSERT_EQ(exports.size(), 1u);
        EXPECT_GT(info.m_RootHandleLength, 0u);
        EXPECT_EQ(exports[0].m_RootHandleLength, info.m_RootHandleLength);
    }
}

// The factory hands out nothing on failure, says why in one line, and
// returns the most telling code it has.
TEST(NFSBrowse, FactoryFailures) {
    NFSBrowse* browse = reinterpret_cast<NFSBrowse*>(0x1);
    // no groups: no credential, and the C library saw nothing wrong
    EXPECT_EQ(qsStatus(qsNFSUtils::CreateNFSBrowse(browse, "127.0.0.1", 0, {}, nullptr,
                                                   qsNFSUtils::eUseTCP)),
              QS_E_RPC_AUTH);
    qsTest::LogRecord line = LastLogRecord();
    EXPECT_TRUE(line.Text().starts_with("CreateNFSBrowse failed (system err 0x")) << line.Text();
    EXPECT_TRUE(line.Text().ends_with(", RPC status 0) 127.0.0.1")) << line.Text();
    EXPECT_EQ(line.Code(), 0);

    // nothing answers on that network: the port mapper query fails
    long result =
        qsNFSUtils::CreateNFSBrowse(browse, "192.0.2.1", 0, {0}, nullptr, qsNFSUtils::eUseTCP);
    EXPECT_LT(result, 0);
    EXPECT_NE(result, 0x80000008);
    line = LastLogRecord();
    EXPECT_EQ(line.Code(), int32_t(result));
    EXPECT_TRUE(line.Text().ends_with(") 192.0.2.1")) << line.Text();

    EXPECT_EQ(qsStatus(qsNFSUtils::CreateNFSBrowse(browse, "no-such-host.qs.test", 0, {0}, nullptr,
                                                   qsNFSUtils::eUseTCP)),
              QS_E_HOST_UNRESOLVED);
    EXPECT_EQ(browse, reinterpret_cast<NFSBrowse*>(0x1));
}

// Walking, creating on the way, and what a missing name or a path outside
// every export (a prefix that ends inside a component does not count)
// leaves behind: null, the code, one line.
TEST(NFSBrowse, OpenWalksAndCreates) {
    ExportSubdir dir("browse-open");
    std::filesystem::create_directories(dir / "a/b");
    std::ofstream(dir / "a/b/file") << "twelve bytes";
    BrowsePtr browse = Browse();
    ASSERT_TRUE(browse);

    EntryPtr file = Open(*browse, dir / "a/b/file");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->m_Type, qsNFSUtils::eTypeRegular);
    EXPECT_EQ(file->m_Size, 12u);
    EXPECT_EQ(file->m_Name, "file");
    EXPECT_EQ(file->m_Path, dir / "a/b/file");
    EXPECT_EQ(file->m_FileId, Inode(dir / "a/b/file"));
    // "." and doubled slashes change nothing
    EntryPtr same = Open(*browse, dir / "a/./b//file");
    ASSERT_TRUE(same);
    EXPECT_EQ(same->m_FileId, file->m_FileId);
    EntryPtr root = Open(*browse, ExportDir());
    ASSERT_TRUE(root);
    EXPECT_EQ(root->m_Type, qsNFSUtils::eTypeDirectory);

    std::string missing = dir / "a/missing";
    NewLogLines log;
    EXPECT_EQ(Open(*browse, missing), nullptr);
    EXPECT_EQ(qsStatus(browse->GetLastObjectError()), QS_E_NFS_NOENT);
    EXPECT_EQ(log.Texts(), Lines{"nfsproc3_lookup_3 (status 2, err 0x00000000) " + missing});
    for (std::string outside : {std::string("/elsewhere"), ExportDir() + "x/file"}) {
        ExportInfo info;
        EXPECT_EQ(qsStatus(browse->FindMountPoint(outside, info)), QS_E_NFS_NOENT) << outside;
        EXPECT_EQ(Open(*browse, outside), nullptr);
        EXPECT_EQ(qsStatus(browse->GetLastObjectError()), QS_E_NFS_NOENT);
    }

    // create: a regular file of mode 0777; with makeParents the directories too
    ASSERT_TRUE(Open(*browse, missing, true));
    EXPECT_EQ(Lstat(missing).st_mode, S_IFREG | 0777u);
    EXPECT_EQ(Open(*browse, dir / "x/y/z", true), nullptr);
    ASSERT_TRUE(Open(*browse, dir / "x/y/z", true, true));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "x/y/z"));
    // an existing file is opened, not replaced
    EntryPtr again = Open(*browse, dir / "a/b/file", true);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->m_Size, 12u);
}

// A directory of thousands of entries arrives whole across many READDIRPLUS
// batches, over TCP and over UDP (whose batches are much smaller), each
// entry with its handle and attributes.
TEST(NFSBrowse, ListsLargeDirectoriesCompletely) {
    ExportSubdir dir("browse-list");
    std::multiset<std::string> expected{"subdir"};
    for (int i = 0; i < 4000; ++i) {
        std::string name = "entry-with-a-longish-name-" + std::to_string(i);
        std::ofstream(dir / name) << std::string(size_t(i % 7), 'x');
        expected.insert(name);
    }
    std::filesystem::create_directory(dir / "subdir");

    for (auto protocol : {qsNFSUtils::eUseTCP, qsNFSUtils::eUseUDP}) {
        SCOPED_TRACE(protocol);
        BrowsePtr browse = Browse(protocol);
        ASSERT_TRUE(browse);
        EntryPtr directory = Open(*browse, dir.Path());
        ASSERT_TRUE(directory);
        std::vector<DirEntry> entries;
        ASSERT_EQ(browse->Entries(*directory, entries), 0);
        std::multiset<std::string> names;
        const DirEntry* sub = nullptr;
        for (const DirEntry& e : entries) {
            names.insert(e.m_Name);
            EXPECT_EQ(e.m_Path, dir / e.m_Name);
            if (e.m_Name == "subdir") {
                sub = &e;
                EXPECT_EQ(e.m_Type, qsNFSUtils::eTypeDirectory);
                continue;
            }
            EXPECT_EQ(e.m_Type, qsNFSUtils::eTypeRegular);
            EXPECT_EQ(e.m_Size, std::stoul(e.m_Name.substr(e.m_Name.rfind('-') + 1)) % 7);
        }
        EXPECT_EQ(names, expected);

        // an entry from the listing serves further calls as it is
        ASSERT_TRUE(sub);
        NFSGetNextHandle* cursor = reinterpret_cast<NFSGetNextHandle*>(0x1);
        DirEntry first;
        EXPECT_EQ(qsStatus(browse->GetFirstDirEntry(*sub, first, cursor)), QS_W_NO_MORE_ENTRIES);
        EXPECT_EQ(cursor, reinterpret_cast<NFSGetNextHandle*>(0x1));
    }
}

// Creation, links, renames and deletion, seen in the export directory.
TEST(NFSBrowse, CreatesLinksRenamesAndDeletes) {
    ExportSubdir dir("browse-objects");
    BrowsePtr browse = Browse();
    ASSERT_TRUE(browse);
    EntryPtr top = Open(*browse, dir.Path());
    ASSERT_TRUE(top);

    DirEntry file = Named("file", qsNFSUtils::eTypeRegular);
    ASSERT_EQ(browse->CreateObject(*top, file), 0);
    EXPECT_EQ(file.m_FileId, Inode(dir / "file"));
    EXPECT_EQ(Lstat(dir / "file").st_mode, S_IFREG | 0777u);
    DirEntry again = file;
    EXPECT_EQ(qsStatus(browse->CreateObject(*top, again)), QS_E_NFS_EXIST);
    DirEntry sub = Named("sub", qsNFSUtils::eTypeDirectory);
    sub.m_Mode = 0750;
    ASSERT_EQ(browse->CreateObject(*top, sub), 0);
    EXPECT_EQ(Lstat(dir / "sub").st_mode, S_IFDIR | 0750u);
    DirEntry fifo = Named("fifo", qsNFSUtils::eTypeFifo);
    EXPECT_EQ(qsStatus(browse->CreateObject(*top, fifo)), QS_E_NFS_BADTYPE);

    DirEntry link = Named("link", qsNFSUtils::eTypeSymlink);
    link.m_LinkText = "sub/target";
    ASSERT_EQ(browse->CreateObject(*top, link), 0);
    EXPECT_EQ(std::filesystem::read_symlink(dir / "link"), "sub/target");
    ZBuffer text;
    ASSERT_EQ(browse->ReadSymlink(link, text), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(text.Data()), "sub/target");
    DirEntry link2 = Named("link2", qsNFSUtils::eTypeUnknown);
    text.Assign("../elsewhere");
    ASSERT_EQ(browse->CreateSymlink(*top, link2, text), 0);
    EXPECT_EQ(std::filesystem::read_symlink(dir / "link2"), "../elsewhere");
    EXPECT_EQ(link2.m_Type, qsNFSUtils::eTypeSymlink);

    ASSERT_EQ(browse->MakeLink(file, sub, "hard"), 0);
    EXPECT_EQ(Inode(dir / "sub/hard"), Inode(dir / "file"));

    // rename within the directory, then into another by a server path
    ASSERT_EQ(browse->RenameObject(*top, file, "renamed"), 0);
    EXPECT_EQ(file.m_Path, dir / "renamed");
    EXPECT_TRUE(std::filesystem::exists(dir / "renamed"));
    ASSERT_EQ(browse->RenameObject(*top, file, dir / "sub/moved"), 0);
    EXPECT_EQ(file.m_Path, dir / "sub/moved");
    EXPECT_TRUE(std::filesystem::exists(dir / "sub/moved"));
    EXPECT_FALSE(std::filesystem::exists(dir / "renamed"));

    // a directory with contents stays; emptied, it goes
    NewLogLines log;
    EXPECT_EQ(qsStatus(browse->DeleteObject(*top, sub)), QS_E_NFS_NOTEMPTY);
    EXPECT_EQ(log.Texts(), Lines{"nfsproc3_rmdir_3 (status 66, err 0x00000000) " + dir / "sub"});
    ASSERT_EQ(browse->DeleteObject(sub, file), 0);
    DirEntry hard;
    ASSERT_EQ(browse->Lookup(sub, "hard", hard), 0);
    ASSERT_EQ(browse->DeleteObject(sub, hard), 0);
    ASSERT_EQ(browse->DeleteObject(*top, sub), 0);
    ASSERT_EQ(browse->DeleteObject(*top, link), 0);
    EXPECT_FALSE(std::filesystem::exists(dir / "sub"));
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "link"));
    // a success leaves the last error as it was
    EXPECT_EQ(qsStatus(browse->GetLastObjectError()), QS_E_NFS_NOTEMPTY);
}

// Attributes both ways, and the access the server grants.
TEST(NFSBrowse, AttributesAndAccess) {
    ExportSubdir dir("browse-attributes");
    std::ofstream(dir / "file") << "0123456789";
    BrowsePtr browse = Browse();
    ASSERT_TRUE(browse);
    EntryPtr file = Open(*browse, dir / "file");
    ASSERT_TRUE(file);

    // size past 4 GiB (sparse), then back down; times to the second
    file->m_Size = (uint64_t(5) << 30) + 3;
    ASSERT_EQ(browse->SetAttributes(*file, qsNFSUtils::eAttrSize), 0);
    EXPECT_EQ(uint64_t(Lstat(dir / "file").st_size), file->m_Size);
    file->m_Size = 4;
    UNIXTimeToFILETIME(1000000000, file->m_LastAccessTime);
    UNIXTimeToFILETIME(1234567890, file->m_LastWriteTime);
    file->m_Mode = 0640;
    ASSERT_EQ(browse->SetAttributes(*file, qsNFSUtils::eAttrSize | qsNFSUtils::eAttrAccessTime |
                                               qsNFSUtils::eAttrWriteTime | qsNFSUtils::eAttrMode),
              0);
    struct stat st = Lstat(dir / "file");
    EXPECT_EQ(st.st_size, 4);
    EXPECT_EQ(st.st_atime, 1000000000);
    EXPECT_EQ(st.st_mtime, 1234567890);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    // only what the mask names is sent
    file->m_Size = 0;
    ASSERT_EQ(browse->SetAttributes(*file, qsNFSUtils::eAttrMode), 0);
    EXPECT_EQ(Lstat(dir / "file").st_size, 4);

    utimbuf times{2000000000, 2000000001};
    ASSERT_EQ(utime((dir / "file").c_str(), &times), 0);
    ASSERT_EQ(browse->GetAttributes(*file), 0);
    EXPECT_EQ(file->m_Size, 4u);
    EXPECT_EQ(FILETIMEToUNIXTime(file->m_LastWriteTime), 2000000001);
    EXPECT_EQ(FILETIMEToUNIXTime(file->m_LastAccessTime), 2000000000);

    uint32_t mask =
        qsNFSUtils::eAccessRead | qsNFSUtils::eAccessModify | qsNFSUtils::eAccessExecute;
    ASSERT_EQ(browse->Access(*file, mask), 0);
    EXPECT_EQ(mask, uint32_t(qsNFSUtils::eAccessRead | qsNFSUtils::eAccessModify));
}

// AUTH_UNIX identities reach the server: what a user creates is theirs,
// and what they may not touch is refused with the access code.
TEST(NFSBrowse, ActsAsTheCallersIdentity) {
    ExportSubdir dir("browse-identity");
    std::filesystem::create_directory(dir / "private");
    chmod((dir / "private").c_str(), 0700);
    BrowsePtr browse = Browse(qsNFSUtils::eUseTCP, 1234, {5678, 10});
    ASSERT_TRUE(browse);
    EntryPtr created = Open(*browse, dir / "mine", true);
    ASSERT_TRUE(created);
    struct stat st = Lstat(dir / "mine");
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 5678u);
    EXPECT_EQ(created->m_Uid, 1234u);

    EXPECT_EQ(Open(*browse, dir / "private/not-mine", true), nullptr);
    EXPECT_EQ(qsStatus(browse->GetLastObjectError()), QS_E_NFS_ACCES);
    EXPECT_FALSE(std::filesystem::exists(dir / "private/not-mine"));
}

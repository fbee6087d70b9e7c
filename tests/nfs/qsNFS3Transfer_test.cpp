// The data transfer against the real server, each effect checked on the
// export directory itself; the pipelined path also through a relay that
// loses, repeats and reorders datagrams.

#include "qsLogRecords.h"
#include "qsNFS3Transfer.h"
#include "qsNFSStatus.h"
#include "qsNFSTestServer.h"
#include "qsUDPFaultProxy.h"

#include <fcntl.h>
#include <fstream>

using namespace qsNFSTest;
using qsNFSUtils::DirEntry;
using qsNFSUtils::ExportInfo;
using qsNFSUtils::NFS3Transfer;

namespace {

// The byte every test expects at a file offset, so that any range can be
// checked without keeping the file.
char Pattern(uint64_t offset, int seed = 0) {
    return char(((offset + uint64_t(seed)) * 2654435761u) >> 13);
}

std::vector<char> Patterned(uint64_t offset, size_t size, int seed = 0) {
    std::vector<char> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = Pattern(offset + i, seed);
    return bytes;
}

std::vector<char> LocalBytes(const std::string& path, uint64_t offset, size_t size) {
    std::vector<char> bytes(size);
    int fd = open(path.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0) << path;
    ssize_t n = pread(fd, bytes.data(), size, off_t(offset));
    close(fd);
    bytes.resize(n < 0 ? 0 : size_t(n));
    return bytes;
}

void WriteLocal(const std::string& path, const std::vector<char>& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

// Small preferred sizes, so that small files span many calls.
constexpr uint32_t kChunk = 4096;
ExportInfo::Facts SmallChunks() {
    ExportInfo::Facts facts{};
    facts.m_Known = true;
    facts.m_ReadMax = facts.m_WriteMax = 1 << 20;
    facts.m_ReadPreferred = facts.m_WritePreferred = kChunk;
    facts.m_ReadMultiple = facts.m_WriteMultiple = 512;
    return facts;
}

// What a pipelined datagram carries with the test's credentials and the
// server's handles.
constexpr uint32_t kPiece = 7680;

struct Mode {
    const char* name; // also names the mode's files
    RPCClient::PROTOCOL protocol;
    bool pipelined;
    uint32_t chunk; // where calls are cut
};
const Mode kModes[] = {
    {"plain-TCP", RPCClient::PROTOCOL_TCP, false, kChunk},
    {"plain-UDP", RPCClient::PROTOCOL_UDP, false, kChunk},
    {"pipelined", RPCClient::PROTOCOL_TCP, true, kPiece},
};

// The transfer's switches back to their defaults after each test.
class NFS3TransferTest : public testing::Test {
protected:
    void TearDown() override {
        g_NFSUtils_UseScatterGather = false;
        g_NFSUtils_FragmentCorrectly = true;
    }

    // A client of the real server, or of `program` (a relay's).
    ClientPtr Nfs(RPCClient::PROTOCOL protocol, int program = kNfsProgram) {
        ClientPtr client = Client(Loopback(), program, kNfsVersion, protocol);
        if (client)
            client->SetAuth(m_Auth->Handle());
        return client;
    }

    // `name` in the test's directory, created locally with `contents` before
    // the server first looks for it.
    DirEntry File(ExportSubdir& dir, const std::string& name, const std::vector<char>& contents) {
        WriteLocal(dir / name, contents);
        ClientPtr tcp = Nfs(RPCClient::PROTOCOL_TCP);
        FileHandle root = ExportRoot();
        FileHandle subdir = Lookup(*tcp, root, dir.Name());
        FileHandle handle = Lookup(*tcp, subdir, name);
        DirEntry file;
        file.m_Path = dir / name;
        file.m_Name = name;
        file.m_HandleLength = uint32_t(handle.bytes.size());
        memcpy(file.m_Handle, handle.bytes.data(), handle.bytes.size());
        return file;
    }

    // A file for one mode, a client of the mode's transport and a transfer
    // on it, the mode's switch set.
    struct Subject {
        DirEntry file;
        ClientPtr nfs;
        std::unique_ptr<NFS3Transfer> transfer;
    };
    Subject For(const Mode& mode, ExportSubdir& dir, const std::string& name,
                const std::vector<char>& contents) {
        Subject s{File(dir, name + "-" + mode.name, contents), Nfs(mode.protocol), nullptr};
        if (s.nfs)
            s.transfer = std::make_unique<NFS3Transfer>(*s.nfs, *m_Auth, Loopback());
        g_NFSUtils_UseScatterGather = mode.pipelined;
        return s;
    }

    AuthPtr m_Auth = UnixAuth(0, {0});
};

// The server caches names: a directory removed and made again under the
// same name behind its back would still show the old one for a while, so
// every run of the tests works in directories of its own.
std::string Unique(const std::string& name) {
    return name + "-" + std::to_string(getpid());
}

size_t RecordCount() {
    return qsTest::ReadRecords(*g_pZLogStreamDefault).size();
}

} // namespace

// Reads and writes whose ends fall just before, on and after the places the
// transfer cuts them, in every mode: the bytes on the server match exactly,
// and a read never writes past the count asked for.  Then a range larger
// than any call.
TEST_F(NFS3TransferTest, UnalignedRangesAroundTheCutsMatchTheExportExactly) {
    ExportSubdir dir(Unique("transfer-ranges"));
    for (const Mode& mode : kModes) {
        SCOPED_TRACE(mode.name);
        const uint32_t c = mode.chunk;
        const uint64_t size = 5 * uint64_t(c) + 77;
        auto [file, nfs, transfer] = For(mode, dir, "ranges", Patterned(0, size));
        ASSERT_TRUE(transfer);
        const std::pair<uint64_t, uint32_t> ranges[] = {
            {0, 1},
            {0, c - 1},
            {0, c},
            {0, c + 1},
            {1, c},
            {c - 1, 2},
            {c + 1, 2 * c},
            {3, 3 * c + 5},
            {c - 3, c + 6},
            {2 * c + 7, c - 9},
            {0, uint32_t(size)},
        };
        for (auto [offset, count] : ranges) {
            SCOPED_TRACE(testing::Message() << "read " << count << " at " << offset);
            std::vector<char> got(count + 16, '#');
            uint32_t n = count;
            ASSERT_EQ(transfer->Read(file, SmallChunks(), got.data(), int64_t(offset), n), 0);
            ASSERT_EQ(n, count);
            EXPECT_EQ(std::string(got.data() + count, 16), std::string(16, '#'));
            got.resize(count);
            EXPECT_TRUE(got == Patterned(offset, count));
        }
        int seed = 1;
        for (auto [offset, count] : ranges) {
            SCOPED_TRACE(testing::Message() << "write " << count << " at " << offset);
            std::vector<char> data = Patterned(offset, count, seed++);
            std::vector<char> before = LocalBytes(file.m_Path, 0, size);
            uint32_t n = count;
            ASSERT_EQ(transfer->Write(file, SmallChunks(), data.data(), int64_t(offset), n), 0);
            EXPECT_EQ(n, count);
            std::copy(data.begin(), data.end(), before.begin() + ptrdiff_t(offset));
            EXPECT_TRUE(LocalBytes(file.m_Path, 0, size) == before);
        }

        // Without the export's facts, sizes every server takes; a range far
        // larger than any call still arrives whole.
        const uint32_t large = 3 * (1 << 20) + 4099;
        std::vector<char> data = Patterned(0, large, 99);
        uint32_t n = large;
        ASSERT_EQ(transfer->Write(file, ExportInfo::Facts{}, data.data(), 0, n), 0);
        EXPECT_TRUE(LocalBytes(file.m_Path, 0, large) == data);
        std::vector<char> back(large);
        n = large;
        ASSERT_EQ(transfer->Read(file, ExportInfo::Facts{}, back.data(), 0, n), 0);
        EXPECT_TRUE(back == data);
        // The pipelined mode runs on a TCP client: its UDP client is its own.
        EXPECT_TRUE(transfer->Verify());
    }
}

// 64-bit offsets: a few bytes written across the 4 GiB mark and past 5 GiB
// of a sparse file land there, and read back, hole included.
TEST_F(NFS3TransferTest, SparseFileBeyondFourGiB) {
    ExportSubdir dir(Unique("transfer-sparse"));
    const uint64_t k4G = uint64_t(1) << 32, k5G = 5 * (uint64_t(1) << 30);
    for (const Mode& mode : kModes) {
        SCOPED_TRACE(mode.name);
        auto [file, nfs, transfer] = For(mode, dir, "sparse", {});
        ASSERT_TRUE(transfer);
        for (uint64_t offset : {k4G - 5, k5G + 3}) {
            std::vector<char> data = Patterned(offset, 11);
            uint32_t n = 11;
            ASSERT_EQ(transfer->Write(file, SmallChunks(), data.data(), int64_t(offset), n), 0);
            EXPECT_TRUE(LocalBytes(file.m_Path, offset, 11) == data);
            std::vector<char> back(11);
            n = 11;
            ASSERT_EQ(transfer->Read(file, SmallChunks(), back.data(), int64_t(offset), n), 0);
            EXPECT_TRUE(back == data);
        }
        std::vector<char> hole(100, '#');
        uint32_t n = 100;
        ASSERT_EQ(transfer->Read(file, SmallChunks(), hole.data(), int64_t(k5G - 200), n), 0);
        EXPECT_EQ(n, 100u);
        EXPECT_EQ(hole, std::vector<char>(100, 0));
        EXPECT_EQ(std::filesystem::file_size(file.m_Path), k5G + 3 + 11);
    }
}

// Reads that run past the end return what is there; at or beyond the end,
// nothing, and no failure.  On a TCP client the replies to calls past the
// end are read off the connection, which then serves further calls.
TEST_F(NFS3TransferTest, ReadsThatRunPastTheEnd) {
    ExportSubdir dir(Unique("transfer-eof"));
    const uint32_t size = 2 * kChunk + kChunk / 2;
    for (const Mode& mode : kModes) {
        SCOPED_TRACE(mode.name);
        auto [file, nfs, transfer] = For(mode, dir, "eof", Patterned(0, size));
        ASSERT_TRUE(transfer);
        const std::pair<uint64_t, uint32_t> ranges[] = {
            {0, 12 * kChunk}, {kChunk + 1, 40 * kChunk}, {size - 1, 2}, {size, 10}, {size + 9, 1},
        };
        for (int again = 0; again < 2; ++again) {
            for (auto [offset, count] : ranges) {
                SCOPED_TRACE(testing::Message() << count << " at " << offset);
                std::vector<char> got(count, '#');
                uint32_t n = count;
                ASSERT_EQ(transfer->Read(file, SmallChunks(), got.data(), int64_t(offset), n), 0);
                uint32_t expected = offset < size ? uint32_t(size - offset) : 0;
                ASSERT_EQ(n, expected);
                got.resize(n);
                EXPECT_TRUE(got == Patterned(offset, n));
            }
        }
        std::vector<char> data = Patterned(0, 10, 9);
        uint32_t n = 10;
        EXPECT_EQ(transfer->Write(file, SmallChunks(), data.data(), 0, n), 0);
        EXPECT_TRUE(LocalBytes(file.m_Path, 0, 10) == data);
    }
}

// A handle whose file is gone: the server's status is translated, logged
// once with the procedure's line and the path, and nothing is counted.
TEST_F(NFS3TransferTest, StaleHandleIsTranslatedAndLoggedOnce) {
    ExportSubdir dir(Unique("transfer-stale"));
    for (const Mode& mode : kModes) {
        SCOPED_TRACE(mode.name);
        auto [file, nfs, transfer] = For(mode, dir, "gone", Patterned(0, 100));
        ASSERT_TRUE(transfer);
        std::filesystem::remove(file.m_Path);
        for (bool writing : {false, true}) {
            std::vector<char> buffer(3 * kPiece);
            uint32_t n = uint32_t(buffer.size());
            size_t before = RecordCount();
            int32_t result = writing ? transfer->Write(file, SmallChunks(), buffer.data(), 0, n)
                                     : transfer->Read(file, SmallChunks(), buffer.data(), 0, n);
            EXPECT_EQ(qsStatus(result), QS_E_NFS_STALE);
            EXPECT_EQ(n, 0u);
            auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
            ASSERT_EQ(records.size(), before + 1);
            std::string operation = mode.pipelined ? "NFSBrowseImpl3::ScatterGatherIO"
                                    : writing      ? "nfsproc3_write_3"
                                                   : "nfsproc3_read_3";
            EXPECT_EQ(records.back().Text(),
                      operation + " (status 70, err 0x00000000) " + file.m_Path);
            EXPECT_EQ(qsStatus(records.back().Code()), QS_E_NFS_STALE);
        }
    }
}

// Arguments no call could carry fail before any call, logged once.
TEST_F(NFS3TransferTest, InvalidArgumentsMakeNoCall) {
    ClientPtr nfs = Nfs(RPCClient::PROTOCOL_TCP);
    ASSERT_TRUE(nfs);
    NFS3Transfer transfer(*nfs, *m_Auth, Loopback());
    DirEntry file;
    file.m_Path = "/nowhere";
    char byte = 0;
    uint32_t n = 1;
    size_t before = RecordCount();
    EXPECT_EQ(qsStatus(transfer.Read(file, SmallChunks(), &byte, -1, n)), QS_E_INVALIDARG);
    EXPECT_EQ(n, 0u);
    n = 1;
    EXPECT_EQ(qsStatus(transfer.Write(file, SmallChunks(), nullptr, 0, n)), QS_E_INVALIDARG);
    EXPECT_EQ(n, 0u);
    n = 2;
    EXPECT_EQ(qsStatus(transfer.Read(file, SmallChunks(), &byte, INT64_MAX, n)), QS_E_INVALIDARG);
    EXPECT_EQ(RecordCount(), before + 3);
}

// The pipelined path through a relay that loses calls and replies, repeats
// and holds back replies: every byte arrives once and in its place, and the
// relay saw the transfer send lost pieces again.  Writes are checked on the
// export directory.
TEST_F(NFS3TransferTest, PipelinedSurvivesLossDuplicationAndReordering) {
    ExportSubdir dir(Unique("transfer-faults"));
    const uint32_t size = 40 * kPiece + 123;
    DirEntry file = File(dir, "faults", Patterned(0, size));
    UDPFaultProxy proxy({.dropRequestEvery = 7,
                         .dropReplyEvery = 11,
                         .duplicateReplyEvery = 3,
                         .holdReplyEvery = 4});
    ClientPtr nfs = Nfs(RPCClient::PROTOCOL_UDP, proxy.Program());
    ASSERT_TRUE(nfs);
    NFS3Transfer transfer(*nfs, *m_Auth, Loopback());
    g_NFSUtils_UseScatterGather = true;

    std::vector<char> got(size + 8, '#');
    uint32_t n = size;
    ASSERT_EQ(transfer.Read(file, SmallChunks(), got.data(), 0, n), 0);
    EXPECT_EQ(n, size);
    EXPECT_EQ(std::string(got.data() + size, 8), std::string(8, '#'));
    got.resize(size);
    EXPECT_TRUE(got == Patterned(0, size));

    std::vector<char> data = Patterned(5, size - 10, 7);
    n = uint32_t(data.size());
    ASSERT_EQ(transfer.Write(file, SmallChunks(), data.data(), 5, n), 0);
    EXPECT_EQ(n, data.size());
    EXPECT_TRUE(LocalBytes(file.m_Path, 5, data.size()) == data);

    size_t reads = 0, writes = 0;
    for (const auto& call : proxy.Calls()) {
        reads += call.procedure == 6;
        writes += call.procedure == 7;
    }
    EXPECT_GT(reads, 41u);
    EXPECT_GT(writes, 41u);
}

// READ replies cut short without the end-of-file flag: the rest is asked
// for again from where each stopped, on the plain and the pipelined path;
// on the pipelined one, repeated replies to a range that has since moved on
// must not land at its new place.  (The plain path's UDP client cannot take
// repeated replies: it sends its call again on each and soon gives up.)  A
// reply with no data and no end of file would make no progress: an error,
// logged once.
TEST_F(NFS3TransferTest, ShortReadsContinueAndEmptyOnesFail) {
    ExportSubdir dir(Unique("transfer-short"));
    const uint32_t size = 3 * kPiece + 5;
    DirEntry file = File(dir, "short", Patterned(0, size));
    for (bool pipelined : {false, true}) {
        SCOPED_TRACE(pipelined);
        g_NFSUtils_UseScatterGather = pipelined;
        {
            UDPFaultProxy proxy({.duplicateReplyEvery = pipelined ? 2 : 0, .cutReadsTo = 1000});
            ClientPtr nfs = Nfs(RPCClient::PROTOCOL_UDP, proxy.Program());
            ASSERT_TRUE(nfs);
            NFS3Transfer transfer(*nfs, *m_Auth, Loopback());
            std::vector<char> got(size + 100);
            uint32_t n = uint32_t(got.size());
            ASSERT_EQ(transfer.Read(file, SmallChunks(), got.data(), 0, n), 0);
            ASSERT_EQ(n, size);
            got.resize(n);
            EXPECT_TRUE(got == Patterned(0, size));
            EXPECT_GE(proxy.Calls().size(), size / 1000);
        }
        UDPFaultProxy proxy({.cutReadsTo = 0});
        ClientPtr nfs = Nfs(RPCClient::PROTOCOL_UDP, proxy.Program());
        ASSERT_TRUE(nfs);
        NFS3Transfer transfer(*nfs, *m_Auth, Loopback());
        std::vector<char> got(size);
        uint32_t n = size;
        size_t before = RecordCount();
        EXPECT_EQ(qsStatus(transfer.Read(file, SmallChunks(), got.data(), 0, n)),
                  QS_E_NFS_NO_FAILURE);
        EXPECT_EQ(n, 0u);
        auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
        ASSERT_EQ(records.size(), before + 1);
        std::string operation = pipelined ? "NFSBrowseImpl3::ScatterGatherIO" : "nfsproc3_read_3";
        EXPECT_EQ(records.back().Text(), operation + " (status 0, err 0x00000000) " + file.m_Path);
    }
}

// g_NFSUtils_FragmentCorrectly: by default datagrams fill the 8192-byte
// buffers; cleared, every datagram fits one Ethernet frame.  Either way the
// pieces tile the range without gap or overlap.
TEST_F(NFS3TransferTest, FragmentCorrectlyChoosesTheDatagramSize) {
    ExportSubdir dir(Unique("transfer-fragments"));
    const uint32_t size = 20000;
    DirEntry file = File(dir, "fragments", Patterned(0, size));
    g_NFSUtils_UseScatterGather = true;
    for (bool correctly : {true, false}) {
        SCOPED_TRACE(correctly);
        g_NFSUtils_FragmentCorrectly = correctly;
        UDPFaultProxy proxy({});
        ClientPtr nfs = Nfs(RPCClient::PROTOCOL_UDP, proxy.Program());
        ASSERT_TRUE(nfs);
        NFS3Transfer transfer(*nfs, *m_Auth, Loopback());
        std::vector<char> data = Patterned(3, size - 3, correctly);
        uint32_t n = uint32_t(data.size());
        ASSERT_EQ(transfer.Write(file, SmallChunks(), data.data(), 3, n), 0);
        std::vector<char> back(size - 3);
        n = uint32_t(back.size());
        ASSERT_EQ(transfer.Read(file, SmallChunks(), back.data(), 3, n), 0);
        EXPECT_TRUE(back == data);

        if (correctly) {
            EXPECT_GT(proxy.LargestDatagram(), 1472u);
            EXPECT_LE(proxy.LargestDatagram(), 8192u);
        } else {
            EXPECT_LE(proxy.LargestDatagram(), 1472u);
        }
        for (uint32_t procedure : {6u, 7u}) {
            std::map<uint64_t, uint32_t> pieces;
            for (const auto& call : proxy.Calls())
                if (call.procedure == procedure)
                    pieces[call.offset] = call.count;
            uint64_t next = 3;
            for (auto [offset, count] : pieces) {
                EXPECT_EQ(offset, next);
                next = offset + count;
            }
            EXPECT_EQ(next, size);
            EXPECT_EQ(pieces.size(), correctly ? 3u : 20u);
        }
    }
}

// A server that restarts between the WRITEs of one Write (a new write
// verifier) may have lost what it took UNSTABLE: the range is sent again,
// on the plain and the pipelined path alike.
TEST_F(NFS3TransferTest, ChangedWriteVerifierResendsTheRange) {
    ExportSubdir dir(Unique("transfer-verifier"));
    const uint32_t size = 10 * kChunk;
    DirEntry file = File(dir, "verifier", std::vector<char>(size));
    for (bool pipelined : {false, true}) {
        SCOPED_TRACE(pipelined);
        UDPFaultProxy proxy({.changeVerifierAfter = 2});
        ClientPtr nfs = Nfs(RPCClient::PROTOCOL_UDP, proxy.Program());
        ASSERT_TRUE(nfs);
        NFS3Transfer transfer(*nfs, *m_Auth, Loopback());
        g_NFSUtils_UseScatterGather = pipelined;
        std::vector<char> data = Patterned(0, size, pipelined ? 11 : 12);
        uint32_t n = size;
        ASSERT_EQ(transfer.Write(file, SmallChunks(), data.data(), 0, n), 0);
        EXPECT_EQ(n, size);
        EXPECT_TRUE(LocalBytes(file.m_Path, 0, size) == data);
        size_t writes = 0, from0 = 0;
        for (const auto& call : proxy.Calls()) {
            writes += call.procedure == 7;
            from0 += call.procedure == 7 && call.offset == 0;
        }
        EXPECT_GE(from0, 2u) << "the range was not sent again";
        EXPECT_LT(writes, 4 * size / kChunk) << "resent without bound";
    }
}

// A server that never answers: the pipelined path gives up after its
// bounded tries with a translated time-out, logged once, nothing counted.
TEST_F(NFS3TransferTest, PipelinedGivesUpOnASilentServer) {
    ExportSubdir dir(Unique("transfer-silent"));
    DirEntry file = File(dir, "silent", Patterned(0, 100));
    UDPFaultProxy proxy({.silent = true});
    ClientPtr nfs = Nfs(RPCClient::PROTOCOL_UDP, proxy.Program());
    ASSERT_TRUE(nfs);
    NFS3Transfer transfer(*nfs, *m_Auth, Loopback());
    g_NFSUtils_UseScatterGather = true;
    std::vector<char> buffer(3 * kPiece);
    uint32_t n = uint32_t(buffer.size());
    size_t before = RecordCount();
    EXPECT_EQ(qsStatus(transfer.Read(file, SmallChunks(), buffer.data(), 0, n)), QS_E_RPC_TIMEDOUT);
    EXPECT_EQ(n, 0u);
    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    ASSERT_EQ(records.size(), before + 1);
    EXPECT_EQ(records.back().Text(),
              "NFSBrowseImpl3::ScatterGatherIO (status 0, err 0x00000005) " + file.m_Path);
    size_t calls = proxy.Calls().size();
    EXPECT_GE(calls, 6u);
    EXPECT_LE(calls, 3u * 6u);
}

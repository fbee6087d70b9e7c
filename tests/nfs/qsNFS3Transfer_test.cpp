// The data transfer against the real server, each effect checked on the
// export directory itself; the pipelined path also through a relay that
// loses, repeats and reorders datagrams.

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

// The bytes every test expects at a file offset, so that any range can be
// checked without keeping the file.
std::vector<char> Patterned(uint64_t offset, size_t size, int seed = 0) {
    std::vector<char> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = char(((offset + i + uint64_t(seed)) * 2654435761u) >> 13);
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
    const char* name;
    RPCClient::PROTOCOL protocol;
    bool pipelined;
    uint32_t chunk; // where calls are cut
};
const Mode kModes[] = {
    {"plain-TCP", RPCClient::PROTOCOL_TCP, false, kChunk},
    {"plain-UDP", RPCClient::PROTOCOL_UDP, false, kChunk},
    {"pipelined", RPCClient::PROTOCOL_TCP, true, kPiece},
};

// A Read's status and the bytes it counted, checked not to have touched the
// buffer past the count asked for.
struct Got {
    int32_t status;
    std::vector<char> bytes;
};
Got Read(NFS3Transfer& transfer, const DirEntry& file, uint64_t offset, uint32_t count,
         const ExportInfo::Facts& facts = SmallChunks()) {
    std::vector<char> buffer(count + 16, '#');
    uint32_t n = count;
    int32_t status = transfer.Read(file, facts, buffer.data(), int64_t(offset), n);
    EXPECT_EQ(std::string(buffer.data() + count, 16), std::string(16, '#')) << "past the count";
    EXPECT_LE(n, count);
    buffer.resize(std::min(n, count));
    return {status, buffer};
}

// A Write's status; on success every byte is counted.
int32_t Write(NFS3Transfer& transfer, const DirEntry& file, uint64_t offset,
              const std::vector<char>& data, const ExportInfo::Facts& facts = SmallChunks()) {
    uint32_t n = uint32_t(data.size());
    int32_t status = transfer.Write(file, facts, data.data(), int64_t(offset), n);
    EXPECT_TRUE(status || n == data.size()) << n << " of " << data.size() << " counted";
    return status;
}

// The server caches names: a directory removed and made again under the
// same name behind its back would still show the old one for a while, so
// every run of the tests works in directories of its own.
std::string Unique(const std::string& name) {
    return name + "-" + std::to_string(getpid());
}

// The transfer's switches back to their defaults after each test.
class NFS3TransferTest : public testing::Test {
protected:
    void TearDown() override {
        g_NFSUtils_UseScatterGather = false;
        g_NFSUtils_FragmentCorrectly = true;
    }

    // `name` in the test's directory, created locally with `contents` before
    // the server first looks for it.
    DirEntry File(ExportSubdir& dir, const std::string& name, const std::vector<char>& contents) {
        std::ofstream(dir / name, std::ios::binary)
            .write(contents.data(), std::streamsize(contents.size()));
        BrowsePtr browse = Browse();
        EntryPtr file = browse ? Open(*browse, dir / name) : nullptr;
        EXPECT_TRUE(file) << name;
        return file ? *file : DirEntry{};
    }

    // A transfer over a client of the real server, or of `program` (a
    // relay's); null when the client cannot be made.
    struct Subject {
        ClientPtr nfs;
        std::unique_ptr<NFS3Transfer> transfer;
    };
    Subject Over(RPCClient::PROTOCOL protocol, int program = kNfsProgram) {
        Subject s{Client(Loopback(), program, kNfsVersion, protocol), nullptr};
        if (s.nfs) {
            s.nfs->SetAuth(m_Auth->Handle());
            s.transfer = std::make_unique<NFS3Transfer>(*s.nfs, *m_Auth, Loopback());
        }
        return s;
    }

    AuthPtr m_Auth = UnixAuth(0, {0});
};

} // namespace

// Reads and writes whose ends fall just before, on and after the places the
// transfer cuts them, in every mode: the bytes on the server match exactly.
// Reads that run past the end return what is there, and nothing at or
// beyond it; on a TCP client the replies to calls past the end are read off
// the connection, which then serves the calls that follow.  Then a range
// larger than any call, and 64-bit offsets: a few bytes across the 4 GiB
// mark and past 5 GiB, the file sparse between.
TEST_F(NFS3TransferTest, UnalignedRangesAroundTheCutsAndBeyondFourGiB) {
    ExportSubdir dir(Unique("transfer-ranges"));
    for (const Mode& mode : kModes) {
        SCOPED_TRACE(mode.name);
        const uint32_t c = mode.chunk, size = 5 * c + 77;
        DirEntry file = File(dir, std::string("ranges-") + mode.name, Patterned(0, size));
        auto [nfs, transfer] = Over(mode.protocol);
        ASSERT_TRUE(transfer);
        g_NFSUtils_UseScatterGather = mode.pipelined;
        const std::pair<uint64_t, uint32_t> ranges[] = {
            {c + 1, 40 * c}, {size - 1, 2},      {size, 10},     {size + 9, 1},
            {0, 1},          {0, c - 1},         {0, c},         {0, c + 1},
            {1, c},          {c - 1, 2},         {c + 1, 2 * c}, {3, 3 * c + 5},
            {c - 3, c + 6},  {2 * c + 7, c - 9}, {0, size},
        };
        for (auto [offset, count] : ranges) {
            SCOPED_TRACE(testing::Message() << "read " << count << " at " << offset);
            uint32_t expected = offset < size ? std::min(count, uint32_t(size - offset)) : 0;
            Got got = Read(*transfer, file, offset, count);
            ASSERT_EQ(got.status, 0);
            EXPECT_TRUE(got.bytes == Patterned(offset, expected));
        }
        std::vector<char> contents = Patterned(0, size);
        int seed = 1;
        for (auto [offset, count] : ranges) {
            if (offset + count > size)
                continue;
            SCOPED_TRACE(testing::Message() << "write " << count << " at " << offset);
            std::vector<char> data = Patterned(offset, count, seed++);
            ASSERT_EQ(Write(*transfer, file, offset, data), 0);
            std::copy(data.begin(), data.end(), contents.begin() + ptrdiff_t(offset));
            EXPECT_TRUE(LocalBytes(file.m_Path, 0, size) == contents);
        }

        // Without the export's facts, sizes every server takes.
        std::vector<char> large = Patterned(0, 3 * (1 << 20) + 4099, 99);
        ASSERT_EQ(Write(*transfer, file, 0, large, ExportInfo::Facts{}), 0);
        EXPECT_TRUE(LocalBytes(file.m_Path, 0, large.size()) == large);
        EXPECT_TRUE(Read(*transfer, file, 0, uint32_t(large.size()), {}).bytes == large);

        const uint64_t k4G = uint64_t(1) << 32, k5G = 5 * (uint64_t(1) << 30);
        for (uint64_t offset : {k4G - 5, k5G + 3}) {
            std::vector<char> data = Patterned(offset, 11);
            ASSERT_EQ(Write(*transfer, file, offset, data), 0);
            EXPECT_TRUE(LocalBytes(file.m_Path, offset, 11) == data);
            EXPECT_TRUE(Read(*transfer, file, offset, 11).bytes == data);
        }
        EXPECT_EQ(Read(*transfer, file, k5G - 200, 100).bytes, std::vector<char>(100, 0));
        EXPECT_EQ(std::filesystem::file_size(file.m_Path), k5G + 3 + 11);
        // The pipelined mode runs on a TCP client: its UDP client is its own.
        EXPECT_TRUE(transfer->Verify());
    }
}

// Failures are translated and logged once, with the procedure's line and
// the path, and count nothing: a handle whose file is gone, in every mode;
// arguments no call could carry, before any call.
TEST_F(NFS3TransferTest, FailuresAreLoggedOnceAndCountNothing) {
    ExportSubdir dir(Unique("transfer-stale"));
    for (const Mode& mode : kModes) {
        SCOPED_TRACE(mode.name);
        DirEntry file = File(dir, std::string("gone-") + mode.name, Patterned(0, 100));
        auto [nfs, transfer] = Over(mode.protocol);
        ASSERT_TRUE(transfer);
        g_NFSUtils_UseScatterGather = mode.pipelined;
        std::filesystem::remove(file.m_Path);
        for (bool writing : {false, true}) {
            NewLogLines log;
            std::vector<char> data(3 * kPiece);
            uint32_t n = uint32_t(data.size());
            int32_t result = writing ? transfer->Write(file, SmallChunks(), data.data(), 0, n)
                                     : transfer->Read(file, SmallChunks(), data.data(), 0, n);
            EXPECT_EQ(qsStatus(result), QS_E_NFS_STALE);
            EXPECT_EQ(n, 0u);
            std::string operation = mode.pipelined ? "NFSBrowseImpl3::ScatterGatherIO"
                                    : writing      ? "nfsproc3_write_3"
                                                   : "nfsproc3_read_3";
            EXPECT_EQ(log.Texts(),
                      Lines{operation + " (status 70, err 0x00000000) " + file.m_Path});
        }
    }

    auto [nfs, transfer] = Over(RPCClient::PROTOCOL_TCP);
    ASSERT_TRUE(transfer);
    DirEntry nowhere;
    NewLogLines log;
    EXPECT_EQ(qsStatus(Read(*transfer, nowhere, uint64_t(-1), 1).status), QS_E_INVALIDARG);
    EXPECT_EQ(qsStatus(Read(*transfer, nowhere, INT64_MAX, 2).status), QS_E_INVALIDARG);
    uint32_t n = 1;
    EXPECT_EQ(qsStatus(transfer->Write(nowhere, SmallChunks(), nullptr, 0, n)), QS_E_INVALIDARG);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(log.Texts().size(), 3u);
}

// The pipelined path through a relay that loses calls and replies, repeats
// and holds back replies: every byte arrives once and in its place, and the
// relay saw the transfer send lost pieces again.
TEST_F(NFS3TransferTest, PipelinedSurvivesLossDuplicationAndReordering) {
    ExportSubdir dir(Unique("transfer-faults"));
    const uint32_t size = 40 * kPiece + 123;
    DirEntry file = File(dir, "faults", Patterned(0, size));
    UDPFaultProxy proxy({.dropRequestEvery = 7,
                         .dropReplyEvery = 11,
                         .duplicateReplyEvery = 3,
                         .holdReplyEvery = 4});
    auto [nfs, transfer] = Over(RPCClient::PROTOCOL_UDP, proxy.Program());
    ASSERT_TRUE(transfer);
    g_NFSUtils_UseScatterGather = true;

    EXPECT_TRUE(Read(*transfer, file, 0, size).bytes == Patterned(0, size));
    std::vector<char> data = Patterned(5, size - 10, 7);
    ASSERT_EQ(Write(*transfer, file, 5, data), 0);
    EXPECT_TRUE(LocalBytes(file.m_Path, 5, data.size()) == data);
    EXPECT_GT(proxy.Calls(6), 41u);
    EXPECT_GT(proxy.Calls(7), 41u);
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
            UDPFaultProxy cut({.duplicateReplyEvery = pipelined ? 2 : 0, .cutReadsTo = 1000});
            auto [nfs, transfer] = Over(RPCClient::PROTOCOL_UDP, cut.Program());
            ASSERT_TRUE(transfer);
            EXPECT_TRUE(Read(*transfer, file, 0, size + 100).bytes == Patterned(0, size));
            EXPECT_GE(cut.Calls(6), size / 1000);
        }
        UDPFaultProxy empty({.cutReadsTo = 0});
        auto [nfs, transfer] = Over(RPCClient::PROTOCOL_UDP, empty.Program());
        ASSERT_TRUE(transfer);
        NewLogLines log;
        Got got = Read(*transfer, file, 0, size);
        EXPECT_EQ(qsStatus(got.status), QS_E_NFS_NO_FAILURE);
        EXPECT_TRUE(got.bytes.empty());
        std::string operation = pipelined ? "NFSBrowseImpl3::ScatterGatherIO" : "nfsproc3_read_3";
        EXPECT_EQ(log.Texts(), Lines{operation + " (status 0, err 0x00000000) " + file.m_Path});
    }
}

// g_NFSUtils_FragmentCorrectly: by default datagrams fill the 8192-byte
// buffers; cleared, every datagram fits one Ethernet frame.
TEST_F(NFS3TransferTest, FragmentCorrectlyChoosesTheDatagramSize) {
    ExportSubdir dir(Unique("transfer-fragments"));
    const uint32_t size = 20000;
    DirEntry file = File(dir, "fragments", Patterned(0, size));
    g_NFSUtils_UseScatterGather = true;
    for (bool correctly : {true, false}) {
        SCOPED_TRACE(correctly);
        g_NFSUtils_FragmentCorrectly = correctly;
        UDPFaultProxy proxy({});
        auto [nfs, transfer] = Over(RPCClient::PROTOCOL_UDP, proxy.Program());
        ASSERT_TRUE(transfer);
        std::vector<char> data = Patterned(3, size - 3, correctly);
        ASSERT_EQ(Write(*transfer, file, 3, data), 0);
        EXPECT_TRUE(Read(*transfer, file, 3, size - 3).bytes == data);
        EXPECT_EQ(proxy.LargestDatagram() > 1472u, correctly);
        EXPECT_LE(proxy.LargestDatagram(), 8192u);
    }
}

// A server that restarts between the WRITEs of one Write (a new write
// verifier) may have lost what it took UNSTABLE: the range is sent again,
// on the plain and the pipelined path alike, a bounded number of times.
TEST_F(NFS3TransferTest, ChangedWriteVerifierResendsTheRange) {
    ExportSubdir dir(Unique("transfer-verifier"));
    const uint32_t size = 10 * kChunk;
    DirEntry file = File(dir, "verifier", std::vector<char>(size));
    for (bool pipelined : {false, true}) {
        SCOPED_TRACE(pipelined);
        UDPFaultProxy proxy({.changeVerifierAfter = 2});
        auto [nfs, transfer] = Over(RPCClient::PROTOCOL_UDP, proxy.Program());
        ASSERT_TRUE(transfer);
        g_NFSUtils_UseScatterGather = pipelined;
        std::vector<char> data = Patterned(0, size, pipelined ? 11 : 12);
        ASSERT_EQ(Write(*transfer, file, 0, data), 0);
        EXPECT_TRUE(LocalBytes(file.m_Path, 0, size) == data);
        EXPECT_GE(proxy.Calls(7, 0), 2u) << "the range was not sent again";
        EXPECT_LT(proxy.Calls(7), 4 * size / kChunk) << "resent without bound";
    }
}

// A server that never answers: the pipelined path gives up after its
// bounded tries with a translated time-out, logged once, nothing counted.
TEST_F(NFS3TransferTest, PipelinedGivesUpOnASilentServer) {
    ExportSubdir dir(Unique("transfer-silent"));
    DirEntry file = File(dir, "silent", Patterned(0, 100));
    UDPFaultProxy proxy({.silent = true});
    auto [nfs, transfer] = Over(RPCClient::PROTOCOL_UDP, proxy.Program());
    ASSERT_TRUE(transfer);
    g_NFSUtils_UseScatterGather = true;
    NewLogLines log;
    Got got = Read(*transfer, file, 0, 3 * kPiece);
    EXPECT_EQ(qsStatus(got.status), QS_E_RPC_TIMEDOUT);
    EXPECT_TRUE(got.bytes.empty());
    EXPECT_EQ(log.Texts(),
              Lines{"NFSBrowseImpl3::ScatterGatherIO (status 0, err 0x00000005) " + file.m_Path});
    EXPECT_GE(proxy.Calls(6), 6u);
    EXPECT_LE(proxy.Calls(6), 3u * 6u);
}

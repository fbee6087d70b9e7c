// qslog on every kind of file a user may hand it: the other byte order,
// truncated and corrupted logs, files that are no log at all.
#include "qslogTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace qsTest;

namespace {

// A log of sizeKB with `messages` messages after its start record.
std::string MakeLog(const TempDir& dir, const std::string& name, DWORD sizeKB, int messages) {
    auto log = OpenLog(dir.Path(), name, sizeKB);
    for (int i = 0; i < messages; ++i)
        log->PrintString(("message " + std::to_string(i)).c_str(), i % 3 ? 0 : 2, i % 4, 0);
    return dir / name;
}

std::string Write(const TempDir& dir, const std::string& name, const std::vector<uint8_t>& b) {
    WriteFileBytes(dir / name, b.data(), b.size());
    return dir / name;
}

void Poke(std::vector<uint8_t>& b, size_t at, uint32_t value) {
    memcpy(b.data() + at, &value, 4);
}

} // namespace

// A resized log and a wrapped one, both ending with wide text, their bytes
// reversed as a machine of the other byte order writes them: the same lines,
// the same JSON fields, and --stat names the order.
TEST(QslogDamage, OppositeByteOrderReadsLikeTheOriginal) {
    TempDir dir("swap");
    OpenLog(dir.Path(), "resized.log", 8);
    OpenLog(dir.Path(), "resized.log", 4)->PrintString(L"wide \u00e9\u20ac", -7, 3, 0);
    auto log = OpenLog(dir.Path(), "wrapped.log", 2);
    for (int i = 0; i < 60; ++i)
        log->PrintString(("after wrap " + std::to_string(i)).c_str(), i, i % 5, 0);
    log->PrintString(L"wide \u00e9\u20ac", -7, 3, 0);
    ASSERT_GT(log->WrapCount(), 0);

    for (std::string name : {"resized.log", "wrapped.log"}) {
        std::string native = dir / name;
        std::string swapped = Write(dir, "swapped-" + name, ByteSwapped(ReadFileBytes(native)));
        RunResult a = RunQslog({native}), b = RunQslog({swapped});
        ASSERT_EQ(b.status, 0) << b.err;
        EXPECT_EQ(a.out, b.out);
        EXPECT_TRUE(Has(a.out, "error 0xFFFFFFF9: wide \u00e9\u20ac")) << a.out;
        a = RunQslog({"-o", "json", native});
        b = RunQslog({"-o", "json", swapped});
        ASSERT_EQ(a.lines.size(), b.lines.size());
        for (size_t i = 0; i < a.lines.size(); ++i) {
            auto x = nlohmann::json::parse(a.lines[i]), y = nlohmann::json::parse(b.lines[i]);
            EXPECT_EQ(y["byte_order"], "opposite");
            for (const char* key : {"id", "filetime", "pid", "tid", "type", "flags", "offset",
                                    "size", "prev_offset", "severity", "code", "text", "old_kib"})
                EXPECT_EQ(x.value(key, nlohmann::json()), y.value(key, nlohmann::json())) << key;
        }
        EXPECT_TRUE(Has(RunQslog({"--stat", swapped}).out, "byte order:    opposite (big-endian)"));
    }
    EXPECT_TRUE(Has(RunQslog({dir / "swapped-resized.log"}).out, "-- resized 8 KiB to 4 KiB"));
}

// Damage is reported on standard error with status 1, and every intact
// record is still printed: a cut file up to the cut; a broken record as a
// gap (also in JSON and --stat); a damaged header rebuilt from the records.
TEST(QslogDamage, DamagedFilesPrintWhatIsIntact) {
    TempDir dir("damage");
    const std::vector<uint8_t> good = ReadFileBytes(MakeLog(dir, "good.log", 8, 120));
    const std::string all = RunQslog({dir / "good.log"}).out;
    std::vector<DWORD> offsets = RecordOffsets(good); // newest first
    ASSERT_EQ(offsets.size(), 121u);

    auto bytes = good;
    bytes.resize(4096 + 123);
    RunResult r = RunQslog({Write(dir, "cut.log", bytes)});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Has(r.err, "truncated: the header says 8192 bytes, the file has 4219")) << r.err;
    ASSERT_GT(r.out.size(), all.size() / 3);
    EXPECT_EQ(r.out, all.substr(0, r.out.size()));

    bytes = good;
    Poke(bytes, offsets[offsets.size() - 20], 0x12345678); // record #20
    std::string bad = Write(dir, "bad.log", bytes);
    r = RunQslog({bad});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Has(r.err, "records #20 to #20 cannot be read")) << r.err;
    std::vector<DWORD> ids = PrintedIds(r.out);
    EXPECT_EQ(ids.size(), 120u);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 20u), 0);
    EXPECT_TRUE(Has(r.out, "#19 normal: message 17\n-- 1 record unreadable (#20 to #20) --\n"));
    r = RunQslog({"-o", "json", bad});
    EXPECT_TRUE(Has(r.out, R"("lost":1,"first_id":20,"last_id":20,"reason":"unreadable"})"))
        << r.out;
    // --stat, too, names each problem once, on standard error only.
    r = RunQslog({"--stat", bad});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(Has(r.out, "record chain:  broken, 1 records unreadable")) << r.out;
    EXPECT_FALSE(Has(r.out, "cannot be read")) << r.out;
    EXPECT_EQ(Lines(r.err), Lines(RunQslog({bad}).err));
    EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;

    // Signature and version, newest-record offset, size field.
    const std::pair<std::vector<std::pair<size_t, uint32_t>>, const char*> headers[] = {
        {{{0, 0}, {4, 0xFFFFFFFF}}, "header damaged"},
        {{{12, 0xFFFFFFF0}}, "outside the file"},
        {{{8, 0x7FFFFC00}}, "truncated"},
    };
    for (const auto& [pokes, message] : headers) {
        bytes = good;
        for (auto [at, value] : pokes)
            Poke(bytes, at, value);
        r = RunQslog({Write(dir, "hdr.log", bytes)});
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(Has(r.err, message)) << r.err;
        EXPECT_EQ(r.out, all);
    }
}

// Files that are no log fail with status 1 and print nothing; a directory or
// a missing file is a usage error (2).  Other files still print, and the
// worst status wins.
TEST(QslogDamage, FilesThatAreNoLog) {
    TempDir dir("other");
    const std::pair<std::vector<uint8_t>, const char*> cases[] = {
        {{}, "empty file"},
        {std::vector<uint8_t>(2048, 'x'), "not a log file (it starts with 78787878)"},
        {{0x9C, 0x46, 0xA1, 0xC0, 2, 0, 1, 0, 0}, "truncated: 9 bytes, less than a header"},
    };
    for (const auto& [bytes, message] : cases) {
        RunResult r = RunQslog({Write(dir, "no.log", bytes)});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(Has(r.err, message)) << r.err;
    }
    const std::string good = MakeLog(dir, "good.log", 4, 3), missing = dir / "missing.log";
    const std::tuple<std::vector<std::string>, int, size_t> runs[] = {
        {{dir.Path()}, 2, 0},
        {{missing}, 2, 0},
        {{good, dir / "no.log"}, 1, 4},
        {{good, dir / "no.log", missing}, 2, 4},
        {{"--bogus", good}, 2, 0},
        {{"-f", "-r", good}, 2, 0},
        {{"--since", "next tuesday", good}, 2, 0},
    };
    for (const auto& [args, status, printed] : runs) {
        RunResult r = RunQslog(args);
        EXPECT_EQ(r.status, status) << args[0] << ": " << r.err;
        EXPECT_EQ(PrintedIds(r.out).size(), printed) << args[0];
        EXPECT_TRUE(Has(r.err, "qslog: ")) << r.err;
    }
}

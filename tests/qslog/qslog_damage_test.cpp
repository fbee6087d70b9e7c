// qslog on every kind of file a user may hand it: the other byte order,
// truncated and corrupted logs, files that are no log at all.
#include "qsLogRecords.h"
#include "qslogTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>

using namespace qsTest;

namespace {

// A 4 KiB log of 60 messages that has not wrapped, and its bytes.
std::string MakeLog(const TempDir& dir, const std::string& name, DWORD sizeKB = 4,
                    int messages = 40) {
    auto log = OpenLog(dir.Path(), name, sizeKB);
    for (int i = 0; i < messages; ++i)
        log->PrintString(("message " + std::to_string(i)).c_str(), i % 3 ? 0 : 2, i % 4, 0);
    return dir / name;
}

void Poke(std::vector<uint8_t>& b, size_t at, uint32_t value) {
    memcpy(b.data() + at, &value, 4);
}

std::string Write(const TempDir& dir, const std::string& name, const std::vector<uint8_t>& b) {
    WriteFileBytes(dir / name, b.data(), b.size());
    return dir / name;
}

bool Consecutive(const std::vector<DWORD>& ids) {
    for (size_t i = 1; i < ids.size(); ++i)
        if (ids[i] != ids[i - 1] + 1)
            return false;
    return true;
}

} // namespace

TEST(QslogDamage, OppositeByteOrderReadsLikeTheOriginal) {
    TempDir dir("swap");
    {
        auto log = OpenLog(dir.Path(), "n.log", 8);
        log->PrintString("narrow", 0x1234, 2, 0);
        log->PrintString(L"wide \u00e9\u20ac", -7, 3, 0);
    }
    auto log = OpenLog(dir.Path(), "n.log", 2); // resized: a RESZ record
    for (int i = 0; i < 60; ++i)
        log->PrintString(("after wrap " + std::to_string(i)).c_str(), i, i % 5, 0);
    std::string native = dir / "n.log";
    std::string swapped = Write(dir, "s.log", ByteSwapped(ReadFileBytes(native)));
    ASSERT_NE(ReadFileBytes(native), ReadFileBytes(swapped));

    RunResult a = RunQslog({native}), b = RunQslog({swapped});
    ASSERT_EQ(a.status, 0) << a.err;
    ASSERT_EQ(b.status, 0) << b.err;
    EXPECT_EQ(a.out, b.out);
    EXPECT_GT(a.Lines().size(), 10u);

    a = RunQslog({"-o", "json", native});
    b = RunQslog({"-o", "json", swapped});
    auto al = a.Lines(), bl = b.Lines();
    ASSERT_EQ(al.size(), bl.size());
    for (size_t i = 0; i < al.size(); ++i) {
        auto x = nlohmann::json::parse(al[i]), y = nlohmann::json::parse(bl[i]);
        EXPECT_EQ(y["byte_order"], "opposite");
        for (const char* key : {"id", "filetime", "pid", "tid", "type", "flags", "offset", "size",
                                "prev_offset", "severity", "code", "text", "old_kib"})
            EXPECT_EQ(x.value(key, nlohmann::json()), y.value(key, nlohmann::json())) << key;
    }

    RunResult s = RunQslog({"--stat", swapped});
    EXPECT_EQ(s.status, 0) << s.err;
    EXPECT_NE(s.out.find("byte order:    opposite (big-endian)"), std::string::npos) << s.out;
    EXPECT_NE(s.out.find("header:        valid"), std::string::npos) << s.out;
}

TEST(QslogDamage, TruncatedFilePrintsWhatIsIntactAndFails) {
    TempDir dir("trunc");
    std::string path = MakeLog(dir, "t.log", 8, 120);
    auto bytes = ReadFileBytes(path);
    auto all = ReadRecords(path);
    ASSERT_EQ(all.size(), 121u);
    bytes.resize(4096 + 123);
    std::string cut = Write(dir, "cut.log", bytes);

    RunResult r = RunQslog({cut});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("truncated: the header says 8192 bytes, the file has 4219"),
              std::string::npos)
        << r.err;
    std::vector<DWORD> ids = PrintedIds(r.out);
    ASSERT_GT(ids.size(), 40u) << r.out;
    EXPECT_EQ(ids.front(), 1u);
    EXPECT_TRUE(Consecutive(ids));
    EXPECT_LT(ids.back(), 121u);

    r = RunQslog({"--stat", cut});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("header:        not valid"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("problem:       truncated"), std::string::npos) << r.out;
}

TEST(QslogDamage, ABrokenRecordLeavesAGapAndTheRestIsPrinted) {
    TempDir dir("gap");
    std::string path = MakeLog(dir, "g.log");
    auto bytes = ReadFileBytes(path);
    std::vector<DWORD> offsets = RecordOffsets(bytes); // newest first
    ASSERT_EQ(offsets.size(), 41u);
    DWORD victim = offsets[offsets.size() - 20]; // record #20
    Poke(bytes, victim, 0x12345678);
    std::string bad = Write(dir, "bad.log", bytes);

    RunResult r = RunQslog({bad});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("records #20 to #20 cannot be read"), std::string::npos) << r.err;
    std::vector<DWORD> ids = PrintedIds(r.out);
    EXPECT_EQ(ids.size(), 40u);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 20u), 0);
    EXPECT_NE(r.out.find("#19 normal: message 17\n"
                         "-- 1 record unreadable (#20 to #20) --\n"),
              std::string::npos)
        << r.out;

    r = RunQslog({"-o", "json", bad});
    EXPECT_EQ(r.status, 1);
    bool gap = false;
    for (const std::string& line : r.Lines()) {
        auto j = nlohmann::json::parse(line);
        gap |= j.contains("lost") && j["lost"] == 1 && j["first_id"] == 20;
    }
    EXPECT_TRUE(gap) << r.out;

    RunResult s = RunQslog({"--stat", bad});
    EXPECT_EQ(s.status, 1);
    EXPECT_NE(s.out.find("record chain:  broken, 1 records unreadable"), std::string::npos)
        << s.out;
}

TEST(QslogDamage, ADamagedHeaderIsRebuiltFromTheRecords) {
    TempDir dir("hdr");
    std::string path = MakeLog(dir, "h.log");
    auto good = ReadFileBytes(path);
    std::string expected = RunQslog({path}).out;

    auto bytes = good;
    Poke(bytes, 0, 0);
    Poke(bytes, 4, 0xFFFFFFFF);
    RunResult r = RunQslog({Write(dir, "sig.log", bytes)});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("header damaged"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, expected);

    bytes = good;
    Poke(bytes, 12, 0xFFFFFFF0); // newest record offset
    r = RunQslog({Write(dir, "last.log", bytes)});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("outside the file"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, expected);

    bytes = good;
    Poke(bytes, 8, 0x7FFFFC00); // size field: 2 GiB
    r = RunQslog({Write(dir, "size.log", bytes)});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("truncated"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, expected);
}

TEST(QslogDamage, FilesThatAreNoLogAreRefusedClearly) {
    TempDir dir("other");
    struct Case {
        std::string name;
        std::vector<uint8_t> bytes;
        const char* message;
    };
    std::vector<uint8_t> text(2048, 'x');
    std::vector<uint8_t> stub = {0x9C, 0x46, 0xA1, 0xC0, 2, 0, 1, 0, 0};
    for (const Case& c : {Case{"empty", {}, "empty file"},
                          Case{"text", text, "not a log file (it starts with 78787878)"},
                          Case{"stub", stub, "truncated: 9 bytes, less than a header"}}) {
        RunResult r = RunQslog({Write(dir, c.name, c.bytes)});
        EXPECT_EQ(r.status, 1) << c.name;
        EXPECT_EQ(r.out, "") << c.name;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.name << ": " << r.err;
    }
    RunResult r = RunQslog({dir.Path()});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("is a directory"), std::string::npos);
    r = RunQslog({dir / "nothing.log"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no such file"), std::string::npos);

    // Other files still print, and the worst status wins.
    std::string good = MakeLog(dir, "good.log", 4, 3);
    r = RunQslog({good, dir / "text"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(PrintedIds(r.out).size(), 4u);
    r = RunQslog({good, dir / "text", dir / "nothing.log"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(PrintedIds(r.out).size(), 4u);
}

TEST(QslogDamage, RandomDamageNeverCrashesOrHangs) {
    TempDir dir("fuzz");
    std::string path = MakeLog(dir, "z.log", 2, 80); // wrapped
    const auto good = ReadFileBytes(path);
    std::mt19937 rng(20261121);
    const char* forms[] = {"-o", "raw"};
    for (int round = 0; round < 60; ++round) {
        auto bytes = good;
        int hits = 1 + int(rng() % 6);
        for (int h = 0; h < hits; ++h) {
            size_t at = (rng() % (bytes.size() / 4)) * 4;
            if (rng() % 3 == 0 && at < 28)
                at += 28; // header fields more often than their share
            uint32_t values[] = {uint32_t(rng()), 0, 0xFFFFFFFF, uint32_t(at), 28, 2048, 40};
            Poke(bytes, rng() % 4 == 0 ? (rng() % 7) * 4 : at, values[rng() % 7]);
        }
        if (rng() % 5 == 0)
            bytes.resize(rng() % bytes.size());
        std::string file = Write(dir, "fuzz.log", bytes);
        for (std::vector<std::string> args :
             {std::vector<std::string>{file}, {forms[0], forms[1], file}, {"--stat", file}}) {
            RunResult r = RunQslog(args);
            ASSERT_TRUE(r.status == 0 || r.status == 1)
                << "round " << round << " " << args[0] << " status " << r.status << "\n"
                << r.err;
            std::vector<DWORD> ids = PrintedIds(r.out);
            for (size_t i = 1; i < ids.size(); ++i)
                ASSERT_LT(ids[i - 1], ids[i]) << "round " << round;
        }
    }
}

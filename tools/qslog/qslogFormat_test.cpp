// The printed forms of records made by hand, and the writer under them.
#include "qslogFormat.h"

#include "qsBitUtils.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace qslog;

namespace {

// A record whose payload lives in `storage`, as ReadRecord would make it.
Record MakeRecord(std::vector<uint8_t>& storage, qsLogRecType type, std::vector<uint8_t> payload,
                  bool opposite = false) {
    storage = std::move(payload);
    Record r;
    r.offset = 28;
    r.payloadSize = DWORD(storage.size());
    r.recSize = LOG_REC_HEADER_SIZE + r.payloadSize;
    r.payload = storage.data();
    r.opposite = opposite;
    r.info.SetType(type);
    r.info.SetRecordId(42);
    r.info.SetProcessId(1234);
    r.info.SetThreadId(0x7F3A1B40);
    // 2026-11-21 13:03:07.123 UTC
    r.info.SetTimestamp(qsUInt64ToFileTime(QS_FILETIME_UNIX_EPOCH + 17952661871230000ULL));
    memcpy(r.head, storage.data(), std::min<size_t>(storage.size(), 32));
    if (opposite)
        ZLogRec::ConvertPayload(type, r.head, DWORD(std::min<size_t>(storage.size(), 32)));
    return r;
}

std::vector<uint8_t> Message(int32_t code, int32_t severity, const std::string& text) {
    std::vector<uint8_t> p(8 + text.size());
    memcpy(p.data(), &code, 4);
    memcpy(p.data() + 4, &severity, 4);
    memcpy(p.data() + 8, text.data(), text.size());
    return p;
}

// What a Writer sends to a pipe.
class Captured {
public:
    Captured() {
        EXPECT_EQ(pipe(m_Fds), 0);
        fcntl(m_Fds[0], F_SETFL, O_NONBLOCK);
    }
    ~Captured() {
        close(m_Fds[0]);
        close(m_Fds[1]);
    }
    int Fd() const { return m_Fds[1]; }
    std::string Text() {
        std::string s;
        char buf[4096];
        for (ssize_t n; (n = read(m_Fds[0], buf, sizeof buf)) > 0;)
            s.append(buf, size_t(n));
        return s;
    }

private:
    int m_Fds[2];
};

std::string Short(const Entry& e, bool color = false) {
    Captured c;
    {
        Writer w(c.Fd());
        Formatter f(OutputFormat::Short, color, {"f.log"}, false);
        f.Put(w, e);
    }
    return c.Text();
}

class QslogFormat : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }
    std::vector<uint8_t> m_Storage;
};

} // namespace

TEST_F(QslogFormat, ShortLinesCarryTimeProcessThreadIdSeverityCodeAndText) {
    Entry e;
    e.rec = MakeRecord(m_Storage, LOGREC_STRING_A, Message(int32_t(0xE0FF010B), 4, "disk gone\n"));
    EXPECT_EQ(Short(e),
              "2026-11-21 13:03:07.123 [1234:7F3A1B40] #42 error 0xE0FF010B: disk gone\n");
    EXPECT_EQ(Short(e, true), "\033[1;31m2026-11-21 13:03:07.123 [1234:7F3A1B40] #42 error "
                              "0xE0FF010B: disk gone\033[0m\n");
    e.rec = MakeRecord(m_Storage, LOGREC_STRING_A, Message(0, 1, "ok"));
    EXPECT_EQ(Short(e), "2026-11-21 13:03:07.123 [1234:7F3A1B40] #42 normal: ok\n");
    EXPECT_EQ(Short(e, true), "2026-11-21 13:03:07.123 [1234:7F3A1B40] #42 normal: ok\n");

    uint32_t kib[2] = {4096, 1024};
    std::vector<uint8_t> resize(8);
    memcpy(resize.data(), kib, 8);
    e.rec = MakeRecord(m_Storage, LOGREC_RESIZE, resize);
    EXPECT_EQ(Short(e), "2026-11-21 13:03:07.123 [1234:7F3A1B40] #42 -- resized 4096 KiB to 1024 "
                        "KiB\n");

    Entry gap;
    gap.lost = 3;
    gap.lostFirst = 7;
    gap.lostLast = 9;
    EXPECT_EQ(Short(gap), "-- 3 records unreadable (#7 to #9) --\n");
}

TEST_F(QslogFormat, WideTextIsDecodedInItsOwnByteOrder) {
    std::u32string wide = U"h\u00e9 \u20ac \U0001F600";
    std::vector<uint8_t> p = Message(0, 2, "");
    for (char32_t c : wide) {
        uint32_t u = c;
        p.insert(p.end(), reinterpret_cast<uint8_t*>(&u), reinterpret_cast<uint8_t*>(&u) + 4);
    }
    std::string scratch;
    Record r = MakeRecord(m_Storage, LOGREC_STRING_W, p);
    EXPECT_EQ(RecordText(r, scratch), "h\u00e9 \u20ac \U0001F600");

    // The same record from a machine of the other order: only the code and
    // severity words are converted by the library; the units are ours to turn.
    std::vector<uint8_t> swapped = p;
    for (size_t i = 0; i + 4 <= swapped.size(); i += 4) {
        uint32_t w;
        memcpy(&w, swapped.data() + i, 4);
        w = qsBitUtils::ReverseEndiannessOf(w);
        memcpy(swapped.data() + i, &w, 4);
    }
    Record o = MakeRecord(m_Storage, LOGREC_STRING_W, swapped, true);
    EXPECT_EQ(o.Severity(), 2);
    EXPECT_EQ(RecordText(o, scratch), "h\u00e9 \u20ac \U0001F600");

    // Units that are no code point come out as U+FFFD.
    uint32_t bad[2] = {0xD800, 0x110000};
    std::vector<uint8_t> q = Message(0, 1, "");
    q.insert(q.end(), reinterpret_cast<uint8_t*>(bad), reinterpret_cast<uint8_t*>(bad) + 8);
    Record b = MakeRecord(m_Storage, LOGREC_STRING_W, q);
    EXPECT_EQ(RecordText(b, scratch), "\uFFFD\uFFFD");
}

TEST_F(QslogFormat, UnknownAndShortRecordsAreDescribed) {
    std::string scratch;
    Record u = MakeRecord(m_Storage, 0x44434241, std::vector<uint8_t>(20, 0xAB));
    EXPECT_EQ(RecordText(u, scratch), "record of type ABCD, 20 bytes: AB AB AB AB AB AB AB AB AB "
                                      "AB AB AB AB AB AB AB ...");
    Record odd = MakeRecord(m_Storage, 0x01020304, {});
    EXPECT_EQ(RecordText(odd, scratch), "record of type 0x01020304, 0 bytes");
    Record stub = MakeRecord(m_Storage, LOGREC_STRING_A, {1, 2, 3});
    EXPECT_FALSE(stub.IsMessage());
    EXPECT_EQ(RecordText(stub, scratch), "record of type STRA, 3 bytes: 01 02 03");
    EXPECT_EQ(SeverityName(-2, scratch), "-2");
    EXPECT_EQ(SeverityName(9, scratch), "error");
}

TEST_F(QslogFormat, JsonIsOneParsableObjectPerLine) {
    Entry e;
    e.rec = MakeRecord(m_Storage, LOGREC_STRING_A, Message(-5, 2, "a \"q\" \\ \x01\xff\n"));
    Captured c;
    {
        Writer w(c.Fd());
        Formatter f(OutputFormat::Json, true, {"dir/f.log"}, false);
        f.Put(w, e);
        f.PutLost(w, 17, 0);
    }
    std::string out = c.Text();
    EXPECT_EQ(out.find('\033'), std::string::npos);
    size_t nl = out.find('\n');
    ASSERT_NE(nl, std::string::npos);
    auto j = nlohmann::json::parse(out.substr(0, nl));
    EXPECT_EQ(j["file"], "dir/f.log");
    EXPECT_EQ(j["id"], 42);
    EXPECT_EQ(j["time"], "2026-11-21T13:03:07.123+00:00");
    EXPECT_EQ(j["pid"], 1234);
    EXPECT_EQ(j["tid"], 0x7F3A1B40);
    EXPECT_EQ(j["type"], "STRA");
    EXPECT_EQ(j["severity"], 2);
    EXPECT_EQ(j["level"], "warning");
    EXPECT_EQ(j["code"], -5);
    EXPECT_EQ(j["text"], "a \"q\" \\ \x01\xef\xbf\xbd\n");
    auto lost = nlohmann::json::parse(out.substr(nl + 1));
    EXPECT_EQ(lost["lost"], 17);
    EXPECT_EQ(lost["reason"], "overrun");
}

TEST_F(QslogFormat, WriterEscapesControlsAndSpillsLargeOutput) {
    Captured c;
    {
        Writer w(c.Fd(), 16);
        w.PutEscaped("a\tb\nc\rd\x1b[0m\x7f\xc3\xa9");
        w.Put('|');
        w.PutHex(0xABC, 6);
        w.Put('|');
        w.PutInt(-12);
        w.Put('|');
        w.PutUInt(18446744073709551615ULL);
        w.Put(std::string(40, 'x'));
    }
    EXPECT_EQ(c.Text(), "a\tb\\nc\\rd\\x1b[0m\\x7f\xc3\xa9|000ABC|-12|18446744073709551615" +
                            std::string(40, 'x'));
}

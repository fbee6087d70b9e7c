// The shown forms of objects: permission strings, times from the server's
// FILETIMEs, df's arithmetic, and JSON that survives names that are not
// UTF-8.
#include "qsnfsFormat.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace qsnfs;

namespace {

FILETIME Ft(int64_t unixNanoseconds) {
    return qsUInt64ToFileTime(uint64_t(unixNanoseconds / 100 + int64_t(QS_FILETIME_UNIX_EPOCH)));
}

} // namespace

TEST(QsnfsFormat, ModeStrings) {
    EXPECT_EQ(ModeString(qsNFSUtils::eTypeRegular, 0644), "-rw-r--r--");
    EXPECT_EQ(ModeString(qsNFSUtils::eTypeDirectory, 01777), "drwxrwxrwt");
    EXPECT_EQ(ModeString(qsNFSUtils::eTypeDirectory, 02750), "drwxr-s---");
    EXPECT_EQ(ModeString(qsNFSUtils::eTypeRegular, 04644), "-rwSr--r--");
    EXPECT_EQ(ModeString(qsNFSUtils::eTypeSymlink, 0777), "lrwxrwxrwx");
    EXPECT_EQ(ModeString(qsNFSUtils::eTypeFifo, 0), "p---------");
    EXPECT_EQ(ModeString(qsNFSUtils::eTypeUnknown, 0600), "?rw-------");
}

TEST(QsnfsFormat, TimesFromFileTimes) {
    setenv("TZ", "XXX-1", 1); // one hour east of UTC, no summer time
    tzset();
    const int64_t t = int64_t(1795266187) * 1000000000 + 123456700;
    EXPECT_EQ(UtcTime(Ft(t)), "2026-11-21T13:03:07.1234567Z");
    EXPECT_EQ(LocalTime(Ft(t)), "2026-11-21 14:03:07.1234567 +0100");
    EXPECT_EQ(ShortTime(Ft(t)), "2026-11-21 14:03");
    // Before 1970 the fraction still counts upwards from the second.
    EXPECT_EQ(UtcTime(Ft(-100)), "1969-12-31T23:59:59.9999999Z");
    // A time the server never set: FILETIME 0, far beyond 64-bit nanoseconds.
    if (sizeof(time_t) == 8) {
        EXPECT_EQ(UtcTime(FILETIME{0, 0}), "1601-01-01T00:00:00.0000000Z");
    }
}

TEST(QsnfsFormat, EntryAndDf) {
    qsNFSUtils::DirEntry e;
    e.m_Name = "caf\xe9"; // Latin-1, as old servers hold names
    e.m_Type = qsNFSUtils::eTypeRegular;
    e.m_Size = 123456789012;
    e.m_Mode = 0100640; // type bits from the server are not the mode
    auto j = nlohmann::json::parse(JsonLine(EntryJson("h:/e/caf\xe9", e, "")));
    EXPECT_EQ(j["name"], "caf\xef\xbf\xbd");
    EXPECT_EQ(j["size"], 123456789012u);
    EXPECT_EQ(j["mode"], 0640);
    EXPECT_EQ(j["type"], "file");
    EXPECT_FALSE(j.contains("target"));
    std::string line = LongLine(e, 14, "");
    EXPECT_TRUE(line.starts_with("-rw-r-----     0     0   123456789012 ")) << line;
    EXPECT_TRUE(line.ends_with(" caf\xe9")) << line;

    qsNFSUtils::ExportInfo::Facts f{};
    f.m_TotalBytes = 1000 << 10;
    f.m_FreeBytes = 300 << 10;
    f.m_AvailableBytes = 200 << 10; // the rest is reserved for root
    std::string df = DfLine("h:/e", f);
    EXPECT_NE(df.find(" 1000 "), std::string::npos) << df;
    EXPECT_NE(df.find(" 700 "), std::string::npos) << df;
    EXPECT_NE(df.find(" 200 "), std::string::npos) << df;
    EXPECT_EQ(df.substr(df.size() - 4), " 78%") << df; // 700 of 900, rounded up
    EXPECT_TRUE(DfLine("h:/e", {}).ends_with(" 0%"));
}

#include "qsPath.h"

#include "ZBuffer.h"
#include "ZCString.h"
#include "qsLog.h"
#include "qsLogRecords.h"

#include <gtest/gtest.h>

using namespace qsPath;

// Paths in tables write '|' for a backslash.
static std::string B(const char* text) {
    std::string s = text ? text : "";
    for (char& c : s)
        c = c == '|' ? '\\' : c;
    return s;
}

TEST(qsPath, FormatsAndIllegalCharacters) {
    std::pair<const char*, unsigned> formats[] = {
        {"/a", 64},
        {"C:|x", 4},
        {"C:/x", 128},
        {"||srv|sh", 1},
        {"||?|UNC|srv", 2},
        {"||?|C:|x", 8},
        {"||?|UNC||x", 0},
        {"//?/C:/x", 64},
        {"h:/exp/f", 128},
        {"h:C:|x", 16},
        {"host:||?|C:|x", 32},
        {"h:||?|C:|x", 4}, // a one-letter host reads as a drive
        {"h:x", 0},
        {"rel/x", 0},
        {"||?|X", 0},
        {"", 0}};
    for (auto [text, format] : formats) {
        EXPECT_EQ(GetFormat(B(text).c_str()), format) << text;
        EXPECT_EQ(ValidateFormat(B(text).c_str(), eFormat(~0u)), format != 0) << text;
    }
    EXPECT_TRUE(ValidateFormat("/a", eFormatNfs | eFormatUnix));
    EXPECT_FALSE(ValidateFormat("/a", eFormatNfs | eFormatDrive));

    // Path, allowed, what remains illegal ("" when nothing is found).
    std::tuple<const char*, unsigned long, const char*> illegal[] = {
        {"a:b", 0x4, ""},
        {"a:b", 0, "\\ / : * ? \" < > |"},
        {"a*b", 0x1, "/ : * ? \" < > |"},
        {"x|y", 0x1FF, ""}};
    for (auto [path, allow, list] : illegal) {
        ZCString found = "";
        EXPECT_EQ(HasIllegalPathChars(path, allow, &found), list[0] != 0) << path;
        EXPECT_STREQ(found, list) << path << " " << allow;
    }
}

// The quirks are kept: the last node of a path without a slash loses its
// first character.
TEST(qsPath, SlashesAndNodes) {
    std::string p = B("a|b/c|d");
    EXPECT_EQ(GetLastSlash(p.c_str()), p.c_str() + 5);
    EXPECT_EQ(GetNextSlash(p.c_str() + 2, false), p.c_str() + 5);
    EXPECT_EQ(GetNextSlash(p.c_str() + 2, true), p.c_str() + 3);
    // First (1) or last (0) node, path, buffer size, status, node.
    std::tuple<int, const char*, unsigned long, qsStatus, const char*> cases[] = {
        {1, "C:|dir", 9, QS_OK, "C:|"},
        {1, "||srv|sh", 9, QS_OK, "srv"},
        {1, "||?|UNC|s|x", 9, QS_OK, "s"},
        {1, "h:/e", 9, QS_OK, "h"},
        {1, "/x", 1, QS_E_BUFFER_TOO_SMALL, ""},
        {1, "||?|bad", 9, QS_E_INVALIDARG, ""},
        {0, "/a/bc/", 9, QS_OK, "bc"},
        {0, "abc", 9, QS_OK, "bc"},
        {0, "/", 9, QS_OK, "/"},
        {0, "a|b", 9, QS_OK, "b"},
        {0, "/a/bc", 2, QS_E_BUFFER_TOO_SMALL, ""}};
    for (auto [first, text, size, status, node] : cases) {
        std::string path = B(text), s;
        char buffer[9] = "zzzzzzzz";
        EXPECT_EQ(first ? GetFirstNode(path.c_str(), buffer, size)
                        : GetLastNode(path.c_str(), buffer, size),
                  status)
            << text;
        EXPECT_EQ(buffer, B(node)) << text;
        EXPECT_EQ(first ? GetFirstNode(path.c_str(), s) : GetLastNode(path.c_str(), s),
                  size > 2 ? status : QS_OK);
        EXPECT_TRUE(size <= 2 || s == B(node)) << text;
    }
}

TEST(qsPath, UncAndDfsSplits) {
    std::string server255(255, 's');
    // Path, status, server, share, rest ("null": none).
    std::tuple<std::string, qsStatus, std::string, std::string, const char*> cases[] = {
        {"||srv|sh|dir|f", QS_OK, "srv", "sh", "dir|f"},
        {"||srv/sh|", QS_OK, "srv", "sh", ""},
        {"||srv|sh", QS_OK, "srv", "sh", "null"},
        {"||srv", QS_OK, "srv", "", "null"},
        {"||?|UNC|srv|sh|x", QS_OK, "srv", "sh", "x"},
        {"||" + server255 + "|sh", QS_OK, server255, "sh", "null"},
        {"||s" + server255 + "|sh", QS_E_INVALIDARG, "", "", "null"},
        {"||srv|" + std::string(81, 'h'), QS_E_INVALIDARG, "", "", "null"},
        {"||srv||sh", QS_E_INVALIDARG, "", "", "null"},
        {"||srv|sh||x", QS_E_INVALIDARG, "", "", "null"},
        {"||?|C:|x", QS_E_INVALIDARG, "", "", "null"},
        {"|||x", QS_E_INVALIDARG, "", "", "null"}};
    for (auto& [text, status, server, share, rest] : cases) {
        std::string path = B(text.c_str());
        char s1[256] = "x", s2[81] = "x", r[257] = "x";
        const char* restPointer = "x";
        EXPECT_EQ(SplitUnc2(path.c_str(), s1, s2, restPointer), status) << text;
        EXPECT_TRUE(s1 == server && s2 == share) << text;
        EXPECT_EQ(restPointer ? B(restPointer) : "null", B(rest)) << text;
        EXPECT_EQ(SplitUnc(path.c_str(), nullptr, nullptr, r), status) << text;
        EXPECT_EQ(r, restPointer ? B(rest) : "") << text;
    }
    char r[257];
    EXPECT_EQ(SplitUnc(("\\\\s\\h\\" + std::string(257, 'r')).c_str(), 0, 0, r), QS_E_INVALIDARG);

    std::pair<const char*, int> contents[] = {
        {"||srv", 1}, {"||srv|sh", 2}, {"||srv|sh|x", 3}, {"||srv|sh|x||y", 0}, {"bad", 0}};
    for (auto [path, n] : contents)
        EXPECT_EQ(GetUncPathContents(B(path).c_str()), n) << path;

    // Path, status, root, rest.
    std::tuple<const char*, qsStatus, const char*, const char*> dfs[] = {
        {"||srv|sh|x|y", QS_OK, "||srv|sh", "x|y"},
        {"||?|UNC|srv/sh", QS_OK, "||srv/sh", ""},
        {"||srv|", QS_E_INVALIDARG, "", ""}};
    for (auto [path, status, root, rest] : dfs) {
        char rootBuffer[340] = "x", restBuffer[257] = "x";
        EXPECT_EQ(SplitDfs(B(path).c_str(), rootBuffer, restBuffer), status) << path;
        EXPECT_TRUE(rootBuffer == B(root) && restBuffer == B(rest)) << path;
    }
}

TEST(qsPath, PathRelations) {
    // a, b, type, case-sensitive, result.
    std::tuple<const char*, const char*, int, bool, bool> cases[] = {
        {"/a/b", "/a", 1, true, true}, {"/ab", "/a", 1, true, false},
        {"/a", "/a/b", 3, true, true}, {"/A", "/a", 0, false, true},
        {"/A", "/a", 0, true, false},  {"/A|b", "/a", 2, false, true},
        {"/a", "/a", 1, true, false},  {"/a", "/a", 4, true, true},
        {"", nullptr, 7, true, true}};
    for (auto [a, b, type, caseSensitive, result] : cases)
        EXPECT_EQ(PathMatch(B(a).c_str(), b, ePathMatchType(type), caseSensitive), result)
            << a << " " << type;

    EXPECT_FALSE(PathMatch("/a", "/a", ePathMatchType(7), true));
    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().Text(), "qsPath::PathMatch: unknown match type 7");
    EXPECT_TRUE(records.back().Code() == int32_t(QS_E_INVALIDARG) &&
                records.back().Severity() == 4);
}

// Every edit through the buffer form and the string form.  Operations:
// A<name> Append with separator 0, t/ts strip trailing slashes (and
// spaces), Ls/L/ strip leading, T TightenPath, N Normalize.
TEST(qsPath, EditsInPlace) {
    // Operation, path, result, done.
    std::tuple<const char*, const char*, const char*, bool> edits[] = {
        {"Ax", "", "", false},
        {"Ax", "/d", "/d/x", true},
        {"A/x", "/d/", "/d/x", true},
        {"Ax", "C:|d", "C:|d|x", true},
        {"t/", "C:|", "C:|", true},
        {"t/", "///", "/", true},
        {"ts/", "/a/ \t", "/a", true},
        {"Ls", "   ", "   ", true},
        {"Ls/", " //a", "a", true},
        {"T", " /a b / c ", "/a b/c", true},
        {"T", "/a//b", "/a//b", false},
        {"T", "/a/ /b", "/a/ /b", false},
        {"T", "//a", "//a", false},
        {"T", "||?|C:| x ", "||?|C:|x", true},
        {"T", "  a /b", "a/b", true},
        {"N", "/A|b", "/A/b", true},
        {"N", "HOST:/Ex|F", "host:/Ex/F", true},
        {"N", "||Srv/Sh", "||srv|sh", true}};
    for (auto [op, path, result, ok] : edits) {
        char buffer[32];
        strcpy(buffer, B(path).c_str());
        std::string s = B(path);
        bool spaces = strchr(op, 's'), slashes = strchr(op, '/');
        bool done = true, doneString = true;
        switch (op[0]) {
        case 'A':
            done = Append(buffer, op + 1, 0), doneString = Append(s, op + 1, 0);
            break;
        case 't':
            StripTrailing(buffer, spaces, slashes), StripTrailing(s, spaces, slashes);
            break;
        case 'L':
            StripLeading(buffer, spaces, slashes), StripLeading(s, spaces, slashes);
            break;
        case 'T':
            done = TightenPath(buffer), doneString = TightenPath(s);
            break;
        case 'N':
            Normalize(buffer), Normalize(s);
            break;
        }
        EXPECT_TRUE(done == ok && doneString == ok) << op << " " << path;
        EXPECT_TRUE(buffer == B(result) && s == B(result)) << op << " [" << path << "] " << s;
    }
}

TEST(qsPath, PathSpecLists) {
    // Input, the patterns in one string, each ended by ';'.
    std::pair<const char*, const char*> cases[] = {
        {"\"*.log\"", "*.log;"},
        {"\"a\" \"b/c\" \"d|e|\"", "*/a;*|a;*/b/c;*|d|e|*;"},
        {"\"a/b|c\"", "*/a/b|c;*|a/b|c;"},
        {"\"/abs/\" \"C:|x\" \"h:/y\"", "/abs/*;C:|x;h:/y;"},
        {"\"\" \"x/\"", "*/x/*;"}};
    ZBuffer storage;
    const char* list = nullptr;
    for (auto [input, expected] : cases) {
        ASSERT_EQ(SetPathSpecListString(B(input).c_str(), list, storage), QS_OK) << input;
        std::string joined;
        for (const char* p = list; *p; p += strlen(p) + 1)
            joined += std::string(p) + ";";
        EXPECT_EQ(joined, B(expected)) << input;
        EXPECT_EQ(storage.BytesUsed(), joined.size() + 1);
    }
    std::string many; // outgrows the first size, input length + 12
    for (int i = 0; i < 200; ++i)
        many += "\"x\" ";
    ASSERT_EQ(SetPathSpecListString(many.c_str(), list, storage), QS_OK);
    EXPECT_EQ(storage.BytesUsed(), 400u * 4 + 1);
    EXPECT_EQ(SetPathSpecListString("", list, storage), QS_OK);
    EXPECT_TRUE(list == nullptr && storage.Size() == 0);
}

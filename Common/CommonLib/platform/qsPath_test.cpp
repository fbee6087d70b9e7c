#include "qsPath.h"

#include "ZBuffer.h"
#include "ZCString.h"
#include "qsLog.h"
#include "qsLogRecords.h"

#include <gtest/gtest.h>

using namespace qsPath;

// Writing a path with single backslashes in a table: '|' stands for one.
static std::string B(const char* text) {
    std::string s = text;
    for (char& c : s)
        c = c == '|' ? '\\' : c;
    return s;
}

TEST(qsPath, FormatsAndLongPathPrefixes) {
    std::pair<const char*, unsigned> formats[] = {
        {"/a", 64},          {"C:|x", 4},     {"C:/x", 128},          {"||srv|sh", 1},
        {"||?|UNC|srv|sh", 2}, {"||?|unc|s", 2}, {"||?|C:|x", 8},       {"||?|UNC||x", 0},
        {"//?/C:/x", 64},    {"host:/exp/f", 128}, {"host:C:|x", 16},  {"host:||?|C:|x", 32},
        {"host:x", 0},       {"rel/x", 0},    {"", 0},                {"|x", 0},
        {"||?|X", 0},        {"host:||?|UNC|s", 0}};
    for (auto [text, format] : formats) {
        EXPECT_EQ(GetFormat(B(text).c_str()), format) << text;
        EXPECT_EQ(ValidateFormat(B(text).c_str(), eFormat(0xFFFFFFFF)), format != 0) << text;
    }
    EXPECT_EQ(GetFormat(nullptr), eFormatUnknown);
    EXPECT_TRUE(ValidateFormat("/a", eFormatNfs | eFormatUnix));
    EXPECT_FALSE(ValidateFormat("/a", eFormatNfs | eFormatDrive));

    // Path, well formed, length, drive kind.
    std::tuple<const char*, bool, int, bool> prefixes[] = {
        {"", true, 0, false},         {"||srv", true, 0, false},   {"||?|C:|x", true, 4, true},
        {"||?|UNC|s", true, 8, false}, {"||?|UNC||s", false, 8, false}, {"//?/C:/x", false, 0, false},
        {"||?|CC", false, 0, false},  {"||?", false, 0, false}};
    for (auto [text, ok, length, drive] : prefixes) {
        int n = -1;
        bool isDrive = !drive;
        EXPECT_EQ(GetLongPathPrefixLen(B(text).c_str(), n, &isDrive), ok) << text;
        EXPECT_TRUE(n == length && isDrive == drive) << text;
    }
}

TEST(qsPath, IllegalCharactersAndSlashes) {
    // Path, allowed, found, the list of what is still illegal.
    std::tuple<const char*, unsigned long, bool, const char*> cases[] = {
        {"a:b", 0x4, false, ""},
        {"a:b", 0, true, "\\ / : * ? \" < > |"},
        {"a*b", 0x1, true, "/ : * ? \" < > |"},
        {"x|y", 0xFF, true, "|"},
        {"x|y", 0x1FF, false, ""},
        {"", 0, false, ""}};
    for (auto [path, allow, found, list] : cases) {
        ZCString illegal = "untouched";
        EXPECT_EQ(HasIllegalPathChars(path, allow, &illegal), found) << path << " " << allow;
        EXPECT_EQ(std::string(illegal), found ? list : "untouched") << path << " " << allow;
    }
    EXPECT_FALSE(HasIllegalPathChars(nullptr, 0, nullptr));

    std::string p = B("a|b/c|d");
    EXPECT_EQ(GetLastSlash(p.c_str()), p.c_str() + 5);
    EXPECT_EQ(GetNextSlash(p.c_str(), false), p.c_str() + 1);
    EXPECT_EQ(GetNextSlash(p.c_str() + 2, false), p.c_str() + 5);
    EXPECT_EQ(GetNextSlash(p.c_str() + 2, true), p.c_str() + 3);
    EXPECT_EQ(GetLastSlash("abc"), nullptr);
    EXPECT_EQ(GetNextSlash(nullptr, true), nullptr);
}

TEST(qsPath, FirstAndLastNodes) {
    // First or last node, path, buffer size, status, node.
    std::tuple<bool, const char*, unsigned long, qsStatus, const char*> cases[] = {
        {true, "C:|dir", 64, QS_OK, "C:|"},
        {true, "||srv|sh", 64, QS_OK, "srv"},
        {true, "||?|UNC|srv|x", 64, QS_OK, "srv"},
        {true, "||?|C:|x", 64, QS_OK, "C:|"},
        {true, "host:/e", 64, QS_OK, "host"},
        {true, "C:/x", 64, QS_OK, "C"},
        {true, "/x", 1, QS_E_BUFFER_TOO_SMALL, ""},
        {true, "/x", 2, QS_OK, "/"},
        {true, "abc", 3, QS_E_BUFFER_TOO_SMALL, ""},
        {true, "||?|bad", 64, QS_E_INVALIDARG, ""},
        {false, "/a/bc/", 64, QS_OK, "bc"},
        {false, "abc", 64, QS_OK, "bc"}, // the first character is lost: kept on purpose
        {false, "/", 64, QS_OK, "/"},
        {false, "/abc", 64, QS_OK, "abc"},
        {false, "a|b", 64, QS_OK, "b"},
        {false, "", 64, QS_OK, ""},
        {false, "/a/bc", 2, QS_E_BUFFER_TOO_SMALL, ""}};
    for (auto [first, text, size, status, node] : cases) {
        std::string path = B(text);
        char buffer[64];
        memset(buffer, 'z', sizeof buffer);
        using Fill = qsStatus (*)(const char*, char*, unsigned long);
        Fill fill = first ? static_cast<Fill>(GetFirstNode) : static_cast<Fill>(GetLastNode);
        EXPECT_EQ(fill(path.c_str(), buffer, size), status) << text;
        EXPECT_EQ(std::string(buffer), B(node)) << text;
        std::string s = "old";
        if (size == 64) {
            EXPECT_EQ(first ? GetFirstNode(path.c_str(), s) : GetLastNode(path.c_str(), s), status);
            EXPECT_EQ(s, B(node)) << text;
        }
    }
    char buffer[8] = "zzz";
    EXPECT_EQ(GetFirstNode(nullptr, buffer, sizeof buffer), QS_E_INVALIDARG);
    EXPECT_STREQ(buffer, "");
}

TEST(qsPath, UncAndDfsSplits) {
    std::string longServer(256, 's'), maxServer(255, 's'), longShare(81, 'h'), longRest(257, 'r');
    // Path, status, server, share, rest (null: none).
    std::tuple<std::string, qsStatus, std::string, std::string, const char*> cases[] = {
        {B("||srv|sh|dir|f"), QS_OK, "srv", "sh", "dir|f"},
        {B("||srv/sh/x"), QS_OK, "srv", "sh", "x"},
        {B("||srv|sh|"), QS_OK, "srv", "sh", ""},
        {B("||srv|sh"), QS_OK, "srv", "sh", nullptr},
        {B("||srv|"), QS_OK, "srv", "", nullptr},
        {B("||srv"), QS_OK, "srv", "", nullptr},
        {B("||?|UNC|srv|sh|x"), QS_OK, "srv", "sh", "x"},
        {B("||") + maxServer + B("|sh"), QS_OK, maxServer, "sh", nullptr},
        {B("||") + longServer + B("|sh"), QS_E_INVALIDARG, "", "", nullptr},
        {B("||srv|") + longShare, QS_E_INVALIDARG, "", "", nullptr},
        {B("||srv||sh"), QS_E_INVALIDARG, "", "", nullptr},
        {B("||srv|sh||x"), QS_E_INVALIDARG, "", "", nullptr},
        {B("||?|C:|x"), QS_E_INVALIDARG, "", "", nullptr},
        {B("||?|UNC|"), QS_E_INVALIDARG, "", "", nullptr},
        {B("|||x"), QS_E_INVALIDARG, "", "", nullptr},
        {B("||"), QS_E_INVALIDARG, "", "", nullptr},
        {"/srv/sh", QS_E_INVALIDARG, "", "", nullptr}};
    for (auto& [path, status, server, share, rest] : cases) {
        char s1[256] = "x", s2[81] = "x", r[257] = "x";
        const char* restPointer = "x";
        EXPECT_EQ(SplitUnc2(path.c_str(), s1, s2, restPointer), status) << path;
        EXPECT_TRUE(s1 == server && s2 == share) << path;
        EXPECT_EQ(restPointer ? std::string(restPointer) : "null", rest ? B(rest) : "null") << path;
        EXPECT_EQ(SplitUnc(path.c_str(), nullptr, nullptr, r), status) << path;
        EXPECT_EQ(std::string(r), rest ? B(rest) : "");
    }
    char r[257];
    EXPECT_EQ(SplitUnc(B("||s|h|").append(longRest).c_str(), nullptr, nullptr, r), QS_E_INVALIDARG);

    std::pair<const char*, int> contents[] = {{"||srv", 1},        {"||srv|sh", 2},
                                              {"||srv|sh|", 2},    {"||srv|sh|x", 3},
                                              {"||srv|sh|x||y", 0}, {"bad", 0}};
    for (auto [path, n] : contents)
        EXPECT_EQ(GetUncPathContents(B(path).c_str()), n) << path;

    // Path, status, root, rest.
    std::tuple<const char*, qsStatus, const char*, const char*> dfs[] = {
        {"||srv|sh|x|y", QS_OK, "||srv|sh", "x|y"},
        {"||?|UNC|srv/sh", QS_OK, "||srv/sh", ""},
        {"||srv|sh|", QS_OK, "||srv|sh", ""},
        {"||srv", QS_E_INVALIDARG, "", ""},
        {"||srv|", QS_E_INVALIDARG, "", ""},
        {"||srv|sh||x", QS_E_INVALIDARG, "", ""}};
    for (auto [path, status, root, rest] : dfs) {
        char rootBuffer[340] = "x", restBuffer[257] = "x";
        EXPECT_EQ(SplitDfs(B(path).c_str(), rootBuffer, restBuffer), status) << path;
        EXPECT_TRUE(rootBuffer == B(root) && restBuffer == B(rest)) << path;
    }
}

TEST(qsPath, PathRelations) {
    // a, b, type, case-sensitive, result.
    std::tuple<const char*, const char*, int, bool, bool> cases[] = {
        {"/a/b", "/a", 1, true, true},   {"/ab", "/a", 1, true, false},
        {"/a", "/a/b", 3, true, true},   {"/a/b", "/a", 3, true, false},
        {"/A", "/a", 0, false, true},    {"/A", "/a", 0, true, false},
        {"/A|b", "/a", 1, false, true},  {"/a", "/a", 1, true, false},
        {"/a", "/a", 2, true, true},     {"/a/b", "/a", 2, true, true},
        {"/a", "/a", 4, true, true},     {"/a", "/a/b", 4, true, true},
        {"", nullptr, 0, true, true},    {"", "/a", 0, true, false},
        {"", nullptr, 7, true, true}};
    for (auto [a, b, type, caseSensitive, result] : cases)
        EXPECT_EQ(PathMatch(B(a).c_str(), b, ePathMatchType(type), caseSensitive), result)
            << a << " " << (b ? b : "null") << " " << type;

    EXPECT_FALSE(PathMatch("/a", "/a", ePathMatchType(7), true));
    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().Text(), "qsPath::PathMatch: unknown match type 7");
    EXPECT_TRUE(records.back().Code() == int32_t(QS_E_INVALIDARG) && records.back().Severity() == 4);
}

// Each edit through the buffer form and through the string form.
TEST(qsPath, AppendStripTightenNormalize) {
    // Path, name, separator, result, ok.
    std::tuple<const char*, const char*, char, const char*, bool> appends[] = {
        {"", "x", 0, "", false},        {"/d", "x", 0, "/d/x", true},
        {"/d/", "/x", 0, "/d/x", true}, {"C:|d", "x", 0, "C:|d|x", true},
        {"h:/e", "x", 0, "h:/e/x", true}, {"", "x", '/', "/x", true},
        {"rel", "x", '|', "rel|x", true}, {"/d", nullptr, 0, "/d/", true}};
    for (auto [path, name, separator, result, ok] : appends) {
        char buffer[32];
        strcpy(buffer, B(path).c_str());
        std::string s = B(path);
        char sep = separator == '|' ? '\\' : separator;
        EXPECT_EQ(Append(buffer, name, sep), ok) << path;
        EXPECT_EQ(Append(s, name, sep), ok) << path;
        EXPECT_TRUE(buffer == B(result) && s == B(result)) << path << " " << s;
    }

    // Operation, path, result, ok.  s: spaces, /: slashes, T: TightenPath,
    // N: Normalize; upper-case strip letters: leading, lower-case: trailing.
    std::tuple<const char*, const char*, const char*, bool> edits[] = {
        {"t/", "C:|", "C:|", true},        {"t/", "///", "/", true},
        {"t/", "host:/", "host:/", true},  {"ts/", "/a/ \t", "/a", true},
        {"ts", "  ", "", true},            {"Ls", "   ", "   ", true},
        {"Ls", "  /a", "/a", true},        {"Ls/", " //a", "a", true},
        {"L/", "//", "//", true},
        {"T", " /a b / c ", "/a b/c", true}, {"T", "/a//b", "/a//b", false},
        {"T", "/a/ /b", "/a/ /b", false},  {"T", "//a", "//a", false},
        {"T", "|| srv | sh", "||srv|sh", true}, {"T", "||?|C:| x ", "||?|C:|x", true},
        {"T", "||?|bad", "||?|bad", false}, {"T", "  a /b", "a/b", true},
        {"T", "/a/", "/a/", true},         {"T", "", "", true},
        {"N", "/A|b", "/A/b", true},       {"N", "HOST:/Ex|F", "host:/Ex/F", true},
        {"N", "C:/X", "c:/X", true},       {"N", "||Srv/Sh", "||srv|sh", true},
        {"N", "Rel/X", "rel|x", true}};
    for (auto [op, path, result, ok] : edits) {
        char buffer[32];
        strcpy(buffer, B(path).c_str());
        std::string s = B(path);
        bool spaces = strchr(op, 's'), slashes = strchr(op, '/');
        bool done = true, doneString = true;
        switch (op[0]) {
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
    auto patterns = [](const char* list) {
        std::vector<std::string> out;
        for (; list && *list; list += strlen(list) + 1)
            out.push_back(list);
        return out;
    };
    // Input, patterns.
    std::pair<const char*, std::vector<std::string>> cases[] = {
        {"\"*.log\"", {"*.log"}},
        {"\"a\" \"b/c\" \"d|e|\"", {"*/a", "*|a", "*/b/c", "*|d|e|*"}},
        {"\"a/b|c\"", {"*/a/b|c", "*|a/b|c"}},
        {"\"/abs/\"", {"/abs/*"}},
        {"\"C:|x\" \"h:/y\"", {"C:|x", "h:/y"}},
        {"\"\" \"x/\"", {"*/x/*"}},
        {"plain", {"*/plain", "*|plain"}}};
    ZBuffer storage;
    for (auto& [input, expected] : cases) {
        const char* list = nullptr;
        EXPECT_EQ(SetPathSpecListString(B(input).c_str(), list, storage), QS_OK) << input;
        std::vector<std::string> want;
        for (auto& p : expected)
            want.push_back(B(p.c_str()));
        EXPECT_EQ(patterns(list), want) << input;
        EXPECT_EQ(storage.BytesUsed(), [&] {
            DWORD n = 1;
            for (auto& p : want)
                n += DWORD(p.size() + 1);
            return n;
        }()) << input;
    }
    // Many short specs outgrow the first size (input length + 12).
    std::string many;
    for (int i = 0; i < 200; ++i)
        many += "\"x\" ";
    const char* list = nullptr;
    ASSERT_EQ(SetPathSpecListString(many.c_str(), list, storage), QS_OK);
    EXPECT_EQ(patterns(list).size(), 400u);
    EXPECT_EQ(SetPathSpecListString("", list, storage), QS_OK);
    EXPECT_TRUE(list == nullptr && storage.Size() == 0);
}

// Malformed and over-long paths: every function answers without reading
// or writing past what it was given (the sanitizer build watches).
TEST(qsPath, MalformedAndOverLongInputs) {
    std::string inputs[] = {std::string(5000, '\\'), std::string(5000, '/'), "||?",
                            "||?|UNC",               ":",                    "||" + std::string(4000, 'x'),
                            std::string(3000, ' ') + "/a", "h:" + std::string(3000, ':')};
    for (std::string input : inputs) {
        input = B(input.c_str());
        const char* p = input.c_str();
        char small[4], server[256], share[81], rest[257], root[340];
        const char* restPointer;
        GetFormat(p);
        HasIllegalPathChars(p, 0, nullptr);
        GetFirstNode(p, small, sizeof small);
        EXPECT_LT(strlen(small), sizeof small);
        GetLastNode(p, small, sizeof small);
        EXPECT_LT(strlen(small), sizeof small);
        SplitUnc2(p, server, share, restPointer);
        SplitUnc(p, server, share, rest);
        SplitDfs(p, root, rest);
        GetUncPathContents(p);
        std::string s = input;
        TightenPath(s);
        Normalize(s);
        StripTrailing(s, true, true);
        StripLeading(s, true, true);
        Append(s, "x", '/');
        EXPECT_EQ(s.back(), 'x');
    }
}

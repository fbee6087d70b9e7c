#include "ZCString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* Ptr(const ZCString& s) {
    return s;
}

} // namespace

// --- Copy on write ----------------------------------------------------------

TEST(ZCStringShare, EveryMutationOfACopyLeavesTheOriginalAlone) {
    const char* kText = "  Hello, World  ";
    std::vector<std::pair<const char*, std::function<void(ZCString&)>>> ops = {
        {"SetAt", [](ZCString& s) { s.SetAt(2, 'J'); }},
        {"+= text", [](ZCString& s) { s += "!"; }},
        {"+= char", [](ZCString& s) { s += '!'; }},
        {"MakeUpper", [](ZCString& s) { s.MakeUpper(); }},
        {"MakeLower", [](ZCString& s) { s.MakeLower(); }},
        {"MakeReverse", [](ZCString& s) { s.MakeReverse(); }},
        {"Replace char", [](ZCString& s) { s.Replace('l', 'L'); }},
        {"Replace text", [](ZCString& s) { s.Replace("World", "There"); }},
        {"Remove", [](ZCString& s) { s.Remove('o'); }},
        {"Insert", [](ZCString& s) { s.Insert(3, "xx"); }},
        {"Delete", [](ZCString& s) { s.Delete(0, 3); }},
        {"TrimLeft", [](ZCString& s) { s.TrimLeft(); }},
        {"TrimRight", [](ZCString& s) { s.TrimRight(); }},
        {"TrimRight set", [](ZCString& s) { s.TrimRight(" d"); }},
        {"Format", [](ZCString& s) { s.Format("%d", 42); }},
        {"AppendFormat", [](ZCString& s) { s.AppendFormat("%d", 42); }},
        {"GetBuffer", [](ZCString& s) { s.GetBuffer(0)[2] = 'X'; }},
        {"GetBuffer grow",
         [](ZCString& s) {
             strcpy(s.GetBuffer(100) + 16, "tail");
             s.ReleaseBuffer();
         }},
        {"GetBufferSetLength", [](ZCString& s) { s.GetBufferSetLength(4)[0] = 'Z'; }},
        {"ReleaseBuffer", [](ZCString& s) { s.ReleaseBuffer(3); }},
        {"assign text", [](ZCString& s) { s = "other"; }},
        {"Empty", [](ZCString& s) { s.Empty(); }},
    };
    for (auto& [name, op] : ops) {
        ZCString original(kText);
        ZCString copy = original;
        ASSERT_EQ(Ptr(copy), Ptr(original)) << name;
        op(copy);
        EXPECT_STREQ(Ptr(original), kText) << name;
        EXPECT_EQ(original.GetLength(), int(strlen(kText))) << name;
        EXPECT_NE(Ptr(copy), Ptr(original)) << name;
    }
}

TEST(ZCStringShare, AssignmentSharesAndNoOpEditsKeepSharing) {
    ZCString a("abc"), b;
    b = a;
    EXPECT_EQ(Ptr(a), Ptr(b));
    EXPECT_EQ(b.Replace('z', 'y'), 0);
    EXPECT_EQ(b.Remove('z'), 0);
    b.TrimLeft();
    EXPECT_EQ(Ptr(a), Ptr(b));
    ZCString moved(std::move(b));
    EXPECT_EQ(Ptr(moved), Ptr(a));
    EXPECT_TRUE(b.IsEmpty());
}

TEST(ZCStringShare, EmptyStringsShareOneBufferThatIsNeverWritten) {
    ZCString a, b(""), c(nullptr), d('x', 0), e("abc");
    e.Empty();
    EXPECT_EQ(Ptr(a), Ptr(b));
    EXPECT_EQ(Ptr(a), Ptr(c));
    EXPECT_EQ(Ptr(a), Ptr(d));
    EXPECT_EQ(Ptr(a), Ptr(e));
    // A buffer asked for is always private, even for an empty string.
    char* p = b.GetBuffer(0);
    EXPECT_NE(p, Ptr(a));
    p[0] = '\0';
    b.ReleaseBuffer();
    strcpy(c.GetBuffer(10), "written");
    c.ReleaseBuffer();
    EXPECT_STREQ(Ptr(a), "");
    EXPECT_EQ(c, "written");
    EXPECT_EQ(c.GetLength(), 7);
}

TEST(ZCStringShare, ArgumentsMayPointIntoTheStringItself) {
    ZCString s("abcdef");
    s += s;
    EXPECT_EQ(s, "abcdefabcdef");
    s = Ptr(s) + 6;
    EXPECT_EQ(s, "abcdef");
    s.Insert(1, Ptr(s) + 3);
    EXPECT_EQ(s, "adefbcdef");
    s.Format("%s|%s", Ptr(s), Ptr(s) + 7);
    EXPECT_EQ(s, "adefbcdef|ef");
    EXPECT_EQ(s.Replace(Ptr(s) + 10, Ptr(s) + 1), 3);
    EXPECT_EQ(s, "addefbcdef|efbcddefbcdef|ef|defbcdef|ef");
    ZCString t = s; // appending a shared buffer to itself
    t += s;
    EXPECT_EQ(t.GetLength(), 2 * s.GetLength());
}

// Copies made and changed in several threads at once: the original never
// changes, and afterwards its count is back to one (making it private then
// needs no copy).  Leaks and double frees show under the sanitizers.
TEST(ZCStringThreads, ConcurrentCopiesNeverDisturbTheOriginal) {
    const char* kText = "the shared original text";
    ZCString original(kText);
    const char* buffer = original;
    std::vector<int> failures(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20000; i++) {
                ZCString a = original;
                ZCString b = a;
                switch ((i + t) % 4) {
                case 0:
                    a.MakeUpper();
                    break;
                case 1:
                    a += 'x';
                    b.SetAt(0, 'T');
                    break;
                case 2:
                    a.GetBuffer(0)[0] = '#';
                    a.ReleaseBuffer();
                    break;
                default:
                    b.Replace("shared", "private");
                    a = b;
                    break;
                }
                if (original != kText || a == kText)
                    failures[t]++;
            }
        });
    for (auto& th : threads)
        th.join();
    for (int f : failures)
        EXPECT_EQ(f, 0);
    EXPECT_EQ(original.GetBuffer(0), buffer);
    EXPECT_STREQ(buffer, kText);
}

// The last holders let go in different threads at the same time: exactly one
// of them must free the buffer.
TEST(ZCStringThreads, LastReleaseRacesBetweenThreads) {
    for (int round = 0; round < 200; round++) {
        ZCString s;
        s.Format("round %d", round);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++)
            threads.emplace_back([copy = s, t]() mutable {
                if (t % 2)
                    copy.MakeUpper();
            });
        s.Empty();
        for (auto& th : threads)
            th.join();
    }
}

// --- Searching and editing --------------------------------------------------

TEST(ZCStringEdit, FindAtAndPastTheEnds) {
    ZCString s("abcabc"), empty;
    EXPECT_EQ(s.Find('c'), 2);
    EXPECT_EQ(s.Find('c', 3), 5);
    EXPECT_EQ(s.Find('c', 6), -1);
    EXPECT_EQ(s.Find('c', -1), -1);
    EXPECT_EQ(s.Find("bc", 2), 4);
    EXPECT_EQ(s.Find("abcd"), -1);
    EXPECT_EQ(s.Find("", 6), 6);
    EXPECT_EQ(s.Find("", 7), -1);
    EXPECT_EQ(s.ReverseFind('a'), 3);
    EXPECT_EQ(s.ReverseFind('z'), -1);
    EXPECT_EQ(s.FindOneOf("xc"), 2);
    EXPECT_EQ(s.FindOneOf(""), -1);
    EXPECT_EQ(empty.Find('a'), -1);
    EXPECT_EQ(empty.Find(""), 0);
}

TEST(ZCStringEdit, ReplaceLongerShorterEmpty) {
    ZCString s("a--b--c--");
    EXPECT_EQ(s.Replace("--", "+++"), 3);
    EXPECT_EQ(s, "a+++b+++c+++");
    EXPECT_EQ(s.Replace("+++", "-"), 3);
    EXPECT_EQ(s, "a-b-c-");
    EXPECT_EQ(s.Replace("-", ""), 3);
    EXPECT_EQ(s, "abc");
    EXPECT_EQ(s.Replace("abc", nullptr), 1);
    EXPECT_TRUE(s.IsEmpty());
    s = "aaaa";
    EXPECT_EQ(s.Replace("aa", "a"), 2); // no overlapping matches
    EXPECT_EQ(s, "aa");
    EXPECT_EQ(s.Replace("", "x"), 0);
    EXPECT_EQ(s.Replace('a', 'a'), 0);
    EXPECT_EQ(s.Replace('a', 'b'), 2);
    EXPECT_EQ(s.Remove('b'), 2);
    EXPECT_TRUE(s.IsEmpty());
}

TEST(ZCStringEdit, InsertAndDeleteClampPositions) {
    ZCString s("abc");
    EXPECT_EQ(s.Insert(-5, 'x'), 4);
    EXPECT_EQ(s.Insert(100, "yz"), 6);
    EXPECT_EQ(s.Insert(4, ""), 6);
    EXPECT_EQ(s, "xabcyz");
    EXPECT_EQ(s.Delete(4, 100), 4);
    EXPECT_EQ(s.Delete(4), 4);
    EXPECT_EQ(s.Delete(-2, 1), 3);
    EXPECT_EQ(s.Delete(1, 0), 3);
    EXPECT_EQ(s, "abc");
    ZCString empty;
    EXPECT_EQ(empty.Insert(3, 'q'), 1);
    EXPECT_EQ(empty, "q");
}

TEST(ZCStringEdit, TrimWhiteSpaceCharacterAndSet) {
    ZCString s(" \t\n x y \r\n");
    s.TrimLeft();
    EXPECT_EQ(s, "x y \r\n");
    s.TrimRight();
    EXPECT_EQ(s, "x y");
    s = "xxaxx";
    EXPECT_EQ(s.TrimLeft('x').TrimRight('x'), "a");
    s = "-=a=-";
    EXPECT_EQ(s.TrimRight("=-").TrimLeft("-="), "a");
    s = "   ";
    EXPECT_TRUE(s.Trim().IsEmpty());
    s = "abc";
    EXPECT_EQ(s.TrimLeft("").TrimRight(nullptr), "abc");
}

TEST(ZCStringEdit, MidLeftRightClampLikeTheClassicClass) {
    ZCString s("hello");
    EXPECT_EQ(s.Mid(1, 3), "ell");
    EXPECT_EQ(s.Mid(3), "lo");
    EXPECT_EQ(s.Mid(-2, 2), "he");
    EXPECT_EQ(s.Mid(3, 100), "lo");
    EXPECT_EQ(s.Mid(5), "");
    EXPECT_EQ(s.Mid(9, 1), "");
    EXPECT_EQ(s.Mid(2, -1), "");
    EXPECT_EQ(s.Left(2), "he");
    EXPECT_EQ(s.Left(-1), "");
    EXPECT_EQ(s.Right(2), "lo");
    EXPECT_EQ(s.Right(99), "hello");
    EXPECT_EQ(Ptr(s.Mid(0)), Ptr(s)); // the whole string is shared, not copied
}

TEST(ZCStringEdit, CaseAccessAndComparison) {
    ZCString s("MiXeD 1");
    EXPECT_EQ(ZCString(s).MakeUpper(), "MIXED 1");
    EXPECT_EQ(ZCString(s).MakeLower(), "mixed 1");
    EXPECT_EQ(ZCString(s).MakeReverse(), "1 DeXiM");
    EXPECT_EQ(s.GetAt(0), 'M');
    EXPECT_EQ(s[6], '1');
    EXPECT_EQ(s.GetAt(7), '\0');
    EXPECT_EQ(s.GetAt(-1), '\0');
    s.SetAt(99, 'z');
    EXPECT_EQ(s, "MiXeD 1");
    EXPECT_EQ(s.CompareNoCase("mixed 1"), 0);
    EXPECT_LT(s.Compare("MiXeD 2"), 0);
    EXPECT_TRUE(ZCString("a") < "b" && "b" > ZCString("a") && ZCString("a") <= ZCString("a"));
    EXPECT_TRUE("abc" == ZCString("abc") && ZCString("abc") != "abd" && ZCString() == nullptr);
    EXPECT_EQ('<' + ZCString("x") + '>' + "y" + ZCString("z"), "<x>yz");
    EXPECT_EQ(ZCString('-', 3), "---");
    EXPECT_EQ(ZCString("abcdef", 3), "abc");
}

// --- Formatting and direct buffers ------------------------------------------

TEST(ZCStringFormat, LongOutputAndAppending) {
    std::string big(5000, 'q');
    ZCString s;
    s.Format("[%s|%08d|%-3s]", big.c_str(), 42, "ab");
    EXPECT_EQ(s.GetLength(), 5000 + 15);
    EXPECT_EQ(s.Right(15), "q|00000042|ab ]");
    for (int i = 0; i < 1000; i++)
        s.AppendFormat("%04d", i);
    EXPECT_EQ(s.GetLength(), 5015 + 4000);
    EXPECT_EQ(s.Right(8), "09980999");
    s.Format("%s", "");
    EXPECT_TRUE(s.IsEmpty());
}

TEST(ZCStringFormat, GetBufferAndReleaseBufferSetTheLength) {
    ZCString s("abc");
    char* p = s.GetBuffer(20);
    strcpy(p + 3, "defgh");
    s.ReleaseBuffer();
    EXPECT_EQ(s, "abcdefgh");
    EXPECT_EQ(s.GetLength(), 8);
    s.GetBuffer(0);
    s.ReleaseBuffer(2);
    EXPECT_EQ(s, "ab");
    memcpy(s.GetBufferSetLength(5), "vwxyz", 5);
    EXPECT_EQ(s, "vwxyz");
    s.ReleaseBuffer(1000); // clamped to what was allocated
    EXPECT_LE(s.GetLength(), 1000);
    EXPECT_EQ(s.Left(5), "vwxyz");
}

#include "ZCString.h"

#include <cstring>
#include <gtest/gtest.h>
#include <thread>

static const char* Ptr(const ZCString& s) {
    return s;
}

// got[i] against want[i]; the sizes must agree at compile time.  Braced lists
// are evaluated in order, so a list of calls on one string is a sequence.
template <typename G, typename W, size_t N>
static void ExpectEach(const G (&got)[N], const W (&want)[N]) {
    for (size_t i = 0; i < N; i++)
        EXPECT_EQ(got[i], want[i]) << "case " << i;
}

// Each mutator makes the buffer private on its own, so each is tried.
TEST(ZCStringShare, EveryMutationOfACopyLeavesTheOriginalAlone) {
    const char* kText = "  Hello, World  ";
    void (*ops[])(ZCString&) = {[](ZCString& s) { s.SetAt(2, 'J'); },
                                [](ZCString& s) { s += "!"; },
                                [](ZCString& s) { s += '!'; },
                                [](ZCString& s) { s.MakeUpper(); },
                                [](ZCString& s) { s.MakeLower(); },
                                [](ZCString& s) { s.MakeReverse(); },
                                [](ZCString& s) { s.Replace('l', 'L'); },
                                [](ZCString& s) { s.Replace("World", "There"); },
                                [](ZCString& s) { s.Remove('o'); },
                                [](ZCString& s) { s.Insert(3, "xx"); },
                                [](ZCString& s) { s.Delete(0, 3); },
                                [](ZCString& s) { s.TrimLeft(); },
                                [](ZCString& s) { s.TrimRight(" d"); },
                                [](ZCString& s) { s.GetBuffer(0)[2] = 'X'; },
                                [](ZCString& s) { s.GetBufferSetLength(4)[0] = 'Z'; },
                                [](ZCString& s) { s.ReleaseBuffer(3); }};
    for (size_t i = 0; i < std::size(ops); i++) {
        ZCString original(kText), copy;
        copy = original;
        ASSERT_EQ(Ptr(copy), Ptr(original)) << "op " << i;
        ops[i](copy);
        EXPECT_STREQ(Ptr(original), kText) << "op " << i;
        EXPECT_EQ(original.GetLength(), int(strlen(kText))) << "op " << i;
        EXPECT_NE(Ptr(copy), Ptr(original)) << "op " << i;
    }
}

// The shared empty buffer is never written; a buffer asked for is private even
// for an empty string.  Arguments may point into the string being changed.
TEST(ZCStringShare, EmptyBufferAndArgumentsFromTheStringItself) {
    ZCString e, f(""), g(nullptr), h('x', 0), s("abcdef");
    for (const ZCString* other : {&f, &g, &h})
        EXPECT_EQ(Ptr(*other), Ptr(e));
    strcpy(g.GetBuffer(10), "written");
    g.ReleaseBuffer();
    EXPECT_TRUE(*Ptr(e) == '\0' && g == "written" && g.GetLength() == 7);

    s += s;
    s = Ptr(s) + 6;
    s.Insert(1, Ptr(s) + 3);
    s.Format("%s|%s", Ptr(s), Ptr(s) + 7);
    EXPECT_EQ(s, "adefbcdef|ef");
    EXPECT_EQ(s.Replace(Ptr(s) + 10, Ptr(s) + 1), 3);
    EXPECT_EQ(s, "addefbcdef|efbcddefbcdef|ef|defbcdef|ef");
}

// Copies made and changed in four threads at once never change the original,
// whose count is back to one afterwards: writing to it needs no copy.
TEST(ZCStringThreads, CopiesInManyThreadsNeverDisturbTheOriginal) {
    const char* kText = "the shared original text";
    ZCString original(kText);
    const char* buffer = original;
    int failures[4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20000; i++) {
                ZCString a = original, b = a;
                int op = (i + t) % 3;
                op == 0 ? void(a.MakeUpper()) : op == 1 ? void(a += 'x') : void(b.SetAt(0, 'T'));
                failures[t] += original != kText || (op < 2 ? a : b) == kText;
            }
        });
    for (auto& th : threads)
        th.join();
    ExpectEach(failures, {0, 0, 0, 0});
    EXPECT_EQ(original.GetBuffer(0), buffer);
}

TEST(ZCStringEdit, FindCompareAndClampAtTheEnds) {
    ZCString s("abcabc"), h("hello");
    const int found[] = {s.Find('c', 3),    s.Find('c', 6),  s.Find('c', -1),    s.Find("bc", 2),
                         s.Find("abcd"),    s.Find("", 6),   s.Find("", 7),      s.ReverseFind('a'),
                         s.FindOneOf("xc"), s.FindOneOf(""), ZCString().Find("")};
    ExpectEach(found, {5, -1, -1, 4, -1, 6, -1, 3, 2, -1, 0});
    const ZCString parts[] = {h.Mid(1, 3),  h.Mid(-2, 2), h.Mid(3, 100), h.Mid(5),   h.Mid(9, 1),
                              h.Mid(2, -1), h.Left(-1),   h.Right(2),    h.Right(99)};
    ExpectEach(parts, {"ell", "he", "lo", "", "", "", "", "lo", "hello"});
    h.SetAt(99, 'z'); // outside the string nothing is written or read
    EXPECT_TRUE(h[4] == 'o' && h.GetAt(5) == '\0' && h.GetAt(-1) == '\0');
    EXPECT_TRUE(h.CompareNoCase("HELLO") == 0 && h.Compare("help") < 0 && h == "hello");
    EXPECT_TRUE(ZCString("a") < "b" && "b" > ZCString("a") && ZCString("a") <= ZCString("a"));
    EXPECT_TRUE("abc" == ZCString("abc") && ZCString("abc") != "abd" && ZCString() == nullptr);
    EXPECT_EQ('<' + h + '>' + "y" + ZCString('-', 3) + ZCString("abcdef", 3), "<hello>y---abc");
}

TEST(ZCStringEdit, ReplaceInsertDeleteTrim) {
    auto replace = [](const char* in, const char* from, const char* to) {
        ZCString s(in);
        int n = s.Replace(from, to);
        return std::to_string(n) + ":" + Ptr(s);
    };
    const std::string replaced[] = {
        replace("a--b--c--", "--", "+++"), replace("a+++b+", "+++", "-"), replace("a-b-", "-", ""),
        replace("abc", "abc", nullptr),    replace("aaaa", "aa", "a"),    replace("aa", "", "x")};
    ExpectEach(replaced, {"3:a+++b+++c+++", "1:a-b+", "2:ab", "1:", "2:aa", "0:aa"});
    ZCString s("aa");
    const int counts[] = {s.Replace('a', 'a'), s.Replace('a', 'b'), s.Remove('b'),
                          s.Insert(-5, "bc"),  s.Insert(100, 'z'),  s.Insert(0, 'a'),
                          s.Delete(3, 100),    s.Delete(-2, 1),     s.Delete(1, 0)};
    ExpectEach(counts, {0, 2, 2, 2, 3, 4, 3, 2, 2});
    EXPECT_EQ(s, "bc");

    const ZCString trimmed[] = {ZCString(" \t\n x y \r\n").TrimLeft().TrimRight(),
                                ZCString("xxaxx").TrimLeft('x').TrimRight('x'),
                                ZCString("-=a=-").TrimRight("=-").TrimLeft("-="),
                                ZCString("   ").Trim(),
                                ZCString("abc").TrimLeft("").TrimRight(nullptr)};
    ExpectEach(trimmed, {"x y", "a", "a", "", "abc"});
}

TEST(ZCStringFormat, LongOutputAndDirectBuffers) {
    ZCString s;
    s.Format("[%s|%08d|%-3s]", std::string(5000, 'q').c_str(), 42, "ab");
    for (int i = 0; i < 1000; i++)
        s.AppendFormat("%04d", i);
    EXPECT_EQ(s.GetLength(), 5015 + 4000);
    EXPECT_EQ(s.Mid(5000, 16) + s.Right(8), "q|00000042|ab ]009980999");

    s = "abc";
    strcpy(s.GetBuffer(20) + 3, "defgh");
    s.ReleaseBuffer();
    EXPECT_TRUE(s == "abcdefgh" && s.GetLength() == 8);
    s.ReleaseBuffer(2);
    memcpy(s.GetBufferSetLength(5) + 2, "xyz", 3);
    EXPECT_EQ(s, "abxyz");
    s.ReleaseBuffer(1000); // clamped to what was allocated
    EXPECT_EQ(s.Left(5), "abxyz");
}

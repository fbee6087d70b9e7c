// A reference-counted, copy-on-write narrow string with the interface of the
// classic MFC string class.
//
// The object is one pointer to the characters; a header with the reference
// count, the length and the allocated length sits just before them.  Copies
// share the buffer and every mutating operation first makes it private, so a
// write through one copy is never seen through another.  Counts are changed
// (and read) only under the process-wide interlock mutex, which makes it safe
// for copies of one string to live and change in different threads at once.
// A single ZCString object is still for one thread at a time.  Every empty
// string shares one static empty buffer whose count is never touched.
//
// The text is C text: searches and comparisons stop at the first '\0', as
// the classic class's do.  Lengths and indices are int.  Allocation failure,
// and any length that would not fit an int, throws std::bad_alloc.
//
// Out-of-range arguments are clamped the classic way where the classic class
// defines it (Mid, Left, Right, Insert, Delete, Find); GetAt and operator[]
// return '\0' and SetAt does nothing for an index outside the string, where
// the classic class merely asserts.
#pragma once

#include <cstdarg>

struct ZCStringData;

class ZCString {
public:
    ZCString();
    ZCString(const ZCString& other);
    ZCString(ZCString&& other) noexcept;
    ZCString(const char* text);             // null reads as empty
    ZCString(const char* text, int length); // exactly length characters
    explicit ZCString(char ch, int repeat = 1);
    ~ZCString();

    int GetLength() const;
    bool IsEmpty() const { return GetLength() == 0; }
    void Empty();

    char GetAt(int index) const;
    char operator[](int index) const { return GetAt(index); }
    void SetAt(int index, char ch);
    const char* GetString() const { return m_pchData; }
    operator const char*() const { return m_pchData; }

    ZCString& operator=(const ZCString& other);
    ZCString& operator=(ZCString&& other) noexcept;
    ZCString& operator=(const char* text);
    ZCString& operator=(char ch);
    ZCString& operator+=(const ZCString& other);
    ZCString& operator+=(const char* text);
    ZCString& operator+=(char ch);

    friend ZCString operator+(const ZCString& a, const ZCString& b);
    friend ZCString operator+(const ZCString& a, const char* b);
    friend ZCString operator+(const char* a, const ZCString& b);
    friend ZCString operator+(const ZCString& a, char b);
    friend ZCString operator+(char a, const ZCString& b);

    // strcmp / strcasecmp order: negative, zero or positive.
    int Compare(const char* text) const;
    int CompareNoCase(const char* text) const;

    ZCString Mid(int first) const;
    ZCString Mid(int first, int count) const;
    ZCString Left(int count) const;
    ZCString Right(int count) const;

    ZCString& MakeUpper();
    ZCString& MakeLower();
    ZCString& MakeReverse();

    // Index of the first match at or after start, or -1.  A start outside
    // the string finds nothing (for a substring, start may equal the length).
    int Find(char ch, int start = 0) const;
    int Find(const char* sub, int start = 0) const;
    int ReverseFind(char ch) const;
    int FindOneOf(const char* set) const;

    // Return the number of replacements or removals.  Replacing with an
    // empty or null text removes; an empty text to look for replaces nothing.
    int Replace(char oldCh, char newCh);
    int Replace(const char* oldText, const char* newText);
    int Remove(char ch);
    // Return the new length.  An index below 0 is 0; past the end appends.
    int Insert(int index, char ch);
    int Insert(int index, const char* text);
    int Delete(int index, int count = 1);

    // Without an argument trim white space (isspace); else the one character
    // or any character of the set.
    ZCString& TrimLeft();
    ZCString& TrimLeft(char target);
    ZCString& TrimLeft(const char* targets);
    ZCString& TrimRight();
    ZCString& TrimRight(char target);
    ZCString& TrimRight(const char* targets);
    ZCString& Trim() { return TrimRight().TrimLeft(); }

    // printf-style, any length.  Arguments may point into this string.
    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* format, va_list args);
    void AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // The way to write into the characters directly: GetBuffer makes the
    // buffer private and at least minLength long (plus the terminator) and
    // keeps the text; after writing, ReleaseBuffer sets the length (-1: up to
    // the first '\0', at most the allocated length).  The pointer is valid
    // until the next operation on the string.
    char* GetBuffer(int minLength);
    char* GetBufferSetLength(int length);
    void ReleaseBuffer(int newLength = -1);

private:
    ZCStringData* GetData() const;
    static ZCStringData* Nil();
    static ZCStringData* Alloc(int length, int allocLength);
    static void AddRef(ZCStringData* data);
    static void Release(ZCStringData* data);
    static bool IsShared(ZCStringData* data);

    void Attach(ZCStringData* data);
    bool Overlaps(const char* text) const;
    void CopyBeforeWrite();
    char* PrepareWrite(int newLength);
    void SetLength(int length);
    void Assign(const char* text, int length);
    void Append(const char* text, int length);
    int InsertText(int index, const char* text, int length);
    ZCString& DropLeft(int count);
    ZCString& DropRight(int count);
    static ZCString Concat(const char* a, int na, const char* b, int nb);

    char* m_pchData;
};

bool operator==(const ZCString& a, const ZCString& b);
bool operator==(const ZCString& a, const char* b);
bool operator==(const char* a, const ZCString& b);
bool operator!=(const ZCString& a, const ZCString& b);
bool operator!=(const ZCString& a, const char* b);
bool operator!=(const char* a, const ZCString& b);
bool operator<(const ZCString& a, const ZCString& b);
bool operator<(const ZCString& a, const char* b);
bool operator<(const char* a, const ZCString& b);
bool operator>(const ZCString& a, const ZCString& b);
bool operator>(const ZCString& a, const char* b);
bool operator>(const char* a, const ZCString& b);
bool operator<=(const ZCString& a, const ZCString& b);
bool operator<=(const ZCString& a, const char* b);
bool operator<=(const char* a, const ZCString& b);
bool operator>=(const ZCString& a, const ZCString& b);
bool operator>=(const ZCString& a, const char* b);
bool operator>=(const char* a, const ZCString& b);

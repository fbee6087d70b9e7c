#include "ZCString.h"

#include "qsWinApi.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <strings.h>

// The header in front of the characters of every buffer.  nRefs is changed
// and read only under gInterlockMutex.  The lengths are written only by the
// single owner of an unshared buffer.
struct ZCStringData {
    LONG nRefs;
    int nDataLength;
    int nAllocLength; // characters, not counting the terminator

    char* Chars() { return reinterpret_cast<char*>(this + 1); }
};

namespace {

// The shared empty string.  Constant-initialised, so strings made by static
// initialisers elsewhere find it ready.  Its count stays -1 and is never
// changed, and its one character is never written.
struct NilBlock {
    ZCStringData hdr;
    char text[sizeof(LONG)];
};
static_assert(offsetof(NilBlock, text) == sizeof(ZCStringData));

constinit NilBlock g_Nil = {{-1, 0, 0}, {0}};

// Longest text: the allocation size has to fit an int as well.
constexpr int kMaxLength = INT_MAX - 64;

int CheckedLength(size_t length) {
    if (length > size_t(kMaxLength))
        throw std::bad_alloc();
    return int(length);
}

int TextLength(const char* text) {
    return text ? CheckedLength(strlen(text)) : 0;
}

int SumLength(int a, int b) {
    return CheckedLength(size_t(a) + size_t(b));
}

bool IsInSet(const char* set, char c) {
    return c != '\0' && strchr(set, c) != nullptr;
}

template <class Pred> int CountLeading(const char* s, int length, Pred pred) {
    int n = 0;
    while (n < length && pred(s[n]))
        n++;
    return n;
}

template <class Pred> int CountTrailing(const char* s, int length, Pred pred) {
    int n = 0;
    while (n < length && pred(s[length - 1 - n]))
        n++;
    return n;
}

bool IsWhite(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

} // namespace

// --- Buffer management --------------------------------------------------

ZCStringData* ZCString::GetData() const {
    return reinterpret_cast<ZCStringData*>(m_pchData) - 1;
}

ZCStringData* ZCString::Nil() {
    return &g_Nil.hdr;
}

ZCStringData* ZCString::Alloc(int length, int allocLength) {
    auto* data =
        static_cast<ZCStringData*>(::operator new(sizeof(ZCStringData) + size_t(allocLength) + 1));
    data->nRefs = 1;
    data->nDataLength = length;
    data->nAllocLength = allocLength;
    data->Chars()[length] = '\0';
    return data;
}

void ZCString::AddRef(ZCStringData* data) {
    if (data != Nil())
        InterlockedIncrement(&data->nRefs);
}

// Acts on the value read under the lock: only the holder whose decrement
// reached zero frees, so two last holders in two threads cannot both free.
void ZCString::Release(ZCStringData* data) {
    if (data != Nil() && InterlockedDecrement(&data->nRefs) == 0)
        ::operator delete(data);
}

// Read under the lock too: it orders this owner's coming writes after the
// reads of the holder that has just let go of the buffer in another thread.
// A count of 1 cannot rise behind our back, since only this object holds it.
bool ZCString::IsShared(ZCStringData* data) {
    if (data == Nil())
        return true;
    pthread_mutex_lock(&gInterlockMutex);
    LONG refs = data->nRefs;
    pthread_mutex_unlock(&gInterlockMutex);
    return refs > 1;
}

void ZCString::Attach(ZCStringData* data) {
    m_pchData = data->Chars();
}

bool ZCString::Overlaps(const char* text) const {
    auto p = reinterpret_cast<uintptr_t>(text);
    auto start = reinterpret_cast<uintptr_t>(m_pchData);
    return text && p >= start && p <= start + uintptr_t(GetData()->nAllocLength);
}

void ZCString::CopyBeforeWrite() {
    ZCStringData* old = GetData();
    if (old == Nil() || !IsShared(old))
        return;
    ZCStringData* data = Alloc(old->nDataLength, old->nDataLength);
    memcpy(data->Chars(), old->Chars(), size_t(old->nDataLength));
    Release(old);
    Attach(data);
}

// Makes the buffer private with room for newLength characters, keeping the
// text and its length.  Growth is geometric so that appending in a loop
// stays linear.
char* ZCString::PrepareWrite(int newLength) {
    ZCStringData* old = GetData();
    int length = old->nDataLength;
    int need = std::max(newLength, length);
    if (old != Nil() && old->nAllocLength >= need && !IsShared(old))
        return m_pchData;
    int room = need;
    if (need > length)
        room = std::max(need, int(std::min<long long>(kMaxLength, length + length / 2LL)));
    ZCStringData* data = Alloc(length, room);
    memcpy(data->Chars(), old->Chars(), size_t(length));
    Release(old);
    Attach(data);
    return m_pchData;
}

void ZCString::SetLength(int length) {
    ZCStringData* data = GetData();
    if (data == Nil())
        return;
    data->nDataLength = length;
    m_pchData[length] = '\0';
}

void ZCString::Assign(const char* text, int length) {
    ZCStringData* old = GetData();
    if (length == 0) {
        Release(old);
        Attach(Nil());
        return;
    }
    if (old != Nil() && old->nAllocLength >= length && !IsShared(old)) {
        memmove(m_pchData, text, size_t(length)); // text may lie inside the buffer
        SetLength(length);
        return;
    }
    ZCStringData* data = Alloc(length, length);
    memcpy(data->Chars(), text, size_t(length));
    Release(old);
    Attach(data);
}

void ZCString::Append(const char* text, int length) {
    if (length == 0)
        return;
    int oldLength = GetLength();
    int newLength = SumLength(oldLength, length);
    // A text inside the buffer moves with it when the buffer is replaced.
    ptrdiff_t inside = Overlaps(text) ? text - m_pchData : -1;
    PrepareWrite(newLength);
    if (inside >= 0)
        text = m_pchData + inside;
    memcpy(m_pchData + oldLength, text, size_t(length));
    SetLength(newLength);
}

ZCString ZCString::Concat(const char* a, int na, const char* b, int nb) {
    ZCString result;
    int length = SumLength(na, nb);
    if (length == 0)
        return result;
    ZCStringData* data = Alloc(length, length);
    memcpy(data->Chars(), a, size_t(na));
    memcpy(data->Chars() + na, b, size_t(nb));
    result.Attach(data);
    return result;
}

// --- Construction and assignment ------------------------------------------

ZCString::ZCString() {
    Attach(Nil());
}

ZCString::ZCString(const ZCString& other) : m_pchData(other.m_pchData) {
    AddRef(GetData());
}

ZCString::ZCString(ZCString&& other) noexcept : m_pchData(other.m_pchData) {
    other.Attach(Nil());
}

ZCString::ZCString(const char* text) {
    Attach(Nil());
    Assign(text, TextLength(text));
}

ZCString::ZCString(const char* text, int length) {
    Attach(Nil());
    if (text && length > 0)
        Assign(text, length);
}

ZCString::ZCString(char ch, int repeat) {
    Attach(Nil());
    if (repeat <= 0)
        return;
    ZCStringData* data = Alloc(CheckedLength(size_t(repeat)), repeat);
    memset(data->Chars(), ch, size_t(repeat));
    Attach(data);
}

ZCString::~ZCString() {
    Release(GetData());
}

int ZCString::GetLength() const {
    return GetData()->nDataLength;
}

void ZCString::Empty() {
    Release(GetData());
    Attach(Nil());
}

ZCString& ZCString::operator=(const ZCString& other) {
    if (m_pchData == other.m_pchData)
        return *this;
    AddRef(other.GetData());
    Release(GetData());
    m_pchData = other.m_pchData;
    return *this;
}

ZCString& ZCString::operator=(ZCString&& other) noexcept {
    if (this == &other)
        return *this;
    Release(GetData());
    m_pchData = other.m_pchData;
    other.Attach(Nil());
    return *this;
}

ZCString& ZCString::operator=(const char* text) {
    Assign(text, TextLength(text));
    return *this;
}

ZCString& ZCString::operator=(char ch) {
    Assign(&ch, 1);
    return *this;
}

ZCString& ZCString::operator+=(const ZCString& other) {
    Append(other.m_pchData, other.GetLength());
    return *this;
}

ZCString& ZCString::operator+=(const char* text) {
    Append(text, TextLength(text));
    return *this;
}

ZCString& ZCString::operator+=(char ch) {
    Append(&ch, 1);
    return *this;
}

ZCString operator+(const ZCString& a, const ZCString& b) {
    return ZCString::Concat(a.m_pchData, a.GetLength(), b.m_pchData, b.GetLength());
}

ZCString operator+(const ZCString& a, const char* b) {
    return ZCString::Concat(a.m_pchData, a.GetLength(), b, TextLength(b));
}

ZCString operator+(const char* a, const ZCString& b) {
    return ZCString::Concat(a, TextLength(a), b.m_pchData, b.GetLength());
}

ZCString operator+(const ZCString& a, char b) {
    return ZCString::Concat(a.m_pchData, a.GetLength(), &b, 1);
}

ZCString operator+(char a, const ZCString& b) {
    return ZCString::Concat(&a, 1, b.m_pchData, b.GetLength());
}

// --- Characters and comparison --------------------------------------------

char ZCString::GetAt(int index) const {
    if (index < 0 || index >= GetLength())
        return '\0';
    return m_pchData[index];
}

void ZCString::SetAt(int index, char ch) {
    if (index < 0 || index >= GetLength())
        return;
    CopyBeforeWrite();
    m_pchData[index] = ch;
}

int ZCString::Compare(const char* text) const {
    return strcmp(m_pchData, text ? text : "");
}

int ZCString::CompareNoCase(const char* text) const {
    return strcasecmp(m_pchData, text ? text : "");
}

bool operator==(const ZCString& a, const ZCString& b) {
    return a.Compare(b) == 0;
}
bool operator==(const ZCString& a, const char* b) {
    return a.Compare(b) == 0;
}
bool operator==(const char* a, const ZCString& b) {
    return b.Compare(a) == 0;
}
bool operator!=(const ZCString& a, const ZCString& b) {
    return a.Compare(b) != 0;
}
bool operator!=(const ZCString& a, const char* b) {
    return a.Compare(b) != 0;
}
bool operator!=(const char* a, const ZCString& b) {
    return b.Compare(a) != 0;
}
bool operator<(const ZCString& a, const ZCString& b) {
    return a.Compare(b) < 0;
}
bool operator<(const ZCString& a, const char* b) {
    return a.Compare(b) < 0;
}
bool operator<(const char* a, const ZCString& b) {
    return b.Compare(a) > 0;
}
bool operator>(const ZCString& a, const ZCString& b) {
    return a.Compare(b) > 0;
}
bool operator>(const ZCString& a, const char* b) {
    return a.Compare(b) > 0;
}
bool operator>(const char* a, const ZCString& b) {
    return b.Compare(a) < 0;
}
bool operator<=(const ZCString& a, const ZCString& b) {
    return a.Compare(b) <= 0;
}
bool operator<=(const ZCString& a, const char* b) {
    return a.Compare(b) <= 0;
}
bool operator<=(const char* a, const ZCString& b) {
    return b.Compare(a) >= 0;
}
bool operator>=(const ZCString& a, const ZCString& b) {
    return a.Compare(b) >= 0;
}
bool operator>=(const ZCString& a, const char* b) {
    return a.Compare(b) >= 0;
}
bool operator>=(const char* a, const ZCString& b) {
    return b.Compare(a) <= 0;
}

// --- Extraction -------------------------------------------------------------

ZCString ZCString::Mid(int first) const {
    return Mid(first, INT_MAX);
}

ZCString ZCString::Mid(int first, int count) const {
    int length = GetLength();
    first = std::clamp(first, 0, length);
    count = std::clamp(count, 0, length - first);
    if (first == 0 && count == length)
        return *this;
    return ZCString(m_pchData + first, count);
}

ZCString ZCString::Left(int count) const {
    if (count >= GetLength())
        return *this;
    return ZCString(m_pchData, std::max(count, 0));
}

ZCString ZCString::Right(int count) const {
    int length = GetLength();
    if (count >= length)
        return *this;
    count = std::max(count, 0);
    return ZCString(m_pchData + length - count, count);
}

// --- Case and order ---------------------------------------------------------

ZCString& ZCString::MakeUpper() {
    CopyBeforeWrite();
    for (int i = 0; i < GetLength(); i++)
        m_pchData[i] = char(toupper(static_cast<unsigned char>(m_pchData[i])));
    return *this;
}

ZCString& ZCString::MakeLower() {
    CopyBeforeWrite();
    for (int i = 0; i < GetLength(); i++)
        m_pchData[i] = char(tolower(static_cast<unsigned char>(m_pchData[i])));
    return *this;
}

ZCString& ZCString::MakeReverse() {
    CopyBeforeWrite();
    std::reverse(m_pchData, m_pchData + GetLength());
    return *this;
}

// --- Searching --------------------------------------------------------------

int ZCString::Find(char ch, int start) const {
    if (start < 0 || start >= GetLength() || ch == '\0')
        return -1;
    const char* p = strchr(m_pchData + start, ch);
    return p ? int(p - m_pchData) : -1;
}

int ZCString::Find(const char* sub, int start) const {
    if (start < 0 || start > GetLength())
        return -1;
    const char* p = strstr(m_pchData + start, sub ? sub : "");
    return p ? int(p - m_pchData) : -1;
}

int ZCString::ReverseFind(char ch) const {
    if (ch == '\0')
        return -1;
    const char* p = strrchr(m_pchData, ch);
    return p ? int(p - m_pchData) : -1;
}

int ZCString::FindOneOf(const char* set) const {
    const char* p = set ? strpbrk(m_pchData, set) : nullptr;
    return p ? int(p - m_pchData) : -1;
}

// --- Editing ----------------------------------------------------------------

int ZCString::Replace(char oldCh, char newCh) {
    if (oldCh == newCh)
        return 0;
    int length = GetLength();
    int count = int(std::count(m_pchData, m_pchData + length, oldCh));
    if (count == 0)
        return 0;
    CopyBeforeWrite();
    std::replace(m_pchData, m_pchData + length, oldCh, newCh);
    return count;
}

// Always builds a new buffer, reading the old one and both texts before the
// old one is let go; so either text may point into this string.
int ZCString::Replace(const char* oldText, const char* newText) {
    int oldLength = TextLength(oldText);
    if (oldLength == 0)
        return 0;
    int newLength = TextLength(newText);
    int count = 0;
    for (const char* p = m_pchData; (p = strstr(p, oldText)) != nullptr; p += oldLength)
        count++;
    if (count == 0)
        return 0;
    long long total = GetLength() + (long long)count * (newLength - oldLength);
    int length = CheckedLength(size_t(total));
    ZCStringData* old = GetData();
    ZCStringData* data = length ? Alloc(length, length) : Nil();
    char* out = data->Chars();
    const char* in = m_pchData;
    for (const char* hit; length && (hit = strstr(in, oldText)) != nullptr; in = hit + oldLength) {
        memcpy(out, in, size_t(hit - in));
        out += hit - in;
        memcpy(out, newText, size_t(newLength));
        out += newLength;
    }
    if (length)
        memcpy(out, in, size_t(m_pchData + old->nDataLength - in));
    Release(old);
    Attach(data);
    return count;
}

int ZCString::Remove(char ch) {
    int length = GetLength();
    int count = int(std::count(m_pchData, m_pchData + length, ch));
    if (count == 0)
        return 0;
    CopyBeforeWrite();
    std::remove(m_pchData, m_pchData + length, ch);
    SetLength(length - count);
    return count;
}

int ZCString::Insert(int index, char ch) {
    return InsertText(index, &ch, 1);
}

int ZCString::Insert(int index, const char* text) {
    return InsertText(index, text, TextLength(text));
}

int ZCString::InsertText(int index, const char* text, int length) {
    int oldLength = GetLength();
    if (length == 0)
        return oldLength;
    if (Overlaps(text)) {
        ZCString copy(text, length);
        return InsertText(index, copy.m_pchData, length);
    }
    index = std::clamp(index, 0, oldLength);
    int newLength = SumLength(oldLength, length);
    PrepareWrite(newLength);
    memmove(m_pchData + index + length, m_pchData + index, size_t(oldLength - index));
    memcpy(m_pchData + index, text, size_t(length));
    SetLength(newLength);
    return newLength;
}

int ZCString::Delete(int index, int count) {
    int length = GetLength();
    index = std::max(index, 0);
    if (index >= length || count <= 0)
        return length;
    count = std::min(count, length - index);
    CopyBeforeWrite();
    memmove(m_pchData + index, m_pchData + index + count, size_t(length - index - count));
    SetLength(length - count);
    return length - count;
}

// --- Trimming ---------------------------------------------------------------

ZCString& ZCString::DropLeft(int count) {
    int length = GetLength();
    if (count == 0)
        return *this;
    if (count == length) {
        Empty();
        return *this;
    }
    CopyBeforeWrite();
    memmove(m_pchData, m_pchData + count, size_t(length - count));
    SetLength(length - count);
    return *this;
}

ZCString& ZCString::DropRight(int count) {
    int length = GetLength();
    if (count == 0)
        return *this;
    if (count == length) {
        Empty();
        return *this;
    }
    CopyBeforeWrite();
    SetLength(length - count);
    return *this;
}

ZCString& ZCString::TrimLeft() {
    return DropLeft(CountLeading(m_pchData, GetLength(), IsWhite));
}

ZCString& ZCString::TrimLeft(char target) {
    return DropLeft(CountLeading(m_pchData, GetLength(), [=](char c) { return c == target; }));
}

ZCString& ZCString::TrimLeft(const char* targets) {
    if (!targets)
        return *this;
    return DropLeft(
        CountLeading(m_pchData, GetLength(), [=](char c) { return IsInSet(targets, c); }));
}

ZCString& ZCString::TrimRight() {
    return DropRight(CountTrailing(m_pchData, GetLength(), IsWhite));
}

ZCString& ZCString::TrimRight(char target) {
    return DropRight(CountTrailing(m_pchData, GetLength(), [=](char c) { return c == target; }));
}

ZCString& ZCString::TrimRight(const char* targets) {
    if (!targets)
        return *this;
    return DropRight(
        CountTrailing(m_pchData, GetLength(), [=](char c) { return IsInSet(targets, c); }));
}

// --- Formatting -------------------------------------------------------------

void ZCString::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    try {
        FormatV(format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
}

// Measures, then formats into a new buffer, so arguments may point into the
// old text.  An encoding error leaves the string empty.
void ZCString::FormatV(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int needed = format ? vsnprintf(nullptr, 0, format, measure) : 0;
    va_end(measure);
    if (needed <= 0) {
        Empty();
        return;
    }
    ZCStringData* data = Alloc(CheckedLength(size_t(needed)), needed);
    vsnprintf(data->Chars(), size_t(needed) + 1, format, args);
    Release(GetData());
    Attach(data);
}

void ZCString::AppendFormat(const char* format, ...) {
    ZCString text;
    va_list args;
    va_start(args, format);
    try {
        text.FormatV(format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    *this += text;
}

// --- Direct buffer access ---------------------------------------------------

char* ZCString::GetBuffer(int minLength) {
    return PrepareWrite(std::max(minLength, 0));
}

char* ZCString::GetBufferSetLength(int length) {
    length = std::max(length, 0);
    PrepareWrite(length);
    SetLength(length);
    return m_pchData;
}

void ZCString::ReleaseBuffer(int newLength) {
    if (GetData() == Nil())
        return;
    CopyBeforeWrite();
    int room = GetData()->nAllocLength;
    if (newLength < 0)
        newLength = int(strnlen(m_pchData, size_t(room)));
    SetLength(std::min(newLength, room));
}

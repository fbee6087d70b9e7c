#include "ZLogFile.h"

#include "qsBitUtils.h"
#include "qsWinApi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <random>
#include <unistd.h>
#include <vector>

using qsBitUtils::ReverseEndiannessOf;

namespace {

const FILETIME kTime = {0x11223344, 0x55667788};
const DWORD kPid = 0x1234, kTid = 0xABCD0042;
typedef std::vector<DWORD> V;

// A file image exactly as large as its header says (so that the address
// sanitizer sees any read past its end), word-aligned like a mapping.
struct Image {
    explicit Image(DWORD sizeKB, uint32_t fill = 0) : words(sizeKB * 256, fill) {
        new (words.data()) ZLogFile(sizeKB);
    }
    ZLogFile* File() { return reinterpret_cast<ZLogFile*>(words.data()); }
    unsigned char* Bytes() { return reinterpret_cast<unsigned char*>(words.data()); }
    DWORD Off(const ZLogRec* rec) { return File()->OffsetOf(rec); }
    std::vector<uint32_t> words;
};

// A narrow message as the stream lays it out: code, severity, text.
qsStatus PutMessage(ZLogFile* f, const char* text, DWORD extra = 0) {
    DWORD len = DWORD(strlen(text)) + extra;
    void* p;
    qsStatus s = f->NewRecord(kTime, kPid, kTid, LOGREC_STRING_A, 0, 8 + len, &p);
    if (qsSucceeded(s)) {
        const DWORD head[2] = {0xFFFFFFFE, 1};
        memcpy(p, head, 8);
        memcpy(static_cast<char*>(p) + 8, text, strlen(text));
    }
    return s;
}

// Offsets visited from `rec` (included) until the chain ends; a walk that
// outlives the number of record slots is looping.
V Walk(Image& img, const ZLogRec* rec, bool forward) {
    V seen;
    for (; rec; rec = forward ? img.File()->NextRec(rec) : img.File()->PrevRec(rec)) {
        seen.push_back(img.Off(rec));
        if (seen.size() > img.words.size())
            break;
    }
    return seen;
}

// Size, previous offset, id, flags and type of a record; last and next
// offset, count and wraps of a header.
V Fields(const ZLogRec* r) {
    return {r->GetRecSize(), r->GetPrevOffset(), r->GetRecInfoRecordId(), r->GetRecInfoFlags(),
            r->GetRecInfoType()};
}
V Header(const ZLogFile* f) {
    return {f->LastRecOffset(), f->NextRecOffset(), f->RecordCount(), f->WrapCount()};
}

} // namespace

// ---------------------------------------------------------------- layout

TEST(ZLogFileLayout, WorkedExampleOfOneKiB) {
    Image img(1, 0xA5A5A5A5);
    ZLogFile* f = img.File();
    const unsigned char fresh[28] = {0x9C, 0x46, 0xA1, 0xC0, 0x02, 0x00, 0x01, 0x00, 0x00, 0x04,
                                     0x00, 0x00, 0,    0,    0,    0,    0x1C, 0,    0,    0};
    EXPECT_EQ(0, memcmp(img.Bytes(), fresh, 28));
    EXPECT_EQ(0xA5u, img.Bytes()[28]) << "the record area is not touched";
    EXPECT_TRUE(f->IsHdrDataValid());
    EXPECT_FALSE(f->IsValid(1));
    EXPECT_EQ(static_cast<const void*>(f), f->LastRec());
    EXPECT_EQ(nullptr, f->FirstRec());

    ASSERT_EQ(QS_OK, f->WriteStartRec());
    EXPECT_EQ(0, memcmp(img.Bytes() + 28, "\x9C\x9E\xEE\x87", 4));
    EXPECT_EQ(0, memcmp(img.Bytes() + 60, "STRT", 4));
    EXPECT_EQ((V{40, 0, 1, LOG_REC_FLAG_BOOKKEEPING, LOGREC_START}), Fields(f->RecAt(28)));
    EXPECT_EQ((V{28, 68, 1, 0}), Header(f));
    EXPECT_TRUE(f->IsValid(1));
    EXPECT_EQ(QS_E_NO_LOG_STREAM, f->WriteStartRec()) << "only on an empty file";

    for (DWORD id = 2; id <= 18; id++) {
        ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
        DWORD at = 68 + 56 * (id - 2);
        ASSERT_EQ(at, img.Off(f->LastRec()));
        EXPECT_EQ((V{53, id == 2 ? 28 : at - 56, id, 0, LOGREC_STRING_A}), Fields(f->LastRec()));
        EXPECT_EQ(0, memcmp(img.Bytes() + at + 48, "hello\xA5\xA5\xA5", 8)) << "pad left alone";
    }
    EXPECT_EQ((V{964, 1020, 18, 0}), Header(f));
    EXPECT_EQ(28u, img.Off(f->FirstRec()));

    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    EXPECT_EQ((V{28, 84, 19, 1}), Header(f));
    EXPECT_EQ((V{53, 964, 19, 0, LOGREC_STRING_A}), Fields(f->LastRec()));
    EXPECT_EQ(0xA5A5A5A5u, img.words[1020 / 4]) << "nothing cleared at the wrap";

    // Record 19 covered record 1 and the header of record 2.
    EXPECT_EQ(124u, img.Off(f->FirstRec()));
    V back = {28}, fwd;
    for (DWORD o = 124; o <= 964; o += 56) {
        back.insert(back.begin() + 1, o);
        fwd.push_back(o);
    }
    fwd.push_back(28);
    EXPECT_EQ(back, Walk(img, f->LastRec(), false));
    EXPECT_EQ(fwd, Walk(img, f->FirstRec(), true));

    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    EXPECT_EQ(84u, f->LastRecOffset());
    EXPECT_EQ(28u, f->LastRec()->GetPrevOffset());
    EXPECT_EQ(180u, img.Off(f->FirstRec())) << "record 20 covered the header of record 3";
}

TEST(ZLogFileLayout, RecordEndingExactlyAtTheEnd) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));              // A: id 2 at 68
    ASSERT_EQ(QS_OK, PutMessage(f, "x", 1024 - 124 - 49)); // B: id 3 at 124, ends at 1024
    EXPECT_EQ((V{124, 1024, 3, 0}), Header(f));
    EXPECT_TRUE(f->IsValid(1));
    EXPECT_FALSE(f->IsRecordValid(124)) << "size + offset must stay below the file size";

    void* p;
    ASSERT_EQ(QS_OK, f->NewRecord(kTime, kPid, kTid, LOGREC_CLEAR, 0, 0, &p)); // C: id 4 at 28
    EXPECT_EQ((V{28, 68, 4, 1}), Header(f));
    EXPECT_EQ(124u, f->LastRec()->GetPrevOffset());

    EXPECT_EQ((V{28, 124, 68}), Walk(img, f->LastRec(), false));
    EXPECT_EQ(68u, img.Off(f->FirstRec()));
    // Forward, the slot after A fails the offset check, so the walk tries 28,
    // finds id 4 instead of 3 and ends; from B itself it continues at 28.
    EXPECT_EQ(V{68}, Walk(img, f->FirstRec(), true));
    EXPECT_EQ((V{124, 28}), Walk(img, f->RecAt(124), true));
}

TEST(ZLogFileLayout, RefusalsChangeNothing) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    std::vector<uint32_t> before = img.words;
    void* p = nullptr;
    // Stride 1000 + 28 > 1024; 0xFFFFFFD8 + 40 is 2^32, which 32-bit
    // arithmetic would see as an empty record.
    for (DWORD payload : {957u, 960u, 0xFFFFFFD8u, 0xFFFFFFFFu}) {
        EXPECT_EQ(QS_E_NO_LOG_STREAM, f->NewRecord(kTime, 1, 2, LOGREC_STRING_A, 0, payload, &p));
        EXPECT_EQ(before, img.words) << payload;
    }
    EXPECT_EQ(QS_OK, f->NewRecord(kTime, 1, 2, LOGREC_STRING_A, 0, 956, &p)) << "996 + 28 fits";
    EXPECT_EQ(28u, f->LastRecOffset());

    img.words[0] = 0;
    before = img.words;
    EXPECT_EQ(QS_E_NO_LOG_STREAM, f->WriteStartRec());
    EXPECT_EQ(QS_E_NO_LOG_STREAM, f->WriteResizeRec(1, 2));
    EXPECT_EQ(QS_E_NO_LOG_STREAM, f->ClearRecs());
    EXPECT_EQ(before, img.words);
}

TEST(ZLogFileLayout, BookkeepingRecords) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    for (int i = 0; i < 20; i++)
        ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    ASSERT_EQ(QS_OK, f->WriteResizeRec(64, 1));
    const ZLogRec* resz = f->LastRec();
    EXPECT_EQ((V{48, 140, 22, LOG_REC_FLAG_BOOKKEEPING, LOGREC_RESIZE}), Fields(resz));
    const DWORD sizes[2] = {64, 1};
    EXPECT_EQ(0, memcmp(resz->Payload(), sizes, 8));

    ASSERT_EQ(QS_OK, f->ClearRecs());
    EXPECT_EQ((V{28, 68, 1, 0}), Header(f));
    EXPECT_EQ(f->LastRec(), f->FirstRec());
    EXPECT_EQ((V{40, 0, 1, LOG_REC_FLAG_BOOKKEEPING, LOGREC_CLEAR}), Fields(f->LastRec()));
    EXPECT_EQ(V{28}, Walk(img, f->LastRec(), true));
}

TEST(ZLogFileLayout, CurrentTimeProcessAndThread) {
    Image img(1);
    FILETIME before, after;
    GetSystemTimeAsFileTime(&before);
    void* p;
    ASSERT_EQ(QS_OK, img.File()->NewRecord(LOGREC_STRING_A, 0, 12, &p));
    GetSystemTimeAsFileTime(&after);
    const ZLogRec* r = img.File()->LastRec();
    EXPECT_EQ(static_cast<const void*>(r + 1), p);
    EXPECT_EQ(DWORD(getpid()), r->GetRecInfoProcessId());
    EXPECT_EQ(GetCurrentThreadId(), r->GetRecInfoThreadId());
    uint64_t t = qsFileTimeToUInt64(r->GetRecInfoTimestamp());
    EXPECT_LE(qsFileTimeToUInt64(before), t);
    EXPECT_GE(qsFileTimeToUInt64(after), t);
}

// ---------------------------------------------------------------- byte order

namespace {

void Swap(unsigned char* p, DWORD words = 1) {
    for (DWORD i = 0; i < words; i++) {
        uint32_t v;
        memcpy(&v, p + 4 * i, 4);
        v = ReverseEndiannessOf(v);
        memcpy(p + 4 * i, &v, 4);
    }
}

// What a writer of the other byte order would have put there.
void SwapRecord(unsigned char* r) {
    qsLogRecType type = reinterpret_cast<ZLogRec*>(r)->GetRecInfoType();
    Swap(r, 2);
    uint64_t t;
    memcpy(&t, r + 8, 8);
    t = ReverseEndiannessOf(t);
    memcpy(r + 8, &t, 8);
    Swap(r + 16, 6);
    if (type == LOGREC_STRING_A || type == LOGREC_STRING_W || type == LOGREC_RESIZE)
        Swap(r + 40, 2);
    if (type == LOGREC_EVENT)
        Swap(r + 40, 8);
}

} // namespace

TEST(ZLogFileByteOrder, OppositeImageReadsBackConverted) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    for (int i = 0; i < 13; i++)
        ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    void* p;
    const uint32_t wide[4] = {0xFFFFFFFF, 2, L'h', L'i'};
    ASSERT_EQ(QS_OK, f->NewRecord(kTime, kPid, kTid, LOGREC_STRING_W, 0, 16, &p));
    memcpy(p, wide, 16);
    const uint32_t event[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(QS_OK, f->NewRecord(kTime, kPid, kTid, LOGREC_EVENT, 9, 32, &p));
    memcpy(p, event, 32);
    ASSERT_EQ(QS_OK, f->WriteResizeRec(4, 1));
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    ASSERT_EQ(1u, f->WrapCount());

    Image native = img;
    V chain = Walk(native, native.File()->FirstRec(), true);
    ASSERT_EQ(16u, chain.size());
    Swap(img.Bytes(), 7);
    for (DWORD o : chain)
        SwapRecord(img.Bytes() + o);
    ASSERT_EQ(0, memcmp(img.Bytes(), "\xC0\xA1\x46\x9C", 4));

    ZLogFile* n = native.File();
    EXPECT_TRUE(f->IsOppositeEndian());
    EXPECT_TRUE(f->IsHdrDataValid());
    EXPECT_TRUE(f->IsValid(1));
    EXPECT_EQ(1024u, f->SizeInBytes());
    EXPECT_EQ(Header(n), Header(f));
    EXPECT_EQ(chain, Walk(img, f->FirstRec(), true));
    V back = Walk(native, n->LastRec(), false);
    EXPECT_EQ(back, Walk(img, f->LastRec(), false));

    for (DWORD o : chain) {
        const ZLogRec* s = f->RecAt(o);
        const ZLogRec* r = n->RecAt(o);
        ASSERT_TRUE(s->IsOppositeEndian());
        EXPECT_TRUE(f->IsRecordValid(o));
        ZLogRecInfo si = s->GetRecInfo(), ri = r->GetRecInfo();
        EXPECT_EQ(0, memcmp(&si, &ri, sizeof si)) << o;
        EXPECT_EQ(Fields(r), Fields(s));

        DWORD len = s->GetRecSize() - 40;
        std::vector<unsigned char> copy(len);
        memcpy(copy.data(), s->Payload(), len);
        ZLogRec::ConvertPayload(s->GetRecInfoType(), copy.data(), len);
        std::vector<unsigned char> want(static_cast<const unsigned char*>(r->Payload()),
                                        static_cast<const unsigned char*>(r->Payload()) + len);
        if (s->GetRecInfoType() == LOGREC_EVENT) // word 2 stays as stored, word 3 is lost
            memcpy(&want[8], "\0\0\0\3\3\0\0\0", 8);
        EXPECT_EQ(want, copy) << o;
    }
}

// The caller's copy may be unaligned and cut short: only whole words inside
// the size change, and an event never has more than eight.
TEST(ZLogFileByteOrder, ConvertPayloadStaysInsideItsSize) {
    struct {
        qsLogRecType type;
        DWORD size;
        std::vector<int> reversed;
        bool quirk; // word 3 takes the reversed word 2
    } cases[] = {{LOGREC_STRING_A, 6, {0}, false},    {LOGREC_STRING_W, 40, {0, 1}, false},
                 {LOGREC_RESIZE, 12, {0, 1}, false},  {LOGREC_EVENT, 12, {0, 1}, false},
                 {LOGREC_EVENT, 21, {0, 1, 4}, true}, {LOGREC_EVENT, 36, {0, 1, 4, 5, 6, 7}, true},
                 {LOGREC_START, 36, {}, false}};
    for (const auto& c : cases) {
        unsigned char buf[1 + 36];
        for (unsigned i = 0; i < sizeof buf; i++)
            buf[i] = (unsigned char)i;
        uint32_t w[9], got[9];
        memcpy(w, buf + 1, 36);
        ZLogRec::ConvertPayload(c.type, buf + 1, c.size);
        memcpy(got, buf + 1, 36);
        for (int i = 0; i < 9; i++) {
            bool rev = std::find(c.reversed.begin(), c.reversed.end(), i) != c.reversed.end();
            uint32_t want = rev ? ReverseEndiannessOf(w[i]) : w[i];
            if (c.quirk && i == 3)
                want = ReverseEndiannessOf(w[2]);
            EXPECT_EQ(want, got[i]) << c.type << " " << c.size << " word " << i;
        }
    }
}

// ---------------------------------------------------------------- validity

TEST(ZLogFileValidity, OffsetsAndHeaders) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    EXPECT_TRUE(f->IsRecordValid(28));
    EXPECT_TRUE(f->IsRecordValid(68));
    // A signature in the last words must not make the check read past the end.
    img.words[1020 / 4] = img.words[988 / 4] = LOG_REC_SIGNATURE;
    for (DWORD o : {0xFFFFFFFCu, 0u, 24u, 30u, 988u, 1020u, 1024u, 1028u, 124u})
        EXPECT_FALSE(f->IsRecordValid(o)) << o;
    EXPECT_FALSE(f->IsRecordValid(nullptr, 0));
    EXPECT_FALSE(f->IsRecordValid(f->RecAt(1000), 0));
    EXPECT_FALSE(f->IsRecordValid(reinterpret_cast<const ZLogRec*>(f), 0));
    if constexpr (sizeof(void*) == 8) { // 4 GiB away: must not truncate onto offset 68
        uintptr_t far = uintptr_t(reinterpret_cast<uintptr_t>(f) + (uint64_t(1) << 32) + 68);
        EXPECT_FALSE(f->IsRecordValid(reinterpret_cast<const ZLogRec*>(far), 0));
        EXPECT_EQ(nullptr, f->NextRec(reinterpret_cast<const ZLogRec*>(far)));
    }

    ZLogRec* r = reinterpret_cast<ZLogRec*>(img.Bytes() + 68);
    r->SetRecSize(1024 - 68 - 1);
    EXPECT_TRUE(f->IsRecordValid(68));
    r->SetRecSize(1024 - 68);
    EXPECT_FALSE(f->IsRecordValid(68));
    EXPECT_TRUE(f->IsRecordValid(r, 0)) << "a pointer bounds the size only by the file";
    r->SetRecSize(0xFFFFFFF0); // wraps below the size in 32 bits
    EXPECT_FALSE(f->IsRecordValid(68));
    r->SetRecSize(53);
    r->SetPrevOffset(1024);
    EXPECT_FALSE(f->IsRecordValid(68));
    r->SetPrevOffset(28);
    r->SetSignature(ReverseEndiannessOf(LOG_REC_SIGNATURE) ^ 1);
    EXPECT_FALSE(f->IsRecordValid(68));

    EXPECT_TRUE(f->IsValid(1));
    EXPECT_FALSE(f->IsValid(2));
    EXPECT_FALSE(f->IsValid(0x400001)) << "the shift must not wrap onto the real size";
    auto with = [&](int field, uint32_t v) {
        Image copy = img;
        copy.words[field] = v;
        return copy.File()->IsValid(1);
    };
    EXPECT_TRUE(with(4, 1024));
    EXPECT_FALSE(with(4, 1028));
    EXPECT_FALSE(with(4, 24));
    EXPECT_FALSE(with(3, 1024));
    EXPECT_FALSE(with(3, 0));
    EXPECT_FALSE(with(1, 0x00010003));
}

TEST(ZLogFileValidity, CraftedChains) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    auto craft = [&](DWORD at, DWORD id, DWORD size, DWORD prev) {
        ZLogRec* r = reinterpret_cast<ZLogRec*>(img.Bytes() + at);
        r->SetSignature(LOG_REC_SIGNATURE);
        r->SetRecSize(size);
        r->SetRecInfoRecordId(id);
        r->SetPrevOffset(prev);
        return r;
    };
    // 200 + stride(2^32 - 48) is 152 in 32 bits; the step must go to 28.
    ZLogRec* x = craft(200, 7, 0xFFFFFFD0, 0);
    craft(152, 8, 40, 0);
    EXPECT_EQ(nullptr, f->NextRec(x));
    craft(28, 8, 40, 200);
    EXPECT_EQ(f->RecAt(28), f->NextRec(x));

    // Two records naming each other as previous: the ids end the walk.
    craft(28, 5, 40, 100);
    craft(100, 4, 40, 28);
    img.words[5] = 5;
    EXPECT_EQ(100u, img.Off(f->FirstRec()));
    // Previous offsets that are misaligned or too close to the end hold no
    // record, whatever lies there.
    img.words[988 / 4] = img.words[1020 / 4] = LOG_REC_SIGNATURE;
    for (DWORD prev : {102u, 988u, 1020u}) {
        craft(28, 5, 40, prev);
        EXPECT_EQ(nullptr, f->PrevRec(f->RecAt(28))) << prev;
    }
}

// Damaged and random images: every query and walk must end without reading
// outside the image (the sanitizer builds catch that).
TEST(ZLogFileValidity, DamagedImagesWalkSafely) {
    Image good(2);
    ASSERT_EQ(QS_OK, good.File()->WriteStartRec());
    for (int i = 0; i < 60; i++)
        ASSERT_EQ(QS_OK, PutMessage(good.File(), "hello", DWORD(i % 7)));

    std::mt19937 rnd(4711);
    const DWORD size = DWORD(good.words.size() * 4);
    // Signatures in both orders, offsets in and just past the image, small
    // numbers (ids, offsets in the header) and noise.
    auto pick = [&]() -> uint32_t {
        const uint32_t kinds[6] = {LOG_REC_SIGNATURE,
                                   ReverseEndiannessOf(LOG_REC_SIGNATURE),
                                   uint32_t(rnd() % (size + 64)),
                                   ReverseEndiannessOf(uint32_t(rnd() % size)),
                                   uint32_t(rnd() % 80),
                                   uint32_t(rnd())};
        return kinds[rnd() % 6];
    };
    for (int round = 0; round < 3000; round++) {
        Image img = good;
        if (round % 3 == 0) {
            for (auto& w : img.words)
                w = pick();
            new (img.words.data()) ZLogFile(2);
            img.words[3] = pick();
            img.words[5] = pick();
        }
        for (int k = int(rnd() % 40); k >= 0; k--)
            img.words[7 + rnd() % (img.words.size() - 7)] = pick();
        if (round % 2)
            Swap(img.Bytes(), 7);
        ZLogFile* f = img.File();
        const ZLogRec* first = f->FirstRec();
        const ZLogRec* last = f->LastRec();
        EXPECT_LE(Walk(img, first, true).size(), size / 4);
        EXPECT_LE(Walk(img, last, false).size(), size / 4);
        for (int k = 0; k < 8; k++) {
            DWORD o = pick();
            f->IsRecordValid(o);
            const ZLogRec* at = f->RecAt(o & ~3u);
            f->IsRecordValid(at, o);
            f->NextRec(at);
            f->PrevRec(at);
        }
    }
}

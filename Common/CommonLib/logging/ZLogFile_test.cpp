#include "ZLogFile.h"

#include "qsBitUtils.h"
#include "qsLogRecords.h"
#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <unistd.h>
#include <vector>

using qsBitUtils::ReverseEndiannessOf;

namespace {

const FILETIME kTime = {0x11223344, 0x55667788};
typedef std::vector<DWORD> V;

// A file image exactly as large as its header says (so that the address
// sanitizer sees any read past its end), word-aligned like a mapping.
struct Image {
    explicit Image(DWORD sizeKB, uint32_t fill = 0) : words(sizeKB * 256, fill) {
        new (words.data()) ZLogFile(sizeKB);
    }
    ZLogFile* File() { return reinterpret_cast<ZLogFile*>(words.data()); }
    unsigned char* Bytes() { return reinterpret_cast<unsigned char*>(words.data()); }
    std::vector<uint32_t> words;
};

// A narrow message as the stream lays it out: code, severity, text.
qsStatus PutMessage(ZLogFile* f, const char* text, DWORD extra = 0) {
    DWORD len = DWORD(strlen(text));
    char* p;
    qsStatus s = f->NewRecord(kTime, 0x1234, 0xABCD0042, LOGREC_STRING_A, 0, 8 + len + extra,
                              reinterpret_cast<void**>(&p));
    if (qsSucceeded(s)) {
        memcpy(p, "\xFE\xFF\xFF\xFF\1\0\0\0", 8); // code -2, severity 1
        memcpy(p + 8, text, len);
    }
    return s;
}

// Offsets visited from `rec` (included) until the chain ends; a walk that
// outlives the number of record slots is looping.
V Walk(Image& img, const ZLogRec* rec, bool forward) {
    V seen;
    for (ZLogFile* f = img.File(); rec && seen.size() <= img.words.size();
         rec = forward ? f->NextRec(rec) : f->PrevRec(rec))
        seen.push_back(f->OffsetOf(rec));
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

// Offsets of the records the newest-first walk visits.
V WalkBack(const ZLogFile* f) {
    V seen;
    f->WalkNewestFirst([&](const ZLogRec* rec) {
        seen.push_back(f->OffsetOf(rec));
        return seen.size() < 4096;
    });
    return seen;
}

} // namespace

TEST(ZLogFileLayout, WorkedExampleOfOneKiB) {
    Image img(1, 0xA5A5A5A5);
    ZLogFile* f = img.File();
    const char fresh[] = "\x9C\x46\xA1\xC0\x02\0\x01\0\0\x04\0\0\0\0\0\0\x1C\0\0\0\0\0\0\0\0\0\0";
    EXPECT_EQ(0, memcmp(img.Bytes(), fresh, 28));
    EXPECT_EQ(0xA5u, img.Bytes()[28]) << "the record area is not touched";
    EXPECT_FALSE(f->IsValid(1)) << "no record yet";

    FILETIME before, after;
    GetSystemTimeAsFileTime(&before);
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    GetSystemTimeAsFileTime(&after);
    const ZLogRec* start = f->RecAt(28);
    EXPECT_EQ(0, memcmp(img.Bytes() + 28, "\x9C\x9E\xEE\x87", 4));
    EXPECT_EQ(0, memcmp(img.Bytes() + 60, "STRT", 4));
    EXPECT_EQ((V{40, 0, 1, LOG_REC_FLAG_BOOKKEEPING, LOGREC_START}), Fields(start));
    uint64_t t = qsFileTimeToUInt64(start->GetRecInfoTimestamp());
    EXPECT_TRUE(qsFileTimeToUInt64(before) <= t && t <= qsFileTimeToUInt64(after));
    EXPECT_EQ(DWORD(getpid()), start->GetRecInfoProcessId());
    EXPECT_EQ((V{28, 68, 1, 0}), Header(f));
    EXPECT_EQ(QS_E_NO_LOG_STREAM, f->WriteStartRec()) << "only on an empty file";

    for (DWORD id = 2; id <= 18; id++) {
        ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
        DWORD at = 68 + 56 * (id - 2);
        ASSERT_EQ(at, f->LastRecOffset());
        EXPECT_EQ((V{53, id == 2 ? 28 : at - 56, id, 0, LOGREC_STRING_A}), Fields(f->RecAt(at)));
        EXPECT_EQ(0, memcmp(img.Bytes() + at + 48, "hello\xA5\xA5\xA5", 8)) << "pad left alone";
    }
    EXPECT_EQ((V{964, 1020, 18, 0}), Header(f));

    // Record 19 wraps, covering record 1 and the header of record 2.
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    EXPECT_EQ((V{28, 84, 19, 1}), Header(f));
    EXPECT_EQ((V{53, 964, 19, 0, LOGREC_STRING_A}), Fields(f->LastRec()));
    EXPECT_EQ(0xA5A5A5A5u, img.words[1020 / 4]) << "nothing cleared at the wrap";
    const V fwd = {124, 180, 236, 292, 348, 404, 460, 516, 572,
                   628, 684, 740, 796, 852, 908, 964, 28};
    EXPECT_EQ(fwd, Walk(img, f->FirstRec(), true));
    EXPECT_EQ(V(fwd.rbegin(), fwd.rend()), Walk(img, f->LastRec(), false));

    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    EXPECT_EQ((V{53, 28, 20, 0, LOGREC_STRING_A}), Fields(f->RecAt(84)));
    EXPECT_EQ(180u, f->OffsetOf(f->FirstRec())) << "record 20 covered the header of record 3";

    ASSERT_EQ(QS_OK, f->ClearRecs());
    EXPECT_EQ((V{28, 68, 1, 0}), Header(f));
    EXPECT_EQ((V{40, 0, 1, LOG_REC_FLAG_BOOKKEEPING, LOGREC_CLEAR}), Fields(f->LastRec()));
    EXPECT_EQ(V{28}, Walk(img, f->FirstRec(), true));
}

// A record that ends exactly at the end of the file, then payloads that can
// never fit: refused, with nothing changed.
TEST(ZLogFileLayout, ExactEndAndRefusals) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));              // A: id 2 at 68
    ASSERT_EQ(QS_OK, PutMessage(f, "x", 1024 - 124 - 49)); // B: id 3 at 124, ends at 1024
    EXPECT_EQ((V{124, 1024, 3, 0}), Header(f));
    EXPECT_TRUE(f->IsValid(1));
    EXPECT_FALSE(f->IsRecordValid(124)) << "size + offset must stay below the file size";
    void* p;
    ASSERT_EQ(QS_OK, f->NewRecord(kTime, 1, 2, LOGREC_CLEAR, 0, 0, &p)); // C: id 4 at 28
    EXPECT_EQ((V{28, 68, 4, 1}), Header(f));
    EXPECT_EQ((V{28, 124, 68}), Walk(img, f->LastRec(), false));
    // Forward, the slot after A fails the offset check, so the walk tries 28,
    // finds id 4 instead of 3 and ends; from B itself it continues at 28.
    EXPECT_EQ(V{68}, Walk(img, f->FirstRec(), true));
    EXPECT_EQ((V{124, 28}), Walk(img, f->RecAt(124), true));
    // The newest-first walk takes B for the whole record it is, and the copy
    // that rests on it keeps all three, oldest first, renumbered.
    EXPECT_TRUE(f->WholeRecAt(124) && !f->WholeRecAt(68 + 4) && !f->WholeRecAt(1024 - 36));
    EXPECT_EQ((V{28, 124, 68}), WalkBack(f));
    Image copy(2);
    EXPECT_EQ(3u, copy.File()->CopyNewestRecords(*f, 48));
    EXPECT_EQ((V{984, 84, 28}), WalkBack(copy.File()));
    EXPECT_EQ((V{984, 1024, 3, 0}), Header(copy.File()));
    EXPECT_EQ((V{40, 84, 3, 0, LOGREC_CLEAR}), Fields(copy.File()->RecAt(984)));
    EXPECT_EQ((V{900, 28, 2, 0, LOGREC_STRING_A}), Fields(copy.File()->RecAt(84)));
    // Room for the newest two only (A's 56 bytes would leave less than the
    // 48 kept free); none at all.
    Image small(1);
    EXPECT_EQ(2u, small.File()->CopyNewestRecords(*f, 48));
    EXPECT_EQ((V{928, 968, 2, 0}), Header(small.File()));
    Image none(1);
    EXPECT_EQ(0u, none.File()->CopyNewestRecords(*f, 1024));
    EXPECT_EQ((V{0, 28, 0, 0}), Header(none.File()));

    std::vector<uint32_t> before = img.words;
    // Stride 1000 + 28 > 1024; 0xFFFFFFD8 + 40 is an empty record in 32 bits.
    for (DWORD payload : {957u, 0xFFFFFFD8u, 0xFFFFFFFFu})
        EXPECT_EQ(QS_E_NO_LOG_STREAM, f->NewRecord(kTime, 1, 2, LOGREC_STRING_A, 0, payload, &p));
    EXPECT_EQ(before, img.words);
    EXPECT_EQ(QS_OK, f->NewRecord(kTime, 1, 2, LOGREC_STRING_A, 0, 956, &p)) << "996 + 28 fits";
}

namespace {

void Swap(unsigned char* p, DWORD words) {
    for (uint32_t* w = reinterpret_cast<uint32_t*>(p); words--; w++)
        *w = ReverseEndiannessOf(*w);
}

// What a writer of the other byte order would have put there; the timestamp
// is one 64-bit value.
void SwapRecord(unsigned char* r) {
    qsLogRecType type = reinterpret_cast<ZLogRec*>(r)->GetRecInfoType();
    Swap(r, 10);
    std::swap(*reinterpret_cast<uint32_t*>(r + 8), *reinterpret_cast<uint32_t*>(r + 12));
    Swap(r + 40, type == LOGREC_EVENT ? 8 : type == LOGREC_START ? 0 : 2);
}

} // namespace

TEST(ZLogFileByteOrder, OppositeImageReadsBackConverted) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    for (int i = 0; i < 13; i++)
        ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    void* p;
    const uint32_t wide[4] = {0xFFFFFFFF, 2, L'h', L'i'}, event[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(QS_OK, f->NewRecord(kTime, 1, 2, LOGREC_STRING_W, 0, 16, &p));
    memcpy(p, wide, 16);
    ASSERT_EQ(QS_OK, f->NewRecord(kTime, 1, 2, LOGREC_EVENT, 9, 32, &p));
    memcpy(p, event, 32);
    ASSERT_EQ(QS_OK, f->WriteResizeRec(4, 1));
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    ASSERT_EQ(1u, f->WrapCount());

    Image native = img;
    ZLogFile* n = native.File();
    V chain = Walk(native, n->FirstRec(), true);
    ASSERT_EQ(16u, chain.size());
    Swap(img.Bytes(), 7);
    for (DWORD o : chain)
        SwapRecord(img.Bytes() + o);

    EXPECT_TRUE(f->IsOppositeEndian() && f->IsValid(1));
    EXPECT_EQ(1024u, f->SizeInBytes());
    EXPECT_EQ(Header(n), Header(f));
    EXPECT_EQ(chain, Walk(img, f->FirstRec(), true));
    EXPECT_EQ(Walk(native, n->LastRec(), false), Walk(img, f->LastRec(), false));
    EXPECT_EQ(WalkBack(n), WalkBack(f));
    // A stream reading the image as a file converts the same way.
    qsTest::TempDir dir;
    qsTest::WriteFileBytes(dir / "swapped.log", img.Bytes(), 1024);
    auto read = qsTest::ReadRecords(dir / "swapped.log");
    ASSERT_EQ(chain.size(), read.size());
    // A copy of the opposite image is native and holds what a reader gets.
    Image copy(2);
    ASSERT_EQ(16u, copy.File()->CopyNewestRecords(*f, 48));
    V copied = WalkBack(copy.File());
    ASSERT_EQ(16u, copied.size());
    for (size_t i = 0; i < 16; i++) {
        const ZLogRec* c = copy.File()->RecAt(copied[15 - i]);
        ZLogRecInfo ci = c->GetRecInfo();
        ci.SetRecordId(read[i].info.GetRecordId());
        EXPECT_FALSE(c->IsOppositeEndian());
        EXPECT_EQ(0, memcmp(&ci, &read[i].info, sizeof ci)) << i;
        auto* bytes = static_cast<const unsigned char*>(c->Payload());
        EXPECT_EQ(read[i].payload, std::vector<unsigned char>(bytes, bytes + c->GetRecSize() - 40));
    }
    for (size_t i = 0; i < chain.size(); i++) {
        DWORD o = chain[i];
        const ZLogRec *s = f->RecAt(o), *r = n->RecAt(o);
        ASSERT_TRUE(s->IsOppositeEndian() && f->IsRecordValid(o));
        ZLogRecInfo si = s->GetRecInfo(), ri = r->GetRecInfo();
        EXPECT_EQ(0, memcmp(&si, &ri, sizeof si)) << o;
        EXPECT_EQ(0, memcmp(&read[i].info, &ri, sizeof ri)) << o;
        EXPECT_EQ(Fields(r), Fields(s));
        DWORD len = s->GetRecSize() - 40;
        auto* want = static_cast<const unsigned char*>(r->Payload());
        auto* from = static_cast<const unsigned char*>(s->Payload());
        // Whole, or cut short in an unaligned copy: the whole words inside the
        // size convert, nothing else changes; an event keeps word 2 as stored
        // and loses word 3.
        for (DWORD cut : {len, 6u, 12u, 21u}) {
            std::vector<unsigned char> copy(from - 1, from + len), expect = copy;
            std::copy(want, want + std::min(len, cut) / 4 * 4, expect.begin() + 1);
            if (s->GetRecInfoType() == LOGREC_EVENT) {
                memcpy(&expect[1 + 8], from + 8, 4);
                if (cut >= 16)
                    memcpy(&expect[1 + 12], "\3\0\0\0", 4);
            }
            ZLogRec::ConvertPayload(s->GetRecInfoType(), copy.data() + 1, std::min(len, cut));
            EXPECT_EQ(expect, copy) << o << " cut to " << cut;
            if (cut == len) {
                EXPECT_EQ(std::vector<unsigned char>(expect.begin() + 1, expect.end()),
                          read[i].payload);
            }
        }
    }
}

TEST(ZLogFileValidity, OffsetsSizesHeadersAndChains) {
    Image img(1);
    ZLogFile* f = img.File();
    ASSERT_EQ(QS_OK, f->WriteStartRec());
    ASSERT_EQ(QS_OK, PutMessage(f, "hello"));
    EXPECT_TRUE(f->IsRecordValid(28) && f->IsRecordValid(68));
    EXPECT_FALSE(f->IsValid(2));
    EXPECT_FALSE(f->IsValid(0x400001)) << "the shift must not wrap onto the real size";
    // {word, value, valid}: the next offset may equal the size, the last not.
    const V headers[] = {{4, 1024, 1}, {4, 1028, 0}, {4, 24, 0},
                         {3, 1024, 0}, {3, 0, 0},    {1, 0x00010003, 0}};
    for (const V& c : headers) {
        Image copy = img;
        copy.words[c[0]] = c[1];
        EXPECT_EQ(bool(c[2]), copy.File()->IsValid(1)) << c[0] << " " << c[1];
    }
    // {size, previous offset, signature, valid}
    const V recs[] = {{1024 - 68 - 1, 28, LOG_REC_SIGNATURE, 1},
                      {1024 - 68, 28, LOG_REC_SIGNATURE, 0},
                      {0xFFFFFFF0, 28, LOG_REC_SIGNATURE, 0}, // below the size in 32 bits
                      {53, 1024, LOG_REC_SIGNATURE, 0},
                      {53, 28, ReverseEndiannessOf(LOG_REC_SIGNATURE) ^ 1, 0}};
    ZLogRec* r = reinterpret_cast<ZLogRec*>(img.Bytes() + 68);
    for (const V& c : recs) {
        r->SetRecSize(c[0]);
        r->SetPrevOffset(c[1]);
        r->SetSignature(c[2]);
        EXPECT_EQ(bool(c[3]), f->IsRecordValid(68)) << c[0] << " " << c[1];
    }
    // Signatures in the last 40 bytes must not make a check read past the end.
    img.words[1020 / 4] = img.words[988 / 4] = LOG_REC_SIGNATURE;
    for (DWORD o : {0xFFFFFFFCu, 0u, 24u, 30u, 988u, 1020u, 1024u})
        EXPECT_FALSE(f->IsRecordValid(o)) << o;
    EXPECT_FALSE(f->IsRecordValid(f->RecAt(1000), 0));

    auto craft = [&](DWORD at, DWORD id, DWORD size, DWORD prev) {
        ZLogRec* r = reinterpret_cast<ZLogRec*>(img.Bytes() + at);
        r->SetSignature(LOG_REC_SIGNATURE);
        r->SetRecSize(size);
        r->SetRecInfoRecordId(id);
        r->SetPrevOffset(prev);
        return r;
    };
    for (DWORD prev : {102u, 988u, 1020u}) { // misaligned, or too close to the end
        craft(28, 5, 40, prev);
        EXPECT_EQ(nullptr, f->PrevRec(f->RecAt(28))) << prev;
    }
    // 200 + stride(2^32 - 48) is 152 in 32 bits; the step must go to 28.
    ZLogRec* x = craft(200, 7, 0xFFFFFFD0, 0);
    craft(152, 8, 40, 0);
    EXPECT_EQ(nullptr, f->NextRec(x));
    craft(28, 8, 40, 200);
    EXPECT_EQ(f->RecAt(28), f->NextRec(x));
}

// Damaged and random images: every query and walk must end without reading
// outside the image (the sanitizer builds catch that).
TEST(ZLogFileValidity, DamagedImagesWalkSafely) {
    Image good(2);
    ASSERT_EQ(QS_OK, good.File()->WriteStartRec());
    for (int i = 0; i < 60; i++)
        ASSERT_EQ(QS_OK, PutMessage(good.File(), "hello", DWORD(i % 7)));
    std::mt19937 rnd(4711);
    auto next = [&] { return uint32_t(rnd()); };
    // Signatures in both orders, offsets in and just past the image, small
    // numbers (ids, header offsets) and noise.
    auto pick = [&] {
        const uint32_t kinds[] = {LOG_REC_SIGNATURE, ReverseEndiannessOf(LOG_REC_SIGNATURE),
                                  next() % 2112,     ReverseEndiannessOf(next() % 2048),
                                  next() % 80,       next()};
        return kinds[next() % 6];
    };
    for (int round = 0; round < 3000; round++) {
        Image img = good;
        bool all = round % 3 == 0; // else a few words
        for (int k = all ? 2000 : int(rnd() % 40); k >= 0; k--)
            img.words[7 + rnd() % (img.words.size() - 7)] = pick();
        if (all)
            img.words[3] = pick(), img.words[5] = pick(); // last offset, record count
        if (round % 2)
            Swap(img.Bytes(), 7);
        ZLogFile* f = img.File();
        EXPECT_LE(Walk(img, f->FirstRec(), true).size(), 512u);
        EXPECT_LE(Walk(img, f->LastRec(), false).size(), 512u);
        EXPECT_LE(WalkBack(f).size(), 512u);
        Image copy(round % 4 ? 1 : 2);
        copy.File()->CopyNewestRecords(*f, 48);
        EXPECT_LE(WalkBack(copy.File()).size(), 512u);
        for (int k = 0; k < 8; k++) {
            DWORD o = pick();
            const ZLogRec* at = f->RecAt(o & ~3u);
            f->IsRecordValid(o);
            f->IsRecordValid(at, o);
            f->NextRec(at);
            f->PrevRec(at);
        }
    }
}

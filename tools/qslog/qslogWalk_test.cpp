// Copying and walking log images built in memory with the library's own
// placement, whole, wrapped, damaged and changing under the reader.
#include "qslogWalk.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

using namespace qslog;

namespace {

// A log image of sizeKB with a start record and `messages` narrow messages.
struct Image {
    std::vector<uint64_t> words;
    ZLogFile* file;

    Image(DWORD sizeKB, int messages) : words(sizeKB * 1024 / 8) {
        file = new (words.data()) ZLogFile(sizeKB);
        file->WriteStartRec();
        for (int i = 0; i < messages; ++i)
            Add("message " + std::to_string(i));
    }
    void Add(const std::string& text, int32_t severity = 1) {
        void* p = nullptr;
        ASSERT_EQ(file->NewRecord(LOGREC_STRING_A, 0, DWORD(8 + text.size()), &p), QS_OK);
        int32_t code = 0;
        memcpy(p, &code, 4);
        memcpy(static_cast<char*>(p) + 4, &severity, 4);
        memcpy(static_cast<char*>(p) + 8, text.data(), text.size());
    }
    uint8_t* Bytes() { return reinterpret_cast<uint8_t*>(words.data()); }
    size_t Size() const { return words.size() * 8; }
    void Poke(size_t at, uint32_t v) { memcpy(Bytes() + at, &v, 4); }
};

// An anonymous file holding `bytes`.
int MemFile(const void* bytes, size_t size) {
    int fd = memfd_create("qslog-walk", MFD_CLOEXEC);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(pwrite(fd, bytes, size, 0), ssize_t(size));
    return fd;
}

struct Walked {
    LogImage image;
    std::vector<Entry> entries;
    ChainSummary chain;
    LogImage::Load load;

    Walked(const void* bytes, size_t size, DWORD after = 0) {
        int fd = MemFile(bytes, size);
        load = image.Read(fd);
        if (load == LogImage::Load::Ok) {
            chain = CollectRecords(image, after, 0, entries);
            ConfirmWithFile(fd, image, entries);
        }
        close(fd);
    }
    std::vector<DWORD> Ids() const {
        std::vector<DWORD> ids;
        for (const Entry& e : entries)
            if (!e.IsGap())
                ids.push_back(e.rec.Id());
        return ids;
    }
};

std::vector<DWORD> Range(DWORD first, DWORD last) {
    std::vector<DWORD> v;
    for (DWORD i = first; i <= last; ++i)
        v.push_back(i);
    return v;
}

} // namespace

TEST(QslogWalk, HeaderDamageIsRepairedInTheCopyOnly) {
    Image img(2, 20);
    const std::vector<uint64_t> good = img.words;

    img.Poke(0, 0x01020304);
    Walked sig(img.Bytes(), img.Size());
    ASSERT_EQ(sig.load, LogImage::Load::Ok);
    EXPECT_TRUE(sig.image.HeaderRebuilt());
    EXPECT_EQ(sig.Ids(), Range(1, 21));

    img.words = good;
    img.Poke(20, 5); // record count
    Walked count(img.Bytes(), img.Size());
    EXPECT_EQ(count.Ids(), Range(1, 21));
    EXPECT_FALSE(count.chain.valid);
    ASSERT_EQ(count.image.Problems().size(), 1u);
    EXPECT_EQ(count.image.Problems()[0], "the header counts 5 records but the newest is #21");

    // A count one ahead is a writer between placing a record and publishing
    // it, not damage.
    img.words = good;
    img.Poke(20, 22);
    Walked ahead(img.Bytes(), img.Size());
    EXPECT_TRUE(ahead.chain.valid);
    EXPECT_EQ(ahead.Ids(), Range(1, 21));

    // Cut short: the size field is bounded by the bytes read.
    img.words = good;
    Walked cut(img.Bytes(), 1000);
    ASSERT_EQ(cut.load, LogImage::Load::Ok);
    EXPECT_EQ(cut.image.Size(), 1000u);
    std::vector<DWORD> ids = cut.Ids();
    ASSERT_FALSE(ids.empty());
    EXPECT_EQ(ids, Range(1, ids.back()));
    for (const Entry& e : cut.entries)
        EXPECT_LE(e.rec.offset + e.rec.recSize, 1000u);
}

TEST(QslogWalk, RandomDamageStaysInsideTheImage) {
    Image img(2, 90);
    const std::vector<uint64_t> good = img.words;
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; ++round) {
        img.words = good;
        for (int h = 1 + int(rng() % 5); h > 0; --h) {
            size_t at = rng() % 8 == 0 ? (rng() % 7) * 4 : (rng() % (img.Size() / 4)) * 4;
            uint32_t values[] = {uint32_t(rng()),  0, 0xFFFFFFFF, uint32_t(at), 28, 2048, 40,
                                 LOG_REC_SIGNATURE};
            img.Poke(at, values[rng() % 8]);
        }
        size_t size = rng() % 4 == 0 ? rng() % img.Size() : img.Size();
        Walked w(img.Bytes(), size);
        DWORD last = 0;
        for (const Entry& e : w.entries) {
            if (e.IsGap()) {
                ASSERT_GT(e.lostFirst, last);
                last = e.lostLast;
                continue;
            }
            ASSERT_GT(e.rec.Id(), last) << "round " << round;
            last = e.rec.Id();
            ASSERT_GE(e.rec.offset, 28u);
            ASSERT_LE(uint64_t(e.rec.offset) + e.rec.recSize, w.image.Size());
            ASSERT_LE(w.image.Size(), size);
        }
    }
}

TEST(QslogWalk, ConfirmingDropsWhatAWriterChangedWhileWeRead) {
    Image img(2, 20);
    int fd = MemFile(img.Bytes(), img.Size());
    auto copyAndWalk = [&](LogImage& image, std::vector<Entry>& entries) {
        ASSERT_EQ(image.Read(fd), LogImage::Load::Ok);
        entries.clear();
        CollectRecords(image, 0, 0, entries);
    };

    // The newest record's payload was still being copied in: its last byte
    // changed after our copy.  The settled bytes are taken.
    LogImage image;
    std::vector<Entry> entries;
    copyAndWalk(image, entries);
    ASSERT_EQ(entries.size(), 21u);
    const Record& newest = entries.back().rec;
    char z = 'Z';
    pwrite(fd, &z, 1, newest.offset + newest.recSize - 1);
    EXPECT_EQ(ConfirmWithFile(fd, image, entries), Confirm::Whole);
    ASSERT_EQ(entries.size(), 21u);
    std::string scratch;
    EXPECT_EQ(RecordText(entries.back().rec, scratch), "message 1Z");

    // A writer wrapped and overwrote the oldest records since the copy: the
    // records of the copy in the stretch it wrote are dropped, the rest kept.
    copyAndWalk(image, entries);
    for (int i = 0; i < 15; ++i)
        img.Add("later " + std::to_string(i));
    ASSERT_EQ(img.file->WrapCount(), 1u);
    ASSERT_EQ(pwrite(fd, img.Bytes(), img.Size(), 0), ssize_t(img.Size()));
    EXPECT_EQ(ConfirmWithFile(fd, image, entries), Confirm::Whole);
    ASSERT_FALSE(entries.empty());
    for (const Entry& e : entries)
        EXPECT_GE(e.rec.offset, img.file->NextRecOffset());
    EXPECT_EQ(entries.back().rec.Id(), 21u);
    EXPECT_LT(entries.size(), 21u);

    // Gone round the whole file since: nothing in the copy is certain.
    copyAndWalk(image, entries);
    for (int i = 0; i < 60; ++i)
        img.Add("much later " + std::to_string(i));
    ASSERT_EQ(pwrite(fd, img.Bytes(), img.Size(), 0), ssize_t(img.Size()));
    EXPECT_EQ(ConfirmWithFile(fd, image, entries), Confirm::Overrun);
    close(fd);
}

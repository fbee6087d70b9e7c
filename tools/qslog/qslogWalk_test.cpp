// Copying and walking log images built in memory with the library's own
// placement: whole, wrapped, damaged and changing under the reader.
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
    void Add(const std::string& text) {
        void* p = nullptr;
        ASSERT_EQ(file->NewRecord(LOGREC_STRING_A, 0, DWORD(8 + text.size()), &p), QS_OK);
        memset(p, 0, 8);
        memcpy(static_cast<char*>(p) + 8, text.data(), text.size());
    }
    uint8_t* Bytes() { return reinterpret_cast<uint8_t*>(words.data()); }
    size_t Size() const { return words.size() * 8; }
    void Poke(size_t at, uint32_t v) { memcpy(Bytes() + at, &v, 4); }
    // An anonymous file holding the image's first `size` bytes.
    int MemFile(size_t size) {
        int fd = memfd_create("qslog-walk", MFD_CLOEXEC);
        EXPECT_EQ(pwrite(fd, Bytes(), size, 0), ssize_t(size));
        return fd;
    }
};

// The image read back from a file of its first `size` bytes and walked.
struct Walked {
    LogImage image;
    std::vector<Entry> entries;
    ChainSummary chain;

    Walked(Image& img, size_t size) {
        int fd = img.MemFile(size);
        if (image.Read(fd) == LogImage::Load::Ok) {
            chain = CollectRecords(image, 0, 0, entries);
            ConfirmWithFile(fd, image, entries);
        }
        close(fd);
    }
    // The ids, checked to follow one another; 0 when they do not.
    std::pair<DWORD, DWORD> Ids() const {
        DWORD first = entries.empty() ? 0 : entries.front().rec.Id(), next = first;
        for (const Entry& e : entries) {
            if (e.IsGap() || e.rec.Id() != next++)
                return {0, 0};
        }
        return {first, next - 1};
    }
};

using Ids = std::pair<DWORD, DWORD>;

} // namespace

// A wrong record count is a problem of the chain, but one ahead is a writer
// between placing a record and publishing it, not damage.  The record that
// ends exactly at the end of the file (1 KiB: the start record, sixteen
// strides of 56 and one of 60) is not missed.
TEST(QslogWalk, RecordCountAndBoundaries) {
    Image img(2, 20);
    img.Poke(20, 5); // record count
    Walked count(img, img.Size());
    EXPECT_EQ(count.Ids(), Ids(1, 21));
    EXPECT_FALSE(count.chain.valid);
    EXPECT_EQ(count.image.Problems(),
              std::vector<std::string>{"the header counts 5 records but the newest is #21"});
    img.Poke(20, 22);
    Walked ahead(img, img.Size());
    EXPECT_TRUE(ahead.chain.valid);
    EXPECT_EQ(ahead.Ids(), Ids(1, 21));

    Image exact(1, 0);
    for (int i = 0; i < 16; ++i)
        exact.Add("12345678");
    exact.Add("123456789012"); // #18, ends at 1024
    for (int i = 0; i < 3; ++i)
        exact.Add("after");
    ASSERT_EQ(exact.file->WrapCount(), 1u);
    Ids ids = Walked(exact, exact.Size()).Ids();
    EXPECT_LT(ids.first, 18u);
    EXPECT_EQ(ids.second, 21u);
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
        Walked w(img, size);
        DWORD last = 0;
        for (const Entry& e : w.entries) {
            ASSERT_GT(e.IsGap() ? e.lostFirst : e.rec.Id(), last) << "round " << round;
            last = e.IsGap() ? e.lostLast : e.rec.Id();
            ASSERT_TRUE(e.IsGap() || (e.rec.offset >= 28 &&
                                      uint64_t(e.rec.offset) + e.rec.recSize <= w.image.Size()))
                << "round " << round;
        }
        ASSERT_LE(w.image.Size(), size);
    }
}

TEST(QslogWalk, ConfirmingDropsWhatAWriterChangedWhileWeRead) {
    Image img(2, 20);
    int fd = img.MemFile(img.Size());
    LogImage image;
    std::vector<Entry> entries;
    auto copyAndWalk = [&] {
        ASSERT_EQ(image.Read(fd), LogImage::Load::Ok);
        entries.clear();
        CollectRecords(image, 0, 0, entries);
    };

    // The newest record's payload was still being copied in: its last byte
    // changed after our copy.  The settled bytes are taken.
    copyAndWalk();
    ASSERT_EQ(entries.size(), 21u);
    const Record& newest = entries.back().rec;
    ASSERT_EQ(pwrite(fd, "Z", 1, newest.offset + newest.recSize - 1), 1);
    EXPECT_EQ(ConfirmWithFile(fd, image, entries), Confirm::Whole);
    ASSERT_EQ(entries.size(), 21u);
    std::string scratch;
    EXPECT_EQ(RecordText(entries.back().rec, scratch), "message 1Z");

    // A writer wrapped and overwrote the oldest records since the copy: the
    // records of the copy in the stretch it wrote are dropped, the rest kept.
    copyAndWalk();
    for (int i = 0; i < 15; ++i)
        img.Add("later " + std::to_string(i));
    ASSERT_EQ(pwrite(fd, img.Bytes(), img.Size(), 0), ssize_t(img.Size()));
    EXPECT_EQ(ConfirmWithFile(fd, image, entries), Confirm::Whole);
    ASSERT_FALSE(entries.empty());
    for (const Entry& e : entries)
        EXPECT_GE(e.rec.offset, img.file->NextRecOffset());
    EXPECT_EQ(entries.back().rec.Id(), 21u);
    EXPECT_LT(entries.size(), 21u);

    // Gone round the whole file since: nothing in the copy is certain.
    copyAndWalk();
    for (int i = 0; i < 60; ++i)
        img.Add("much later " + std::to_string(i));
    ASSERT_EQ(pwrite(fd, img.Bytes(), img.Size(), 0), ssize_t(img.Size()));
    EXPECT_EQ(ConfirmWithFile(fd, image, entries), Confirm::Overrun);
    close(fd);
}

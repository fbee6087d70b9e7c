// Choosing and merging records made by hand: gaps and clocks that go back.
#include "qslogSelect.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace qslog;

namespace {

struct Made {
    std::vector<std::vector<uint8_t>> payloads;

    Entry Message(DWORD id, uint64_t time, DWORD pid, int32_t severity, int32_t code,
                  const std::string& text, int file = 0) {
        std::vector<uint8_t>& p = payloads.emplace_back(8 + text.size());
        memcpy(p.data(), &code, 4);
        memcpy(p.data() + 4, &severity, 4);
        memcpy(p.data() + 8, text.data(), text.size());
        Entry e;
        e.file = file;
        e.rec.info.SetType(LOGREC_STRING_A);
        e.rec.info.SetRecordId(id);
        e.rec.info.SetProcessId(pid);
        e.rec.info.SetTimestamp(qsUInt64ToFileTime(time));
        e.rec.payload = p.data();
        e.rec.payloadSize = DWORD(p.size());
        e.rec.head[0] = uint32_t(code);
        e.rec.head[1] = uint32_t(severity);
        return e;
    }
    static Entry Gap(DWORD first, DWORD last, int file = 0) {
        Entry e;
        e.lost = last - first + 1;
        e.lostFirst = first;
        e.lostLast = last;
        e.file = file;
        return e;
    }
};

std::vector<DWORD> Chosen(const std::vector<Entry>& all, const Filter& f,
                          std::optional<uint64_t> n = {}) {
    std::vector<DWORD> ids;
    for (size_t i : Select(all, f, n))
        ids.push_back(all[i].IsGap() ? 1000 + all[i].lostFirst : all[i].rec.Id());
    return ids;
}

using V = std::vector<DWORD>;

} // namespace

TEST(QslogSelect, GapsShowOnlyBetweenChosenRecords) {
    Made m;
    std::vector<Entry> all = {
        m.Message(1, 1, 1, 1, 0, "a"), Made::Gap(2, 4),
        m.Message(5, 5, 1, 3, 0, "b"), Made::Gap(6, 6),
        m.Message(7, 7, 1, 1, 0, "c"),
    };
    EXPECT_EQ(Chosen(all, Filter()), (V{1, 1002, 5, 1006, 7}));
    EXPECT_EQ(Chosen(all, Filter(), 2), (V{5, 1006, 7}));
    Filter errors;
    errors.minSeverity = 3;
    EXPECT_EQ(Chosen(all, errors), (V{5}));
}

TEST(QslogSelect, MergingKeepsEachFilesOrderAndInterleavesByTime) {
    Made m;
    std::vector<std::vector<Entry>> files = {
        {m.Message(1, 10, 1, 1, 0, "a1"), Made::Gap(2, 2), m.Message(3, 30, 1, 1, 0, "a3"),
         m.Message(4, 25, 1, 1, 0, "a4 (clock went back)")},
        {m.Message(1, 20, 2, 1, 0, "b1", 1), m.Message(2, 40, 2, 1, 0, "b2", 1)},
    };
    for (Entry& e : files[1])
        e.file = 1;
    std::vector<Entry> merged = MergeByTime(files);
    std::vector<std::string> order;
    std::string scratch;
    for (const Entry& e : merged)
        order.push_back(e.IsGap() ? "gap" : std::string(RecordText(e.rec, scratch)));
    EXPECT_EQ(order,
              (std::vector<std::string>{"a1", "gap", "b1", "a3", "a4 (clock went back)", "b2"}));
}

// Choosing and merging records made by hand: gaps and clocks that go back.
#include "qslogSelect.h"

#include <gtest/gtest.h>

using namespace qslog;

namespace {

// A message record (severity 3 when `error`, empty text) with a given id
// and time, or a gap of the ids first..last.
Entry Message(DWORD id, uint64_t time, int file = 0, bool error = false) {
    static const uint8_t kPrefix[8] = {};
    Entry e;
    e.rec.payload = kPrefix;
    e.rec.payloadSize = sizeof kPrefix;
    e.file = file;
    e.rec.info.SetType(LOGREC_STRING_A);
    e.rec.info.SetRecordId(id);
    e.rec.info.SetTimestamp(qsUInt64ToFileTime(time));
    e.rec.head[1] = error ? 3 : 1;
    return e;
}
Entry Gap(DWORD first, DWORD last) {
    Entry e;
    e.lost = last - first + 1;
    e.lostFirst = first;
    e.lostLast = last;
    return e;
}

// What each entry is: "f:id" for a record of file f, "gap" for a gap.
std::vector<std::string> Show(const std::vector<Entry>& all, const std::vector<size_t>& chosen) {
    std::vector<std::string> shown;
    for (size_t i : chosen)
        shown.push_back(all[i].IsGap()
                            ? "gap"
                            : std::to_string(all[i].file) + ":" + std::to_string(all[i].rec.Id()));
    return shown;
}

using V = std::vector<std::string>;

} // namespace

// A gap shows only between two records chosen.
TEST(QslogSelect, GapsShowOnlyBetweenChosenRecords) {
    std::vector<Entry> all = {Message(1, 1), Gap(2, 4), Message(5, 5, 0, true), Gap(6, 6),
                              Message(7, 7)};
    EXPECT_EQ(Show(all, Select(all, Filter(), {})), (V{"0:1", "gap", "0:5", "gap", "0:7"}));
    EXPECT_EQ(Show(all, Select(all, Filter(), 2)), (V{"0:5", "gap", "0:7"}));
    Filter errors;
    errors.minSeverity = 3;
    EXPECT_EQ(Show(all, Select(all, errors, {})), (V{"0:5"}));
}

// Records of several files interleave by time, yet each file keeps its own
// order (a clock that went back) and a gap stays behind its record.
TEST(QslogSelect, MergingKeepsEachFilesOrderAndInterleavesByTime) {
    std::vector<std::vector<Entry>> files = {
        {Message(1, 10), Gap(2, 2), Message(3, 30), Message(4, 25)},
        {Message(1, 20, 1), Message(2, 40, 1)},
    };
    std::vector<Entry> merged = MergeByTime(files);
    EXPECT_EQ(Show(merged, Select(merged, Filter(), {})),
              (V{"0:1", "gap", "1:1", "0:3", "0:4", "1:2"}));
}

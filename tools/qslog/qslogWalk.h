// Collecting the intact records of a log image, oldest first.
//
// The walk starts at the newest record and goes back along the previous
// offsets (ZLogFile::PrevRec): that chain reaches every record still intact,
// and, unlike the forward walk, it is not cut short by a record that ends
// exactly at the end of the file.  Only when it breaks before the oldest
// record (damage) does a forward walk from ZLogFile::FirstRec recover the
// older part, and the records between the two parts become a gap.
#pragma once

#include "qslogImage.h"
#include "qslogRecord.h"

#include <vector>

namespace qslog {

// A record, or a gap of records that could not be read.
struct Entry {
    Record rec;
    DWORD lost = 0; // a gap: this many records, ids lostFirst..lostLast
    DWORD lostFirst = 0;
    DWORD lostLast = 0;
    int file = 0; // index of the file among those given

    bool IsGap() const { return lost != 0; }
};

struct ChainSummary {
    DWORD records = 0; // intact records collected
    DWORD lost = 0;    // records between the oldest and the newest that could not be read
    bool valid = true; // one unbroken chain from the newest back to the oldest,
                       // agreeing with the header's record count
};

// Appends the records of `image` with ids above `after` (0: all) to `out`,
// oldest first, each tagged with `file`.  Problems found on the way are
// added to the image's.
ChainSummary CollectRecords(LogImage& image, DWORD after, int file, std::vector<Entry>& out);

// For an image read from a file that a writer may be appending to while we
// read it, with `entries` collected from that image: re-reads the newest
// record until two reads agree (its writer may still have been copying its
// payload), and drops the oldest records whose bytes changed since the copy
// was made (overwritten while we read).  Returns false when the newest record
// is still changing; it is then dropped too.
bool ConfirmWithFile(int fd, LogImage& image, std::vector<Entry>& entries);

} // namespace qslog

// Collecting the intact records of a log image, oldest first.
//
// The walk is the library's own, from the newest record back along the
// previous offsets (ZLogFile::WalkNewestFirst): that chain reaches every
// record still intact, and, unlike the forward walk, it is not cut short by
// a record that ends exactly at the end of the file.  Only when it breaks
// before the oldest record (damage) does a forward walk from
// ZLogFile::FirstRec recover the older part, and the records between the two
// parts become a gap.
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

// What checking a copy against its file found.
enum class Confirm {
    Whole,          // every record left in `entries` is whole
    NewestChanging, // the newest record kept changing and was left out
    Overrun,        // the writers went round the whole file (or cleared it)
                    // while it was copied: copy it again
};

// For an image read from a file that writers may append to while we read
// it, with `entries` collected from that image.  Re-reads the header: the
// records the writers placed while the copy was made lie between the copy's
// next-record offset and the new one, and the records of the copy in that
// stretch may be torn, so they are dropped (records overwritten after the
// copy was made are whole in it and stay).  Then re-reads the newest record
// until two reads agree, since its writer may still have been copying its
// payload.
Confirm ConfirmWithFile(int fd, LogImage& image, std::vector<Entry>& entries);

} // namespace qslog

#include "qslogWalk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <unistd.h>

namespace qslog {

namespace {

// Re-reads of a newest record whose bytes keep changing, and the pause
// between them: a writer copies at most 4 KiB under its lock, so two reads a
// few milliseconds apart that still differ mean a busy writer, not a slow one.
constexpr int kStableReads = 10;
constexpr long kStablePauseNs = 2 * 1000 * 1000;

bool ReadAt(int fd, void* buffer, size_t size, DWORD offset) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = pread(fd, static_cast<uint8_t*>(buffer) + done, size - done,
                          off_t(offset) + off_t(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

Entry MakeEntry(const Record& r, int file) {
    Entry e;
    e.rec = r;
    e.file = file;
    return e;
}

Entry MakeGap(DWORD first, DWORD last, int file) {
    Entry e;
    e.lost = last - first + 1;
    e.lostFirst = first;
    e.lostLast = last;
    e.file = file;
    return e;
}

} // namespace

ChainSummary CollectRecords(LogImage& image, DWORD after, int file, std::vector<Entry>& out) {
    ChainSummary summary;
    const ZLogFile* f = image.File();
    const DWORD size = image.Size();
    if (size < LOG_FILE_HEADER_SIZE + LOG_REC_HEADER_SIZE || f->RecordCount() == 0)
        return summary;
    // Newest to oldest, along the previous offsets: the library's own walk.
    std::vector<Record> back;
    back.reserve(size / 64);
    const ZLogRec* cur = f->WalkNewestFirst([&](const ZLogRec* rec) {
        Record r;
        ReadRecord(f, size, rec, r);
        back.push_back(r);
        return r.Id() > after + 1;
    });
    if (!cur)
        return summary;
    const Record& newest = back.front();
    const DWORD oldestBack = back.back().Id();

    // The backward chain stops where a record was overwritten; the library's
    // own idea of the oldest record is where it should stop.  Anything older
    // that a forward walk still reaches lies behind damage.
    std::vector<Record> fwd;
    const ZLogRec* first = oldestBack > after + 1 ? f->FirstRec() : nullptr;
    Record fr;
    if (first && first != cur && ReadRecord(f, size, first, fr) && fr.Id() < oldestBack) {
        fwd.push_back(fr);
        for (const ZLogRec* c = first;;) {
            const ZLogRec* n = f->NextRec(c);
            Record r;
            if (!n || !ReadRecord(f, size, n, r) || r.Id() != fwd.back().Id() + 1 ||
                r.Id() >= oldestBack)
                break;
            fwd.push_back(r);
            c = n;
        }
        summary.valid = false;
        DWORD gapFirst = std::max(fwd.back().Id(), after) + 1;
        if (gapFirst < oldestBack) {
            summary.lost = oldestBack - gapFirst;
            image.AddProblem("record chain broken: records #" + std::to_string(gapFirst) + " to #" +
                             std::to_string(oldestBack - 1) + " cannot be read");
        } else {
            image.AddProblem("record chain broken before #" + std::to_string(oldestBack) +
                             " (no record lost)");
        }
    }

    // A count one above the newest record is a writer between placing a
    // record and publishing its offset; anything else is a damaged header.
    DWORD count = f->RecordCount();
    if (count != newest.Id() && count != newest.Id() + 1 && !image.HeaderRebuilt()) {
        summary.valid = false;
        image.AddProblem("the header counts " + std::to_string(count) +
                         " records but the newest is #" + std::to_string(newest.Id()));
    }

    for (const Record& r : fwd)
        if (r.Id() > after) {
            out.push_back(MakeEntry(r, file));
            ++summary.records;
        }
    if (summary.lost)
        out.push_back(MakeGap(oldestBack - summary.lost, oldestBack - 1, file));
    for (auto it = back.rbegin(); it != back.rend(); ++it)
        if (it->Id() > after) {
            out.push_back(MakeEntry(*it, file));
            ++summary.records;
        }
    return summary;
}

namespace {

// The stretches of the record area that writers may have written while the
// copy was made: from the copy's next-record offset to the one the header
// shows now.  False when that cannot be told or is the whole file.
bool WrittenSince(int fd, const LogImage& image, DWORD range[4]) {
    range[0] = range[1] = range[2] = range[3] = 0;
    alignas(8) uint8_t bytes[LOG_FILE_HEADER_SIZE];
    if (!ReadAt(fd, bytes, sizeof bytes, 0))
        return true; // cut short under us: nothing more to learn
    auto* now = reinterpret_cast<const ZLogFile*>(bytes);
    const HeaderWords& then = image.Original();
    // A damaged header says nothing reliable about where writers are.
    if (!now->IsHdrDataValid() || image.HeaderRebuilt() || !image.HeaderValid())
        return true;
    DWORD from = then.nextOffset, to = now->NextRecOffset(), size = image.Size();
    DWORD wraps = now->WrapCount() - then.wraps;
    if (now->RecordCount() < then.count || now->SizeInBytes() != then.size || wraps > 1 ||
        (wraps == 1 && to > from) || (wraps == 0 && to < from))
        return false;
    range[0] = from;
    range[1] = wraps ? size : to;
    range[2] = LOG_FILE_HEADER_SIZE;
    range[3] = wraps ? to : LOG_FILE_HEADER_SIZE;
    return true;
}

bool Overlaps(const Record& r, DWORD from, DWORD to) {
    return r.offset < to && uint64_t(r.offset) + r.recSize > from;
}

} // namespace

Confirm ConfirmWithFile(int fd, LogImage& image, std::vector<Entry>& entries) {
    DWORD written[4];
    if (!WrittenSince(fd, image, written))
        return Confirm::Overrun;
    std::vector<Entry> kept;
    kept.reserve(entries.size());
    for (Entry& e : entries) {
        if (!e.IsGap() &&
            (Overlaps(e.rec, written[0], written[1]) || Overlaps(e.rec, written[2], written[3])))
            continue;
        // A gap with nothing before it is just older records gone.
        if (e.IsGap() && kept.empty())
            continue;
        kept.push_back(e);
    }
    entries.swap(kept);
    if (entries.empty() || entries.back().IsGap())
        return Confirm::Whole;

    // The newest record, if its writer may have been copying its payload
    // while we read (a newer record means it had finished).  Accept it once
    // two reads agree.
    Record& r = entries.back().rec;
    if (r.Id() < image.File()->RecordCount())
        return Confirm::Whole;
    const DWORD size = r.recSize;
    uint8_t* copy = image.Bytes() + r.offset;
    std::string a(size, '\0'), b(size, '\0');
    if (!ReadAt(fd, a.data(), size, r.offset))
        return Confirm::Whole; // cut short under us: keep what the copy holds
    if (memcmp(a.data(), copy, size) == 0)
        return Confirm::Whole;
    for (int i = 0; i < kStableReads; ++i) {
        struct timespec pause = {0, kStablePauseNs};
        nanosleep(&pause, nullptr);
        if (!ReadAt(fd, b.data(), size, r.offset))
            break;
        if (a == b) {
            DWORD id = r.Id();
            memcpy(copy, a.data(), size);
            Record fresh;
            if (ReadRecord(image.File(), image.Size(), image.File()->RecAt(r.offset), fresh) &&
                fresh.Id() == id && fresh.recSize == size) {
                r = fresh;
                return Confirm::Whole;
            }
            break;
        }
        a.swap(b);
    }
    entries.pop_back();
    return Confirm::NewestChanging;
}

} // namespace qslog

// The format's checks and walks on an arbitrary image held in memory, and
// appends to any image that passes the header check.
//
// The input is the image, padded with zeros to whole KiB.  Its last 16
// bytes, read as words, also serve as arguments: a size in KiB to check the
// header against, an offset to check for a record, and payload sizes for
// appends.
#include "fuzzTarget.h"

#include "ZLogFile.h"

#include <cstring>
#include <vector>

bool g_bLoggingDoAutoInit = false;

namespace {

constexpr size_t kMaxImage = 256 * 1024;
constexpr int kMaxSteps = 1 << 16;

// A walk starts where a reader would (on a record that passes the check)
// and every record a step reaches must be whole and well placed.
int WalkAll(const ZLogFile* file, const ZLogRec* rec, bool forward) {
    if (!file->IsRecordValid(rec, 0))
        return 0;
    int steps = 0;
    while (rec && steps < kMaxSteps) {
        DWORD offset = file->OffsetOf(rec);
        FUZZ_CHECK(offset >= LOG_FILE_HEADER_SIZE && offset % 4 == 0);
        FUZZ_CHECK(offset + LOG_REC_HEADER_SIZE <= file->SizeInBytes());
        FUZZ_CHECK(rec->IsValid());
        ZLogRecInfo info = rec->GetRecInfo();
        const ZLogRec* next = forward ? file->NextRec(rec) : file->PrevRec(rec);
        if (next)
            FUZZ_CHECK(next->GetRecInfoRecordId() == info.GetRecordId() + (forward ? 1 : -1));
        rec = next;
        steps++;
    }
    FUZZ_CHECK(steps < kMaxSteps);
    return steps;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxImage)
        return 0;
    size_t bytes = std::max<size_t>(1024, (size + 1023) & ~size_t(1023));
    std::vector<uint32_t> words(bytes / 4); // word-aligned, like a mapping
    memcpy(words.data(), data, size);
    auto* file = reinterpret_cast<ZLogFile*>(words.data());

    uint32_t args[4] = {};
    if (size >= sizeof args)
        memcpy(args, data + size - sizeof args, sizeof args);

    file->IsOppositeEndian();
    file->IsValid(args[0]);
    bool hdr = file->IsHdrDataValid();
    // The header's size field is believed by everything that walks: only an
    // image at least that large may be walked.
    if (!hdr || file->SizeInBytes() > bytes)
        return 0;
    file->RecordCount();
    file->WrapCount();
    file->IsRecordValid(args[1]);

    const ZLogRec* last = file->LastRec();
    WalkAll(file, file->FirstRec(), true);
    WalkAll(file, last, false);

    // Appending is defined on a native image that passes the whole check.
    if (file->IsOppositeEndian() || !file->IsValid(file->SizeInBytes() >> 10) ||
        file->SizeInBytes() % 1024 != 0)
        return 0;
    for (int i = 2; i < 4; i++) {
        DWORD payloadSize = args[i] % (bytes + 64);
        DWORD before = file->RecordCount();
        void* payload = nullptr;
        FILETIME t{args[i], args[0]};
        qsStatus s = file->NewRecord(t, 1, 2, LOGREC_STRING_A, 0, payloadSize, &payload);
        if (qsFailed(s)) {
            FUZZ_CHECK(file->RecordCount() == before);
            continue;
        }
        memset(payload, 0xA5, payloadSize);
        FUZZ_CHECK(file->RecordCount() == before + 1);
        // A damaged next offset may place the record where no reader looks
        // (misaligned); it must still have been written inside the image.
        const ZLogRec* rec = file->LastRec();
        if (!rec)
            continue;
        FUZZ_CHECK(rec->Payload() == payload);
        FUZZ_CHECK(rec->GetRecInfoRecordId() == before + 1);
        FUZZ_CHECK(file->OffsetOf(rec) + ZLogRecActualSize(uint64_t(rec->GetRecSize())) <=
                   file->SizeInBytes());
        WalkAll(file, rec, false);
        WalkAll(file, file->FirstRec(), true);
    }
    return 0;
}

// An arbitrary file read through the snapshot form and walked with both
// cursors, reading every record on the way.
//
// The input is the file.  Its length is padded with zeros to whole KiB (the
// snapshot refuses anything else), and when the last byte is odd the header's
// size field is made to match the padded length, in the header's own byte
// order, so that damaged records behind a plausible header are reached as
// often as damaged headers are.
#include "fuzzTarget.h"

#include "ZLogStream.h"
#include "qsBitUtils.h"

#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

bool g_bLoggingDoAutoInit = false;

namespace {

constexpr size_t kMaxImage = 256 * 1024;
constexpr int kMaxSteps = 1 << 16;

const std::string& ImagePath() {
    static const std::string path = [] {
        const char* tmp = getenv("TMPDIR");
        return std::string(tmp && *tmp ? tmp : "/tmp") + "/qs-fuzz-image-" +
               std::to_string(getpid()) + ".log";
    }();
    return path;
}

bool WriteImage(const std::vector<uint8_t>& image) {
    FILE* f = fopen(ImagePath().c_str(), "wb");
    if (!f)
        return false;
    bool ok = fwrite(image.data(), 1, image.size(), f) == image.size();
    return fclose(f) == 0 && ok;
}

// Reads the record under the cursor twice: with too small a buffer (which
// must only report the size) and with enough room.
void ReadRecord(ZLogStream::iterator_base& it) {
    DWORD size = 0;
    qsStatus s = it.GetRecData(nullptr, &size, nullptr);
    if (s == QS_E_CURSOR_STALE) {
        FUZZ_CHECK(it.IsEnd());
        return;
    }
    FUZZ_CHECK(s == QS_OK || s == QS_E_BUFFER_TOO_SMALL);
    std::vector<uint8_t> payload(size);
    ZLogRecInfo info;
    DWORD room = size;
    FUZZ_CHECK(qsSucceeded(it.GetRecData(payload.data(), &room, &info)));
    FUZZ_CHECK(room == size);
    FUZZ_CHECK(info.GetRecordId() == it.RecordId());
}

template <typename Step> int Walk(ZLogStream::iterator_base it, Step step) {
    int steps = 0;
    DWORD lastId = 0;
    for (; it.IsValid() && steps < kMaxSteps; steps++) {
        if (steps > 0)
            FUZZ_CHECK(it.RecordId() != lastId);
        lastId = it.RecordId();
        ZLogStream::iterator_base copy = it;
        FUZZ_CHECK(copy == it);
        ReadRecord(it);
        step(it);
    }
    return steps;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxImage)
        return 0;
    std::vector<uint8_t> image(data, data + size);
    image.resize(std::max<size_t>(1024, (size + 1023) & ~size_t(1023)));
    if (size >= 28 && (data[size - 1] & 1)) {
        uint32_t signature, sizeField = uint32_t(image.size());
        memcpy(&signature, image.data(), 4);
        if (signature != LOG_FILE_SIGNATURE)
            sizeField = qsBitUtils::ReverseEndiannessOf(sizeField);
        memcpy(image.data() + 8, &sizeField, 4);
    }
    if (!WriteImage(image))
        abort();

    ZLogStream stream(ImagePath().c_str());
    unlink(ImagePath().c_str());
    if (!stream.IsValid())
        return 0;
    FUZZ_CHECK(stream.SizeInBytes() == int32_t(image.size()));

    int forward = Walk(stream.rbegin(), [](auto& it) { it.NextRec(); });
    int backward = Walk(stream.begin(), [](auto& it) { it.PrevRec(); });
    FUZZ_CHECK(forward < kMaxSteps && backward < kMaxSteps);
    return 0;
}

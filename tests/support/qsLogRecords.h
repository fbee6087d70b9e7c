// Reading a log stream's records back in tests, oldest first.
#pragma once

#include "ZLogStream.h"
#include "qsLogState.h" // the default streams, whose records tests read back

#include <cstring>
#include <string>
#include <vector>

namespace qsTest {

struct LogRecord {
    ZLogRecInfo info;
    std::vector<unsigned char> payload;

    qsLogRecType Type() const { return info.GetType(); }
    // Message records: the code, the severity and the narrow text.
    int32_t Code() const { return Word(0); }
    int32_t Severity() const { return Word(1); }
    std::string Text() const {
        if (payload.size() < LOG_REC_STRING_PREFIX)
            return {};
        return std::string(payload.begin() + LOG_REC_STRING_PREFIX, payload.end());
    }
    int32_t Word(size_t i) const {
        int32_t w = 0;
        if (payload.size() >= (i + 1) * 4)
            memcpy(&w, payload.data() + i * 4, 4);
        return w;
    }
};

// Walks from the oldest record to the newest with the stream's own cursor,
// or from the newest to the oldest; stops at the first unreadable record.
inline std::vector<LogRecord> ReadRecords(const ZLogStream& stream, bool newestFirst = false) {
    std::vector<LogRecord> records;
    for (auto it = newestFirst ? stream.begin() : stream.rbegin(); it.IsValid();
         newestFirst ? it.PrevRec() : it.NextRec()) {
        LogRecord r;
        DWORD size = 0;
        qsStatus s = it.GetRecData(nullptr, &size, &r.info);
        if (s == QS_E_BUFFER_TOO_SMALL) {
            r.payload.resize(size);
            s = it.GetRecData(r.payload.data(), &size, &r.info);
        }
        if (qsFailed(s))
            break;
        records.push_back(std::move(r));
    }
    return records;
}

inline std::vector<LogRecord> ReadRecords(const std::string& path) {
    ZLogStream snapshot(path.c_str());
    return ReadRecords(snapshot);
}

} // namespace qsTest

// Forked writers for the stress tests: each appends numbered messages of
// varied lengths to one stream and counts, in memory shared with the test,
// what landed and what failed with which code.
#pragma once

#include "ZLogStream.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qsStress {

// What one writer reports; lives in a shared anonymous mapping.
struct WriterReport {
    std::atomic<int64_t> landed{0};
    std::atomic<int64_t> timedOut{0};   // 0xA0FFFF02 after all attempts
    std::atomic<int64_t> waitFailed{0}; // 0xE0FF0102 (deadline refused, see ZMutex)
    std::atomic<int64_t> otherFailed{0};
    std::atomic<int64_t> lastCode{0};
    std::atomic<int64_t> slowestFailureUs{0};
    std::atomic<bool> gaveUp{false};
    std::atomic<bool> done{false};
};

// Scales message counts by QS_STRESS_SCALE (default 1, at least 1 message).
int Scaled(int count);

// The text of message `seq` of writer `writer`: "w<writer> #<seq> " and a
// filler whose length and letter follow from both, 0 to 300 bytes.
std::string MessageText(int writer, int seq);

// Parses a text made by MessageText; false if it is not one, or is damaged.
bool ParseMessage(const std::string& text, int* writer, int* seq);

// Forks a writer that appends `count` messages to `stream` and then _exits.
// With `giveUp` it stops early behind a holder that never releases: after a
// failure that took a whole wait (400 ms or more), or 100000 in a row.
pid_t ForkWriter(ZLogStream& stream, int writer, int count, WriterReport* report,
                 bool giveUp = false);

// A zeroed array of n reports shared with forked children.
WriterReport* SharedReports(int n);
void FreeReports(WriterReport* reports, int n);

} // namespace qsStress

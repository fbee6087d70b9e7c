// The two guarantees of every logging call, in one place: nothing is done
// unless the stream is usable, and no exception escapes.
#pragma once

#include "ZLogStream.h"

// Reports an exception that escaped `function` to the system log.
void qsLogReportEscapedException(const char* function) noexcept;

// Runs op(*stream) when the stream carries the valid mark; 0xE0010101 without
// running it otherwise, 0xE0FF010B when it threw.
template <typename Stream, typename Op>
qsStatus qsLogGuardedCall(Stream* stream, const char* function, Op op) noexcept {
    if (!stream || stream->StateWord() != STREAM_SIG_VALID)
        return QS_E_NO_LOG_STREAM;
    try {
        return op(*stream);
    } catch (...) {
        qsLogReportEscapedException(function);
        return QS_E_EXCEPTION;
    }
}

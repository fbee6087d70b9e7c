// The two guarantees of every logging call, in one place: nothing is done
// unless the stream is usable, and no exception escapes.
#pragma once

#include "ZLogStream.h"

// Reports an exception that escaped `function` to the system log.
void qsLogReportEscapedException(const char* function) noexcept;

// Runs op(*stream) and answers its status; 0xE0010101 when there is no
// stream or it does not carry the valid mark, 0xE0FF010B when op threw.
// The stream's operations test the mark themselves, before they format
// anything, and answer 0xE0FF0103 then: the mark is read a second time only
// on that way out, to tell which answer is due.
template <typename Stream, typename Op>
qsStatus qsLogGuardedCall(Stream* stream, const char* function, Op op) noexcept {
    if (!stream)
        return QS_E_NO_LOG_STREAM;
    try {
        qsStatus s = op(*stream);
        if (s == QS_E_NOT_VALID && stream->StateWord() != STREAM_SIG_VALID)
            return QS_E_NO_LOG_STREAM;
        return s;
    } catch (...) {
        qsLogReportEscapedException(function);
        return QS_E_EXCEPTION;
    }
}

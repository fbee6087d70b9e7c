// Status codes of the library.
//
// Every library function above the Windows-style layer returns an unsigned
// 32-bit status: 0 is success and any code with the top bit set means the
// operation was not done (0xE0...... errors, 0xA0...... warnings such as a
// time-out, 0x80000003 a bad argument).  Codes without the top bit, such as
// the 0x60FFFF01 stamped on module messages, are informational.
//
// Callers test with qsFailed()/qsSucceeded() and never compare against the
// sign of an ad hoc cast.
#pragma once

#include <cstdint>

typedef uint32_t qsStatus;

constexpr bool qsFailed(qsStatus s) { return (s & 0x80000000u) != 0; }
constexpr bool qsSucceeded(qsStatus s) { return !qsFailed(s); }

// Names for the codes that several modules share.  A code used by a single
// module may stay a literal there, next to the text that explains it.
enum : qsStatus {
    QS_OK = 0,

    QS_E_INVALIDARG = 0x80000003,        // invalid argument or state
    QS_E_NOT_DONE = 0x80000008,          // could not be done: a list unreadable, an object missing or in the way

    QS_W_TIMEOUT = 0xA0FFFF02,           // a wait timed out; callers may retry
    QS_W_MSG_SUPPRESSED = 0xA0010103,    // severity-0 message while the info switch is off

    QS_I_MODULE_MESSAGE = 0x60FFFF01,    // code stamped on module and trace messages

    QS_E_BUFFER_TOO_SMALL = 0xE0FF0101,
    QS_E_WAIT_FAILED = 0xE0FF0102,
    QS_E_NOT_VALID = 0xE0FF0103,         // object absent, not initialised or not in the valid state
    QS_E_OUT_OF_MEMORY = 0xE0FF0104,     // also: a buffer could not be grown
    QS_E_FILE_TIME = 0xE0FF0106,
    QS_E_NOT_FOUND = 0xE0FF0108,         // no such file or directory; also: neither QS_LOG_DIR nor HOME set
    QS_E_EMPTY_NAME = 0xE0FF0109,
    QS_E_EXCEPTION = 0xE0FF010B,
    QS_E_BAD_NUMBER_TEXT = 0xE0FF011A,

    QS_E_NO_LOG_STREAM = 0xE0010101,     // also: a record can never fit; a file in use needs re-initialising
    QS_E_CURSOR_STALE = 0xE0010102,

    QS_E_FILE_OPEN = 0xE0020101,
    QS_E_FILE_TOUCH = 0xE0020102,
    QS_E_FILE_SIZE = 0xE0020103,         // size, seek or truncate failed
    QS_E_FILE_READ = 0xE0020104,
    QS_E_FILE_WRITE = 0xE0020105,
    QS_E_FILE_INIT = 0xE0020106,
    QS_E_FILE_ATTRIBUTES = 0xE0020107,
    QS_E_DIR_CREATE = 0xE0020109,
    QS_E_FILE_CLOSE = 0xE002010A,
    QS_E_FILE_DELETE = 0xE002010B,       // a file or directory could not be removed
    QS_E_FILE_COPY = 0xE002010C,
    QS_E_FILE_RENAME = 0xE002010D,
    QS_E_DIR_READ = 0xE002010E,          // a directory could not be listed
    QS_E_FILE_EXISTS = 0xE002010F,       // the target is there and must not be replaced
    QS_W_NO_MORE_ENTRIES = 0xA0020101,   // a listing has nothing (more) to return

    QS_E_MUTEX_CREATE = 0xE0020201,
    QS_E_MUTEX_RELEASE = 0xE0020202,

    QS_E_MAP = 0xE0020401,
    QS_E_MAP_VIEW = 0xE0020402,
    QS_E_FLUSH = 0xE0020403,
};

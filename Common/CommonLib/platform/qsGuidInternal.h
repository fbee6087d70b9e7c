// Internal: the GUID maker behind CoCreateGuid, with the time as an argument
// so that tests can make two GUIDs "in one microsecond" on demand.
#pragma once

#include "qsWinTypes.h"

// The fixed salt of the host-name hash: two characters of crypt's alphabet.
constexpr char kQsGuidHostSalt[] = "qs";

void qsGuidFromTime(uint64_t seconds, uint32_t microseconds, GUID* guid);

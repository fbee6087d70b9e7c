// Validating, optionally traced wrappers around the C heap.
//
// Every call takes the caller's source file and line.  With a file name the
// successful operations leave a severity-0 trace message (code 0x60FFFF01)
// naming the place, which is how leaks and double frees are hunted down in a
// log; a null file name switches tracing off.  Failures are always logged
// (severity 4) and returned:
//   0x80000003  size 0, or no pointer where one is needed
//   0xE0FF0104  the heap refused the request
// Zero-size blocks are never handed out.  Blocks are ordinary malloc blocks,
// so anything allocated here may be released with free() and vice versa.
//
// Alloc and Realloc write the result through a pointer to the caller's own
// pointer, of any object type, and leave it untouched when they fail:
//     char* p = nullptr;
//     if (qsFailed(qsMem::Alloc(n, &p, __FILE__, __LINE__))) ...
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

namespace qsMem {

namespace detail {
// `slot` receives the address; `callerSlot` is the caller's pointer to its
// pointer, shown in the messages (the typed forms below pass a local slot).
qsStatus Alloc(DWORD size, void** slot, const void* callerSlot, const char* file, int line);
qsStatus Realloc(DWORD size, void** slot, const void* callerSlot, const char* file, int line);
} // namespace detail

// A new block of `size` bytes into *pMemPtr.
template <typename T>
qsStatus Alloc(DWORD size, T** pMemPtr, const char* file = nullptr, int line = 0) {
    void* p = nullptr;
    qsStatus s = detail::Alloc(size, pMemPtr ? &p : nullptr, pMemPtr, file, line);
    if (qsSucceeded(s))
        *pMemPtr = static_cast<T*>(p);
    return s;
}

// Resizes the block *pMemPtr holds (which must not be null) and stores its
// new address there.  On failure the old block stays valid and unchanged.
template <typename T>
qsStatus Realloc(DWORD size, T** pMemPtr, const char* file = nullptr, int line = 0) {
    void* p = pMemPtr ? static_cast<void*>(*pMemPtr) : nullptr;
    qsStatus s = detail::Realloc(size, pMemPtr ? &p : nullptr, pMemPtr, file, line);
    if (qsSucceeded(s))
        *pMemPtr = static_cast<T*>(p);
    return s;
}

// Releases a block; a null pointer is refused with 0x80000003.
qsStatus Free(void* p, const char* file = nullptr, int line = 0);

} // namespace qsMem

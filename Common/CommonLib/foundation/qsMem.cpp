#include "qsMem.h"

#include "qsLog.h"

#include <cstdint>
#include <cstdlib>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls all use it.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

// Sizes print with "%d" and the pointer-to-pointer with "0x%X", as 32-bit
// values; the casts keep the variadic arguments that wide on every build.
int AsInt(DWORD size) {
    return int(size);
}
DWORD AsWord(const void* p) {
    return DWORD(uintptr_t(p));
}

qsStatus Invalid(const char* who, DWORD size, const void* callerSlot, const char* file, int line) {
    if (file)
        qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall,
                     "%hs: invalid size %d or pMemPtr 0x%X for '%hs:%d'", who, AsInt(size),
                     AsWord(callerSlot), file, line);
    else
        qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall, "%hs: invalid size %d or pMemPtr 0x%X",
                     who, AsInt(size), AsWord(callerSlot));
    return QS_E_INVALIDARG;
}

// The texts of one operation that hands back a block.
struct BlockTexts {
    const char* who;
    const char* failedFor;  // with the caller's file and line
    const char* failed;
    const char* tracedFor;
};

constexpr BlockTexts kAllocTexts{"qsMem::Alloc", "%hs: error allocating %d bytes for '%hs:%d'",
                                 "%hs: error allocating %d bytes",
                                 "%hs: allocated %d bytes at 0x%p for '%hs:%d'"};
constexpr BlockTexts kReallocTexts{"qsMem::Realloc",
                                   "%hs: error re-allocating %d bytes for '%hs:%d'",
                                   "%hs: error re-allocating %d bytes",
                                   "%hs: re-allocated %d bytes at 0x%p for '%hs:%d'"};

// Hands the block to the caller, or reports that there is none; the
// caller's pointer is untouched on failure.
qsStatus Deliver(const BlockTexts& t, void* block, DWORD size, void** slot, const char* file,
                 int line) {
    if (!block) {
        if (file)
            qsLogPrintfA(LONG(QS_E_OUT_OF_MEMORY), qsLogSevSysCall, t.failedFor, t.who,
                         AsInt(size), file, line);
        else
            qsLogPrintfA(LONG(QS_E_OUT_OF_MEMORY), qsLogSevSysCall, t.failed, t.who, AsInt(size));
        return QS_E_OUT_OF_MEMORY;
    }
    *slot = block;
    if (file)
        qsLogPrintfA(LONG(QS_I_MODULE_MESSAGE), qsLogSevInfo, t.tracedFor, t.who, AsInt(size),
                     block, file, line);
    return QS_OK;
}

} // namespace

qsStatus qsMem::detail::Alloc(DWORD size, void** slot, const void* callerSlot, const char* file,
                              int line) {
    if (size == 0 || !slot)
        return Invalid(kAllocTexts.who, size, callerSlot, file, line);
    return Deliver(kAllocTexts, malloc(size), size, slot, file, line);
}

qsStatus qsMem::detail::Realloc(DWORD size, void** slot, const void* callerSlot, const char* file,
                                int line) {
    if (size == 0 || !slot || !*slot)
        return Invalid(kReallocTexts.who, size, callerSlot, file, line);
    return Deliver(kReallocTexts, realloc(*slot, size), size, slot, file, line);
}

qsStatus qsMem::Free(void* p, const char* file, int line) {
    const char* who = "qsMem::Free";
    if (!p) {
        if (file)
            qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall,
                         "%hs: invalid ptr 0x%p for '%hs:%d'", who, p, file, line);
        else
            qsLogPrintfA(LONG(QS_E_INVALIDARG), qsLogSevSysCall, "%hs: invalid ptr 0x%p", who, p);
        return QS_E_INVALIDARG;
    }
    // Traced just before the release: the address means nothing afterwards,
    // and a bad pointer that makes free() abort is then already on record.
    if (file)
        qsLogPrintfA(LONG(QS_I_MODULE_MESSAGE), qsLogSevInfo,
                     "%hs: freed buffer at 0x%p for '%hs:%d'", who, p, file, line);
    free(p);
    return QS_OK;
}

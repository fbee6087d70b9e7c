#include "qsMem.h"

#include "qsLog.h"

#include <cstdint>
#include <cstdlib>

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

} // namespace

qsStatus qsMem::detail::Alloc(DWORD size, void** slot, const void* callerSlot, const char* file,
                              int line) {
    const char* who = "qsMem::Alloc";
    if (size == 0 || !slot)
        return Invalid(who, size, callerSlot, file, line);
    void* p = malloc(size);
    if (!p) {
        if (file)
            qsLogPrintfA(LONG(QS_E_OUT_OF_MEMORY), qsLogSevSysCall,
                         "%hs: error allocating %d bytes for '%hs:%d'", who, AsInt(size), file,
                         line);
        else
            qsLogPrintfA(LONG(QS_E_OUT_OF_MEMORY), qsLogSevSysCall,
                         "%hs: error allocating %d bytes", who, AsInt(size));
        return QS_E_OUT_OF_MEMORY;
    }
    *slot = p;
    if (file)
        qsLogPrintfA(LONG(QS_I_MODULE_MESSAGE), qsLogSevInfo,
                     "%hs: allocated %d bytes at 0x%p for '%hs:%d'", who, AsInt(size), p, file,
                     line);
    return QS_OK;
}

qsStatus qsMem::detail::Realloc(DWORD size, void** slot, const void* callerSlot, const char* file,
                                int line) {
    const char* who = "qsMem::Realloc";
    if (size == 0 || !slot || !*slot)
        return Invalid(who, size, callerSlot, file, line);
    void* p = realloc(*slot, size);
    if (!p) {
        if (file)
            qsLogPrintfA(LONG(QS_E_OUT_OF_MEMORY), qsLogSevSysCall,
                         "%hs: error re-allocating %d bytes for '%hs:%d'", who, AsInt(size), file,
                         line);
        else
            qsLogPrintfA(LONG(QS_E_OUT_OF_MEMORY), qsLogSevSysCall,
                         "%hs: error re-allocating %d bytes", who, AsInt(size));
        return QS_E_OUT_OF_MEMORY;
    }
    *slot = p;
    if (file)
        qsLogPrintfA(LONG(QS_I_MODULE_MESSAGE), qsLogSevInfo,
                     "%hs: re-allocated %d bytes at 0x%p for '%hs:%d'", who, AsInt(size), p, file,
                     line);
    return QS_OK;
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

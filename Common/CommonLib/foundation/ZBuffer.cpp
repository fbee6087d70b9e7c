#include "ZBuffer.h"

#include "qsLog.h"
#include "qsMem.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls all use it.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

qsStatus AllocFailure(qsStatus s, const char* who, DWORD size) {
    qsLogPrintfA(LONG(s), qsLogSevSysCall, "%hs: error allocating %d bytes", who, int(size));
    return s;
}

} // namespace

ZBuffer::ZBuffer(DWORD size) {
    ResetMemberVariables();
    if (size == 0)
        return;
    qsStatus s = qsMem::Alloc(size, &m_pData);
    if (qsFailed(s)) {
        AllocFailure(s, "ZBuffer(ctor)", size);
        m_bAllocFailed = true;
        return;
    }
    m_nSize = size;
}

ZBuffer::ZBuffer(const ZBuffer& other) {
    ResetMemberVariables();
    CopyFrom(other, "ZBuffer(copy)");
}

ZBuffer& ZBuffer::operator=(const ZBuffer& other) {
    if (&other == this)
        return *this;
    Release("ZBuffer(=)");
    ResetMemberVariables();
    CopyFrom(other, "ZBuffer(=)");
    return *this;
}

ZBuffer::~ZBuffer() {
    Release("ZBuffer(dtor)");
    ResetMemberVariables();
}

// Expects an empty buffer.
void ZBuffer::CopyFrom(const ZBuffer& other, const char* who) {
    if (!other.m_pData || other.m_nSize == 0)
        return;
    qsStatus s = qsMem::Alloc(other.m_nSize, &m_pData);
    if (qsFailed(s)) {
        AllocFailure(s, who, other.m_nSize);
        m_bAllocFailed = true;
        return;
    }
    memcpy(m_pData, other.m_pData, other.m_nBytesUsed);
    m_nSize = other.m_nSize;
    m_nBytesUsed = other.m_nBytesUsed;
}

// Releases the storage without resetting the members.
qsStatus ZBuffer::Release(const char* who) {
    if (!m_pData)
        return QS_OK;
    qsStatus s = qsMem::Free(m_pData);
    if (qsFailed(s))
        qsLogPrintfA(LONG(s), qsLogSevSysCall, "%hs: error releasing buffer", who);
    return s;
}

qsStatus ZBuffer::Resize(DWORD newSize, const char* who) {
    if (newSize == m_nSize)
        return QS_OK;
    if (newSize == 0) {
        qsStatus s = Release(who);
        ResetMemberVariables();
        return s;
    }
    BYTE* p = nullptr;
    qsStatus s = qsMem::Alloc(newSize, &p);
    if (qsFailed(s)) {
        AllocFailure(s, who, newSize);
        m_bAllocFailed = true;
        return s;
    }
    DWORD keep = std::min(m_nBytesUsed, newSize);
    if (keep)
        memcpy(p, m_pData, keep);
    Release(who);
    m_pData = p;
    m_nSize = newSize;
    m_nBytesUsed = keep;
    m_bAllocFailed = false;
    return QS_OK;
}

qsStatus ZBuffer::IncreaseBufferSize(DWORD extra, DWORD granularity, const char* who) {
    uint64_t n = uint64_t(m_nSize) + extra;
    if (granularity != 0)
        n = (n + granularity - 1) / granularity * granularity;
    // Wrapping round to a small size would shrink the buffer the caller
    // wants to grow; no 32-bit capacity can satisfy the request.
    if (n > UINT32_MAX) {
        m_bAllocFailed = true;
        return AllocFailure(QS_E_OUT_OF_MEMORY, who, UINT32_MAX);
    }
    return Resize(DWORD(n), who);
}

BYTE* ZBuffer::GetPtr(DWORD offset, DWORD length) {
    if (!m_pData || uint64_t(offset) + length > m_nSize)
        return nullptr;
    return m_pData + offset;
}

const BYTE* ZBuffer::GetPtr(DWORD offset, DWORD length) const {
    return const_cast<ZBuffer*>(this)->GetPtr(offset, length);
}

qsStatus ZBuffer::SetBytesUsed(DWORD n) {
    if (n > m_nSize)
        return QS_E_INVALIDARG;
    m_nBytesUsed = n;
    return QS_OK;
}

qsStatus ZBuffer::IncreaseBytesUsed(DWORD n) {
    if (uint64_t(m_nBytesUsed) + n > m_nSize)
        return QS_E_INVALIDARG;
    m_nBytesUsed += n;
    return QS_OK;
}

BYTE* ZBuffer::TakeOwnership(DWORD* pSize) {
    BYTE* p = m_pData;
    if (pSize)
        *pSize = m_nSize;
    ResetMemberVariables();
    return p;
}

qsStatus ZBuffer::Assign(ZBuffer& other) {
    // Moving a buffer onto itself would release the storage it is about to
    // take over.
    if (&other == this)
        return QS_OK;
    qsStatus s = Resize(0, "ZBuffer::Assign(ZBuffer)");
    if (qsFailed(s))
        return s;
    if (other.m_pData && other.m_nSize != 0) {
        m_pData = other.m_pData;
        m_nSize = other.m_nSize;
        m_nBytesUsed = other.m_nBytesUsed;
    }
    other.ResetMemberVariables();
    return QS_OK;
}

qsStatus ZBuffer::Assign(void* p, DWORD size) {
    qsStatus s = Resize(0, "ZBuffer::Assign(void*)");
    if (qsFailed(s))
        return s;
    if (!p || size == 0)
        return QS_OK;
    m_pData = static_cast<BYTE*>(p);
    m_nSize = size;
    return QS_OK;
}

qsStatus ZBuffer::Assign(const char* text) {
    const char* who = "ZBuffer::Assign(LPCSTR)";
    if (!text)
        return Resize(0, who);
    DWORD n = DWORD(strlen(text) + 1);
    qsStatus s = Resize(n, who);
    if (qsFailed(s))
        return s;
    memcpy(m_pData, text, n);
    m_nBytesUsed = n;
    return QS_OK;
}

void ZBuffer::ResetMemberVariables() {
    m_pData = nullptr;
    m_nSize = 0;
    m_nBytesUsed = 0;
    m_bAllocFailed = false;
}

// An owning byte buffer with a capacity and a fill level.
//
// The storage comes from qsMem (plain malloc blocks).  The fill level is
// never above the capacity; a buffer without storage has capacity 0.
// Allocation failures are logged as "<who>: error allocating <n> bytes",
// set the AllocFailed flag and are returned (0xE0FF0104); the buffer then
// keeps what it held.  The `who` argument names the caller's operation in
// that message.  Nothing here locks: a buffer belongs to one thread at a time.
#pragma once

#include "qsStatus.h"
#include "qsWinTypes.h"

class ZBuffer {
public:
    // An empty buffer, or one with `size` bytes of capacity and nothing used.
    explicit ZBuffer(DWORD size = 0);
    // Copies the source's used bytes into storage of the source's capacity.
    ZBuffer(const ZBuffer& other);
    ZBuffer& operator=(const ZBuffer& other);
    ~ZBuffer();

    // Changes the capacity, keeping min(fill level, newSize) bytes, which
    // become the fill level.  The new storage is obtained before the old is
    // released, so a failure leaves contents and capacity as they were.
    // newSize 0 releases the storage.  The current capacity: nothing to do.
    qsStatus Resize(DWORD newSize, const char* who = "ZBuffer::Resize");
    // Resize to capacity + extra, rounded up to a multiple of granularity
    // unless that is 0.  A total beyond 32 bits is an allocation failure.
    qsStatus IncreaseBufferSize(DWORD extra, DWORD granularity,
                                const char* who = "ZBuffer::Resize");

    // The storage at `offset` when offset + length lies within the capacity,
    // else null.
    BYTE* GetPtr(DWORD offset, DWORD length);
    const BYTE* GetPtr(DWORD offset, DWORD length) const;
    // 0x80000003, leaving the fill level alone, when the result would pass
    // the capacity.
    qsStatus SetBytesUsed(DWORD n);
    qsStatus IncreaseBytesUsed(DWORD n);

    // Hands the storage to the caller (release it with qsMem::Free), writes
    // the capacity through pSize when given, and leaves the buffer empty.
    BYTE* TakeOwnership(DWORD* pSize);

    // Moves: takes over the other buffer's storage and empties it.
    qsStatus Assign(ZBuffer& other);
    // Adopts a malloc block of `size` bytes as storage, nothing used.
    // A null p or size 0 just empties the buffer.
    qsStatus Assign(void* p, DWORD size);
    // The text and its terminator, all counted as used; null empties.
    qsStatus Assign(const char* text);

    // Forgets the storage without releasing it.
    void ResetMemberVariables();

    BYTE* Data() { return m_pData; }
    const BYTE* Data() const { return m_pData; }
    DWORD Size() const { return m_nSize; }
    DWORD BytesUsed() const { return m_nBytesUsed; }
    bool AllocFailed() const { return m_bAllocFailed; }

private:
    void CopyFrom(const ZBuffer& other, const char* who);
    qsStatus Release(const char* who);

    BYTE* m_pData;
    DWORD m_nSize;
    DWORD m_nBytesUsed;
    bool m_bAllocFailed;
};

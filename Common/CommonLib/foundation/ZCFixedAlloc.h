// An allocator of equal-sized elements carved from chained blocks.
//
// Elements come from a free list threaded through the free elements
// themselves.  A new block is pushed onto the list back to front, so a fresh
// block hands out its elements in ascending address order; a freed element
// is the next one handed out.  Elements go back to the heap only all at once
// (FreeAll, or the destructor), never singly, which is what makes a block
// cheap: one allocation for elementsPerBlock elements.
//
// Thread-safe: every list change happens under the allocator's recursive
// lock, whose failures throw std::logic_error as ZCriticalSection describes.
#pragma once

#include "ZCPlex.h"
#include "ZCriticalSection.h"
#include "qsWinTypes.h"

class ZCFixedAlloc {
public:
    // Each element holds at least a pointer and is a whole number of
    // pointers wide, so the list links inside free elements stay aligned;
    // the element stride is ElementSize().
    ZCFixedAlloc(DWORD elementSize, DWORD elementsPerBlock);
    ~ZCFixedAlloc();
    ZCFixedAlloc(const ZCFixedAlloc&) = delete;
    ZCFixedAlloc& operator=(const ZCFixedAlloc&) = delete;

    // An element, or null when elementsPerBlock is 0 or no block can be had.
    void* Alloc();
    // Returns an element to the free list; null is ignored.
    void Free(void* p);
    // Releases every block; all elements handed out become invalid.
    void FreeAll();

    DWORD ElementSize() const { return m_nElementSize; }
    DWORD ElementsPerBlock() const { return m_nElementsPerBlock; }
    // The lock's mark is set (0x5372435A) from construction to destruction.
    bool IsValid() const { return m_Lock.IsValid(); }

private:
    struct FreeNode {
        FreeNode* m_pNext;
    };

    DWORD m_nElementSize;
    DWORD m_nElementsPerBlock;
    ZCPlex* m_pBlocks;
    FreeNode* m_pFreeList;
    ZCriticalSection m_Lock;
};

#include "ZCFixedAlloc.h"

namespace {

DWORD ElementStride(DWORD size) {
    constexpr DWORD kWord = sizeof(void*);
    if (size < kWord)
        return kWord;
    return (size + kWord - 1) / kWord * kWord;
}

} // namespace

ZCFixedAlloc::ZCFixedAlloc(DWORD elementSize, DWORD elementsPerBlock)
    : m_nElementSize(ElementStride(elementSize)), m_nElementsPerBlock(elementsPerBlock),
      m_pBlocks(nullptr), m_pFreeList(nullptr) {}

ZCFixedAlloc::~ZCFixedAlloc() {
    FreeAll();
}

void* ZCFixedAlloc::Alloc() {
    ZCriticalSection::Holder hold(m_Lock);
    if (!m_pFreeList && m_nElementsPerBlock != 0) {
        ZCPlex* block = ZCPlex::Create(m_pBlocks, m_nElementsPerBlock, m_nElementSize);
        if (!block)
            return nullptr;
        // Last element first, so the list starts at the lowest address.
        BYTE* element = block->Data() + size_t(m_nElementsPerBlock) * m_nElementSize;
        for (DWORD i = 0; i < m_nElementsPerBlock; ++i) {
            element -= m_nElementSize;
            FreeNode* node = reinterpret_cast<FreeNode*>(element);
            node->m_pNext = m_pFreeList;
            m_pFreeList = node;
        }
    }
    FreeNode* node = m_pFreeList;
    if (node)
        m_pFreeList = node->m_pNext;
    return node;
}

void ZCFixedAlloc::Free(void* p) {
    if (!p)
        return;
    ZCriticalSection::Holder hold(m_Lock);
    FreeNode* node = static_cast<FreeNode*>(p);
    node->m_pNext = m_pFreeList;
    m_pFreeList = node;
}

void ZCFixedAlloc::FreeAll() {
    ZCriticalSection::Holder hold(m_Lock);
    if (m_pBlocks)
        m_pBlocks->FreeDataChain();
    m_pBlocks = nullptr;
    m_pFreeList = nullptr;
}

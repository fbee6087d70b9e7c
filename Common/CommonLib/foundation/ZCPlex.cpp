#include "ZCPlex.h"

#include <cstddef>
#include <cstdint>
#include <new>

ZCPlex* ZCPlex::Create(ZCPlex*& head, DWORD count, DWORD elementSize) {
    uint64_t bytes = sizeof(ZCPlex) + uint64_t(count) * elementSize;
    if (bytes > SIZE_MAX)
        return nullptr;
    BYTE* raw = new (std::nothrow) BYTE[size_t(bytes)];
    if (!raw)
        return nullptr;
    ZCPlex* block = ::new (raw) ZCPlex{head};
    head = block;
    return block;
}

void ZCPlex::FreeDataChain() {
    ZCPlex* block = this;
    while (block) {
        ZCPlex* next = block->m_pNext;
        delete[] reinterpret_cast<BYTE*>(block);
        block = next;
    }
}

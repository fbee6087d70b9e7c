// A block of raw element storage, chained to older blocks.
//
// One array allocation holds the link to the next block followed by the
// element area (count x elementSize bytes), which starts pointer-aligned.
// Blocks are never released singly: the owner frees the whole chain.
#pragma once

#include "qsWinTypes.h"

struct ZCPlex {
    ZCPlex* m_pNext;

    BYTE* Data() { return reinterpret_cast<BYTE*>(this + 1); }

    // A new block linked in front of `head` (which then points to it), or
    // null, with `head` unchanged, when the memory cannot be had.
    static ZCPlex* Create(ZCPlex*& head, DWORD count, DWORD elementSize);
    // Frees this block and every block after it.
    void FreeDataChain();
};

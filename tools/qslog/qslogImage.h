// A private copy of one log file, made safe to walk.
//
// The copy is read with pread(2): the file is never mapped, written or
// locked, so a writer that truncates or re-initialises it under us costs a
// short read, never a signal.  Whatever the header claims, the walks of
// ZLogFile must stay inside the bytes actually read; so the copy's header is
// repaired where it lies (its size field cut to the bytes read, a lost header
// rebuilt from the newest record found by scanning), and every repair is
// noted as a problem for the user.  The original header words are kept for
// --stat and -o raw.
#pragma once

#include "ZLogFile.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qslog {

// The seven header words as they stand in the file, converted to native order.
struct HeaderWords {
    DWORD signature = 0, version = 0, size = 0, lastOffset = 0, nextOffset = 0, count = 0,
          wraps = 0;
};

class LogImage {
public:
    enum class Load { Ok, NotALog, TooLarge, ReadError };

    // Reads the whole file behind fd (a regular file, or a pipe to its end)
    // and checks its header.  Ok also for a damaged log (see Problems());
    // NotALog when nothing in it looks like a log; the others with errno set.
    Load Read(int fd);

    const ZLogFile* File() const { return reinterpret_cast<const ZLogFile*>(m_Data.get()); }
    uint8_t* Bytes() { return reinterpret_cast<uint8_t*>(m_Data.get()); }
    const uint8_t* Bytes() const { return reinterpret_cast<const uint8_t*>(m_Data.get()); }
    // Bytes the walks may use: those read, or fewer when the header says less.
    DWORD Size() const { return m_Size; }
    // Bytes read from the file.
    DWORD FileSize() const { return m_FileSize; }

    const HeaderWords& Original() const { return m_Original; }
    bool OppositeOrder() const { return m_Opposite; }
    // The header passes the library's own check against the file's size.
    bool HeaderValid() const { return m_HeaderValid; }
    // The header had to be rebuilt from the records.
    bool HeaderRebuilt() const { return m_Rebuilt; }
    const std::vector<std::string>& Problems() const { return m_Problems; }
    void AddProblem(std::string text) { m_Problems.push_back(std::move(text)); }

private:
    bool Allocate(size_t bytes, size_t keep);
    Load Check();
    void StoreWord(int index, DWORD value);
    DWORD Word(int index) const;
    const ZLogRec* ScanForNewest() const;
    void Rebuild(const ZLogRec* newest);

    std::unique_ptr<uint64_t[]> m_Data; // 8-aligned, zero slack after the bytes read
    DWORD m_Size = 0;
    DWORD m_FileSize = 0;
    HeaderWords m_Original;
    bool m_Opposite = false;
    bool m_HeaderValid = false;
    bool m_Rebuilt = false;
    std::vector<std::string> m_Problems;
};

} // namespace qslog

// A recursive mutex private to the process, with a validity mark.
//
// The constructor is constexpr and sets both the mark and the mutex from
// constants, so a global ZCriticalSection is constant-initialised: it is
// ready before any static initialiser runs, whatever the order in which the
// files of the program are initialised.  Stack and heap instances work the
// same way.
//
// The destructor clears the mark.  A lock whose mark is not set (destroyed,
// or memory that never held one) is not touched: Lock and Unlock throw
// std::logic_error("ZCriticalSection::Lock: invalid") or "...Unlock: invalid".
// When the mutex call itself fails (Unlock by a thread that does not own it,
// for instance) the failure is logged as "ZCriticalSection::Lock: failed %d."
// or "ZCriticalSection::Unlock: failed %d." with code 0xE0FF0103, severity 3
// and the error number, and a std::logic_error carrying that same format text
// (the "%d" unexpanded) is thrown.  These are the only exceptions the
// foundation throws on purpose: a broken lock leaves no safe way to go on.
#pragma once

#include "qsWinTypes.h"

#include <exception>
#include <pthread.h>

// "ZCrS" read as a little-endian word.
constexpr uint32_t ZCRITSECT_MARK = 0x5372435A;

class ZCriticalSection {
public:
    constexpr ZCriticalSection() noexcept = default;
    ~ZCriticalSection();
    ZCriticalSection(const ZCriticalSection&) = delete;
    ZCriticalSection& operator=(const ZCriticalSection&) = delete;

    // Recursive: the owner may lock again and must unlock as often.
    void Lock();
    void Unlock();
    bool IsValid() const;

    // Holds the lock for a scope.  A failed unlock at the end of the scope
    // throws like Unlock, except while an exception is already unwinding the
    // scope: the failure has been logged, and a second exception would end
    // the process.
    class Holder {
    public:
        explicit Holder(ZCriticalSection& cs) : m_Cs(cs), m_nUncaught(std::uncaught_exceptions()) {
            cs.Lock();
        }
        ~Holder() noexcept(false) {
            if (std::uncaught_exceptions() == m_nUncaught) {
                m_Cs.Unlock();
                return;
            }
            try {
                m_Cs.Unlock();
            } catch (...) {
            }
        }
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;

    private:
        ZCriticalSection& m_Cs;
        int m_nUncaught;
    };

private:
    uint32_t m_Mark = ZCRITSECT_MARK;
    pthread_mutex_t m_Mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

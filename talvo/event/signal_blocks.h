// Sets of signals, and the threads that block them.
#pragma once

#include <signal.h>

#include <cstdint>
#include <span>

#include "talvo/base/types.h"

namespace talvo {

class CSignalSet {
public:
    CSignalSet() { sigemptyset(&m_Set); }

    // FALSE: no signal, an unknown one, or one that a handler must not take.
    BOOL Set(std::span<const int> aSignals);

    const sigset_t& Get() const { return m_Set; }
    uint64_t GetBits() const { return m_ullBits; }  // bit n-1 is signal n, as in /proc

private:
    sigset_t m_Set;
    uint64_t m_ullBits = 0;
};

// FALSE, with a trace line: a thread of the process does not block all of them. Without /proc it is TRUE, also with a line.
BOOL EveryThreadBlocks(const CSignalSet& aSignals);

}  // namespace talvo

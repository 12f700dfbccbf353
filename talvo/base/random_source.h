// Random numbers of the connections.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// One source for the process, the system's. A simulation replaces it, so that a run follows from its seed.
class TALVO_API CCmRandomSource {
public:
    // Fills aBytes with bytes that peers cannot guess. FALSE: the system has none yet. Any thread.
    static CmBool Fill(void* aBytes, size_t aCount);
    // 0 to aBound - 1, aBound not 0; for times and choices. Never fails. Any thread.
    static uint64_t LessThan(uint64_t aBound);

    // aFill(aArg, ...) takes the place of the system; null: the system again. The library's one thread.
    using CFill = void (*)(void* aArg, void* aBytes, size_t aCount);
    static void Replace(CFill aFill, void* aArg);
};

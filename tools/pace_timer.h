// A timer of the main loop with the precision of the system.
#pragma once

#include <cstdint>
#include <functional>

#include "talvo/talvo.h"

namespace tool {

// Nanoseconds on the monotonic clock.
int64_t GetNanoseconds();

// Main thread.
class PaceTimer : private ACmEventHandler {
public:
    explicit PaceTimer(std::function<void()> aDue);
    ~PaceTimer() override;
    PaceTimer(const PaceTimer&) = delete;
    PaceTimer& operator=(const PaceTimer&) = delete;

    bool IsUsable() const { return m_bRegistered; }
    // Calls aDue once at that time, or in the next turn of the loop if it has passed. Replaces an earlier call.
    void CallAt(int64_t aNanoseconds);

private:
    HANDLE GetHandle() const override { return m_nFd; }
    int OnInput(HANDLE aFd) override;
    int OnClose(HANDLE, long) override { return 0; }

    const int m_nFd;
    const std::function<void()> m_Due;
    bool m_bRegistered;
};

}  // namespace tool

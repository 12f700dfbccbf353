// The thread with the beat of the precise timers.
#pragma once

#include <atomic>
#include <functional>

#include "talvo/event/thread.h"

namespace talvo {

// Waits for an absolute timer of the system every 10 ms while it beats, and without wake-ups while it does not.
class TALVO_API CPreciseTimerThread final : public ACmThread {
public:
    // aOnBeat: called in this thread with the number of beats since the last call.
    explicit CPreciseTimerThread(std::function<void(uint64_t)> aOnBeat);
    ~CPreciseTimerThread() override;

    BOOL IsReady() const { return m_nTimer >= 0 && m_nStop >= 0; }  // FALSE: no descriptor is left
    // Any thread, one at a time.
    void Beat(BOOL aBeat);
    CmResult Stop(CCmTimeValue* aTimeout = nullptr) override;
    BOOL IsStopped() const { return m_bStopped; }
    void OnThreadRun() override;

private:
    const std::function<void(uint64_t)> m_OnBeat;
    const int m_nTimer;
    const int m_nStop;
    std::atomic<bool> m_bStopped{false};
};

}  // namespace talvo

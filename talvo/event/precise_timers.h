// The calendars of all threads and their beat.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/base/reference_control.h"
#include "talvo/event/precise_timer_manager.h"

namespace talvo {

class CPreciseTimerThread;

// The manager and each calendar hold it, so that a calendar may outlive the manager. Any thread.
class CPreciseTimers final : public CCmReferenceControlT<CCmMutexThread> {
public:
    CPreciseTimers();
    ~CPreciseTimers() override;

    // The calendar of aQueue, with a reference for the caller. Null: memory, descriptors or threads ran out.
    CCmPreciseTimerQueue* GetTimerQueue(ICmEventQueue& aQueue);
    DWORD AddReferenceTo(CCmPreciseTimerQueue& aQueue);
    // The caller holds this object.
    DWORD ReleaseReferenceTo(CCmPreciseTimerQueue& aQueue);

    // A calendar has a timer.
    void Arm();
    // In the thread. Another thread may delete the calendar afterwards.
    void OnThreadEnd(CCmPreciseTimerQueue& aQueue);

    // Ends the beat: no calendar fires or takes timers any more.
    void End();
    BOOL HasEnded() const { return m_bEnded; }

private:
    BOOL StartThread_i() CM_REQUIRES(m_Mutex);
    CCmPreciseTimerQueue* Find_i(const ICmEventQueue& aQueue) CM_REQUIRES(m_Mutex);
    std::unique_ptr<CPreciseTimerThread> Remove_i(CCmPreciseTimerQueue& aQueue) CM_REQUIRES(m_Mutex);
    std::unique_ptr<CPreciseTimerThread> TakeThread_i() CM_REQUIRES(m_Mutex);
    void OnBeat_i(uint64_t aTicks);

    CCmMutexThread m_Mutex;
    std::vector<CCmPreciseTimerQueue*> m_Queues CM_GUARDED_BY(m_Mutex);     // of threads that have not ended
    std::unique_ptr<CPreciseTimerThread> m_pThread CM_GUARDED_BY(m_Mutex);  // null: there is no calendar
    bool m_bBeating CM_GUARDED_BY(m_Mutex) = false;
    std::atomic<bool> m_bEnded{false};
};

}  // namespace talvo

// Timers on this library's calendar, with ticks as its precise-timer thread posts them.
#include "benchmarks/timers/timers.h"
#include "talvo/talvo.h"

namespace {

class CTimers {
public:
    explicit CTimers(size_t aCount) : m_Handlers(aCount) {
        m_Events.Reset2CurrentThreadId();
        for (CHandler& handler : m_Handlers)
            handler.m_pFired = &m_nFired;
    }

    void Schedule(size_t aIndex, int aMs) {
        m_Queue.ScheduleTimer(&m_Handlers[aIndex], nullptr, CCmTimeValue(0, aMs * 1000L), 1);
    }
    void Repeat(size_t aIndex, int aMs) {
        m_Queue.ScheduleTimer(&m_Handlers[aIndex], nullptr, CCmTimeValue(0, aMs * 1000L), 0);
    }
    void Cancel(size_t aIndex) { m_Queue.CancelTimer(&m_Handlers[aIndex]); }
    void Settle() {}
    size_t Fire() {
        for (const int64_t llNow = bench::NowNs(); m_llTick < llNow; m_llTick += SLOT_MS * 1000000)
            m_Queue.PostTick();
        CCmEventQueueBase::EventsType events;
        m_Events.PopPendingEventsWithLock(events, 100, nullptr);
        m_Events.ProcessEvents(events);
        return m_nFired;
    }

private:
    static constexpr int64_t SLOT_MS = 10;

    struct CHandler : public ICmTimerHandler {
        void OnTimeout(const CCmTimeValue&, void*) override { ++*m_pFired; }
        size_t* m_pFired = nullptr;
    };

    size_t m_nFired = 0;
    std::vector<CHandler> m_Handlers;
    CCmEventQueueUsingMutex m_Events;
    CCmTimerQueueCalendar m_Queue{SLOT_MS, 7200000, &m_Events};
    int64_t m_llTick = bench::NowNs();
};

}  // namespace

int main(int argc, char** argv) { return bench::RunTimers<CTimers>(argc, argv); }

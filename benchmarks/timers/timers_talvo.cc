// Timers on this library's ordered queue, which its reactors and threads use.
#include "benchmarks/timers/timers.h"
#include "talvo/talvo.h"

namespace {

class CTimers {
public:
    explicit CTimers(size_t aCount) : m_Handlers(aCount) {
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
        m_Queue.CheckExpire(nullptr);
        return m_nFired;
    }

private:
    struct CHandler : public ICmTimerHandler {
        void OnTimeout(const CCmTimeValue&, void*) override { ++*m_pFired; }
        size_t* m_pFired = nullptr;
    };

    size_t m_nFired = 0;
    std::vector<CHandler> m_Handlers;
    CCmTimerQueueOrderedList m_Queue;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunTimers<CTimers>(argc, argv); }

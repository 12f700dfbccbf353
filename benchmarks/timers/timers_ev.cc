// Timers on libev.
#include <ev.h>

#include "benchmarks/timers/timers.h"

namespace {

class CTimers {
public:
    explicit CTimers(size_t aCount) : m_Timers(aCount) {
        for (ev_timer& timer : m_Timers) {
            ev_init(&timer, [](struct ev_loop*, ev_timer* aTimer, int) { ++*static_cast<size_t*>(aTimer->data); });
            timer.data = &m_nFired;
        }
    }
    ~CTimers() { ev_loop_destroy(m_pLoop); }
    CTimers(const CTimers&) = delete;
    CTimers& operator=(const CTimers&) = delete;

    void Schedule(size_t aIndex, int aMs) { Start(aIndex, aMs, 0); }
    void Repeat(size_t aIndex, int aMs) { Start(aIndex, aMs, aMs); }
    void Cancel(size_t aIndex) { ev_timer_stop(m_pLoop, &m_Timers[aIndex]); }
    void Settle() { ev_now_update(m_pLoop); }
    size_t Fire() {
        ev_run(m_pLoop, EVRUN_NOWAIT);
        return m_nFired;
    }

private:
    void Start(size_t aIndex, int aMs, int aRepeatMs) {
        ev_timer& timer = m_Timers[aIndex];
        if (ev_is_active(&timer))
            ev_timer_stop(m_pLoop, &timer);
        ev_timer_set(&timer, aMs / 1000.0, aRepeatMs / 1000.0);
        ev_timer_start(m_pLoop, &timer);
    }

    struct ev_loop* m_pLoop = ev_loop_new(EVFLAG_AUTO);
    size_t m_nFired = 0;
    std::vector<ev_timer> m_Timers;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunTimers<CTimers>(argc, argv); }

// Timers on libevent.
#include <event2/event.h>

#include "benchmarks/timers/timers.h"

namespace {

class CTimers {
public:
    explicit CTimers(size_t aCount) {
        for (size_t n = 0; n < aCount; ++n)
            m_Timers.push_back(event_new(m_pBase, -1, 0, OnTimeout, &m_nFired));
    }
    ~CTimers() {
        for (event* pTimer : m_Timers)
            event_free(pTimer);
        event_base_free(m_pBase);
    }
    CTimers(const CTimers&) = delete;
    CTimers& operator=(const CTimers&) = delete;

    void Schedule(size_t aIndex, int aMs) { Start(aIndex, 0, aMs); }
    void Repeat(size_t aIndex, int aMs) { Start(aIndex, EV_PERSIST, aMs); }
    void Cancel(size_t aIndex) { event_del(m_Timers[aIndex]); }
    void Settle() {}
    size_t Fire() {
        event_base_loop(m_pBase,
                        EVLOOP_NONBLOCK | EVLOOP_ONCE);  // one pass: otherwise timers that are due again would fire, too
        return m_nFired;
    }

private:
    static void OnTimeout(evutil_socket_t, short, void* aFired) { ++*static_cast<size_t*>(aFired); }

    // The event's creation sets whether it repeats; a later change is possible only while it is not pending.
    void Start(size_t aIndex, short aFlags, int aMs) {
        event* pTimer = m_Timers[aIndex];
        if (event_get_events(pTimer) != aFlags)
            event_assign(pTimer, m_pBase, -1, aFlags, OnTimeout, &m_nFired);
        const timeval delay{aMs / 1000, aMs % 1000 * 1000};
        event_add(pTimer, &delay);
    }

    event_base* m_pBase = event_base_new();
    size_t m_nFired = 0;
    std::vector<event*> m_Timers;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunTimers<CTimers>(argc, argv); }

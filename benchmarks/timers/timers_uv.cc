// Timers on libuv.
#include <uv.h>

#include "benchmarks/timers/timers.h"

namespace {

class CTimers {
public:
    explicit CTimers(size_t aCount) : m_Timers(aCount) {
        uv_loop_init(&m_Loop);
        for (uv_timer_t& timer : m_Timers) {
            uv_timer_init(&m_Loop, &timer);
            timer.data = &m_nFired;
        }
    }
    ~CTimers() {
        for (uv_timer_t& timer : m_Timers)
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&m_Loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_Loop);
    }
    CTimers(const CTimers&) = delete;
    CTimers& operator=(const CTimers&) = delete;

    void Schedule(size_t aIndex, int aMs) { Start(aIndex, aMs, 0); }
    void Repeat(size_t aIndex, int aMs) { Start(aIndex, aMs, aMs); }
    void Cancel(size_t aIndex) { uv_timer_stop(&m_Timers[aIndex]); }
    void Settle() {}
    size_t Fire() {
        uv_run(&m_Loop, UV_RUN_NOWAIT);
        return m_nFired;
    }

private:
    void Start(size_t aIndex, int aMs, int aRepeatMs) {
        uv_timer_start(
            &m_Timers[aIndex], [](uv_timer_t* aTimer) { ++*static_cast<size_t*>(aTimer->data); }, static_cast<uint64_t>(aMs),
            static_cast<uint64_t>(aRepeatMs));
    }

    uv_loop_t m_Loop;
    size_t m_nFired = 0;
    std::vector<uv_timer_t> m_Timers;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunTimers<CTimers>(argc, argv); }

// Timers on Asio, without its locks. A cancelled wait still calls its handler, which Settle runs.
#include <asio.hpp>

#include "benchmarks/timers/timers.h"

namespace {

class CTimers {
public:
    explicit CTimers(size_t aCount) {
        m_Timers.reserve(aCount);
        for (size_t n = 0; n < aCount; ++n)
            m_Timers.emplace_back(m_Io);
    }

    void Schedule(size_t aIndex, int aMs) {
        asio::steady_timer& timer = m_Timers[aIndex];
        timer.expires_after(std::chrono::milliseconds(aMs));
        timer.async_wait([this](std::error_code aError) { m_nFired += !aError; });
    }
    void Repeat(size_t aIndex, int aMs) {
        m_Timers[aIndex].expires_after(std::chrono::milliseconds(aMs));
        m_Timers[aIndex].async_wait([this, aIndex, aMs](std::error_code aError) {
            if (aError)
                return;
            ++m_nFired;
            Repeat(aIndex, aMs);
        });
    }
    void Cancel(size_t aIndex) { m_Timers[aIndex].cancel(); }
    void Settle() { Poll(); }
    size_t Fire() {
        Poll();
        return m_nFired;
    }

private:
    void Poll() {
        m_Io.restart();
        m_Io.poll();
    }

    asio::io_context m_Io{ASIO_CONCURRENCY_HINT_UNSAFE};
    size_t m_nFired = 0;
    std::vector<asio::steady_timer> m_Timers;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunTimers<CTimers>(argc, argv); }

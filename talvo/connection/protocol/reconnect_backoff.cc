#include "talvo/connection/protocol/reconnect_backoff.h"

#include <algorithm>

#include "talvo/base/random_source.h"

namespace {

constexpr DWORD STEP = 500;
constexpr DWORD MIN_DELAY = 100;  // of all but the first
constexpr DWORD MAX_DELAY = 30000;
constexpr DWORD MAX_DOUBLINGS = 6;  // then STEP has passed MAX_DELAY
constexpr DWORD STABLE = 10000;

}  // namespace

DWORD CCmReconnectBackoff::NextDelay() {
    const DWORD dwRetry = m_dwRetries++;
    if (dwRetry == 0)
        return static_cast<DWORD>(CCmRandomSource::LessThan(STEP + 1));
    const DWORD dwMax = std::min(STEP << std::min(dwRetry, MAX_DOUBLINGS), MAX_DELAY);
    return MIN_DELAY + static_cast<DWORD>(CCmRandomSource::LessThan(dwMax - MIN_DELAY + 1));
}

void CCmReconnectBackoff::OnLost(DWORD aConnectedMsec) {
    if (aConnectedMsec >= STABLE)
        m_dwRetries = 0;
}

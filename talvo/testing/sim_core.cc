#include "talvo/testing/sim_core.h"

#include <algorithm>
#include <utility>

#include "talvo/testing/sim_acceptor.h"
#include "talvo/testing/sim_transport.h"

namespace talvo {

namespace {

constexpr int64_t SECOND = 1000000;
constexpr int64_t TICKS_WRAP = (int64_t{1} << 32) * 1000;  // get_tick_count counts milliseconds in 32 bits
constexpr WORD FIRST_PORT = 1025;

}  // namespace

// Every simulation starts some minutes before the tick counter wraps, and with a whole tick.
CSimCore::CSimCore(uint64_t aSeed, std::ostream* aTrace)
    : m_ullSeed(aSeed),
      m_Random(aSeed),
      m_Schedule(TICKS_WRAP - 1000 * (1 + m_Random.UpTo(300 * SECOND / 1000))),
      m_Trace(m_Schedule, aTrace) {
    m_Schedule.SetStep([this] {
        if (m_pObserver)
            m_pObserver->OnStep();
    });
}

void CSimCore::End() {
    m_bOver = TRUE;
    m_pObserver = nullptr;
    m_Held.clear();
    m_Schedule.Clear();
    m_Schedule.SetReactor(nullptr);
}

CSimTransport* CSimCore::FindEnd(const CEndKey& aKey) const {
    const auto it = m_Ends.find(aKey);
    return it != m_Ends.end() ? it->second : nullptr;
}

CSimAcceptor* CSimCore::FindAcceptor(const CCmInetAddr& aAddr, BOOL aDatagrams) const {
    auto it = m_Acceptors.find({aAddr, aDatagrams});
    if (it == m_Acceptors.end())
        it = m_Acceptors.find({CCmInetAddr(nullptr, aAddr.GetPort()), aDatagrams});
    return it != m_Acceptors.end() ? it->second : nullptr;
}

WORD CSimCore::NewPort(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer) {
    CCmInetAddr addr = aLocal;
    for (DWORD dwTried = 0; dwTried < 0x10000; ++dwTried) {
        m_wLastPort = std::max<WORD>(static_cast<WORD>(m_wLastPort + 1), FIRST_PORT);
        addr.SetPort(m_wLastPort);
        if (!FindEnd({addr, aPeer}) && !FindAcceptor(addr, FALSE) && !FindAcceptor(addr, TRUE))
            return m_wLastPort;
    }
    return 0;
}

void CSimCore::SetLink(const CCmInetAddr* aAcceptor, const CCmSimLink& aLink) {
    if (aAcceptor)
        m_Links[*aAcceptor] = aLink;
    else
        m_Link = aLink;
    m_Schedule.After(0, [this] { RunHeld_i(); });
}

const CCmSimLink& CSimCore::GetLink(const CCmInetAddr& aAcceptor) const {
    const auto it = m_Links.find(aAcceptor);
    return it != m_Links.end() ? it->second : m_Link;
}

BOOL CSimCore::IsSilent(const CCmSimPath& aPath) const {
    const int64_t llNow = m_Schedule.Now();
    const BOOL bEnds = aPath.m_tvSilentUntil != CCmTimeValue::s_tvMax;
    return aPath.m_tvSilentFrom.GetTotalInUsec() <= llNow && (!bEnds || llNow < aPath.m_tvSilentUntil.GetTotalInUsec());
}

BOOL CSimCore::HoldWhileSilent(const CCmSimPath& aPath, std::function<void()> aRun) {
    if (!IsSilent(aPath))
        return FALSE;
    m_Held.push_back(std::move(aRun));
    if (aPath.m_tvSilentUntil != CCmTimeValue::s_tvMax)
        m_Schedule.After(aPath.m_tvSilentUntil.GetTotalInUsec() - m_Schedule.Now(), [this] { RunHeld_i(); });
    return TRUE;
}

// Each checks again for a silence.
void CSimCore::RunHeld_i() {
    for (const auto& run : std::exchange(m_Held, {}))
        run();
}

int64_t CSimCore::DelayOf(const CCmSimPath& aPath) {
    return aPath.m_tvDelay.GetTotalInUsec() + m_Random.UpTo(aPath.m_tvJitter.GetTotalInUsec());
}

// A name without an address stays pending, and connecting to it fails.
CmResult CSimCore::ResolveFromCache(const CCmString& aName, CIpBytes& aIp) {
    const auto it = m_Hosts.find(aName);
    if (it == m_Hosts.end())
        return CM_ERROR_NETWORK_DNS_FAILURE;
    aIp = it->second;
    return CM_OK;
}

}  // namespace talvo

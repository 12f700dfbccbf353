#include "tests/sim/sim_watch.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr char REQUEST = 1;
constexpr char RESPONSE = 2;
constexpr size_t CONNECT_LENGTH = 8;  // bytes of either
constexpr int64_t RELEASE = 60 * SIM_SEC;

// When a client asks over datagrams, counted from the opening.
constexpr int64_t REQUESTS[] = {
    0, 200 * SIM_MSEC, 1200 * SIM_MSEC, 2200 * SIM_MSEC, 2700 * SIM_MSEC, 3200 * SIM_MSEC, 4200 * SIM_MSEC};

}  // namespace

CSimWatch::CEnd* CSimWatch::Find_i(DWORD aKey) {
    const auto it = m_Ends.find(aKey);
    return it != m_Ends.end() && it->second.m_bOpen ? &it->second : nullptr;
}

void CSimWatch::Fail_i(DWORD aKey, const std::string& aText) {
    m_Network.Fail((IsServer(aKey) ? "server " : "client ") + std::to_string(IsServer(aKey) ? aKey & 0xFFFF : aKey >> 16) +
                   ": " + aText);
}

void CSimWatch::OnOpen(const CCmSimEnd& aEnd) {
    const DWORD dwKey = KeyOf(aEnd);
    CEnd end;
    end.m_bOpen = TRUE;
    end.m_llOpened = m_Network.Now();
    end.m_llReceivedTick = end.m_llSentTick = m_Network.Tick();
    m_Ends[dwKey] = end;
    if (m_bHandshake && IsServer(dwKey))
        m_Network.After(RELEASE, [this, dwKey, llOpened = end.m_llOpened] { CheckRelease_i(dwKey, llOpened); });
}

// The timer of the same moment has fired before.
void CSimWatch::CheckRelease_i(DWORD aKey, int64_t aOpened) {
    const CEnd* pEnd = Find_i(aKey);
    if (pEnd && pEnd->m_llOpened == aOpened && pEnd->m_llResponse < 0 && !m_Network.HasJumped())
        Fail_i(aKey, "waits for a request for more than 60 s");
}

void CSimWatch::OnSend(const CCmSimEnd& aEnd, const std::string& aBytes) {
    const DWORD dwKey = KeyOf(aEnd);
    CEnd* pEnd = Find_i(dwKey);
    if (!pEnd || aBytes.empty())
        return;
    pEnd->m_llSentTick = m_Network.Tick();
    if (!m_bHandshake)
        return;
    const BOOL bFirst = IsServer(dwKey) ? pEnd->m_llResponse < 0 : pEnd->m_llRequest < 0;
    if (IsServer(dwKey) && aBytes[0] == RESPONSE && (m_bDatagrams || bFirst))
        pEnd->m_llResponse = m_Network.Now();
    if (!IsServer(dwKey) && aBytes[0] == REQUEST && (m_bDatagrams || bFirst))
        SentRequest_i(dwKey, *pEnd);
}

void CSimWatch::SentRequest_i(DWORD aKey, CEnd& aEnd) {
    if (aEnd.m_llRequest == m_Network.Now())  // tried again, as nothing was taken
        return;
    aEnd.m_llRequest = m_Network.Now();
    const int64_t llAge = aEnd.m_llRequest - aEnd.m_llOpened;
    const size_t stNumber = aEnd.m_stRequests++;
    if (aEnd.m_stReceived > 0)
        Fail_i(aKey, "a request behind the response");
    if (!m_Network.HasJumped() && (stNumber >= std::size(REQUESTS) || llAge != REQUESTS[stNumber]))
        Fail_i(aKey, "request " + std::to_string(stNumber) + " after " + std::to_string(llAge));
}

// None is missing while nothing has come.
void CSimWatch::CheckRequests_i(DWORD aKey, const CEnd& aEnd) {
    if (!m_bHandshake || !m_bDatagrams || IsServer(aKey) || aEnd.m_stReceived > 0 || m_Network.HasJumped())
        return;
    const int64_t llAge = m_Network.Now() - aEnd.m_llOpened;
    const auto stDue = static_cast<size_t>(std::lower_bound(std::begin(REQUESTS), std::end(REQUESTS), llAge) - REQUESTS);
    if (aEnd.m_stRequests < stDue)
        Fail_i(aKey, "only " + std::to_string(aEnd.m_stRequests) + " requests in " + std::to_string(llAge));
}

void CSimWatch::OnReceive(const CCmSimEnd& aEnd, const std::string& aBytes) {
    const DWORD dwKey = KeyOf(aEnd);
    CEnd* pEnd = Find_i(dwKey);
    if (!pEnd)
        return;
    pEnd->m_llReceivedTick = m_Network.Tick();
    if (m_bDatagrams && (aBytes.size() < CONNECT_LENGTH || aBytes[0] != RESPONSE))
        return;
    CheckRequests_i(dwKey, *pEnd);
    const size_t stBehind = CONNECT_LENGTH - std::min(CONNECT_LENGTH, pEnd->m_stReceived);
    pEnd->m_stReceived += aBytes.size();
    if (m_bHandshake && IsServer(dwKey) && stBehind < aBytes.size() && pEnd->m_stReceived - aBytes.size() <= CONNECT_LENGTH &&
        aBytes[stBehind] == REQUEST)
        Fail_i(dwKey, "a second request over a stream");
}

// Every request is answered at once, or its end has ended.
void CSimWatch::OnReceived(const CCmSimEnd& aEnd, const std::string& aBytes) {
    const DWORD dwKey = KeyOf(aEnd);
    const CEnd* pEnd = Find_i(dwKey);
    if (!pEnd || !IsServer(dwKey) || !m_bHandshake)
        return;
    const BOOL bAsked = m_bDatagrams ? aBytes.size() >= CONNECT_LENGTH && aBytes[0] == REQUEST
                                     : pEnd->m_llResponse < 0 && pEnd->m_stReceived >= CONNECT_LENGTH;
    if (bAsked && pEnd->m_llResponse != m_Network.Now())
        Fail_i(dwKey, "a request is not answered");
}

void CSimWatch::OnClose(const CCmSimEnd& aEnd, BOOL aByOwner) {
    const DWORD dwKey = KeyOf(aEnd);
    CEnd* pEnd = Find_i(dwKey);
    if (!pEnd)
        return;
    CheckRequests_i(dwKey, *pEnd);
    pEnd->m_bOpen = FALSE;
    if (!m_bHandshake || !IsServer(dwKey) || !aByOwner || pEnd->m_llResponse >= 0 || m_Network.HasJumped())
        return;
    const BOOL bReceiving = pEnd->m_llReceivedTick == m_Network.Tick() || m_llStopped == m_Network.Now();
    const int64_t llAge = m_Network.Now() - pEnd->m_llOpened;
    if (!bReceiving && llAge != RELEASE)
        Fail_i(dwKey, "waited for a request for only " + std::to_string(llAge));
}

#include "talvo/connection/protocol/reliable_channels.h"

#include <algorithm>

#include "talvo/base/clock.h"
#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/connection/protocol/rlb_conn_tcp_server.h"

namespace talvo {

namespace {

constexpr const char* SECTION = "Reliable";
constexpr uint64_t ALL = 100;  // per cent

int64_t Now() { return CCmClock::GetTimeOfDayUsec(); }
int64_t After(DWORD aSeconds) { return Now() + int64_t{aSeconds} * 1000000; }

}  // namespace

CReliableChannels::CReliableChannels()
    : m_ullMaxLost(get_uint32_param(SECTION, "MaxLost", 10000)),
      m_ullMaxBytes(get_uint32_param(SECTION, "MaxLostBytes", 1 << 30)),
      m_dwShare(std::clamp<DWORD>(get_uint32_param(SECTION, "MaxLostShare", ALL), 1, ALL)),
      m_bAnyAddress(get_bool_param(SECTION, "AnyAddress", false)) {}

CReliableChannels::CEntry* CReliableChannels::Find_i(WORD aChannel) {
    const auto it = m_Entries.find(aChannel);
    return it != m_Entries.end() ? &it->second : nullptr;
}

WORD CReliableChannels::Open(CRlbConnTCPServer& aConn, const CCsConnToken& aToken, const CIpBytes& aAddr) {
    if (m_bClosed)
        return 0;
    DropOld_i();
    const WORD wChannel = m_Numbers.Take(Now());
    if (wChannel == 0)
        return 0;
    CEntry entry;
    entry.m_pConn = &aConn;
    entry.m_Token = aToken;
    entry.m_Addr = aAddr;
    if (WithMemory([&] { m_Entries.emplace(wChannel, entry); }))
        return wChannel;
    m_Numbers.GiveBack(wChannel, 0);
    return 0;
}

// Null: the request fits.
const char* CReliableChannels::FindFault_i(const CEntry& aEntry, const CReopenRequest& aRequest) const {
    if (aRequest.m_bToken && !(aRequest.m_Pdu.m_Token == aEntry.m_Token))
        return "wrong token";
    if (aRequest.m_bToken && aRequest.m_Pdu.m_dwAttempt <= aEntry.m_dwAttempt)
        return "old attempt";
    if (!aRequest.m_bToken && !m_bAnyAddress && aRequest.m_Addr != aEntry.m_Addr)
        return "other address";
    if (aEntry.m_pConn && !aEntry.m_pConn->MayReopen(aRequest.m_Pdu.GetACK()))
        return "wrong counter";
    return nullptr;
}

CReliableChannels::CVerdict CReliableChannels::Judge(const CReopenRequest& aRequest) {
    CVerdict verdict;
    verdict.m_Reason = CM_ERROR_NETWORK_CONNECT_REFUSED;
    if (!aRequest.m_bToken && (!aRequest.m_bAlive || m_Limiter.IsBlocked(aRequest.m_Addr, Now()))) {
        verdict.m_bSilent = TRUE;
        return verdict;
    }
    DropOld_i();
    CEntry* pEntry = Find_i(aRequest.m_Pdu.GetConTag());
    const char* pFault = pEntry ? FindFault_i(*pEntry, aRequest) : "unknown channel";
    if (!pFault && pEntry->m_pConn) {
        pEntry->m_dwAttempt = aRequest.m_Pdu.m_dwAttempt;
        verdict.m_pConn = pEntry->m_pConn;
        return verdict;
    }
    if (!pFault) {
        verdict.m_Reason = pEntry->m_Reason;
        return verdict;
    }
    CM_WARNING_TRACE_THIS("CReliableChannels::Judge, refused: " << pFault << ". channel=" << aRequest.m_Pdu.GetConTag()
                                                                << " peer=" << aRequest.m_Addr.GetText());
    if (pEntry && !aRequest.m_bToken)
        m_Limiter.OnRefused(aRequest.m_Addr, Now());
    return verdict;
}

// FALSE: memory ran out, and nothing has changed.
BOOL CReliableChannels::Move_i(WORD aChannel, EState aState) {
    CEntry& entry = *Find_i(aChannel);
    if (aState != UP && !WithMemory([&] {
            m_UseOf.try_emplace(entry.m_Addr);
            std::list<WORD>& list = aState == LOST ? m_Lost : m_Remembered;
            const auto place = list.insert(list.end(), aChannel);
            if (entry.m_State != UP)
                (entry.m_State == LOST ? m_Lost : m_Remembered).erase(entry.m_Place);
            entry.m_Place = place;
        }))
        return FALSE;
    if (aState == UP && entry.m_State != UP)
        (entry.m_State == LOST ? m_Lost : m_Remembered).erase(entry.m_Place);
    const CEntry before = entry;
    entry.m_State = aState;
    entry.m_dwBytes = 0;
    Count_i(entry, 1);
    Count_i(before, -1);
    return TRUE;
}

// An address without use is forgotten, so the new state of an entry counts before the old one is taken off.
void CReliableChannels::Count_i(const CEntry& aEntry, int aSign) {
    if (aEntry.m_State == UP)
        return;
    const auto it = m_UseOf.find(aEntry.m_Addr);
    for (CUse* pUse : {&m_Use, &it->second}) {
        pUse->m_dwCount += static_cast<DWORD>(aSign);
        pUse->m_ullBytes += static_cast<uint64_t>(aSign * int64_t{aEntry.m_dwBytes});
    }
    if (it->second.m_dwCount == 0)
        m_UseOf.erase(it);
}

void CReliableChannels::OnLost(WORD aChannel, DWORD aBytes) {
    if (!Find_i(aChannel))
        return;
    if (Move_i(aChannel, LOST))
        OnBytes(aChannel, aBytes);
    else
        EndLost_i(aChannel);
}

void CReliableChannels::OnBytes(WORD aChannel, DWORD aBytes) {
    CEntry* pEntry = Find_i(aChannel);
    if (!pEntry || pEntry->m_State != LOST)
        return;
    const CEntry before = *pEntry;
    pEntry->m_dwBytes = aBytes;
    Count_i(*pEntry, 1);
    Count_i(before, -1);
    Enforce_i(pEntry->m_Addr, aChannel);
}

void CReliableChannels::OnBack(WORD aChannel, const CIpBytes& aAddr) {
    if (CEntry* pEntry = Find_i(aChannel)) {
        Move_i(aChannel, UP);
        pEntry->m_Addr = aAddr;
    }
    DropOld_i();
}

void CReliableChannels::Forget(WORD aChannel, DWORD aSeconds) { Erase_i(aChannel, After(aSeconds)); }

// The number rests until then.
void CReliableChannels::Erase_i(WORD aChannel, int64_t aUntil) {
    if (!Find_i(aChannel))
        return;
    Move_i(aChannel, UP);
    m_Entries.erase(aChannel);
    m_Numbers.GiveBack(aChannel, aUntil);
}

void CReliableChannels::Remember(WORD aChannel, CmResult aReason, DWORD aSeconds) {
    CEntry* pEntry = Find_i(aChannel);
    if (!pEntry)
        return;
    if (m_bClosed || !Move_i(aChannel, REMEMBERED)) {
        Forget(aChannel, aSeconds);
        return;
    }
    pEntry->m_pConn = nullptr;
    pEntry->m_Reason = aReason;
    pEntry->m_llUntil = After(aSeconds);
    Enforce_i(pEntry->m_Addr, aChannel);
}

BOOL CReliableChannels::IsOver_i(const CUse& aUse, uint64_t aPercent) const {
    return aUse.m_dwCount * ALL > m_ullMaxLost * aPercent || aUse.m_ullBytes * ALL > m_ullMaxBytes * aPercent;
}

BOOL CReliableChannels::IsOver_i(const CIpBytes& aAddr) const {
    const auto it = m_UseOf.find(aAddr);
    return it != m_UseOf.end() && IsOver_i(it->second, m_dwShare);
}

void CReliableChannels::Enforce_i(const CIpBytes& aAddr, WORD aNewcomer) {
    const std::shared_ptr<CReliableChannels> pKeep = shared_from_this();
    const CIpBytes addr = aAddr;
    while (!m_bClosed && (IsOver_i(m_Use, ALL) || IsOver_i(addr)))
        EndLost_i(FindVictim_i(addr, aNewcomer));
}

// One is there: something is over its bound. The newcomer is the last choice.
WORD CReliableChannels::FindVictim_i(const CIpBytes& aAddr, WORD aNewcomer) const {
    const BOOL bAll = IsOver_i(m_Use, ALL);
    const auto first = [&](const std::list<WORD>& aList, BOOL aOfAddr) {
        const auto it = std::ranges::find_if(
            aList, [&](WORD w) { return w != aNewcomer && (!aOfAddr || m_Entries.at(w).m_Addr == aAddr); });
        return it != aList.end() ? *it : WORD{0};
    };
    WORD wVictim = first(m_Remembered, !bAll);
    if (wVictim == 0)
        wVictim = first(m_Lost, TRUE);
    if (wVictim == 0 && bAll)
        wVictim = first(m_Lost, FALSE);
    return wVictim != 0 ? wVictim : aNewcomer;
}

void CReliableChannels::EndLost_i(WORD aChannel) {
    CEntry* pEntry = Find_i(aChannel);
    if (pEntry && pEntry->m_pConn)
        pEntry->m_pConn->EndLost();  // forgets it; may release anything
    else if (pEntry)
        Erase_i(aChannel, pEntry->m_llUntil);
}

// Of different times of remembering, so those behind a longer one stay longer.
void CReliableChannels::DropOld_i() {
    while (!m_Remembered.empty() && Find_i(m_Remembered.front())->m_llUntil <= Now())
        Erase_i(m_Remembered.front(), 0);
}

void CReliableChannels::Close() {
    const std::shared_ptr<CReliableChannels> pKeep = shared_from_this();
    m_bClosed = TRUE;
    while (!m_Remembered.empty())
        Erase_i(m_Remembered.front(), 0);
    while (!m_Lost.empty())
        EndLost_i(m_Lost.front());
}

}  // namespace talvo

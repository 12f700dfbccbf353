#include "talvo/session/forward_cursor.h"

#include <algorithm>
#include <limits>

namespace talvo {

namespace {

constexpr DWORD NO_LIMIT = std::numeric_limits<DWORD>::max();

DWORD LimitOf(DWORD aOption) { return aOption > 0 ? aOption : NO_LIMIT; }
DWORD HalfOf(DWORD aLimit) { return aLimit == NO_LIMIT ? NO_LIMIT : aLimit / 2; }

}  // namespace

CForwardCursor::CForwardCursor(const CForwardLog& aLog, const CCmForwardReceiverOptions& aOptions)
    : m_ullNext(aLog.GetEnd()),
      m_ullJoined(aLog.GetEnd()),
      m_ullBytesJoined(aLog.GetBytesForwarded()),
      m_dwMaxMessages(LimitOf(aOptions.m_dwMaxMessages)),
      m_dwMaxBytes(LimitOf(aOptions.m_dwMaxBytes)),
      m_dwMaxMilliseconds(aOptions.m_dwMaxMilliseconds > 0 ? std::min(aOptions.m_dwMaxMilliseconds, MOST_MILLISECONDS)
                                                           : NO_LIMIT),
      m_byPolicy(static_cast<BYTE>(aOptions.m_Policy)) {
    switch (aOptions.m_Join) {
    case CM_FORWARD_JOIN_NEXT:
        break;
    case CM_FORWARD_JOIN_KEY:
        m_bAwaitsKey = m_bDueFromKey = aLog.GetLastKeyMessage() == CForwardLog::NONE;
        if (!m_bAwaitsKey)
            m_ullNext = aLog.GetLastKeyMessage();
        break;
    case CM_FORWARD_JOIN_ALL_KEYS: {
        const CCmForwardCount replay = aLog.GetNewestOfKeys();
        m_dwReplayed = m_dwReplay = static_cast<DWORD>(replay.m_ullMessages);
        m_ullReplayBytes = replay.m_ullBytes;
        m_bReplays = m_dwReplay > 0;
        break;
    }
    case CM_FORWARD_JOIN_OLDEST:
        m_ullNext = aLog.GetBegin();
        break;
    }
    m_ullStart = m_ullNext;
    m_ullBytesNext = aLog.GetBytesBefore(m_ullNext);
    if (m_bReplays)
        m_ullNext = 0;
}

// What it passes is counted in aCounted.
void CForwardCursor::MoveTo_i(const CForwardLog& aLog, uint64_t aNumber, CCmForwardCount& aCounted) {
    const uint64_t ullBytes = aLog.GetBytesBefore(aNumber);
    aCounted += {aNumber - m_ullNext, ullBytes - m_ullBytesNext};
    m_ullNext = aNumber;
    m_ullBytesNext = ullBytes;
}

void CForwardCursor::Settle(const CForwardLog& aLog) {
    if (!m_bAwaitsKey)
        return;
    const uint64_t ullKey = aLog.FindKeyMessage(m_ullNext);
    CCmForwardCount notDue;
    MoveTo_i(aLog, ullKey == CForwardLog::NONE ? aLog.GetEnd() : ullKey, m_bDueFromKey ? notDue : m_Dropped);
    if (m_bDueFromKey)
        m_ullStart = m_ullNext;
    m_bAwaitsKey = ullKey == CForwardLog::NONE;
    m_bDueFromKey = m_bDueFromKey && m_bAwaitsKey;
}

const CForwardEntry* CForwardCursor::Peek(const CForwardLog& aLog) {
    if (m_bAwaitsKey)
        Settle(aLog);
    if (m_bReplays) {
        if (const CForwardEntry* pEntry = PeekReplayed_i(aLog))
            return pEntry;
    }
    if (GetPolicy() != CM_FORWARD_CONFLATE)
        return m_ullNext < aLog.GetEnd() ? &aLog.At(m_ullNext) : nullptr;
    uint64_t ullNext = m_ullNext;
    const CForwardEntry* pEntry = aLog.FindFrom(ullNext);
    while (pEntry && pEntry->m_bReplaced)
        pEntry = aLog.FindFrom(++ullNext);
    if (ullNext == m_ullNext)
        return pEntry;
    const uint64_t ullBytes = pEntry ? pEntry->m_ullBytesBefore : aLog.GetBytesForwarded();
    m_Conflated += {ullNext - m_ullNext, ullBytes - m_ullBytesNext};
    m_ullNext = ullNext;
    m_ullBytesNext = ullBytes;
    return pEntry;
}

// Those that have been replaced since it joined are not found any more.
const CForwardEntry* CForwardCursor::PeekReplayed_i(const CForwardLog& aLog) {
    while (m_dwReplay > 0) {
        const CForwardEntry* pEntry = aLog.FindFrom(m_ullNext);
        if (!pEntry || m_ullNext >= m_ullJoined)
            break;
        if (pEntry->IsNewestOfKey())
            return pEntry;
        ++m_ullNext;
    }
    EndReplay_i(m_Conflated);
    return nullptr;
}

void CForwardCursor::EndReplay_i(CCmForwardCount& aCounted) {
    aCounted += {m_dwReplay, m_ullReplayBytes};
    m_dwReplay = 0;
    m_ullReplayBytes = 0;
    m_ullNext = m_ullStart;
    m_bReplays = false;
}

void CForwardCursor::Take(DWORD aLength) {
    m_Sent += {1, aLength};
    ++m_ullNext;
    if (!m_bReplays) {
        m_ullBytesNext += aLength;
        return;
    }
    m_ullReplayBytes -= aLength;
    if (--m_dwReplay == 0)
        EndReplay_i(m_Sent);
}

BOOL CForwardCursor::IsCaughtUp(const CForwardLog& aLog) const {
    return !m_bReplays && (m_ullNext == aLog.GetEnd() || (m_bAwaitsKey && aLog.FindKeyMessage(m_ullNext) == CForwardLog::NONE));
}

CCmForwardCount CForwardCursor::GetLag_i(const CForwardLog& aLog) const {
    const uint64_t ullNext = m_bReplays ? m_ullStart : m_ullNext;
    return {m_dwReplay + aLog.GetEnd() - ullNext, m_ullReplayBytes + aLog.GetBytesForwarded() - m_ullBytesNext};
}

CCmForwardCount CForwardCursor::GetLimitedLag_i(const CForwardLog& aLog) const {
    const uint64_t ullNext = m_bReplays ? m_ullStart : m_ullNext;
    if (GetPolicy() == CM_FORWARD_CONFLATE)
        return aLog.GetKeylessFrom(std::max(ullNext, m_ullJoined));
    if (ullNext < m_ullJoined)
        return {aLog.GetEnd() - m_ullJoined, aLog.GetBytesForwarded() - m_ullBytesJoined};
    return {aLog.GetEnd() - ullNext, aLog.GetBytesForwarded() - m_ullBytesNext};
}

// The tick of the oldest message that counts towards the limits. FALSE: there is none.
BOOL CForwardCursor::GetOldestTick_i(const CForwardLog& aLog, DWORD& aTick) const {
    uint64_t ullNext = std::max(m_bReplays ? m_ullStart : m_ullNext, m_ullJoined);
    const CForwardEntry* pEntry = aLog.FindFrom(ullNext);
    while (pEntry && GetPolicy() == CM_FORWARD_CONFLATE && pEntry->m_Message.HasKey())
        pEntry = aLog.FindFrom(++ullNext);
    if (pEntry)
        aTick = pEntry->m_dwTime;
    return pEntry != nullptr;
}

BOOL CForwardCursor::GetTimeLimit(const CForwardLog& aLog, DWORD& aTick) const {
    if (m_dwMaxMilliseconds == NO_LIMIT || !GetOldestTick_i(aLog, aTick))
        return FALSE;
    aTick += m_dwMaxMilliseconds;
    return TRUE;
}

BOOL CForwardCursor::IsAtLimit(const CForwardLog& aLog, DWORD aTick) const {
    if (IsCaughtUp(aLog))
        return FALSE;
    const CCmForwardCount lag = GetLimitedLag_i(aLog);
    DWORD dwOldest = 0;
    return lag.m_ullMessages >= m_dwMaxMessages || lag.m_ullBytes >= m_dwMaxBytes ||
           (m_dwMaxMilliseconds != NO_LIMIT && GetOldestTick_i(aLog, dwOldest) && aTick - dwOldest >= m_dwMaxMilliseconds);
}

BOOL CForwardCursor::IsRelieved(const CForwardLog& aLog, DWORD aTick) const {
    if (IsCaughtUp(aLog))
        return TRUE;
    const CCmForwardCount lag = GetLimitedLag_i(aLog);
    DWORD dwOldest = aTick;
    if (m_dwMaxMilliseconds != NO_LIMIT)
        GetOldestTick_i(aLog, dwOldest);
    return lag.m_ullMessages <= HalfOf(m_dwMaxMessages) && lag.m_ullBytes <= HalfOf(m_dwMaxBytes) &&
           aTick - dwOldest <= HalfOf(m_dwMaxMilliseconds);
}

uint64_t CForwardCursor::GetMessagesLimit(const CForwardLog& aLog) const {
    return aLog.GetEnd() + m_dwMaxMessages - std::min<uint64_t>(m_dwMaxMessages, GetLimitedLag_i(aLog).m_ullMessages);
}

uint64_t CForwardCursor::GetBytesLimit(const CForwardLog& aLog) const {
    return aLog.GetBytesForwarded() + m_dwMaxBytes - std::min<uint64_t>(m_dwMaxBytes, GetLimitedLag_i(aLog).m_ullBytes);
}

void CForwardCursor::DropOldest(const CForwardLog& aLog, DWORD aTick, uint64_t aBeyond) {
    NoteLag(aLog);
    if (m_bReplays)
        EndReplay_i(m_Dropped);
    const auto fits = [&](uint64_t aNumber) {
        return aLog.GetEnd() - aNumber <= m_dwMaxMessages / 2 &&
               aLog.GetBytesForwarded() - aLog.GetBytesBefore(aNumber) <= m_dwMaxBytes / 2 &&
               (m_dwMaxMilliseconds == NO_LIMIT || aTick - aLog.At(aNumber).m_dwTime <= m_dwMaxMilliseconds / 2);
    };
    uint64_t ullFirst = std::max({m_ullNext, aLog.GetBegin(), aBeyond});
    for (uint64_t ullLast = aLog.GetEnd(); ullFirst < ullLast;) {
        const uint64_t ullMiddle = ullFirst + (ullLast - ullFirst) / 2;
        if (fits(ullMiddle))
            ullLast = ullMiddle;
        else
            ullFirst = ullMiddle + 1;
    }
    m_bAwaitsKey = aLog.HasHadKeyMessage();
    MoveTo_i(aLog, ullFirst, m_Dropped);
    Settle(aLog);
}

uint64_t CForwardCursor::GetFirstNeeded(const CForwardLog& aLog) const {
    const uint64_t ullNext = m_bReplays ? m_ullStart : m_ullNext;
    return GetPolicy() == CM_FORWARD_CONFLATE ? std::max(ullNext, aLog.FindFirstWithoutKey()) : ullNext;
}

BOOL CForwardCursor::NeedsKey(uint64_t aNumber, BOOL aKept) const {
    const BOOL bToReplay = m_bReplays && m_ullNext <= aNumber && aNumber < m_ullJoined;
    return bToReplay || (aKept && GetPolicy() == CM_FORWARD_CONFLATE && (m_bReplays ? m_ullStart : m_ullNext) <= aNumber);
}

void CForwardCursor::NoteLag(const CForwardLog& aLog) {
    const uint64_t ullLag = m_bAwaitsKey ? 0 : GetLag_i(aLog).m_ullMessages;
    m_dwLongestLag = static_cast<DWORD>(std::max<uint64_t>(m_dwLongestLag, std::min<uint64_t>(ullLag, NO_LIMIT)));
}

void CForwardCursor::End(const CForwardLog& aLog) {
    Settle(aLog);
    NoteLag(aLog);
    if (m_bReplays)
        EndReplay_i(m_Dropped);
    MoveTo_i(aLog, aLog.GetEnd(), m_Dropped);
}

void CForwardCursor::GetStatistics(const CForwardLog& aLog, DWORD aTick, CCmForwardStatistics& aStatistics) const {
    CForwardCursor now(*this);
    now.Settle(aLog);
    now.NoteLag(aLog);
    DWORD dwOldest = aTick;
    uint64_t ullNext = now.m_ullNext;
    if (const CForwardEntry* pEntry = now.IsCaughtUp(aLog) ? nullptr : aLog.FindFrom(ullNext))
        dwOldest = pEntry->m_dwTime;
    aStatistics.m_Sent = now.m_Sent;
    aStatistics.m_Dropped = now.m_Dropped;
    aStatistics.m_Conflated = now.m_Conflated;
    aStatistics.m_Lag = now.GetLag_i(aLog);
    aStatistics.m_Due = now.m_Sent + now.m_Dropped + now.m_Conflated + aStatistics.m_Lag;
    aStatistics.m_Due.m_ullMessages = m_dwReplayed + aLog.GetEnd() - now.m_ullStart;
    aStatistics.m_ullLagMilliseconds = aTick - dwOldest;
    aStatistics.m_ullLongestLag = now.m_dwLongestLag;
    aStatistics.m_ullRefused = m_dwRefused;
    aStatistics.m_dwReceivers = 1;
}

}  // namespace talvo

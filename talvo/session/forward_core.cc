// Forwarding; forward_core_turn.cc sends, and has the receivers.
#include "talvo/session/forward_core.h"

#include <algorithm>
#include <limits>

#include "talvo/base/live_counter.h"
#include "talvo/base/recent_tick.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CForwardCore");

constexpr DWORD MANY_MESSAGES = 1024;  // so many do not wait for the turn
constexpr DWORD MANY_BYTES = 65536;
constexpr DWORD MESSAGES_A_TICK = 16;

}  // namespace

CForwardCore::CForwardCore(ICmForwardSink& aSink, BOOL aStartsLater)
    : m_Sink(aSink), m_bStartsLater(aStartsLater), m_dwMaxOfReceivers(std::numeric_limits<DWORD>::max()) {
    ++s_Live;
}

CForwardCore::~CForwardCore() { --s_Live; }

DWORD CForwardCore::GetMaxMessage() {
    m_dwMaxOfReceivers = std::numeric_limits<DWORD>::max();
    m_Receivers.ForEach([this](const CForwardReceiver& aReceiver) {
        m_dwMaxOfReceivers = std::min(m_dwMaxOfReceivers, aReceiver.GetMaxMessage());
    });
    return GetLeastMaxMessage();
}

// A reading of the clock costs as much as half of the rest of a small message. Without limits of time one reading serves a few
// messages of a turn, whose age then only appears in the statistics.
inline DWORD CForwardCore::GetTick_i() {
    if (m_dwLeastMilliseconds > 0 || m_dwUnserved % MESSAGES_A_TICK == 0)
        m_dwTick = GetRecentTick();
    return m_dwTick;
}

inline BOOL CForwardCore::IsFull_i(DWORD aLength) const {
    return m_Log.GetCount() > 0 && (m_Log.GetCount() >= m_dwLogMessages || m_Log.GetHeld().m_ullBytes + aLength > m_dwLogBytes);
}

inline BOOL CForwardCore::IsBoundReached_i(DWORD aTick) const {
    return m_Log.GetEnd() >= m_Bound.m_ullMessages || m_Log.GetBytesForwarded() >= m_Bound.m_ullBytes || m_bHeldBack ||
           (m_bTimer && static_cast<int32_t>(aTick - m_dwTimerTick) >= 0);
}

// A Forward inside an upcall of a transport that is being served only adds its message: the next one applies the limits.
inline CmResult CForwardCore::Admit_i(DWORD aLength, DWORD aTick) {
    const BOOL bHasRoom = m_Log.GetKeyCount() == 0 && !IsFull_i(aLength);
    if (m_bServing || (bHasRoom && !IsBoundReached_i(aTick)))
        return CM_OK;
    return AdmitAtLimit_i(aLength, aTick);
}

CmResult CForwardCore::Forward(CCmMessageBlock& aData, const CCmForwardHeader* aHeader) {
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    const DWORD dwLength = aData.GetNext() ? aData.GetChainedLength() : aData.GetTopLevelLength();
    if (dwLength == 0)
        return CM_OK;
    if (dwLength > GetLeastMaxMessage() && dwLength > GetMaxMessage())
        return CM_ERROR_INVALID_ARG;
    const DWORD dwTick = GetTick_i();
    CmResult rv = Admit_i(dwLength, dwTick);
    if (rv != CM_OK)
        return rv;
    CForwardMessage* pPlace = m_Log.GetPlace();
    rv = pPlace ? m_Packer.Pack(aData, dwLength, aHeader, *pPlace) : CM_ERROR_OUT_OF_MEMORY;
    if (rv == CM_OK && (rv = Append_i(dwLength, dwTick)) != CM_OK)
        *pPlace = {};
    if (rv == CM_OK && aData.AdvanceTopLevelReadPtr(dwLength) != CM_OK)
        aData.AdvanceChainedReadPtr(dwLength);  // several blocks
    return rv;
}

CmResult CForwardCore::ForwardMessage(CForwardMessage& aMessage) {
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    const DWORD dwTick = GetTick_i();
    const DWORD dwLength = aMessage.m_dwLength;
    if (const CmResult rv = Admit_i(dwLength, dwTick); rv != CM_OK)
        return rv;
    if (dwLength > GetLeastMaxMessage())
        RemoveTooSmall_i(dwLength);
    CForwardMessage* pPlace = m_Log.GetPlace();
    if (!pPlace)
        return CM_ERROR_OUT_OF_MEMORY;
    *pPlace = std::move(aMessage);
    const CmResult rv = Append_i(dwLength, dwTick);
    if (rv != CM_OK)
        aMessage = std::move(*pPlace);
    return rv;
}

// Those that joined after the length of the message was checked.
void CForwardCore::RemoveTooSmall_i(DWORD aLength) {
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        if (aReceiver.GetMaxMessage() < aLength)
            Remove_i(aReceiver, CM_ERROR_INVALID_ARG, FALSE, TRUE);
    });
}

CmResult CForwardCore::AdmitAtLimit_i(DWORD aLength, DWORD aTick) {
    if (IsBoundReached_i(aTick))
        ApplyLimits_i(aTick);
    if (m_bHeldBack)
        return HoldBack_i(aLength);
    if (const CmResult rv = MakeRoom_i(aLength, aTick); rv != CM_OK)
        return HoldBack_i(aLength);
    return m_bClosed ? CM_ERROR_NOT_AVAILABLE : CM_OK;
}

CmResult CForwardCore::HoldBack_i(DWORD aLength) {
    m_bForwardDue = true;
    m_dwRefusedLength = aLength;
    return CM_ERROR_PARTIAL_DATA;
}

// Handles the receivers that are at a limit, and raises the bound.
void CForwardCore::ApplyLimits_i(DWORD aTick) {
    m_bHeldBack = false;
    m_Bound = {};
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        if (!aReceiver.IsStarted())
            return;
        CForwardCursor& cursor = aReceiver.GetCursor();
        cursor.Settle(m_Log);
        ServeWhile_i(aReceiver, [&] { return cursor.IsAtLimit(m_Log, aTick); });
        if (!aReceiver.IsGone() && cursor.IsAtLimit(m_Log, aTick))
            ApplyLimit_i(aReceiver, aTick);
        if (!aReceiver.IsGone())
            RaiseBound_i(cursor);
    });
    if (m_dwLeastMilliseconds > 0)
        RestartTimer_i(aTick);
}

void CForwardCore::ApplyLimit_i(CForwardReceiver& aReceiver, DWORD aTick) {
    switch (aReceiver.GetCursor().GetPolicy()) {
    case CM_FORWARD_DISCONNECT:
    case CM_FORWARD_CONFLATE:
        return Remove_i(aReceiver, CM_ERROR_PARTIAL_DATA, FALSE, TRUE);
    case CM_FORWARD_DROP_OLDEST:
        return aReceiver.GetCursor().DropOldest(m_Log, aTick);
    case CM_FORWARD_WAIT:
        m_bHeldBack = true;
    }
}

void CForwardCore::RaiseBound_i(const CForwardCursor& aCursor) {
    m_Bound.m_ullMessages = std::min(m_Bound.m_ullMessages, aCursor.GetMessagesLimit(m_Log));
    m_Bound.m_ullBytes = std::min(m_Bound.m_ullBytes, aCursor.GetBytesLimit(m_Log));
}

CmResult CForwardCore::MakeRoom_i(DWORD aLength, DWORD aTick) {
    BoundKept_i();
    while (IsFull_i(aLength)) {
        if (m_Log.GetBegin() >= m_ullLeastNeeded) {
            if (const CmResult rv = ReleaseFirst_i(aTick); rv != CM_OK)
                return rv;
            if (m_bClosed)
                break;  // inside an upcall
        }
        m_Log.DropFirst();
        BoundKept_i();
    }
    while (m_Log.GetKeyCount() > 0 && m_Log.GetHeld().m_ullBytes + aLength > m_dwLogBytes)
        ForgetKey_i();
    return CM_OK;
}

// What is kept for keys leaves the log room for the messages that receivers still need.
void CForwardCore::BoundKept_i() {
    while (m_Log.GetKeyCount() > 0 && m_Log.GetBytesKept() > m_dwLogBytes / 2)
        ForgetKey_i();
}

// No receiver loses the first message of the log unnoticed.
CmResult CForwardCore::ReleaseFirst_i(DWORD aTick) {
    BOOL bWaits = FALSE;
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        CForwardCursor& cursor = aReceiver.GetCursor();
        cursor.Settle(m_Log);
        ServeWhile_i(aReceiver, [&] { return cursor.NeedsFirst(m_Log); });
        bWaits = bWaits || (!aReceiver.IsGone() && cursor.GetPolicy() == CM_FORWARD_WAIT && cursor.NeedsFirst(m_Log));
    });
    if (bWaits)
        return CM_ERROR_PARTIAL_DATA;
    const uint64_t ullHalf = m_Log.GetBegin() + (m_Log.GetCount() + 1) / 2;
    uint64_t ullLeast = CForwardLog::NONE;
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        if (aReceiver.GetCursor().NeedsFirst(m_Log))
            TakeLoss_i(aReceiver, aTick, ullHalf);
        if (!aReceiver.IsGone())
            ullLeast = std::min(ullLeast, aReceiver.GetCursor().GetFirstNeeded(m_Log));
    });
    m_ullLeastNeeded = ullLeast;
    return CM_OK;
}

// The log cannot keep a message for it any longer.
void CForwardCore::TakeLoss_i(CForwardReceiver& aReceiver, DWORD aTick, uint64_t aBeyond) {
    if (aReceiver.GetCursor().GetPolicy() == CM_FORWARD_DROP_OLDEST)
        aReceiver.GetCursor().DropOldest(m_Log, aTick, aBeyond);
    else
        Remove_i(aReceiver, CM_ERROR_PARTIAL_DATA, FALSE, TRUE);
}

void CForwardCore::ForgetKey_i() {
    const uint64_t ullNumber = m_Log.GetOldestKey();
    if (m_ullLeastNeededKey <= ullNumber)
        ReleaseKey_i(ullNumber);
    m_Log.ForgetKey();
    if (ullNumber >= m_Log.GetBegin())
        m_ullLeastNeeded = std::min(m_ullLeastNeeded, ullNumber);  // no longer kept when the log drops it
}

// Likewise for the newest message of a key.
void CForwardCore::ReleaseKey_i(uint64_t aNumber) {
    const BOOL bKept = m_Log.IsKept(aNumber);
    uint64_t ullLeast = CForwardLog::NONE;
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        CForwardCursor& cursor = aReceiver.GetCursor();
        ServeWhile_i(aReceiver, [&] { return cursor.NeedsKey(aNumber, bKept); });
        if (!aReceiver.IsGone() && cursor.NeedsKey(aNumber, bKept))
            TakeLoss_i(aReceiver, GetRecentTick(), 0);
        if (!aReceiver.IsGone())
            ullLeast = std::min(ullLeast, cursor.GetFirstNeededKey());
    });
    m_ullLeastNeededKey = ullLeast;
}

// A lag of half of the limit lets the user forward many messages before the next refusal.
BOOL CForwardCore::IsHeldBack_i(DWORD aTick) const {
    BOOL bHeldBack = FALSE;
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        const CForwardCursor& cursor = aReceiver.GetCursor();
        bHeldBack =
            bHeldBack || (cursor.GetPolicy() == CM_FORWARD_WAIT &&
                          (!cursor.IsRelieved(m_Log, aTick) || (IsFull_i(m_dwRefusedLength) && cursor.NeedsFirst(m_Log))));
    });
    return bHeldBack;
}

// The message is in its place in the log.
CmResult CForwardCore::Append_i(DWORD aLength, DWORD aTick) {
    if (const CmResult rv = m_Log.Append(aTick); rv != CM_OK)
        return rv;
    while (m_Log.GetKeyCount() > m_dwKeys && !m_bServing)
        ForgetKey_i();
    if (m_Receivers.GetCount() == 0) {
        TrimHistory_i();
        return CM_OK;
    }
    const DWORD dwDue = aTick + m_dwLeastMilliseconds;
    if (m_dwLeastMilliseconds > 0 && (!m_bTimer || static_cast<int32_t>(m_dwTimerTick - dwDue) > 0))
        StartTimer_i(m_dwLeastMilliseconds);
    ++m_dwUnserved;
    m_dwUnservedBytes += aLength;
    const BOOL bMany = m_dwUnserved >= MANY_MESSAGES || m_dwUnservedBytes >= MANY_BYTES;
    if (!bMany || m_bServing || ServeAll_i())
        m_Turn.Arm();
    return CM_OK;
}

// The first to be due of those that run.
void CForwardCore::StartTimer_i(DWORD aMilliseconds) {
    m_bTimer = true;
    m_dwTimerTick = GetRecentTick() + aMilliseconds;
    m_Timer.Schedule(this, CCmTimeValue(aMilliseconds / 1000, static_cast<long>(aMilliseconds % 1000) * 1000), 1);
}

// For the first limit that will be reached. A receiver that stays at its limit holds back or is not started: the next Forward
// after that applies the limits anew.
void CForwardCore::RestartTimer_i(DWORD aTick) {
    constexpr DWORD NONE = std::numeric_limits<DWORD>::max();
    DWORD dwLeast = NONE;
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        DWORD dwLimit = 0;
        if (!aReceiver.GetCursor().GetTimeLimit(m_Log, dwLimit))
            return;
        const BOOL bStays = static_cast<int32_t>(dwLimit - aTick) <= 0;
        dwLeast = std::min(dwLeast, bStays ? m_dwLeastMilliseconds : dwLimit - aTick);
    });
    if (dwLeast < NONE)
        StartTimer_i(dwLeast);
}

void CForwardCore::OnTimer(CCmTimerWrapperID*) {
    const CCmRefPtrT<CForwardCore> pKeep(this);
    m_bTimer = false;
    ApplyLimits_i(GetRecentTick());
}

CmResult CForwardCore::SetOption(DWORD aCommand, void* aArg) {
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    const DWORD dwValue = *static_cast<DWORD*>(aArg);
    const auto set = [dwValue](DWORD& aMember, DWORD aLeast, DWORD aMost) {
        if (dwValue < aLeast || dwValue > aMost)
            return CM_ERROR_INVALID_ARG;
        aMember = dwValue;
        return CM_OK;
    };
    constexpr DWORD ANY = std::numeric_limits<DWORD>::max();
    switch (aCommand) {
    case CM_OPT_FORWARD_MAX_MESSAGE:
        return set(m_dwMaxMessage, 1, ANY - 1);
    case CM_OPT_FORWARD_LOG_MESSAGES:
        return set(m_dwLogMessages, 1, CForwardLog::MOST_MESSAGES);
    case CM_OPT_FORWARD_LOG_BYTES:
        return set(m_dwLogBytes, 1, ANY);
    case CM_OPT_FORWARD_KEYS:
        return set(m_dwKeys, 1, CForwardLog::MOST_KEYS);
    case CM_OPT_FORWARD_RECEIVERS:
        return set(m_dwReceivers, 1, CForwardReceivers::MOST);
    case CM_OPT_FORWARD_HISTORY:
        return set(m_dwHistory, 0, CForwardLog::MOST_MESSAGES);
    default:
        return CM_ERROR_INVALID_ARG;
    }
}

}  // namespace talvo

// The turns of a forward session, and its receivers.
#include <algorithm>
#include <new>
#include <utility>

#include "talvo/base/recent_tick.h"
#include "talvo/base/trace.h"
#include "talvo/session/forward_core.h"

namespace talvo {

CmResult CForwardCore::AddReceiver(ICmTransport* aTransport, const CCmForwardReceiverOptions& aOptions, DWORD& aId) {
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    if (!aTransport || aOptions.m_Policy > CM_FORWARD_WAIT || aOptions.m_Join > CM_FORWARD_JOIN_OLDEST)
        return CM_ERROR_INVALID_ARG;
    if (m_Receivers.GetCount() >= m_dwReceivers)
        return CM_ERROR_PARTIAL_DATA;
    const DWORD dwId = m_Receivers.ReserveId();
    CCmRefPtrT<CForwardReceiver> pReceiver;
    if (dwId > 0)
        WithMemory([&] { pReceiver = CCmRefPtrT<CForwardReceiver>(new CForwardReceiver(*this, m_Log, aOptions, dwId)); });
    if (!pReceiver)
        return CM_ERROR_OUT_OF_MEMORY;
    if (const CmResult rv = pReceiver->Attach(aTransport); rv != CM_OK)
        return rv;
    m_Receivers.Add(pReceiver.Get());
    ChooseFraming_i(*pReceiver);
    m_dwMaxOfReceivers = std::min(m_dwMaxOfReceivers, pReceiver->GetMaxMessage());
    m_ullLeastNeeded = std::min(m_ullLeastNeeded, pReceiver->GetCursor().GetFirstNeeded(m_Log));
    m_ullLeastNeededKey = std::min(m_ullLeastNeededKey, pReceiver->GetCursor().GetFirstNeededKey());
    m_dwLeastMilliseconds = std::min(m_dwLeastMilliseconds - 1, aOptions.m_dwMaxMilliseconds - 1) + 1;  // 0: no limit
    if (m_dwLeastMilliseconds > 0)
        m_dwLeastMilliseconds = std::min(m_dwLeastMilliseconds, CForwardCursor::MOST_MILLISECONDS);
    CM_TRACE(CM_TRACE_SESSION,
             "CForwardCore::AddReceiver, id=" << dwId << " label=" << pReceiver->GetLabel() << " this=" << this);
    aId = dwId;
    AddNotice_i(*pReceiver);
    if (!pReceiver->CanTakeAll(m_Log))
        Remove_i(*pReceiver, CM_ERROR_INVALID_ARG, FALSE, TRUE);
    return CM_OK;
}

// That of the receivers, if all have the same.
void CForwardCore::ChooseFraming_i(const CForwardReceiver& aNew) {
    EForwardFraming framing = EForwardFraming::PACKAGE;
    if (!aNew.HasFraming(framing))
        return;
    const BOOL bSame = m_Receivers.GetCount() == 1 || framing == m_Packer.GetFraming();
    m_Packer.SetFraming(bSame ? framing : EForwardFraming::PACKAGE);
}

CmResult CForwardCore::RemoveReceiver(DWORD aId, CmResult aReason) {
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    const CCmRefPtrT<CForwardReceiver> pReceiver(m_Receivers.Find(aId));
    if (!pReceiver)
        return CM_ERROR_NOT_FOUND;
    Remove_i(*pReceiver, aReason, FALSE, FALSE);
    return CM_OK;
}

// Constant time. A receiver that is being served is kept by that call.
void CForwardCore::Remove_i(CForwardReceiver& aReceiver, CmResult aReason, BOOL aEnded, BOOL aNotify) {
    const CCmRefPtrT<CForwardReceiver> pReceiver(&aReceiver);
    if (aReceiver.IsGone())
        return;
    CM_TRACE(CM_TRACE_SESSION, "CForwardCore::Remove_i, id=" << aReceiver.GetId() << " rv=" << aReason << " this=" << this);
    CCmForwardStatistics last;
    aReceiver.SetGone(aReason);
    aReceiver.GetCursor().End(m_Log);
    aReceiver.GetCursor().GetStatistics(m_Log, GetRecentTick(), last);
    last.m_dwReceivers = 0;
    m_Gone += last;
    m_Receivers.Remove(aReceiver);
    aReceiver.m_bReports = aNotify;
    if (aNotify)
        AddNotice_i(aReceiver);
    if (m_bForwardDue)
        m_Turn.Arm();
    aReceiver.Detach(aReason, aEnded);
}

void CForwardCore::StartReceiver(DWORD aId) {
    CForwardReceiver* pReceiver = m_Receivers.Find(aId);
    if (!pReceiver || pReceiver->IsStarted())
        return;
    pReceiver->Start();
    m_Bound.m_ullMessages = 0;  // earlier scans have left it out: the next Forward applies its limits
    m_Turn.Arm();
}

void CForwardCore::OnRoom(CForwardReceiver& aReceiver) {
    if (!aReceiver.GetCursor().IsCaughtUp(m_Log) || m_bForwardDue)
        m_Turn.Arm();
}

void CForwardCore::AddNotice_i(CForwardReceiver& aReceiver) {
    if (std::exchange(aReceiver.m_bNoticed, true))
        return;
    (m_pLastNotice ? m_pLastNotice->m_pNextNotice : m_pNotices) = CCmRefPtrT<CForwardReceiver>(&aReceiver);
    m_pLastNotice = &aReceiver;
    m_Turn.Arm();
}

void CForwardCore::OnTurn_i() {
    NotifyReceivers_i();
    const BOOL bMore = ServeAll_i();
    NotifyReceivers_i();
    ReportRoom_i();
    if (bMore && !m_bClosed)
        m_Turn.Arm();
}

// Those that were added to the list before. An upcall may close the session.
void CForwardCore::NotifyReceivers_i() {
    CCmRefPtrT<CForwardReceiver> pNext = std::move(m_pNotices);
    m_pLastNotice = nullptr;
    while (pNext && !m_bClosed) {
        const CCmRefPtrT<CForwardReceiver> pReceiver = std::move(pNext);
        pNext = std::move(pReceiver->m_pNextNotice);
        pReceiver->m_bNoticed = false;
        if (pReceiver->IsGone()) {
            if (pReceiver->m_bReports)
                m_Sink.OnReceiver(pReceiver->GetId(), pReceiver->GetReason());
            continue;
        }
        m_Sink.OnJoin(pReceiver->GetId());
        if (!m_bStartsLater && !pReceiver->IsGone())
            StartReceiver(pReceiver->GetId());
    }
    while (pNext)
        pNext = CCmRefPtrT<CForwardReceiver>(std::move(pNext->m_pNextNotice));
}

// TRUE: a receiver that is ready has more.
BOOL CForwardCore::ServeAll_i() {
    BOOL bMore = FALSE;
    m_dwUnserved = 0;
    m_dwUnservedBytes = 0;
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        if (!aReceiver.IsReady() || aReceiver.GetCursor().IsCaughtUp(m_Log))
            return;
        Serve_i(aReceiver);
        bMore = bMore || (aReceiver.IsReady() && !aReceiver.GetCursor().IsCaughtUp(m_Log));
    });
    for (CForwardBatch& batch : m_Batches)
        batch.Clear();
    TrimHistory_i();
    return bMore;
}

const CForwardBatch* CForwardCore::FindBatch(uint64_t aNumber, EForwardFraming aFraming) {
    CForwardBatch& batch = m_Batches[HeaderLengthOf(aFraming) % std::size(m_Batches)];
    return batch.Prepare(m_Log, aNumber, aFraming) ? &batch : nullptr;
}

void CForwardCore::Serve_i(CForwardReceiver& aReceiver) {
    m_bServing = true;
    const CmResult rv = aReceiver.Serve(m_Log);
    m_bServing = false;
    if (rv != CM_OK)
        Remove_i(aReceiver, rv, FALSE, TRUE);
}

void CForwardCore::TrimHistory_i() {
    if (m_Log.GetCount() <= m_dwHistory)
        return;
    uint64_t ullLeast = m_Log.GetEnd() - m_dwHistory;
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) {
        aReceiver.GetCursor().Settle(m_Log);
        ullLeast = std::min(ullLeast, aReceiver.GetCursor().GetFirstNeeded(m_Log));
    });
    m_Log.DropTo(ullLeast);
}

void CForwardCore::ReportRoom_i() {
    if (!m_bForwardDue || m_bClosed || IsHeldBack_i(GetRecentTick()))
        return;
    m_bForwardDue = false;
    m_Sink.OnForward();
}

CmResult CForwardCore::GetStatistics(CCmForwardStatistics& aStatistics, DWORD aId) const {
    const DWORD dwTick = GetRecentTick();
    const CForwardReceiver* pReceiver = aId != 0 ? m_Receivers.Find(aId) : nullptr;
    if (aId != 0 && !pReceiver)
        return CM_ERROR_NOT_FOUND;
    aStatistics = {};
    if (pReceiver)
        pReceiver->GetCursor().GetStatistics(m_Log, dwTick, aStatistics);
    else
        aStatistics = m_Gone;
    if (!pReceiver)
        m_Receivers.ForEach([&](const CForwardReceiver& aReceiver) {
            CCmForwardStatistics one;
            aReceiver.GetCursor().GetStatistics(m_Log, dwTick, one);
            aStatistics += one;
        });
    aStatistics.m_Forwarded = {m_Log.GetEnd(), m_Log.GetBytesForwarded()};
    aStatistics.m_Held = m_Log.GetHeld();
    return CM_OK;
}

CCmString CForwardCore::Dump() const {
    CCmString strDump;
    const auto add = [&](const CCmString& aName, const CCmForwardStatistics& aOf) {
        const auto count = [&](const char* aText, const CCmForwardCount& aCount) {
            strDump += ' ';
            strDump += aText;
            strDump += '=' + std::to_string(aCount.m_ullMessages) + '/' + std::to_string(aCount.m_ullBytes);
        };
        strDump += aName;
        count("due", aOf.m_Due);
        count("sent", aOf.m_Sent);
        count("dropped", aOf.m_Dropped);
        count("conflated", aOf.m_Conflated);
        count("lag", aOf.m_Lag);
        strDump += " lag_ms=" + std::to_string(aOf.m_ullLagMilliseconds) + " longest=" + std::to_string(aOf.m_ullLongestLag) +
                   " refused=" + std::to_string(aOf.m_ullRefused) + '\n';
    };
    const BOOL bDone = !m_bClosed && WithMemory([&] {
        CCmForwardStatistics all;
        GetStatistics(all, 0);
        add("session receivers=" + std::to_string(all.m_dwReceivers) + " forwarded=" +
                std::to_string(all.m_Forwarded.m_ullMessages) + '/' + std::to_string(all.m_Forwarded.m_ullBytes),
            all);
        m_Receivers.ForEach([&](const CForwardReceiver& aReceiver) {
            CCmForwardStatistics one;
            GetStatistics(one, aReceiver.GetId());
            add("receiver " + std::to_string(aReceiver.GetId()) + " \"" + aReceiver.GetLabel() + '"', one);
        });
    });
    return bDone ? strDump : CCmString();
}

CmResult CForwardCore::Close(CmResult aReason) {
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    const CCmRefPtrT<CForwardCore> pKeep(this);
    while (aReason == CM_OK && !m_bServing && !m_bClosed && ServeAll_i()) {
    }
    if (std::exchange(m_bClosed, true))
        return CM_OK;  // inside an upcall
    CM_TRACE(CM_TRACE_SESSION,
             "CForwardCore::Close, receivers=" << m_Receivers.GetCount() << " rv=" << aReason << " this=" << this);
    m_Timer.Cancel();
    m_Turn.Cancel();
    m_Receivers.ForEach([&](CForwardReceiver& aReceiver) { Remove_i(aReceiver, aReason, FALSE, FALSE); });
    while (m_pNotices)
        m_pNotices = CCmRefPtrT<CForwardReceiver>(std::move(m_pNotices->m_pNextNotice));
    m_pLastNotice = nullptr;
    m_Log.Clear();
    return CM_OK;
}

}  // namespace talvo

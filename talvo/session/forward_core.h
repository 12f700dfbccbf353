// The work of a forward session, in its thread.
#pragma once

#include <algorithm>

#include "talvo/event/later_report.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/session/forward_batch.h"
#include "talvo/session/forward_log.h"
#include "talvo/session/forward_receivers.h"

namespace talvo {

// The log, the receivers, and the turns that serve them. A turn is an event of the thread: it makes the upcalls that are due
// and then serves each receiver that is ready once. No upcall of ICmForwardSink comes outside of it.
//
// Bounds make the usual Forward independent of the number of receivers: while the log ends before m_Bound, no receiver is at a
// limit, and no receiver needs a message before m_ullLeastNeeded, or before m_ullLeastNeededKey for its key. A scan of all
// receivers raises them again. One thread.
class TALVO_API CForwardCore final : public CCmReferenceControlT<CCmMutexNullSingleThread>, private CCmTimerWrapperIDSink {
public:
    // aSink: not owned; no upcall after Close. aStartsLater: a receiver waits for StartReceiver after OnJoin has returned.
    CForwardCore(ICmForwardSink& aSink, BOOL aStartsLater);
    ~CForwardCore() override;

    // See ICmForwardSession.
    CmResult AddReceiver(ICmTransport* aTransport, const CCmForwardReceiverOptions& aOptions, DWORD& aId);
    CmResult RemoveReceiver(DWORD aId, CmResult aReason);
    CmResult Forward(CCmMessageBlock& aData, const CCmForwardHeader* aHeader);
    CmResult SetOption(DWORD aCommand, void* aArg);
    CmResult GetStatistics(CCmForwardStatistics& aStatistics, DWORD aId) const;
    CCmString Dump() const;
    CmResult Close(CmResult aReason);

    // The same for a message whose length was checked; aMessage is unchanged unless CM_OK.
    CmResult ForwardMessage(CForwardMessage& aMessage);
    void StartReceiver(DWORD aId);
    DWORD GetReceiverCount() const { return m_Receivers.GetCount(); }
    // The longest message that all receivers can take. The second takes constant time; it may be lower, because a receiver that
    // is gone still counts.
    DWORD GetMaxMessage();
    DWORD GetLeastMaxMessage() const { return std::min(m_dwMaxMessage, m_dwMaxOfReceivers); }

    // The framing that suits the receivers best, for small messages that are yet to be forwarded.
    EForwardFraming GetFraming() const { return m_Packer.GetFraming(); }

    // From a receiver that is being served: the messages from aNumber on for all that are there; null: send them one by one.
    const CForwardBatch* FindBatch(uint64_t aNumber, EForwardFraming aFraming);
    // From a receiver: its transport can take data; its transport has ended.
    void OnRoom(CForwardReceiver& aReceiver);
    void OnEnd(CForwardReceiver& aReceiver, CmResult aReason) { Remove_i(aReceiver, aReason, TRUE, TRUE); }

private:
    // Forward.
    DWORD GetTick_i();
    CmResult Admit_i(DWORD aLength, DWORD aTick);
    CmResult AdmitAtLimit_i(DWORD aLength, DWORD aTick);
    CmResult HoldBack_i(DWORD aLength);
    BOOL IsBoundReached_i(DWORD aTick) const;
    void ApplyLimits_i(DWORD aTick);
    void ApplyLimit_i(CForwardReceiver& aReceiver, DWORD aTick);
    void RaiseBound_i(const CForwardCursor& aCursor);
    CmResult MakeRoom_i(DWORD aLength, DWORD aTick);
    void BoundKept_i();
    BOOL IsFull_i(DWORD aLength) const;
    CmResult ReleaseFirst_i(DWORD aTick);
    void TakeLoss_i(CForwardReceiver& aReceiver, DWORD aTick, uint64_t aBeyond);
    void ForgetKey_i();
    void ReleaseKey_i(uint64_t aNumber);
    void RemoveTooSmall_i(DWORD aLength);
    BOOL IsHeldBack_i(DWORD aTick) const;
    CmResult Append_i(DWORD aLength, DWORD aTick);
    void StartTimer_i(DWORD aMilliseconds);
    void RestartTimer_i(DWORD aTick);
    void OnTimer(CCmTimerWrapperID* aId) override;
    // Turns.
    void OnTurn_i();
    void NotifyReceivers_i();
    BOOL ServeAll_i();
    void Serve_i(CForwardReceiver& aReceiver);
    template <class While>
    void ServeWhile_i(CForwardReceiver& aReceiver, While aWhile) {
        while (aReceiver.IsReady() && aWhile())
            Serve_i(aReceiver);
    }
    void TrimHistory_i();
    void ReportRoom_i();
    // Receivers.
    void ChooseFraming_i(const CForwardReceiver& aNew);
    void AddNotice_i(CForwardReceiver& aReceiver);
    void Remove_i(CForwardReceiver& aReceiver, CmResult aReason, BOOL aEnded, BOOL aNotify);

    ICmForwardSink& m_Sink;
    const BOOL m_bStartsLater;
    CForwardLog m_Log;
    CForwardPacker m_Packer;
    CForwardReceivers m_Receivers;
    CForwardBatch m_Batches[3];                 // by the rest of the header's length; during a turn
    CCmRefPtrT<CForwardReceiver> m_pNotices;    // those with an upcall to come
    CForwardReceiver* m_pLastNotice = nullptr;  // in that list
    CCmForwardStatistics m_Gone;                // of the receivers that are gone
    CLaterReportT<CForwardCore, &CForwardCore::OnTurn_i> m_Turn{*this};
    CCmTimerWrapperID m_Timer;

    struct {
        uint64_t m_ullMessages = CForwardLog::NONE;  // of the log's end
        uint64_t m_ullBytes = CForwardLog::NONE;
    } m_Bound;
    uint64_t m_ullLeastNeeded = 0;
    uint64_t m_ullLeastNeededKey = CForwardLog::NONE;
    DWORD m_dwUnserved = 0;  // messages and bytes since the last turn
    DWORD m_dwUnservedBytes = 0;
    DWORD m_dwTick = 0;               // the last one of GetTick_i
    DWORD m_dwLeastMilliseconds = 0;  // the lowest limit of any receiver; 0: there is none
    DWORD m_dwTimerTick = 0;          // the tick at which the timer is due
    DWORD m_dwRefusedLength = 0;      // of the message that was held back
    DWORD m_dwMaxOfReceivers;
    bool m_bTimer = false;
    bool m_bHeldBack = false;    // a WAIT receiver was at its limit at the last scan: the next Forward scans again
    bool m_bForwardDue = false;  // OnForward
    bool m_bServing = false;
    bool m_bClosed = false;

    DWORD m_dwMaxMessage = 16 << 20;
    DWORD m_dwLogMessages = CForwardLog::MOST_MESSAGES;
    DWORD m_dwLogBytes = 64 << 20;
    DWORD m_dwKeys = CForwardLog::MOST_KEYS;
    DWORD m_dwReceivers = CForwardReceivers::MOST;
    DWORD m_dwHistory = CForwardLog::MOST_MESSAGES;
};

}  // namespace talvo

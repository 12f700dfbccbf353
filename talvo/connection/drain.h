// Ends the connections of all threads of the library gracefully.
#pragma once

#include <memory>

#include "talvo/connection/drain_rule.h"
#include "talvo/connection/drain_sink.h"
#include "talvo/event/reactor.h"
#include "talvo/event/thread_link.h"

namespace talvo {

//   network thread                                        every other thread
//
//   each 10 ms:  sets the stage of its tenants
//                CQuestion ----------- posted ----------> sets the stage of its tenants
//                OnAnswer_i <--------- posted ----------- the work that they have left
//   then:        the rule: the same stage again, the next, or the end
//
// One at a time in the process. Events in flight between the threads hold references to it.
class TALVO_API CDrain final : public CCmReferenceControlT<CCmMutexThread>, private CCmThreadTenant, private ICmTimerHandler {
public:
    // aUser: the thread whose queue notifies aSink of the end. aEvenHere: if that queue refuses the event, the network thread
    // calls aSink.
    CDrain(CCmThreadLink& aNetwork, CCmThreadLink& aUser, ICmDrainSink& aSink, const CCmTimeValue& aTime, BOOL aEvenHere);

    // Claims the process's one drain; call it first. CM_ERROR_ALREADY_INITIALIZED: another one runs. CM_ERROR_OUT_OF_MEMORY.
    // After an error the sink gets no call.
    CmResult Claim();
    // Any thread. CM_ERROR_NULL_POINTER: the network thread has ended. CM_ERROR_OUT_OF_MEMORY.
    CmResult Start();
    // Start; notifies the sink of a failure. Does nothing after Withdraw.
    void StartOrNotify();
    // Instead of Start: the sink gets no call.
    void Withdraw();

private:
    class CQuestion;
    class CReport;

    ~CDrain() override;
    void OnThreadEnd() override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    void Begin_i();
    void Look_i();
    void OnAnswer_i(const CCmUndrained& aLeft);
    void Finish_i();
    void Notify_i(CmResult aReason, const CCmUndrained& aLeft);
    void EndOthers_i(BOOL aCut);

    const CCmRefPtrT<CCmThreadLink> m_pNetwork;
    const CCmRefPtrT<CCmThreadLink> m_pUser;
    const BOOL m_bEvenHere;
    ICmDrainSink* m_pSink;  // not owned; null: the drain is over
    BOOL m_bClaimed = FALSE;
    std::unique_ptr<CReport> m_pReport;  // made in advance: the end is reported with or without memory

    // Network thread only.
    CDrainRule m_Rule;
    CCmRefPtrT<CDrain> m_pSelf;          // while it runs
    ICmTimerQueue* m_pTimers = nullptr;  // not owned; this thread's, while it runs
    DWORD m_dwAwaited = 0;               // answers
    BOOL m_bAllAsked = FALSE;            // by the last look; FALSE: memory ran out
    CCmUndrained m_Own;                  // as of the last look
    CCmUndrained m_Others;               // sum of the answers so far
};

// For Drain without a sink: runs the main thread's loop until the drain is over.
class TALVO_API CDrainWait final : private ICmDrainSink {
public:
    explicit CDrainWait(ICmReactor& aReactor) : m_Reactor(aReactor) {}

    // The result of the drain, see ICmDrainSink. CM_ERROR_FAILURE: from inside a callback.
    CmResult Run(CCmThreadLink& aMain, CCmThreadLink& aNetwork, const CCmTimeValue& aTime);

private:
    CmResult RunLoop_i(CDrain& aDrain);
    void OnDrained(CmResult aReason, const CCmUndrained& aLeft) override;

    ICmReactor& m_Reactor;  // the main thread's
    CmResult m_Result = CM_OK;
    std::atomic<BOOL> m_bDone{FALSE};
};

}  // namespace talvo

// What is left to do for a connection whose user has ended it in order.
#pragma once

#include "talvo/base/block_chain.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/timer_queue.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// Sends the rest of what a user was promised with CM_OK, ends the sending side behind it and disconnects the transport when
// the peer's system has everything, or after the linger time (GetLingerTime). What the peer sends meanwhile is dropped. Lives
// in the transport's thread, deletes itself, and ends with the thread.
class TALVO_API CTransportLinger final : private ICmTransportSink, private ICmTimerHandler, private CCmThreadTenant {
public:
    // Becomes the sink of aTransport and owns aRest (null: nothing is left to send). FALSE: there is nothing
    // to wait for, or no way to wait (no timers in this thread, no memory, a linger time of zero); what the transport takes of
    // aRest at once has gone, aRest is freed and the caller disconnects.
    static BOOL Begin(ICmTransport& aTransport, CCmChainPtr aRest);

private:
    CTransportLinger(ICmTransport& aTransport, CCmChainPtr aRest);
    ~CTransportLinger() override;

    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    void OnThreadEnd() override;
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override;

    BOOL Start_i();
    void SendRest_i();
    DWORD GetUnacknowledged_i();
    BOOL IsDone_i() { return m_Rest.IsEmpty() && GetUnacknowledged_i() == 0; }
    void End_i(CmResult aReason);

    const CCmRefPtrT<ICmTransport> m_pTransport;
    CBlockChain m_Rest;
    CCmTimeValue m_tvEnd;
    ICmTimerQueue* m_pTimers = nullptr;  // not owned; this thread's, set while the timer runs
    BOOL m_bEnded = FALSE;               // the sending side
};

}  // namespace talvo

// The remaining work for a connection that its user has ended gracefully.
#pragma once

#include <typeinfo>

#include "talvo/base/block_chain.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/timer_queue.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// Sends the rest of the data that was taken with CM_OK, and then half-closes. Disconnects the transport when the peer's system
// has acknowledged everything, or after the linger time (GetLingerTime). Data from the peer is dropped meanwhile. Lives in the
// transport's thread, deletes itself, and ends with the thread.
class TALVO_API CTransportLinger final : private ICmTransportSink, private ICmTimerHandler, private CCmThreadTenant {
public:
    // Becomes the sink of aTransport and owns aRest (null: no data left to send). FALSE: there is no need to wait, or no means
    // (no timers in this thread, no memory, a linger time of zero). The transport has then taken as much of aRest as it can,
    // aRest is freed, and the caller disconnects.
    static BOOL Begin(ICmTransport& aTransport, CCmChainPtr aRest);
    // TRUE: the transport of aSink has ended for its user.
    static BOOL IsLinger(const ICmTransportSink& aSink) { return typeid(aSink) == typeid(CTransportLinger); }

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
    void NoteLoss_i();

    const CCmRefPtrT<ICmTransport> m_pTransport;
    CBlockChain m_Rest;
    int64_t m_llEndUsec = 0;
    ICmTimerQueue* m_pTimers = nullptr;  // not owned; this thread's, set while the timer runs
    BOOL m_bEnded = FALSE;               // the sending side is shut down
};

}  // namespace talvo

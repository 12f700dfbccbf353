// The common core of the connectors' proxies.
#pragma once

#include "talvo/base/trace.h"
#include "talvo/transport/thread_proxy/indicating_proxy_core.h"

namespace talvo {

// An attempt is a request of the user. Arguments are those of the call that starts it, copied in the user's thread:
//
//    static constexpr const char* CALL;                             its name, for the trace
//    CCmInetAddr m_AddrPeer;                                        for failures
//    void Start(Inner& aInner, ICmAcceptorConnectorSink& aSink);    the call, in the network thread
template <class Inner, class Arguments>
class CConnectorProxyCoreT : public CIndicatingProxyCoreT<Inner> {
public:
    // Any thread.
    void CancelConnect() {
        if (this->End())
            m_CancelEvent.Post(this->GetNetwork());
    }
    void OnThreadEnd() override {
        if (this->m_dwRunning)
            this->PostIndication(this->m_dwRunning, CM_ERROR_NOT_AVAILABLE, nullptr, m_IfEnded);
        this->LetGo_i();
    }

protected:
    using CBase = CIndicatingProxyCoreT<Inner>;

    CConnectorProxyCoreT(CCmThreadLink& aUser, CCmThreadLink& aNetwork, CmDword aType, typename CBase::Factory aFactory)
        : CBase(aUser, aNetwork, aType, aFactory, CM_TRUE) {}

    // Any thread. aCopy returns the arguments, and may throw std::bad_alloc.
    template <class Copy>
    void Start(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, Copy aCopy) {
        CmDword dwAttempt = 0;
        if (this->Begin(aSink, dwAttempt) != CM_OK) {
            CM_WARNING_TRACE_THIS(Arguments::CALL << ", refused. aSink=" << static_cast<const void*>(aSink));
            return;
        }
        const CmBool bCopied = WithMemory([&] { Put_i({dwAttempt, aCopy()}); });
        if (bCopied)
            m_ConnectEvent.Post(this->GetNetwork());
        else
            this->PostIndication(dwAttempt, CM_ERROR_OUT_OF_MEMORY, nullptr, LocalFailure("out of memory", aAddrPeer));
    }

private:
    struct CAttempt {
        CmDword m_dwRequest = 0;
        Arguments m_Arguments;
    };

    static CCmFailure LocalFailure(const char* aText, const CCmInetAddr& aAddrPeer) {
        return CCmFailure(CM_FAILURE_LOCAL, aText, "connect to", aAddrPeer);
    }
    static CCmFailure ThreadEnded(const CAttempt& aAttempt) {
        return LocalFailure("the network thread has ended", aAttempt.m_Arguments.m_AddrPeer);
    }

    void Put_i(CAttempt aAttempt) {
        CCmMutexGuardT<CCmMutexThread> guard(m_AttemptMutex);
        std::swap(m_Attempt, aAttempt);
    }
    CAttempt TakeAttempt_i() {
        CCmMutexGuardT<CCmMutexThread> guard(m_AttemptMutex);
        return std::exchange(m_Attempt, {});
    }

    // Network thread.
    void Connect_i() {
        CAttempt attempt = TakeAttempt_i();
        if (!this->IsCurrent(attempt.m_dwRequest))
            return;  // cancelled
        if (const CmResult rv = this->Make_i(); rv != CM_OK) {
            this->PostIndication(attempt.m_dwRequest, rv, nullptr,
                                 LocalFailure(cm_result_name(rv), attempt.m_Arguments.m_AddrPeer));
            return;
        }
        this->m_dwRunning = attempt.m_dwRequest;
        m_IfEnded = ThreadEnded(attempt);
        attempt.m_Arguments.Start(*this->m_pInner, *this);
    }
    // The network thread has ended, or ends before the attempt.
    void ConnectDropped_i() {
        const CAttempt attempt = TakeAttempt_i();
        this->PostIndication(attempt.m_dwRequest, CM_ERROR_NOT_AVAILABLE, nullptr, ThreadEnded(attempt));
    }
    void Cancel_i() {
        if (this->IsCurrent(this->m_dwRunning))
            return;
        this->m_dwRunning = 0;
        if (this->m_pInner)
            this->m_pInner->CancelConnect();
    }
    void Stop_i(Inner& aConnector) override { aConnector.CancelConnect(); }

    CCmFailure m_IfEnded;  // network thread; the failure if this thread ends during the attempt
    CCmMutexThread m_AttemptMutex;
    CAttempt m_Attempt CM_GUARDED_BY(m_AttemptMutex);  // until the network thread takes it; a later one replaces it
    CProxyCore::CEmbeddedEventT<CConnectorProxyCoreT, &CConnectorProxyCoreT::Connect_i, &CConnectorProxyCoreT::ConnectDropped_i>
        m_ConnectEvent{*this};
    CProxyCore::CEmbeddedEventT<CConnectorProxyCoreT, &CConnectorProxyCoreT::Cancel_i> m_CancelEvent{*this};
};

}  // namespace talvo

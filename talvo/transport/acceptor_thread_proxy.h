// An acceptor of the network thread, used from another thread.
#pragma once

#include "talvo/transport/proxy_core.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// Makes the acceptor behind a proxy, in the network thread: one reference for the caller.
using CAcceptorFactory = CmResult (*)(DWORD aType, ICmAcceptor*& aAcceptor);

// Each time it listens has a number; indications of an earlier one are dropped. Hosted as long as there is an acceptor.
class TALVO_API CAcceptorProxyCore final : public CProxyCore, public ICmAcceptorConnectorSink {
public:
    CAcceptorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, CAcceptorFactory aFactory);
    ~CAcceptorProxyCore() override;

    void SetProxy(ICmAcceptor* aProxy) { m_pProxy = aProxy; }
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen);
    CmResult StopListen(CmResult aReason);
    CmResult GetListenAddr(CCmInetAddr& aAddr);
    void Abandon() override;

    // From the acceptor, in the network thread.
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnThreadEnd() override;

private:
    CmResult StartListen_i(DWORD aListening, const CCmInetAddr& aAddrListen);
    void LetGo_i();
    void ForgetSink_i();
    void Indicate_i(DWORD aListening, CmResult aReason, ICmTransport* aTransport);

    const DWORD m_dwType;
    const CAcceptorFactory m_Factory;
    ICmAcceptor* m_pProxy = nullptr;  // the handle, for upcalls: alive while there is a sink

    CCmMutexThread m_Mutex;
    ICmAcceptorConnectorSink* m_pSink CM_GUARDED_BY(m_Mutex) = nullptr;  // not owned; set while listening
    DWORD m_dwListening CM_GUARDED_BY(m_Mutex) = 0;

    // Network thread only.
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    DWORD m_dwRunning = 0;
};

}  // namespace talvo

// What the connection manager hands to threads other than the network thread. Indications arrive in the thread that made the
// proxy, with a CCmTransportThreadProxy each. StartListen, StopListen and GetListenAddr wait for the network thread;
// the first and the last return CM_ERROR_NOT_AVAILABLE when it has ended. After StopListen or the last release no indication
// arrives, even one that was already posted; a transport that it carried is closed.
class TALVO_API CCmAcceptorThreadProxy final : public talvo::CThreadProxyT<ICmAcceptor, talvo::CAcceptorProxyCore> {
public:
    CCmAcceptorThreadProxy(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, talvo::CAcceptorFactory aFactory)
        : CThreadProxyT(new talvo::CAcceptorProxyCore(aUser, aNetwork, aType, aFactory)) {
        m_pCore->SetProxy(this);
    }

    BOOL IsConnector() override { return FALSE; }
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override {
        return m_pCore->StartListen(aSink, aAddrListen);
    }
    CmResult StopListen(CmResult aReason) override { return m_pCore->StopListen(aReason); }
    CmResult GetListenAddr(CCmInetAddr& aAddr) override { return m_pCore->GetListenAddr(aAddr); }
};

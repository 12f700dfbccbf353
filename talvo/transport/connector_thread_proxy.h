// A connector of the network thread, used from another thread.
#pragma once

#include <optional>

#include "talvo/transport/proxy_core.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// Makes the connector behind a proxy, in the network thread: one reference for the caller.
using CConnectorFactory = CmResult (*)(DWORD aType, ICmConnector*& aConnector);

// Attempts are numbered by the user's side; whatever comes back for another than the current one is dropped. Hosted while an
// attempt runs and as long as there is a connector.
class TALVO_API CConnectorProxyCore final : public CProxyCore, public ICmAcceptorConnectorSink {
public:
    CConnectorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, CConnectorFactory aFactory);
    ~CConnectorProxyCore() override;

    void SetProxy(ICmConnector* aProxy) { m_pProxy = aProxy; }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                     CCmInetAddr* aAddrLocal);
    void CancelConnect();
    void Abandon() override;

    // From the connector, in the network thread.
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnThreadEnd() override;

private:
    void Connect_i(DWORD aAttempt, const CCmInetAddr& aPeer, std::optional<CCmTimeValue> aTimeout,
                   std::optional<CCmInetAddr> aLocal);
    void Cancel_i();
    void LetGo_i();
    void PostIndication_i(DWORD aAttempt, CmResult aReason, CCmRefPtrT<ICmTransport> aTransport);
    void Indicate_i(DWORD aAttempt, CmResult aReason, ICmTransport* aTransport);

    const DWORD m_dwType;
    const CConnectorFactory m_Factory;
    ICmConnector* m_pProxy = nullptr;  // the handle, for upcalls: alive while there is a sink

    CCmMutexThread m_Mutex;
    ICmAcceptorConnectorSink* m_pSink CM_GUARDED_BY(m_Mutex) = nullptr;  // not owned; set while an attempt runs
    DWORD m_dwAttempt CM_GUARDED_BY(m_Mutex) = 0;

    // Network thread only.
    CCmRefPtrT<ICmConnector> m_pConnector;
    DWORD m_dwRunning = 0;  // the attempt under way, 0 for none
};

}  // namespace talvo

// What the connection manager hands to threads other than the network thread. The indication arrives in the thread that made
// the proxy, with a CCmTransportThreadProxy. After CancelConnect or the last release none arrives, even one that was already
// posted; a transport that it carried is closed. When the network thread has ended, or ends, the reason is
// CM_ERROR_NOT_AVAILABLE.
class TALVO_API CCmConnectorThreadProxy final : public talvo::CThreadProxyT<ICmConnector, talvo::CConnectorProxyCore> {
public:
    CCmConnectorThreadProxy(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, talvo::CConnectorFactory aFactory)
        : CThreadProxyT(new talvo::CConnectorProxyCore(aUser, aNetwork, aType, aFactory)) {
        m_pCore->SetProxy(this);
    }

    BOOL IsConnector() override { return TRUE; }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override {
        m_pCore->AsycConnect(aSink, aAddrPeer, aTimeout, aAddrLocal);
    }
    void CancelConnect() override { m_pCore->CancelConnect(); }
};

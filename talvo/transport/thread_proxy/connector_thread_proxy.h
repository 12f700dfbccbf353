// A connector of the network thread, used from another thread.
#pragma once

#include <optional>

#include "talvo/transport/thread_proxy/indicating_proxy_core.h"

namespace talvo {

using CConnectorFactory = CIndicatingProxyCoreT<ICmConnector>::Factory;

// An attempt is a request of the user.
class TALVO_API CConnectorProxyCore final : public CIndicatingProxyCoreT<ICmConnector> {
public:
    CConnectorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, CConnectorFactory aFactory);
    ~CConnectorProxyCore() override;

    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                     CCmInetAddr* aAddrLocal);
    void CancelConnect();
    void OnThreadEnd() override;

private:
    // The arguments of AsycConnect.
    struct CAttempt {
        DWORD m_dwRequest = 0;
        CCmInetAddr m_AddrPeer;
        std::optional<CCmTimeValue> m_Timeout;
        std::optional<CCmInetAddr> m_AddrLocal;
    };
    void Connect_i();
    void ConnectDropped_i();
    CAttempt TakeAttempt_i();
    void Cancel_i();
    void Stop_i(ICmConnector& aConnector) override { aConnector.CancelConnect(); }

    CCmFailure m_IfEnded;  // network thread; the failure if this thread ends during the attempt
    CCmMutexThread m_AttemptMutex;
    CAttempt m_Attempt CM_GUARDED_BY(m_AttemptMutex);  // until the network thread takes it; a later one replaces it
    CEmbeddedEventT<CConnectorProxyCore, &CConnectorProxyCore::Connect_i, &CConnectorProxyCore::ConnectDropped_i>
        m_ConnectEvent{*this};
    CEmbeddedEventT<CConnectorProxyCore, &CConnectorProxyCore::Cancel_i> m_CancelEvent{*this};
};

}  // namespace talvo

// The connection manager gives it to threads other than the network thread. The indication arrives in the thread that made the
// proxy, with a CCmTransportThreadProxy. After CancelConnect or the last release none arrives, not even one that was already
// posted; its transport is closed. If the network thread has ended, or ends, the reason is CM_ERROR_NOT_AVAILABLE.
class TALVO_API CCmConnectorThreadProxy final
    : public talvo::CIndicatingProxyT<CCmConnectorThreadProxy, ICmConnector, talvo::CConnectorProxyCore> {
public:
    BOOL IsConnector() override { return TRUE; }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override {
        m_pCore->AsycConnect(aSink, aAddrPeer, aTimeout, aAddrLocal);
    }
    void CancelConnect() override { m_pCore->CancelConnect(); }

private:
    using CIndicatingProxyT::CIndicatingProxyT;
};

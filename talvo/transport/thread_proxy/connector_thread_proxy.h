// A connector of the network thread, used from another thread.
#pragma once

#include <optional>

#include "talvo/transport/thread_proxy/connector_proxy_core.h"

namespace talvo {

// Of AsycConnect.
struct CConnectArguments {
    static constexpr const char* CALL = "CCmConnectorThreadProxy::AsycConnect";

    void Start(ICmConnector& aInner, ICmAcceptorConnectorSink& aSink) {
        aInner.AsycConnect(&aSink, m_AddrPeer, m_Timeout ? &*m_Timeout : nullptr, m_AddrLocal ? &*m_AddrLocal : nullptr);
    }

    CCmInetAddr m_AddrPeer;
    std::optional<CCmTimeValue> m_Timeout;
    std::optional<CCmInetAddr> m_AddrLocal;
};

class TALVO_API CConnectorProxyCore final : public CConnectorProxyCoreT<ICmConnector, CConnectArguments> {
public:
    CConnectorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, CmDword aType, Factory aFactory);
    ~CConnectorProxyCore() override;

    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                     CCmInetAddr* aAddrLocal);
};

}  // namespace talvo

// The connection manager gives it to threads other than the network thread. The indication arrives in the thread that made the
// proxy, with a CCmTransportThreadProxy. After CancelConnect or the last release none arrives, not even one that was already
// posted; its transport is closed. If the network thread has ended, or ends, the reason is CM_ERROR_NOT_AVAILABLE.
class TALVO_API CCmConnectorThreadProxy final
    : public talvo::CIndicatingProxyT<CCmConnectorThreadProxy, ICmConnector, talvo::CConnectorProxyCore> {
public:
    CmBool IsConnector() override { return CM_TRUE; }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override {
        m_pCore->AsycConnect(aSink, aAddrPeer, aTimeout, aAddrLocal);
    }
    void CancelConnect() override { m_pCore->CancelConnect(); }

private:
    using CIndicatingProxyT::CIndicatingProxyT;
};

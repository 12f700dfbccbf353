// An acceptor of the network thread, used from another thread.
#pragma once

#include "talvo/transport/thread_proxy/indicating_proxy_core.h"

namespace talvo {

// Makes the acceptor, in the network thread.
using CAcceptorFactory = CIndicatingProxyCoreT<ICmAcceptor>::Factory;

// Each round of listening is a request of the user.
class TALVO_API CAcceptorProxyCore final : public CIndicatingProxyCoreT<ICmAcceptor> {
public:
    CAcceptorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, CmDword aType, CAcceptorFactory aFactory);
    ~CAcceptorProxyCore() override;

    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen);
    CmResult StopListen(CmResult aReason);
    CmResult GetListenAddr(CCmInetAddr& aAddr);
    void OnDrain(ECmDrainStage aStage) override;

private:
    CmResult StartListen_i(CmDword aListening, const CCmInetAddr& aAddrListen);
    void Stop_i(ICmAcceptor& aAcceptor) override { aAcceptor.StopListen(CM_OK); }
};

}  // namespace talvo

// The connection manager gives it to threads other than the network thread. Indications arrive in the thread that made the
// proxy, with a CCmTransportThreadProxy each. StartListen, StopListen and GetListenAddr wait for the network thread; the first
// and the last return CM_ERROR_NOT_AVAILABLE if it has ended. After StopListen or the last release no indication arrives, not
// even one that was already posted; its transport is closed.
class TALVO_API CCmAcceptorThreadProxy final
    : public talvo::CIndicatingProxyT<CCmAcceptorThreadProxy, ICmAcceptor, talvo::CAcceptorProxyCore> {
public:
    CmBool IsConnector() override { return CM_FALSE; }
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override {
        return m_pCore->StartListen(aSink, aAddrListen);
    }
    CmResult StopListen(CmResult aReason) override { return m_pCore->StopListen(aReason); }
    CmResult GetListenAddr(CCmInetAddr& aAddr) override { return m_pCore->GetListenAddr(aAddr); }

private:
    using CIndicatingProxyT::CIndicatingProxyT;
};

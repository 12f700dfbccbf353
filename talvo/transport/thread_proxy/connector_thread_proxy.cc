#include "talvo/transport/thread_proxy/connector_thread_proxy.h"

#include "talvo/base/live_counter.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmConnectorThreadProxy");

}  // namespace

CConnectorProxyCore::CConnectorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, Factory aFactory)
    : CConnectorProxyCoreT(aUser, aNetwork, aType, aFactory) {
    ++s_Live;
}

CConnectorProxyCore::~CConnectorProxyCore() { --s_Live; }

void CConnectorProxyCore::AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                                      CCmInetAddr* aAddrLocal) {
    Start(aSink, aAddrPeer, [&] {
        CConnectArguments arguments{aAddrPeer, {}, {}};
        if (aTimeout)
            arguments.m_Timeout = *aTimeout;
        if (aAddrLocal)
            arguments.m_AddrLocal = *aAddrLocal;
        return arguments;
    });
}

}  // namespace talvo

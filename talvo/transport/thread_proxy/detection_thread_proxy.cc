#include "talvo/transport/thread_proxy/detection_thread_proxy.h"

#include "talvo/base/live_counter.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmDetectionConnectorThreadProxy");

}  // namespace

CDetectionProxyCore::CDetectionProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, CRacePlan::Judge aJudge,
                                         Factory aFactory)
    : CConnectorProxyCoreT(aUser, aNetwork, CM_TRANSPORT_TYPE_TCP, aFactory), m_Plan(aJudge) {
    ++s_Live;
}

CDetectionProxyCore::~CDetectionProxyCore() { --s_Live; }

CmResult CDetectionProxyCore::AddConnection(DWORD aType, const CCmInetAddr& aAddrPeer, const CCmTimeValue* aDelay) {
    if (HasRequest())
        return CM_ERROR_NOT_AVAILABLE;
    CCmMutexGuardT<CCmMutexThread> guard(m_PlanMutex);
    return m_Plan.Add(aType, aAddrPeer, aDelay);
}

CmResult CDetectionProxyCore::SetOption(DWORD aCommand, const void* aArg) {
    CCmMutexGuardT<CCmMutexThread> guard(m_PlanMutex);
    return m_Plan.SetOption(aCommand, aArg);
}

CmResult CDetectionProxyCore::GetOption(DWORD aCommand, void* aArg) {
    CCmMutexGuardT<CCmMutexThread> guard(m_PlanMutex);
    return m_Plan.GetOption(aCommand, aArg);
}

void CDetectionProxyCore::StartRace(ICmAcceptorConnectorSink* aSink, const CCmInetAddr* aAddrPeer, const CCmTimeValue* aTimeout,
                                    const CCmInetAddr* aAddrLocal) {
    const CCmInetAddr& addrPeer = aAddrPeer ? *aAddrPeer : CCmInetAddr::s_InetAddrAny;
    Start(aSink, addrPeer, [&] {
        CRaceArguments arguments{{}, addrPeer, aAddrPeer != nullptr, {}, {}};
        if (aTimeout)
            arguments.m_Timeout = *aTimeout;
        if (aAddrLocal)
            arguments.m_AddrLocal = *aAddrLocal;
        CCmMutexGuardT<CCmMutexThread> guard(m_PlanMutex);
        arguments.m_Plan = m_Plan;
        if (!aAddrPeer && !m_Plan.GetConnections().empty())
            arguments.m_AddrPeer = m_Plan.GetConnections()[0].m_AddrPeer;
        return arguments;
    });
}

}  // namespace talvo

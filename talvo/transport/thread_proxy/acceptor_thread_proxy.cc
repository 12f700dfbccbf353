#include "talvo/transport/thread_proxy/acceptor_thread_proxy.h"

#include "talvo/base/live_counter.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmAcceptorThreadProxy");

}  // namespace

CAcceptorProxyCore::CAcceptorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, CAcceptorFactory aFactory)
    : CIndicatingProxyCoreT(aUser, aNetwork, aType, aFactory, FALSE) {
    ++s_Live;
}

CAcceptorProxyCore::~CAcceptorProxyCore() { --s_Live; }

CmResult CAcceptorProxyCore::StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) {
    DWORD dwListening = 0;
    CmResult rv = Begin(aSink, dwListening);
    if (rv != CM_OK)
        return rv;
    rv = GetNetwork().Call([=, &aAddrListen, pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] {
        return pThis->StartListen_i(dwListening, aAddrListen);
    });
    if (rv == CM_OK)
        return CM_OK;
    if (!GetFailure())
        NoteFailure(dwListening, CCmFailure(CM_FAILURE_LOCAL, cm_result_name(rv), "listen on", aAddrListen));
    End();
    return rv;
}

CmResult CAcceptorProxyCore::StopListen(CmResult aReason) {
    End();
    const CmResult rv = GetNetwork().Call([=, pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] {
        return pThis->m_pInner ? pThis->m_pInner->StopListen(aReason) : CM_OK;
    });
    return rv == CM_ERROR_NOT_AVAILABLE ? CM_OK : rv;  // the network thread has ended
}

CmResult CAcceptorProxyCore::GetListenAddr(CCmInetAddr& aAddr) {
    return GetNetwork().Call([&aAddr, pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] {
        return pThis->m_pInner ? pThis->m_pInner->GetListenAddr(aAddr) : CM_ERROR_NOT_INITIALIZED;
    });
}

// The acceptor itself stops, and may listen again afterwards.
void CAcceptorProxyCore::OnDrain(ECmDrainStage aStage) {
    if (aStage != ECmDrainStage::NONE)
        End();
}

CmResult CAcceptorProxyCore::StartListen_i(DWORD aListening, const CCmInetAddr& aAddrListen) {
    if (const CmResult rv = Make_i(); rv != CM_OK)
        return rv;
    m_dwRunning = aListening;
    const CmResult rv = m_pInner->StartListen(this, aAddrListen);
    if (rv != CM_OK)
        NoteFailure(aListening, GetConnectFailure(m_pInner.Get()));
    return rv;
}

}  // namespace talvo

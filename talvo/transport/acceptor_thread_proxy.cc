#include "talvo/transport/acceptor_thread_proxy.h"

#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/transport/transport_thread_proxy.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmAcceptorThreadProxy");

using Guard = CCmMutexGuardT<CCmMutexThread>;

}  // namespace

CAcceptorProxyCore::CAcceptorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, CAcceptorFactory aFactory)
    : CProxyCore(aUser, aNetwork), m_dwType(aType), m_Factory(aFactory) {
    ++s_Live;
}

CAcceptorProxyCore::~CAcceptorProxyCore() { --s_Live; }

CmResult CAcceptorProxyCore::StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) {
    DWORD dwListening = 0;
    {
        Guard guard(m_Mutex);
        if (m_pSink)
            return CM_ERROR_ALREADY_INITIALIZED;
        if (!aSink)
            return CM_ERROR_INVALID_ARG;
        m_pSink = aSink;
        dwListening = ++m_dwListening;
    }
    const CmResult rv = GetNetwork().Call([=, addr = aAddrListen, pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] {
        return pThis->StartListen_i(dwListening, addr);
    });
    if (rv != CM_OK)
        ForgetSink_i();
    return rv;
}

CmResult CAcceptorProxyCore::StopListen(CmResult aReason) {
    ForgetSink_i();
    const CmResult rv = GetNetwork().Call([=, pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] {
        return pThis->m_pAcceptor ? pThis->m_pAcceptor->StopListen(aReason) : CM_OK;
    });
    return rv == CM_ERROR_NOT_AVAILABLE ? CM_OK : rv;  // the network thread has ended, and the listening with it
}

CmResult CAcceptorProxyCore::GetListenAddr(CCmInetAddr& aAddr) {
    return GetNetwork().Call([&aAddr, pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] {
        return pThis->m_pAcceptor ? pThis->m_pAcceptor->GetListenAddr(aAddr) : CM_ERROR_NOT_INITIALIZED;
    });
}

void CAcceptorProxyCore::Abandon() {
    ForgetSink_i();
    GetNetwork().Post([pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] { pThis->LetGo_i(); });
}

void CAcceptorProxyCore::ForgetSink_i() {
    Guard guard(m_Mutex);
    m_pSink = nullptr;
    ++m_dwListening;
}

CmResult CAcceptorProxyCore::StartListen_i(DWORD aListening, const CCmInetAddr& aAddrListen) {
    if (!m_pAcceptor) {
        CmResult rv = m_Factory(m_dwType, m_pAcceptor.ParaOut());
        if (rv == CM_OK && !Host_i())
            rv = CM_ERROR_NOT_AVAILABLE;
        if (rv != CM_OK) {
            m_pAcceptor.Reset();
            return rv;
        }
    }
    m_dwRunning = aListening;
    return m_pAcceptor->StartListen(this, aAddrListen);
}

void CAcceptorProxyCore::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    CCmRefPtrT<ICmTransport> pProxy;
    if (aTrpt)
        pProxy = new CCmTransportThreadProxy(aTrpt, GetUser(), GetNetwork(), m_dwType);
    GetUser().Post([=, dwListening = m_dwRunning, pThis = CCmRefPtrT<CAcceptorProxyCore>(this)] {
        pThis->Indicate_i(dwListening, aReason, pProxy.Get());
    });
}

void CAcceptorProxyCore::OnThreadEnd() { LetGo_i(); }

// The end of the network side; may delete this object.
void CAcceptorProxyCore::LetGo_i() {
    const CCmRefPtrT<ICmAcceptor> pAcceptor = std::move(m_pAcceptor);
    if (!pAcceptor)
        return;
    pAcceptor->StopListen(CM_OK);
    Leave_i();
}

void CAcceptorProxyCore::Indicate_i(DWORD aListening, CmResult aReason, ICmTransport* aTransport) {
    ICmAcceptorConnectorSink* pSink = nullptr;
    {
        Guard guard(m_Mutex);
        if (aListening == m_dwListening)
            pSink = m_pSink;
    }
    if (pSink)
        pSink->OnConnectIndication(aReason, aTransport, m_pProxy);
}

}  // namespace talvo

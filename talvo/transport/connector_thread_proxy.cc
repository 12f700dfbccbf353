#include "talvo/transport/connector_thread_proxy.h"

#include <memory>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/transport/transport_thread_proxy.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmConnectorThreadProxy");

using Guard = CCmMutexGuardT<CCmMutexThread>;

}  // namespace

CConnectorProxyCore::CConnectorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, CConnectorFactory aFactory)
    : CProxyCore(aUser, aNetwork), m_dwType(aType), m_Factory(aFactory) {
    ++s_Live;
}

CConnectorProxyCore::~CConnectorProxyCore() { --s_Live; }

void CConnectorProxyCore::AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                                      CCmInetAddr* aAddrLocal) {
    DWORD dwAttempt = 0;
    {
        Guard guard(m_Mutex);
        if (aSink && !m_pSink) {
            m_pSink = aSink;
            dwAttempt = ++m_dwAttempt;
        }
    }
    if (dwAttempt == 0) {
        CM_WARNING_TRACE_THIS("CCmConnectorThreadProxy::AsycConnect, refused. aSink=" << static_cast<const void*>(aSink));
        return;
    }
    const auto timeout = aTimeout ? std::optional(*aTimeout) : std::nullopt;
    const auto local = aAddrLocal ? std::optional(*aAddrLocal) : std::nullopt;
    // A request that is refused, or dropped because the network thread ends before it comes to it, reports that itself.
    auto unrun = [dwAttempt](CConnectorProxyCore* aCore) {
        aCore->PostIndication_i(dwAttempt, CM_ERROR_NOT_AVAILABLE, nullptr);
        aCore->ReleaseReference();
    };
    AddReference();
    std::unique_ptr<CConnectorProxyCore, decltype(unrun)> pRequest(this, unrun);
    GetNetwork().Post([=, peer = aAddrPeer, pRequest = std::move(pRequest)]() mutable {
        CCmRefPtrT<CConnectorProxyCore>::Adopt(pRequest.release())->Connect_i(dwAttempt, peer, timeout, local);
    });
}

void CConnectorProxyCore::CancelConnect() {
    {
        Guard guard(m_Mutex);
        if (!std::exchange(m_pSink, nullptr))
            return;
        ++m_dwAttempt;
    }
    GetNetwork().Post([pThis = CCmRefPtrT<CConnectorProxyCore>(this)] { pThis->Cancel_i(); });
}

void CConnectorProxyCore::Abandon() {
    {
        Guard guard(m_Mutex);
        m_pSink = nullptr;
        ++m_dwAttempt;
    }
    GetNetwork().Post([pThis = CCmRefPtrT<CConnectorProxyCore>(this)] { pThis->LetGo_i(); });
}

void CConnectorProxyCore::Connect_i(DWORD aAttempt, const CCmInetAddr& aPeer, std::optional<CCmTimeValue> aTimeout,
                                    std::optional<CCmInetAddr> aLocal) {
    if (!m_pConnector) {
        CmResult rv = m_Factory(m_dwType, m_pConnector.ParaOut());
        if (rv == CM_OK && !Host_i())
            rv = CM_ERROR_NOT_AVAILABLE;
        if (rv != CM_OK) {
            m_pConnector.Reset();
            PostIndication_i(aAttempt, rv, nullptr);
            return;
        }
    }
    m_dwRunning = aAttempt;
    m_pConnector->AsycConnect(this, aPeer, aTimeout ? &*aTimeout : nullptr, aLocal ? &*aLocal : nullptr);
}

void CConnectorProxyCore::Cancel_i() {
    m_dwRunning = 0;
    if (m_pConnector)
        m_pConnector->CancelConnect();
}

void CConnectorProxyCore::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    CCmRefPtrT<ICmTransport> pProxy;
    if (aTrpt)
        pProxy = new CCmTransportThreadProxy(aTrpt, GetUser(), GetNetwork(), m_dwType);
    PostIndication_i(std::exchange(m_dwRunning, 0), aReason, std::move(pProxy));
}

void CConnectorProxyCore::OnThreadEnd() {
    if (m_dwRunning)
        PostIndication_i(m_dwRunning, CM_ERROR_NOT_AVAILABLE, nullptr);
    LetGo_i();
}

// The end of the network side; may delete this object.
void CConnectorProxyCore::LetGo_i() {
    const CCmRefPtrT<ICmConnector> pConnector = std::move(m_pConnector);
    m_dwRunning = 0;
    if (!pConnector)
        return;
    pConnector->CancelConnect();
    Leave_i();
}

void CConnectorProxyCore::PostIndication_i(DWORD aAttempt, CmResult aReason, CCmRefPtrT<ICmTransport> aTransport) {
    GetUser().Post([=, pTransport = std::move(aTransport), pThis = CCmRefPtrT<CConnectorProxyCore>(this)] {
        pThis->Indicate_i(aAttempt, aReason, pTransport.Get());
    });
}

void CConnectorProxyCore::Indicate_i(DWORD aAttempt, CmResult aReason, ICmTransport* aTransport) {
    ICmAcceptorConnectorSink* pSink = nullptr;
    {
        Guard guard(m_Mutex);
        if (aAttempt == m_dwAttempt)
            pSink = std::exchange(m_pSink, nullptr);
    }
    if (pSink)
        pSink->OnConnectIndication(aReason, aTransport, m_pProxy);
}

}  // namespace talvo

#include "talvo/transport/connector_thread_proxy.h"

#include <memory>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmConnectorThreadProxy");

constexpr const char* THREAD_ENDED = "the network thread has ended";

CCmFailure LocalFailure(const char* aText, const CCmInetAddr& aPeer) {
    return CCmFailure(CM_FAILURE_LOCAL, aText, "connect to", aPeer);
}

}  // namespace

CConnectorProxyCore::CConnectorProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType, CConnectorFactory aFactory)
    : CIndicatingProxyCoreT(aUser, aNetwork, aType, aFactory, TRUE) {
    ++s_Live;
}

CConnectorProxyCore::~CConnectorProxyCore() { --s_Live; }

void CConnectorProxyCore::AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                                      CCmInetAddr* aAddrLocal) {
    DWORD dwAttempt = 0;
    if (Begin(aSink, dwAttempt) != CM_OK) {
        CM_WARNING_TRACE_THIS("CCmConnectorThreadProxy::AsycConnect, refused. aSink=" << static_cast<const void*>(aSink));
        return;
    }
    const auto timeout = aTimeout ? std::optional(*aTimeout) : std::nullopt;
    const auto local = aAddrLocal ? std::optional(*aAddrLocal) : std::nullopt;
    // A request that is refused, or dropped because the network thread ends before it comes to it, reports that itself.
    auto unrun = [dwAttempt, peer = aAddrPeer](CConnectorProxyCore* aCore) {
        aCore->PostIndication(dwAttempt, CM_ERROR_NOT_AVAILABLE, nullptr, LocalFailure(THREAD_ENDED, peer));
        aCore->ReleaseReference();
    };
    AddReference();
    std::unique_ptr<CConnectorProxyCore, decltype(unrun)> pRequest(this, unrun);
    GetNetwork().Post([=, peer = aAddrPeer, pRequest = std::move(pRequest)]() mutable {
        CCmRefPtrT<CConnectorProxyCore>::Adopt(pRequest.release())->Connect_i(dwAttempt, peer, timeout, local);
    });
}

void CConnectorProxyCore::CancelConnect() {
    if (End())
        GetNetwork().Post([pThis = CCmRefPtrT<CConnectorProxyCore>(this)] { pThis->Cancel_i(); });
}

void CConnectorProxyCore::Connect_i(DWORD aAttempt, const CCmInetAddr& aPeer, std::optional<CCmTimeValue> aTimeout,
                                    std::optional<CCmInetAddr> aLocal) {
    if (const CmResult rv = Make_i(); rv != CM_OK) {
        PostIndication(aAttempt, rv, nullptr, LocalFailure(cm_result_name(rv), aPeer));
        return;
    }
    m_dwRunning = aAttempt;
    m_AddrPeer = aPeer;
    m_pInner->AsycConnect(this, aPeer, aTimeout ? &*aTimeout : nullptr, aLocal ? &*aLocal : nullptr);
}

void CConnectorProxyCore::Cancel_i() {
    m_dwRunning = 0;
    if (m_pInner)
        m_pInner->CancelConnect();
}

void CConnectorProxyCore::OnThreadEnd() {
    if (m_dwRunning)
        PostIndication(m_dwRunning, CM_ERROR_NOT_AVAILABLE, nullptr, LocalFailure(THREAD_ENDED, m_AddrPeer));
    LetGo_i();
}

}  // namespace talvo

#include "talvo/transport/thread_proxy/connector_thread_proxy.h"

#include <memory>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmConnectorThreadProxy");

constexpr const char* THREAD_ENDED = "the network thread has ended";
constexpr const char* OUT_OF_MEMORY = "out of memory";

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
    try {
        PostConnect_i(dwAttempt, aAddrPeer, aTimeout, aAddrLocal);
    } catch (const std::bad_alloc&) {  // the copy of a host name may need memory
        PostIndication(dwAttempt, CM_ERROR_OUT_OF_MEMORY, nullptr, LocalFailure(OUT_OF_MEMORY, aAddrPeer));
    }
}

// A request reports itself if it is refused, or dropped because the network thread ends before it.
void CConnectorProxyCore::PostConnect_i(DWORD aAttempt, const CCmInetAddr& aPeer, const CCmTimeValue* aTimeout,
                                        const CCmInetAddr* aLocal) {
    const auto timeout = aTimeout ? std::optional(*aTimeout) : std::nullopt;
    const auto local = aLocal ? std::optional(*aLocal) : std::nullopt;
    auto unrun = [aAttempt, failure = LocalFailure(THREAD_ENDED, aPeer)](CConnectorProxyCore* aCore) {
        aCore->PostIndication(aAttempt, CM_ERROR_NOT_AVAILABLE, nullptr, failure);
        aCore->ReleaseReference();
    };
    AddReference();
    std::unique_ptr<CConnectorProxyCore, decltype(unrun)> pRequest(this, unrun);
    GetNetwork().Post([=, peer = aPeer, pRequest = std::move(pRequest)]() mutable {
        CCmRefPtrT<CConnectorProxyCore>::Adopt(pRequest.release())->Connect_i(aAttempt, peer, timeout, local);
    });
}

void CConnectorProxyCore::CancelConnect() {
    if (End())
        m_CancelEvent.Post(GetNetwork());
}

void CConnectorProxyCore::Connect_i(DWORD aAttempt, const CCmInetAddr& aPeer, std::optional<CCmTimeValue> aTimeout,
                                    std::optional<CCmInetAddr> aLocal) {
    if (!IsCurrent(aAttempt))
        return;  // cancelled, by an event that was posted before this request
    if (const CmResult rv = Make_i(); rv != CM_OK) {
        PostIndication(aAttempt, rv, nullptr, LocalFailure(cm_result_name(rv), aPeer));
        return;
    }
    m_dwRunning = aAttempt;
    m_IfEnded = LocalFailure(THREAD_ENDED, aPeer);
    m_pInner->AsycConnect(this, aPeer, aTimeout ? &*aTimeout : nullptr, aLocal ? &*aLocal : nullptr);
}

void CConnectorProxyCore::Cancel_i() {
    if (IsCurrent(m_dwRunning))
        return;
    m_dwRunning = 0;
    if (m_pInner)
        m_pInner->CancelConnect();
}

void CConnectorProxyCore::OnThreadEnd() {
    if (m_dwRunning)
        PostIndication(m_dwRunning, CM_ERROR_NOT_AVAILABLE, nullptr, m_IfEnded);
    LetGo_i();
}

}  // namespace talvo

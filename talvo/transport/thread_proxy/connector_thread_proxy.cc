#include "talvo/transport/thread_proxy/connector_thread_proxy.h"

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
        CAttempt attempt{dwAttempt, aAddrPeer, {}, {}};
        if (aTimeout)
            attempt.m_Timeout = *aTimeout;
        if (aAddrLocal)
            attempt.m_AddrLocal = *aAddrLocal;
        {
            CCmMutexGuardT<CCmMutexThread> guard(m_AttemptMutex);
            std::swap(m_Attempt, attempt);
        }
        m_ConnectEvent.Post(GetNetwork());
    } catch (const std::bad_alloc&) {  // the copy of a host name may need memory
        PostIndication(dwAttempt, CM_ERROR_OUT_OF_MEMORY, nullptr, LocalFailure(OUT_OF_MEMORY, aAddrPeer));
    }
}

CConnectorProxyCore::CAttempt CConnectorProxyCore::TakeAttempt_i() {
    CCmMutexGuardT<CCmMutexThread> guard(m_AttemptMutex);
    return std::exchange(m_Attempt, {});
}

// The network thread has ended, or ends before the attempt.
void CConnectorProxyCore::ConnectDropped_i() {
    const CAttempt attempt = TakeAttempt_i();
    PostIndication(attempt.m_dwRequest, CM_ERROR_NOT_AVAILABLE, nullptr, LocalFailure(THREAD_ENDED, attempt.m_AddrPeer));
}

void CConnectorProxyCore::CancelConnect() {
    if (End())
        m_CancelEvent.Post(GetNetwork());
}

void CConnectorProxyCore::Connect_i() {
    CAttempt attempt = TakeAttempt_i();
    if (!IsCurrent(attempt.m_dwRequest))
        return;  // cancelled
    if (const CmResult rv = Make_i(); rv != CM_OK) {
        PostIndication(attempt.m_dwRequest, rv, nullptr, LocalFailure(cm_result_name(rv), attempt.m_AddrPeer));
        return;
    }
    m_dwRunning = attempt.m_dwRequest;
    m_IfEnded = LocalFailure(THREAD_ENDED, attempt.m_AddrPeer);
    m_pInner->AsycConnect(this, attempt.m_AddrPeer, attempt.m_Timeout ? &*attempt.m_Timeout : nullptr,
                          attempt.m_AddrLocal ? &*attempt.m_AddrLocal : nullptr);
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

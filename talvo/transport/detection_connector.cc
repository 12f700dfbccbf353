#include "talvo/transport/detection_connector.h"

#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/event/thread_manager.h"

namespace {

CCmLiveCounter s_Live("CCmDetectionConnector");

}  // namespace

CCmRefPtrT<CCmDetectionConnector> CCmDetectionConnector::Make(talvo::CRacePlan::Judge aJudge,
                                                              talvo::CRaceRun::Factory aFactory) {
    const CCmRefPtrT<CCmDetectionConnector> pConnector(new (std::nothrow) CCmDetectionConnector(aJudge, aFactory));
    return pConnector && pConnector->m_pRun ? pConnector : nullptr;
}

CCmDetectionConnector::CCmDetectionConnector(talvo::CRacePlan::Judge aJudge, talvo::CRaceRun::Factory aFactory)
    : m_Plan(aJudge), m_pRun(new (std::nothrow) talvo::CRaceRun(*this, aFactory)) {
    ++s_Live;
}

CCmDetectionConnector::~CCmDetectionConnector() {
    if (m_pRun)
        m_pRun->Stop();
    --s_Live;
}

CmResult CCmDetectionConnector::AddConnection(DWORD aType, const CCmInetAddr& aAddrPeer, CCmTimeValue* aDelay) {
    m_Est.EnsureSingleThread();
    return m_pSink ? CM_ERROR_NOT_AVAILABLE : m_Plan.Add(aType, aAddrPeer, aDelay);
}

void CCmDetectionConnector::Start(ICmAcceptorConnectorSink* aSink, const talvo::CRacePlan& aPlan, const CCmTimeValue* aTimeout,
                                  const CCmInetAddr* aAddrPeer, const CCmInetAddr* aAddrLocal) {
    m_Est.EnsureSingleThread();
    ICmReactor* pReactor = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_NETWORK);
    if (!aSink || m_pSink || !pReactor) {
        CM_WARNING_TRACE_THIS("CCmDetectionConnector::StartDetectionConnect, refused. aSink="
                              << static_cast<const void*>(aSink) << " m_pSink=" << static_cast<const void*>(m_pSink)
                              << " pReactor=" << static_cast<const void*>(pReactor));
        return;
    }
    m_pSink = aSink;
    m_Failure = {};
    JoinCurrentThread();
    m_pRun->Start(pReactor, aPlan, aTimeout, aAddrPeer, aAddrLocal);
}

void CCmDetectionConnector::CancelConnect() {
    m_Est.EnsureSingleThread();
    m_pRun->Stop();
    m_pSink = nullptr;
}

void CCmDetectionConnector::OnRaceOver(CmResult aReason, ICmTransport* aTrpt) {
    m_Failure = m_pRun->GetFailure();
    ICmAcceptorConnectorSink* pSink = std::exchange(m_pSink, nullptr);
    pSink->OnConnectIndication(aReason, aTrpt, this);  // last: the sink may release this connector
}

// An attempt without a connection has taken no data.
void CCmDetectionConnector::OnDrain(ECmDrainStage aStage) {
    if (!m_pSink || !talvo::ends_connections(aStage))
        return;
    m_pRun->Stop();
    m_Failure = CCmFailure(CM_FAILURE_LOCAL, "all connections are being ended", "connect to", m_pRun->GetFirstPeer());
    ICmAcceptorConnectorSink* pSink = std::exchange(m_pSink, nullptr);
    pSink->OnConnectIndication(CM_ERROR_NOT_AVAILABLE, nullptr, this);  // last: the sink may release this connector
}

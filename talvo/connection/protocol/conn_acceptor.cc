#include "talvo/connection/protocol/conn_acceptor.h"

#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CConnAcceptorT");

}  // namespace

CConnAcceptorBase::CConnAcceptorBase(CCmRefPtrT<ICmAcceptor> aLower) : m_pLower(std::move(aLower)) { ++s_Live; }

CConnAcceptorBase::~CConnAcceptorBase() {
    Stop_i(CM_OK);
    --s_Live;
}

CmResult CConnAcceptorBase::StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) {
    m_Est.EnsureSingleThread();
    if (m_pSink)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    m_pSink = aSink;
    const CmResult rv = m_pLower->StartListen(this, aAddrListen);
    if (rv == CM_OK)
        JoinCurrentThread();
    else
        m_pSink = nullptr;
    return rv;
}

CmResult CConnAcceptorBase::StopListen(CmResult aReason) {
    m_Est.EnsureSingleThread();
    Stop_i(aReason);
    return CM_OK;
}

// The acceptor below stops by itself, but unfinished openings are here.
void CConnAcceptorBase::OnDrain(ECmDrainStage aStage) {
    if (aStage != ECmDrainStage::NONE)
        Stop_i(CM_OK);
}

void CConnAcceptorBase::Stop_i(CmResult aReason) {
    m_pSink = nullptr;
    m_pLower->StopListen(aReason);
    m_Opening.CancelAll();
}

// Accesses no member after the call of the connection: its opening may end at once, and the sink may release this acceptor.
void CConnAcceptorBase::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) {
    if (aReason != CM_OK || !m_pSink)
        return;
    const COpeningConn opening = MakeConnection();
    if (!opening || !m_Opening.Add(opening)) {
        CM_ERROR_TRACE_THIS("CConnAcceptorT::OnConnectIndication, out of memory.");
        return;
    }
    opening.m_pConn->SetConnAcceptor(this);
    opening.m_pSink->OnConnectIndication(CM_OK, aTrpt, aRequestId);
}

void CConnAcceptorBase::OnOpened(CConnBase& aConn, CmResult aReason) {
    const COpeningConn opening = m_Opening.Take(aConn);  // lives until the sink has been notified
    if (opening && aReason == CM_OK && m_pSink)
        m_pSink->OnConnectIndication(CM_OK, &aConn, this);  // last: it may release this acceptor
}

}  // namespace talvo

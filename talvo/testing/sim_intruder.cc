#include "talvo/testing/sim_intruder.h"

#include <utility>

#include "talvo/connection/connection_manager.h"

CCmSimIntruder::CCmSimIntruder(const CCmInetAddr& aLocal, const CCmInetAddr& aServer, std::string aBytes)
    : m_strBytes(std::move(aBytes)) {
    CCmInetAddr addrLocal = aLocal;
    CCmConnectionManager::Instance()->CreateConnectionClient(CCmConnectionManager::CTYPE_TCP, m_pConnector.ParaOut());
    m_pConnector->AsycConnect(this, aServer, nullptr, &addrLocal);
}

CCmSimIntruder::~CCmSimIntruder() {
    m_pConnector->CancelConnect();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_ERROR_NETWORK_SOCKET_CLOSE);
}

void CCmSimIntruder::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_bOver = aReason != CM_OK;
    if (m_bOver)
        return;
    m_pTransport = CCmRefPtrT<ICmTransport>(aTrpt);
    aTrpt->OpenWithSink(this);
    OnSend(aTrpt, nullptr);
}

void CCmSimIntruder::OnSend(ICmTransport* aTrptId, CCmTransportParameter*) {
    const auto dwLength = static_cast<DWORD>(m_strBytes.size());
    CCmMessageBlock block(dwLength, m_strBytes.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    aTrptId->SendData(block);
    m_strBytes.erase(0, dwLength - block.GetChainedLength());
}

void CCmSimIntruder::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    m_strAnswer += aData.FlattenChained();
}

void CCmSimIntruder::OnDisconnect(CmResult, ICmTransport*) { m_bOver = TRUE; }

#include "talvo/testing/sim_wild_sides.h"

namespace {

const CCmTimeValue SOON(1);
constexpr CmResult FIRST_NETWORK_ERROR = 20000;

}  // namespace

void CCmSimWildSide::Take_i(CmResult aReason, ICmTransport* aTransport) {
    if (!m_bExpecting || (aReason == CM_OK) != (aTransport != nullptr))
        m_Network.Fail("an indication that nobody expects");
    if (aTransport && !m_Network.Chance(0.03))  // else it is not kept
        m_Take(*aTransport);
}

CCmSimWildAcceptor::CCmSimWildAcceptor(CCmSimNetwork& aNetwork, DWORD aType, const CCmInetAddr& aAddr, CTake aTake)
    : CCmSimWildSide(aNetwork, aType, aAddr, std::move(aTake)) {
    Listen_i();
}

void CCmSimWildAcceptor::Listen_i() {
    m_bExpecting = TRUE;
    if (!m_pAcceptor)
        CCmConnectionManager::Instance()->CreateConnectionServer(m_dwType, m_pAcceptor.ParaOut());
    m_pAcceptor->StartListen(this, m_Addr);
}

void CCmSimWildAcceptor::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    Take_i(aReason, aTrpt);
    if (!WildChance_i(0.1))
        return;
    m_bExpecting = FALSE;
    m_Network.After(m_Network.RandomTime(SOON), [this] { Listen_i(); });
    m_Network.Chance(0.5) ? Release() : void(m_pAcceptor->StopListen(CM_OK));
}

CCmSimWildConnector::CCmSimWildConnector(CCmSimNetwork& aNetwork, DWORD aType, const CCmInetAddr& aAddr,
                                         const CCmTimeValue& aLimit, CTake aTake)
    : CCmSimWildSide(aNetwork, aType, aAddr, std::move(aTake)), m_tvLimit(aLimit) {
    Start_i();
}

void CCmSimWildConnector::Start_i() {
    if (!m_pConnector)
        CCmConnectionManager::Instance()->CreateConnectionClient(m_dwType, m_pConnector.ParaOut());
    m_bExpecting = TRUE;
    m_tvStarted = m_Network.Now();
    m_pConnector->AsycConnect(this, m_Addr);
    m_pConnector->AsycConnect(this, m_Addr);  // is refused
    if (m_Network.Chance(0.15))
        m_Network.After(m_Network.RandomTime(SOON), [this] { Cancel_i(); });
}

void CCmSimWildConnector::Cancel_i() {
    if (!m_bExpecting || !m_bWild)
        return;
    m_bExpecting = FALSE;
    m_Network.Chance(0.5) ? m_pConnector->CancelConnect() : Release();
}

void CCmSimWildConnector::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    const CCmTimeValue tvTaken = m_Network.Now() - m_tvStarted;
    if (aReason != CM_OK && (aReason < FIRST_NETWORK_ERROR || aReason == CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE))
        m_Network.Fail("an indication with " + std::to_string(aReason));
    if (!m_Network.HasJumped() && tvTaken > m_tvLimit)
        m_Network.Fail("an indication after " + std::to_string(tvTaken.GetTotalInUsec()));
    Take_i(aReason, aTrpt);
    m_bExpecting = FALSE;
    if (WildChance_i(0.2))
        Release();
    if (WildChance_i(0.3))
        Start_i();
}

#include "talvo/session/forward_session.h"
#include "tests/memory/ends.h"
#include "tests/memory/scenario.h"

namespace {

// Adds what connects to a session. The session takes the transports.
class CForwarder : public ICmAcceptorConnectorSink, public ICmTransportSink, public ICmForwardSink {
public:
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const CCmRefPtrT<ICmTransport> pTransport(aTrpt);
        DWORD dwId = 0;
        if (!pTransport || CWorld::Do([&] { return pTransport->OpenWithSink(this); }) != CM_OK ||
            CWorld::Do([&] { return m_pSession->AddReceiver(pTransport.Get(), {}, dwId); }) != CM_OK)
            m_bOver = true;
        if (pTransport && m_bOver)
            CWorld::Do([&] { return pTransport->Disconnect(CM_OK); });
    }
    void OnJoin(DWORD) override { m_bJoined = true; }
    void OnReceiver(DWORD, CmResult) override { m_bOver = true; }
    void OnForward() override {}
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    CCmRefPtrT<ICmForwardSession> m_pSession;
    bool m_bJoined = false;
    bool m_bOver = false;
};

}  // namespace

bool ForwardToOne(CWorld& aWorld) {
    constexpr DWORD TYPE = CCmConnectionManager::CTYPE_PDU_LENGTH | CCmConnectionManager::CTYPE_TCP;
    CForwarder forwarder;
    CClient client;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmInetAddr addr;
    const auto start = [&] {
        CCmConnectionManager& manager = CTestNetwork::Manager();
        return manager.CreateForwardSession(&forwarder, forwarder.m_pSession.ParaOut()) == CM_OK &&
               manager.CreateConnectionServer(TYPE, pAcceptor.ParaOut()) == CM_OK &&
               pAcceptor->StartListen(&forwarder, CCmInetAddr(OwnLoopback(), 0)) == CM_OK &&
               pAcceptor->GetListenAddr(addr) == CM_OK;
    };
    bool bAll = CWorld::Do(start) && client.Connect(aWorld, TYPE, addr);
    const auto isOver = [&] { return forwarder.m_bOver || client.m_Ends.front().IsOver(); };
    if (bAll)
        Require(aWorld.Run([&] { return forwarder.m_bJoined || isOver(); }), "a receiver neither joins nor ends");
    std::string strAll;
    for (const size_t nSize : {size_t{100}, size_t{2000}, size_t{40000}}) {
        const std::string strText = Pattern(nSize, 1);
        CCmMessageBlock block = ViewOf(strText);
        bAll = bAll && CWorld::Do([&] { return forwarder.m_pSession->Forward(block); }) == CM_OK;
        strAll += bAll ? strText : "";
    }
    if (!client.m_Ends.empty())
        Require(aWorld.Run([&] { return client.m_Ends.front().m_strReceived == strAll || isOver(); }),
                "neither data nor an end");
    bAll = bAll && client.m_Ends.front().m_strReceived == strAll;
    client.m_Ends.clear();
    Require(!forwarder.m_bJoined || aWorld.Run([&] { return forwarder.m_bOver; }), "a receiver ends without OnReceiver");
    CWorld::Do([&] {
        if (pAcceptor)
            pAcceptor->StopListen(CM_OK);
        forwarder.m_pSession.Reset();
    });
    return bAll;
}

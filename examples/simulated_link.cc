// A chat over a bad network, without a network:   simulated_link [SEED [COUNT]]
//
// A server and a client of package connections talk over a simulated link that loses, delays and cuts, in simulated time. With
// a seed one run is printed, line by line; without one a thousand runs are checked, which takes a few seconds for some hours.
#include <string>

#include "talvo/talvo.h"
#include "talvo/testing/testing.h"

constexpr DWORD TYPE =
    CCmConnectionManager::CTYPE_PDU_PACKAGE | CCmConnectionManager::CTYPE_PDU_KEEPALIVE | CCmConnectionManager::CTYPE_TCP;
constexpr int MESSAGES = 20;

CmResult SendText(ICmTransport& aTransport, const std::string& aText) {
    const auto dwLength = static_cast<DWORD>(aText.size());
    CCmMessageBlock block(dwLength, aText.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    return aTransport.SendData(block);
}

// Answers each message with the same. Nothing in it is aware of the simulation; it would serve sockets as well.
class Server : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CmResult Start(const CCmInetAddr& aAddr) {
        const CmResult rv = CCmConnectionManager::Instance()->CreateConnectionServer(TYPE, m_pAcceptor.ParaOut());
        return rv == CM_OK ? m_pAcceptor->StartListen(this, aAddr) : rv;
    }

private:
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aTrpt && aTrpt->OpenWithSink(this) == CM_OK)
            m_pClient = aTrpt;
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        SendText(*aTrptId, aData.FlattenChained());
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override { m_pClient.Reset(); }

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmTransport> m_pClient;
};

// Sends one message after the other, each when the one before has come back, and connects again when the connection is lost.
class Client : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    void Start(const CCmInetAddr& aAddr) {
        m_Addr = aAddr;
        if (CCmConnectionManager::Instance()->CreateConnectionClient(TYPE, m_pConnector.ParaOut()) == CM_OK)
            m_pConnector->AsycConnect(this, m_Addr);
    }
    BOOL IsDone() const { return m_nEchoes == MESSAGES; }

private:
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_pTransport = aTrpt;
        if (aTrpt && aTrpt->OpenWithSink(this) == CM_OK)
            SendNext();
        else
            m_pConnector->AsycConnect(this, m_Addr);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        if (aData.FlattenChained() == TextOf(m_nEchoes))  // else it answers a connection that was lost
            ++m_nEchoes;
        SendNext();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {
        m_pTransport.Reset();
        m_pConnector->AsycConnect(this, m_Addr);
    }
    void SendNext() {
        if (!IsDone())
            SendText(*m_pTransport, TextOf(m_nEchoes));
    }
    static std::string TextOf(int aNumber) { return "message " + std::to_string(aNumber); }

    CCmInetAddr m_Addr;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    int m_nEchoes = 0;
};

void Scenario(CCmSimNetwork& aNetwork) {
    CCmSimLink link;
    link.m_Up.m_tvDelay = CCmTimeValue(0.05);
    link.m_Up.m_tvJitter = CCmTimeValue(0.02);
    link.m_Up.m_Loss = 0.1;
    link.m_Up.m_ullCutAfter = 200;  // bytes of each connection
    link.m_Down = link.m_Up;
    link.m_Down.m_ullCutAfter = 0;
    link.m_Down.m_tvSilentFrom = CCmTimeValue(1);
    link.m_Down.m_tvSilentUntil = CCmTimeValue(5);
    aNetwork.SetLink(link);

    const CCmInetAddr addr("10.0.0.1", 7070);
    Server server;
    Client client;
    if (server.Start(addr) != CM_OK)
        aNetwork.Fail("the server does not listen");
    client.Start(addr);
    if (!aNetwork.RunUntil([&client] { return client.IsDone(); }, CCmTimeValue(60)))
        aNetwork.Fail("not all messages came back in a minute");
}

int main(int argc, char** argv) { return cm_sim_main(argc, argv, Scenario); }

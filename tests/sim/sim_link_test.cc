// Raw connections over simulated links, and the bounds of a simulation.
#include <sstream>

#include "talvo/talvo.h"
#include "talvo/testing/testing.h"
#include "tests/support/channel_sink.h"
#include "tests/support/network_fixture.h"

namespace {

using Manager = CCmConnectionManager;

const CCmInetAddr ADDR("10.0.0.1", 80);

CCmTimeValue Msec(long aMsec) { return CCmTimeValue(0, aMsec * 1000); }

// A client and a server, connected over a link that is the same in both directions.
class SimLinkTest : public testing::Test {
protected:
    void Connect(DWORD aType = Manager::CTYPE_TCP) {
        Open(m_Servers, m_Server);
        Open(m_Clients, m_Client);
        ASSERT_EQ(CM_OK, Manager::Instance()->CreateConnectionServer(aType, m_pAcceptor.ParaOut()));
        ASSERT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Servers, ADDR));
        ASSERT_EQ(CM_OK, Manager::Instance()->CreateConnectionClient(aType, m_pConnector.ParaOut()));
        m_pConnector->AsycConnect(&m_Clients, ADDR);
        m_Network.RunFor(CCmTimeValue(1));
        ASSERT_EQ(1u, m_Clients.m_Transports.size());
    }
    static void Open(CTestConnectSink& aSide, CTestSink& aSink) {
        aSide.m_Indicated = [&] {
            if (!aSide.m_Transports.empty())
                aSide.m_Transports.back()->OpenWithSink(&aSink);
        };
    }
    ICmTransport& Client() { return *m_Clients.m_Transports.at(0); }
    ICmTransport& Server() { return *m_Servers.m_Transports.at(0); }
    static int ErrnoOf(ICmTransport& aTransport) {
        CCmFailure failure;
        aTransport.GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
        return failure.GetErrno();
    }

    CCmSimNetwork m_Network{1};
    CTestSink m_Client, m_Server;
    CTestConnectSink m_Clients, m_Servers;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
};

// The bytes in front of the cut arrive, those behind it do not, and both ends get OnDisconnect.
TEST_F(SimLinkTest, AStreamBreaksAtItsByte) {
    Connect();
    m_Network.SetPath({.m_ullCutAfter = 7});
    EXPECT_EQ(CM_OK, SendText(Client(), "01234"));
    EXPECT_EQ(CM_OK, SendText(Client(), "56789"));
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, SendText(Client(), "x"));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("0123456", m_Server.m_strReceived);
    EXPECT_EQ(std::make_pair(1, 1), std::make_pair(m_Client.m_nDisconnects, m_Server.m_nDisconnects));
    EXPECT_EQ(std::make_pair(ECONNRESET, ECONNRESET), std::make_pair(ErrnoOf(Client()), ErrnoOf(Server())));
    EXPECT_EQ(0u, m_Network.CountEnds());
}

TEST_F(SimLinkTest, ALossDelaysAStream) {
    Connect();
    m_Network.SetPath({.m_tvJitter = Msec(50), .m_Loss = 0.3, .m_PartialSend = 0.5});
    const std::string strData = Pattern(20000);
    size_t stSent = 0;
    m_Client.m_Send = [&] {
        for (CmResult rv = CM_OK; rv == CM_OK && stSent < strData.size();) {
            CCmTransportParameter para;
            rv = SendText(Client(), strData.substr(stSent, 100), &para);
            stSent += para.m_dwHaveSent;
        }
    };
    m_Client.m_Send();
    EXPECT_TRUE(m_Network.RunUntil([&] { return m_Server.m_strReceived.size() == strData.size(); }, CCmTimeValue(3600)));
    EXPECT_EQ(strData, m_Server.m_strReceived);
    EXPECT_LT(CCmTimeValue(3), m_Network.Now());  // several losses in a row
}

TEST_F(SimLinkTest, DatagramsAreLostDoubledDelayedAndDamaged) {
    Connect(Manager::CTYPE_UDP);
    SendText(Client(), "a");
    m_Network.RunFor(CCmTimeValue(1));
    m_Network.SetPath({.m_Duplication = 1});
    SendText(Server(), "b");
    m_Network.SetPath({.m_Loss = 1});
    SendText(Server(), "c");
    m_Network.SetPath({.m_Reordering = 1});
    SendText(Server(), "d");
    m_Network.SetPath({});
    SendText(Server(), "e");
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("bbed", m_Client.m_strReceived);
    m_Network.SetPath({.m_Damage = 1});
    SendText(Client(), "damage");
    m_Network.SetPath({.m_PartialSend = 1});
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(Client(), "refused"));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(2, m_Server.m_nReceives);
    EXPECT_NE("adamage", m_Server.m_strReceived);
    EXPECT_EQ(1, m_Client.m_nSends);
}

TEST_F(SimLinkTest, SilenceDelaysAStreamAndConnects) {
    Connect();
    m_Network.SetPath({.m_tvSilentFrom = CCmTimeValue(2), .m_tvSilentUntil = CCmTimeValue(100)});
    m_Network.RunFor(CCmTimeValue(2));
    SendText(Client(), "late");
    m_pConnector->AsycConnect(&m_Clients, ADDR);
    EXPECT_TRUE(m_Network.RunUntil([&] { return m_Server.m_nReceives + m_Clients.Count() == 3; }, CCmTimeValue(1000)));
    EXPECT_EQ(CCmTimeValue(100), m_Network.Now());
    m_Network.SetPath({.m_tvSilentUntil = CCmTimeValue::s_tvMax});
    m_pConnector->AsycConnect(&m_Clients, ADDR);
    m_Network.RunFor(CCmTimeValue(126));
    EXPECT_EQ(2u, m_Clients.Count());
    m_Network.RunFor(CCmTimeValue(1));
    CCmFailure failure;
    cm_get_connect_options(m_pConnector.Get())->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
    EXPECT_EQ(ETIMEDOUT, failure.GetErrno());
    EXPECT_EQ(0, m_Client.Upcalls() + m_Server.m_nDisconnects);
}

// A half-open end fills its buffer and gets no upcall.
TEST_F(SimLinkTest, BuffersPushBackAndHalfOpenEndsStay) {
    Connect();
    m_Network.SetPath({.m_dwBandwidth = 1000, .m_dwBuffer = 1000});
    BOOL bPause = TRUE;
    Server().SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
    CCmTransportParameter para;
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(Client(), Pattern(1500), &para));
    EXPECT_EQ(1000u, para.m_dwHaveSent);
    m_Network.RunFor(CCmTimeValue(3600));
    EXPECT_EQ(0, m_Client.m_nSends + m_Server.m_nReceives);
    bPause = FALSE;
    Server().SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
    m_Network.RunFor(Msec(2));
    EXPECT_EQ(1000u, m_Server.m_strReceived.size());
    EXPECT_EQ(1, m_Client.m_nSends);
    const CCmTimeValue tvBegin = m_Network.Now();
    SendText(Client(), Pattern(500));
    EXPECT_TRUE(m_Network.RunUntil([&] { return m_Server.m_strReceived.size() == 1500; }, CCmTimeValue(9)));
    EXPECT_EQ(Msec(501), m_Network.Now() - tvBegin);

    m_Network.SetPath({.m_bLoseEnd = TRUE});
    Server().Disconnect(CM_OK);
    SendText(Client(), "into the void");
    m_Network.RunFor(CCmTimeValue(3600));
    EXPECT_EQ(0, m_Client.m_nDisconnects);
    CCmInetAddr addrClient;
    Client().GetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &addrClient);
    ASSERT_NE(nullptr, m_Network.FindEnd(addrClient, ADDR));
    EXPECT_EQ(13u, m_Network.FindEnd(addrClient, ADDR)->m_dwUnread);
    EXPECT_EQ(nullptr, m_Network.FindEnd(ADDR, addrClient));
}

// As with sockets: the ends one by one, and after both of them the last upcall.
TEST_F(SimLinkTest, EachDirectionEndsByItself) {
    Connect();
    BOOL bOn = TRUE;
    for (ICmTransport* pTransport : {&Client(), &Server()})
        EXPECT_EQ(CM_OK, pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bOn));
    SendText(Client(), "ask");
    EXPECT_EQ(CM_OK, Client().SetOption(CM_OPT_TRANSPORT_END_SENDING, &bOn));
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, SendText(Client(), "more"));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("ask", m_Server.m_strReceived);
    EXPECT_EQ(2, m_Server.m_nReceives);
    SendText(Server(), "answer");
    EXPECT_EQ(CM_OK, Server().SetOption(CM_OPT_TRANSPORT_END_SENDING, &bOn));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("answer", m_Client.m_strReceived);
    EXPECT_EQ(std::make_pair(1, 1), std::make_pair(m_Client.m_nDisconnects, m_Server.m_nDisconnects));
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(ErrnoOf(Client()), ErrnoOf(Server())));
}

// Proxies, HTTP, names and the orderly end work as over sockets.
TEST_F(SimLinkTest, TheWholeLibraryRunsOverIt) {
    Connect(Manager::CTYPE_TCP | Manager::CTYPE_FORCE_THREAD_PROXY);
    m_Server.m_Receive = [this] { SendText(Server(), "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"); };
    SendText(Client(), "GET");
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("GET", std::exchange(m_Server.m_strReceived, ""));

    m_Network.SetHost("server.test", ADDR);
    m_Servers.m_Transports.clear();
    for (const char* szUrl : {"http://server.test/", "http://unknown.test/"}) {
        CTestChannelSink sink;
        CCmRefPtrT<CCmHttpUrl> pUrl;
        CCmRefPtrT<ICmChannelHttpClient> pChannel;
        EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), szUrl));
        EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->CreateChannelHttpClient(pChannel.ParaOut(), pUrl.Get()));
        EXPECT_EQ(CM_OK, pChannel->AsyncOpen(&sink));
        EXPECT_TRUE(m_Network.RunUntil([&] { return sink.m_nDisconnects > 0; }, CCmTimeValue(10)));
        EXPECT_EQ(szUrl[7] == 's' ? "ok" : "", sink.m_strBody);
        EXPECT_EQ(szUrl[7] == 's' ? CM_OK : CM_ERROR_NETWORK_HTTP_FAILURE, sink.m_Reason);
    }
    EXPECT_TRUE(m_Server.m_strReceived.starts_with("GET / HTTP/1.1\r\nHost: server.test\r\n"));
    EXPECT_EQ(CM_OK, Manager::Instance()->Drain(nullptr));
    EXPECT_EQ(1, m_Client.m_nDisconnects);
    EXPECT_EQ(0u, m_Network.CountEnds());
}

// A second simulation is refused, the process is as before afterwards, and transports that outlive it are closed.
TEST(SimNetworkTest, OneAtATimeAndBehindItEverythingIsAsBefore) {
    CTestSink client;
    CTestConnectSink clients, servers;
    CCmRefPtrT<ICmConnector> pConnector;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    std::ostringstream trace;
    {
        CCmSimNetwork network(1, &trace);
        EXPECT_EQ(CM_OK, network.GetStatus());
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, CCmSimNetwork(2).GetStatus());
        Manager::Instance()->CreateConnectionServer(Manager::CTYPE_TCP, pAcceptor.ParaOut());
        Manager::Instance()->CreateConnectionClient(Manager::CTYPE_TCP, pConnector.ParaOut());
        pConnector->AsycConnect(&clients, ADDR);
        network.After(Msec(1), [&network] { EXPECT_FALSE(network.RunUntil([] { return TRUE; }, CCmTimeValue(1))); });
        network.RunFor(CCmTimeValue(1));
        EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, clients.m_Reasons.at(0));
        EXPECT_EQ("0.001000 the simulation was run from inside a callback", network.GetFailures().at(0).substr(5));
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&servers, ADDR));
        pConnector->AsycConnect(&clients, ADDR);
        network.RunFor(CCmTimeValue(1));
        EXPECT_EQ(CM_OK, clients.m_Transports.at(0)->OpenWithSink(&client));
    }
    EXPECT_NE(std::string::npos, trace.str().find("     1.002000 127.0.0.1:1025 > 10.0.0.1:80 connects\n"));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*clients.m_Transports.at(0), "x"));
    clients.m_Transports.clear();
    EXPECT_EQ(nullptr, CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_MAIN));
    EXPECT_EQ(CCmThreadManager::NETWORK_THREAD_OWN, CCmThreadManager::Instance()->GetNetworkThreadMode());
}

}  // namespace

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

constexpr DWORD TCP = Manager::CTYPE_TCP;

int ErrnoOf(ICmTransport& aTransport) { return Get<CCmFailure>(aTransport, CM_OPT_TRANSPORT_LAST_FAILURE).GetErrno(); }

class SimLinkTest : public testing::Test {
protected:
    CCmSimNetwork m_Network{1};
};

// The bytes in front of the cut arrive, those behind it do not, and both ends get OnDisconnect.
TEST_F(SimLinkTest, AStreamBreaksAtItsByte) {
    CCmSimPair pair(m_Network, TCP);
    m_Network.SetPath({.m_ullCutAfter = 7});
    EXPECT_EQ(CM_OK, SendText(pair.Client(), "01234"));
    EXPECT_EQ(CM_OK, SendText(pair.Client(), "56789"));
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, SendText(pair.Client(), "x"));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("disconnect 20001", pair.m_Client.Take());
    EXPECT_EQ("receive 0123456, disconnect 20001", pair.m_Server.Take());
    EXPECT_EQ(std::make_pair(ECONNRESET, ECONNRESET), std::make_pair(ErrnoOf(pair.Client()), ErrnoOf(pair.Server())));
    EXPECT_EQ(0u, m_Network.CountEnds());
}

TEST_F(SimLinkTest, ALossDelaysAStream) {
    CCmSimPair pair(m_Network, TCP);
    m_Network.SetPath({.m_tvJitter = Msec(50), .m_Loss = 0.3, .m_PartialSend = 0.5});
    const std::string strData = Pattern(20000);
    size_t stSent = 0;
    pair.m_Client.m_Send = [&] {
        for (CmResult rv = CM_OK; rv == CM_OK && stSent < strData.size();) {
            CCmTransportParameter para;
            rv = SendText(pair.Client(), strData.substr(stSent, 100), &para);
            stSent += para.m_dwHaveSent;
        }
    };
    pair.m_Client.m_Send();
    EXPECT_TRUE(m_Network.RunUntil([&] { return pair.m_Server.m_strReceived.size() == strData.size(); }, CCmTimeValue(3600)));
    EXPECT_EQ(strData, pair.m_Server.m_strReceived);
    EXPECT_LT(CCmTimeValue(3), m_Network.Now());  // several losses in a row
}

TEST_F(SimLinkTest, DatagramsAreLostDoubledDelayedAndDamaged) {
    CCmSimPair pair(m_Network, Manager::CTYPE_UDP);
    SendText(pair.Client(), "a");
    m_Network.RunFor(CCmTimeValue(1));
    m_Network.SetPath({.m_Duplication = 1});
    SendText(pair.Server(), "b");
    m_Network.SetPath({.m_Loss = 1});
    SendText(pair.Server(), "c");
    m_Network.SetPath({.m_Reordering = 1});
    SendText(pair.Server(), "d");
    m_Network.SetPath({});
    SendText(pair.Server(), "e");
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("bbed", pair.m_Client.m_strReceived);
    m_Network.SetPath({.m_Damage = 1});
    SendText(pair.Client(), "damage");
    m_Network.SetPath({.m_PartialSend = 1});
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(pair.Client(), "refused"));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(2, pair.m_Server.m_nReceives);
    EXPECT_NE("adamage", pair.m_Server.m_strReceived);
    EXPECT_EQ(1, pair.m_Client.m_nSends);
}

TEST_F(SimLinkTest, SilenceDelaysAStreamAndConnects) {
    CCmSimPair pair(m_Network, TCP);
    m_Network.SetPath({.m_tvSilentFrom = CCmTimeValue(2), .m_tvSilentUntil = CCmTimeValue(100)});
    m_Network.RunFor(CCmTimeValue(2));
    SendText(pair.Client(), "late");
    pair.m_pConnector->AsycConnect(&pair.m_Clients, ADDR);
    EXPECT_TRUE(
        m_Network.RunUntil([&] { return pair.m_Server.m_nReceives + pair.m_Clients.Count() == 3; }, CCmTimeValue(1000)));
    EXPECT_EQ(CCmTimeValue(100), m_Network.Now());
    m_Network.SetPath({.m_tvSilentUntil = CCmTimeValue::s_tvMax});
    pair.m_pConnector->AsycConnect(&pair.m_Clients, ADDR);
    m_Network.RunFor(CCmTimeValue(126));
    EXPECT_EQ(2u, pair.m_Clients.Count());
    m_Network.RunFor(CCmTimeValue(1));
    ICmConnectOptions& options = *cm_get_connect_options(pair.m_pConnector.Get());
    EXPECT_EQ(ETIMEDOUT, Get<CCmFailure>(options, CM_OPT_CONNECT_FAILURE).GetErrno());
    EXPECT_EQ(0, pair.m_Client.Upcalls() + pair.m_Server.m_nDisconnects);
}

// A half-open end fills its buffer and gets no upcall.
TEST_F(SimLinkTest, BuffersPushBackAndHalfOpenEndsStay) {
    CCmSimPair pair(m_Network, TCP);
    m_Network.SetPath({.m_dwBandwidth = 1000, .m_dwBuffer = 1000});
    Set(pair.Server(), CM_OPT_TRANSPORT_PAUSE_READING, TRUE);
    CCmTransportParameter para;
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(pair.Client(), Pattern(1500), &para));
    EXPECT_EQ(1000u, para.m_dwHaveSent);
    m_Network.RunFor(CCmTimeValue(3600));
    EXPECT_EQ(0, pair.m_Client.m_nSends + pair.m_Server.m_nReceives);
    Set(pair.Server(), CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
    m_Network.RunFor(Msec(2));
    EXPECT_EQ(1000u, pair.m_Server.m_strReceived.size());
    EXPECT_EQ(1, pair.m_Client.m_nSends);
    const CCmTimeValue tvBegin = m_Network.Now();
    SendText(pair.Client(), Pattern(500));
    EXPECT_TRUE(m_Network.RunUntil([&] { return pair.m_Server.m_strReceived.size() == 1500; }, CCmTimeValue(9)));
    EXPECT_EQ(Msec(501), m_Network.Now() - tvBegin);

    m_Network.SetPath({.m_bLoseEnd = TRUE});
    pair.Server().Disconnect(CM_OK);
    SendText(pair.Client(), "into the void");
    m_Network.RunFor(CCmTimeValue(3600));
    EXPECT_EQ(0, pair.m_Client.m_nDisconnects);
    const auto addrClient = Get<CCmInetAddr>(pair.Client(), CM_OPT_TRANSPORT_LOCAL_ADDR);
    ASSERT_NE(nullptr, m_Network.FindEnd(addrClient, ADDR));
    EXPECT_EQ(13u, m_Network.FindEnd(addrClient, ADDR)->m_dwUnread);
    EXPECT_EQ(nullptr, m_Network.FindEnd(ADDR, addrClient));
}

// As with sockets: the ends one by one, and after both of them the last upcall.
TEST_F(SimLinkTest, EachDirectionEndsByItself) {
    CCmSimPair pair(m_Network, TCP);
    for (ICmTransport* pTransport : {&pair.Client(), &pair.Server()})
        Set(*pTransport, CM_OPT_TRANSPORT_TELL_END, TRUE);
    SendText(pair.Client(), "ask");
    Set(pair.Client(), CM_OPT_TRANSPORT_END_SENDING, TRUE);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, SendText(pair.Client(), "more"));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("ask", pair.m_Server.m_strReceived);
    EXPECT_EQ(2, pair.m_Server.m_nReceives);
    SendText(pair.Server(), "answer");
    Set(pair.Server(), CM_OPT_TRANSPORT_END_SENDING, TRUE);
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("receive answer, disconnect 20001", pair.m_Client.Take());
    EXPECT_EQ(1, pair.m_Server.m_nDisconnects);
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(ErrnoOf(pair.Client()), ErrnoOf(pair.Server())));
}

// Proxies, HTTP, names and the orderly end work as over sockets.
TEST_F(SimLinkTest, TheWholeLibraryRunsOverIt) {
    CCmSimPair pair(m_Network, TCP | Manager::CTYPE_FORCE_THREAD_PROXY);
    pair.m_Server.m_Receive = [&pair] { SendText(pair.Server(), "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"); };
    SendText(pair.Client(), "GET");
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ("GET", std::exchange(pair.m_Server.m_strReceived, ""));

    m_Network.SetHost("server.test", ADDR);
    pair.m_Servers.m_Transports.clear();
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
    EXPECT_TRUE(pair.m_Server.m_strReceived.starts_with("GET / HTTP/1.1\r\nHost: server.test\r\n"));
    EXPECT_EQ(CM_OK, Manager::Instance()->Drain(nullptr));
    EXPECT_EQ(1, pair.m_Client.m_nDisconnects);
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
        pAcceptor = CTestNetwork::MakeAcceptor();
        pConnector = CTestNetwork::MakeConnector();
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

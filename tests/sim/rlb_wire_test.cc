// Reliable connections and a peer that speaks bytes: every PDU in hexadecimal, and peers that err or attack.
#include "talvo/talvo.h"
#include "talvo/testing/testing.h"
#include "talvo/transport/rest_option.h"
#include "tests/support/network_fixture.h"
#include "tests/support/temp_dir.h"

namespace {

using Manager = CCmConnectionManager;

constexpr DWORD PLAIN = Manager::CTYPE_PDU_RELIABLE | Manager::CTYPE_TCP;
constexpr DWORD TOKEN = PLAIN | Manager::CTYPE_RECONNECT_TOKEN;
const CCmInetAddr SERVER("10.0.0.1", 80);
const std::string FIRST_TOKEN = "01 00000000 0000 1F 00000000000000000000000000000000 00000000";

std::string FromHex(const std::string& aHex) {
    std::string strBytes, strDigits;
    for (const char c : aHex) {
        if (c != ' ')
            strDigits += c;
        if (strDigits.size() == 2)
            strBytes += static_cast<char>(std::stoi(std::exchange(strDigits, ""), nullptr, 16));
    }
    return strBytes;
}
std::string ToHex(const std::string& aBytes) {
    std::string strHex;
    for (const char c : aBytes) {
        char szByte[4];
        snprintf(szByte, sizeof szByte, "%02X", static_cast<BYTE>(c));
        strHex += szByte;
    }
    return strHex;
}

// A raw transport, as the peer of the other side's library.
struct CRawEnd {
    explicit CRawEnd(CCmRefPtrT<ICmTransport> aTransport) : m_pTransport(std::move(aTransport)) {
        m_pTransport->OpenWithSink(&m_Log);
    }
    void Send(const std::string& aHex) { SendText(*m_pTransport, FromHex(aHex)); }
    std::string Take() { return ToHex(std::exchange(m_Log.m_strReceived, "")); }
    BOOL IsClosed() const { return m_Log.m_nDisconnects > 0; }

    CCmUpcallLog m_Log;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

struct CGaps : ICmReconnectSink {
    void OnSuspended(ICmTransport*, CmResult aReason) override { m_strLog += "suspended " + std::to_string(aReason) + " "; }
    void OnResumed(ICmTransport*, DWORD) override { m_strLog += "resumed "; }
    std::string Take() { return std::exchange(m_strLog, ""); }
    std::string m_strLog;
};

class RlbWireTest : public testing::Test {
protected:
    ~RlbWireTest() override { m_Raw.clear(); }

    void Listen(DWORD aType) {
        m_Accepted.m_Indicated = [this] { Opened(m_Accepted); };
        m_pAcceptor = CTestNetwork::MakeAcceptor(aType);
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Accepted, SERVER));
    }
    void Opened(CCmConnectLog& aLog) {
        ICmReconnectSink* pGaps = &m_Gaps;
        if (aLog.m_Reasons.back() != CM_OK)
            return;
        aLog.m_Transports.back()->OpenWithSink(&m_User);
        Set(*aLog.m_Transports.back(), CM_OPT_TRANSPORT_RECONNECT_SINK, pGaps);
    }
    void Run(double aSeconds = 0.05) { m_Network.RunFor(CCmTimeValue(aSeconds)); }
    // A new transport to the server; its answer to these bytes.
    CRawEnd& Connect(const std::string& aHex, const char* aLocal = "10.0.0.2") {
        CTestConnectSink sink;
        CCmInetAddr addrLocal(aLocal, 0);
        const auto pConnector = CTestNetwork::MakeConnector();
        pConnector->AsycConnect(&sink, SERVER, nullptr, &addrLocal);
        Run();
        m_Raw.push_back(std::make_unique<CRawEnd>(sink.m_Transports.at(0)));
        m_Raw.back()->Send(aHex);
        Run();
        return *m_Raw.back();
    }
    std::string Ask(const std::string& aHex, const char* aLocal = "10.0.0.2") { return Connect(aHex, aLocal).Take(); }
    // A client's connection to a raw acceptor, asked and answered.
    void StartClient(DWORD aType) {
        m_Accepted.m_Indicated = [this] { m_Raw.push_back(std::make_unique<CRawEnd>(m_Accepted.m_Transports.back())); };
        m_pAcceptor = CTestNetwork::MakeAcceptor();
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Accepted, SERVER));
        m_Clients.m_Indicated = [this] { Opened(m_Clients); };
        m_pConnector = CTestNetwork::MakeConnector(aType);
        m_pConnector->AsycConnect(&m_Clients, SERVER);
        Run();
    }
    CRawEnd& Raw() { return *m_Raw.back(); }

    CCmSimNetwork m_Network{1};
    CCmUpcallLog m_User;
    CGaps m_Gaps;
    CTestConnectSink m_Accepted, m_Clients;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    std::vector<std::unique_ptr<CRawEnd>> m_Raw;
};

}  // namespace

TEST_F(RlbWireTest, ServerInThePlainForm) {
    Listen(PLAIN);
    CRawEnd& first = Connect("01 00000000 0000 0F");
    const std::string strFirst = first.Take();
    const std::string strChannel = strFirst.substr(10, 4);
    EXPECT_EQ("0200000000" + strChannel + "0F", strFirst);
    EXPECT_NE("0000", strChannel);
    ICmTransport& server = *m_Accepted.m_Transports.at(0);
    first.Send("06 00000000 00000003 616263");
    Run(0.19);
    EXPECT_EQ("", first.Take());
    Run(0.1);
    EXPECT_EQ("040000000C", first.Take());
    EXPECT_EQ(CM_OK, SendText(server, "d"));
    EXPECT_EQ(CM_OK, SendText(server, "ef"));
    Run();
    EXPECT_EQ(
        "060000000C0000000164"
        "060000000C000000026566",
        first.Take());
    EXPECT_EQ(21u, Get<DWORD>(server, CM_OPT_TRANSPORT_UNACKNOWLEDGED));

    // Refused, all alike, and the connection is untouched: inside a PDU, beyond what was sent, another channel or address.
    const std::string strOther = strChannel == "0001" ? "0002" : "0001";
    for (const std::string& strRequest : {"01 00000009 " + strChannel, "01 00000016 " + strChannel, "01 0000000A " + strOther})
        EXPECT_EQ("034E2C", Ask(strRequest + " 0F")) << strRequest;
    EXPECT_EQ("034E2C", Ask("01 0000000A " + strChannel + " 0F", "10.0.0.3"));
    EXPECT_EQ("034E2C", Ask("01 00000005 0000 0F"));
    EXPECT_EQ(
        "0200000000"
        "0000"
        "0F"
        "032719",
        Ask("01 00000000 0000 1F"));
    EXPECT_EQ("", Ask("01 00000000 0000 0F 06 00000000 00000001 61"));  // data before the response
    EXPECT_EQ("", Ask("06 00000000 00000001 61"));
    EXPECT_EQ("", Ask("04 00000000 01 00000000 0000 0F"));  // nothing to acknowledge yet
    EXPECT_EQ("", m_Gaps.Take());
    EXPECT_FALSE(first.IsClosed());

    // Good, while the server does not know of the loss; a begun PDU of the old transport is lost with it.
    first.Send("06 00000000 00000003 78");
    CRawEnd& second = Connect("01 0000000A " + strChannel + " 0F");
    EXPECT_EQ("020000000C" + strChannel +
                  "0F"
                  "060000000C000000026566",
              second.Take());
    EXPECT_TRUE(first.IsClosed());
    EXPECT_EQ("suspended 20003 resumed ", m_Gaps.Take());
    second.Send("06 00000015 00000003 78797A");
    Run();
    EXPECT_EQ("receive abcxyz", m_User.Take());
    EXPECT_EQ(0u, Get<DWORD>(server, CM_OPT_TRANSPORT_UNACKNOWLEDGED));
}

TEST_F(RlbWireTest, AMessageWhoseUpcallLosesTheTransportCounts) {
    Listen(PLAIN);
    const std::string strChannel = Ask("01 00000000 0000 0F").substr(10, 4);
    m_User.m_Receive = [&] {
        const CCmRefPtrT<ICmTransport> pLower(dynamic_cast<CConnBase&>(*m_Accepted.m_Transports[0]).GetTPTransport());
        pLower->GetSink()->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, pLower.Get());
    };
    Raw().Send("06 00000000 00000003 616263");
    Run();
    EXPECT_EQ("020000000C" + strChannel + "0F", Ask("01 00000000 " + strChannel + " 0F"));
}

// The peer ends and sends nothing again. Its last bytes arrive in a pause, before its system resets the connection.
TEST_F(RlbWireTest, ALaterTransportGivesItsRestBeforeAFailure) {
    Listen(PLAIN);
    const std::string strChannel = Ask("01 00000000 0000 0F").substr(10, 4);
    ICmTransport& server = *m_Accepted.m_Transports.at(0);
    Set(server, talvo::OPT_REST_BEFORE_FAILURE, TRUE);
    CRawEnd& second = Connect("01 00000000 " + strChannel + " 0F");
    Set(server, CM_OPT_TRANSPORT_PAUSE_READING, TRUE);
    m_Network.SetPath({.m_ullCutAfter = 23});
    second.Send("06 00000000 00000003 616263 03 0000");
    Run();
    EXPECT_EQ("receive abc, disconnect 0", m_User.Take());
}

// The client was away, and gets the reason for as long as it is kept; nobody else does.
TEST_F(RlbWireTest, AReasonIsKeptForTheClient) {
    Listen(PLAIN);
    const std::string strChannel = Ask("01 00000000 0000 0F").substr(10, 4);
    ICmTransport& server = *m_Accepted.m_Transports.at(0);
    Raw().m_pTransport->Disconnect(CM_OK);
    Run();
    EXPECT_EQ("suspended 20001 ", m_Gaps.Take());
    EXPECT_EQ(CM_OK, SendText(server, "never"));
    EXPECT_EQ(CM_ERROR_NETWORK_IN_DOUBT, server.Disconnect(1234));
    EXPECT_EQ("034E2C", Ask("01 00000000 " + strChannel + " 0F", "10.0.0.3"));
    EXPECT_EQ("0304D2", Ask("01 00000000 " + strChannel + " 0F"));
    EXPECT_EQ("", m_User.Take());
    Run(121);
    EXPECT_EQ("034E2C", Ask("01 00000000 " + strChannel + " 0F"));
}

// A late request of an attempt that the client has given up takes a good transport over, rewinds the send buffer and is lost.
// The client's next request, with its true counter, gets nothing twice.
TEST_F(RlbWireTest, ALateRequestDoublesNothing) {
    Listen(PLAIN);
    CRawEnd& first = Connect("01 00000000 0000 0F");
    const std::string strChannel = first.Take().substr(10, 4);
    ICmTransport& server = *m_Accepted.m_Transports.at(0);
    EXPECT_EQ(CM_OK, SendText(server, "d"));
    EXPECT_EQ(CM_OK, SendText(server, "ef"));
    Run();
    EXPECT_EQ(42u, first.Take().size());
    m_Network.SetPath({.m_dwBuffer = 10});
    CRawEnd& late = Connect("");
    Set(*late.m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, TRUE);
    late.Send("01 00000000 " + strChannel + " 0F");
    Run();
    EXPECT_EQ(CM_OK, SendText(server, "g"));
    late.m_pTransport->Disconnect(CM_OK);
    Run();
    m_Network.SetPath({});
    EXPECT_EQ("0200000000" + strChannel +
                  "0F"
                  "06000000000000000167",
              Ask("01 00000015 " + strChannel + " 0F"));
    EXPECT_EQ("suspended 20003 resumed suspended 20001 resumed ", m_Gaps.Take());
}

TEST_F(RlbWireTest, ServerInTheTokenForm) {
    Listen(TOKEN);
    CRawEnd& first = Connect(FIRST_TOKEN);
    const std::string strFirst = first.Take();
    ASSERT_EQ(56u, strFirst.size());
    const std::string strChannel = strFirst.substr(10, 4), strToken = strFirst.substr(16, 32);
    EXPECT_EQ("0200000000" + strChannel + "1F" + strToken + "00000000", strFirst);
    EXPECT_NE(std::string(32, '0'), strToken);
    const std::string strRequest = "01 00000000 " + strChannel + " 1F " + strToken;
    std::string strWrong = strToken;
    strWrong[31] = strWrong[31] == '0' ? '1' : '0';
    EXPECT_EQ("034E2C", Ask("01 00000000 " + strChannel + " 1F " + strWrong + " 00000001"));
    EXPECT_EQ("034E2C", Ask(strRequest + " 00000000"));
    EXPECT_EQ("034E2C", Ask("01 00000000 0000 1F " + strToken + " 00000000"));
    EXPECT_EQ(
        "02"
        "00000000"
        "0000"
        "1F" +
            std::string(40, '0') + "032719",
        Ask("01 00000000 0000 0F"));  // 8 bytes suffice
    EXPECT_EQ("0200000000" + strChannel + "1F" + strToken + "00000007", Ask(strRequest + " 00000007", "10.0.0.9"));
    EXPECT_EQ("034E2C", Ask(strRequest + " 00000007"));
    EXPECT_EQ("034E2C", Ask(strRequest + " 00000006"));
    EXPECT_TRUE(first.IsClosed());
    EXPECT_FALSE(m_Raw[5]->IsClosed());
    EXPECT_EQ("suspended 20003 resumed ", m_Gaps.Take());
    // The last byte of a request comes late.
    CRawEnd& late = Connect(strRequest + " 000000");
    EXPECT_EQ("", late.Take());
    late.Send("08");
    Run();
    EXPECT_EQ("0200000000" + strChannel + "1F" + strToken + "00000008", late.Take());
}

// A violation is final, and so is the time without the client.
TEST_F(RlbWireTest, ServerEndsAConnection) {
    for (const char* pViolation : {"04 00000001", "06 00000001 00000001 61", "01 00000000 0000 0F", "02 00000000 0001 0F", "07",
                                   "06 00000000 7FFFFFFF"}) {
        Listen(PLAIN);
        Connect("01 00000000 0000 0F").Send(pViolation);
        Run();
        EXPECT_EQ("disconnect 10009", m_User.Take()) << pViolation;
        EXPECT_TRUE(Raw().IsClosed());
    }
    Listen(PLAIN);
    Connect("01 00000000 0000 0F");
    Raw().m_pTransport->Disconnect(CM_OK);
    Run(119);
    EXPECT_EQ("suspended 20001 ", m_Gaps.Take());
    EXPECT_EQ("", m_User.Take());
    Run(2);
    EXPECT_EQ("disconnect 20004", m_User.Take());
    // Nobody can come back without the acceptor.
    Connect("01 00000000 0000 0F");
    Connect("01 00000000 0000 0F").m_pTransport->Disconnect(CM_OK);
    Run();
    m_pAcceptor.Reset();
    EXPECT_EQ("disconnect 20004", m_User.Take());
    m_Raw[m_Raw.size() - 2]->m_pTransport->Disconnect(CM_OK);
    Run();
    EXPECT_EQ("disconnect 20004", m_User.Take());
}

// Beyond MaxLost the oldest reason is forgotten, and then the connection that was lost longest ends.
TEST_F(RlbWireTest, TheLongestLostMakeRoom) {
    const CCmTempDir dir;
    const std::string strPath = dir.Write("talvo.cfg", "[Reliable]\nMaxLost=2\n");
    EXPECT_EQ(CM_OK, load_config_file(strPath.c_str()));
    Listen(PLAIN);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, load_config_file("/nonexistent"));
    std::vector<std::string> channels;
    for (int i = 0; i < 4; ++i)
        channels.push_back(Ask("01 00000000 0000 0F").substr(10, 4));
    const auto ask = [&](int i) { return Ask("01 00000000 " + channels[static_cast<size_t>(i)] + " 0F"); };
    m_Accepted.m_Transports[0]->Disconnect(1);  // remembered
    for (const size_t i : {1u, 2u})
        m_Raw[i]->m_pTransport->Disconnect(CM_OK);
    Run();
    EXPECT_EQ("", m_User.Take());
    EXPECT_EQ("034E2C", ask(0));
    m_Raw[3]->m_pTransport->Disconnect(CM_OK);
    Run();
    EXPECT_EQ("disconnect 20004", m_User.Take());
    EXPECT_EQ("034E2C", ask(1));
    for (const int i : {2, 3})
        EXPECT_EQ("0200000000" + channels[static_cast<size_t>(i)] + "0F", ask(i));
}

// The room for unacknowledged messages grows only while the transport takes all of them and the peer acknowledges them, and
// only until an option sets it.
TEST_F(RlbWireTest, TheSendBufferGrowsWithTheTransport) {
    const std::string strMessage(65536, 'x');
    const auto fill = [&] {
        int nTaken = 0;
        while (SendText(*m_Accepted.m_Transports.back(), strMessage) == CM_OK)
            ++nTaken;
        Run();
        return nTaken;
    };
    const auto acknowledge = [&](int aMessages) {
        char szHex[11];
        snprintf(szHex, sizeof szHex, "04%08X", static_cast<DWORD>(aMessages) * 65545);
        Raw().Send(szHex);
        Run();
    };
    Listen(PLAIN);
    m_Network.SetPath({.m_dwBuffer = 32 << 20});
    const std::string strChannel = Connect("01 00000000 0000 0F").Take().substr(10, 4);
    EXPECT_EQ(15, fill()) << "1 MiB, and no acknowledgement";
    int nSent = 15;
    for (const int nRoom : {31, 63, 127, 127}) {
        acknowledge(nSent);
        EXPECT_EQ(nRoom, fill());
        nSent += nRoom;
    }
    EXPECT_EQ(DWORD{1 << 20}, Get<DWORD>(*m_Accepted.m_Transports[0], CS_OPT_MAX_BUFF_LEN));
    // A lost transport ends the growth.
    Raw().m_pTransport->Disconnect(CM_OK);
    Run();
    EXPECT_EQ(0, fill());
    char szResume[32];
    snprintf(szResume, sizeof szResume, "01 %08X %s 0F", static_cast<DWORD>(nSent) * 65545, strChannel.c_str());
    Connect(szResume);
    EXPECT_EQ(15, fill());
    // A transport that does not take all, and an option, do not let it grow.
    m_Network.SetPath({.m_dwBuffer = 100000});
    Connect("01 00000000 0000 0F");
    EXPECT_EQ(15, fill());
    m_Network.SetPath({.m_dwBuffer = 32 << 20});
    Connect("01 00000000 0000 0F");
    Set(*m_Accepted.m_Transports.back(), CS_OPT_MAX_BUFF_LEN, DWORD{1 << 20});
    EXPECT_EQ(15, fill());
    acknowledge(15);
    EXPECT_EQ(15, fill());
}

// Ten guesses are answered; then an address, an honest client of it too, has to wait.
TEST_F(RlbWireTest, ServerStopsGuesses) {
    Listen(PLAIN);
    const std::string strChannel = Ask("01 00000000 0000 0F").substr(10, 4);
    const std::string strGood = "01 00000000 " + strChannel + " 0F";
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ("034E2C", Ask("01 00000001 " + strChannel + " 0F", "10.0.0.3"));
    EXPECT_EQ("", Ask(strGood, "10.0.0.3"));
    EXPECT_TRUE(Raw().IsClosed());
    EXPECT_EQ("0200000000" + strChannel + "0F", Ask(strGood));
    Run(60);
    EXPECT_EQ("034E2C", Ask("01 00000001 " + strChannel + " 0F", "10.0.0.3"));
}

TEST_F(RlbWireTest, ClientAsksAgain) {
    StartClient(PLAIN);
    EXPECT_EQ(
        "01000000000000"
        "0F",
        Raw().Take());
    Raw().Send("02 00000000 1234 0F 06 00000000 00000001 61");
    Run();
    ASSERT_EQ(1u, m_Clients.m_Transports.size());
    ICmTransport& client = *m_Clients.m_Transports[0];
    EXPECT_EQ(CM_OK, SendText(client, "b"));
    EXPECT_EQ(CM_OK, SendText(client, "c"));
    Run();
    EXPECT_EQ(
        "060000000A0000000162"
        "060000000A0000000163",
        Raw().Take());
    m_pConnector.Reset();
    for (int i = 0; i < 3; ++i) {  // attempts that fail change nothing
        Raw().m_pTransport->Disconnect(CM_OK);
        Run(3);
        EXPECT_EQ(
            "010000000A1234"
            "0F",
            Raw().Take());
    }
    EXPECT_EQ(CM_OK, SendText(client, "d"));
    Raw().Send("02 0000000A 1234 0F");
    Run();
    EXPECT_EQ(
        "060000000A0000000163"
        "060000000A0000000164",
        Raw().Take());
    EXPECT_EQ("suspended 20001 resumed ", m_Gaps.Take());
    const auto status = Get<CCmReconnectStatus>(client, CM_OPT_TRANSPORT_RECONNECT_STATUS);
    EXPECT_EQ(1u, status.m_dwResumed);
    EXPECT_EQ(10u, status.m_ullSentAgain);
    // Silence.
    Run(46);
    EXPECT_EQ(
        "010000000A1234"
        "0F",
        Raw().Take());
    Raw().Send("03 4E2C");
    Run();
    EXPECT_EQ("receive a, disconnect 20012", m_User.Take());
    EXPECT_EQ("suspended 20005 ", m_Gaps.Take());
}

TEST_F(RlbWireTest, ClientRefusesBadResponses) {
    for (const char* pResponse : {"02 00000000 0000 0F", "02 00000001 1234 0F", "02 00000000 1234 1F"}) {
        StartClient(PLAIN);
        Raw().Take();
        Raw().Send(pResponse);
        Run();
        EXPECT_EQ("034E2D", Raw().Take()) << pResponse;
        EXPECT_EQ(CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE, m_Clients.m_Reasons.back());
    }
    for (const char* pResponse : {"02 00000005 1234 0F", "02 0000000B 1234 0F", "02 00000000 1235 0F"}) {
        StartClient(PLAIN);
        Raw().Send("02 00000000 1234 0F");
        Run();
        EXPECT_EQ(CM_OK, SendText(*m_Clients.m_Transports.back(), "b"));
        Run();
        Raw().m_pTransport->Disconnect(CM_OK);
        Run(1);
        Raw().Take();
        Raw().Send(pResponse);
        Run();
        EXPECT_EQ("034E2D", Raw().Take()) << pResponse;
        EXPECT_EQ("disconnect 20013", m_User.Take()) << pResponse;
    }
    StartClient(TOKEN);
    EXPECT_EQ(ToHex(FromHex(FIRST_TOKEN)), Raw().Take());
    Raw().Send("02 00000000 1234 1F 000102030405060708090A0B0C0D0E0F 00000000");
    Run();
    for (const char* pAttempt : {"00000001", "00000002"}) {
        Raw().m_pTransport->Disconnect(CM_OK);
        Run(2);
        EXPECT_EQ(
            "01000000001234"
            "1F"
            "000102030405060708090A0B0C0D0E0F" +
                std::string(pAttempt),
            Raw().Take());
    }
    Raw().Send("02 00000000 1234 1F 000102030405060708090A0B0C0D0E0F 00000001");  // of the attempt before
    Run();
    EXPECT_EQ("disconnect 20013", m_User.Take());
}

// The server is not reached in time, and attempts stay within the back-off.
TEST_F(RlbWireTest, ClientGivesUp) {
    StartClient(PLAIN);
    Raw().Send("02 00000000 1234 0F");
    Run();
    m_pAcceptor->StopListen(CM_OK);
    Raw().m_pTransport->Disconnect(CM_OK);
    Run(119);
    EXPECT_EQ("", m_User.Take());
    Run(2);
    EXPECT_EQ("disconnect 20011", m_User.Take());
    // The first connect has 60 seconds in all, the transport's included.
    m_Network.SetPath({.m_tvSilentUntil = CCmTimeValue::s_tvMax});
    m_pConnector->AsycConnect(&m_Clients, SERVER);
    Run(59);
    EXPECT_EQ(1u, m_Clients.m_Reasons.size());
    Run(2);
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, m_Clients.m_Reasons.back());
}

// Proxies over protocol connections and datagrams: what comes early is kept, messages stay whole.
#include "tests/support/proxy_fixture.h"

namespace {

using Texts = std::vector<std::string>;

struct ProtocolProxyTest : testing::Test {
    CTestNetwork m_Network;
};

// The first block of the message has no bytes.
CmResult SendBehindNothing(ICmTransport& aTransport, const std::string& aText) {
    CCmMessageBlock nothing(DWORD{0});
    CCmMessageBlock block = ViewOf(aText);
    nothing.Append(&block);
    return aTransport.SendData(nothing);
}

}  // namespace

TEST_F(ProtocolProxyTest, AnEndBeforeTheOpeningIsTold) {
    CFakeConnection failed(m_Network, MESSAGES, [](CFakeLower& aFake) { aFake.m_OpenResult = CM_ERROR_FAILURE; });
    CFakeConnection orphan(m_Network, MESSAGES);
    CScopedThread user(CScopedThread::TASK);
    CFakeConnection userless(
        m_Network, MESSAGES, [](CFakeLower&) {}, &user->GetLink());
    user.End();
    userless.Receive("nobody will have this");
    userless.Sync();
    EXPECT_EQ(1, userless.m_pFake->m_nDisconnects);
    m_Network.EndNetworkThread();
    for (const auto& [pEach, szUpcalls] : {std::pair{&failed, "disconnect 10001"}, {&orphan, "disconnect 20003"}}) {
        EXPECT_EQ(CM_OK, pEach->m_pProxy->OpenWithSink(&pEach->m_Sink));
        EXPECT_EQ(szUpcalls, pEach->TakeUpcalls());
        EXPECT_EQ(1, pEach->m_pFake->m_nDisconnects);
    }
}

TEST_F(ProtocolProxyTest, TheLimitsHoldBeforeTheOpening) {
    CFakeConnection connection(m_Network, MESSAGES);
    for (const DWORD dwOption : {CM_OPT_TRANSPORT_PROXY_RECV_LIMIT, CM_OPT_TRANSPORT_PROXY_SEND_LIMIT})
        Set(*connection.m_pProxy, dwOption, DWORD{1000});
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(connection.m_pFake->m_bPaused);
        connection.Receive(std::string(100, 'r'));  // counts 228
    }
    EXPECT_TRUE(connection.m_pFake->m_bPaused);
    EXPECT_EQ(1u, connection.Fill(1001));
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*connection.m_pProxy, "s"));
    connection.MakeRoom();
    EXPECT_EQ("", connection.TakeUpcalls());
    connection.Open();
    EXPECT_EQ("receive " + std::string(500, 'r') + ", send", connection.TakeUpcalls()) << "a refused sender waits for it";
    connection.Sync();
    EXPECT_FALSE(connection.m_pFake->m_bPaused);
}

TEST_F(ProtocolProxyTest, EachSendIsOneMessageAndSeveralAreCorked) {
    CCmTraceCapture trace;
    CFakeConnection connection(m_Network, MESSAGES);
    connection.Open();
    connection.SendTogether({"one", ""});
    EXPECT_EQ(Texts({"one"}), connection.Seen());
    connection.SendTogether({"a", "bb", "c"});
    EXPECT_EQ(Texts({"(cork)", "a", "bb", "c", "(uncork)"}), connection.Seen());
    connection.Inside([](const std::string& aText) { return aText == "e" ? CM_ERROR_PARTIAL_DATA : CM_OK; });
    connection.SendTogether({"d", "e", "bad", "f"});
    EXPECT_EQ(Texts({"(cork)", "d", "e", "(uncork)"}), connection.Seen());
    connection.Inside([](const std::string& aText) { return aText == "bad" ? CM_ERROR_INVALID_ARG : CM_OK; });
    connection.MakeRoom();
    EXPECT_EQ(Texts({"(cork)", "e", "bad", "f", "(uncork)"}), connection.Seen());
    EXPECT_EQ(1u, trace.Count("message too long for the connection, lost. len=3"));
    connection.SetRoom(2);
    connection.SendTogether({"xyz"});
    connection.MakeRoom();
    EXPECT_EQ(Texts({"xyz", "z"}), connection.Seen());
    EXPECT_EQ("oneabbcdefxyz", connection.m_pFake->GetSent());
    connection.Inside([](const std::string& aText) { return aText == "g" ? CM_ERROR_NOT_AVAILABLE : CM_OK; });
    connection.SendTogether({"g", "h"});
    EXPECT_EQ(Texts({"(cork)", "g", "(uncork)"}), connection.Seen());
}

// A connection may report room from inside a send of gathered data; the proxy then continues.
TEST_F(ProtocolProxyTest, OnSendInsideASendGoesOn) {
    CFakeConnection connection(m_Network, MESSAGES);
    connection.Open();
    DWORD dwRoom = 2;
    connection.Inside([&](const std::string& aText) {
        if (aText != "(uncork)")
            return aText == "(cork)" || dwRoom-- > 0 ? CM_OK : CM_ERROR_PARTIAL_DATA;
        dwRoom = 2;
        connection.m_pFake->m_pSink->OnSend(connection.m_pFake.Get());
        return CM_OK;
    });
    connection.SendTogether({"a", "b", "c", "d", "e"});
    connection.Sync();
    EXPECT_EQ("abcde", connection.m_pFake->GetSent());
    dwRoom = 2;
    m_Network.InNetwork([&] {
        EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "f"));  // its event is still queued at the next send
        connection.m_pFake->m_pSink->OnSend(connection.m_pFake.Get());
        EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "g"));
    });
    connection.Sync();
    EXPECT_EQ("abcdefg", connection.m_pFake->GetSent());
}

TEST_F(ProtocolProxyTest, ASendWithoutMemoryEndsTheConnection) {
    for (const DWORD dwLane : {STREAM, MESSAGES}) {
        CFakeConnection connection(m_Network, dwLane);
        connection.Open();
        connection.Inside([](const std::string&) { return CM_ERROR_OUT_OF_MEMORY; });
        connection.SendTogether({"lost"});
        EXPECT_EQ("disconnect 10007", connection.TakeUpcalls());
    }
}

TEST_F(ProtocolProxyTest, TooLongAMessageIsRefusedBeforeItIsQueued) {
    CCmTraceCapture trace;
    CFakeConnection connection(m_Network, MESSAGES, [](CFakeLower& aFake) { aFake.m_dwMaxMessage = 10; });
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*connection.m_pProxy, "eleven char"));
    EXPECT_EQ(1u, trace.Count("CCmTransportThreadProxy::SendData, message too long. len=11 max=10"));
    Set(*connection.m_pProxy, CFakeLower::OPT_LIMIT, DWORD{11});
    EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "eleven char"));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*connection.m_pProxy, "twelve chars"));
    connection.Sync();
    EXPECT_EQ(Texts({"eleven char"}), connection.Seen());
}

// Copied and shared messages leave together, by sends that a small socket takes in part, and arrive together.
TEST_F(ProtocolProxyTest, MessagesOfAllSizesStayWholeAndInOrder) {
    constexpr unsigned COUNT = 2000;
    const auto message = [](unsigned aNumber) {
        const unsigned uMost = aNumber % 16 == 0 ? 20000 : aNumber % 5 == 0 ? 1100 : 90;
        return Pattern(1 + aNumber * 7919 % uMost, aNumber);
    };
    for (const DWORD dwKind : {CCmConnectionManager::CTYPE_PDU_LENGTH, CCmConnectionManager::CTYPE_PDU_PACKAGE}) {
        CTestConnectSink server, client;
        CCmInetAddr addr;
        const DWORD dwType = CCmConnectionManager::CTYPE_TCP | dwKind;
        const auto pAcceptor = CTestNetwork::Listen(server, addr, dwType);
        const auto pConnector = CTestNetwork::MakeConnector(dwType);
        pConnector->AsycConnect(&client, addr);
        m_Network.RunUntil([&] { return server.Count() == 1 && client.Count() == 1; });
        ICmTransport& from = *client.m_Transports.at(0);
        ICmTransport& to = *server.m_Transports.at(0);
        CTestSink sender(from), receiver(to);
        Set(from, CM_OPT_TRANSPORT_SNDBUF, 20000);
        receiver.m_Receive = [&] {
            if (receiver.m_nReceives % 300 != 0)
                return;
            Set(to, CM_OPT_TRANSPORT_PAUSE_READING, TRUE);
            PostTo(m_Network.Main(), [&] { Set(to, CM_OPT_TRANSPORT_PAUSE_READING, FALSE); });
        };
        unsigned uSent = 0;
        m_Network.RunUntil([&] {
            while (uSent < COUNT && SendBehindNothing(from, message(uSent)) == CM_OK)
                ++uSent;
            return receiver.m_Received.size() == COUNT;
        });
        for (unsigned n = 0; n < COUNT; ++n)
            ASSERT_TRUE(receiver.m_Received[n] == message(n)) << n << " of type " << dwType;
    }
}

// The last that hold the core and the connection let go inside a call of the connection.
TEST_F(ProtocolProxyTest, TheConnectionEndsInsideASend) {
    const auto refuse = [](CFakeLower& aFake) { aFake.m_dwRoom = 0; };
    for (const std::string strWhere : {"(cork)", "b", "(uncork)"}) {
        for (const BOOL bRelease : {FALSE, TRUE}) {
            CScopedThread user(CScopedThread::TASK);
            CFakeConnection connection(m_Network, MESSAGES, refuse, bRelease ? &user->GetLink() : nullptr);
            connection.Open();
            CFakeLower* pFake = connection.m_pFake.Get();
            connection.SendTogether({"a", "b", "c"});
            connection.SetRoom(CFakeLower::EVERYTHING);
            connection.Inside([=](const std::string& aText) {
                if (aText != strWhere)
                    return CM_OK;
                pFake->m_pSink->OnDisconnect(CM_ERROR_FAILURE, pFake);
                return pFake->GetSink() ? CM_OK : CM_ERROR_PARTIAL_DATA;  // it still exists, without a user
            });
            user.End();
            if (bRelease)
                connection.m_pProxy.Reset();  // lingers
            connection.Sync();
            m_Network.InNetwork([&] {
                connection.m_pFake.Reset();
                pFake->m_pSink->OnSend(pFake);
            });
            EXPECT_EQ(bRelease ? "" : "disconnect 10001", connection.TakeUpcalls());
        }
    }
}

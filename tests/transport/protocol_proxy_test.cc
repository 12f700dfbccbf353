// Proxies over protocol connections: what comes early is kept, messages stay whole.
#include "tests/support/proxy_fixture.h"

namespace {

constexpr DWORD PACKAGE_TCP = 0x10000001;
using Texts = std::vector<std::string>;

struct ProtocolProxyTest : testing::Test {
    CTestNetwork m_Network;
};

}  // namespace

TEST_F(ProtocolProxyTest, WhatComesBeforeTheOpeningIsKeptItsEndIncluded) {
    CFakeConnection connection(m_Network, PACKAGE_TCP);
    connection.Receive("a");
    connection.Receive("bc");
    connection.Lose();
    m_Network.RunPosted();
    EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*connection.m_pProxy, "nobody"));
    connection.Open();
    EXPECT_EQ(0, connection.m_Sink.Upcalls());
    m_Network.RunPosted();
    EXPECT_EQ("abc", connection.m_Sink.m_strReceived);
    EXPECT_EQ(3, connection.m_Sink.Upcalls());
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, connection.m_Sink.m_Reason);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, connection.m_pProxy->OpenWithSink(&connection.m_Sink));
}

TEST_F(ProtocolProxyTest, AnEndBeforeTheOpeningIsTold) {
    CFakeConnection failed(m_Network, PACKAGE_TCP, [](CFakeLower& aFake) { aFake.m_OpenResult = CM_ERROR_FAILURE; });
    CFakeConnection orphan(m_Network, PACKAGE_TCP);
    CScopedThread user(CScopedThread::TASK);
    CFakeConnection userless(
        m_Network, PACKAGE_TCP, [](CFakeLower&) {}, &user->GetLink());
    user.End();
    userless.Receive("nobody will have this");
    userless.Sync();
    EXPECT_EQ(1, userless.m_pFake->m_nDisconnects);
    m_Network.EndNetworkThread();
    for (CFakeConnection* pEach : {&failed, &orphan}) {
        EXPECT_EQ(CM_OK, pEach->m_pProxy->OpenWithSink(&pEach->m_Sink));
        m_Network.RunPosted();
        EXPECT_EQ(1, pEach->m_Sink.Upcalls());
        EXPECT_EQ(1, pEach->m_pFake->m_nDisconnects);
    }
    EXPECT_EQ(CM_ERROR_FAILURE, failed.m_Sink.m_Reason);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, orphan.m_Sink.m_Reason);
}

TEST_F(ProtocolProxyTest, TheLimitsHoldBeforeTheOpening) {
    CFakeConnection connection(m_Network, PACKAGE_TCP);
    DWORD dwLimit = 1000;
    connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PROXY_RECV_LIMIT, &dwLimit);
    connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, &dwLimit);
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(connection.m_pFake->m_bPaused);
        connection.Receive(std::string(100, 'r'));  // counts 228
    }
    EXPECT_TRUE(connection.m_pFake->m_bPaused);
    connection.SetRoom(0);
    EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, std::string(1001, 's')));
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*connection.m_pProxy, "s"));
    connection.MakeRoom();
    m_Network.RunPosted();
    EXPECT_EQ(0, connection.m_Sink.Upcalls());
    connection.Open();
    m_Network.RunPosted();
    connection.Sync();
    EXPECT_EQ(500u, connection.m_Sink.m_strReceived.size());
    EXPECT_EQ(1, connection.m_Sink.m_nSends) << "who was refused waits for it";
    EXPECT_FALSE(connection.m_pFake->m_bPaused);
}

TEST_F(ProtocolProxyTest, WhoeverNeverOpensHearsNothingAndLeavesNothing) {
    CFakeConnection released(m_Network, PACKAGE_TCP), disconnected(m_Network, PACKAGE_TCP), lost(m_Network, PACKAGE_TCP);
    for (CFakeConnection* pEach : {&released, &disconnected, &lost})
        pEach->Receive("kept");
    lost.Lose();
    released.m_pProxy.Reset();
    lost.m_pProxy.Reset();
    EXPECT_EQ(CM_OK, disconnected.m_pProxy->Disconnect(CM_ERROR_FAILURE));
    EXPECT_EQ(CM_ERROR_NULL_POINTER, disconnected.m_pProxy->OpenWithSink(&disconnected.m_Sink));
    m_Network.RunPosted();
    for (CFakeConnection* pEach : {&released, &disconnected, &lost}) {
        pEach->Sync();
        EXPECT_EQ(0, pEach->m_Sink.Upcalls());
        EXPECT_EQ(1, pEach->m_pFake->m_nDisconnects);
    }
}

TEST_F(ProtocolProxyTest, EachSendIsOneMessageAndSeveralAreCorked) {
    CCmTraceCapture trace;
    CFakeConnection connection(m_Network, PACKAGE_TCP);
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

// A connection that makes room while it sends what was gathered says so at once, and is believed.
TEST_F(ProtocolProxyTest, OnSendInsideASendGoesOn) {
    CFakeConnection connection(m_Network, PACKAGE_TCP);
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
}

TEST_F(ProtocolProxyTest, TooLongAMessageIsRefusedBeforeItIsQueued) {
    CCmTraceCapture trace;
    CFakeConnection connection(m_Network, PACKAGE_TCP, [](CFakeLower& aFake) { aFake.m_dwMaxMessage = 10; });
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*connection.m_pProxy, "eleven char"));
    EXPECT_EQ(1u, trace.Count("CCmTransportThreadProxy::SendData, message too long. len=11 max=10"));
    DWORD dwMax = 11;
    EXPECT_EQ(CM_OK, connection.m_pProxy->SetOption(CFakeLower::OPT_LIMIT, &dwMax));
    EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "eleven char"));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*connection.m_pProxy, "twelve chars"));
    connection.Sync();
    EXPECT_EQ(Texts({"eleven char"}), connection.Seen());
}

TEST_F(ProtocolProxyTest, LingersWhileTheConnectionHasSomethingUnsent) {
    CCmFakeClock clock;
    CFakeConnection connection(m_Network, PACKAGE_TCP, [](CFakeLower& aFake) { aFake.m_dwUnacknowledged = 1; });
    connection.Open();
    connection.m_pProxy.Reset();
    clock.Advance(CCmTimeValue(20));
    connection.Sync();
    EXPECT_EQ(0, connection.m_pFake->m_nDisconnects);
    m_Network.InNetwork([&] { connection.m_pFake->m_dwUnacknowledged = 0; });
    clock.Advance(CCmTimeValue(1));
    YieldUntil([&] { return connection.m_pFake->m_nDisconnects == 1; });
    EXPECT_EQ(CM_OK, connection.m_pFake->m_Disconnects.at(0));
}

// The last that hold the core and the connection let go inside a call of the connection.
TEST_F(ProtocolProxyTest, TheConnectionEndsInsideASend) {
    const auto refuse = [](CFakeLower& aFake) { aFake.m_dwRoom = 0; };
    for (const std::string strWhere : {"(cork)", "b", "(uncork)"}) {
        for (const BOOL bRelease : {FALSE, TRUE}) {
            CScopedThread user(CScopedThread::TASK);
            CFakeConnection connection(m_Network, PACKAGE_TCP, refuse, bRelease ? &user->GetLink() : nullptr);
            connection.Open();
            CFakeLower* pFake = connection.m_pFake.Get();
            connection.SendTogether({"a", "b", "c"});
            connection.SetRoom(CFakeLower::EVERYTHING);
            connection.Inside([=](const std::string& aText) {
                if (aText != strWhere)
                    return CM_OK;
                pFake->m_pSink->OnDisconnect(CM_ERROR_FAILURE, pFake);
                return pFake->GetSink() ? CM_OK : CM_ERROR_PARTIAL_DATA;  // it is still there, though nobody's
            });
            user.End();
            if (bRelease)
                connection.m_pProxy.Reset();  // lingers
            connection.Sync();
            m_Network.InNetwork([&] {
                connection.m_pFake.Reset();
                pFake->m_pSink->OnSend(pFake);
            });
            m_Network.RunPosted();
            EXPECT_EQ(bRelease ? 0 : 1, connection.m_Sink.Upcalls());
        }
    }
}

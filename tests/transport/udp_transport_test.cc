#include "talvo/transport/udp/transport_udp.h"
#include "tests/support/udp_helpers.h"

namespace {

// A chain of blocks with one letter each; freed with the scope.
class CLetters {
public:
    explicit CLetters(size_t aCount) {
        for (size_t i = 0; i < aCount; ++i) {
            m_strText += static_cast<char>('a' + i % 26);
            m_Blocks.push_back(std::make_unique<CCmMessageBlock>(1));
            m_Blocks.back()->Write(&m_strText.back(), 1);
            if (i > 0)
                m_Blocks[i - 1]->Append(m_Blocks.back().get());
        }
    }
    CCmMessageBlock& Head() { return *m_Blocks[0]; }
    std::string m_strText;

private:
    std::vector<std::unique_ptr<CCmMessageBlock>> m_Blocks;
};

// An address on which nobody receives.
CCmInetAddr DeadAddr() { return CPlainUdp().Addr(); }

}  // namespace

TEST_F(UdpTest, EachSendIsOneDatagram) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    ASSERT_TRUE(pTransport);
    CTestSink sink;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->OpenWithSink(nullptr));
    EXPECT_EQ(CM_OK, pTransport->OpenWithSink(&sink));

    CCmTransportParameter para;
    CLetters letters(1024);
    EXPECT_EQ(CM_OK, pTransport->SendData(letters.Head(), &para));
    EXPECT_EQ(1024u, para.m_dwHaveSent);
    EXPECT_EQ(0u, letters.Head().GetChainedLength());
    const std::string strLargest = Pattern(65507);
    EXPECT_EQ(CM_OK, SendText(*pTransport, strLargest));
    EXPECT_EQ(CM_OK, SendText(*pTransport, "", &para));
    EXPECT_EQ(0u, para.m_dwHaveSent);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*pTransport, strLargest + "x", &para));
    CLetters tooMany(1025);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SendData(tooMany.Head(), &para));
    EXPECT_EQ(1025u, tooMany.Head().GetChainedLength());
    EXPECT_EQ(0u, pTransport->GetCounters().m_ullSendCalls);
    Turns();
    EXPECT_EQ(1u, pTransport->GetCounters().m_ullSendCalls);
    EXPECT_EQ((Datagrams{letters.m_strText, strLargest, ""}), peer.Receive());

    for (const std::string& strData : {std::string(), strLargest, std::string("x"), std::string()})
        peer.Send(peer.From(), strData);
    Turns();
    EXPECT_EQ((Datagrams{"", strLargest, "x", ""}), sink.m_Received);
    EXPECT_EQ(0, sink.m_nDisconnects);
}

TEST_F(UdpTest, WhatIsAlreadyThereSharesSystemCalls) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    CTestSink sink(*pTransport);
    for (const std::string& strData : Numbered(0, 100))
        EXPECT_EQ(CM_OK, SendText(*pTransport, strData));
    Turns();
    EXPECT_EQ(Numbered(0, 100), peer.Receive());
    EXPECT_EQ(4u, pTransport->GetCounters().m_ullSendCalls);

    sink.m_bEcho = TRUE;
    for (const std::string& strData : Numbered(0, 100))
        peer.Send(peer.From(), strData);
    const uint64_t ullWakeUps = m_Network.Main().GetCounters().m_ullWakeUps;
    m_Network.RunUntil([&] { return sink.m_Received.size() == 100; });
    EXPECT_EQ(4u, m_Network.Main().GetCounters().m_ullWakeUps - ullWakeUps);
    EXPECT_EQ(Numbered(0, 100), peer.Receive());
    EXPECT_EQ(4u, pTransport->GetCounters().m_ullReceiveCalls);
    EXPECT_EQ(8u, pTransport->GetCounters().m_ullSendCalls);
}

// The refusal is met by the next receive, by the next send, or before the transport was opened.
TEST_F(UdpTest, ARefusalByThePeersSystemEndsItOnce) {
    for (int nWay = 0; nWay < 3; ++nWay) {
        const auto pTransport = Connect(DeadAddr());
        CTestSink sink;
        if (nWay < 2) {
            EXPECT_EQ(CM_OK, pTransport->OpenWithSink(&sink));
        }
        EXPECT_EQ(CM_OK, SendText(*pTransport, "anybody?"));
        if (nWay > 0) {
            m_Network.Main().ProcessTimerTick();
            EXPECT_EQ(CM_OK, SendText(*pTransport, "nobody?"));
            m_Network.Main().ProcessTimerTick();
            EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, SendText(*pTransport, "no"));
        }
        if (nWay == 2) {
            EXPECT_EQ(CM_OK, pTransport->OpenWithSink(&sink));
        }
        Turns();
        EXPECT_EQ(1, sink.m_nDisconnects);
        EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, sink.m_Reason);
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*pTransport, "over"));
    }
}

TEST_F(UdpTest, APauseLosesNothing) {
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    CTestSink sink(*pTransport);
    sink.m_Receive = [&] { Set(*pTransport, CM_OPT_TRANSPORT_PAUSE_READING, BOOL{sink.m_nReceives % 10 == 3}); };
    const auto addr = Get<CCmInetAddr>(*pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
    for (const std::string& strData : Numbered(0, 50))
        peer.Send(addr, strData);
    Turns();
    EXPECT_EQ(Numbered(0, 3), sink.m_Received);
    for (int nStop = 13; nStop < 50; nStop += 10) {
        Set(*pTransport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
        EXPECT_EQ(Numbered(0, nStop - 10), sink.m_Received);  // nothing from inside the call
        Turns();
        EXPECT_EQ(Numbered(0, nStop), sink.m_Received);
    }
}

TEST_F(UdpTest, TheSinkMayEndItInTheMiddleOfABatch) {
    CPlainUdp peer;
    for (const BOOL bRelease : {FALSE, TRUE}) {
        auto pTransport = Connect(peer.Addr());
        CTestSink sink(*pTransport);
        const auto addr = Get<CCmInetAddr>(*pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
        for (const std::string& strData : Numbered(0, 10))
            peer.Send(addr, strData);
        sink.m_bEcho = TRUE;
        sink.m_Receive = [&] {
            if (sink.m_nReceives == 3 && bRelease)
                pTransport.Reset();
            else if (sink.m_nReceives == 3)
                pTransport->Disconnect(CM_OK);
        };
        Turns();
        EXPECT_EQ(3, sink.Upcalls());
        EXPECT_EQ(Numbered(0, 3), peer.Receive());  // what was taken went out
    }
}

TEST_F(UdpTest, OptionsAnswerForDatagrams) {
    CCmTraceCapture trace;
    CPlainUdp peer;
    const auto pTransport = Connect(peer.Addr());
    auto addr = Get<CCmInetAddr>(*pTransport, CM_OPT_TRANSPORT_LOCAL_ADDR);
    peer.Send(addr, "12345");
    EXPECT_EQ(5u, Get<DWORD>(*pTransport, CM_OPT_TRANSPORT_FIO_NREAD));
    EXPECT_TRUE(Get<BOOL>(*pTransport, CM_OPT_TRANSPORT_SOCK_ALIVE));
    Set(*pTransport, CM_OPT_TRANSPORT_TOS, DWORD{0x10});
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->GetOption(102, &addr));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &addr));
    EXPECT_TRUE(trace.Contains("CCmTransportUdp::GetOption, unknow aCommand=102 aArg="));
    EXPECT_TRUE(trace.Contains("CCmTransportUdp::SetOption, unknow aCommand=104 aArg="));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SetOption(CM_OPT_TRANSPORT_TOS, nullptr));

    HANDLE fd = Get<HANDLE>(*pTransport, CM_OPT_TRANSPORT_FD);
    const CTestFd detached(fd);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pTransport->SetOption(CM_OPT_TRANSPORT_FD, &fd));
    Set(*pTransport, CM_OPT_TRANSPORT_FD, CM_INVALID_HANDLE);
    BOOL bValue = TRUE;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pTransport->GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bValue));
    EXPECT_FALSE(bValue);
    EXPECT_EQ("12345", detached.Read());
}

TEST_F(UdpTest, AConnectEndsAsItShould) {
    CCmTraceCapture trace;
    CTestConnectSink sink;
    const auto pConnector = m_Network.MakeConnector(CCmConnectionManager::CTYPE_UDP);
    pConnector->AsycConnect(&sink, CCmInetAddr("255.255.255.255", 9));  // not allowed without asking for broadcasts
    m_Network.RunUntil([&] { return sink.Count() == 1; });
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, sink.m_Reasons[0]);
    EXPECT_TRUE(trace.Contains("CCmConnectorUdpT::Connect, connect() failed! addr=255.255.255.255 port=9"));

    CPlainUdp peer;
    CCmInetAddr addrTaken = peer.Addr();
    pConnector->AsycConnect(&sink, peer.Addr(), nullptr, &addrTaken);
    m_Network.RunUntil([&] { return sink.Count() == 2; });
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, sink.m_Reasons[1]);
    EXPECT_TRUE(trace.Contains("CCmConnectorUdpT::Connect, m_Socket.Open() failed! addr=" + peer.Addr().GetIpDisplayName()));

    pConnector->AsycConnect(&sink, peer.Addr());
    pConnector->CancelConnect();
    Turns();
    EXPECT_EQ(2u, sink.Count());
    sink.m_bKeep = FALSE;  // and nothing is left of it
    pConnector->AsycConnect(&sink, peer.Addr());
    m_Network.RunUntil([&] { return sink.Count() == 3; });
    EXPECT_EQ(CM_OK, sink.m_Reasons[2]);
    EXPECT_TRUE(trace.Contains("CCmConnectorUdpT::Connect, connect() successful. addr=" + peer.Addr().GetIpDisplayName()));
}

#include "talvo/transport/udp/acceptor_udp.h"
#include "tests/support/udp_helpers.h"

namespace {

class UdpAcceptorTest : public CUdpTest {
protected:
    UdpAcceptorTest() {
        m_Sink.m_Indicated = [this] {
            EXPECT_EQ(m_pAcceptor.Get(), m_Sink.m_pLastId);
            if (m_bOpen && m_Sink.m_bKeep) {
                EXPECT_EQ(CM_OK, m_Sink.m_Transports.back()->OpenWithSink(&m_Datagrams));
            }
        };
        Listen();
    }
    void Listen() {
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Sink, Loopback(5400)));
        EXPECT_EQ(CM_OK, m_pAcceptor->GetListenAddr(m_Addr));
    }
    ICmTransport& Transport(size_t aIndex) { return *m_Sink.m_Transports[aIndex]; }
    void SendAndTurn(const CPlainUdp& aPeer, const std::string& aData) {
        aPeer.Send(m_Addr, aData);
        Turns();
    }

    CTestSink m_Datagrams;
    CTestConnectSink m_Sink;
    BOOL m_bOpen = TRUE;
    CCmRefPtrT<CCmAcceptorUdp> m_pAcceptor{new CCmAcceptorUdp};
    CCmInetAddr m_Addr;
};

}  // namespace

TEST_F(UdpAcceptorTest, ATransportThatOpensLaterMissesLittle) {
    CPlainUdp peer;
    m_bOpen = FALSE;
    for (const std::string& strData : Numbered(0, 40))
        peer.Send(m_Addr, strData);
    Turns();
    EXPECT_EQ(1u, m_Sink.Count());
    EXPECT_EQ(CM_OK, SendText(Transport(0), "I can send"));
    EXPECT_EQ(CM_OK, Transport(0).OpenWithSink(&m_Datagrams));
    EXPECT_EQ(0, m_Datagrams.m_nReceives);
    SendAndTurn(peer, "and on");
    Datagrams expected = Numbered(0, 32);
    expected.push_back("and on");
    EXPECT_EQ(expected, m_Datagrams.m_Received);
    EXPECT_EQ(Datagrams{"I can send"}, peer.Receive());
}

TEST_F(UdpAcceptorTest, AFloodOfSourcesFindsTheLimitAndNobodyStarves) {
    CCmFakeClock clock;
    CCmTraceCapture trace;
    m_pAcceptor->SetMaxPeers(10);
    CPlainUdp known;
    SendAndTurn(known, "0");
    for (int nRound = 1; nRound < 20; ++nRound) {
        CPlainUdp strangers[30];
        for (const CPlainUdp& stranger : strangers)
            stranger.Send(m_Addr, "flood");
        SendAndTurn(known, std::to_string(nRound));
        EXPECT_EQ(10u, m_pAcceptor->GetPeerCount());
        clock.Advance(CCmTimeValue(0, 100000));
    }
    EXPECT_EQ(10u, m_Sink.Count());
    std::erase(m_Datagrams.m_Received, "flood");
    EXPECT_EQ(Numbered(0, 20), m_Datagrams.m_Received);
    EXPECT_EQ(2u, trace.Count("too many peers"));
}

TEST_F(UdpAcceptorTest, SilenceEndsAPeer) {
    CCmFakeClock clock;
    CPlainUdp peers[2];
    CTestSink sinks[2];
    m_bOpen = FALSE;
    for (size_t i = 0; i < 2; ++i) {
        SendAndTurn(peers[i], "x");
        EXPECT_EQ(CM_OK, Transport(i).OpenWithSink(&sinks[i]));
    }
    const auto wait = [&](int aSeconds, const char* aEnds) {
        for (; aSeconds > 0; --aSeconds) {
            clock.Advance(CCmTimeValue(1));
            SendText(Transport(1), "sending is not hearing");
            Turns();
        }
        EXPECT_EQ(aEnds, std::to_string(sinks[0].m_nDisconnects) + std::to_string(sinks[1].m_nDisconnects));
    };
    wait(119, "00");
    SendAndTurn(peers[0], "here");
    wait(1, "01");
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, sinks[1].m_Reason);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(Transport(1), "x"));
    wait(60, "01");
    m_pAcceptor->SetPeerIdleTime(CCmTimeValue(65));
    wait(4, "11");  // 65 seconds since its last datagram
    EXPECT_EQ(0u, m_pAcceptor->GetPeerCount());
}

TEST_F(UdpAcceptorTest, PeersOutliveTheListeningAndHoldThePort) {
    CPlainUdp peer;
    CPlainUdp stranger;
    SendAndTurn(peer, "1");
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_pAcceptor->StartListen(&m_Sink, m_Addr));
    EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pAcceptor->StartListen(nullptr, m_Addr));
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, m_pAcceptor->StartListen(&m_Sink, m_Addr));
    SendAndTurn(stranger, "nobody listens");
    SendAndTurn(peer, "2");
    EXPECT_EQ((Datagrams{"1", "2"}), m_Datagrams.m_Received);
    EXPECT_EQ(1u, m_Sink.Count());
    m_Sink.m_Transports.clear();
    Listen();  // at once

    // The acceptor goes inside its own upcall, in the middle of a batch.
    m_Sink.m_Indicated = [this] {
        m_pAcceptor.Reset();
        EXPECT_EQ(CM_OK, m_Sink.m_Transports.back()->OpenWithSink(&m_Datagrams));
    };
    peer.Send(m_Addr, "3");
    stranger.Send(m_Addr, "too late");
    SendAndTurn(peer, "4");
    EXPECT_EQ((Datagrams{"1", "2", "3", "4"}), m_Datagrams.m_Received);
}

// Datagrams between user threads, through the proxies.
#include "talvo/base/synchronization.h"
#include "tests/support/udp_helpers.h"

namespace {

constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;

// Listens, opens and keeps what comes.
class CListener {
public:
    explicit CListener(CTestNetwork& aNetwork) : m_pAcceptor(aNetwork.MakeAcceptor(UDP)) {
        m_Connects.m_Indicated = [this] { EXPECT_EQ(CM_OK, m_Connects.m_Transports.back()->OpenWithSink(&m_Sink)); };
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Connects, Loopback()));
        EXPECT_EQ(CM_OK, m_pAcceptor->GetListenAddr(m_Addr));
    }
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CTestSink m_Sink;
    CTestConnectSink m_Connects;
    CCmInetAddr m_Addr;
};

}  // namespace

TEST(UdpProxyTest, EachSendStaysOneDatagram) {
    CTestNetwork network;
    CListener listener(network);
    listener.m_Sink.m_bEcho = TRUE;
    const auto pTransport = network.Connect(listener.m_Addr, UDP);
    ASSERT_TRUE(pTransport);
    CTestSink sink(*pTransport);
    EXPECT_EQ(2u, Get<DWORD>(*pTransport, CM_OPT_TRANSPORT_TRAN_TYPE));

    const Datagrams all{"a", "", Pattern(65507), "", "bc"};
    CCmTransportParameter para;
    for (const std::string& strData : all) {
        EXPECT_EQ(CM_OK, SendText(*pTransport, strData, &para));
        EXPECT_EQ(strData.size(), para.m_dwHaveSent);
    }
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*pTransport, Pattern(65508), &para));
    EXPECT_EQ(0u, para.m_dwHaveSent);
    network.RunUntil([&] { return sink.m_nReceives == 5; });
    EXPECT_EQ(all, listener.m_Sink.m_Received);
    EXPECT_EQ(all, sink.m_Received);
    EXPECT_EQ(1u, listener.m_Connects.Count());
}

TEST(UdpProxyTest, ABurstTakesFewCallsAndGoesOutBeforeTheEnd) {
    CTestNetwork network;
    CPlainUdp peer;
    auto pTransport = network.Connect(peer.Addr(), UDP);
    CTestSink sink(*pTransport);
    auto* pInner = Get<ICmTransport*>(*pTransport, CM_OPT_TRANSPORT_INNER_TRANSPORT);
    uint64_t ullCalls = 0;
    network.InNetwork([&] {  // holds the network thread until all are waiting
        CCmEventThread done;
        std::thread user([&] {
            for (const std::string& strData : Numbered(0, 200))
                EXPECT_EQ(CM_OK, SendText(*pTransport, strData));
            EXPECT_EQ(CM_OK, SendText(*pTransport, ""));
            done.Signal();
        });
        done.Wait(nullptr);
        user.join();
    });
    network.InNetwork([&] { ullCalls = static_cast<CCmTransportUdp*>(pInner)->GetCounters().m_ullSendCalls; });
    Datagrams expected = Numbered(0, 200);
    expected.push_back("");
    Datagrams received;
    YieldUntil([&] {
        const Datagrams more = peer.Receive();
        received.insert(received.end(), more.begin(), more.end());
        return received.size() >= expected.size();
    });
    EXPECT_EQ(expected, received);
    EXPECT_LE(ullCalls, 7u);

    EXPECT_EQ(CM_OK, SendText(*pTransport, ""));  // even one without a byte goes out before the end
    EXPECT_EQ(CM_OK, pTransport->Disconnect(CM_OK));
    YieldUntil([&] { return !peer.Receive().empty(); });
}

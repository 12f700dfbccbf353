// Proxies over a transport that the test controls.
#pragma once

#include "talvo/transport/thread_proxy/transport_thread_proxy.h"
#include "tests/support/fake_lower.h"
#include "tests/support/network_fixture.h"

// The lanes of a proxy, by the type of the transport below.
constexpr DWORD STREAM = CM_TRANSPORT_TYPE_TCP, DATAGRAMS = CM_TRANSPORT_TYPE_UDP, MESSAGES = 0x10000001;

// A proxy over a fake, of the main thread unless set otherwise, opened with m_Sink unless a lane is given.
class CFakeConnection {
public:
    explicit CFakeConnection(const CTestNetwork& aNetwork) : CFakeConnection(aNetwork, STREAM) { Open(); }
    // Not opened. aPrepare runs before the proxy is made.
    CFakeConnection(
        const CTestNetwork& aNetwork, DWORD aType, const std::function<void(CFakeLower&)>& aPrepare = [](CFakeLower&) {},
        CCmThreadLink* aUser = nullptr)
        : m_Network(aNetwork), m_pFake(new CFakeLower(aType)) {
        m_Network.InNetwork([&] {
            aPrepare(*m_pFake);
            m_pProxy = CCmTransportThreadProxy::Make(m_pFake.Get(), aUser ? *aUser : m_Network.MainLink(),
                                                     m_Network.NetworkLink(), aType);
        });
    }
    // Takes data that a test has left unsent, so that no transport lingers.
    ~CFakeConnection() {
        if (!m_Network.Network() || !m_pFake)
            return;
        m_Network.InNetwork([&] {
            m_pFake->m_dwRoom = CFakeLower::EVERYTHING;
            m_pFake->m_dwUnacknowledged = 0;
            m_pFake->m_Inside = [](const std::string&) { return CM_OK; };
            if (m_pFake->m_pSink)
                m_pFake->m_pSink->OnSend(m_pFake.Get());
        });
    }
    void Open() {
        EXPECT_EQ(CM_OK, m_pProxy->OpenWithSink(&m_Sink));
        Sync();
    }
    // Runs the events posted to the network thread, perhaps in more than one turn.
    void Sync() const {
        m_Network.InNetwork([] {});
        m_Network.InNetwork([] {});
    }
    void Receive(const std::string& aText) const {
        m_Network.InNetwork([&] { m_pFake->Receive(aText); });
    }
    void Lose() const {
        m_Network.InNetwork([&] { m_pFake->m_pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, m_pFake.Get()); });
    }
    void SetRoom(DWORD aBytes) const {
        m_Network.InNetwork([&] { m_pFake->m_dwRoom = aBytes; });
    }
    void MakeRoom(DWORD aBytes = CFakeLower::EVERYTHING) const {
        SetRoom(aBytes);
        m_Network.InNetwork([&] { m_pFake->m_pSink->OnSend(m_pFake.Get()); });
        Sync();
    }
    // Runs inside each logged call; SendData returns its result, unless that is CM_OK.
    void Inside(const std::function<CmResult(const std::string&)>& aInside) const {
        m_Network.InNetwork([&] { m_pFake->m_Inside = aInside; });
    }
    // While the network thread is busy, so that all are queued together.
    void SendTogether(const std::vector<std::string>& aTexts) const {
        CCmEventThread busy;
        m_Network.NetworkLink().Post([&] { busy.Wait(); });
        for (const std::string& strText : aTexts)
            EXPECT_EQ(CM_OK, SendText(*m_pProxy, strText));
        busy.Signal();
        Sync();
    }
    // The transport's log since the last call.
    std::vector<std::string> Seen() const {
        std::vector<std::string> seen;
        m_Network.InNetwork([&] { seen.swap(m_pFake->m_Log); });
        return seen;
    }
    // Stops the transport and sends messages of aSize until one is refused; returns the number taken.
    DWORD Fill(DWORD aSize = 60000) const {
        SetRoom(0);
        Inside([](const std::string&) { return CM_ERROR_PARTIAL_DATA; });
        const std::string strData(aSize, 'q');
        CCmTransportParameter para;
        DWORD dwTaken = 0;
        for (; dwTaken < 100000 && SendText(*m_pProxy, strData, &para) == CM_OK; ++dwTaken)
            EXPECT_EQ(aSize, para.m_dwHaveSent);
        EXPECT_EQ(0u, para.m_dwHaveSent);
        Inside([](const std::string&) { return CM_OK; });
        return dwTaken;
    }
    std::string TakeUpcalls() {
        m_Network.RunPosted();
        return m_Sink.Take();
    }
    void Pause(BOOL aPause) const { EXPECT_EQ(CM_OK, m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause)); }

    const CTestNetwork& m_Network;
    CTestSink m_Sink;
    CCmRefPtrT<CFakeLower> m_pFake;
    CCmRefPtrT<ICmTransport> m_pProxy;
};

#include "talvo/connection/conn_connector.h"

#include "talvo/connection/conn_acceptor.h"
#include "talvo/connection/len_pkg_conn.h"
#include "tests/support/fake_lower.h"

namespace {

// A connection whose opening the test ends.
class CSlowConn : public CLenPkgConn {
public:
    CSlowConn() { s_pLast = this; }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        if (s_bAtOnce)
            CLenPkgConn::OnConnectIndication(aReason, aTrpt, aId);
    }
    void CancelConnect() {
        ++s_nCancelled;
        CLenPkgConn::CancelConnect();
    }
    void Finish(CmResult aReason) { Indicate_i(aReason); }

    inline static CSlowConn* s_pLast = nullptr;
    inline static int s_nCancelled = 0;
    inline static BOOL s_bAtOnce = FALSE;
};

// What is below.
template <class Interface>
class CFakeBelowT : public Interface, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    BOOL IsConnector() override { return std::is_same_v<Interface, ICmConnector>; }
    ICmAcceptorConnectorSink* m_pSink = nullptr;
};
class CFakeConnector : public CFakeBelowT<ICmConnector> {
public:
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr&, CCmTimeValue*, CCmInetAddr*) override {
        m_pSink = aSink;
    }
    void CancelConnect() override { m_pSink = nullptr; }
};
class CFakeAcceptor : public CFakeBelowT<ICmAcceptor> {
public:
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddr) override {
        m_pSink = aAddr.GetPort() == 0 ? aSink : nullptr;
        return m_pSink ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    CmResult StopListen(CmResult) override {
        m_pSink = nullptr;
        return CM_OK;
    }
    // Somebody has connected.
    CSlowConn* Accept() {
        const CCmRefPtrT<CFakeLower> pTransport(new CFakeLower);
        m_pSink->OnConnectIndication(CM_OK, pTransport.Get(), this);
        return CSlowConn::s_pLast;
    }
};

class ConnConnectorTest : public testing::Test {
protected:
    ConnConnectorTest() {
        CSlowConn::s_bAtOnce = FALSE;
        CSlowConn::s_nCancelled = 0;
    }
    CSlowConn* Start() {
        m_pConnector->AsycConnect(&m_Sink, m_Addr);
        return CSlowConn::s_pLast;
    }
    CMainThread m_Main;
    const CCmInetAddr m_Addr{"127.0.0.1", 0};
    CTestConnectSink m_Sink;
    CCmRefPtrT<CFakeConnector> m_pLower{new CFakeConnector};
    CCmRefPtrT<ICmConnector> m_pConnector{new CConnConnectorT<CSlowConn>(m_pLower, FALSE)};
    CCmRefPtrT<CFakeAcceptor> m_pBelow{new CFakeAcceptor};
    CCmRefPtrT<ICmAcceptor> m_pAcceptor{new CConnAcceptorT<CSlowConn>(m_pBelow, FALSE)};
};

}  // namespace

TEST_F(ConnConnectorTest, OneIndicationAnAttempt) {
    CSlowConn* pConn = Start();
    EXPECT_EQ(pConn, Start());  // refused: no second one is made
    pConn->Finish(CM_ERROR_NETWORK_CONNECT_ERROR);
    EXPECT_EQ(nullptr, m_pLower->m_pSink);  // the one below is still at work and has been cancelled
    pConn->Finish(CM_OK);
    EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NETWORK_CONNECT_ERROR}, m_Sink.m_Reasons);
    // Again from inside, then released inside.
    m_Sink.m_Indicated = [&] { m_Sink.Count() == 2 ? void(Start()) : m_pConnector.Reset(); };
    Start()->Finish(CM_OK);
    CSlowConn::s_pLast->Finish(CM_OK);
    ASSERT_EQ(2u, m_Sink.m_Transports.size());
    EXPECT_EQ(CSlowConn::s_pLast, m_Sink.m_Transports[1].Get());
    EXPECT_EQ(0, CSlowConn::s_nCancelled);
}

TEST_F(ConnConnectorTest, CancelledOnesAreSilent) {
    CCmRefPtrT<CSlowConn> pConn = Start();
    m_pConnector->CancelConnect();
    EXPECT_EQ(nullptr, m_pLower->m_pSink);
    pConn->Finish(CM_OK);
    pConn = Start();
    m_pConnector.Reset();
    EXPECT_EQ(nullptr, m_pLower->m_pSink);
    pConn->Finish(CM_OK);
    EXPECT_EQ(0u, m_Sink.Count());
    EXPECT_EQ(2, CSlowConn::s_nCancelled);
}

TEST_F(ConnConnectorTest, AcceptorIndicatesWhatHasOpened) {
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pAcceptor->StartListen(nullptr, m_Addr));
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, m_pAcceptor->StartListen(&m_Sink, CCmInetAddr("127.0.0.1", 1)));
    EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Sink, m_Addr));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_pAcceptor->StartListen(&m_Sink, m_Addr));
    m_pBelow->Accept()->Finish(CM_ERROR_TIMEOUT);  // nobody hears of it
    CSlowConn* pOpened = m_pBelow->Accept();
    const CCmRefPtrT<CSlowConn> pGivenUp = m_pBelow->Accept(), pOpening = m_pBelow->Accept();
    pOpened->Finish(CM_OK);
    ASSERT_EQ(std::vector<CmResult>{CM_OK}, m_Sink.m_Reasons);
    EXPECT_EQ(pOpened, m_Sink.m_Transports[0].Get());
    EXPECT_EQ(m_pAcceptor.Get(), m_Sink.m_pLastId);
    pGivenUp->Finish(CM_ERROR_NETWORK_SOCKET_ERROR);
    EXPECT_EQ(1u, pGivenUp->GetReference());
    m_pAcceptor->StopListen(CM_OK);
    EXPECT_EQ(1, CSlowConn::s_nCancelled);
    pOpening->Finish(CM_OK);
    // Stopped, then released, inside an indication that comes while another one is opening.
    const std::function<void()> ends[] = {[&] { m_pAcceptor->StopListen(CM_OK); }, [&] { m_pAcceptor.Reset(); }};
    for (const auto& end : ends) {
        CSlowConn::s_bAtOnce = FALSE;
        m_Sink.m_Indicated = end;
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Sink, m_Addr));
        m_pBelow->Accept();
        CSlowConn::s_bAtOnce = TRUE;
        m_pBelow->Accept();
        EXPECT_EQ(nullptr, m_pBelow->m_pSink);
    }
    EXPECT_EQ(3, CSlowConn::s_nCancelled);
    EXPECT_EQ(3u, m_Sink.Count());
}

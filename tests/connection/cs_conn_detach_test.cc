// A protocol connection that goes on over another transport.
#include "talvo/connection/protocol/cs_conn.h"
#include "tests/connection/conn_end.h"

namespace {

// A client with acknowledgements that detaches a lost transport and takes the next one.
class CResuming final : public CCsConn {
public:
    CResuming() : CCsConn(400) {
        m_dwType = TYPE_RELIABLE;
        m_byInstanceType = INSTANCE_CLIENT;
    }
    void Begin(CFakeLower& aLower) {
        TakeTransport_i(&aLower);
        if (m_wStatus == CS_STATUS_NOT_CONNECTED)
            SetCurrStatus(CS_STATUS_HANDSHAKE);
        aLower.OpenWithSink(this);
        SendConnReq();
    }
    CmResult Disconnect(CmResult aReason) override { return Close_i(aReason); }
    void OnDisconnect(CmResult aReason, ICmTransport*) override { DetachTransport_i(aReason); }
    void OnTimer(CCmTimerWrapperID*) override {}

    CmResult m_Resumed = CM_ERROR_FAILURE;

private:
    void OnRecvConnResp() override {
        const CCsPduConnReqResp pdu = TakeConnectPdu_i();
        SetChannel(pdu.GetConTag());
        m_Resumed = ResumeData_i(pdu.GetACK());
        if (m_Resumed == CM_OK)
            StartData_i();
    }
};

DWORD Number(const std::string& aBytes, size_t aAt) {
    DWORD dwValue = 0;
    for (size_t i = 0; i < 4; ++i)
        dwValue = dwValue << 8 | static_cast<BYTE>(aBytes[aAt + i]);
    return dwValue;
}

class CsConnDetachTest : public ConnTest, public ICmTransportSink {
protected:
    void Begin(DWORD aRoom = CFakeLower::EVERYTHING) {
        m_pLower = CCmRefPtrT<CFakeLower>(new CFakeLower);
        m_pLower->m_dwRoom = aRoom;
        m_pConn->Begin(*m_pLower);
    }
    // The peer's side of a transport. A begun PDU ends with its transport.
    void Attach(DWORD aRoom = CFakeLower::EVERYTHING) {
        m_strStream.clear();
        Begin();
        EXPECT_EQ("\1" + Bytes(m_dwSent) + std::string(m_nAttached > 0 ? "\0\7\17" : "\0\0\17", 3), m_pLower->TakeSent());
        ++m_nAttached;
        m_pLower->m_dwRoom = aRoom;
        m_pLower->Receive("\2" + Bytes(m_dwReceived) + std::string("\0\7\17", 3));
        EXPECT_EQ(CM_OK, m_pConn->m_Resumed);
        m_pConn->OpenWithSink(this);
    }
    void Lose() { m_pLower->m_pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, m_pLower.Get()); }
    void Take() {
        m_strStream += m_pLower->TakeSent();
        while (m_strStream.size() >= 9 && m_strStream.size() >= 9 + Number(m_strStream, 5)) {
            const DWORD dwData = Number(m_strStream, 5);
            ASSERT_EQ('\6', m_strStream[0]);
            ASSERT_GE(m_dwSent, Number(m_strStream, 1));
            m_strTaken += m_strStream.substr(9, dwData) + "\n";
            m_strStream.erase(0, 9 + dwData);
            m_dwReceived += 9 + dwData;
        }
    }
    void SendFromPeer(const std::string& aText, size_t aCut = std::string::npos) {
        const std::string strPdu = "\6" + Bytes(m_dwReceived) + Bytes(static_cast<DWORD>(aText.size())) + aText;
        m_pLower->Receive(strPdu.substr(0, aCut));
        m_dwSent += aCut < strPdu.size() ? 0 : static_cast<DWORD>(strPdu.size());
    }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_strGot += aData.FlattenChained() + "\n";
        if (m_bLoseInside)
            Lose();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { ++m_nRoom; }
    void OnDisconnect(CmResult, ICmTransport*) override { ADD_FAILURE(); }

    CCmRefPtrT<CResuming> m_pConn{new CResuming};
    CCmRefPtrT<CFakeLower> m_pLower;
    std::string m_strStream;  // what the peer has received and not taken
    std::string m_strTaken;   // messages that the peer has taken, m_dwReceived bytes with their headers
    std::string m_strGot;     // messages that the sink has got, m_dwSent bytes with their headers
    DWORD m_dwReceived = 0;
    DWORD m_dwSent = 0;
    int m_nAttached = 0;
    int m_nRoom = 0;
    BOOL m_bLoseInside = FALSE;
};

}  // namespace

// Whatever a transport had taken when it was lost: each message arrives once, in order, on both sides.
TEST_F(CsConnDetachTest, EachMessageArrivesOnceOverManyTransports) {
    std::minstd_rand random(5);
    const auto below = [&](DWORD aLimit) { return static_cast<DWORD>(random() % aLimit); };
    std::string strSent, strFromPeer;
    int nRefused = 0;
    const auto send = [&](const std::string& aText) {
        const CmResult rv = SendText(*m_pConn, aText);
        strSent += rv == CM_OK ? aText + "\n" : "";
        nRefused += rv == CM_ERROR_PARTIAL_DATA;
    };
    Attach();
    for (int i = 0; i < 3000; ++i) {
        const std::string strText = std::to_string(i);
        switch (below(8)) {
        case 0:
            Lose();
            for (DWORD n = below(3); n > 0; --n)
                send(strText + std::string(below(30), 'd'));  // detached, the send buffer takes it
            Attach(below(300));
            break;
        case 1:
            m_pLower->MakeRoom(below(500));
            break;
        case 2:
            m_bLoseInside = below(4) == 0;
            SendFromPeer(strText);
            strFromPeer += strText + "\n";
            if (std::exchange(m_bLoseInside, FALSE))
                Attach(below(300));
            break;
        case 3:
            SendFromPeer("never whole", 1 + below(15));
            Take();
            Lose();
            Attach(below(300));
            break;
        case 4:
            Take();
            m_pLower->Receive("\4" + Bytes(m_dwReceived));
            break;
        default:
            send(strText + std::string(below(60), 's'));
        }
        ASSERT_NO_FATAL_FAILURE(Take());
        ASSERT_EQ(strSent.substr(0, m_strTaken.size()), m_strTaken);
        ASSERT_EQ(strFromPeer, m_strGot);
    }
    m_pLower->MakeRoom();
    Take();
    EXPECT_EQ(strSent, m_strTaken);
    EXPECT_GT(nRefused, 10);
    EXPECT_GT(m_nRoom, 10);
    EXPECT_EQ(CM_OK, m_pConn->Disconnect(CM_OK));
}

// A pause holds for the next transport, a begun request does not; data waits for the response; a counter that does not fit is
// refused.
TEST_F(CsConnDetachTest, StatusPauseAndMisfit) {
    BOOL bPause = TRUE;
    Attach();
    EXPECT_EQ(CM_OK, SendText(*m_pConn, "abc"));
    Take();
    Lose();
    EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NETWORK_SOCKET_ERROR}, m_pLower->m_Disconnects);
    EXPECT_EQ(CConnBase::CS_STATUS_RECONNECTING, m_pConn->GetCurrStatus());
    EXPECT_EQ(static_cast<ICmTransportSink*>(this), m_pConn->GetSink());
    EXPECT_EQ(CM_OK, m_pConn->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
    EXPECT_DEBUG_DEATH(m_pConn->SetCurrStatus(CConnBase::CS_STATUS_HANDSHAKE), "");
    EXPECT_EQ(CConnBase::CS_STATUS_RECONNECTING, m_pConn->GetCurrStatus());

    Begin(3);  // takes half a request
    Lose();
    Begin();
    EXPECT_EQ(std::string("\1\0\0\0\0\0\7\17", 8), m_pLower->TakeSent());
    EXPECT_FALSE(m_pLower->m_bPaused);  // the response must come
    EXPECT_EQ(CM_OK, SendText(*m_pConn, "d"));
    EXPECT_EQ("", m_pLower->TakeSent());
    m_pLower->Receive("\2" + Bytes(5) + std::string("\0\7\17", 3));
    EXPECT_EQ(CM_ERROR_FAILURE, m_pConn->m_Resumed);
    EXPECT_EQ("", m_pLower->TakeSent());
    m_pConn->Disconnect(CM_ERROR_FAILURE);
    EXPECT_EQ(std::string("\3\x27\x11", 3), m_pLower->TakeSent());
    EXPECT_EQ(CConnBase::CS_STATUS_NOT_CONNECTED, m_pConn->GetCurrStatus());
}

// One protocol connection between a transport that the test plays and a user that logs the upcalls.
#pragma once

#include "talvo/connection/protocol/conn_base.h"
#include "tests/support/fake_lower.h"
#include "tests/support/network_fixture.h"

using Lines = std::vector<std::string>;

// A number as on the wire.
inline std::string Bytes(DWORD aValue) {
    return {static_cast<char>(aValue >> 24), static_cast<char>(aValue >> 16), static_cast<char>(aValue >> 8),
            static_cast<char>(aValue)};
}

// The user; m_Inside runs in each upcall.
template <class Conn>
class CConnEnd : public talvo::CConnOwner, public ICmTransportSink {
public:
    explicit CConnEnd(DWORD aType = CM_TRANSPORT_TYPE_TCP, BOOL aKeepAlive = TRUE) : m_pLower(new CFakeLower(aType)) {
        if constexpr (requires { m_pConn->NeedKeepAlive(aKeepAlive); })
            m_pConn->NeedKeepAlive(aKeepAlive);
        m_pConn->SetConnConnector(this);
    }
    ~CConnEnd() override { m_pConn.Reset(); }

    void Start() { m_pConn->OnConnectIndication(CM_OK, m_pLower.Get(), nullptr); }
    // aHandshake: the peer's part of it.
    void Connect(const std::string& aHandshake = "") {
        Start();
        Receive(aHandshake);
        ASSERT_EQ(Lines{"connect 0"}, Take());
        m_pLower->TakeSent();
    }
    void Receive(const std::string& aBytes, size_t aPiece = std::string::npos) { m_pLower->Receive(aBytes, aPiece); }
    CmResult Send(const std::string& aText) { return SendText(*m_pConn, aText); }
    CmResult Set(DWORD aOption, DWORD aValue) { return m_pConn->SetOption(aOption, &aValue); }
    DWORD Get(DWORD aOption) { return ::Get<DWORD>(*m_pConn, aOption); }
    Lines Take() { return std::exchange(m_Lines, {}); }

    void OnOpened(CConnBase& aConn, CmResult aReason) override {
        if (aReason == CM_OK)
            aConn.OpenWithSink(this);
        Write("connect " + std::to_string(aReason));
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        Write("receive " + aData.FlattenChained());
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { Write("send"); }
    void OnDisconnect(CmResult aReason, ICmTransport*) override { Write("disconnect " + std::to_string(aReason)); }
    void Write(const std::string& aLine) {
        m_Lines.push_back(aLine);
        m_Inside(aLine);
    }

    CCmRefPtrT<CFakeLower> m_pLower;
    CCmRefPtrT<Conn> m_pConn{new Conn};
    Lines m_Lines;
    std::function<void(const std::string&)> m_Inside = [](const std::string&) {};
};

// The thread and the clock of connections; nothing is left of them.
class ConnTest : public testing::Test {
protected:
    ~ConnTest() override {
        m_Main.RunOnce();
        EXPECT_EQ(m_strAlive, CCmLiveCounter::Dump());
    }
    void Pass(const CCmTimeValue& aTime) {
        m_Clock.Advance(aTime);
        m_Main.RunOnce();
    }

    CMainThread m_Main;
    CCmFakeClock m_Clock;
    const CCmString m_strAlive = CCmLiveCounter::Dump();
};

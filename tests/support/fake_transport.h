// A transport without a socket.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "talvo/transport/thread_proxy/transport_thread_proxy.h"
#include "tests/support/network_fixture.h"

// What stands in the network thread behind a proxy, a raw transport or a protocol connection; the test decides how much it
// takes and what happens inside its calls. Used in the network thread only, but for the count of disconnects.
class CFakeTransport : public ICmTransport, public CCmReferenceControlT<CCmMutexThread> {
public:
    static constexpr DWORD EVERYTHING = 0xFFFFFFFF;
    static constexpr DWORD OPT_LIMIT = 136;  // set DWORD: the longest message, as protocol connections have it

    CFakeTransport() { ++s_Live; }
    ~CFakeTransport() override { --s_Live; }
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    CmResult OpenWithSink(ICmTransportSink* aSink) override {
        m_pSink = aSink;
        return m_OpenResult;
    }
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) override {
        m_Log.push_back(aData.FlattenChained());
        if (const CmResult rv = m_Inside(m_Log.back()); rv != CM_OK)
            return rv;
        iovec pieces[256];
        m_Calls.push_back(aData.FillIov(pieces, 256));
        m_pFirst = pieces[0].iov_base;
        const DWORD dwLength = aData.GetChainedLength();
        aPara->m_dwHaveSent = std::min(dwLength, m_dwRoom);
        m_strSent += aData.FlattenChained().substr(0, aPara->m_dwHaveSent);
        aData.AdvanceChainedReadPtr(aPara->m_dwHaveSent);
        if (m_dwRoom != EVERYTHING)
            m_dwRoom -= aPara->m_dwHaveSent;
        return aPara->m_dwHaveSent == dwLength ? CM_OK : CM_ERROR_PARTIAL_DATA;
    }
    CmResult SetOption(DWORD aCommand, void* aArg) override {
        if (aCommand == CM_OPT_TRANSPORT_PAUSE_READING) {
            m_bPaused = *static_cast<BOOL*>(aArg);
        } else if (aCommand == CM_OPT_TRANSPORT_CORK) {
            m_Log.push_back(*static_cast<BOOL*>(aArg) ? "(cork)" : "(uncork)");
            return m_Inside(m_Log.back());
        } else {
            EXPECT_TRUE(aCommand == OPT_LIMIT || aCommand == CM_OPT_TRANSPORT_LAYERED) << aCommand;
            if (aCommand == OPT_LIMIT)
                m_dwMaxMessage = *static_cast<DWORD*>(aArg);
        }
        return CM_OK;
    }
    CmResult GetOption(DWORD aCommand, void* aArg) override {
        if (aCommand != CM_OPT_TRANSPORT_UNACKNOWLEDGED && (aCommand != CM_OPT_TRANSPORT_MAX_MESSAGE || m_dwMaxMessage == 0))
            return CM_ERROR_INVALID_ARG;
        *static_cast<DWORD*>(aArg) = aCommand == CM_OPT_TRANSPORT_MAX_MESSAGE ? m_dwMaxMessage : m_dwUnacknowledged;
        return CM_OK;
    }
    CmResult Disconnect(CmResult aReason) override {
        m_Reason = aReason;
        m_pSink = nullptr;
        ++m_nDisconnects;  // last: who waits for it looks at the rest
        return CM_OK;
    }

    // As if it had come from the peer, while somebody listens.
    void Receive(const std::string& aText) {
        CCmMessageBlock block = ViewOf(aText);
        if (m_pSink)
            m_pSink->OnReceive(block, this);
    }

    ICmTransportSink* m_pSink = nullptr;
    CmResult m_OpenResult = CM_OK;
    std::function<CmResult(const std::string&)> m_Inside = [](const std::string&) { return CM_OK; };
    std::vector<std::string> m_Log;  // what SendData was given, "(cork)" and "(uncork)"
    DWORD m_dwMaxMessage = 0;        // 0: none
    DWORD m_dwUnacknowledged = 0;
    DWORD m_dwRoom = EVERYTHING;
    std::string m_strSent;
    std::vector<DWORD> m_Calls;  // how many pieces each SendData had
    const void* m_pFirst = nullptr;
    BOOL m_bPaused = FALSE;
    std::atomic<int> m_nDisconnects{0};
    CmResult m_Reason = CM_OK;

private:
    inline static CCmLiveCounter s_Live{"CFakeTransport"};
};

// A proxy over a fake, of the main thread unless said otherwise, opened with m_Sink unless a type is given.
class CFakeConnection {
public:
    explicit CFakeConnection(const CTestNetwork& aNetwork) : CFakeConnection(aNetwork, aNetwork.MainLink()) {}
    CFakeConnection(const CTestNetwork& aNetwork, CCmThreadLink& aUser)
        : CFakeConnection(
              aNetwork, CM_TRANSPORT_TYPE_TCP, [](CFakeTransport&) {}, &aUser) {
        Open();
    }
    // Not opened. aPrepare runs before the proxy is made.
    CFakeConnection(
        const CTestNetwork& aNetwork, DWORD aType,
        const std::function<void(CFakeTransport&)>& aPrepare = [](CFakeTransport&) {}, CCmThreadLink* aUser = nullptr)
        : m_Network(aNetwork) {
        m_Network.InNetwork([&] {
            aPrepare(*m_pFake);
            m_pProxy = CCmTransportThreadProxy::Make(m_pFake.Get(), aUser ? *aUser : m_Network.MainLink(),
                                                     m_Network.NetworkLink(), aType);
        });
    }
    // Takes what a test has left unsent, so that nothing lingers.
    ~CFakeConnection() {
        if (!m_Network.Network() || !m_pFake)
            return;
        m_Network.InNetwork([&] {
            m_pFake->m_dwRoom = CFakeTransport::EVERYTHING;
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
    // What was posted to the network thread has run; it may take more than one turn.
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
    void MakeRoom(DWORD aBytes = CFakeTransport::EVERYTHING) const {
        SetRoom(aBytes);
        m_Network.InNetwork([&] { m_pFake->m_pSink->OnSend(m_pFake.Get()); });
        Sync();
    }
    // Runs inside each call that is logged; SendData returns what it returns, unless that is CM_OK.
    void Inside(const std::function<CmResult(const std::string&)>& aInside) const {
        m_Network.InNetwork([&] { m_pFake->m_Inside = aInside; });
    }
    // While the network thread is busy, so that all wait together.
    void SendTogether(const std::vector<std::string>& aTexts) const {
        CCmEventThread busy;
        m_Network.NetworkLink().Post([&] { busy.Wait(); });
        for (const std::string& strText : aTexts)
            EXPECT_EQ(CM_OK, SendText(*m_pProxy, strText));
        busy.Signal();
        Sync();
    }
    // What the transport has logged since the last look.
    std::vector<std::string> Seen() const {
        std::vector<std::string> seen;
        m_Network.InNetwork([&] { seen.swap(m_pFake->m_Log); });
        return seen;
    }
    void Pause(BOOL aPause) const { EXPECT_EQ(CM_OK, m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause)); }

    const CTestNetwork& m_Network;
    CTestSink m_Sink;
    CCmRefPtrT<CFakeTransport> m_pFake{new CFakeTransport};
    CCmRefPtrT<ICmTransport> m_pProxy;
};

// A transport without a socket.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "talvo/transport/transport_thread_proxy.h"
#include "tests/support/network_fixture.h"

// What stands in the network thread behind a proxy; the test decides how much it takes. Used in the network thread only, but
// for the count of disconnects.
class CFakeTransport : public ICmTransport, public CCmReferenceControlT<CCmMutexThread> {
public:
    static constexpr DWORD EVERYTHING = 0xFFFFFFFF;

    CFakeTransport() { ++s_Live; }
    ~CFakeTransport() override { --s_Live; }
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    CmResult OpenWithSink(ICmTransportSink* aSink) override {
        m_pSink = aSink;
        return CM_OK;
    }
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) override {
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
        EXPECT_EQ(CM_OPT_TRANSPORT_PAUSE_READING, aCommand);
        m_bPaused = *static_cast<BOOL*>(aArg);
        return CM_OK;
    }
    CmResult GetOption(DWORD, void*) override { return CM_ERROR_INVALID_ARG; }
    CmResult Disconnect(CmResult aReason) override {
        ++m_nDisconnects;
        m_Reason = aReason;
        m_pSink = nullptr;
        return CM_OK;
    }

    // As if it had come from the peer, while somebody listens.
    void Receive(const std::string& aText) {
        CCmMessageBlock block = ViewOf(aText);
        if (m_pSink)
            m_pSink->OnReceive(block, this);
    }

    ICmTransportSink* m_pSink = nullptr;
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

// A proxy over a fake, of the main thread unless said otherwise, opened with m_Sink.
class CFakeConnection {
public:
    explicit CFakeConnection(const CTestNetwork& aNetwork) : CFakeConnection(aNetwork, aNetwork.MainLink()) {}
    CFakeConnection(const CTestNetwork& aNetwork, CCmThreadLink& aUser) : m_Network(aNetwork) {
        m_Network.InNetwork([&] {
            m_pProxy = new CCmTransportThreadProxy(m_pFake.Get(), aUser, m_Network.NetworkLink(), CM_TRANSPORT_TYPE_TCP);
        });
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
    void Pause(BOOL aPause) const { EXPECT_EQ(CM_OK, m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause)); }

    const CTestNetwork& m_Network;
    CTestSink m_Sink;
    CCmRefPtrT<CFakeTransport> m_pFake{new CFakeTransport};
    CCmRefPtrT<ICmTransport> m_pProxy;
};

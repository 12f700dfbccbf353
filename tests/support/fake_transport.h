// A transport without a socket.
#pragma once

#include <string>
#include <vector>

#include "talvo/transport/transport_thread_proxy.h"
#include "tests/support/network_fixture.h"

// What stands in the network thread behind a proxy; the test decides how much it takes. Used in the network thread only, but
// for the count of disconnects and whether it still lives.
class CFakeTransport : public ICmTransport, public CCmReferenceControlT<CCmMutexThread> {
public:
    static constexpr DWORD EVERYTHING = 0xFFFFFFFF;

    explicit CFakeTransport(std::atomic<int>& aAlive) : m_nAlive(aAlive) { ++m_nAlive; }
    ~CFakeTransport() override { --m_nAlive; }
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    CmResult OpenWithSink(ICmTransportSink* aSink) override {
        m_pSink = aSink;
        return CM_OK;
    }
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) override {
        iovec pieces[256];
        const DWORD dwPieces = aData.FillIov(pieces, 256);
        const DWORD dwLength = aData.GetChainedLength();
        const DWORD dwTaken = std::min(dwLength, m_dwRoom);
        m_Calls.push_back(dwPieces);
        m_pFirst = dwPieces > 0 ? pieces[0].iov_base : nullptr;
        m_strSent += aData.FlattenChained().substr(0, dwTaken);
        aData.AdvanceChainedReadPtr(dwTaken);
        aPara->m_dwHaveSent = dwTaken;
        if (m_dwRoom != EVERYTHING)
            m_dwRoom -= dwTaken;
        return dwTaken == dwLength ? CM_OK : CM_ERROR_PARTIAL_DATA;
    }
    CmResult SetOption(DWORD aCommand, void* aArg) override {
        if (aCommand != CM_OPT_TRANSPORT_PAUSE_READING)
            return CM_ERROR_INVALID_ARG;
        m_bPaused = *static_cast<BOOL*>(aArg);
        return CM_OK;
    }
    CmResult GetOption(DWORD aCommand, void* aArg) override {
        if (aCommand != CM_OPT_TRANSPORT_TRAN_TYPE)
            return CM_ERROR_INVALID_ARG;
        *static_cast<DWORD*>(aArg) = CM_TRANSPORT_TYPE_TCP;
        return CM_OK;
    }
    CmResult Disconnect(CmResult aReason) override {
        ++m_nDisconnects;
        m_Reason = aReason;
        m_pSink = nullptr;
        return CM_OK;
    }

    // As if it had come from the peer, while somebody listens.
    void Receive(const std::string& aText) {
        const DWORD dwSize = static_cast<DWORD>(aText.size());
        CCmMessageBlock block(dwSize, aText.data(), CCmMessageBlock::DONT_DELETE, dwSize);
        if (m_pSink)
            m_pSink->OnReceive(block, this);
    }
    // The socket has room again.
    void MakeRoom(DWORD aBytes) {
        m_dwRoom = aBytes;
        if (m_pSink)
            m_pSink->OnSend(this);
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
    std::atomic<int>& m_nAlive;
};

// A proxy of the main thread over a fake, opened with m_Sink.
class CFakeConnection {
public:
    explicit CFakeConnection(const CTestNetwork& aNetwork, DWORD aType = 1)
        : m_Network(aNetwork), m_pFake(new CFakeTransport(m_nAlive)) {
        m_Network.InNetwork([&] {
            m_pProxy = new CCmTransportThreadProxy(m_pFake.Get(), m_Network.MainLink(), m_Network.NetworkLink(), aType);
        });
        EXPECT_EQ(CM_OK, m_pProxy->OpenWithSink(&m_Sink));
        Sync();
    }
    // Lets go and sees that nothing keeps the inner transport.
    ~CFakeConnection() {
        m_pProxy.Reset();
        m_pFake.Reset();
        if (CTestNetwork::Network())
            Sync();
        EXPECT_EQ(0, m_nAlive);
    }
    // What was posted to the network thread has run.
    void Sync() const {
        m_Network.InNetwork([] {});
        m_Network.InNetwork([] {});
    }
    void Receive(const std::string& aText) const {
        m_Network.InNetwork([&] { m_pFake->Receive(aText); });
    }
    void MakeRoom(DWORD aBytes) const {
        m_Network.InNetwork([&] { m_pFake->MakeRoom(aBytes); });
        Sync();  // it may take more than one turn
    }
    void SetRoom(DWORD aBytes) const {
        m_Network.InNetwork([&] { m_pFake->m_dwRoom = aBytes; });
    }

    const CTestNetwork& m_Network;
    std::atomic<int> m_nAlive{0};
    CTestSink m_Sink;
    CCmRefPtrT<CFakeTransport> m_pFake;
    CCmRefPtrT<ICmTransport> m_pProxy;
};

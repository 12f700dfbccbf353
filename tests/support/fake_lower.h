// What stands below a protocol connection: a transport without a socket, a thread or a loop.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/network_fixture.h"

// The test is the peer and the system. Takes everything until told otherwise; with the datagram bit in its type, each send
// whole or not at all.
class CFakeLower : public ICmTransport, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    static constexpr DWORD EVERYTHING = 0xFFFFFFFF;

    explicit CFakeLower(DWORD aType = CM_TRANSPORT_TYPE_TCP) : m_dwType(aType) { ++s_Live; }
    ~CFakeLower() override { --s_Live; }
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    CmResult OpenWithSink(ICmTransportSink* aSink) override {
        m_pSink = aSink;
        return CM_OK;
    }
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) override {
        if (m_SendResult != CM_OK)
            return m_SendResult;
        iovec pieces[256];
        m_Pieces.push_back(aData.FillIov(pieces, 256));
        const DWORD dwLength = aData.GetChainedLength();
        const BOOL bTooMuch = (m_dwType & CM_TRANSPORT_TYPE_UDP) && dwLength > m_dwRoom;
        const DWORD dwTaken = bTooMuch ? 0 : std::min(dwLength, m_dwRoom);
        if (dwTaken > 0)
            m_Sends.push_back(aData.FlattenChained().substr(0, dwTaken));
        aData.AdvanceChainedReadPtr(dwTaken);
        if (m_dwRoom != EVERYTHING)
            m_dwRoom -= dwTaken;
        if (aPara)
            aPara->m_dwHaveSent = dwTaken;
        return dwTaken == dwLength ? CM_OK : CM_ERROR_PARTIAL_DATA;
    }
    CmResult SetOption(DWORD aCommand, void*) override {
        return aCommand == CM_OPT_TRANSPORT_PAUSE_READING ? CM_OK : CM_ERROR_INVALID_ARG;
    }
    CmResult GetOption(DWORD aCommand, void* aArg) override {
        switch (aCommand) {
        case CM_OPT_TRANSPORT_LOCAL_ADDR:
        case CM_OPT_TRANSPORT_PEER_ADDR:
            *static_cast<CCmInetAddr*>(aArg) = CCmInetAddr("192.0.2.1", aCommand == CM_OPT_TRANSPORT_PEER_ADDR ? 2 : 1);
            return CM_OK;
        case CM_OPT_TRANSPORT_TRAN_TYPE:
            *static_cast<DWORD*>(aArg) = m_dwType;
            return CM_OK;
        case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
            *static_cast<DWORD*>(aArg) = m_dwUnacknowledged;
            return CM_OK;
        default:
            return CM_ERROR_INVALID_ARG;
        }
    }
    CmResult Disconnect(CmResult aReason) override {
        m_Disconnects.push_back(aReason);
        m_pSink = nullptr;
        return CM_OK;
    }

    // Bytes from the peer, in pieces of aPiece each; what they lie in is spoilt behind every upcall, as a socket's buffer is.
    void Receive(const std::string& aBytes, size_t aPiece = std::string::npos) {
        for (size_t i = 0; i < aBytes.size() && m_pSink; i += std::min(aPiece, aBytes.size())) {
            std::string strPiece = aBytes.substr(i, aPiece);
            CCmMessageBlock block = ViewOf(strPiece);
            m_pSink->OnReceive(block, this);
            strPiece.assign(strPiece.size(), '#');
        }
    }
    void MakeRoom(DWORD aBytes = EVERYTHING) {
        m_dwRoom = aBytes;
        if (m_pSink)
            m_pSink->OnSend(this);
    }
    // Everything that was sent since it was last asked.
    std::string TakeSent() {
        std::string strAll;
        for (const std::string& strSend : std::exchange(m_Sends, {}))
            strAll += strSend;
        return strAll;
    }

    const DWORD m_dwType;
    ICmTransportSink* m_pSink = nullptr;
    CmResult m_SendResult = CM_OK;  // others refuse everything
    DWORD m_dwRoom = EVERYTHING;
    DWORD m_dwUnacknowledged = 0;
    std::vector<std::string> m_Sends;     // what each call took
    std::vector<DWORD> m_Pieces;          // how many pieces each call had
    std::vector<CmResult> m_Disconnects;  // the reasons

private:
    inline static CCmLiveCounter s_Live{"CFakeLower"};
};

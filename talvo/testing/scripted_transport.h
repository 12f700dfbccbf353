// A transport that a test plays: the lower layer of a sink, a protocol or a channel, without a socket, a thread or a loop.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "talvo/base/live_counter.h"
#include "talvo/base/reference_control.h"
#include "talvo/transport/transport_interface.h"

// The test acts as the peer and the system: it delivers bytes in any pieces, refuses data, makes room and ends the connection.
//
//    const CCmRefPtrT<CCmScriptedTransport> pTransport(new CCmScriptedTransport);
//    MyProtocol protocol(pTransport.Get());            // calls OpenWithSink
//    pTransport->Receive("PING\r\n", 1);               // byte by byte
//    EXPECT_EQ("PONG\r\n", pTransport->TakeSent());
//
// Takes all data unless m_dwRoom limits it; with the datagram bit in its type, each send whole or not at all. One thread,
// except for the references and m_nDisconnects.
class CCmScriptedTransport : public ICmTransport, public CCmReferenceControlT<CCmMutexThread> {
public:
    static constexpr CmDword EVERYTHING = 0xFFFFFFFF;  // no limit
    static constexpr CmDword OPT_LIMIT = 136;  // option, CmDword: sets m_dwMaxMessage, as that of a protocol connection does

    // aType: the option's value.
    explicit CCmScriptedTransport(CmDword aType = CM_TRANSPORT_TYPE_TCP) : m_dwType(aType) { ++s_Live; }
    ~CCmScriptedTransport() override { --s_Live; }
    CmDword AddReference() override { return CCmReferenceControlT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    CmResult OpenWithSink(ICmTransportSink* aSink) override {
        m_pSink = aSink;
        return m_OpenResult;
    }
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) override {
        m_Log.push_back(aData.FlattenChained());
        if (const CmResult rv = m_Inside(m_Log.back()); rv != CM_OK)
            return rv;
        iovec pieces[256]{};
        m_Pieces.push_back(aData.FillIov(pieces, 256));
        m_pFirst = pieces[0].iov_base;
        const CmDword dwLength = aData.GetChainedLength();
        const CmDword dwRoom = RoomFor(dwLength);
        const CmDword dwTaken = dwLength > dwRoom && (m_dwType & CM_TRANSPORT_TYPE_UDP) ? 0 : std::min(dwLength, dwRoom);
        if (dwTaken > 0)
            m_Sends.push_back(aData.FlattenChained().substr(0, dwTaken));
        aData.AdvanceChainedReadPtr(dwTaken);
        if (m_dwRoom != EVERYTHING)
            m_dwRoom -= dwTaken;
        if (aPara)
            aPara->m_dwHaveSent = dwTaken;
        return dwTaken == dwLength ? CM_OK : CM_ERROR_PARTIAL_DATA;
    }
    CmResult SetOption(CmDword aCommand, void* aArg) override {
        switch (aCommand) {
        case CM_OPT_TRANSPORT_PAUSE_READING:
            m_bPaused = *static_cast<CmBool*>(aArg);
            return CM_OK;
        case CM_OPT_TRANSPORT_END_SENDING:
            m_bEnded = CM_TRUE;
            return CM_OK;
        case CM_OPT_TRANSPORT_CORK:
            m_Log.push_back(*static_cast<CmBool*>(aArg) ? "(cork)" : "(uncork)");
            return m_Inside(m_Log.back());
        case OPT_LIMIT:
            m_dwMaxMessage = *static_cast<CmDword*>(aArg);
            return CM_OK;
        default:
            return CM_ERROR_INVALID_ARG;
        }
    }
    CmResult GetOption(CmDword aCommand, void* aArg) override {
        switch (aCommand) {
        case CM_OPT_TRANSPORT_LOCAL_ADDR:
        case CM_OPT_TRANSPORT_PEER_ADDR:
            *static_cast<CCmInetAddr*>(aArg) = CCmInetAddr("192.0.2.1", aCommand == CM_OPT_TRANSPORT_PEER_ADDR ? 2 : 1);
            return CM_OK;
        case CM_OPT_TRANSPORT_TRAN_TYPE:
            *static_cast<CmDword*>(aArg) = m_dwType;
            return CM_OK;
        case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
            *static_cast<CmDword*>(aArg) = m_dwUnacknowledged;
            return CM_OK;
        case CM_OPT_TRANSPORT_MAX_MESSAGE:
            *static_cast<CmDword*>(aArg) = m_dwMaxMessage;
            return m_dwMaxMessage > 0 ? CM_OK : CM_ERROR_INVALID_ARG;
        default:
            return CM_ERROR_INVALID_ARG;
        }
    }
    CmResult Disconnect(CmResult aReason) override {
        m_Disconnects.push_back(aReason);
        m_pSink = nullptr;
        ++m_nDisconnects;  // last: a thread that waits for it reads the others
        return CM_OK;
    }

    // Bytes from the peer, in pieces of aPiece each; their memory is overwritten after every upcall, as a socket's buffer is.
    void Receive(const std::string& aBytes, size_t aPiece = std::string::npos) {
        size_t stAt = 0;
        do {
            std::string strPiece = aBytes.substr(stAt, aPiece);
            const CmDword dwSize = static_cast<CmDword>(strPiece.size());
            CCmMessageBlock block(dwSize, strPiece.data(), CCmMessageBlock::DONT_DELETE, dwSize);
            if (m_pSink)
                m_pSink->OnReceive(block, this);
            strPiece.assign(strPiece.size(), '#');
            stAt += dwSize;
        } while (stAt < aBytes.size());
    }
    // Takes aBytes from now on, and reports it.
    void MakeRoom(CmDword aBytes = EVERYTHING) {
        m_dwRoom = aBytes;
        if (m_pSink)
            m_pSink->OnSend(this);
    }
    // The peer sends no more.
    void EndSide() { Receive(""); }
    // The peer has closed.
    void Vanish(CmResult aReason = CM_ERROR_NETWORK_SOCKET_ERROR) {
        if (ICmTransportSink* pSink = std::exchange(m_pSink, nullptr))
            pSink->OnDisconnect(aReason, this);
    }
    // All data that was sent since the last TakeSent.
    std::string GetSent() const {
        std::string strAll;
        for (const std::string& strSend : m_Sends)
            strAll += strSend;
        return strAll;
    }
    // All data that was sent since the last call.
    std::string TakeSent() {
        const std::string strAll = GetSent();
        m_Sends.clear();
        return strAll;
    }

    const CmDword m_dwType;               // CM_OPT_TRANSPORT_TRAN_TYPE
    ICmTransportSink* m_pSink = nullptr;  // null before the opening and after the end
    CmResult m_OpenResult = CM_OK;        // of OpenWithSink
    // Runs inside each logged call; SendData returns its result, unless that is CM_OK.
    std::function<CmResult(const std::string&)> m_Inside = [](const std::string&) { return CM_OK; };
    CmDword m_dwRoom = EVERYTHING;        // bytes that it takes until MakeRoom; more are refused
    CmDword m_dwUnacknowledged = 0;       // the option's value
    CmDword m_dwMaxMessage = 0;           // the option's value; 0: it has none
    std::vector<std::string> m_Log;       // the data of each SendData, "(cork)" and "(uncork)"
    std::vector<std::string> m_Sends;     // the data that each call took
    std::vector<CmDword> m_Pieces;        // the number of pieces of each call
    const void* m_pFirst = nullptr;       // the first piece of the last call
    std::vector<CmResult> m_Disconnects;  // the reasons
    std::atomic<int> m_nDisconnects{0};   // calls of Disconnect
    CmBool m_bPaused = CM_FALSE;          // by option
    CmBool m_bEnded = CM_FALSE;           // by option: the sink sends no more

protected:
    // The bytes that a send of this length may use.
    virtual CmDword RoomFor(CmDword) { return m_dwRoom; }

private:
    inline static CCmLiveCounter s_Live{"CCmScriptedTransport"};
};

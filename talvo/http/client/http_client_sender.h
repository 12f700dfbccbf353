// Sends one request: head and body, at once, after the server's 100, or in the application's pieces.
#pragma once

#include "talvo/base/block_chain.h"
#include "talvo/http/client/http_client_connection.h"
#include "talvo/http/client/http_client_request.h"

namespace talvo {

// Head and body leave with one send where possible. Only views of foreign memory that were not taken at once are copied.
class CHttpClientSender {
public:
    CHttpClientSender() = default;
    ~CHttpClientSender() { WipeHead(); }
    CHttpClientSender(const CHttpClientSender&) = delete;
    CHttpClientSender& operator=(const CHttpClientSender&) = delete;

    // Prepares a new request. CM_ERROR_OUT_OF_MEMORY.
    CmResult Begin(const CHttpClientRequest& aRequest);
    // Its head in wire format, before the first Flush. It may have credentials: the copy is overwritten at the end of the
    // request. CM_ERROR_OUT_OF_MEMORY.
    CmResult SetHead(const CCmString& aHead);

    // Sends the ready data. CM_OK: all is sent. CM_ERROR_PARTIAL_DATA: call again when there is room. Else the connection's
    // result, and the data that was ready is lost.
    CmResult Flush(CHttpClientConnection& aConnection);

    // A streamed body; results as ICmChannelHttpClient and its SendData say. aConnection null: no connection yet.
    CmResult Send(CHttpClientConnection* aConnection, CCmMessageBlock& aData, CCmTransportParameter& aPara);
    CmResult End(CHttpClientConnection* aConnection);
    // TRUE, once for every refusal because of missing room: there is room now.
    CmBool TakeRoom();

    // TRUE: the body waits for the server's 100.
    CmBool IsHolding() const { return m_bHolding; }
    void Release() { m_bHolding = CM_FALSE; }

    // A part of the body was lost because memory ran out; the connection itself does not report this.
    CmBool HasLost() const { return m_bLost; }

    // The server refuses the rest.
    void Stop();

    CmBool IsComplete() const { return m_bEnded && !m_bStopped && !m_bHolding && m_Ready.IsEmpty() && !m_pBody; }
    // All data so far is sent, and the application must bring more.
    CmBool IsUsersTurn() const { return !m_bEnded && !m_bStopped && !m_bHolding && !m_bRoomDue && m_Ready.IsEmpty(); }

    void Clear();

    // The head was sent, or no longer will be: overwrites its bytes, unless the connection still has them.
    void WipeHead();

private:
    CmResult SendChunk_i(CHttpClientConnection& aConnection, CCmMessageBlock& aData, CCmTransportParameter& aPara);

    CHttpClientRequest::EBody m_Kind = CHttpClientRequest::NO_BODY;
    CCmRefPtrT<CCmDataBlock> m_pHead;  // its bytes, which m_Ready and the connection share
    CBlockChain m_Ready;               // sent as soon as there is room
    CCmChainPtr m_pBody;               // appended to m_Ready when nothing holds it back
    uint64_t m_ullLeft = 0;            // of a streamed length
    CmBool m_bEnded = CM_TRUE;         // the application has no more data to bring
    CmBool m_bHolding = CM_FALSE;
    CmBool m_bStopped = CM_FALSE;
    CmBool m_bLost = CM_FALSE;
    CmBool m_bRoomDue = CM_FALSE;  // OnSend is due to the application
};

}  // namespace talvo

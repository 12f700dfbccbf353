// The way of one request out: head and body, at once, after the server's leave, or as the application brings it.
#pragma once

#include "talvo/base/block_chain.h"
#include "talvo/http/client/http_client_connection.h"
#include "talvo/http/client/http_client_request.h"

namespace talvo {

// Head and body leave with one send where they can. Nothing is copied but what views foreign memory and was not taken at once.
class CHttpClientSender {
public:
    CHttpClientSender() = default;
    CHttpClientSender(const CHttpClientSender&) = delete;
    CHttpClientSender& operator=(const CHttpClientSender&) = delete;

    // Puts a new request ready; aHead is its head as it goes out. CM_ERROR_OUT_OF_MEMORY.
    CmResult Begin(const CHttpClientRequest& aRequest, const CCmString& aHead);

    // Sends what is ready. CM_OK: it has gone. CM_ERROR_PARTIAL_DATA: call again when there is room. Else the connection's
    // result, and what was ready is lost.
    CmResult Flush(CHttpClientConnection& aConnection);

    // A body that is streamed; results as ICmChannelHttpClient and its SendData say. aConnection null: there is none yet.
    CmResult Send(CHttpClientConnection* aConnection, CCmMessageBlock& aData, CCmTransportParameter& aPara);
    CmResult End(CHttpClientConnection* aConnection);
    // Once for every refusal for want of room: whether there is room now.
    BOOL TakeRoom();

    // The body waits for the server's leave, or does no longer.
    BOOL IsHolding() const { return m_bHolding; }
    void Release() { m_bHolding = FALSE; }

    // A part of the body was lost for want of memory, of which the connection itself says nothing.
    BOOL HasLost() const { return m_bLost; }

    // The server does not want the rest.
    void Stop();

    BOOL IsComplete() const { return m_bEnded && !m_bStopped && !m_bHolding && m_Ready.IsEmpty() && !m_pBody; }
    // Everything that is there has gone, and the application has yet to bring more.
    BOOL IsUsersTurn() const { return !m_bEnded && !m_bStopped && !m_bHolding && !m_bRoomDue && m_Ready.IsEmpty(); }

    void Clear();

private:
    CmResult SendChunk_i(CHttpClientConnection& aConnection, CCmMessageBlock& aData, CCmTransportParameter& aPara);

    CHttpClientRequest::EBody m_Kind = CHttpClientRequest::NO_BODY;
    CBlockChain m_Ready;     // to be sent as soon as there is room
    CCmChainPtr m_pBody;     // joins it when nothing holds it back
    uint64_t m_ullLeft = 0;  // of a streamed length
    BOOL m_bEnded = TRUE;    // the application has nothing to bring any more
    BOOL m_bHolding = FALSE;
    BOOL m_bStopped = FALSE;
    BOOL m_bLost = FALSE;
    BOOL m_bRoomDue = FALSE;  // the application waits for room
};

}  // namespace talvo

#include "talvo/http/client/http_client_sender.h"

#include <cstring>
#include <utility>

#include "talvo/http/message/http_chunk.h"

namespace talvo {

namespace {

// The wire format of a body given whole. Null: memory ran out.
CCmChainPtr MakeBody(const CHttpClientRequest& aRequest) {
    CCmChainPtr pBody = aRequest.DuplicateBody();
    if (aRequest.GetBodyKind() == CHttpClientRequest::WHOLE)
        return pBody;
    CCmChainPtr pChunk = pBody ? make_chunk(*pBody) : nullptr;
    CCmChainPtr pLast = make_block(HTTP_LAST_CHUNK);
    if (!pLast || (aRequest.GetBodyLength() > 0 && !pChunk))
        return nullptr;
    CBlockChain body(std::move(pChunk));
    body.Append(std::move(pLast));
    return body.Take();
}

}  // namespace

CmResult CHttpClientSender::Begin(const CHttpClientRequest& aRequest) {
    Clear();
    m_Kind = aRequest.GetBodyKind();
    m_bEnded = !aRequest.IsStreamed();
    m_bHolding = aRequest.IsContinueExpected();
    m_ullLeft = aRequest.IsStreamed() ? aRequest.GetBodyLength() : 0;
    if (m_Kind == CHttpClientRequest::WHOLE || m_Kind == CHttpClientRequest::WHOLE_CHUNKED)
        m_pBody = MakeBody(aRequest);
    return m_pBody || aRequest.IsStreamed() || m_Kind == CHttpClientRequest::NO_BODY ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

// The application may have ended a body without a byte before.
CmResult CHttpClientSender::SetHead(const CCmString& aHead) {
    WipeHead();
    const auto dwLength = static_cast<DWORD>(aHead.size());
    if (CCmDataBlock::CreateInstance(m_pHead.ParaOut(), dwLength, aHead.data()) != CM_OK)
        return CM_ERROR_OUT_OF_MEMORY;
    CCmMessageBlock view(m_pHead);
    view.AdvanceTopLevelWritePtr(dwLength);
    CCmChainPtr pHead(view.DuplicateTopLevel());
    if (!pHead)
        return CM_ERROR_OUT_OF_MEMORY;
    CBlockChain rest(m_Ready.Take());
    m_Ready.Append(std::move(pHead));
    m_Ready.Append(rest.Take());
    return CM_OK;
}

void CHttpClientSender::WipeHead() {
    if (!m_pHead)
        return;
    m_pHead->AddReference();
    if (m_pHead->ReleaseReference() == 1)
        explicit_bzero(m_pHead->GetBasePtr(), m_pHead->GetLength());
    m_pHead.Reset();
}

CmResult CHttpClientSender::Flush(CHttpClientConnection& aConnection) {
    if (m_pBody && !m_bHolding)
        m_Ready.Append(std::move(m_pBody));
    if (m_Ready.IsEmpty())
        return CM_OK;
    CCmTransportParameter para;
    const CmResult rv = aConnection.SendData(*m_Ready.GetHead(), para);
    m_bLost = rv == CM_ERROR_OUT_OF_MEMORY;
    if (rv == CM_ERROR_PARTIAL_DATA)
        m_Ready.DropRead();
    else
        m_Ready.Clear();
    return rv;
}

CmResult CHttpClientSender::Send(CHttpClientConnection* aConnection, CCmMessageBlock& aData, CCmTransportParameter& aPara) {
    const DWORD dwLength = aData.GetChainedLength();
    if (m_bEnded || m_bStopped)
        return CM_ERROR_NOT_AVAILABLE;
    if (m_Kind == CHttpClientRequest::STREAM && dwLength > m_ullLeft)
        return CM_ERROR_INVALID_ARG;
    if (dwLength == 0)
        return CM_OK;
    if (!aConnection || m_bHolding || !m_Ready.IsEmpty()) {
        m_bRoomDue = TRUE;
        return CM_ERROR_PARTIAL_DATA;
    }
    if (m_Kind == CHttpClientRequest::STREAM_CHUNKED)
        return SendChunk_i(*aConnection, aData, aPara);
    const CmResult rv = aConnection->SendData(aData, aPara);
    if (rv == CM_OK || rv == CM_ERROR_PARTIAL_DATA)
        m_ullLeft -= dwLength - aData.GetChainedLength();
    m_bRoomDue = rv == CM_ERROR_PARTIAL_DATA;
    m_bEnded = m_ullLeft == 0;
    return rv;
}

// A chunk's length is sent before the free room is known. So the chunk is taken whole, and its rest waits here.
CmResult CHttpClientSender::SendChunk_i(CHttpClientConnection& aConnection, CCmMessageBlock& aData,
                                        CCmTransportParameter& aPara) {
    const DWORD dwLength = aData.GetChainedLength();
    CCmChainPtr pChunk = make_chunk(aData);
    if (!pChunk)
        return CM_ERROR_OUT_OF_MEMORY;
    m_Ready.Append(std::move(pChunk));
    const CmResult rv = Flush(aConnection);
    if (rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA)
        return rv;
    aData.AdvanceChainedReadPtr(dwLength);
    aPara.m_dwHaveSent = dwLength;
    return CM_OK;
}

CmResult CHttpClientSender::End(CHttpClientConnection* aConnection) {
    if (m_Kind != CHttpClientRequest::STREAM_CHUNKED || m_bEnded || m_bStopped)
        return CM_ERROR_NOT_AVAILABLE;
    CCmChainPtr pLast = make_block(HTTP_LAST_CHUNK);
    if (!pLast)
        return CM_ERROR_OUT_OF_MEMORY;
    m_bEnded = TRUE;
    m_bRoomDue = FALSE;
    if (m_bHolding)
        m_pBody = std::move(pLast);
    else
        m_Ready.Append(std::move(pLast));
    if (aConnection)
        Flush(*aConnection);
    return CM_OK;
}

BOOL CHttpClientSender::TakeRoom() {
    return m_Ready.IsEmpty() && !m_bHolding && !m_bStopped && std::exchange(m_bRoomDue, FALSE);
}

void CHttpClientSender::Stop() {
    const BOOL bComplete = IsComplete();
    Clear();
    m_bStopped = !bComplete;
}

void CHttpClientSender::Clear() {
    m_Ready.Clear();
    WipeHead();
    m_pBody.reset();
    m_ullLeft = 0;
    m_bEnded = TRUE;
    m_bHolding = m_bStopped = m_bRoomDue = m_bLost = FALSE;
}

}  // namespace talvo

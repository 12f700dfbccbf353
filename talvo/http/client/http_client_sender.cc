#include "talvo/http/client/http_client_sender.h"

#include <new>
#include <utility>

#include "talvo/http/message/http_chunk.h"

namespace talvo {

namespace {

void Destroy(CCmMessageBlock*& aChain) {
    if (CCmMessageBlock* pChain = std::exchange(aChain, nullptr))
        pChain->DestroyChained();
}

// A block that is freed like any duplicate; null: memory ran out.
CCmMessageBlock* BlockOf(std::string_view aText) {
    const auto dwSize = static_cast<DWORD>(aText.size());
    auto* pBlock = new (std::nothrow) CCmMessageBlock(dwSize, nullptr, CCmMessageBlock::DUPLICATED);
    if (pBlock && pBlock->Write(aText.data(), dwSize) != CM_OK)
        Destroy(pBlock);
    return pBlock;
}

// A body given whole, as it goes out.
CCmMessageBlock* MakeBody(const CHttpClientRequest& aRequest) {
    CCmMessageBlock* pBody = aRequest.DuplicateBody();
    if (aRequest.GetBodyKind() == CHttpClientRequest::WHOLE)
        return pBody;
    CCmMessageBlock* pLast = BlockOf(HTTP_LAST_CHUNK);
    CCmMessageBlock* pChunk = pBody ? make_chunk(*pBody) : nullptr;
    const BOOL bNoMemory = !pLast || (aRequest.GetBodyLength() > 0 && !pChunk);
    Destroy(pBody);
    if (bNoMemory) {
        Destroy(pLast);
        Destroy(pChunk);
        return nullptr;
    }
    if (!pChunk)
        return pLast;
    pChunk->Append(pLast);
    return pChunk;
}

}  // namespace

CmResult CHttpClientSender::Begin(const CHttpClientRequest& aRequest, const CCmString& aHead) {
    Clear();
    m_Kind = aRequest.GetBodyKind();
    m_bEnded = !aRequest.IsStreamed();
    m_bHolding = aRequest.IsContinueExpected();
    m_ullLeft = aRequest.IsStreamed() ? aRequest.GetBodyLength() : 0;
    m_pReady = BlockOf(aHead);
    if (m_Kind == CHttpClientRequest::WHOLE || m_Kind == CHttpClientRequest::WHOLE_CHUNKED)
        m_pBody = MakeBody(aRequest);
    const BOOL bBody = m_pBody || aRequest.IsStreamed() || m_Kind == CHttpClientRequest::NO_BODY;
    return m_pReady && bBody ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

void CHttpClientSender::Add_i(CCmMessageBlock* aChain) {
    if (m_pReady)
        m_pReady->Append(aChain);
    else
        m_pReady = aChain;
}

CmResult CHttpClientSender::Flush(CHttpClientConnection& aConnection) {
    if (m_pBody && !m_bHolding)
        Add_i(std::exchange(m_pBody, nullptr));
    if (!m_pReady)
        return CM_OK;
    CCmTransportParameter para;
    const CmResult rv = aConnection.SendData(*m_pReady, para);
    m_bLost = rv == CM_ERROR_OUT_OF_MEMORY;
    if (rv == CM_ERROR_PARTIAL_DATA)
        m_pReady = m_pReady->ReclaimGarbage();
    else
        Destroy(m_pReady);
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
    if (!aConnection || m_bHolding || m_pReady) {
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

// A chunk is announced before it is known how much of it there is room for, so it is taken whole and the rest waits here.
CmResult CHttpClientSender::SendChunk_i(CHttpClientConnection& aConnection, CCmMessageBlock& aData,
                                        CCmTransportParameter& aPara) {
    const DWORD dwLength = aData.GetChainedLength();
    CCmMessageBlock* pChunk = make_chunk(aData);
    if (!pChunk)
        return CM_ERROR_OUT_OF_MEMORY;
    Add_i(pChunk);
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
    CCmMessageBlock* pLast = BlockOf(HTTP_LAST_CHUNK);
    if (!pLast)
        return CM_ERROR_OUT_OF_MEMORY;
    m_bEnded = TRUE;
    m_bRoomDue = FALSE;
    if (m_bHolding)
        m_pBody = pLast;
    else
        Add_i(pLast);
    if (aConnection)
        Flush(*aConnection);
    return CM_OK;
}

BOOL CHttpClientSender::TakeRoom() { return !m_pReady && !m_bHolding && !m_bStopped && std::exchange(m_bRoomDue, FALSE); }

void CHttpClientSender::Stop() {
    const BOOL bComplete = IsComplete();
    Clear();
    m_bStopped = !bComplete;
}

void CHttpClientSender::Clear() {
    Destroy(m_pReady);
    Destroy(m_pBody);
    m_ullLeft = 0;
    m_bEnded = TRUE;
    m_bHolding = m_bStopped = m_bRoomDue = m_bLost = FALSE;
}

}  // namespace talvo

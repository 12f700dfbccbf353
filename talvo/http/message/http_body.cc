#include "talvo/http/message/http_body.h"

#include <algorithm>

#include "talvo/base/trace.h"

namespace talvo {

void CHttpBodyReader::SetLimits(const CCmHttpLimits& aLimits) {
    m_ullMaxBody = aLimits.m_ullMaxBody;
    m_Decoder.SetLimits(aLimits);
}

void CHttpBodyReader::Begin(EHttpBody aKind, uint64_t aLength) {
    m_Kind = aKind;
    m_ullLength = aLength;
    m_ullReceived = 0;
    m_bBeyondLimit = aKind == EHttpBody::LENGTH && aLength > m_ullMaxBody;
    if (m_bBeyondLimit)
        m_Result = CM_ERROR_FAILURE;
    else if (aKind == EHttpBody::NONE || (aKind == EHttpBody::LENGTH && aLength == 0))
        m_Result = CM_OK;
    else
        m_Result = CM_ERROR_PARTIAL_DATA;
    if (aKind == EHttpBody::CHUNKED)
        m_Decoder.Reset();
}

CmResult CHttpBodyReader::Feed(CCmMessageBlock& aChain, CHttpBodySink& aSink) {
    CmResult rv = m_Result;
    for (CCmMessageBlock* pBlock = &aChain; pBlock && rv == CM_ERROR_PARTIAL_DATA; pBlock = pBlock->GetNext())
        rv = FeedBlock(*pBlock, aSink);
    return rv;
}

CmResult CHttpBodyReader::FeedBlock(CCmMessageBlock& aBlock, CHttpBodySink& aSink) {
    while (m_Result == CM_ERROR_PARTIAL_DATA && aBlock.GetTopLevelLength() > 0) {
        DWORD dwCount = 0;
        m_Result = FindData(aBlock, dwCount);
        if (dwCount == 0)
            continue;
        CCmMessageBlock view(aBlock, dwCount);
        aBlock.AdvanceTopLevelReadPtr(dwCount);
        if (!aSink.OnBody(view))
            return CM_ERROR_NOT_AVAILABLE;
    }
    return m_Result;
}

// Consumes framing up to the next data and sets the state behind it. aCount (out): the number of data bytes at the block's
// front.
CmResult CHttpBodyReader::FindData(CCmMessageBlock& aBlock, DWORD& aCount) {
    const DWORD dwLength = aBlock.GetTopLevelLength();
    if (m_Kind != EHttpBody::CHUNKED) {
        const uint64_t ullLeft = m_Kind == EHttpBody::LENGTH ? m_ullLength - m_ullReceived : UINT64_MAX;
        aCount = static_cast<DWORD>(std::min<uint64_t>(dwLength, ullLeft));
        return !Count(aCount, aCount) ? CM_ERROR_FAILURE : aCount == ullLeft ? CM_OK : CM_ERROR_PARTIAL_DATA;
    }
    std::string_view strInput(aBlock.GetTopLevelReadPtr(), dwLength), strData;
    const BOOL bGood = m_Decoder.Next(strInput, strData);
    aCount = static_cast<DWORD>(strData.size());
    aBlock.AdvanceTopLevelReadPtr(dwLength - static_cast<DWORD>(strInput.size()) - aCount);
    if (m_Decoder.IsOutOfMemory())
        return CM_ERROR_OUT_OF_MEMORY;
    if (!bGood || !Count(aCount, uint64_t{aCount} + m_Decoder.GetRemaining()))
        return CM_ERROR_FAILURE;
    return m_Decoder.IsFinished() ? CM_OK : CM_ERROR_PARTIAL_DATA;
}

// No part of a chunk or piece beyond the limit is passed on.
BOOL CHttpBodyReader::Count(DWORD& aCount, uint64_t aAnnounced) {
    if (aAnnounced > m_ullMaxBody - m_ullReceived) {
        CM_WARNING_TRACE_THIS("CHttpBodyReader::Feed, the body is too large. received=" << m_ullReceived);
        m_bBeyondLimit = TRUE;
        aCount = 0;
        return FALSE;
    }
    m_ullReceived += aCount;
    return TRUE;
}

CmResult CHttpBodyReader::EndOfStream() {
    if (m_Kind == EHttpBody::UNTIL_CLOSE && m_Result == CM_ERROR_PARTIAL_DATA)
        m_Result = CM_OK;
    return m_Result == CM_OK ? CM_OK : CM_ERROR_NETWORK_HTTP_FAILURE;
}

}  // namespace talvo

#include "talvo/http/message/http_parser.h"

#include <algorithm>
#include <new>
#include <type_traits>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_lines.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_text.h"

namespace {

// An announced length alone reserves no more memory than this.
constexpr DWORD MOST_RESERVED = 1u << 20;
// The storage kept for the next message.
constexpr size_t MOST_SPARE_LINE = 4u << 10;
constexpr size_t MOST_SPARE_BODY = 2 * MOST_RESERVED;

std::string_view unread(const CCmMessageBlock& aBlock) { return {aBlock.GetTopLevelReadPtr(), aBlock.GetTopLevelLength()}; }

void recycle(CCmString& aText, size_t aMost) {
    if (aText.capacity() > aMost)
        CCmString().swap(aText);
    aText.clear();
}

}  // namespace

template <class Head>
CCmHttpParserT<Head>::CCmHttpParserT(Head* aHead) : m_pHead(aHead) {
    if constexpr (std::is_same_v<Head, CCmHttpRequestHead>)
        m_Limits.m_ullMaxBody = CCmHttpLimits::SERVER_MAX_BODY;
}

template <class Head>
void CCmHttpParserT<Head>::Reset() {
    recycle(m_strLine, MOST_SPARE_LINE);
    m_Folded = {};
    recycle(m_strBody, MOST_SPARE_BODY);
    m_pDecoder.reset();
    m_bContentSetUp = m_bComplete = m_bEndOfStream = m_bBeyondLimit = FALSE;
    m_dwContentLength = m_dwContentRead = m_dwLines = 0;
}

template <class Head>
CmResult CCmHttpParserT<Head>::ParseHead(CCmMessageBlock* aChain) {
    if (!aChain || !m_pHead)
        return CM_ERROR_INVALID_ARG;
    return talvo::ResultWithMemory([&] { return ParseLines(*aChain); });
}

template <class Head>
CmResult CCmHttpParserT<Head>::GetRefusal() const {
    return m_pHead->GetFaults() & CM_HTTP_FAULT_MEMORY ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_FAILURE;
}

template <class Head>
CmResult CCmHttpParserT<Head>::ParseLines(CCmMessageBlock& aChain) {
    DWORD dwBefore = 0;  // bytes of the blocks before this one
    DWORD dwUsed = 0;    // bytes up to the last line feed
    for (const CCmMessageBlock* pBlock = &aChain; pBlock && !m_pHead->IsComplete(); pBlock = pBlock->GetNext()) {
        talvo::CHttpLines lines(unread(*pBlock));
        for (talvo::CHttpLine line; !m_pHead->IsComplete() && lines.Next(line);) {
            if (!ParseLine(line.m_Text, line.m_stColon))
                return GetRefusal();
            dwUsed = dwBefore + lines.GetUsed();
        }
        if (!m_pHead->IsComplete() && !KeepLine(lines.GetRest()))
            return GetRefusal();
        dwBefore += pBlock->GetTopLevelLength();
    }
    aChain.AdvanceChainedReadPtr(dwUsed);
    return CM_OK;
}

template <class Head>
BOOL CCmHttpParserT<Head>::KeepLine(std::string_view aPiece) {
    if (m_strLine.size() + aPiece.size() > size_t{m_Limits.m_dwMaxLine} + 1) {  // with a CR whose LF may follow
        BeyondLimit("ParseHead, a line is too long. length=", m_strLine.size() + aPiece.size());
        return FALSE;
    }
    m_strLine.append(aPiece);
    return TRUE;
}

// aLine: the part of the line in this block, before the line feed. aColon: the first one's place in it.
template <class Head>
BOOL CCmHttpParserT<Head>::ParseLine(std::string_view aLine, size_t aColon) {
    if (!m_strLine.empty()) {
        if (!KeepLine(aLine))
            return FALSE;
        aLine = m_strLine;
        aColon = aLine.find(':');
    }
    if (!aLine.empty() && aLine.back() == '\r')
        aLine.remove_suffix(1);
    if (aLine.size() > m_Limits.m_dwMaxLine) {
        BeyondLimit("ParseHead, a line is too long. length=", aLine.size());
        return FALSE;
    }
    if (!aLine.empty() && m_dwLines++ > m_Limits.m_dwMaxHeaders) {
        BeyondLimit("ParseHead, there are too many headers. lines=", m_dwLines);
        return FALSE;
    }
    const BOOL bGood = GiveLine(aLine, aColon);
    m_strLine.clear();
    return bGood;
}

template <class Head>
BOOL CCmHttpParserT<Head>::GiveLine(std::string_view aLine, size_t aColon) {
    return m_bStrict ? GiveStrictly(aLine) : m_pHead->ParseLine_i(aLine, aColon);
}

// A header line is parsed when the next one shows that it is complete; the first line of a head is never continued.
template <class Head>
BOOL CCmHttpParserT<Head>::GiveStrictly(std::string_view aLine) {
    if (!talvo::is_sendable(aLine)) {
        CM_WARNING_TRACE_THIS("CCmHttpParserT::ParseHead, a CR or NUL stands inside a line.");
        return FALSE;
    }
    if (m_dwLines <= 1)
        return m_pHead->ParseLine(aLine);
    if (m_Folded.Continue(aLine)) {
        if (m_Folded.Get().size() <= m_Limits.m_dwMaxLine)
            return TRUE;
        BeyondLimit("ParseHead, a folded line is too long. length=", m_Folded.Get().size());
        return FALSE;
    }
    const BOOL bGood = m_Folded.IsEmpty() || m_pHead->ParseLine(m_Folded.Get());
    m_Folded.Hold(aLine);
    return bGood && (!aLine.empty() || m_pHead->ParseLine(aLine));
}

template <class Head>
void CCmHttpParserT<Head>::BeyondLimit(const char* aWhat, uint64_t aSize) {
    CM_WARNING_TRACE_THIS("CCmHttpParserT::" << aWhat << aSize);
    m_bBeyondLimit = TRUE;
}

template <class Head>
CmResult CCmHttpParserT<Head>::HandleContent(CCmMessageBlock* aChain) {
    if (!m_pHead)
        return CM_ERROR_INVALID_ARG;
    const CmResult result = talvo::ResultWithMemory([&] {
        CmResult rv = m_bContentSetUp ? CM_OK : SetUpContent();
        if (rv == CM_OK)
            rv = AddBlocks(aChain);
        return rv == CM_OK ? GetContentResult() : rv;
    });
    if (result == CM_ERROR_OUT_OF_MEMORY)
        CM_WARNING_TRACE_THIS("CCmHttpParserT::HandleContent, no memory for the body. size=" << m_strBody.size());
    return result;
}

template <class Head>
CmResult CCmHttpParserT<Head>::SetUpContent() {
    const CCmString* pCoding = m_pHead->FindHeader(CCmHttpAtomList::Transfer_Encoding);
    if (pCoding && talvo::equal_no_case(*pCoding, "chunked")) {
        m_pDecoder.reset(new (std::nothrow) CCmHttpChunkedDecoder);
        if (!m_pDecoder)
            return CM_ERROR_OUT_OF_MEMORY;
        m_pDecoder->SetLimits(m_Limits);
        m_dwContentLength = UNKNOWN_LENGTH;
    } else if (const CmResult rv = SetUpLength(); rv != CM_OK) {
        return rv;
    }
    m_bContentSetUp = TRUE;
    return CM_OK;
}

template <class Head>
CmResult CCmHttpParserT<Head>::SetUpLength() {
    const long lLength = m_pHead->GetContentLength();
    if (lLength == -1) {
        m_dwContentLength = std::is_same_v<Head, CCmHttpRequestHead> ? 0 : UNKNOWN_LENGTH;
        CM_WARNING_TRACE_THIS(
            "CCmHttpParserT::HandleContent, no ContentLength and chunked, m_dwContentLength=" << m_dwContentLength);
        return CM_OK;
    }
    if (lLength > MAX_BODY || static_cast<uint64_t>(lLength) > m_Limits.m_ullMaxBody) {
        BeyondLimit("HandleContent, the body is too large. length=", static_cast<uint64_t>(lLength));
        return CM_ERROR_FAILURE;
    }
    m_dwContentLength = static_cast<DWORD>(lLength);
    m_strBody.reserve(std::min(m_dwContentLength, MOST_RESERVED));
    return CM_OK;
}

template <class Head>
CmResult CCmHttpParserT<Head>::AddBlocks(CCmMessageBlock* aChain) {
    const uint64_t ullMost = std::min<uint64_t>(m_Limits.m_ullMaxBody, MAX_BODY);
    for (CCmMessageBlock* pBlock = aChain; pBlock; pBlock = pBlock->GetNext()) {
        if (m_pDecoder) {
            if (const CmResult rv = AddChunks(*pBlock); rv != CM_OK)
                return rv;
            if (m_strBody.size() > ullMost) {
                BeyondLimit("HandleContent, the body is too large. length=", m_strBody.size());
                return CM_ERROR_FAILURE;
            }
            continue;
        }
        if (m_bEndOfStream) {
            m_dwContentRead = m_dwContentLength;
            break;
        }
        const uint64_t ullRead = uint64_t{m_dwContentRead} + pBlock->GetTopLevelLength();
        if (m_dwContentLength == UNKNOWN_LENGTH && ullRead > ullMost) {
            BeyondLimit("HandleContent, the body is too large. length=", ullRead);
            return CM_ERROR_FAILURE;
        }
        if (ullRead > m_dwContentLength) {
            AddOverrun(*pBlock, ullRead);
            break;
        }
        Add(*pBlock, pBlock->GetTopLevelLength());
        m_dwContentRead = static_cast<DWORD>(ullRead);
    }
    return CM_OK;
}

template <class Head>
CmResult CCmHttpParserT<Head>::AddChunks(CCmMessageBlock& aBlock) {
    const std::string_view strBlock = unread(aBlock);
    unsigned long ulConsumed = 0;
    if (!strBlock.empty() && !m_pDecoder->HandleChunkedContent(strBlock.data(), strBlock.size(), m_strBody, ulConsumed))
        return CM_ERROR_FAILURE;
    aBlock.AdvanceTopLevelReadPtr(static_cast<DWORD>(ulConsumed));
    return CM_OK;
}

template <class Head>
void CCmHttpParserT<Head>::AddOverrun(CCmMessageBlock& aBlock, uint64_t aRead) {
    const BOOL bIsPersistent = m_pHead->IsPersistent();
    CM_WARNING_TRACE_THIS("CCmHttpParserT::HandleContent, m_dwContentRead="
                          << aRead << " > m_dwContentLength=" << m_dwContentLength << " bIsPersistent=" << bIsPersistent);
    // Kept on purpose: no message can follow on a connection that ends, so all bytes count as the body.
    Add(aBlock, bIsPersistent ? m_dwContentLength - m_dwContentRead : aBlock.GetTopLevelLength());
    m_dwContentRead = m_dwContentLength;
}

template <class Head>
void CCmHttpParserT<Head>::Add(CCmMessageBlock& aBlock, DWORD aCount) {
    m_strBody.append(aBlock.GetTopLevelReadPtr(), aCount);
    aBlock.AdvanceTopLevelReadPtr(aCount);
}

template <class Head>
CmResult CCmHttpParserT<Head>::GetContentResult() {
    m_bComplete = m_dwContentRead == m_dwContentLength || (m_pDecoder && m_pDecoder->IsFinished());
    const BOOL bCutShort = m_bEndOfStream && m_pDecoder && !m_strBody.empty();
    return m_bComplete || bCutShort ? CM_OK : CM_ERROR_PARTIAL_DATA;
}

template <class Head>
CmResult CCmHttpParserT<Head>::Deliver(ICmTransportSink* aSink, ICmTransport* aTransport) {
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    const CCmString strBody = std::exchange(m_strBody, CCmString());
    const auto dwLength = static_cast<DWORD>(strBody.size());
    CCmMessageBlock block(dwLength, strBody.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    aSink->OnReceive(block, aTransport, nullptr);
    return CM_OK;
}

template class CCmHttpParserT<CCmHttpRequestHead>;
template class CCmHttpParserT<CCmHttpResponseHead>;

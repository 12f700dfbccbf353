// Parses the bytes of a transport into a head and a whole body.
#pragma once

#include <memory>

#include "talvo/base/export.h"
#include "talvo/base/message_block.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_chunked_decoder.h"
#include "talvo/http/message/http_folded_line.h"
#include "talvo/http/message/http_limits.h"
#include "talvo/http/message/http_request_head.h"
#include "talvo/http/message/http_response_head.h"
#include "talvo/transport/transport_interface.h"

// Parses one message into aHead and a body in memory; Head is CCmHttpRequestHead or CCmHttpResponseHead. For the next message
// clear the head and call Reset. One thread at a time.
//
// The headers determine the body: chunked if Transfer-Encoding is exactly that, otherwise of Content-Length, otherwise none for
// a request and up to the end of the stream for a response. talvo::CHttpBodyReader streams bodies of any length instead.
template <class Head>
class CCmHttpParserT {
public:
    // aHead is not owned, must outlive the parser and is not cleared here. The default limit of a request's body is that of a
    // server.
    explicit CCmHttpParserT(Head* aHead);

    // Reads head lines. CM_OK: took them; Head::IsComplete() is TRUE for a complete head. If it is, the chain's read
    // position is at the body. Otherwise it is behind the last line feed; the bytes behind that were copied, so drop the chain
    // and pass only new bytes next time. With a complete head nothing happens. CM_ERROR_FAILURE: a line was refused or exceeds
    // the limits, and the chain is unchanged. CM_ERROR_INVALID_ARG: null. CM_ERROR_OUT_OF_MEMORY.
    CmResult ParseHead(CCmMessageBlock* aChain);

    // Adds the chain's bytes to the body and consumes them; null only checks whether the body is complete. CM_OK: complete, or
    // the stream has ended within a chunked body. CM_ERROR_PARTIAL_DATA: wait for more. CM_ERROR_FAILURE: broken chunks, or the
    // body exceeds its limit or 4 GiB. CM_ERROR_OUT_OF_MEMORY.
    //
    // If the head's IsPersistent is true, bytes behind a body of known length stay in the chain; otherwise they become part of
    // the body.
    CmResult HandleContent(CCmMessageBlock* aChain);

    // Moves the body, complete or not, out of the parser and passes it to aSink's OnReceive as one block, which is valid during
    // the call: duplicating it copies. The parser may be deleted inside. CM_ERROR_INVALID_ARG: aSink is null.
    CmResult Deliver(ICmTransportSink* aSink, ICmTransport* aTransport);

    // The stream has ended. After this, HandleContent with any block ignores the block and treats a body that is not chunked as
    // complete. So pass the received data first, and then an empty block.
    void SetEndOfStream(CmBool aEnded) { m_bEndOfStream = aEnded; }

    void SetLimits(const CCmHttpLimits& aLimits) { m_Limits = aLimits; }  // of head, body and trailers

    // TRUE reads a head by RFC 9112: a header line that begins with a blank continues the line before it, and ParseHead refuses
    // a CR or NUL inside a line. Lines that are not header fields are still accepted, see CCmHttpHeaderArray::GetFaults.
    void SetStrict(CmBool aStrict) { m_bStrict = aStrict; }

    // Resets everything except head, limits and strictness.
    void Reset();

    CmBool IsComplete() const { return m_bComplete; }           // of the body
    CmBool IsBeyondLimit() const { return m_bBeyondLimit; }     // the cause of a failure
    CmBool IsChunked() const { return m_pDecoder != nullptr; }  // the body is chunked
    const CCmString& GetBody() const { return m_strBody; }      // the received part
    // Of a chunked body; null for any other.
    const CCmHttpHeaderArray* GetTrailers() const { return m_pDecoder ? &m_pDecoder->GetTrailers() : nullptr; }

private:
    static constexpr CmDword UNKNOWN_LENGTH = 0xFFFFFFFF;
    static constexpr CmDword MAX_BODY = UNKNOWN_LENGTH - 1;

    CmResult ParseLines(CCmMessageBlock& aChain);
    CmResult GetRefusal() const;
    CmBool ParseLine(std::string_view aLine, size_t aColon);
    CmBool KeepLine(std::string_view aPiece);
    CmBool GiveLine(std::string_view aLine, size_t aColon);
    CmBool GiveStrictly(std::string_view aLine);
    CmResult SetUpContent();
    CmResult SetUpLength();
    CmResult AddBlocks(CCmMessageBlock* aChain);
    CmResult AddChunks(CCmMessageBlock& aBlock);
    void AddOverrun(CCmMessageBlock& aBlock, uint64_t aRead);
    void Add(CCmMessageBlock& aBlock, CmDword aCount);
    CmResult GetContentResult();
    void BeyondLimit(const char* aWhat, uint64_t aSize);

    Head* m_pHead;
    CCmString m_strLine;              // a line whose end has not arrived
    talvo::CHttpFoldedLine m_Folded;  // strict only: a header line that the next may continue
    CmBool m_bStrict = CM_FALSE;
    std::unique_ptr<CCmHttpChunkedDecoder> m_pDecoder;
    CmBool m_bContentSetUp = CM_FALSE;
    CmBool m_bComplete = CM_FALSE;
    CCmString m_strBody;
    CmDword m_dwContentLength = 0;
    CmDword m_dwContentRead = 0;
    CmBool m_bEndOfStream = CM_FALSE;
    CCmHttpLimits m_Limits;
    CmDword m_dwLines = 0;
    CmBool m_bBeyondLimit = CM_FALSE;
};

extern template class TALVO_API CCmHttpParserT<CCmHttpRequestHead>;
extern template class TALVO_API CCmHttpParserT<CCmHttpResponseHead>;

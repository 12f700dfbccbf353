// Makes a head and a whole body of the bytes of a transport.
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
// clear the head and Reset. One thread at a time.
//
// The body is that of the headers as they stand: chunked if Transfer-Encoding is just that, else of Content-Length, else none
// for a request and up to the end of the stream for a response. talvo::CHttpBodyReader streams bodies of any length instead.
template <class Head>
class CCmHttpParserT {
public:
    // aHead is not owned, must outlive the parser and is not cleared here. The limits of a request's parser begin with the
    // largest body of a server.
    explicit CCmHttpParserT(Head* aHead);

    // Reads head lines. CM_OK: took them; Head::IsComplete() tells whether the head is whole. If so, the chain stands at its
    // body, else behind its last line feed: what follows that was kept here, so drop the chain and give only new bytes next
    // time. With a complete head nothing happens. CM_ERROR_FAILURE, and the chain stays: a line was refused or is beyond the
    // limits. CM_ERROR_INVALID_ARG: null. CM_ERROR_OUT_OF_MEMORY.
    CmResult ParseHead(CCmMessageBlock* aChain);

    // Adds the chain's bytes to the body and consumes what it used; null only looks whether the body is complete. CM_OK:
    // complete, or the stream has ended in the middle of a chunked body. CM_ERROR_PARTIAL_DATA: wait for more.
    // CM_ERROR_FAILURE: broken chunks, or the body is beyond its limit or 4 GiB. CM_ERROR_OUT_OF_MEMORY.
    //
    // Bytes behind a body of known length stay in the chain if the head says IsPersistent, else they become part of the body.
    CmResult HandleContent(CCmMessageBlock* aChain);

    // Moves the body, complete or not, out of the parser and gives it to aSink's OnReceive as one block, which is valid during
    // the call: duplicating it copies. The parser may go inside. CM_ERROR_INVALID_ARG: aSink is null.
    CmResult Deliver(ICmTransportSink* aSink, ICmTransport* aTransport);

    // The stream has ended: HandleContent with a block, which it does not look into, then takes a body that is not chunked for
    // complete as it is. So hand over what has arrived first, and then an empty block.
    void SetEndOfStream(BOOL aEnded) { m_bEndOfStream = aEnded; }

    void SetLimits(const CCmHttpLimits& aLimits) { m_Limits = aLimits; }

    // TRUE reads a head as RFC 9112 has it: a header line that begins with a blank continues the line before it, and ParseHead
    // refuses a CR or NUL inside a line. Lines that are no header fields are still taken, see CCmHttpHeaderArray::GetFaults.
    void SetStrict(BOOL aStrict) { m_bStrict = aStrict; }

    // Forgets everything but head, limits and strictness.
    void Reset();

    BOOL IsComplete() const { return m_bComplete; }        // the body is
    BOOL IsBeyondLimit() const { return m_bBeyondLimit; }  // that was the reason of a failure
    BOOL IsChunked() const { return m_pDecoder != nullptr; }
    const CCmString& GetBody() const { return m_strBody; }
    // Of a chunked body; null of another.
    const CCmHttpHeaderArray* GetTrailers() const { return m_pDecoder ? &m_pDecoder->GetTrailers() : nullptr; }

private:
    static constexpr DWORD UNKNOWN_LENGTH = 0xFFFFFFFF;
    static constexpr DWORD MAX_BODY = UNKNOWN_LENGTH - 1;

    CmResult ParseLines(CCmMessageBlock& aChain);
    CmResult GetRefusal() const;
    BOOL ParseLine(std::string_view aLine);
    BOOL KeepLine(std::string_view aPiece);
    BOOL GiveLine(std::string_view aLine);
    BOOL GiveStrictly(std::string_view aLine);
    CmResult SetUpContent();
    CmResult SetUpLength();
    CmResult AddBlocks(CCmMessageBlock* aChain);
    CmResult AddChunks(CCmMessageBlock& aBlock);
    void AddOverrun(CCmMessageBlock& aBlock, uint64_t aRead);
    void Add(CCmMessageBlock& aBlock, DWORD aCount);
    CmResult GetContentResult();
    void BeyondLimit(const char* aWhat, uint64_t aSize);

    Head* m_pHead;
    CCmString m_strLine;              // a line whose end has not arrived
    talvo::CHttpFoldedLine m_Folded;  // strict only: a header line that the next may continue
    BOOL m_bStrict = FALSE;
    std::unique_ptr<CCmHttpChunkedDecoder> m_pDecoder;
    BOOL m_bContentSetUp = FALSE;
    BOOL m_bComplete = FALSE;
    CCmString m_strBody;
    DWORD m_dwContentLength = 0;
    DWORD m_dwContentRead = 0;
    BOOL m_bEndOfStream = FALSE;
    CCmHttpLimits m_Limits;
    DWORD m_dwLines = 0;
    BOOL m_bBeyondLimit = FALSE;
};

extern template class TALVO_API CCmHttpParserT<CCmHttpRequestHead>;
extern template class TALVO_API CCmHttpParserT<CCmHttpResponseHead>;

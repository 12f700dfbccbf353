// Bodies of any length, handed on as they arrive.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/message_block.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_chunked_decoder.h"
#include "talvo/http/message/http_limits.h"

namespace talvo {

// How a body's end is found.
enum class EHttpBody { NONE, LENGTH, CHUNKED, UNTIL_CLOSE };

class TALVO_API CHttpBodySink {
public:
    // The next piece of the body, never empty: a view on the block in which it arrived, valid during the call; duplicate what
    // you keep. TRUE: go on. FALSE: stop, for the reader was begun anew, is gone, or shall give no more of this chain.
    virtual BOOL OnBody(CCmMessageBlock& aView) = 0;

protected:
    virtual ~CHttpBodySink() = default;
};

// Finds the body in a stream: takes exactly its bytes, framing included, and copies none. Counts in 64 bits. One thread.
//
// Chunks are read strictly: where a message ends must not depend on who reads it.
class TALVO_API CHttpBodyReader {
public:
    CHttpBodyReader() { m_Decoder.SetStrict(TRUE); }

    // A new body; aLength is that of LENGTH. Limits stay.
    void Begin(EHttpBody aKind, uint64_t aLength = 0);

    // Consumes what belongs to the body and gives its data to aSink. CM_OK: the body is complete, what follows it stays in the
    // chain. CM_ERROR_PARTIAL_DATA: all was taken and more must follow. CM_ERROR_FAILURE: broken chunks, or the body is beyond
    // the limit, and stays so. CM_ERROR_OUT_OF_MEMORY, likewise. CM_ERROR_NOT_AVAILABLE: aSink said stop; nothing of the reader
    // was touched after that.
    CmResult Feed(CCmMessageBlock& aChain, CHttpBodySink& aSink);

    // No more bytes come. CM_OK: the body is complete, one until close by this. CM_ERROR_NETWORK_HTTP_FAILURE: it is cut short.
    CmResult EndOfStream();

    BOOL IsComplete() const { return m_Result == CM_OK; }
    BOOL IsBeyondLimit() const { return m_bBeyondLimit; }   // that was the reason of a failure
    uint64_t GetReceived() const { return m_ullReceived; }  // bytes of data
    const CCmHttpHeaderArray& GetTrailers() const { return m_Decoder.GetTrailers(); }

    void SetLimits(const CCmHttpLimits& aLimits);
    // TRUE: a trailer that begins with a blank continues the one before it. FALSE, as it begins: it breaks the body.
    void SetUnfolding(BOOL aUnfold) { m_Decoder.SetUnfolding(aUnfold); }

private:
    CmResult FeedBlock(CCmMessageBlock& aBlock, CHttpBodySink& aSink);
    CmResult FindData(CCmMessageBlock& aBlock, DWORD& aCount);
    BOOL Count(DWORD& aCount, uint64_t aAnnounced);

    EHttpBody m_Kind = EHttpBody::NONE;
    uint64_t m_ullLength = 0;
    uint64_t m_ullReceived = 0;
    CmResult m_Result = CM_OK;  // of the body so far
    BOOL m_bBeyondLimit = FALSE;
    uint64_t m_ullMaxBody = CCmHttpLimits::NO_MAX_BODY;
    CCmHttpChunkedDecoder m_Decoder;
};

}  // namespace talvo

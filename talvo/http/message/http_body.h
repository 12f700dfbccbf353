// Bodies of any length, passed on as they arrive.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/message_block.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_chunked_decoder.h"
#include "talvo/http/message/http_limits.h"

namespace talvo {

// The delimiter of a body.
enum class EHttpBody { NONE, LENGTH, CHUNKED, UNTIL_CLOSE };

class TALVO_API CHttpBodySink {
public:
    // The next piece of the body, never empty: a view on the block of its arrival, valid during the call; duplicate it to keep
    // it. TRUE: continue. FALSE: stop, because the reader was restarted or deleted, or shall give no more of this chain.
    virtual CmBool OnBody(CCmMessageBlock& aView) = 0;

protected:
    virtual ~CHttpBodySink() = default;
};

// Finds the body in a stream: takes exactly its bytes, framing included, and copies none. Counts in 64 bits. One thread.
//
// Chunks are read strictly: all readers must find the same end of a message.
class TALVO_API CHttpBodyReader {
public:
    CHttpBodyReader() { m_Decoder.SetStrict(CM_TRUE); }

    // Starts a new body; aLength is for LENGTH. Limits stay.
    void Begin(EHttpBody aKind, uint64_t aLength = 0);

    // Consumes the bytes of the body and passes its data to aSink. CM_OK: the body is complete; the bytes behind it stay in the
    // chain. CM_ERROR_PARTIAL_DATA: all bytes were taken and more must follow. CM_ERROR_FAILURE: broken chunks, or the body
    // exceeds the limit; this is final. CM_ERROR_OUT_OF_MEMORY: final, too. CM_ERROR_NOT_AVAILABLE: aSink returned FALSE; the
    // reader was not accessed after that.
    CmResult Feed(CCmMessageBlock& aChain, CHttpBodySink& aSink);

    // No more bytes come. CM_OK: the body is complete; a body until close is now. CM_ERROR_NETWORK_HTTP_FAILURE: it is
    // incomplete.
    CmResult EndOfStream();

    CmBool IsComplete() const { return m_Result == CM_OK; }
    CmBool IsBeyondLimit() const { return m_bBeyondLimit; }  // the cause of a failure
    uint64_t GetReceived() const { return m_ullReceived; }   // bytes of data
    const CCmHttpHeaderArray& GetTrailers() const { return m_Decoder.GetTrailers(); }

    void SetLimits(const CCmHttpLimits& aLimits);
    // TRUE: a trailer that begins with a blank continues the one before it. FALSE, the default: it breaks the body.
    void SetUnfolding(CmBool aUnfold) { m_Decoder.SetUnfolding(aUnfold); }

private:
    CmResult FeedBlock(CCmMessageBlock& aBlock, CHttpBodySink& aSink);
    CmResult FindData(CCmMessageBlock& aBlock, CmDword& aCount);
    CmBool Count(CmDword& aCount, uint64_t aAnnounced);

    EHttpBody m_Kind = EHttpBody::NONE;
    uint64_t m_ullLength = 0;
    uint64_t m_ullReceived = 0;
    CmResult m_Result = CM_OK;  // of the body so far
    CmBool m_bBeyondLimit = CM_FALSE;
    uint64_t m_ullMaxBody = CCmHttpLimits::NO_MAX_BODY;
    CCmHttpChunkedDecoder m_Decoder;
};

}  // namespace talvo

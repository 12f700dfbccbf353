// Sends of whole frames that another layer has encoded.
#pragma once

#include "talvo/base/message_block.h"
#include "talvo/base/result.h"

namespace talvo {

// The lengths of the frames of one send. They are asked for only if the transport takes a part.
class IFrameLengths {
public:
    virtual CmDword GetCount() const = 0;  // of the frames
    // The number of frames that the first aBytes bytes complete. aRest (out): the bytes behind these that complete the next
    // frame; 0: it has not begun.
    virtual CmDword CountWithin(CmDword aBytes, CmDword& aRest) const = 0;

protected:
    ~IFrameLengths() = default;
};

class IFrameSink;

// A connection that can send frames that another layer has encoded, and pass them up. One thread.
class IFramedSending {
public:
    enum EFraming {
        NOT_FRAMED,  // it must encode each message itself: use SendData
        LENGTH,      // a frame is the length of its payload, 4 bytes, and the payload
        PACKAGE      // a frame is a data PDU without an acknowledgement field
    };
    virtual EFraming GetFraming() const = 0;

    // Sends the frames of aFrames, whose lengths are aLengths, after its own unsent bytes. aTaken (out): so many of them are
    // sent, or of the last one a part is sent and the rest kept. CM_OK: all. CM_ERROR_PARTIAL_DATA: OnSend follows.
    // CM_ERROR_NOT_AVAILABLE: not connected. CM_ERROR_OUT_OF_MEMORY: the connection has ended with OnDisconnect. Else the
    // transport's result. The lengths of the messages are not checked.
    virtual CmResult SendFrames(CCmMessageBlock& aFrames, const IFrameLengths& aLengths, CmDword& aTaken) = 0;

    // The sink takes frames, too, from now until the next OpenWithSink. Not owned.
    virtual void SetFrameSink(IFrameSink* aSink) = 0;

protected:
    ~IFramedSending() = default;
};

}  // namespace talvo

// Sends of whole frames that another layer has encoded.
#pragma once

#include "talvo/base/message_block.h"
#include "talvo/base/result.h"

namespace talvo {

// A connection that can send frames encoded once for many connections. One thread.
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
    virtual CmResult SendFrames(CCmMessageBlock& aFrames, const CmDword* aLengths, CmDword aCount, CmDword& aTaken) = 0;

protected:
    ~IFramedSending() = default;
};

}  // namespace talvo

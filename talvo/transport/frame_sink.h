// Frames on their way up.
#pragma once

#include "talvo/transport/framed_sending.h"

namespace talvo {

// A sink that takes small messages as the frames in which they arrive, many a call, and all others by OnReceive. Network
// thread.
class IFrameSink {
public:
    // aCount whole frames of the connection's framing, one after the other, in aLength bytes that are valid during the call.
    virtual void OnFrames(const char* aFrames, CmDword aLength, CmDword aCount) = 0;

protected:
    ~IFrameSink() = default;
};

// Frames at the front of received bytes.
struct CWholeFrames {
    CmDword m_dwLength = 0;  // bytes
    CmDword m_dwCount = 0;
};

// The frames for one OnFrames: whole, not empty, their payload neither longer than aLongest nor than a sink copies.
CWholeFrames FindWholeFrames(const char* aBytes, CmDword aLength, IFramedSending::EFraming aFraming, CmDword aLongest);

}  // namespace talvo

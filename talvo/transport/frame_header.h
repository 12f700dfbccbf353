// The headers of frames, see IFramedSending.
#pragma once

#include <arpa/inet.h>

#include <cstring>

#include "talvo/transport/framed_sending.h"

namespace talvo {

//  0      1               5
//  | type | payload length | payload ...       big-endian
//         '- a frame of the framing LENGTH
constexpr CmDword MAX_FRAME_HEADER = 5;
constexpr char FRAME_TYPE = 6;  // of a data PDU

constexpr CmDword FrameHeaderLength(IFramedSending::EFraming aFraming) {
    return aFraming == IFramedSending::PACKAGE ? MAX_FRAME_HEADER : sizeof(CmDword);
}

// Returns the end of the header.
inline char* WriteFrameHeader(char* aTo, IFramedSending::EFraming aFraming, CmDword aLength) {
    if (aFraming == IFramedSending::PACKAGE)
        *aTo++ = FRAME_TYPE;
    const CmDword dwLength = htonl(aLength);
    std::memcpy(aTo, &dwLength, sizeof dwLength);
    return aTo + sizeof dwLength;
}

// The length of the payload.
inline CmDword ReadFrameLength(const char* aHeader, IFramedSending::EFraming aFraming) {
    CmDword dwLength = 0;
    std::memcpy(&dwLength, aHeader + FrameHeaderLength(aFraming) - sizeof dwLength, sizeof dwLength);
    return ntohl(dwLength);
}

}  // namespace talvo

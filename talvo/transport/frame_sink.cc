#include "talvo/transport/frame_sink.h"

#include <algorithm>

#include "talvo/transport/frame_header.h"
#include "talvo/transport/message_list.h"

namespace talvo {

CWholeFrames FindWholeFrames(const char* aBytes, DWORD aLength, IFramedSending::EFraming aFraming, DWORD aLongest) {
    const DWORD dwHeader = FrameHeaderLength(aFraming);
    const DWORD dwMost = std::min(aLength, CMessageList::MOST_FRAMES);
    const DWORD dwLongest = std::min(aLongest, CMessageList::MAX_COPIED);
    CWholeFrames frames;
    while (dwMost - frames.m_dwLength > dwHeader) {
        const char* pFrame = aBytes + frames.m_dwLength;
        const DWORD dwPayload = ReadFrameLength(pFrame, aFraming);
        if (dwPayload == 0 || dwPayload > dwLongest || dwPayload > dwMost - frames.m_dwLength - dwHeader ||
            (aFraming == IFramedSending::PACKAGE && *pFrame != FRAME_TYPE))
            break;
        frames.m_dwLength += dwHeader + dwPayload;
        ++frames.m_dwCount;
    }
    return frames;
}

}  // namespace talvo

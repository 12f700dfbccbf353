// The frames between the library and its helper for scripts. docs/pac-helper.md defines them.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// The letters of the frames.
enum class EPacFrame : char { LOAD = 'L', FIND = 'F', NAME_ANSWER = 'N', RESULT = 'r', FAILURE = 'e', NAME = 'n', ALERT = 'a' };

constexpr size_t MOST_PAC_FRAME = (1 << 20) + 64;  // letter and payload

// Makes one frame. In one thread. Throws std::bad_alloc.
class CPacFrameWriter {
public:
    explicit CPacFrameWriter(EPacFrame aKind);

    void AddNumber(uint64_t aNumber, size_t aBytes);  // big-endian
    void AddText(std::string_view aText);             // behind its length; cut to 65,535 bytes
    void AddRest(std::string_view aText) { m_strBytes += aText; }

    // The frame. Nothing may be added after this. "": it would be too long.
    CCmString Finish();

private:
    CCmString m_strBytes;
};

// Cuts a stream into frames. In one thread.
class TALVO_API CPacFrameReader {
public:
    enum EStep {
        FRAME,  // a frame was taken
        MORE,   // the next frame is not complete
        BROKEN  // the bytes are no frame
    };

    void Add(std::string_view aBytes) { m_strBytes += aBytes; }  // throws std::bad_alloc
    // aKind, aPayload (out): the next frame. It is valid until the next call of either operation.
    EStep Take(EPacFrame& aKind, std::string_view& aPayload);

private:
    CCmString m_strBytes;
    size_t m_stTaken = 0;  // bytes of frames that Take has returned
};

// The number at the beginning of aPayload, which is cut by it. FALSE: it is shorter.
BOOL TakePacNumber(std::string_view& aPayload, size_t aBytes, uint64_t& aNumber);

// aText from a script for people: at most aMost bytes of UTF-8, with '?' for control characters and for other bytes.
TALVO_API CCmString CleanPacText(std::string_view aText, size_t aMost);

}  // namespace talvo

// How files travel: the frames between `talvo send` and `talvo recv`, version 1.
//
//   0      1                 5
//   | type | payload length  | payload ...            numbers are big-endian
//
//   sender                                            receiver
//   HELLO   "TALVO" version(1)         ----------->
//   FILE    size(8) name(1..255)       ----------->
//                                      <-----------   ACCEPT  nothing         or RESULT: this file is not wanted
//   DATA    1..262144 bytes            ----------->
//   DATA    ... until size is reached  ----------->                           a RESULT in between: stop, send ABORT or END;
//                                                                             ACCEPT again: a sign of life, nothing more
//   END     SHA-256 of the file(32)    ----------->
//                                      <-----------   RESULT  status(1: 0 kept, 1 refused) reason(0..512)
//   ABORT   reason(0..512): instead of the rest and END, the file cannot be read on or is not wanted
//   FILE    ... the next file
//   BYE     nothing: that was all      ----------->   closes the connection
//
// Every FILE is answered by exactly one RESULT, with or without an ACCEPT before it. The hash comes behind the data, so that
// the sender reads a file once.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "talvo/talvo.h"

namespace tool {

enum class EFrame : BYTE { HELLO = 1, FILE = 2, DATA = 3, END = 4, ABORT = 5, BYE = 6, ACCEPT = 0x81, RESULT = 0x82 };

constexpr DWORD FRAME_HEADER = 5;
constexpr DWORD MAX_DATA = 256 * 1024;  // bytes in one DATA frame
constexpr size_t MAX_REASON = 512;

// Whole frames. Reasons are cut at MAX_REASON.
std::string EncodeFrame(EFrame aType, std::string_view aPayload = {});
std::string EncodeHello();
std::string EncodeFile(uint64_t aSize, std::string_view aName);
std::string EncodeAbort(std::string_view aReason);
std::string EncodeResult(bool aKept, std::string_view aReason);

// Writes the header of a DATA frame into aBlock; aLength bytes have to follow.
void WriteDataHeader(CCmMessageBlock& aBlock, DWORD aLength);

// Payloads. false: not what the frame must hold.
bool DecodeHello(std::string_view aPayload);
bool DecodeFile(std::string_view aPayload, uint64_t& aSize, std::string& aName);
bool DecodeResult(std::string_view aPayload, bool& aKept, std::string& aReason);

// Hears what a FrameParser finds. Both return false to stop the parser.
class FrameSink {
public:
    virtual bool OnFrame(EFrame aType, std::string_view aPayload) = 0;  // whole, of any type but DATA
    virtual bool OnData(std::string_view aPiece) = 0;                   // a part of what DATA frames carry, never empty
    virtual ~FrameSink() = default;
};

// Cuts a byte stream into frames, whatever pieces it comes in. Data passes through; of the other frames at most one is kept,
// and none is longer than about a kilobyte: a length is judged as soon as it has come.
class FrameParser {
public:
    enum EResult {
        ALL_READ,
        STOPPED,  // by the sink
        BROKEN    // an unknown type, or a length that its type cannot have
    };

    // After STOPPED or BROKEN the parser is not fed again.
    EResult Feed(std::string_view aBytes, FrameSink& aSink);
    EResult Feed(const CCmMessageBlock& aChain, FrameSink& aSink);

private:
    EResult FeedHeader(std::string_view& aBytes, FrameSink& aSink);
    EResult FeedPayload(std::string_view& aBytes, FrameSink& aSink);
    EResult FeedData(std::string_view& aBytes, FrameSink& aSink);
    EResult Deliver(FrameSink& aSink);
    void Collect(std::string_view& aBytes, size_t aUpTo);

    std::string m_strKept;  // the header as far as it has come, then the payload of a frame that is not DATA
    bool m_bInPayload = false;
    EFrame m_Type = EFrame::HELLO;
    DWORD m_dwLeft = 0;  // payload bytes still to come
};

}  // namespace tool

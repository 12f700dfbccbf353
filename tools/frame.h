// The frames between `talvo send` and `talvo recv`, version 1.
//
//   0      1                 5
//   | type | payload length  | payload ...            numbers are big-endian
//
//   sender                                            receiver
//   HELLO   "TALVO" version(1)         ----------->
//   FILE    size(8) name(1..255)       ----------->
//                                      <-----------   ACCEPT  empty           or RESULT: this file is refused
//   DATA    1..262144 bytes            ----------->
//   DATA    ... until size is reached  ----------->                           a RESULT in between: stop, send ABORT or END;
//                                                                             another ACCEPT: a sign of life, no more
//   END     SHA-256 of the file(32)    ----------->
//                                      <-----------   RESULT  status(1: 0 kept, 1 refused) reason(0..512)
//   ABORT   reason(0..512): instead of the rest and END, the file cannot be read further or was refused
//   FILE    ... the next file
//   BYE     empty: no more files       ----------->   closes the connection
//
// Exactly one RESULT answers every FILE, with or without an ACCEPT before it. The hash follows the data, so that the sender
// reads a file once.
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

// Writes the header of a DATA frame into aBlock. The caller appends aLength bytes.
void WriteDataHeader(CCmMessageBlock& aBlock, DWORD aLength);

// Decode payloads. false: not a valid payload of the frame.
bool DecodeHello(std::string_view aPayload);
bool DecodeFile(std::string_view aPayload, uint64_t& aSize, std::string& aName);
bool DecodeResult(std::string_view aPayload, bool& aKept, std::string& aReason);

// Receives the output of a FrameParser. Both operations return false to stop the parser.
class FrameSink {
public:
    virtual bool OnFrame(EFrame aType, std::string_view aPayload) = 0;  // a whole frame of any type but DATA
    virtual bool OnData(std::string_view aPiece) = 0;                   // a part of the payload of DATA frames, never empty
    virtual ~FrameSink() = default;
};

// Splits a byte stream, in pieces of any size, into frames. Data is passed on at once. Of the other frames at most one is kept,
// of about a kilobyte at most: the parser checks a length as soon as it has arrived.
class FrameParser {
public:
    enum EResult {
        ALL_READ,
        STOPPED,  // by the sink
        BROKEN    // an unknown type, or an invalid length for the type
    };

    // Do not call it again after STOPPED or BROKEN.
    EResult Feed(std::string_view aBytes, FrameSink& aSink);
    EResult Feed(const CCmMessageBlock& aChain, FrameSink& aSink);

private:
    EResult FeedHeader(std::string_view& aBytes, FrameSink& aSink);
    EResult FeedPayload(std::string_view& aBytes, FrameSink& aSink);
    EResult FeedData(std::string_view& aBytes, FrameSink& aSink);
    EResult Deliver(FrameSink& aSink);
    void Collect(std::string_view& aBytes, size_t aUpTo);

    std::string m_strKept;  // the part of the header that has arrived, then the payload of a frame that is not DATA
    bool m_bInPayload = false;
    EFrame m_Type = EFrame::HELLO;
    DWORD m_dwLeft = 0;  // payload bytes still missing
};

}  // namespace tool

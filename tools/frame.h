// The frames between `talvo send` and `talvo recv`, version 2; docs/transfer.md describes the exchange.
//
//   0      1                 5
//   | type | payload length  | payload ...            numbers are big-endian
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "talvo/talvo.h"

namespace tool {

enum class EFrame : BYTE {
    // of the sender
    HELLO = 1,   // "TALVO" version(1) challenge(32)
    FILE = 2,    // id(4) folder(4) mode(4) seconds(8) nanoseconds(4) size(8) name(1..255)
    DATA = 3,    // id(4) bytes(1..262144)
    END = 4,     // id(4) SHA-256(32) of a file; id(4) of a folder
    ABORT = 5,   // id(4) reason(0..512)
    BYE = 6,     // empty
    FOLDER = 7,  // as FILE
    RESUME = 8,  // id(4) SHA-256(32)
    PROOF = 9,   // HMAC(32)
    // of the receiver
    ACCEPT = 0x81,   // id(4) offset(8)
    RESULT = 0x82,   // id(4) status(1) reason(0..512)
    WELCOME = 0x83,  // demands(1) challenge(32)
    VERDICT = 0x84,  // id(4) same(1)
    ALIVE = 0x85,    // empty
    DROPPED = 0x86,  // reason(0..512)
    PROVED = 0x89    // HMAC(32)
};

constexpr DWORD FRAME_HEADER = 5;
constexpr DWORD DATA_HEADER = FRAME_HEADER + 4;
constexpr DWORD MAX_DATA = 256 * 1024;  // bytes of a file in one DATA frame
constexpr size_t MAX_REASON = 512;
constexpr size_t CHALLENGE_BYTES = 32;
constexpr size_t HASH_BYTES = 32;
constexpr uint64_t UNKNOWN_SIZE = UINT64_MAX;
constexpr DWORD OUT_FOLDER = 0;  // the id of the receiver's directory

// Limits that both ends keep, so that a peer cannot make the other one keep more.
constexpr size_t MOST_IN_FLIGHT = 16;  // files and folders without a result, but for the folders that the walk is in
constexpr size_t MOST_FOLDERS = 64;    // one within the other
constexpr size_t MOST_OPEN = MOST_IN_FLIGHT + MOST_FOLDERS;

// The payload of FILE and FOLDER.
struct FrameEntry {
    DWORD m_dwId = 0;
    DWORD m_dwFolder = OUT_FOLDER;
    DWORD m_dwMode = 0;
    int64_t m_llSeconds = 0;  // of the last change, since 1970
    DWORD m_dwNanoseconds = 0;
    uint64_t m_ullSize = 0;  // of a file; UNKNOWN_SIZE: not known yet
    std::string m_strName;
};

// Whole frames. Reasons are cut at MAX_REASON.
std::string EncodeFrame(EFrame aType, std::string_view aPayload = {});
std::string EncodeHello(std::string_view aChallenge);
std::string EncodeWelcome(bool aDemands, std::string_view aChallenge);
std::string EncodeEntry(EFrame aType, const FrameEntry& aEntry);
// A frame with an id: END, RESUME or ABORT.
std::string EncodeFor(EFrame aType, DWORD aId, std::string_view aRest = {});
std::string EncodeAccept(DWORD aId, uint64_t aOffset);
std::string EncodeVerdict(DWORD aId, bool aSame);
std::string EncodeResult(DWORD aId, bool aKept, std::string_view aReason);

// DATA_HEADER bytes, behind which the caller puts aLength bytes of the file.
std::string EncodeDataHeader(DWORD aId, DWORD aLength);

// Decode payloads. false: not a valid payload of the frame.
bool DecodeHello(std::string_view aPayload, std::string& aChallenge);
bool DecodeWelcome(std::string_view aPayload, bool& aDemands, std::string& aChallenge);
bool DecodeEntry(std::string_view aPayload, FrameEntry& aEntry);
// Of a frame with an id. The length has been checked.
DWORD DecodeId(std::string_view aPayload);
uint64_t DecodeOffset(std::string_view aPayload);
bool DecodeResult(std::string_view aPayload, bool& aKept, std::string& aReason);

// Receives the output of a FrameParser. Both operations return false to stop the parser.
class FrameSink {
public:
    virtual bool OnFrame(EFrame aType, std::string_view aPayload) = 0;  // a whole frame of any type but DATA
    virtual bool OnData(DWORD aId, std::string_view aPiece) = 0;        // a part of a DATA frame's bytes, never empty
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

    std::string m_strKept;  // the part of the header that has arrived, then the payload, or the id of DATA
    bool m_bInPayload = false;
    EFrame m_Type = EFrame::HELLO;
    DWORD m_dwLeft = 0;  // payload bytes still missing
};

}  // namespace tool

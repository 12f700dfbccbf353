#include "tools/frame.h"

#include <algorithm>

namespace tool {

namespace {

constexpr std::string_view MAGIC = "TALVO";
constexpr char VERSION = 1;
constexpr DWORD SIZE_BYTES = 8;
constexpr DWORD HASH_BYTES = 32;
constexpr DWORD MAX_NAME = 255;

struct Limits {
    EFrame m_Type;
    DWORD m_dwMin, m_dwMax;  // of the payload
};

constexpr Limits LIMITS[] = {
    {EFrame::HELLO, MAGIC.size() + 1, MAGIC.size() + 1},
    {EFrame::FILE, SIZE_BYTES + 1, SIZE_BYTES + MAX_NAME},
    {EFrame::DATA, 1, MAX_DATA},
    {EFrame::END, HASH_BYTES, HASH_BYTES},
    {EFrame::ABORT, 0, MAX_REASON},
    {EFrame::BYE, 0, 0},
    {EFrame::ACCEPT, 0, 0},
    {EFrame::RESULT, 1, 1 + MAX_REASON},
};

bool IsAllowed(EFrame aType, DWORD aLength) {
    return std::any_of(std::begin(LIMITS), std::end(LIMITS),
                       [=](const Limits& a) { return a.m_Type == aType && a.m_dwMin <= aLength && aLength <= a.m_dwMax; });
}

void WriteHeader(CCmMessageBlock& aBlock, EFrame aType, DWORD aLength) {
    CCmByteStreamNetwork stream(aBlock);
    stream << static_cast<BYTE>(aType) << aLength;
}

}  // namespace

std::string EncodeFrame(EFrame aType, std::string_view aPayload) {
    CCmMessageBlock block(FRAME_HEADER);
    WriteHeader(block, aType, static_cast<DWORD>(aPayload.size()));
    return block.FlattenChained().append(aPayload);
}

std::string EncodeHello() { return EncodeFrame(EFrame::HELLO, std::string(MAGIC) + VERSION); }

std::string EncodeFile(uint64_t aSize, std::string_view aName) {
    CCmMessageBlock block(SIZE_BYTES);
    CCmByteStreamNetwork stream(block);
    stream << static_cast<DWORD>(aSize >> 32) << static_cast<DWORD>(aSize);
    return EncodeFrame(EFrame::FILE, block.FlattenChained().append(aName));
}

std::string EncodeAbort(std::string_view aReason) { return EncodeFrame(EFrame::ABORT, aReason.substr(0, MAX_REASON)); }

std::string EncodeResult(bool aKept, std::string_view aReason) {
    return EncodeFrame(EFrame::RESULT, std::string(1, aKept ? '\0' : '\1').append(aReason.substr(0, MAX_REASON)));
}

void WriteDataHeader(CCmMessageBlock& aBlock, DWORD aLength) { WriteHeader(aBlock, EFrame::DATA, aLength); }

bool DecodeHello(std::string_view aPayload) { return aPayload == std::string(MAGIC) + VERSION; }

bool DecodeFile(std::string_view aPayload, uint64_t& aSize, std::string& aName) {
    const auto dwLength = static_cast<DWORD>(aPayload.size());
    CCmMessageBlock block(dwLength, aPayload.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    CCmByteStreamNetwork stream(block);
    DWORD dwHigh = 0, dwLow = 0;
    stream >> dwHigh >> dwLow;
    if (stream.GetReadResult() != CM_OK)
        return false;
    aSize = uint64_t{dwHigh} << 32 | dwLow;
    aName = block.FlattenChained();
    return true;
}

bool DecodeResult(std::string_view aPayload, bool& aKept, std::string& aReason) {
    if (aPayload.empty() || static_cast<BYTE>(aPayload[0]) > 1)
        return false;
    aKept = aPayload[0] == 0;
    aReason = aPayload.substr(1);
    return true;
}

FrameParser::EResult FrameParser::Feed(const CCmMessageBlock& aChain, FrameSink& aSink) {
    for (const CCmMessageBlock* p = &aChain; p; p = p->GetNext()) {
        const EResult result = Feed({p->GetTopLevelReadPtr(), p->GetTopLevelLength()}, aSink);
        if (result != ALL_READ)
            return result;
    }
    return ALL_READ;
}

FrameParser::EResult FrameParser::Feed(std::string_view aBytes, FrameSink& aSink) {
    EResult result = ALL_READ;
    while (!aBytes.empty() && result == ALL_READ)
        result = m_bInPayload ? FeedPayload(aBytes, aSink) : FeedHeader(aBytes, aSink);
    return result;
}

FrameParser::EResult FrameParser::FeedHeader(std::string_view& aBytes, FrameSink& aSink) {
    Collect(aBytes, FRAME_HEADER);
    if (m_strKept.size() < FRAME_HEADER)
        return ALL_READ;
    CCmMessageBlock block(FRAME_HEADER, m_strKept.data(), CCmMessageBlock::DONT_DELETE, FRAME_HEADER);
    CCmByteStreamNetwork stream(block);
    BYTE cType = 0;
    stream >> cType >> m_dwLeft;
    m_strKept.clear();
    m_Type = static_cast<EFrame>(cType);
    if (!IsAllowed(m_Type, m_dwLeft))
        return BROKEN;
    m_bInPayload = true;
    return m_dwLeft == 0 ? Deliver(aSink) : ALL_READ;
}

FrameParser::EResult FrameParser::FeedPayload(std::string_view& aBytes, FrameSink& aSink) {
    if (m_Type == EFrame::DATA)
        return FeedData(aBytes, aSink);
    const size_t before = m_strKept.size();
    Collect(aBytes, before + m_dwLeft);
    m_dwLeft -= static_cast<DWORD>(m_strKept.size() - before);
    return m_dwLeft == 0 ? Deliver(aSink) : ALL_READ;
}

FrameParser::EResult FrameParser::FeedData(std::string_view& aBytes, FrameSink& aSink) {
    const std::string_view piece = aBytes.substr(0, m_dwLeft);
    aBytes.remove_prefix(piece.size());
    m_dwLeft -= static_cast<DWORD>(piece.size());
    m_bInPayload = m_dwLeft > 0;
    return aSink.OnData(piece) ? ALL_READ : STOPPED;
}

FrameParser::EResult FrameParser::Deliver(FrameSink& aSink) {
    std::string strPayload;
    strPayload.swap(m_strKept);
    m_bInPayload = false;
    return aSink.OnFrame(m_Type, strPayload) ? ALL_READ : STOPPED;
}

void FrameParser::Collect(std::string_view& aBytes, size_t aUpTo) {
    const std::string_view piece = aBytes.substr(0, aUpTo - m_strKept.size());
    m_strKept.append(piece);
    aBytes.remove_prefix(piece.size());
}

}  // namespace tool

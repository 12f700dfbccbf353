#include "tools/frame.h"

#include <algorithm>

namespace tool {

namespace {

constexpr std::string_view MAGIC = "TALVO";
constexpr char VERSION = 2;
constexpr DWORD ID_BYTES = 4;
constexpr DWORD ENTRY_BYTES = 4 * ID_BYTES + 8 + 8;  // before the name
constexpr DWORD MAX_NAME = 255;

struct Limits {
    EFrame m_Type;
    DWORD m_dwMin, m_dwMax;  // of the payload
};

constexpr Limits LIMITS[] = {
    {EFrame::HELLO, MAGIC.size() + 1, MAGIC.size() + 1 + CHALLENGE_BYTES},
    {EFrame::FILE, ENTRY_BYTES + 1, ENTRY_BYTES + MAX_NAME},
    {EFrame::DATA, ID_BYTES + 1, ID_BYTES + MAX_DATA},
    {EFrame::END, ID_BYTES, ID_BYTES + HASH_BYTES},
    {EFrame::ABORT, ID_BYTES, ID_BYTES + MAX_REASON},
    {EFrame::BYE, 0, 0},
    {EFrame::FOLDER, ENTRY_BYTES + 1, ENTRY_BYTES + MAX_NAME},
    {EFrame::RESUME, ID_BYTES + HASH_BYTES, ID_BYTES + HASH_BYTES},
    {EFrame::PROOF, HASH_BYTES, HASH_BYTES},
    {EFrame::ACCEPT, ID_BYTES + 8, ID_BYTES + 8},
    {EFrame::RESULT, ID_BYTES + 1, ID_BYTES + 1 + MAX_REASON},
    {EFrame::WELCOME, 1 + CHALLENGE_BYTES, 1 + CHALLENGE_BYTES},
    {EFrame::VERDICT, ID_BYTES + 1, ID_BYTES + 1},
    {EFrame::ALIVE, 0, 0},
    {EFrame::DROPPED, 0, MAX_REASON},
    {EFrame::PROVED, HASH_BYTES, HASH_BYTES},
};

bool IsAllowed(EFrame aType, DWORD aLength) {
    return std::any_of(std::begin(LIMITS), std::end(LIMITS),
                       [=](const Limits& a) { return a.m_Type == aType && a.m_dwMin <= aLength && aLength <= a.m_dwMax; });
}

// Big-endian, of the number's own width.
template <class Number>
void Put(std::string& aText, Number aValue) {
    for (size_t i = sizeof(aValue); i-- > 0;)
        aText += static_cast<char>(static_cast<uint64_t>(aValue) >> 8 * i);
}

// aBytes is long enough, and loses what was taken.
template <class Number>
void Take(std::string_view& aBytes, Number& aValue) {
    uint64_t ullValue = 0;
    for (size_t i = 0; i < sizeof(aValue); ++i)
        ullValue = ullValue << 8 | static_cast<BYTE>(aBytes[i]);
    aValue = static_cast<Number>(ullValue);
    aBytes.remove_prefix(sizeof(aValue));
}

std::string MakeHeader(EFrame aType, size_t aLength) {
    std::string strHeader(1, static_cast<char>(aType));
    Put(strHeader, static_cast<DWORD>(aLength));
    return strHeader;
}

}  // namespace

std::string EncodeFrame(EFrame aType, std::string_view aPayload) { return MakeHeader(aType, aPayload.size()).append(aPayload); }

std::string EncodeHello(std::string_view aChallenge) {
    return EncodeFrame(EFrame::HELLO, (std::string(MAGIC) + VERSION).append(aChallenge));
}

std::string EncodeWelcome(bool aDemands, std::string_view aChallenge) {
    return EncodeFrame(EFrame::WELCOME, std::string(1, aDemands ? '\1' : '\0').append(aChallenge));
}

std::string EncodeEntry(EFrame aType, const FrameEntry& aEntry) {
    std::string strPayload;
    Put(strPayload, aEntry.m_dwId);
    Put(strPayload, aEntry.m_dwFolder);
    Put(strPayload, aEntry.m_dwMode);
    Put(strPayload, aEntry.m_llSeconds);
    Put(strPayload, aEntry.m_dwNanoseconds);
    Put(strPayload, aEntry.m_ullSize);
    return EncodeFrame(aType, strPayload.append(aEntry.m_strName));
}

std::string EncodeFor(EFrame aType, DWORD aId, std::string_view aRest) {
    std::string strPayload;
    Put(strPayload, aId);
    return EncodeFrame(aType, strPayload.append(aRest.substr(0, MAX_REASON)));
}

std::string EncodeAccept(DWORD aId, uint64_t aOffset) {
    std::string strOffset;
    Put(strOffset, aOffset);
    return EncodeFor(EFrame::ACCEPT, aId, strOffset);
}

std::string EncodeVerdict(DWORD aId, bool aSame) {
    return EncodeFor(EFrame::VERDICT, aId, std::string(1, aSame ? '\1' : '\0'));
}

std::string EncodeResult(DWORD aId, bool aKept, std::string_view aReason) {
    std::string strPayload;
    Put(strPayload, aId);
    return EncodeFrame(EFrame::RESULT, strPayload.append(1, aKept ? '\0' : '\1').append(aReason.substr(0, MAX_REASON)));
}

std::string EncodeDataHeader(DWORD aId, DWORD aLength) {
    std::string strHeader = MakeHeader(EFrame::DATA, ID_BYTES + aLength);
    Put(strHeader, aId);
    return strHeader;
}

bool DecodeHello(std::string_view aPayload, std::string& aChallenge) {
    const std::string strBegin = std::string(MAGIC) + VERSION;
    if (!aPayload.starts_with(strBegin) || aPayload.size() != strBegin.size() + CHALLENGE_BYTES)
        return false;
    aChallenge = aPayload.substr(strBegin.size());
    return true;
}

bool DecodeWelcome(std::string_view aPayload, bool& aDemands, std::string& aChallenge) {
    if (static_cast<BYTE>(aPayload[0]) > 1)
        return false;
    aDemands = aPayload[0] == 1;
    aChallenge = aPayload.substr(1);
    return true;
}

bool DecodeEntry(std::string_view aPayload, FrameEntry& aEntry) {
    Take(aPayload, aEntry.m_dwId);
    Take(aPayload, aEntry.m_dwFolder);
    Take(aPayload, aEntry.m_dwMode);
    Take(aPayload, aEntry.m_llSeconds);
    Take(aPayload, aEntry.m_dwNanoseconds);
    Take(aPayload, aEntry.m_ullSize);
    aEntry.m_strName = aPayload;
    return aEntry.m_dwId != OUT_FOLDER;
}

DWORD DecodeId(std::string_view aPayload) {
    DWORD dwId = 0;
    Take(aPayload, dwId);
    return dwId;
}

uint64_t DecodeOffset(std::string_view aPayload) {
    uint64_t ullOffset = 0;
    aPayload.remove_prefix(ID_BYTES);
    Take(aPayload, ullOffset);
    return ullOffset;
}

bool DecodeResult(std::string_view aPayload, bool& aKept, std::string& aReason) {
    if (static_cast<BYTE>(aPayload[ID_BYTES]) > 1)
        return false;
    aKept = aPayload[ID_BYTES] == 0;
    aReason = aPayload.substr(ID_BYTES + 1);
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
    std::string_view header = m_strKept;
    BYTE cType = 0;
    Take(header, cType);
    Take(header, m_dwLeft);
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
    const size_t stBefore = m_strKept.size();
    Collect(aBytes, ID_BYTES);
    m_dwLeft -= static_cast<DWORD>(m_strKept.size() - stBefore);
    if (m_strKept.size() < ID_BYTES || aBytes.empty())
        return ALL_READ;
    const DWORD dwId = DecodeId(m_strKept);
    const std::string_view piece = aBytes.substr(0, m_dwLeft);
    aBytes.remove_prefix(piece.size());
    m_dwLeft -= static_cast<DWORD>(piece.size());
    m_bInPayload = m_dwLeft > 0;
    if (!m_bInPayload)
        m_strKept.clear();
    return aSink.OnData(dwId, piece) ? ALL_READ : STOPPED;
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

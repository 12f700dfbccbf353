#include "talvo/http/message/ntlm_message.h"

#include <algorithm>
#include <iterator>

#include "talvo/base/clock.h"
#include "talvo/base/random_source.h"
#include "talvo/http/message/ntlm_hash.h"

namespace talvo {

namespace {

//  each message:   0 "NTLMSSP\0" | 8 type
//  negotiate:      12 flags | 16 domain | 24 workstation
//  challenge:      12 target name | 20 flags | 24 challenge | 32 reserved | 40 target info | 48 version, texts
//  authenticate:   12 LM response | 20 NT response | 28 domain | 36 user | 44 workstation | 52 session key | 60 flags
//                  64 version | 72 MIC, if there is one | texts
//  a field:        0 length | 2 again | 4 offset                                              all little-endian
constexpr std::string_view SIGNATURE("NTLMSSP\0", 8);
constexpr size_t CHALLENGE_HEAD = 48;
constexpr size_t AUTHENTICATE_HEAD = 72;
constexpr size_t MIC = 16;
constexpr std::string_view WORKSTATION = "WORKSTATION";  // the same for all: the machine's name is not the server's business

constexpr DWORD UNICODE = 0x1;
constexpr DWORD TARGET_INFO = 0x800000;
// Also: send the target, NTLM, always sign, extended session security. Sealing and signing do not exist over HTTP.
constexpr DWORD OUR_FLAGS = UNICODE | 0x4 | 0x200 | 0x8000 | 0x80000 | TARGET_INFO;

enum EPair : unsigned { PAIR_END = 0, PAIR_FLAGS = 6, PAIR_TIMESTAMP = 7, PAIR_TARGET = 9 };
constexpr DWORD FLAG_MIC = 0x2;

unsigned ReadWord(std::string_view aBytes, size_t aAt) {
    return static_cast<unsigned char>(aBytes[aAt]) | unsigned{static_cast<unsigned char>(aBytes[aAt + 1])} << 8;
}

DWORD ReadDword(std::string_view aBytes, size_t aAt) { return ReadWord(aBytes, aAt) | ReadWord(aBytes, aAt + 2) << 16; }

CCmString Word(size_t aValue) { return {static_cast<char>(aValue & 0xFF), static_cast<char>(aValue >> 8 & 0xFF)}; }

CCmString Dword(size_t aValue) { return Word(aValue) + Word(aValue >> 16); }

template <size_t SIZE>
std::string_view View(const std::array<char, SIZE>& aBytes) {
    return {aBytes.data(), SIZE};
}

// aText (out): of the field at aAt of a challenge. FALSE: it reaches outside.
BOOL ReadField(std::string_view aMessage, size_t aAt, std::string_view& aText) {
    const size_t stLength = ReadWord(aMessage, aAt);
    const size_t stOffset = ReadDword(aMessage, aAt + 4);
    if (stLength % 2 != 0)
        return FALSE;
    if (stLength > 0 && (stOffset < CHALLENGE_HEAD || stOffset > aMessage.size() || stLength > aMessage.size() - stOffset))
        return FALSE;
    aText = stLength > 0 ? aMessage.substr(stOffset, stLength) : std::string_view();
    return TRUE;
}

// FALSE: a length that the pair cannot have.
BOOL ReadPair(unsigned aId, std::string_view aValue, CNtlmChallenge& aChallenge) {
    if (aId == PAIR_FLAGS && aValue.size() == 4)
        aChallenge.m_dwTargetFlags = ReadDword(aValue, 0);
    if (aId == PAIR_TIMESTAMP && aValue.size() == 8) {
        aChallenge.m_bTimestamp = TRUE;
        std::copy(aValue.begin(), aValue.end(), aChallenge.m_Timestamp.begin());
    }
    const BOOL bWrongFlags = aId == PAIR_FLAGS && aValue.size() != 4;
    const BOOL bWrongTime = aId == PAIR_TIMESTAMP && aValue.size() != 8;
    return !bWrongFlags && !bWrongTime && aValue.size() % 2 == 0;
}

// FALSE: the list does not end.
BOOL ReadPairs(std::string_view aList, CNtlmChallenge& aChallenge) {
    for (std::string_view rest = aList; rest.size() >= 4;) {
        const unsigned dwId = ReadWord(rest, 0);
        const size_t stLength = ReadWord(rest, 2);
        if (stLength > rest.size() - 4)
            return FALSE;
        if (dwId == PAIR_END) {
            aChallenge.m_strTargetInfo = aList.substr(0, aList.size() - rest.size());
            return stLength == 0;
        }
        if (!ReadPair(dwId, rest.substr(4, stLength), aChallenge))
            return FALSE;
        rest.remove_prefix(4 + stLength);
    }
    return FALSE;
}

// The server's list; with the flag of the MIC, if there will be one.
CCmString MakePairs(const CNtlmChallenge& aChallenge) {
    if (!aChallenge.m_bTimestamp)
        return aChallenge.m_strTargetInfo + Dword(PAIR_END);
    CCmString strPairs;
    for (std::string_view rest = aChallenge.m_strTargetInfo; !rest.empty();) {
        const std::string_view pair = rest.substr(0, 4 + ReadWord(rest, 2));
        if (ReadWord(pair, 0) != PAIR_FLAGS)
            strPairs += pair;
        rest.remove_prefix(pair.size());
    }
    return strPairs + Word(PAIR_FLAGS) + Word(4) + Dword(aChallenge.m_dwTargetFlags | FLAG_MIC) + Dword(PAIR_END);
}

struct CNames {
    CCmSecret m_User;
    CCmSecret m_Domain;
    CCmSecret m_Password;
    CCmSecret m_Workstation;
};

CmResult MakeNames(const CCmCredentials& aCredentials, CNames& aNames) {
    const std::string_view user = aCredentials.m_User.Get();
    const size_t stSlash = user.find('\\');
    const BOOL bDomain = stSlash != std::string_view::npos;
    CmResult rv = ToUtf16(bDomain ? user.substr(stSlash + 1) : user, aNames.m_User);
    if (rv == CM_OK)
        rv = ToUtf16(bDomain ? user.substr(0, stSlash) : "", aNames.m_Domain);
    if (rv == CM_OK)
        rv = ToUtf16(aCredentials.m_Password.Get(), aNames.m_Password);
    if (rv == CM_OK)
        rv = ToUtf16(WORKSTATION, aNames.m_Workstation);
    const BOOL bFits = aNames.m_User.Get().size() <= UINT16_MAX && aNames.m_Domain.Get().size() <= UINT16_MAX;
    return rv == CM_OK && !bFits ? CM_ERROR_INVALID_ARG : rv;
}

struct CResponses {
    CCmString m_strLm;
    CCmString m_strNt;
    CNtlmKey m_SessionKey;
};

BOOL MakeResponses(const CNtlmKey& aKey, const CNtlmChallenge& aChallenge, const CNtlmChance& aChance, CResponses& aResponses) {
    const std::string_view server = View(aChallenge.m_Challenge);
    const std::string_view client = View(aChance.m_ClientChallenge);
    const std::string_view time = View(aChallenge.m_bTimestamp ? aChallenge.m_Timestamp : aChance.m_Time);
    CCmString strBlob("\1\1\0\0\0\0\0\0", 8);
    strBlob.append(time).append(client).append(4, '\0').append(MakePairs(aChallenge)).append(4, '\0');
    CNtlmKey proof;
    CNtlmKey lm;
    if (!HmacMd5(aKey, {server, strBlob}, proof) || !HmacMd5(aKey, {proof.View()}, aResponses.m_SessionKey) ||
        !HmacMd5(aKey, {server, client}, lm))
        return FALSE;
    aResponses.m_strNt = CCmString(proof.View()) + strBlob;
    aResponses.m_strLm = aChallenge.m_bTimestamp ? CCmString(24, '\0') : CCmString(lm.View()) + CCmString(client);
    return TRUE;
}

// The message with a MIC of zeros, if there will be one.
CmResult Flatten(const CNames& aNames, const CResponses& aResponses, const CNtlmChallenge& aChallenge, CCmSecret& aMessage) {
    const size_t stHead = AUTHENTICATE_HEAD + (aChallenge.m_bTimestamp ? MIC : 0);
    const std::string_view domain = aNames.m_Domain.Get();
    const std::string_view user = aNames.m_User.Get();
    const std::string_view workstation = aNames.m_Workstation.Get();
    CCmString strHead(SIGNATURE);
    strHead += Dword(3);
    size_t stAt = stHead + domain.size() + user.size() + workstation.size();
    const auto addField = [&](size_t aLength, size_t aOffset) {
        strHead += Word(aLength) + Word(aLength) + Dword(aOffset);
        return aOffset + aLength;
    };
    stAt = addField(aResponses.m_strLm.size(), stAt);
    stAt = addField(aResponses.m_strNt.size(), stAt);
    size_t stNames = addField(domain.size(), stHead);
    stNames = addField(user.size(), stNames);
    addField(workstation.size(), stNames);
    addField(0, stAt);
    strHead += Dword(OUR_FLAGS & aChallenge.m_dwFlags);
    strHead.resize(stHead, '\0');
    return aMessage.Set({strHead, domain, user, workstation, aResponses.m_strLm, aResponses.m_strNt});
}

}  // namespace

CCmString MakeNtlmNegotiate() { return CCmString(SIGNATURE) + Dword(1) + Dword(OUR_FLAGS) + CCmString(16, '\0'); }

BOOL ReadNtlmChallenge(std::string_view aMessage, CNtlmChallenge& aChallenge) {
    aChallenge = CNtlmChallenge();
    if (aMessage.size() < CHALLENGE_HEAD || aMessage.size() > LONGEST_NTLM_MESSAGE)
        return FALSE;
    if (!aMessage.starts_with(SIGNATURE) || ReadDword(aMessage, 8) != 2)
        return FALSE;
    aChallenge.m_dwFlags = ReadDword(aMessage, 20);
    std::copy_n(aMessage.begin() + 24, 8, aChallenge.m_Challenge.begin());
    std::string_view target;
    std::string_view info;
    if (!ReadField(aMessage, 12, target) || !ReadField(aMessage, 40, info))
        return FALSE;
    return (aChallenge.m_dwFlags & UNICODE) && (aChallenge.m_dwFlags & TARGET_INFO) && ReadPairs(info, aChallenge);
}

BOOL CNtlmChance::Roll() {
    constexpr int64_t USEC_1601_TO_1970 = 11'644'473'600'000'000;
    const auto ullTime = static_cast<uint64_t>(CCmClock::GetWallUsec() + USEC_1601_TO_1970) * 10;
    for (size_t i = 0; i < m_Time.size(); ++i)
        m_Time[i] = static_cast<char>(ullTime >> 8 * i & 0xFF);
    return CCmRandomSource::Fill(m_ClientChallenge.data(), m_ClientChallenge.size());
}

CmResult MakeNtlmAuthenticate(const CCmCredentials& aCredentials, std::string_view aNegotiate, std::string_view aMessage,
                              const CNtlmChallenge& aChallenge, const CNtlmChance& aChance, CCmSecret& aAuthenticate) {
    CNames names;
    CmResult rv = MakeNames(aCredentials, names);
    if (rv != CM_OK)
        return rv;
    CNtlmKey key;
    rv = MakeNtlmKey(names.m_User.Get(), names.m_Domain.Get(), names.m_Password.Get(), key);
    CResponses responses;
    if (rv == CM_OK && !MakeResponses(key, aChallenge, aChance, responses))
        rv = CM_ERROR_FAILURE;
    if (rv != CM_OK)
        return rv;
    rv = Flatten(names, responses, aChallenge, aAuthenticate);
    if (rv != CM_OK || !aChallenge.m_bTimestamp)
        return rv;
    CNtlmKey mic;
    const std::string_view zeros = aAuthenticate.Get();
    if (!HmacMd5(responses.m_SessionKey, {aNegotiate, aMessage, zeros}, mic))
        return CM_ERROR_FAILURE;
    return aAuthenticate.Set({zeros.substr(0, AUTHENTICATE_HEAD), mic.View(), zeros.substr(AUTHENTICATE_HEAD + MIC)});
}

}  // namespace talvo

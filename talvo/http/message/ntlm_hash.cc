#include "talvo/http/message/ntlm_hash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <memory>

#include "talvo/http/message/ntlm_md4.h"

namespace talvo {

namespace {

constexpr uint32_t NOT_UTF8 = UINT32_MAX;

// Takes one character from the front of a text that is not empty.
uint32_t TakeCharacter(std::string_view& aText) {
    const auto byteAt = [&](size_t aIndex) { return static_cast<unsigned char>(aText[aIndex]); };
    const unsigned char bFirst = byteAt(0);
    const size_t stLength = bFirst < 0x80   ? 1
                            : bFirst < 0xC2 ? 0
                            : bFirst < 0xE0 ? 2
                            : bFirst < 0xF0 ? 3
                            : bFirst < 0xF5 ? 4
                                            : 0;
    if (stLength == 0 || stLength > aText.size())
        return NOT_UTF8;
    uint32_t dwCharacter = stLength == 1 ? bFirst : bFirst & (0x7Fu >> stLength);
    for (size_t i = 1; i < stLength; ++i) {
        if ((byteAt(i) & 0xC0) != 0x80)
            return NOT_UTF8;
        dwCharacter = dwCharacter << 6 | (byteAt(i) & 0x3Fu);
    }
    aText.remove_prefix(stLength);
    constexpr uint32_t SHORTEST[] = {0, 0, 0x80, 0x800, 0x10000};
    const BOOL bSurrogate = dwCharacter >= 0xD800 && dwCharacter < 0xE000;
    return dwCharacter < SHORTEST[stLength] || dwCharacter > 0x10FFFF || bSurrogate ? NOT_UTF8 : dwCharacter;
}

// Calls aTake with each unit of 16 bits. FALSE: not UTF-8.
template <class Take>
BOOL ForEachUnit(std::string_view aText, const Take& aTake) {
    while (!aText.empty()) {
        const uint32_t dwCharacter = TakeCharacter(aText);
        if (dwCharacter == NOT_UTF8)
            return FALSE;
        if (dwCharacter < 0x10000) {
            aTake(dwCharacter);
        } else {
            aTake(0xD800 + ((dwCharacter - 0x10000) >> 10));
            aTake(0xDC00 + ((dwCharacter - 0x10000) & 0x3FF));
        }
    }
    return TRUE;
}

unsigned Upper(unsigned aUnit) {
    const auto isIn = [=](unsigned aFirst, unsigned aLast) { return aUnit >= aFirst && aUnit <= aLast; };
    if (isIn('a', 'z') || (isIn(0xE0, 0xFE) && aUnit != 0xF7) || (isIn(0x3B1, 0x3CB) && aUnit != 0x3C2) || isIn(0x430, 0x44F))
        return aUnit - 0x20;
    if (isIn(0x450, 0x45F))
        return aUnit - 0x50;
    return aUnit == 0xFF ? 0x178 : aUnit;
}

}  // namespace

CNtlmKey::~CNtlmKey() { OPENSSL_cleanse(data(), size()); }

CmResult ToUtf16(std::string_view aUtf8, CCmSecret& aText) {
    size_t stUnits = 0;
    if (!ForEachUnit(aUtf8, [&](uint32_t) { ++stUnits; }))
        return CM_ERROR_INVALID_ARG;
    return aText.Fill(stUnits * 2, [&](char* aTo) {
        ForEachUnit(aUtf8, [&](uint32_t aUnit) {
            *aTo++ = static_cast<char>(aUnit & 0xFF);
            *aTo++ = static_cast<char>(aUnit >> 8);
        });
    });
}

void UpperUtf16(char* aText, size_t aLength) {
    for (size_t i = 0; i + 1 < aLength; i += 2) {
        const unsigned dwUnit = static_cast<unsigned char>(aText[i]) | unsigned{static_cast<unsigned char>(aText[i + 1])} << 8;
        const unsigned dwUpper = Upper(dwUnit);
        aText[i] = static_cast<char>(dwUpper & 0xFF);
        aText[i + 1] = static_cast<char>(dwUpper >> 8);
    }
}

BOOL HmacMd5(const CNtlmKey& aKey, std::initializer_list<std::string_view> aParts, CNtlmKey& aHash) {
    const std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> pMac(EVP_MAC_fetch(nullptr, "HMAC", nullptr), EVP_MAC_free);
    if (!pMac)
        return FALSE;
    const std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> pContext(EVP_MAC_CTX_new(pMac.get()), EVP_MAC_CTX_free);
    char szDigest[] = "MD5";
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string("digest", szDigest, 0), OSSL_PARAM_construct_end()};
    if (!pContext || EVP_MAC_init(pContext.get(), aKey.data(), aKey.size(), parameters) != 1)
        return FALSE;
    for (const std::string_view part : aParts) {
        if (EVP_MAC_update(pContext.get(), reinterpret_cast<const unsigned char*>(part.data()), part.size()) != 1)
            return FALSE;
    }
    size_t stLength = 0;
    return EVP_MAC_final(pContext.get(), aHash.data(), &stLength, aHash.size()) == 1 && stLength == aHash.size();
}

CmResult MakeNtlmKey(std::string_view aUser, std::string_view aDomain, std::string_view aPassword, CNtlmKey& aKey) {
    CCmSecret upper;
    const CmResult rv = upper.Fill(aUser.size(), [&](char* aTo) {
        std::copy(aUser.begin(), aUser.end(), aTo);
        UpperUtf16(aTo, aUser.size());
    });
    if (rv != CM_OK)
        return rv;
    CNtlmKey hash;
    return Md4(aPassword, hash) && HmacMd5(hash, {upper.Get(), aDomain}, aKey) ? CM_OK : CM_ERROR_FAILURE;
}

}  // namespace talvo

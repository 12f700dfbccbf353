#include "talvo/http/message/http_offer.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <vector>

#include "talvo/http/message/http_challenge.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

namespace {

CCmString ValueOf(const CHttpChallenge& aChallenge, std::string_view aName) {
    const CCmString* pValue = aChallenge.Find(aName);
    return pValue ? *pValue : CCmString();
}

CCmString Unquoted(std::string_view aText) {
    CCmString strText;
    for (size_t i = 0; i < aText.size(); ++i) {
        if (aText[i] == '\\' && i + 1 < aText.size())
            ++i;
        strText += aText[i];
    }
    return strText;
}

EHttpScheme JudgeDigest(const CHttpChallenge& aChallenge) {
    if (!aChallenge.Find("realm") || !aChallenge.Find("nonce"))
        return EHttpScheme::NONE;
    for (const auto& [strName, strValue] : aChallenge.m_Parameters) {
        if (has_control(strValue))
            return EHttpScheme::NONE;
    }
    const CCmString* pQop = aChallenge.Find("qop");
    if (pQop && !has_token(*pQop, "auth"))
        return EHttpScheme::NONE;
    const CCmString* pAlgorithm = aChallenge.Find("algorithm");
    if (!pAlgorithm || equal_no_case(*pAlgorithm, "MD5"))
        return EHttpScheme::DIGEST_MD5;
    return equal_no_case(*pAlgorithm, "SHA-256") ? EHttpScheme::DIGEST_SHA256 : EHttpScheme::NONE;
}

EHttpScheme Judge(const CHttpChallenge& aChallenge, BOOL aNtlm) {
    if (aChallenge.m_strScheme == "basic")
        return EHttpScheme::BASIC;
    if (aChallenge.m_strScheme == "digest")
        return JudgeDigest(aChallenge);
    return aNtlm && aChallenge.m_strScheme == "ntlm" ? EHttpScheme::NTLM : EHttpScheme::NONE;
}

CHttpDigest MakeDigest(const CHttpChallenge& aChallenge, EHttpScheme aScheme) {
    CHttpDigest digest;
    digest.m_Hash = aScheme == EHttpScheme::DIGEST_SHA256 ? EHttpHash::SHA256 : EHttpHash::MD5;
    digest.m_strAlgorithm = ValueOf(aChallenge, "algorithm");
    digest.m_strRealm = ValueOf(aChallenge, "realm");
    digest.m_strNonce = ValueOf(aChallenge, "nonce");
    digest.m_strOpaque = ValueOf(aChallenge, "opaque");
    digest.m_bOpaque = aChallenge.Find("opaque") != nullptr;
    digest.m_bQopAuth = aChallenge.Find("qop") != nullptr;
    digest.m_strClientNonce = digest.m_bQopAuth ? HttpRandomHex() : CCmString();
    return digest;
}

// "Basic" and the text in base64, written in place: ordinary strings would leave copies.
CmResult MakeBasic(std::string_view aText, CCmSecret& aValue) {
    static constexpr std::string_view SCHEME = "Basic ";
    return aValue.Fill(SCHEME.size() + (aText.size() + 2) / 3 * 4, [&](char* aTo) {
        aTo = std::copy(SCHEME.begin(), SCHEME.end(), aTo);
        unsigned char letters[5];
        for (size_t n = 0; n < aText.size(); n += 3, aTo += 4) {
            const auto* pFrom = reinterpret_cast<const unsigned char*>(aText.data() + n);
            EVP_EncodeBlock(letters, pFrom, static_cast<int>(std::min<size_t>(aText.size() - n, 3)));
            std::copy_n(letters, 4, aTo);
        }
        OPENSSL_cleanse(letters, sizeof letters);
    });
}

}  // namespace

const char* HttpSchemeName(EHttpScheme aScheme) {
    switch (aScheme) {
    case EHttpScheme::NONE:
        return "";
    case EHttpScheme::BASIC:
        return "basic";
    case EHttpScheme::NTLM:
        return "ntlm";
    case EHttpScheme::DIGEST_MD5:
    case EHttpScheme::DIGEST_SHA256:
        return "digest";
    }
    return "";
}

CmResult CHttpOffer::Answer(const CCmCredentials& aCredentials, std::string_view aMethod, std::string_view aUri,
                            CCmSecret& aValue) {
    const std::string_view user = aCredentials.m_User.Get();
    const std::string_view password = aCredentials.m_Password.Get();
    if (IsDigest()) {
        ++m_Digest.m_dwCount;
        return aValue.Set(m_Digest.Answer(user, password, aMethod, aUri));
    }
    CCmSecret both;
    const CmResult rv = both.Set({user, ":", password});
    return rv == CM_OK ? MakeBasic(both.Get(), aValue) : rv;
}

CHttpOffer ReadHttpOffer(std::string_view aChallenges, BOOL aNtlm) {
    const std::vector<CHttpChallenge> challenges = ParseHttpChallenges(aChallenges);
    CHttpOffer offer;
    const CHttpChallenge* pBest = nullptr;
    for (const CHttpChallenge& challenge : challenges) {
        const EHttpScheme scheme = Judge(challenge, aNtlm);
        if (scheme > offer.m_Scheme) {
            offer.m_Scheme = scheme;
            pBest = &challenge;
        }
    }
    if (!pBest)
        return offer;
    if (offer.m_Scheme == EHttpScheme::NTLM)
        offer.m_strNtlmToken = pBest->m_strToken;
    else
        offer.m_strRealm = Unquoted(ValueOf(*pBest, "realm"));
    if (offer.IsDigest()) {
        offer.m_Digest = MakeDigest(*pBest, offer.m_Scheme);
        offer.m_bStale = equal_no_case(ValueOf(*pBest, "stale"), "true");
    }
    return offer;
}

BOOL IsHttpUsable(std::string_view aUser, std::string_view aPassword) {
    return !has_control(aUser) && !has_control(aPassword) && aUser.find(':') == std::string_view::npos;
}

}  // namespace talvo

#include "talvo/http/message/http_auth.h"

#include <cstdio>

#include "talvo/base/base64.h"
#include "talvo/http/message/http_challenge.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

namespace {

constexpr DWORD MAX_STALE = 3;

CCmString Quoted(std::string_view aText) {
    CCmString strQuoted = "\"";
    for (const char c : aText) {
        if (c == '"' || c == '\\')
            strQuoted += '\\';
        strQuoted += c;
    }
    return strQuoted + '"';
}

CCmString ValueOf(const CHttpChallenge& aChallenge, std::string_view aName) {
    const CCmString* pValue = aChallenge.Find(aName);
    return pValue ? *pValue : CCmString();
}

}  // namespace

CCmString CHttpDigest::Answer(const CCmString& aUser, const CCmString& aPassword, std::string_view aMethod,
                              std::string_view aUri) const {
    const CCmString strUri(aUri);
    const CCmString strSecret = HttpHashHex(m_Hash, aUser + ":" + m_strRealm + ":" + aPassword);
    const CCmString strRequest = HttpHashHex(m_Hash, CCmString(aMethod) + ":" + strUri);
    char szCount[9];
    std::snprintf(szCount, sizeof szCount, "%08x", m_dwCount);
    const CCmString strMiddle = m_bQopAuth ? m_strNonce + ":" + szCount + ":" + m_strClientNonce + ":auth" : m_strNonce;
    const CCmString strResponse = HttpHashHex(m_Hash, strSecret + ":" + strMiddle + ":" + strRequest);
    if (strSecret.empty() || strRequest.empty() || strResponse.empty())
        return {};
    // Realm, nonce and opaque are sent back unchanged, with the backslashes between their quotes.
    CCmString strValue = "Digest username=" + Quoted(aUser) + ", realm=\"" + m_strRealm + "\", nonce=\"" + m_strNonce +
                         "\", uri=\"" + strUri + "\", response=\"" + strResponse + "\"";
    if (!m_strAlgorithm.empty())
        strValue += ", algorithm=" + m_strAlgorithm;
    if (m_bOpaque)
        strValue += ", opaque=\"" + m_strOpaque + "\"";
    if (m_bQopAuth)
        strValue += ", qop=auth, nc=" + CCmString(szCount) + ", cnonce=\"" + m_strClientNonce + "\"";
    return strValue;
}

CmResult CHttpAuthenticator::SetCredentials(const CCmString& aUser, const CCmString& aPassword) {
    if (has_control(aUser) || has_control(aPassword) || aUser.find(':') != CCmString::npos)
        return CM_ERROR_INVALID_ARG;
    Forget();
    m_bCredentials = TRUE;
    m_strUser = aUser;
    m_strPassword = aPassword;
    return CM_OK;
}

BOOL CHttpAuthenticator::OnChallenges(std::string_view aValue) {
    if (!m_bCredentials)
        return FALSE;
    const std::vector<CHttpChallenge> challenges = ParseHttpChallenges(aValue);
    const CHttpChallenge* pBest = nullptr;
    EScheme best = NONE;
    for (const CHttpChallenge& challenge : challenges) {
        const EScheme scheme = Judge_i(challenge);
        if (scheme > best) {
            best = scheme;
            pBest = &challenge;
        }
    }
    if (best == NONE)
        return FALSE;
    if (m_Scheme != NONE) {
        const BOOL bStale = best != BASIC && equal_no_case(ValueOf(*pBest, "stale"), "true");
        if (!bStale || m_dwStale++ == MAX_STALE)
            return FALSE;
    }
    m_Scheme = best;
    Take_i(*pBest);
    return TRUE;
}

// Refuses unsupported challenges: another algorithm, a qop without auth, a text that would break the header.
CHttpAuthenticator::EScheme CHttpAuthenticator::Judge_i(const CHttpChallenge& aChallenge) const {
    if (aChallenge.m_strScheme == "basic")
        return BASIC;
    if (aChallenge.m_strScheme != "digest" || !aChallenge.Find("realm") || !aChallenge.Find("nonce"))
        return NONE;
    for (const auto& [strName, strValue] : aChallenge.m_Parameters) {
        if (has_control(strValue))
            return NONE;
    }
    const CCmString* pQop = aChallenge.Find("qop");
    if (pQop && !has_token(*pQop, "auth"))
        return NONE;
    const CCmString* pAlgorithm = aChallenge.Find("algorithm");
    if (!pAlgorithm || equal_no_case(*pAlgorithm, "MD5"))
        return DIGEST_MD5;
    return equal_no_case(*pAlgorithm, "SHA-256") ? DIGEST_SHA256 : NONE;
}

void CHttpAuthenticator::Take_i(const CHttpChallenge& aChallenge) {
    m_Digest = CHttpDigest();
    m_Digest.m_Hash = m_Scheme == DIGEST_SHA256 ? EHttpHash::SHA256 : EHttpHash::MD5;
    m_Digest.m_strAlgorithm = ValueOf(aChallenge, "algorithm");
    m_Digest.m_strRealm = ValueOf(aChallenge, "realm");
    m_Digest.m_strNonce = ValueOf(aChallenge, "nonce");
    m_Digest.m_strOpaque = ValueOf(aChallenge, "opaque");
    m_Digest.m_bOpaque = aChallenge.Find("opaque") != nullptr;
    m_Digest.m_bQopAuth = aChallenge.Find("qop") != nullptr;
    m_Digest.m_strClientNonce = m_Digest.m_bQopAuth ? HttpRandomHex() : CCmString();
}

CCmString CHttpAuthenticator::Authorize(std::string_view aMethod, std::string_view aUri) {
    if (m_Scheme == NONE)
        return {};
    if (m_Scheme != BASIC) {
        ++m_Digest.m_dwCount;
        return m_Digest.Answer(m_strUser, m_strPassword, aMethod, aUri);
    }
    const CCmString strBoth = m_strUser + ":" + m_strPassword;
    CCmString strValue;
    cm_base64_encode(strBoth.data(), strBoth.size(), strValue);
    return "Basic " + strValue;
}

}  // namespace talvo

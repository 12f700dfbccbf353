#include "talvo/http/message/http_digest.h"

#include <cstdio>

#include "talvo/base/secret.h"

namespace talvo {

namespace {

CCmString Quoted(std::string_view aText) {
    CCmString strQuoted = "\"";
    for (const char c : aText) {
        if (c == '"' || c == '\\')
            strQuoted += '\\';
        strQuoted += c;
    }
    return strQuoted + '"';
}

}  // namespace

CCmString CHttpDigest::Answer(std::string_view aUser, std::string_view aPassword, std::string_view aMethod,
                              std::string_view aUri) const {
    const CCmString strUri(aUri);
    char szCount[9];
    std::snprintf(szCount, sizeof szCount, "%08x", m_dwCount);
    const CCmString strMiddle = m_bQopAuth ? m_strNonce + ":" + szCount + ":" + m_strClientNonce + ":auth" : m_strNonce;
    const CCmString strRequest = HttpHashHex(m_Hash, {aMethod, ":", aUri});
    CCmString strSecret = HttpHashHex(m_Hash, {aUser, ":", m_strRealm, ":", aPassword});
    const CCmString strResponse = HttpHashHex(m_Hash, {strSecret, ":", strMiddle, ":", strRequest});
    const BOOL bHashed = !strSecret.empty() && !strRequest.empty() && !strResponse.empty();
    WipeText(strSecret);  // as good as the password in this realm
    if (!bHashed)
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

}  // namespace talvo

#include "talvo/http/message/ntlm_session.h"

#include <utility>

#include "talvo/base/base64.h"
#include "talvo/http/message/ntlm_message.h"

namespace talvo {

BOOL CNtlmSession::TakeChallenge(std::string_view aToken) {
    CNtlmChallenge challenge;
    if (cm_base64_decode(aToken, m_strMessage) != CM_OK || !ReadNtlmChallenge(m_strMessage, challenge))
        return FALSE;
    m_Step = CHALLENGED;
    return TRUE;
}

CmResult CNtlmSession::Next(const CCmCredentials& aCredentials, CCmSecret& aValue) {
    aValue.Clear();
    if (m_Step == DONE)
        return CM_OK;
    CCmSecret message;
    CmResult rv = CM_OK;
    if (m_Step == CHALLENGED) {
        CNtlmChance chance;
        CNtlmChallenge challenge;
        ReadNtlmChallenge(m_strMessage, challenge);
        if (!chance.Roll())
            return CM_ERROR_FAILURE;
        rv = MakeNtlmAuthenticate(aCredentials, MakeNtlmNegotiate(), m_strMessage, challenge, chance, message);
        m_Step = DONE;
    } else {
        rv = message.Set(MakeNtlmNegotiate());
        m_Step = NEGOTIATED;
    }
    CCmString strText;
    if (rv == CM_OK)
        rv = cm_base64_encode(message.Get().data(), message.Get().size(), strText);
    if (rv == CM_OK)
        rv = aValue.Set({"NTLM ", strText});
    WipeText(strText);
    return rv;
}

}  // namespace talvo

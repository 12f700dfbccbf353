// NTLM on one connection.
#pragma once

#include "talvo/base/credentials.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"

namespace talvo {

// The order of the three messages. A value, of one thread.
class TALVO_API CNtlmSession {
public:
    enum EStep {
        BEGIN,       // the connection is not authenticated
        NEGOTIATED,  // the first message was sent
        CHALLENGED,  // the second has come, the third is due on this connection
        DONE         // the third was sent, or nothing is required: the connection is the user's
    };

    EStep GetStep() const { return m_Step; }
    void Begin() { m_Step = BEGIN; }
    void Finish() { m_Step = DONE; }

    // The second message in base64. FALSE: it is refused, see ReadNtlmChallenge. May throw std::bad_alloc, as Next.
    CmBool TakeChallenge(std::string_view aToken);

    // aValue (out): of the header for the next request; "" if DONE. Results as MakeNtlmAuthenticate; CM_ERROR_FAILURE also if
    // the system has no random numbers.
    CmResult Next(const CCmCredentials& aCredentials, CCmSecret& aValue);

private:
    EStep m_Step = BEGIN;
    CCmString m_strMessage;  // the second one, if CHALLENGED
};

}  // namespace talvo

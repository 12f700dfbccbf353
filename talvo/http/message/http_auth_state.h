// The state of authentication towards one server or proxy, without the credentials.
#pragma once

#include "talvo/http/message/http_offer.h"
#include "talvo/http/message/ntlm_session.h"

namespace talvo {

// Judges challenges and makes the answers to them. NTLM authenticates a connection, not a request: its three messages must go
// over the same one. A value, of one thread.
class TALVO_API CHttpAuthState {
public:
    enum EVerdict {
        HOPELESS,  // no supported scheme, too many stale nonces, or a broken exchange of NTLM
        ANSWER,    // repeat the request with Authorize
        REFUSED    // the credentials were refused: repeat it with others
    };

    // A refusal (401, 407) with these challenges came over the present connection, which stays open if aStaysOpen. "": some
    // proxies refuse credentials without repeating their challenge, so that the last one holds.
    EVerdict OnChallenges(std::string_view aChallenges, CmBool aNtlm, CmBool aStaysOpen);

    // Takes up the offer of an earlier request to send credentials before they are asked for. A refusal of these is not one of
    // the credentials, unless by Basic in the same realm.
    void TakeUp(const CHttpOffer& aOffer);

    // A request was not refused: the limits of repeated requests begin anew.
    void OnAccepted();

    // The next request goes over another connection. aAuthenticated: NTLM has authenticated it for these credentials.
    void OnConnection(CmBool aAuthenticated);

    // aValue (out): to send; "": nothing, also if the system lacks a hash or the scheme cannot carry the credentials. CM_OK,
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult Authorize(const CCmCredentials& aCredentials, std::string_view aMethod, std::string_view aUri, CCmSecret& aValue);

    // TRUE: the next request must go over the connection of the last answer.
    CmBool NeedsSameConnection() const { return IsNtlm() && m_Ntlm.GetStep() == CNtlmSession::CHALLENGED; }

    CmBool HasOffer() const { return m_Offer.m_Scheme != EHttpScheme::NONE; }
    CmBool IsNtlm() const { return m_Offer.m_Scheme == EHttpScheme::NTLM; }
    CHttpOffer& GetOffer() { return m_Offer; }

private:
    EVerdict GoOnWithNtlm_i(const CHttpOffer& aOffer, CmBool aStaysOpen);

    CHttpOffer m_Offer;
    CNtlmSession m_Ntlm;
    CmBool m_bTried = CM_FALSE;    // credentials have answered the offer
    CmBool m_bEarly = CM_FALSE;    // the offer is of an earlier request
    CmDword m_dwStale = 0;         // replaced nonces
    CmDword m_dwNegotiations = 0;  // exchanges of NTLM that were begun
};

}  // namespace talvo

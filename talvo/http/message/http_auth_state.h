// The state of authentication towards one server or proxy, without the credentials.
#pragma once

#include "talvo/http/message/http_offer.h"

namespace talvo {

// Judges challenges and makes the answers to them. NTLM authenticates a connection, not a request: its three messages must go
// over the same one. A value, of one thread.
class TALVO_API CHttpAuthState {
public:
    enum EVerdict {
        HOPELESS,  // no supported scheme, or too many stale nonces
        ANSWER,    // repeat the request with Authorize
        REFUSED    // the credentials were refused: repeat it with others
    };

    // A refusal (401, 407) with these challenges came over the present connection, which stays open if aStaysOpen.
    EVerdict OnChallenges(std::string_view aChallenges, BOOL aNtlm, BOOL aStaysOpen);

    // Takes up the offer of an earlier request to send credentials before they are asked for. A refusal of these is not one of
    // the credentials, unless by Basic in the same realm.
    void TakeUp(const CHttpOffer& aOffer);

    // A request was not refused: the limit of stale nonces begins anew.
    void OnAccepted() { m_dwStale = 0; }

    // The next request goes over another connection. aAuthenticated: NTLM has authenticated it for these credentials.
    void OnConnection(BOOL aAuthenticated);

    // aValue (out): to send; "": nothing. Results as CHttpOffer::Answer.
    CmResult Authorize(const CCmCredentials& aCredentials, std::string_view aMethod, std::string_view aUri, CCmSecret& aValue);

    // TRUE: the next request must go over the connection of the last answer.
    BOOL NeedsSameConnection() const { return FALSE; }

    BOOL HasOffer() const { return m_Offer.m_Scheme != EHttpScheme::NONE; }
    BOOL IsNtlm() const { return m_Offer.m_Scheme == EHttpScheme::NTLM; }
    CHttpOffer& GetOffer() { return m_Offer; }

private:
    CHttpOffer m_Offer;
    BOOL m_bTried = FALSE;  // Authorize has answered the offer
    BOOL m_bEarly = FALSE;  // the offer is of an earlier request
    DWORD m_dwStale = 0;    // replaced nonces
};

}  // namespace talvo

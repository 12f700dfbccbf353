// The dialog between a client and a proxy server, before the bytes of the peer.
#pragma once

#include <string_view>

#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {

// The cause for which a proxy opens no tunnel.
struct CProxyRefusal {
    static constexpr size_t LONGEST_TEXT = 200;

    // aText is cut, and other than printable bytes become "?".
    static CProxyRefusal Make(CmResult aReason, std::string_view aText);

    CmResult m_Reason = CM_OK;  // of the connector's indication; CM_OK: none
    CCmString m_strText;        // "403 Forbidden"
};

// A state machine over bytes: any split of the bytes gives the same result. It knows neither sockets nor time. Its operations
// may throw std::bad_alloc. The output may contain credentials: the caller overwrites it.
class IProxyDialog {
public:
    enum EStep {
        TALK,   // send the output; the proxy's bytes follow
        OPEN,   // the next byte is the peer's
        AGAIN,  // begin a new dialog on a new connection, when the credentials for it are known
        FAILED  // see GetRefusal
    };

    // Once, at the beginning. aOut: bytes to send are appended.
    virtual EStep Begin(CCmString& aOut) = 0;
    // aIn: received bytes. aTaken (out): the number of them that belong to the dialog; all, unless the result is another than
    // TALK.
    virtual EStep Take(std::string_view aIn, size_t& aTaken, CCmString& aOut) = 0;
    // The request for the peer is among the bytes to send.
    virtual BOOL HasAsked() const = 0;
    // TRUE: the request is repeated on its connection, and no byte of the reply has come. If the connection ends now, a new
    // dialog on another one may succeed: some servers close behind a refusal without announcing it.
    virtual BOOL IsRepeating() const { return FALSE; }

    const CProxyRefusal& GetRefusal() const { return m_Refusal; }

    virtual ~IProxyDialog() = default;

protected:
    // Both return FAILED. A refusal is the proxy's own, or due to the peer.
    EStep Refused_i(CmResult aReason, std::string_view aText) {
        m_Refusal = CProxyRefusal::Make(aReason, aText);
        return FAILED;
    }
    EStep Malformed_i(std::string_view aText) { return Refused_i(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, aText); }

private:
    CProxyRefusal m_Refusal;
};

}  // namespace talvo

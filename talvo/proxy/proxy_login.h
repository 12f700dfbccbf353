// The credentials of an attempt at one proxy server.
#pragma once

#include <string_view>

#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {

// Outlives the dialogs of the attempt: a dialog ends with its connection, and the credentials stay for the next one.
class IProxyLogin {
public:
    // TRUE: Choose may find credentials.
    virtual BOOL MayHave() = 0;
    // For SOCKS. CM_OK: GetUser and GetPassword are the ones to try. CM_ERROR_WOULD_BLOCK: the user is asked, and the next
    // connection follows the answer. Any other result: there are none.
    virtual CmResult Choose() = 0;
    virtual std::string_view GetUser() const = 0;
    virtual std::string_view GetPassword() const = 0;
    // The server has refused them.
    virtual void OnRefused() = 0;

    // For HTTP. A new connection begins.
    virtual void OnConnection() = 0;
    // Appends the field Proxy-Authorization for the next CONNECT, if there is one. Throws std::bad_alloc.
    virtual void AppendField(const CCmString& aTarget, CCmString& aOut) = 0;
    // A 407 came with these values of Proxy-Authenticate. aStaysOpen: its connection can carry the next request. CM_OK: send
    // the request again. CM_ERROR_WOULD_BLOCK: as above. Any other result: there is no answer.
    virtual CmResult OnChallenges(std::string_view aChallenges, BOOL aStaysOpen) = 0;
    // TRUE: the answer to the 407 must go over its connection.
    virtual BOOL NeedsSameConnection() const = 0;
    // Any other final reply came.
    virtual void OnAccepted() = 0;

protected:
    virtual ~IProxyLogin() = default;
};

}  // namespace talvo

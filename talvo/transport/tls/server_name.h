// The name that a server's certificate must have.
#pragma once

#include "talvo/base/inet_addr.h"

namespace talvo {

// The valid values of CM_OPT_CONNECT_SERVER_NAME: "", or at most 255 bytes without a NUL and "*". A leading dot would accept
// the certificate of every name below it.
BOOL IsServerName(const CCmString& aName);

// The name to check and to send: aName; if it is "", the given name of aAddr; without one the address as text. An address has
// no interface, since certificates have none, and a name no dot at its end. "": there is none, as for a path, or it is not
// valid. May throw std::bad_alloc.
CCmString ServerNameOf(const CCmString& aName, const CCmInetAddr& aAddr);

}  // namespace talvo

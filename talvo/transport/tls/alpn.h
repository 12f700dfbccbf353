// Lists of protocols (RFC 7301).
#pragma once

#include <vector>

#include "talvo/base/types.h"

namespace talvo {

// "h2,http/1.1", or "": no list. FALSE: a name is empty or longer than 255 bytes.
BOOL IsAlpn(const CCmString& aProtocols);

// The list as it is sent: each name behind its length. Empty: there is none, or it is not valid. May throw std::bad_alloc.
std::vector<unsigned char> MakeAlpnList(const CCmString& aProtocols);

}  // namespace talvo

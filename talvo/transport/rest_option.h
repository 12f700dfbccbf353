// An option of transports for the library's own layers.
#pragma once

#include "talvo/base/fixed_types.h"

namespace talvo {

// set BOOL TRUE: when the connection fails during a pause, the pause ends, and the sink gets the unread data before
// OnDisconnect. For a sink that can keep it. TCP and TLS; a protocol connection passes it on to its transport, and a
// reliable one to each later transport too. Thread proxies always do so.
constexpr CmDword OPT_REST_BEFORE_FAILURE = 194;

}  // namespace talvo

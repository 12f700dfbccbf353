// Options of connectors for the library's own races.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

// set BOOL. TRUE: another attempt of a race connects directly, so a connector through a proxy does not. At DIRECT in its route
// it fails with CM_ERROR_NETWORK_CONNECT_ERROR. Other connectors refuse it.
constexpr DWORD OPT_CONNECT_NEVER_DIRECT = 191;

}  // namespace talvo

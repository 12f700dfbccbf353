// Options of thread proxies for the library's own layers.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

// set BOOL. TRUE: OnDisconnect comes at once, in spite of a pause, and the data that waits behind the pause is dropped. For a
// user that can do nothing with it once the connection is lost, and has set CM_OPT_TRANSPORT_TELL_END: the peer's orderly end
// still waits behind the data.
constexpr DWORD OPT_PROXY_LOSS_AT_ONCE = 190;

}  // namespace talvo

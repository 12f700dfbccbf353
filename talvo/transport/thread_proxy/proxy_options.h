// Options of thread proxies for the library's own layers.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

// set BOOL. TRUE: OnDisconnect comes at once, in spite of a pause, and the data that waits behind the pause is dropped. For a
// user that can do nothing with it once the connection is lost, and has set CM_OPT_TRANSPORT_TELL_END: the peer's orderly end
// still waits behind the data.
constexpr DWORD OPT_PROXY_LOSS_AT_ONCE = 190;

// set ICmTransportSink*, not owned; null: none. In the network thread only: another layer sends on the transport behind the
// proxy. It gets OnSend, and OnDisconnect when the proxy lets the transport go. CM_ERROR_INVALID_ARG: another thread, or an
// unopened proxy. CM_ERROR_FOUND: there is one. CM_ERROR_NULL_POINTER: the transport has ended.
constexpr DWORD OPT_PROXY_SENDER = 191;

// set BOOL TRUE, likewise: from now on SendData of the proxy is CM_ERROR_NOT_AVAILABLE. CM_ERROR_PARTIAL_DATA: it has data to
// send first, and the sender gets OnSend then.
constexpr DWORD OPT_PROXY_SENDER_STARTS = 192;

// set CCmMessageBlock*, likewise: the sender's last data, which the proxy sends as if the user had sent it. Results as
// SendData.
constexpr DWORD OPT_PROXY_SENDER_REST = 193;

}  // namespace talvo

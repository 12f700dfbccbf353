// Commands of protocol connections, in addition to ECmTransportOption.
#pragma once

#include "talvo/base/types.h"

// Commands of protocol connections for GetOption and SetOption, beside those of ECmTransportOption.
enum ECsOption : CmDword {
    CS_OPT_MAX_BUFF_LEN = 132,  // get, set CmDword: bytes of data PDUs, headers included, that may wait to be sent or, on a
                                // reliable connection, to be acknowledged. Package connections start with 65,536 and
                                // refuse 0; reliable ones start with 1 MiB and take 4 KiB to 1 GiB. Until it is set, a
                                // reliable connection whose peer acknowledges lets up to 8 MiB wait, see docs/reliable.md.
                                // Connections without a send buffer refuse it
    CS_OPT_KEEPALIVE_INTERVAL = 134,  // get, set CmDword: seconds between keep-alives, 15 at first; at least 1
    CS_OPT_ACK_PROCESSING = 135,      // get, set CmBool: kept, without effect
    CS_OPT_MAX_MESSAGE_LEN = 136,  // get, set CmDword: payload bytes of the longest message, 16 MiB at first. A longer one is
                                   // not sent, and a peer that announces one is disconnected with CM_ERROR_NOT_AVAILABLE
                                   // (10009)
    // Reliable connections only, at each end separately.
    CS_OPT_RECONNECT_TIME = 137,  // get, set CmDword: seconds from the loss of the transport to the end of the connection, 120
                                  // at first; 1 to 86,400. It applies from the next loss on
    // Get, set CmDword: seconds without a byte from the peer after which the transport counts as lost, 45 at first; 1 to
    // 86,400. More than the peer's CS_OPT_KEEPALIVE_INTERVAL.
    CS_OPT_SILENCE_LIMIT = 139
};

constexpr CmDword CS_DEFAULT_MAX_MESSAGE_LEN = 16 << 20;  // the default of CS_OPT_MAX_MESSAGE_LEN

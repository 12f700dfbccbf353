// Commands of protocol connections, in addition to ECmTransportOption.
#pragma once

#include "talvo/base/types.h"

enum ECsOption : DWORD {
    CS_OPT_MAX_BUFF_LEN = 132,        // get, set DWORD: bytes of data PDUs, headers included, that may wait to be sent; package
                                      // connections start with 65,536 and refuse 0, connections without a send buffer refuse it
    CS_OPT_KEEPALIVE_INTERVAL = 134,  // get, set DWORD: seconds between keep-alives, 15 at first; at least 1
    CS_OPT_ACK_PROCESSING = 135,      // get, set BOOL: kept for reliable connections; without effect on the others
    CS_OPT_MAX_MESSAGE_LEN = 136  // get, set DWORD: payload bytes of the longest message, 16 MiB at first. A longer one is not
                                  // sent, and a peer that announces one is disconnected with CM_ERROR_NOT_AVAILABLE (10009)
};

constexpr DWORD CS_DEFAULT_MAX_MESSAGE_LEN = 16 << 20;

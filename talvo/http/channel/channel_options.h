// Commands that channels add to those of ECmTransportOption. The argument points at the value.
#pragma once

#include "talvo/base/types.h"

enum ECmChannelOption : DWORD {
    CM_OPT_CHANNEL_FILE_SYNC = 301,  // set BOOL: a file channel delivers inside AsyncOpen and not from a timer

    // Of HTTP client channels, get and set; set them before AsyncOpen. Times are in milliseconds.
    CM_OPT_CHANNEL_WHOLE_BODY = 302,       // BOOL (FALSE): one OnReceive, the whole body in one block; below 4 GiB
    CM_OPT_CHANNEL_MAX_REDIRECTS = 303,    // DWORD (10): how many redirects are followed, at most 10; 0 delivers them
    CM_OPT_CHANNEL_CONNECT_TIMEOUT = 304,  // DWORD (30,000): for a connection, name look-up included; 0: the system's patience
    CM_OPT_CHANNEL_SILENCE_TIMEOUT = 305,  // DWORD (60,000): how long nothing may move while the peer's turn it is; 0: for ever
    CM_OPT_CHANNEL_CONTINUE_TIMEOUT = 306,  // DWORD (1,000): how long a body waits for "100 Continue" before it is sent anyway
    CM_OPT_CHANNEL_KEEP_ALIVE = 307,        // BOOL (TRUE): FALSE opens a connection of its own and asks the server to close it

    // Of HTTP client channels, get CCmFailure: why the exchange failed, inside OnDisconnect and afterwards. CM_FAILURE_NONE: it
    // did not. Never waits.
    CM_OPT_CHANNEL_LAST_FAILURE = 308,

    // Those of HTTP server acceptors and channels begin with 331.
};

// Commands of channels, in addition to ECmTransportOption. The argument points at the value.
#pragma once

#include "talvo/base/types.h"

// Options of channels, beside those of their transport.
enum ECmChannelOption : CmDword {
    CM_OPT_CHANNEL_FILE_SYNC = 301,  // set CmBool: a file channel delivers inside AsyncOpen and not from a timer

    // For HTTP client channels, get and set; set them before AsyncOpen. Times are in milliseconds.
    CM_OPT_CHANNEL_WHOLE_BODY = 302,        // CmBool (FALSE): one OnReceive, the whole body in one block; below 4 GiB
    CM_OPT_CHANNEL_MAX_REDIRECTS = 303,     // CmDword (10): the most redirects that are followed, at most 10; 0 delivers them
    CM_OPT_CHANNEL_CONNECT_TIMEOUT = 304,   // CmDword (30,000): for a connection, with its name look-up; 0: the system's limit
    CM_OPT_CHANNEL_SILENCE_TIMEOUT = 305,   // CmDword (60,000): the longest wait for progress of the peer; 0: no limit
    CM_OPT_CHANNEL_CONTINUE_TIMEOUT = 306,  // CmDword (1,000): then a body is sent without "100 Continue"
    CM_OPT_CHANNEL_KEEP_ALIVE = 307,  // CmBool (TRUE): FALSE opens a connection of its own and asks the server to close it

    // For HTTP client channels, get CCmFailure: the failure of the exchange, inside OnDisconnect and afterwards.
    // CM_FAILURE_NONE: no failure. Never waits.
    CM_OPT_CHANNEL_LAST_FAILURE = 308,
    // For HTTP client channels, set CmBool (FALSE): redirects from https to http are followed. The two names share a number:
    // one is only read, the other only set.
    CM_OPT_CHANNEL_ALLOW_DOWNGRADE = 308,

    // For HTTP client channels, get and set CCmInetAddr (CCmInetAddr::s_InetAddrAny): all connections of the channel go to this
    // address, also after redirects, and not to the URL's host and port. A Unix path serves for HTTP inside a machine. With
    // proxies a tunnel leads to the address; a path is connected directly.
    CM_OPT_CHANNEL_CONNECT_TO = 309,

    // For HTTP client channels, get and set CCmRefPtrT<CCmSslContext>: for https. Null, the default:
    // CCmSslContext::GetDefault(). The certificate must have the URL's host as its name, whatever CM_OPT_CHANNEL_CONNECT_TO is.
    // TLS to an HTTPS proxy uses the default.
    CM_OPT_CHANNEL_SSL_CONTEXT = 310,

    // Options of HTTP server acceptors and channels begin with 331.
};

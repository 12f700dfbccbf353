// The limits of one datagram.
#pragma once

#include "talvo/base/message_block.h"

namespace talvo {

constexpr DWORD MAX_DATAGRAM_LENGTH = 65507;  // 65,535 bytes without the IPv4 and UDP headers; also over IPv6
constexpr DWORD MAX_DATAGRAM_PIECES = 1024;   // the system's limit for gathering

// Checks that a chain can be sent as one datagram. aLength (out): its length. CM_ERROR_INVALID_ARG: more bytes or more
// non-empty blocks than the limits above.
CmResult CheckDatagram(const CCmMessageBlock& aData, DWORD& aLength);

}  // namespace talvo

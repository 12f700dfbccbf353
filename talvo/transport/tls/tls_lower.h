// The side of a TLS session that carries its sealed bytes: a socket, or another session.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

class ITlsLower {
public:
    // A count; -2: it would block; any other value up to 0: it has ended or failed.
    virtual int RecvSealed(char* aBuf, DWORD aLen) = 0;
    // TRUE after RecvSealed: there may be more without a report of the socket.
    virtual BOOL HasMoreSealed() const = 0;
    // A count; 0: it would block; -1 with errno: it has failed. aMore: as for CCmTransportTcp::Send_i.
    virtual int SendSealed(const char* aBuf, DWORD aLen, BOOL aMore) = 0;

protected:
    virtual ~ITlsLower() = default;
};

}  // namespace talvo

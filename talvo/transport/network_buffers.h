// The buffers of a network thread.
#pragma once

#include <sys/uio.h>

#include "talvo/base/types.h"

namespace talvo {

// Shared by all transports of one thread, which is safe because each is used within one call only.
struct CNetworkBuffers {
    static constexpr DWORD RECEIVE_SIZE = 16384;
    static constexpr DWORD MAX_PIECES = 64;

    char m_Receive[RECEIVE_SIZE];
    iovec m_Iov[MAX_PIECES];
};

// The calling thread's pair.
CNetworkBuffers& GetNetworkBuffers();

}  // namespace talvo

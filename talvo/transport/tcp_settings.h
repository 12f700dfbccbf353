// What the configuration says about TCP sockets.
#pragma once

#include "talvo/base/result.h"
#include "talvo/transport/socket.h"

class ICmTransport;

namespace talvo {

// Section "Transport", read by each attempt to connect and each StartListen.
struct CTcpSettings {
    static constexpr DWORD MIN_READ = 4096;
    static constexpr DWORD MAX_READ = 1 << 20;
    static constexpr DWORD LARGE_READ = 65536;  // what the library asks for where it hands bytes on itself

    static CTcpSettings Read();

    // Before connect or listen: the window that the peer may be granted later is fixed then. Sizes of 0 leave a buffer to the
    // system, which makes it grow with the connection. A refusal is traced.
    void ApplyTo(const CCmSocketTcp& aSocket) const;

    DWORD m_dwReadSize;
    DWORD m_dwSendBuffer;
    DWORD m_dwReceiveBuffer;
};

// Raises the size of a read to LARGE_READ, on a TCP transport or what lies over one; a larger one stays.
void AskForLargeReads(ICmTransport& aTransport);

}  // namespace talvo

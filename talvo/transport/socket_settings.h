// The sizes that sockets are opened with.
#pragma once

#include "talvo/transport/socket.h"

class ICmAcceptorConnectorId;
class ICmTransport;

namespace talvo {

// A connector and an acceptor hold what its caller has set; the configuration fills the rest for TCP.
struct TALVO_API CSocketSettings {
    static constexpr DWORD MIN_READ = 4096;
    static constexpr DWORD MAX_READ = 1 << 20;
    static constexpr DWORD LARGE_READ = 65536;  // what the library asks for where it hands bytes on itself

    // The options 109, 110 and 149 of connectors and acceptors. CM_ERROR_INVALID_ARG: another command, or no such size.
    CmResult SetOption(DWORD aCommand, const void* aArg);
    CmResult GetOption(DWORD aCommand, void* aArg) const;

    // Sets on aId what differs from aPassed, which keeps what was set there. The first refusal ends it and is returned.
    CmResult PassTo(ICmAcceptorConnectorId* aId, CSocketSettings& aPassed) const;

    // These sizes, and for each that is 0 the one of section "Transport". Read by each attempt to connect and each StartListen.
    CSocketSettings WithConfiguration() const;

    // Before connect or listen: the window that the peer may be granted later is fixed then. Sizes of 0 leave a buffer to the
    // system, which makes it grow with a TCP connection. A refusal is traced.
    void ApplyTo(const CCmSocketBase& aSocket) const;

    DWORD m_dwReadSize = 0;
    DWORD m_dwSendBuffer = 0;
    DWORD m_dwReceiveBuffer = 0;
};

// Raises the size of a read to LARGE_READ, on a TCP transport or what lies over one; a larger one stays.
void AskForLargeReads(ICmTransport& aTransport);

}  // namespace talvo

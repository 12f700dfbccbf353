// The sizes of new sockets.
#pragma once

#include "talvo/transport/socket.h"

class ICmTransport;

namespace talvo {

// A connector and an acceptor hold their caller's values; the configuration fills the rest for TCP.
struct TALVO_API CSocketSettings {
    static constexpr CmDword MIN_READ = 4096;
    static constexpr CmDword MAX_READ = 1 << 20;
    static constexpr CmDword LARGE_READ = 65536;  // for the library's layers that pass bytes on

    // TRUE: one of the options 109, 110 and 149 of connectors and acceptors.
    static CmBool Has(CmDword aCommand);
    // These options. CM_ERROR_INVALID_ARG: another command, or an invalid size.
    CmResult SetOption(CmDword aCommand, const void* aArg);
    CmResult GetOption(CmDword aCommand, void* aArg) const;

    // The valid values of 109 and 110, and of 149.
    static CmBool IsBufferSize(const CmDword& aSize);
    static CmBool IsReadSize(const CmDword& aSize);

    // These sizes, and for each that is 0 the one of section "Transport". Read by each attempt to connect and each StartListen.
    CSocketSettings WithConfiguration() const;

    // Before connect or listen: the system then fixes the largest window that the peer can get. A size of 0 leaves the buffer
    // to the system, which grows it with a TCP connection. A refusal is traced.
    void ApplyTo(const CCmSocketBase& aSocket) const;

    CmDword m_dwReadSize = 0;
    CmDword m_dwSendBuffer = 0;
    CmDword m_dwReceiveBuffer = 0;
};

// Raises the read size to LARGE_READ, on a TCP transport or a layer over one; a larger size stays.
void AskForLargeReads(ICmTransport& aTransport);

// The close of the transport's socket will be a reset, and the system sends none of the bytes that are still under way.
void ResetAtClose(ICmTransport& aTransport);

}  // namespace talvo

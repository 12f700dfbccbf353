// The bytes of a dialog with a proxy: on the socket, or inside TLS to the proxy.
#pragma once

#include "talvo/transport/tls/transport_ssl.h"

namespace talvo {

// A view on a transport before its opening.
class CProxyWire {
public:
    // aOuter: aTransport is a CCmTransportSsl with an outer session, which is up.
    CProxyWire(CCmTransportTcp& aTransport, BOOL aOuter)
        : m_Transport(aTransport), m_pTls(aOuter ? static_cast<CCmTransportSsl*>(&aTransport) : nullptr) {}

    // Results as CCmTransportTcp::Recv_i and Send_i. Peek leaves the bytes where they are.
    int Peek(char* aBuf, DWORD aLen);
    int Recv(char* aBuf, DWORD aLen);
    int Send(const char* aBuf, DWORD aLen);
    // TRUE: bytes that Send took wait for room.
    BOOL HasUnsent();

    // The next byte is the peer's.
    void OnTunnel();

private:
    CCmTransportTcp& m_Transport;
    CCmTransportSsl* const m_pTls;  // null: no TLS to the proxy
};

}  // namespace talvo

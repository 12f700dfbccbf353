// The dialog with a proxy server on a connected socket, before its transport is opened.
#pragma once

#include <functional>

#include "talvo/proxy/proxy_dialog.h"
#include "talvo/transport/proxy_server.h"
#include "talvo/transport/tcp/handshake.h"

namespace talvo {

// Makes the handshakes of the connections to one proxy server: TLS with an HTTPS proxy, then the dialog. In one thread. A
// connector of TCP or TLS takes it as its first maker of handshakes.
class CProxyHandshakes final : public IHandshakeMaker {
public:
    class IOwner {
    public:
        virtual const CCmProxyServer& GetServer() const = 0;
        // Throws std::bad_alloc.
        virtual std::unique_ptr<IProxyDialog> MakeDialog() = 0;
        // The request for the peer is being sent: from now on the proxy's silence is the peer's.
        virtual void OnAsked() = 0;
        // The dialog has taken bytes. aRepeating: its IsRepeating.
        virtual void OnTaken(BOOL aRepeating) = 0;
        // The tunnel is open.
        virtual void OnTunnel() = 0;
        // aStep: AGAIN or FAILED. The handshake fails after the call.
        virtual void OnRefused(IProxyDialog::EStep aStep, const CProxyRefusal& aRefusal) = 0;

    protected:
        virtual ~IOwner() = default;
    };

    // aOwner outlives the connections.
    explicit CProxyHandshakes(IOwner& aOwner) : m_Owner(aOwner) {}

    // For type 1; those of TLS come from the maker for TLS.
    CCmRefPtrT<CCmTransportTcp> MakeTransport(ICmReactor* aReactor) override;
    std::unique_ptr<IHandshake> MakeHandshake(CCmTransportTcp& aTransport, DWORD aStep) override;
    CCmTimeValue GetTimeLimit() const override { return CCmTimeValue::s_tvZero; }  // the owner has its own

private:
    IOwner& m_Owner;
};

}  // namespace talvo

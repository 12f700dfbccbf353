#include "talvo/proxy/proxy_handshake.h"

#include <sys/socket.h>

#include <new>
#include <utility>

#include "talvo/base/secret.h"
#include "talvo/proxy/proxy_wire.h"
#include "talvo/transport/tls/tls_handshake.h"

namespace talvo {

namespace {

constexpr size_t ROOM = 4096;

class CProxyHandshake final : public IHandshake {
public:
    CProxyHandshake(CProxyHandshakes::IOwner& aOwner, const CProxyWire& aWire)
        : m_Owner(aOwner), m_Wire(aWire), m_pDialog(aOwner.MakeDialog()) {
        m_strOut.reserve(ROOM);  // a string that grows leaves copies behind
    }
    ~CProxyHandshake() override { WipeText(m_strOut); }

    EStep Step(CCmTransportTcp& aTransport) override;
    CCmFailure GetFailure(const CCmInetAddr& aPeer) const override;
    CmResult GetReason() const override;

private:
    EStep Send_i();
    EStep Receive_i();

    CProxyHandshakes::IOwner& m_Owner;
    CProxyWire m_Wire;
    const std::unique_ptr<IProxyDialog> m_pDialog;
    IProxyDialog::EStep m_Step = IProxyDialog::TALK;
    BOOL m_bBegun = FALSE;
    BOOL m_bAsked = FALSE;
    CCmString m_strOut;  // perhaps with credentials
    size_t m_stSent = 0;
};

IHandshake::EStep CProxyHandshake::Step(CCmTransportTcp&) {
    if (!std::exchange(m_bBegun, TRUE))
        m_Step = m_pDialog->Begin(m_strOut);
    EStep step = DONE;
    while (m_Step == IProxyDialog::TALK && step == DONE) {
        step = Send_i();
        if (step == DONE)
            step = Receive_i();
    }
    if (m_Step == IProxyDialog::TALK)
        return step;
    if (m_Step == IProxyDialog::OPEN) {
        m_Wire.OnTunnel();
        m_Owner.OnTunnel();
        return DONE;
    }
    m_Owner.OnRefused(m_Step, m_pDialog->GetRefusal());
    return FAILED;
}

// DONE: all has been sent.
IHandshake::EStep CProxyHandshake::Send_i() {
    if (!m_bAsked && m_pDialog->HasAsked()) {
        m_bAsked = TRUE;
        m_Owner.OnAsked();
    }
    while (m_stSent < m_strOut.size()) {
        const int nSent = m_Wire.Send(m_strOut.data() + m_stSent, static_cast<DWORD>(m_strOut.size() - m_stSent));
        if (nSent <= 0)
            return nSent == 0 ? WRITE : FAILED;
        m_stSent += static_cast<size_t>(nSent);
    }
    WipeText(m_strOut);
    m_stSent = 0;
    return m_Wire.HasUnsent() ? WRITE : DONE;
}

// Looks at the bytes, and removes those of the dialog alone. DONE: some.
IHandshake::EStep CProxyHandshake::Receive_i() {
    char buffer[4096];
    const int nPeeked = m_Wire.Peek(buffer, sizeof buffer);
    if (nPeeked <= 0)
        return nPeeked == -2 ? READ : FAILED;
    size_t stTaken = 0;
    m_Step = m_pDialog->Take({buffer, static_cast<size_t>(nPeeked)}, stTaken, m_strOut);
    m_Owner.OnTaken(m_pDialog->IsRepeating());
    const int nTaken = static_cast<int>(stTaken);
    return nTaken == 0 || m_Wire.Recv(buffer, static_cast<DWORD>(stTaken)) == nTaken ? DONE : FAILED;
}

CCmFailure CProxyHandshake::GetFailure(const CCmInetAddr& aPeer) const {
    if (m_Step == IProxyDialog::TALK)
        return {};
    return CCmFailure(CM_FAILURE_PROTOCOL, m_pDialog->GetRefusal().m_strText.c_str(), "shake hands with", aPeer);
}

// The server's decision is final, and so is its end after the request. No other address of its name is tried then.
CmResult CProxyHandshake::GetReason() const {
    const BOOL bFinal = m_Step != IProxyDialog::TALK || m_bAsked;
    return bFinal ? CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE : CM_ERROR_NETWORK_CONNECT_ERROR;
}

// TLS with the proxy: its name is verified, and the context is the process's.
class COuterHandshake final : public IHandshake {
public:
    COuterHandshake(CCmTransportSsl& aTransport, const CCmString& aHost)
        : m_Transport(aTransport), m_Begun(aTransport.BeginOuter(CCmSslContext::GetDefault(), aHost.c_str())) {
        if (m_Begun == CM_ERROR_OUT_OF_MEMORY)
            throw std::bad_alloc();
    }

    EStep Step(CCmTransportTcp&) override {
        return m_Begun == CM_OK ? HandshakeStepOf(m_Transport.GetOuter()->Handshake()) : FAILED;
    }
    CCmFailure GetFailure(const CCmInetAddr& aPeer) const override {
        const char* pText = m_Begun == CM_OK ? m_Transport.GetOuter()->GetFailureText() : "TLS cannot begin";
        return CCmFailure(CM_FAILURE_PROTOCOL, pText, "begin TLS with the proxy", aPeer);
    }
    CmResult GetReason() const override {
        const BOOL bCertificate = m_Begun == CM_OK && m_Transport.GetOuter()->IsUnverified();
        return bCertificate ? CM_ERROR_NETWORK_TLS_CERTIFICATE : CM_ERROR_NETWORK_CONNECT_ERROR;
    }

private:
    CCmTransportSsl& m_Transport;
    const CmResult m_Begun;
};

}  // namespace

CCmRefPtrT<CCmTransportTcp> CProxyHandshakes::MakeTransport(ICmReactor* aReactor) {
    if (m_Owner.GetServer().GetKind() != CM_PROXY_HTTPS)
        return IHandshakeMaker::MakeTransport(aReactor);
    return new (std::nothrow) CCmTransportSsl(aReactor, CM_TRANSPORT_TYPE_TCP);
}

std::unique_ptr<IHandshake> CProxyHandshakes::MakeHandshake(CCmTransportTcp& aTransport, DWORD aStep) {
    const CCmProxyServer& server = m_Owner.GetServer();
    const BOOL bOuter = server.GetKind() == CM_PROXY_HTTPS;
    if (bOuter && aStep == 0)
        return std::make_unique<COuterHandshake>(static_cast<CCmTransportSsl&>(aTransport), server.GetHost());
    if (aStep != (bOuter ? 1u : 0u))
        return nullptr;
    return std::make_unique<CProxyHandshake>(m_Owner, CProxyWire(aTransport, bOuter));
}

}  // namespace talvo

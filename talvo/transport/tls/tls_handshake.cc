#include "talvo/transport/tls/tls_handshake.h"

#include <new>
#include <utility>

#include "talvo/transport/tls/alpn.h"

namespace talvo {

namespace {

constexpr const char* VERB = "begin TLS with";

class CTlsHandshake final : public IHandshake {
public:
    // aWaits: the peer speaks first, and the socket is not watched yet. It rarely has bytes so early, and reports them.
    CTlsHandshake(CCmTransportSsl& aTransport, CmResult aBegun, bool aWaits)
        : m_Transport(aTransport), m_Begun(aBegun), m_bWaits(aWaits) {}

    EStep Step(CCmTransportTcp&) override {
        if (m_Begun != CM_OK)
            return FAILED;
        return std::exchange(m_bWaits, false) ? READ : HandshakeStepOf(m_Transport.Handshake());
    }

    CCmFailure GetFailure(const CCmInetAddr& aPeer) const override {
        if (m_Begun != CM_OK)
            return CCmFailure(CM_FAILURE_LOCAL, "the settings of TLS cannot be used", VERB, aPeer);
        return CCmFailure(CM_FAILURE_PROTOCOL, m_Transport.GetSession()->GetFailureText(), VERB, aPeer);
    }

    CmResult GetReason() const override {
        const BOOL bCertificate = m_Begun == CM_OK && m_Transport.GetSession()->IsUnverified();
        return bCertificate ? CM_ERROR_NETWORK_TLS_CERTIFICATE : CM_ERROR_NETWORK_TLS_HANDSHAKE;
    }

private:
    CCmTransportSsl& m_Transport;
    const CmResult m_Begun;
    bool m_bWaits;
};

}  // namespace

IHandshake::EStep HandshakeStepOf(CTlsSession::EResult aResult) {
    switch (aResult) {
    case CTlsSession::DONE:
        return IHandshake::DONE;
    case CTlsSession::WANT_READ:
        return IHandshake::READ;
    case CTlsSession::WANT_WRITE:
        return IHandshake::WRITE;
    case CTlsSession::ENDED:
    case CTlsSession::FAILED:
        break;
    }
    return IHandshake::FAILED;
}

CCmRefPtrT<CCmTransportTcp> CTlsHandshakes::MakeTransport(ICmReactor* aReactor) {
    return new (std::nothrow) CCmTransportSsl(aReactor, m_dwType);
}

// The session begins with the handshake of TLS, which is the last.
std::unique_ptr<IHandshake> CTlsHandshakes::MakeHandshake(CCmTransportTcp& aTransport, DWORD aStep) {
    auto& transport = static_cast<CCmTransportSsl&>(aTransport);
    if (transport.GetSession())
        return nullptr;
    if (std::unique_ptr<IHandshake> pFirst = m_pFirst ? m_pFirst->MakeHandshake(aTransport, aStep) : nullptr)
        return pFirst;
    const CCmString& strName = m_Settings.m_strServerName;
    const char* pName = strName.empty() ? nullptr : strName.c_str();
    const CmResult rv = transport.Begin(m_Settings.m_pContext, pName, MakeAlpnList(m_Settings.m_strAlpn));
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    return std::make_unique<CTlsHandshake>(transport, rv, aStep == 0 && !pName);
}

}  // namespace talvo

// TLS to a proxy, around the bytes of the peer.
#pragma once

#include <memory>

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/tls/ssl_context.h"
#include "talvo/transport/tls/tls_lower.h"
#include "talvo/transport/tls/tls_session.h"

namespace talvo {

// A session, and the lower side of the one inside it. It takes all bytes that it can seal, and keeps those that the socket does
// not take: the inner session never keeps bytes that only this one could send.
class CTlsOuter final : public ITlsLower {
public:
    explicit CTlsOuter(CCmRefPtrT<CCmSslContext> aContext) : m_pContext(std::move(aContext)) {}

    CTlsSession& GetSession() { return *m_pSession; }
    const CTlsSession& GetSession() const { return *m_pSession; }
    const CCmRefPtrT<CCmSslContext>& GetContext() const { return m_pContext; }
    std::unique_ptr<CTlsSession>& ParaOut() { return m_pSession; }

    int RecvSealed(char* aBuf, DWORD aLen) override;
    BOOL HasMoreSealed() const override { return m_bMore; }
    int SendSealed(const char* aBuf, DWORD aLen, BOOL aMore) override;

private:
    const CCmRefPtrT<CCmSslContext> m_pContext;  // as long as the session
    std::unique_ptr<CTlsSession> m_pSession;
    BOOL m_bMore = FALSE;
};

}  // namespace talvo

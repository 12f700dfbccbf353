// The functions that OpenSSL calls for a setup.
#pragma once

#include <openssl/ssl.h>

#include "talvo/transport/tls/ssl_setup.h"

namespace talvo {

// The use of a setup by one connection. It belongs to the SSL.
struct CSslUse {
    CSslUse(std::shared_ptr<CSslSetup> aSetup, std::string aServer)
        : m_pSetup(std::move(aSetup)), m_strServer(std::move(aServer)) {}
    ~CSslUse() { EndOffer(false); }

    // FALSE: memory ran out, and the use is deleted.
    static BOOL Attach(SSL* aSsl, std::unique_ptr<CSslUse> aUse);
    static CSslUse& Of(const SSL* aSsl);

    // The handshake is complete, or will never be.
    void EndOffer(bool aResumed);

    const std::shared_ptr<CSslSetup> m_pSetup;
    const std::string m_strServer;  // whose sessions are kept; "": none are
    CSslSessionPtr m_pOffered;      // of TLS 1.2, to be resumed by the handshake; null: none
};

struct CSslCallbacks {
    // For the callbacks below.
    static void Attach(CSslSetup& aSetup);

    static int ChooseCertificate(SSL* aSsl, int*, void*);
    static int ChooseAlpn(SSL* aSsl, const unsigned char** aOut, unsigned char* aOutLen, const unsigned char* aIn,
                          unsigned aInLen, void*);
    static void LogKey(const SSL* aSsl, const char* aLine);
    static int KeepSession(SSL* aSsl, SSL_SESSION* aSession);
    static void NoteMessage(const SSL* aSsl, int aWhere, int);
    static int UseTicketKey(SSL* aSsl, unsigned char* aName, unsigned char* aIv, EVP_CIPHER_CTX* aCipher, EVP_MAC_CTX* aMac,
                            int aSeal);
};

}  // namespace talvo

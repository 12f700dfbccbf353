#include "talvo/transport/tls/own_certificate.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstring>
#include <new>

namespace talvo {

namespace {

struct CCloseFile {
    void operator()(FILE* aFile) const { std::fclose(aFile); }
};
using CFile = std::unique_ptr<FILE, CCloseFile>;

// No question is ever asked on a terminal.
int GivePassphrase(char* aBuf, int aSize, int, void* aPassphrase) {
    const auto& passphrase = *static_cast<const COwnCertificate::Passphrase*>(aPassphrase);
    if (!passphrase)
        return -1;
    std::string strPhrase = passphrase();
    const int nLength = static_cast<int>(strPhrase.size());
    if (nLength <= aSize)
        std::memcpy(aBuf, strPhrase.data(), strPhrase.size());
    OPENSSL_cleanse(strPhrase.data(), strPhrase.size());
    return nLength <= aSize ? nLength : -1;
}

}  // namespace

void COwnCertificate::CFree::operator()(x509_st* aCertificate) const { X509_free(aCertificate); }
void COwnCertificate::CFree::operator()(evp_pkey_st* aKey) const { EVP_PKEY_free(aKey); }

COwnCertificate::COwnCertificate() = default;
COwnCertificate::COwnCertificate(COwnCertificate&&) noexcept = default;
COwnCertificate::~COwnCertificate() = default;

CmResult COwnCertificate::Load(const char* aChainFile, const char* aKeyFile, const Passphrase& aPassphrase) {
    const CFile pChain(std::fopen(aChainFile, "re")), pKey(std::fopen(aKeyFile, "re"));
    if (!pChain || !pKey)
        return CM_ERROR_NOT_FOUND;
    while (X509* pNext = PEM_read_X509(pChain.get(), nullptr, nullptr, nullptr))
        m_Chain.emplace_back(pNext);
    Passphrase passphrase = aPassphrase;
    m_pKey.reset(PEM_read_PrivateKey(pKey.get(), nullptr, GivePassphrase, &passphrase));
    if (m_Chain.empty() || !m_pKey || X509_check_private_key(m_Chain.front().get(), m_pKey.get()) != 1)
        return CM_ERROR_INVALID_ARG;
    return CM_OK;
}

bool COwnCertificate::UseFor(ssl_st* aSsl) const {
    if (SSL_use_certificate(aSsl, m_Chain.front().get()) != 1 || SSL_use_PrivateKey(aSsl, m_pKey.get()) != 1)
        return false;
    SSL_clear_chain_certs(aSsl);
    for (size_t i = 1; i < m_Chain.size(); ++i) {
        if (SSL_add1_chain_cert(aSsl, m_Chain[i].get()) != 1)
            return false;
    }
    return true;
}

bool COwnCertificate::HasName_i(const char* aName, bool aWildcards) const {
    const unsigned uFlags = X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS |
                            (aWildcards ? 0u : unsigned{X509_CHECK_FLAG_NO_WILDCARDS});
    return X509_check_host(m_Chain.front().get(), aName, 0, uFlags, nullptr) == 1;
}

const COwnCertificate* COwnCertificate::Find(const std::vector<COwnCertificate>& aAll, const char* aName) {
    for (const bool bWildcards : {false, true}) {
        for (const COwnCertificate& own : aAll) {
            if (own.HasName_i(aName, bWildcards))
                return &own;
        }
    }
    return nullptr;
}

}  // namespace talvo

#include "talvo/transport/tls/own_certificate.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "talvo/transport/tls/pem_file.h"
#include "talvo/transport/tls/server_names.h"

namespace talvo {

namespace {

// Replaces OpenSSL's question on the terminal. The application's function may throw, and OpenSSL cannot pass that on.
int GivePassphrase(char* aBuf, int aSize, int, void* aPassphrase) {
    const auto* pPassphrase = static_cast<const COwnCertificate::Passphrase*>(aPassphrase);
    if (!pPassphrase || !*pPassphrase)
        return -1;
    try {
        std::string strPhrase = (*pPassphrase)();
        const bool bFits = strPhrase.size() <= static_cast<size_t>(aSize);
        if (bFits)
            std::memcpy(aBuf, strPhrase.data(), strPhrase.size());
        const int nLength = bFits ? static_cast<int>(strPhrase.size()) : -1;
        OPENSSL_cleanse(strPhrase.data(), strPhrase.size());
        return nLength;
    } catch (...) {
        return -1;
    }
}

}  // namespace

void COwnCertificate::CFree::operator()(x509_st* aCertificate) const { X509_free(aCertificate); }
void COwnCertificate::CFree::operator()(evp_pkey_st* aKey) const { EVP_PKEY_free(aKey); }
void COwnCertificate::CFree::operator()(stack_st_X509* aChain) const { sk_X509_pop_free(aChain, X509_free); }

COwnCertificate::COwnCertificate(std::string aChainFile, std::string aKeyFile, Passphrase aPassphrase)
    : m_strChainFile(std::move(aChainFile)), m_strKeyFile(std::move(aKeyFile)), m_Passphrase(std::move(aPassphrase)) {}

COwnCertificate::~COwnCertificate() = default;

std::shared_ptr<COwnCertificate> COwnCertificate::Renew() const {
    return std::make_shared<COwnCertificate>(m_strChainFile, m_strKeyFile, m_Passphrase);
}

CSslProblem COwnCertificate::Load() {
    ERR_clear_error();
    CSslProblem problem = LoadChain_i();
    if (!problem)
        problem = LoadKey_i();
    if (problem)
        return problem;
    if (X509_check_private_key(m_pCertificate.get(), m_pKey.get()) != 1)
        return CSslProblem::FromOpenSsl(m_strKeyFile);
    ReadNames_i();
    return {};
}

// A damaged certificate behind a good one is a problem too: the chain would be cut there.
CSslProblem COwnCertificate::LoadChain_i() {
    CPemFile file;
    if (CSslProblem problem = file.Read(m_strChainFile))
        return problem;
    const auto pReader = file.MakeReader();
    m_pCertificate.reset(PEM_read_bio_X509(pReader.get(), nullptr, GivePassphrase, nullptr));
    m_pChain.reset(sk_X509_new_null());
    if (!m_pChain)
        throw std::bad_alloc();
    X509* pNext = nullptr;
    while (m_pCertificate && (pNext = PEM_read_bio_X509(pReader.get(), nullptr, GivePassphrase, nullptr))) {
        if (sk_X509_push(m_pChain.get(), pNext) == 0) {
            X509_free(pNext);
            throw std::bad_alloc();
        }
    }
    if (!m_pCertificate || ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE)
        return CSslProblem::FromOpenSsl(m_strChainFile);
    ERR_clear_error();
    return {};
}

CSslProblem COwnCertificate::LoadKey_i() {
    CPemFile file;
    if (CSslProblem problem = file.Read(m_strKeyFile))
        return problem;
    const auto pReader = file.MakeReader();
    auto* pPassphrase = const_cast<Passphrase*>(&m_Passphrase);
    m_pKey.reset(PEM_read_bio_PrivateKey(pReader.get(), nullptr, GivePassphrase, pPassphrase));
    return m_pKey ? CSslProblem() : CSslProblem::FromOpenSsl(m_strKeyFile);
}

void COwnCertificate::ReadNames_i() {
    const std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> pNames(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(m_pCertificate.get(), NID_subject_alt_name, nullptr, nullptr)),
        GENERAL_NAMES_free);
    for (int i = 0; i < sk_GENERAL_NAME_num(pNames.get()); ++i) {
        const GENERAL_NAME* pName = sk_GENERAL_NAME_value(pNames.get(), i);
        if (pName->type != GEN_DNS)
            continue;
        const auto* pText = reinterpret_cast<const char*>(ASN1_STRING_get0_data(pName->d.dNSName));
        m_Names.push_back(LowerCase({pText, static_cast<size_t>(ASN1_STRING_length(pName->d.dNSName))}));
    }
    ERR_clear_error();
}

bool COwnCertificate::UseFor(ssl_ctx_st* aContext) const {
    return SSL_CTX_use_cert_and_key(aContext, m_pCertificate.get(), m_pKey.get(), m_pChain.get(), 1) == 1;
}

bool COwnCertificate::UseFor(ssl_st* aSsl) const {
    SSL_certs_clear(aSsl);
    return SSL_use_cert_and_key(aSsl, m_pCertificate.get(), m_pKey.get(), m_pChain.get(), 1) == 1;
}

}  // namespace talvo

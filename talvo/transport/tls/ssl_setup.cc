#include "talvo/transport/tls/ssl_setup.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "talvo/base/ip_bytes.h"
#include "talvo/base/trace.h"
#include "talvo/transport/tls/ssl_callbacks.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

namespace {

constexpr uint64_t OPTIONS = SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_ENABLE_MIDDLEBOX_COMPAT;
constexpr long MODES = SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;
constexpr int SECURITY_LEVEL = 2;  // 112 bits: no SHA-1 in certificates, no RSA below 2,048 bits
constexpr const char* WITH_SECURITY = ":!aNULL:!eNULL";

SSL_CTX* NewContext() {
    // The network thread may go on while the process exits, and use what OpenSSL frees in exit(). Nothing is freed there if
    // this is the first use of OpenSSL in the process.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    ERR_clear_error();
    SSL_CTX* pCtx = SSL_CTX_new(SSLv23_method());
    ERR_clear_error();
    if (!pCtx)
        throw std::bad_alloc();
    return pCtx;
}

struct CFreeSsl {
    void operator()(SSL* aSsl) const { SSL_free(aSsl); }
};
using CSslPtr = std::unique_ptr<SSL, CFreeSsl>;

CSslProblem OfFile(const std::string& aFile) {
    return access(aFile.c_str(), R_OK) != 0 ? CSslProblem::FromErrno(aFile) : CSslProblem::FromOpenSsl(aFile);
}

// The result of a call that fails only if memory runs out.
bool Taken(int aReturned) {
    if (aReturned != 1)
        throw std::bad_alloc();
    return true;
}

// OpenSSL skips the suites that it does not know.
bool HasSuites(const SSL_CTX* aCtx, const std::string& aTls13) {
    std::ptrdiff_t lSuites = 0;
    for (int i = 0; i < sk_SSL_CIPHER_num(SSL_CTX_get_ciphers(aCtx)); ++i)
        lSuites += SSL_CIPHER_get_protocol_id(sk_SSL_CIPHER_value(SSL_CTX_get_ciphers(aCtx), i)) >> 8 == 0x13;
    return lSuites == std::count(aTls13.begin(), aTls13.end(), ':') + 1;
}

}  // namespace

CSslProblem CSslSetup::Make(const CSslRecipe& aRecipe, std::shared_ptr<CSslSetup>& aSetup) {
    const std::shared_ptr<CSslSetup> pSetup(new CSslSetup(aRecipe));
    pSetup->SetRules_i();
    CSslProblem problem = pSetup->Set_i();
    ERR_clear_error();
    if (!problem)
        aSetup = pSetup;
    return problem;
}

CSslSetup::CSslSetup(const CSslRecipe& aRecipe) : m_Recipe(aRecipe), m_pCtx(NewContext()) {}

CSslSetup::~CSslSetup() {
    SSL_CTX_free(m_pCtx);
    ERR_clear_error();
}

// OpenSSL's own configuration has had its say in the new context. It may make the rules stricter, not weaker.
void CSslSetup::SetRules_i() {
    SSL_CTX_clear_options(m_pCtx, SSL_CTX_get_options(m_pCtx));
    SSL_CTX_set_options(m_pCtx, OPTIONS);
    SSL_CTX_set_mode(m_pCtx, MODES);
    SSL_CTX_set_security_level(m_pCtx, std::max(SSL_CTX_get_security_level(m_pCtx), SECURITY_LEVEL));
    SSL_CTX_set_max_cert_list(m_pCtx, MOST_CHAIN);
    const int nConfigured = static_cast<int>(SSL_CTX_get_min_proto_version(m_pCtx));
    m_nLowest = std::max(TLS1_2_VERSION, m_Recipe.m_nLowest != 0 ? m_Recipe.m_nLowest : nConfigured);
    CSslCallbacks::Attach(*this);
}

CSslProblem CSslSetup::Set_i() {
    using Step = CSslProblem (CSslSetup::*)();
    constexpr Step STEPS[] = {&CSslSetup::SetOffer_i, &CSslSetup::SetTrust_i, &CSslSetup::SetRevocations_i,
                              &CSslSetup::SetOwn_i, &CSslSetup::SetResumption_i};
    for (const Step step : STEPS) {
        if (CSslProblem problem = (this->*step)())
            return problem;
    }
    SetCaNames_i();
    return {};
}

// The level of security may be part of the list, and a certificate must fit it.
CSslProblem CSslSetup::SetOffer_i() {
    const std::string& strTls13 = m_Recipe.m_strCiphers13;
    if (!m_Recipe.m_strCiphers12.empty() &&
        SSL_CTX_set_cipher_list(m_pCtx, (m_Recipe.m_strCiphers12 + WITH_SECURITY).c_str()) != 1)
        return CSslProblem::FromOpenSsl();
    if (!strTls13.empty() && (SSL_CTX_set_ciphersuites(m_pCtx, strTls13.c_str()) != 1 || !HasSuites(m_pCtx, strTls13)))
        return CSslProblem::FromOpenSsl();
    const auto& alpn = m_Recipe.m_Alpn;
    if (SSL_CTX_set_alpn_protos(m_pCtx, alpn.data(), static_cast<unsigned>(alpn.size())) != 0)
        return CSslProblem::FromOpenSsl();
    return {};
}

CSslProblem CSslSetup::SetTrust_i() {
    const std::string &strFile = m_Recipe.m_strTrustFile, &strFolder = m_Recipe.m_strTrustFolder;
    if (m_Recipe.m_Trust == CSslRecipe::SYSTEM && SSL_CTX_set_default_verify_paths(m_pCtx) != 1)
        return CSslProblem::FromOpenSsl();
    if (m_Recipe.m_Trust != CSslRecipe::FILES)
        return {};
    if (!strFile.empty() && SSL_CTX_load_verify_file(m_pCtx, strFile.c_str()) != 1)
        return OfFile(strFile);
    if (strFolder.empty())
        return {};
    if (access((strFolder + "/").c_str(), R_OK | X_OK) != 0)
        return CSslProblem::FromErrno(strFolder);
    return SSL_CTX_load_verify_dir(m_pCtx, strFolder.c_str()) == 1 ? CSslProblem() : CSslProblem::FromOpenSsl(strFolder);
}

CSslProblem CSslSetup::SetRevocations_i() {
    const std::string& strFile = m_Recipe.m_strRevocations;
    if (!m_Recipe.m_bRevocations)
        return {};
    X509_STORE* pStore = SSL_CTX_get_cert_store(m_pCtx);
    X509_STORE_set_flags(pStore, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    if (strFile.empty())
        return {};
    X509_LOOKUP* pLookup = X509_STORE_add_lookup(pStore, X509_LOOKUP_file());
    return pLookup && X509_load_crl_file(pLookup, strFile.c_str(), X509_FILETYPE_PEM) > 0 ? CSslProblem() : OfFile(strFile);
}

// Those of a file. A client with several certificates chooses by them.
void CSslSetup::SetCaNames_i() {
    const STACK_OF(X509_OBJECT)* pObjects = X509_STORE_get0_objects(SSL_CTX_get_cert_store(m_pCtx));
    if (!m_Recipe.m_bAsk || m_Recipe.m_Trust != CSslRecipe::FILES || sk_X509_OBJECT_num(pObjects) > MOST_CA_NAMES)
        return;
    for (int i = 0; i < sk_X509_OBJECT_num(pObjects); ++i) {
        if (X509* pCertificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(pObjects, i)))
            SSL_CTX_add_client_CA(m_pCtx, pCertificate);
    }
}

// The context has the first one; each of the others is tried, so that a weak one is refused now.
CSslProblem CSslSetup::SetOwn_i() {
    const CSslPtr pTrial(SSL_new(m_pCtx));
    if (!pTrial)
        throw std::bad_alloc();
    for (const auto& pOwn : m_Recipe.m_Own) {
        if (!pOwn->UseFor(pTrial.get()))
            return CSslProblem::FromOpenSsl(pOwn->GetFile());
        for (const std::string& strName : pOwn->GetNames())
            m_Names.Add(strName, pOwn.get());
    }
    if (!m_Recipe.m_Own.empty() && !m_Recipe.m_Own.front()->UseFor(m_pCtx))
        return CSslProblem::FromOpenSsl(m_Recipe.m_Own.front()->GetFile());
    return {};
}

// A ticket of another setup is refused: its keys differ, and its name does. Early data could be replayed, so none is accepted.
CSslProblem CSslSetup::SetResumption_i() {
    std::array<unsigned char, SSL_MAX_SID_CTX_LENGTH> name;
    if (RAND_bytes(name.data(), static_cast<int>(name.size())) != 1 ||
        SSL_CTX_set_session_id_context(m_pCtx, name.data(), static_cast<unsigned>(name.size())) != 1)
        return CSslProblem::FromOpenSsl();
    SSL_CTX_set_max_early_data(m_pCtx, 0);
    SSL_CTX_set_recv_max_early_data(m_pCtx, 0);
    SSL_CTX_set_timeout(m_pCtx, CSessionStore::MOST_SECONDS);
    const bool bKeep = m_Recipe.m_bKeepSessions;
    SSL_CTX_set_session_cache_mode(m_pCtx, bKeep ? SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL : SSL_SESS_CACHE_OFF);
    if (bKeep)
        return {};
    SSL_CTX_set_options(m_pCtx, SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(m_pCtx, 0);
    return {};
}

ssl_st* CSslSetup::MakeSsl_i(DWORD aType, std::string aServer) {
    auto pUse = std::make_unique<CSslUse>(shared_from_this(), std::move(aServer));
    ERR_clear_error();
    CSslPtr pSsl(SSL_new(m_pCtx));
    if (!pSsl || !CSslUse::Attach(pSsl.get(), std::move(pUse)))
        throw std::bad_alloc();
    return LimitVersions_i(pSsl.get(), aType) ? pSsl.release() : nullptr;
}

bool CSslSetup::LimitVersions_i(ssl_st* aSsl, DWORD aType) const {
    const int nLowest = std::max(m_nLowest, aType == CM_TRANSPORT_TYPE_TLS_1_3 ? TLS1_3_VERSION : TLS1_2_VERSION);
    const int nHighest = std::min(m_Recipe.m_nHighest, aType == CM_TRANSPORT_TYPE_TLS_1_2 ? TLS1_2_VERSION : TLS1_3_VERSION);
    return nLowest <= nHighest && SSL_set_min_proto_version(aSsl, nLowest) == 1 &&
           SSL_set_max_proto_version(aSsl, nHighest) == 1;
}

ssl_st* CSslSetup::MakeServer(DWORD aType) {
    if (m_Recipe.m_Own.empty())
        return nullptr;
    SSL* pSsl = MakeSsl_i(aType, {});
    if (!pSsl)
        return nullptr;
    SSL_set_accept_state(pSsl);
    const int nRequired = m_Recipe.m_Verify == CM_TLS_VERIFY_REQUIRED ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0;
    const bool bAsk = m_Recipe.m_bAsk && m_Recipe.m_Verify != CM_TLS_VERIFY_NONE;
    SSL_set_verify(pSsl, bAsk ? SSL_VERIFY_PEER | nRequired : SSL_VERIFY_NONE, nullptr);
    return pSsl;
}

ssl_st* CSslSetup::MakeClient(DWORD aType, const std::string& aName, const std::string& aPort) {
    const bool bVerify = m_Recipe.m_Verify != CM_TLS_VERIFY_NONE;
    const bool bKeep = bVerify && m_Recipe.m_bKeepSessions;
    CSslPtr pSsl(MakeSsl_i(aType, bKeep ? LowerCase(aName) + "\n" + aPort : ""));
    if (!pSsl || !CheckName_i(pSsl.get(), aName))
        return nullptr;
    SSL_set_connect_state(pSsl.get());
    SSL_set_verify(pSsl.get(), bVerify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
    if (!bVerify)
        CM_WARNING_TRACE("CCmSslContext, a server is not verified. name=" << aName << " port=" << aPort);
    Resume_i(pSsl.get());
    return pSsl.release();
}

// An address is checked as one, and is not sent as a name (RFC 6066, 3). OpenSSL takes "" as any name, and a dot at the
// beginning as any name below it.
bool CSslSetup::CheckName_i(ssl_st* aSsl, const std::string& aName) const {
    X509_VERIFY_PARAM* pParam = SSL_get0_param(aSsl);
    X509_VERIFY_PARAM_set_hostflags(pParam, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    CIpBytes ip;
    if (CIpBytes::Parse(aName, ip)) {
        ip.m_dwScope = 0;
        return Taken(X509_VERIFY_PARAM_set1_ip_asc(pParam, ip.GetText().c_str()));
    }
    if (aName.empty() || aName.front() == '.' || aName.size() > TLSEXT_MAXLEN_host_name)
        return false;
    return Taken(X509_VERIFY_PARAM_set1_host(pParam, aName.c_str(), aName.size())) &&
           Taken(SSL_set_tlsext_host_name(aSsl, aName.c_str()));
}

void CSslSetup::Resume_i(ssl_st* aSsl) {
    CSslUse& use = CSslUse::Of(aSsl);
    if (use.m_strServer.empty())
        return;
    CSslSessionPtr pSession = m_Store.Take(use.m_strServer, static_cast<int>(SSL_get_min_proto_version(aSsl)),
                                           static_cast<int>(SSL_get_max_proto_version(aSsl)));
    if (!pSession || SSL_set_session(aSsl, pSession.get()) != 1 ||
        SSL_SESSION_get_protocol_version(pSession.get()) == TLS1_3_VERSION)
        return;
    use.m_pOffered = std::move(pSession);
}

}  // namespace talvo

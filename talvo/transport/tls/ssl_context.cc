#include "talvo/transport/tls/ssl_context.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/tls/alpn.h"
#include "talvo/transport/tls/default_context.h"
#include "talvo/transport/tls/own_certificate.h"
#include "talvo/transport/tls/tls_session.h"
#include "talvo/transport/tls/transport_ssl.h"

namespace {

CCmLiveCounter s_Live("CCmSslContext");

constexpr uint64_t OPTIONS = SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION;
constexpr long MODES = SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;

// Of a file that OpenSSL did not take.
CmResult ResultOfFile(const char* aFile) {
    return aFile && access(aFile, R_OK) != 0 ? CM_ERROR_NOT_FOUND : CM_ERROR_INVALID_ARG;
}

}  // namespace

namespace talvo {

struct CSslSettings {
    CSslSettings() : m_pCtx(SSL_CTX_new(SSLv23_method())) {
        if (!m_pCtx)
            throw std::bad_alloc();
        SSL_CTX_set_options(m_pCtx, OPTIONS);
        SSL_CTX_set_mode(m_pCtx, MODES);
        SSL_CTX_set_min_proto_version(m_pCtx, m_Lowest);
        SSL_CTX_set_max_proto_version(m_pCtx, m_Highest);
        SSL_CTX_set_session_cache_mode(m_pCtx, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_app_data(m_pCtx, this);
        SSL_CTX_set_tlsext_servername_arg(m_pCtx, this);
        SSL_CTX_set_tlsext_servername_callback(m_pCtx, ChooseCertificate);
        SSL_CTX_set_alpn_select_cb(m_pCtx, ChooseAlpn, this);
    }
    ~CSslSettings() { SSL_CTX_free(m_pCtx); }
    CSslSettings(const CSslSettings&) = delete;
    CSslSettings& operator=(const CSslSettings&) = delete;

    static int ChooseCertificate(SSL* aSsl, int*, void* aSettings);
    static void LogKey(const SSL* aSsl, const char* aLine);
    static int ChooseAlpn(SSL*, const unsigned char** aOut, unsigned char* aOutLen, const unsigned char* aIn, unsigned aInLen,
                          void* aSettings);

    // Of a new SSL: what a client checks and names, or what a server presents and asks for.
    CmResult BeginClient(SSL* aSsl, const char* aName);
    CmResult BeginServer(SSL* aSsl);
    CmResult LimitVersions(SSL* aSsl, DWORD aType);
    CmResult CheckName(SSL* aSsl, const char* aName);

    SSL_CTX* const m_pCtx;
    std::vector<COwnCertificate> m_Own;
    std::vector<unsigned char> m_Alpn;  // each name behind its length
    struct CCloseFile {
        void operator()(BIO* aFile) const { BIO_free(aFile); }
    };
    std::unique_ptr<BIO, CCloseFile> m_pKeyLog;  // null: none
    int m_Lowest = TLS1_2_VERSION;
    int m_Highest = TLS1_3_VERSION;
    ECmTlsVerify m_Verify = CM_TLS_VERIFY_REQUIRED;
    bool m_bAsk = false;    // SetVerify was called: a server asks for certificates
    bool m_bTrust = false;  // SetTrust was called; else the system's store
    std::atomic<bool> m_bUsed = false;
    CCmMutexThread m_Mutex;
};

// The certificate of the first name that fits; without one the first certificate, which the context has.
int CSslSettings::ChooseCertificate(SSL* aSsl, int*, void* aSettings) {
    const auto& settings = *static_cast<CSslSettings*>(aSettings);
    const char* pName = SSL_get_servername(aSsl, TLSEXT_NAMETYPE_host_name);
    if (!pName)
        return SSL_TLSEXT_ERR_NOACK;
    const COwnCertificate* pOwn = COwnCertificate::Find(settings.m_Own, pName);
    return !pOwn || pOwn->UseFor(aSsl) ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

int CSslSettings::ChooseAlpn(SSL* aSsl, const unsigned char** aOut, unsigned char* aOutLen, const unsigned char* aIn,
                             unsigned aInLen, void* aSettings) {
    const auto& own = static_cast<CTlsSession*>(SSL_get_app_data(aSsl))->GetAlpn();
    const auto& alpn = own.empty() ? static_cast<CSslSettings*>(aSettings)->m_Alpn : own;
    unsigned char* pOut = nullptr;
    const int nRv = SSL_select_next_proto(&pOut, aOutLen, alpn.data(), static_cast<unsigned>(alpn.size()), aIn, aInLen);
    *aOut = pOut;
    return nRv == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

void CSslSettings::LogKey(const SSL* aSsl, const char* aLine) {
    auto& settings = *static_cast<CSslSettings*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(aSsl)));
    const CCmMutexGuardT<CCmMutexThread> guard(settings.m_Mutex);
    BIO_printf(settings.m_pKeyLog.get(), "%s\n", aLine);
    (void)BIO_flush(settings.m_pKeyLog.get());
}

CmResult CSslSettings::BeginClient(SSL* aSsl, const char* aName) {
    if (!m_Own.empty() && !m_Own.front().UseFor(aSsl))
        return CM_ERROR_FAILURE;
    SSL_set_connect_state(aSsl);
    if (m_Verify == CM_TLS_VERIFY_NONE)
        CM_WARNING_TRACE("CCmSslContext, the server is not verified. name=" << aName);
    SSL_set_verify(aSsl, m_Verify == CM_TLS_VERIFY_NONE ? SSL_VERIFY_NONE : SSL_VERIFY_PEER, nullptr);
    return CheckName(aSsl, aName);
}

// An address is checked as one, and is never sent as a name (RFC 6066, 3).
CmResult CSslSettings::CheckName(SSL* aSsl, const char* aName) {
    X509_VERIFY_PARAM* pParam = SSL_get0_param(aSsl);
    CIpBytes ip;
    if (CIpBytes::Parse(aName, ip))
        return X509_VERIFY_PARAM_set1_ip_asc(pParam, ip.GetText().c_str()) == 1 ? CM_OK : CM_ERROR_FAILURE;
    X509_VERIFY_PARAM_set_hostflags(pParam, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    const BOOL bSet = X509_VERIFY_PARAM_set1_host(pParam, aName, 0) == 1 && SSL_set_tlsext_host_name(aSsl, aName) == 1;
    return bSet ? CM_OK : CM_ERROR_FAILURE;
}

CmResult CSslSettings::BeginServer(SSL* aSsl) {
    if (m_Own.empty() || !m_Own.front().UseFor(aSsl))
        return CM_ERROR_FAILURE;
    SSL_set_accept_state(aSsl);
    const int nRequired = m_Verify == CM_TLS_VERIFY_REQUIRED ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0;
    SSL_set_verify(aSsl, m_bAsk && m_Verify != CM_TLS_VERIFY_NONE ? SSL_VERIFY_PEER | nRequired : SSL_VERIFY_NONE, nullptr);
    return CM_OK;
}

CmResult CSslSettings::LimitVersions(SSL* aSsl, DWORD aType) {
    const int nLowest = std::max(m_Lowest, aType == CM_TRANSPORT_TYPE_TLS_1_3 ? TLS1_3_VERSION : TLS1_2_VERSION);
    const int nHighest = std::min(m_Highest, aType == CM_TRANSPORT_TYPE_TLS_1_2 ? TLS1_2_VERSION : TLS1_3_VERSION);
    if (nLowest > nHighest)
        return CM_ERROR_FAILURE;
    SSL_set_min_proto_version(aSsl, nLowest);
    SSL_set_max_proto_version(aSsl, nHighest);
    return CM_OK;
}

}  // namespace talvo

CCmSslContext::CCmSslContext()
    : m_pSettings([] {
          std::unique_ptr<talvo::CSslSettings> pSettings;
          talvo::WithMemory([&] { pSettings = std::make_unique<talvo::CSslSettings>(); });
          ERR_clear_error();
          return pSettings;
      }()) {
    ++s_Live;
}

CCmSslContext::~CCmSslContext() { --s_Live; }

// Runs aSet(settings), which returns a result; failures are traced with OpenSSL's reason.
template <class Callable>
CmResult CCmSslContext::Set_i(const char* aWhat, const char* aFile, Callable aSet) {
    if (!m_pSettings)
        return CM_ERROR_OUT_OF_MEMORY;
    const CCmMutexGuardT<CCmMutexThread> guard(m_pSettings->m_Mutex);
    if (m_pSettings->m_bUsed)
        return CM_ERROR_ALREADY_INITIALIZED;
    ERR_clear_error();
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    talvo::WithMemory([&] { rv = aSet(*m_pSettings); });
    const unsigned long ulError = ERR_peek_last_error();
    if (rv != CM_OK) {
        const char* pReason = ERR_reason_error_string(ulError);
        CM_WARNING_TRACE_THIS("CCmSslContext::" << aWhat << ", refused. file=" << (aFile ? aFile : "") << " rv=" << rv
                                                << " why=" << (pReason ? pReason : ""));
    }
    ERR_clear_error();
    return rv;
}

CmResult CCmSslContext::SetTrust(const char* aFile, const char* aFolder) {
    if (!aFile && !aFolder)
        return CM_ERROR_INVALID_ARG;
    return Set_i("SetTrust", aFile ? aFile : aFolder, [&](talvo::CSslSettings& aSettings) {
        if (SSL_CTX_load_verify_locations(aSettings.m_pCtx, aFile, aFolder) != 1)
            return ResultOfFile(aFile);
        aSettings.m_bTrust = true;
        return CM_OK;
    });
}

CmResult CCmSslContext::SetRevocationLists(const char* aFile) {
    if (!aFile)
        return CM_ERROR_INVALID_ARG;
    return Set_i("SetRevocationLists", aFile, [&](talvo::CSslSettings& aSettings) {
        X509_STORE* pStore = SSL_CTX_get_cert_store(aSettings.m_pCtx);
        X509_LOOKUP* pLookup = X509_STORE_add_lookup(pStore, X509_LOOKUP_file());
        if (!pLookup || X509_load_crl_file(pLookup, aFile, X509_FILETYPE_PEM) <= 0)
            return ResultOfFile(aFile);
        X509_STORE_set_flags(pStore, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        return CM_OK;
    });
}

CmResult CCmSslContext::AddCertificate(const char* aChainFile, const char* aKeyFile, const Passphrase& aPassphrase) {
    if (!aChainFile || !aKeyFile)
        return CM_ERROR_INVALID_ARG;
    return Set_i("AddCertificate", aChainFile, [&](talvo::CSslSettings& aSettings) {
        talvo::COwnCertificate own;
        const CmResult rv = own.Load(aChainFile, aKeyFile, aPassphrase);
        if (rv == CM_OK)
            aSettings.m_Own.push_back(std::move(own));
        return rv;
    });
}

BOOL CCmSslContext::HasCertificate() const {
    if (!m_pSettings)
        return FALSE;
    const CCmMutexGuardT<CCmMutexThread> guard(m_pSettings->m_Mutex);
    return !m_pSettings->m_Own.empty();
}

CmResult CCmSslContext::SetAlpn(const char* aProtocols) {
    if (!aProtocols)
        return CM_ERROR_INVALID_ARG;
    return Set_i("SetAlpn", nullptr, [&](talvo::CSslSettings& aSettings) {
        std::vector<unsigned char> list = talvo::MakeAlpnList(aProtocols);
        if (list.empty() || SSL_CTX_set_alpn_protos(aSettings.m_pCtx, list.data(), static_cast<unsigned>(list.size())) != 0)
            return CM_ERROR_INVALID_ARG;
        aSettings.m_Alpn = std::move(list);
        return CM_OK;
    });
}

CmResult CCmSslContext::SetVersions(ECmTlsVersion aLowest, ECmTlsVersion aHighest) {
    if (aLowest < CM_TLS_1_2 || aHighest > CM_TLS_1_3 || aLowest > aHighest)
        return CM_ERROR_INVALID_ARG;
    return Set_i("SetVersions", nullptr, [&](talvo::CSslSettings& aSettings) {
        aSettings.m_Lowest = static_cast<int>(aLowest);
        aSettings.m_Highest = static_cast<int>(aHighest);
        return CM_OK;
    });
}

CmResult CCmSslContext::SetCiphers(const char* aTls12, const char* aTls13) {
    return Set_i("SetCiphers", nullptr, [&](talvo::CSslSettings& aSettings) {
        const BOOL bTaken = (!aTls12 || SSL_CTX_set_cipher_list(aSettings.m_pCtx, aTls12) == 1) &&
                            (!aTls13 || SSL_CTX_set_ciphersuites(aSettings.m_pCtx, aTls13) == 1);
        return bTaken ? CM_OK : CM_ERROR_INVALID_ARG;
    });
}

CmResult CCmSslContext::SetVerify(ECmTlsVerify aVerify) {
    if (aVerify > CM_TLS_VERIFY_REQUIRED)
        return CM_ERROR_INVALID_ARG;
    return Set_i("SetVerify", nullptr, [&](talvo::CSslSettings& aSettings) {
        aSettings.m_Verify = aVerify;
        aSettings.m_bAsk = true;
        return CM_OK;
    });
}

CmResult CCmSslContext::SetKeyLog(const char* aFile) {
    if (!aFile)
        return CM_ERROR_INVALID_ARG;
    return Set_i("SetKeyLog", aFile, [&](talvo::CSslSettings& aSettings) {
        aSettings.m_pKeyLog.reset(BIO_new_file(aFile, "ae"));
        if (!aSettings.m_pKeyLog)
            return CM_ERROR_NOT_FOUND;
        SSL_CTX_set_keylog_callback(aSettings.m_pCtx, talvo::CSslSettings::LogKey);
        return CM_OK;
    });
}

CCmRefPtrT<CCmSslContext> CCmSslContext::GetDefault() { return talvo::CDefaultContext::Instance().Get(); }

// The name is set before the version: a session without one must never connect.
CmResult CCmSslContext::Begin_i(CCmTransportSsl& aTransport, DWORD aType, const char* aServerName,
                                const std::vector<unsigned char>& aAlpn, std::unique_ptr<talvo::CTlsSession>& aSession) {
    if (!m_pSettings)
        return CM_ERROR_OUT_OF_MEMORY;
    CmResult rv = Use_i();
    if (rv != CM_OK)
        return rv;
    ERR_clear_error();
    SSL* pSsl = SSL_new(m_pSettings->m_pCtx);
    const BOOL bMade = pSsl && talvo::WithMemory([&] { aSession = std::make_unique<talvo::CTlsSession>(aTransport, pSsl); });
    ERR_clear_error();
    if (!bMade) {
        SSL_free(pSsl);
        return CM_ERROR_OUT_OF_MEMORY;
    }
    rv = aServerName ? m_pSettings->BeginClient(pSsl, aServerName) : m_pSettings->BeginServer(pSsl);
    if (rv == CM_OK)
        rv = m_pSettings->LimitVersions(pSsl, aType);
    if (rv == CM_OK && !aAlpn.empty() && !aSession->UseAlpn(aAlpn))
        rv = CM_ERROR_OUT_OF_MEMORY;
    if (rv != CM_OK)
        aSession.reset();
    ERR_clear_error();
    return rv;
}

// Loads the system's store, unless there is another, and fixes the settings.
CmResult CCmSslContext::Use_i() {
    const CCmMutexGuardT<CCmMutexThread> guard(m_pSettings->m_Mutex);
    if (m_pSettings->m_bUsed.exchange(true) || std::exchange(m_pSettings->m_bTrust, true))
        return CM_OK;
    ERR_clear_error();
    const BOOL bLoaded = SSL_CTX_set_default_verify_paths(m_pSettings->m_pCtx) == 1;
    ERR_clear_error();
    return bLoaded ? CM_OK : CM_ERROR_FAILURE;
}

// A certificate of a server or a client, with its chain and its key.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "talvo/transport/tls/ssl_problem.h"

struct ssl_st;
struct ssl_ctx_st;
struct x509_st;
struct evp_pkey_st;
struct stack_st_X509;

namespace talvo {

// Immutable once it is loaded; any thread.
class COwnCertificate {
public:
    using Passphrase = std::function<std::string()>;

    COwnCertificate(std::string aChainFile, std::string aKeyFile, Passphrase aPassphrase);
    ~COwnCertificate();
    COwnCertificate(const COwnCertificate&) = delete;
    COwnCertificate& operator=(const COwnCertificate&) = delete;

    // Reads the two PEM files, once. Also CM_ERROR_INVALID_ARG: no certificate or no key in them, or the key is of another
    // certificate. Throws std::bad_alloc.
    CSslProblem Load();
    // A new one from the same files, not loaded yet.
    std::shared_ptr<COwnCertificate> Renew() const;

    // FALSE: OpenSSL refuses it, for a weak key or hash for example.
    bool UseFor(ssl_ctx_st* aContext) const;
    // Replaces those of the context.
    bool UseFor(ssl_st* aSsl) const;

    // Its DNS names in lower case, as they are written: "*.example.com".
    const std::vector<std::string>& GetNames() const { return m_Names; }
    const std::string& GetFile() const { return m_strChainFile; }

private:
    CSslProblem LoadChain_i();
    CSslProblem LoadKey_i();
    void ReadNames_i();

    const std::string m_strChainFile, m_strKeyFile;
    const Passphrase m_Passphrase;
    struct CFree {
        void operator()(x509_st* aCertificate) const;
        void operator()(evp_pkey_st* aKey) const;
        void operator()(stack_st_X509* aChain) const;
    };
    std::unique_ptr<x509_st, CFree> m_pCertificate;
    std::unique_ptr<stack_st_X509, CFree> m_pChain;  // the ones behind it
    std::unique_ptr<evp_pkey_st, CFree> m_pKey;
    std::vector<std::string> m_Names;
};

}  // namespace talvo

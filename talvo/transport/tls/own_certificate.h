// A certificate of a server or a client, with its chain and its key.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "talvo/base/result.h"

struct ssl_st;
struct x509_st;
struct evp_pkey_st;

namespace talvo {

class COwnCertificate {
public:
    using Passphrase = std::function<std::string()>;

    COwnCertificate();
    COwnCertificate(COwnCertificate&&) noexcept;
    ~COwnCertificate();

    // PEM files. CM_ERROR_NOT_FOUND: one cannot be read. CM_ERROR_INVALID_ARG: no certificate or no key in it, or the key is of
    // another one. OpenSSL's queue has the reason. Throws std::bad_alloc.
    CmResult Load(const char* aChainFile, const char* aKeyFile, const Passphrase& aPassphrase);

    // FALSE: OpenSSL refuses it.
    bool UseFor(ssl_st* aSsl) const;

    // The first with aName exactly, else the first with a wildcard for its first label; null: none.
    static const COwnCertificate* Find(const std::vector<COwnCertificate>& aAll, const char* aName);

private:
    bool HasName_i(const char* aName, bool aWildcards) const;

    struct CFree {
        void operator()(x509_st* aCertificate) const;
        void operator()(evp_pkey_st* aKey) const;
    };
    std::vector<std::unique_ptr<x509_st, CFree>> m_Chain;  // the own one first
    std::unique_ptr<evp_pkey_st, CFree> m_pKey;
};

}  // namespace talvo

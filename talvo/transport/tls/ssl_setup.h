// The settings of a context, and OpenSSL's context that follows from them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/base/types.h"
#include "talvo/transport/tls/key_log.h"
#include "talvo/transport/tls/own_certificate.h"
#include "talvo/transport/tls/server_names.h"
#include "talvo/transport/tls/session_store.h"
#include "talvo/transport/tls/ssl_context.h"
#include "talvo/transport/tls/ticket_keys.h"

namespace talvo {

struct CSslRecipe {
    enum ETrust { SYSTEM, FILES, NOTHING };

    ETrust m_Trust = SYSTEM;
    std::string m_strTrustFile, m_strTrustFolder;  // "": none
    bool m_bRevocations = false;                   // chains are checked against lists
    std::string m_strRevocations;                  // "": there are none, so every chain is refused
    std::vector<std::shared_ptr<const COwnCertificate>> m_Own;
    std::vector<unsigned char> m_Alpn;  // each name behind its length
    int m_nLowest = 0;                  // 0: as OpenSSL's configuration says, at least TLS 1.2
    int m_nHighest = 0x0304;
    std::string m_strCiphers12, m_strCiphers13;  // "": those of OpenSSL
    ECmTlsVerify m_Verify = CM_TLS_VERIFY_REQUIRED;
    bool m_bAsk = false;  // a server asks for certificates
    bool m_bKeepSessions = true;
    std::shared_ptr<const CKeyLog> m_pKeyLog;  // null: none
};

// It does not change, except for the sessions and the keys of resumption; any thread. A connection holds it until its end.
class CSslSetup : public std::enable_shared_from_this<CSslSetup> {
public:
    static constexpr long MOST_CHAIN = 102400;  // bytes of the certificates that a peer sends
    static constexpr int MOST_CA_NAMES = 256;   // that a server sends to its clients; of more it sends none

    // Reads the files of trust and revocation. Throws std::bad_alloc.
    static CSslProblem Make(const CSslRecipe& aRecipe, std::shared_ptr<CSslSetup>& aSetup);

    ~CSslSetup();
    CSslSetup(const CSslSetup&) = delete;
    CSslSetup& operator=(const CSslSetup&) = delete;

    // For a client. aName: of the server, or its address. aPort: separates the sessions of servers of one name. Null: the
    // versions of aType and of the recipe are disjoint, or the name cannot be checked. Throws std::bad_alloc.
    ssl_st* MakeClient(DWORD aType, const std::string& aName, const std::string& aPort);
    // For a server. Null: there is no certificate, or the versions are disjoint. Throws std::bad_alloc.
    ssl_st* MakeServer(DWORD aType);

    BOOL HasCertificate() const { return !m_Recipe.m_Own.empty(); }
    CSessionStore& GetStore() { return m_Store; }

private:
    friend struct CSslCallbacks;

    explicit CSslSetup(const CSslRecipe& aRecipe);
    void SetRules_i();
    CSslProblem Set_i();
    CSslProblem SetOffer_i();
    CSslProblem SetTrust_i();
    CSslProblem SetRevocations_i();
    void SetCaNames_i();
    CSslProblem SetOwn_i();
    CSslProblem SetResumption_i();
    ssl_st* MakeSsl_i(DWORD aType, std::string aServer);
    bool LimitVersions_i(ssl_st* aSsl, DWORD aType) const;
    bool CheckName_i(ssl_st* aSsl, const std::string& aName) const;
    void Resume_i(ssl_st* aSsl);

    const CSslRecipe m_Recipe;
    ssl_ctx_st* const m_pCtx;
    int m_nLowest = 0;
    CServerNamesT<const COwnCertificate*> m_Names;
    CSessionStore m_Store;
    CTicketKeys m_Keys;
};

}  // namespace talvo

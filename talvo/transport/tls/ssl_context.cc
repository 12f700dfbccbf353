#include "talvo/transport/tls/ssl_context.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/tls/alpn.h"
#include "talvo/transport/tls/default_context.h"
#include "talvo/transport/tls/ssl_setup.h"
#include "talvo/transport/tls/tls_session.h"
#include "talvo/transport/tls/transport_ssl.h"

using talvo::CSslProblem;
using talvo::CSslRecipe;
using talvo::CSslSetup;

namespace {

CCmLiveCounter s_Live("CCmSslContext");

constexpr const char* IS_NULL = "an argument is null";

// Separates the sessions of servers that have one name.
CCmString PortOf(CCmTransportSsl& aTransport) {
    CCmInetAddr addr;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addr) != CM_OK)
        return {};
    return addr.GetIpBytes() ? std::to_string(addr.GetPort()) : addr.GetIpDisplayName();
}

// Reads the files of the recipe's certificates again.
CSslProblem RenewOwn(CSslRecipe& aRecipe) {
    for (auto& pOwn : aRecipe.m_Own) {
        const auto pNew = pOwn->Renew();
        if (CSslProblem problem = pNew->Load())
            return problem;
        pOwn = pNew;
    }
    return {};
}

}  // namespace

namespace talvo {

// The lock of the changes may wait for the disk; the other one does not.
struct CSslState {
    std::shared_ptr<CSslSetup> Use() {
        const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        m_bUsed = TRUE;
        return m_pSetup;
    }
    // Null: memory ran out for a setting.
    std::shared_ptr<CSslSetup> Get() {
        const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_pSetup;
    }
    BOOL IsUsed() {
        const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_bUsed;
    }
    void Store(std::shared_ptr<CSslSetup> aSetup) {
        const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        m_pSetup.swap(aSetup);
    }
    // A connection without one of the settings could be less secure.
    void Break() {
        Use();
        Store({});
    }

    CCmMutexThread m_Changing;
    CSslRecipe m_Recipe CM_GUARDED_BY(m_Changing);
    CCmMutexThread m_Mutex;
    std::shared_ptr<CSslSetup> m_pSetup CM_GUARDED_BY(m_Mutex);
    BOOL m_bUsed CM_GUARDED_BY(m_Mutex) = FALSE;
};

}  // namespace talvo

CCmSslContext::CCmSslContext()
    : m_pState([] {
          std::unique_ptr<talvo::CSslState> pState;
          talvo::WithMemory([&] {
              auto pNew = std::make_unique<talvo::CSslState>();
              std::shared_ptr<CSslSetup> pSetup;
              if (CSslSetup::Make({}, pSetup))
                  return;
              pNew->Store(pSetup);
              pState.swap(pNew);
          });
          return pState;
      }()) {
    ++s_Live;
}

CCmSslContext::~CCmSslContext() { --s_Live; }

CmResult CCmSslContext::Refuse_i(const char* aWhat, CmResult aResult, const char* aWhy, const char* aFile) {
    CM_WARNING_TRACE_THIS("CCmSslContext::" << aWhat << ", refused. file=" << aFile << " rv=" << aResult << " why=" << aWhy);
    return aResult;
}

// A change that is refused leaves the context as it was.
template <class Change>
CmResult CCmSslContext::Change_i(const char* aWhat, const Change& aChange) {
    if (!m_pState || !m_pState->Get())
        return CM_ERROR_OUT_OF_MEMORY;
    const CCmMutexGuardT<CCmMutexThread> guard(m_pState->m_Changing);
    CSslProblem problem;
    const BOOL bMemory = talvo::WithMemory([&]() CM_NO_THREAD_SAFETY_ANALYSIS {
        CSslRecipe recipe = m_pState->m_Recipe;
        std::shared_ptr<CSslSetup> pSetup;
        problem = aChange(recipe);
        if (!problem)
            problem = CSslSetup::Make(recipe, pSetup);
        if (problem)
            return;
        m_pState->m_Recipe = std::move(recipe);
        m_pState->Store(pSetup);
    });
    if (!bMemory)
        return Refuse_i(aWhat, CM_ERROR_OUT_OF_MEMORY, "memory ran out");
    return problem ? Refuse_i(aWhat, problem.m_Result, problem.m_strWhy.c_str(), problem.m_strFile.c_str()) : CM_OK;
}

template <class Change>
CmResult CCmSslContext::Set_i(const char* aWhat, const Change& aChange) {
    if (m_pState && m_pState->IsUsed())
        return Refuse_i(aWhat, CM_ERROR_ALREADY_INITIALIZED, "the context is in use");
    const CmResult rv = Change_i(aWhat, aChange);
    if (rv == CM_ERROR_OUT_OF_MEMORY && m_pState)
        m_pState->Break();
    return rv;
}

CmResult CCmSslContext::SetTrust(const char* aFile, const char* aFolder) {
    if (!aFile && !aFolder)
        return Refuse_i("SetTrust", CM_ERROR_INVALID_ARG, IS_NULL);
    const CmResult rv = Set_i("SetTrust", [](CSslRecipe& aRecipe) {
        aRecipe.m_Trust = CSslRecipe::NOTHING;
        return CSslProblem();
    });
    if (rv != CM_OK)
        return rv;
    if (!(aFile && *aFile) && !(aFolder && *aFolder))
        return Refuse_i("SetTrust", CM_ERROR_NOT_FOUND, "the path is empty");
    return Set_i("SetTrust", [&](CSslRecipe& aRecipe) {
        aRecipe.m_Trust = CSslRecipe::FILES;
        aRecipe.m_strTrustFile = aFile ? aFile : "";
        aRecipe.m_strTrustFolder = aFolder ? aFolder : "";
        return CSslProblem();
    });
}

CmResult CCmSslContext::SetRevocationLists(const char* aFile) {
    if (!aFile)
        return Refuse_i("SetRevocationLists", CM_ERROR_INVALID_ARG, IS_NULL);
    const auto set = [](const char* aPath) {
        return [=](CSslRecipe& aRecipe) {
            aRecipe.m_bRevocations = true;
            aRecipe.m_strRevocations = aPath;
            return CSslProblem();
        };
    };
    const CmResult rv = Set_i("SetRevocationLists", set(""));
    return rv == CM_OK ? Set_i("SetRevocationLists", set(aFile)) : rv;
}

CmResult CCmSslContext::AddCertificate(const char* aChainFile, const char* aKeyFile, const Passphrase& aPassphrase) {
    if (!aChainFile || !aKeyFile)
        return Refuse_i("AddCertificate", CM_ERROR_INVALID_ARG, IS_NULL);
    return Set_i("AddCertificate", [&](CSslRecipe& aRecipe) {
        const auto pOwn = std::make_shared<talvo::COwnCertificate>(aChainFile, aKeyFile, aPassphrase);
        aRecipe.m_Own.push_back(pOwn);
        return pOwn->Load();
    });
}

BOOL CCmSslContext::HasCertificate() const {
    const std::shared_ptr<CSslSetup> pSetup = m_pState ? m_pState->Get() : nullptr;
    return pSetup && pSetup->HasCertificate();
}

CmResult CCmSslContext::SetAlpn(const char* aProtocols) {
    if (!aProtocols)
        return Refuse_i("SetAlpn", CM_ERROR_INVALID_ARG, IS_NULL);
    return Set_i("SetAlpn", [&](CSslRecipe& aRecipe) {
        aRecipe.m_Alpn = talvo::MakeAlpnList(aProtocols);
        if (aRecipe.m_Alpn.empty() || aRecipe.m_Alpn.size() > 0xFFFF)
            return CSslProblem{CM_ERROR_INVALID_ARG, {}, "a name is empty or too long"};
        return CSslProblem();
    });
}

CmResult CCmSslContext::SetVersions(ECmTlsVersion aLowest, ECmTlsVersion aHighest) {
    if (aLowest < CM_TLS_1_2 || aHighest > CM_TLS_1_3 || aLowest > aHighest)
        return Refuse_i("SetVersions", CM_ERROR_INVALID_ARG, "there is no such range");
    return Set_i("SetVersions", [&](CSslRecipe& aRecipe) {
        aRecipe.m_nLowest = static_cast<int>(aLowest);
        aRecipe.m_nHighest = static_cast<int>(aHighest);
        return CSslProblem();
    });
}

CmResult CCmSslContext::SetCiphers(const char* aTls12, const char* aTls13) {
    if ((!aTls12 && !aTls13) || (aTls12 && !*aTls12) || (aTls13 && !*aTls13))
        return Refuse_i("SetCiphers", CM_ERROR_INVALID_ARG, "the list is empty");
    return Set_i("SetCiphers", [&](CSslRecipe& aRecipe) {
        if (aTls12)
            aRecipe.m_strCiphers12 = aTls12;
        if (aTls13)
            aRecipe.m_strCiphers13 = aTls13;
        return CSslProblem();
    });
}

CmResult CCmSslContext::SetVerify(ECmTlsVerify aVerify) {
    if (aVerify > CM_TLS_VERIFY_REQUIRED)
        return Refuse_i("SetVerify", CM_ERROR_INVALID_ARG, "there is no such value");
    return Set_i("SetVerify", [&](CSslRecipe& aRecipe) {
        aRecipe.m_Verify = aVerify;
        aRecipe.m_bAsk = true;
        return CSslProblem();
    });
}

CmResult CCmSslContext::SetSessionKeeping(BOOL aKeep) {
    return Set_i("SetSessionKeeping", [&](CSslRecipe& aRecipe) {
        aRecipe.m_bKeepSessions = aKeep != FALSE;
        return CSslProblem();
    });
}

CmResult CCmSslContext::SetKeyLog(const char* aFile) {
    if (!aFile)
        return Refuse_i("SetKeyLog", CM_ERROR_INVALID_ARG, IS_NULL);
    const CmResult rv = Set_i("SetKeyLog", [&](CSslRecipe& aRecipe) { return talvo::CKeyLog::Open(aFile, aRecipe.m_pKeyLog); });
    if (rv == CM_OK)
        CM_WARNING_TRACE_THIS("CCmSslContext::SetKeyLog, the secrets of all connections go to a file. file=" << aFile);
    return rv;
}

CmResult CCmSslContext::Reload() { return Change_i("Reload", RenewOwn); }

CCmRefPtrT<CCmSslContext> CCmSslContext::GetDefault() { return talvo::CDefaultContext::Instance().Get(); }

CmResult CCmSslContext::Begin_i(CCmTransportSsl& aTransport, talvo::ITlsLower& aLower, DWORD aType, const char* aServerName,
                                const std::vector<unsigned char>& aAlpn, std::unique_ptr<talvo::CTlsSession>& aSession) {
    const std::shared_ptr<CSslSetup> pSetup = m_pState ? m_pState->Use() : nullptr;
    if (!pSetup)
        return CM_ERROR_OUT_OF_MEMORY;
    SSL* pSsl = nullptr;
    const BOOL bMemory = talvo::WithMemory([&] {
        pSsl = aServerName ? pSetup->MakeClient(aType, aServerName, PortOf(aTransport)) : pSetup->MakeServer(aType);
        if (pSsl)
            aSession = std::make_unique<talvo::CTlsSession>(aLower, pSsl);
    });
    if (!aSession)
        SSL_free(pSsl);
    ERR_clear_error();
    if (aSession && !aAlpn.empty() && !aSession->UseAlpn(aAlpn)) {
        aSession.reset();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (!bMemory)
        return CM_ERROR_OUT_OF_MEMORY;
    return aSession ? CM_OK : CM_ERROR_FAILURE;
}

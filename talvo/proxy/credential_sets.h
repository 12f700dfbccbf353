// The stored credentials of proxies.
#pragma once

#include <vector>

#include "talvo/base/credentials.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {

// A table without a lock and without threads.
class TALVO_API CCredentialSets {
public:
    static constexpr size_t MOST = 64;

    // Stores a set given by the application. aRealm null: any. CM_ERROR_NOT_AVAILABLE: the table is full of such sets.
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult Set(const CCmString& aProxy, const char* aRealm, const CCmCredentials& aCredentials);
    // Stores a set that the user gave as an answer. The oldest such set makes room for any new one. Results as Set.
    CmResult SetAnswer(const CCmString& aProxy, const CCmString& aRealm, const CCmCredentials& aCredentials);

    // The set of the realm, or else the one for any. Null: none. Valid until the next change.
    const CCmCredentials* Find(const CCmString& aProxy, const CCmString& aRealm) const;
    BOOL HasAny(const CCmString& aProxy) const;

    // FALSE: there is no set of the proxy.
    BOOL Forget(const CCmString& aProxy);
    // Removes the set that Find returns, if it has these credentials.
    void ForgetRefused(const CCmString& aProxy, const CCmString& aRealm, const CCmCredentials& aCredentials);

private:
    struct CSet {
        CCmString m_strProxy;
        CCmString m_strRealm;
        BOOL m_bAnyRealm;
        BOOL m_bAnswer;
        CCmCredentials m_Credentials;
    };

    CmResult Set_i(CSet aSet);

    std::vector<CSet> m_Sets;  // the oldest first
};

}  // namespace talvo

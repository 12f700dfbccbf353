// Keeps the credentials of proxies and asks the application's user for them.
#pragma once

#include <memory>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/base/thread_annotations.h"
#include "talvo/proxy/credential_asker.h"
#include "talvo/proxy/credential_sets.h"
#include "talvo/proxy/credential_wait.h"

namespace talvo {

// The process's one, in the slot of ICmProxyCredentials from the start. Never destroyed. Any thread. Events of the asker and of
// the waiting requests run without the mutex.
class TALVO_API CCredentialDesk final : public ICmProxyCredentials {
public:
    static constexpr size_t MOST_QUESTIONS = 64;  // open at a time
    static constexpr size_t LONGEST_TEXT = 1024;  // bytes of a realm, a user, a password

    static CCredentialDesk& Instance();

    CmResult GetCredentials(const CCmProxyQuestion& aQuestion, CCmCredentials& aCredentials,
                            ICmProxyCredentialsSink* aSink) override;
    CmResult Cancel(ICmProxyCredentialsSink* aSink) override;
    void Forget(const CCmProxyQuestion& aQuestion, const CCmCredentials& aCredentials) override;
    BOOL MayHaveCredentials(const CCmString& aProxy) override;

    // See cm_proxy_set_credentials and its neighbours, which check the texts. No credentials: the user gave up.
    CmResult SetCredentials(const CCmString& aProxy, const char* aRealm, const CCmCredentials& aCredentials);
    CmResult ForgetAll(const CCmString& aProxy);
    CmResult SetAsker(cm_proxy_asker aCallback, void* aArg);
    CmResult Answer(DWORD aId, const CCmCredentials& aCredentials);

private:
    friend class CCredentialWait;
    friend class CAskEvent;
    friend class CAskerThread;

    struct CQuestion {
        DWORD m_dwId;
        CCmProxyQuestion m_Question;
        CCmRefPtrT<CCredentialAsker> m_pAsker;  // was asked, or will be
        int64_t m_llDeadline;
    };
    using CQuestions = std::vector<CQuestion>;

    CmResult Wait_l(const CCmProxyQuestion& aQuestion, ICmProxyCredentialsSink* aSink, std::unique_ptr<CAskEvent>& aAsk)
        CM_REQUIRES(m_Mutex);
    CmResult Join_l(const CCmProxyQuestion& aQuestion, ICmProxyCredentialsSink& aSink, CCmThreadLink& aLink,
                    std::unique_ptr<CAskEvent>& aAsk) CM_REQUIRES(m_Mutex);
    void Post_i(std::unique_ptr<CAskEvent> aAsk);
    void Ask_i(CAskEvent& aEvent);
    void OnAskerThreadEnd_i(CAskerThread& aThread);

    CQuestions::iterator Find_l(DWORD aId) CM_REQUIRES(m_Mutex);
    CCredentialWait* End_l(CQuestions::iterator aQuestion, CmResult aResult, const CCmCredentials& aCredentials)
        CM_REQUIRES(m_Mutex);
    template <class Match>
    void Fail_i(const Match& aMatch);
    void DropExpired_l() CM_REQUIRES(m_Mutex);
    static void PostAnswers_i(CCredentialWait* aAnswered);

    // For waits. The sink to notify, or null.
    ICmProxyCredentialsSink* Remove(CCredentialWait& aWait);
    ICmProxyCredentialsSink* RemoveUnanswered(CCredentialWait& aWait);

    CCmMutexThread m_Mutex;
    CCredentialSets m_Sets CM_GUARDED_BY(m_Mutex);
    CCmRefPtrT<CCredentialAsker> m_pAsker CM_GUARDED_BY(m_Mutex);
    std::vector<CAskerThread*> m_AskerThreads CM_GUARDED_BY(m_Mutex);  // each deletes itself at its thread's end
    CQuestions m_Questions CM_GUARDED_BY(m_Mutex);
    std::vector<CCredentialWait*> m_Waits CM_GUARDED_BY(m_Mutex);  // see CCredentialWait for their owners
    DWORD m_dwLastId CM_GUARDED_BY(m_Mutex) = 0;
};

}  // namespace talvo

#include "talvo/session/forward_session.h"

#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"
#include "talvo/session/forward_core.h"
#include "talvo/session/forward_handle.h"
#include "talvo/session/forward_session_proxy.h"

ICmForwardSink::~ICmForwardSink() = default;

namespace talvo {

namespace {

// Only the user holds references to it, so the last release is seen, and no upcall follows.
class CLocalSession : public ICmForwardSession, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    ~CLocalSession() override { m_pCore->Close(CM_OK); }
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

protected:
    explicit CLocalSession(CCmRefPtrT<CForwardCore> aCore) : m_pCore(std::move(aCore)) {}

    const CCmRefPtrT<CForwardCore> m_pCore;
};

class CForwardSession final : public CForwardHandleT<CLocalSession> {
public:
    explicit CForwardSession(CCmRefPtrT<CForwardCore> aCore) : CForwardHandleT(std::move(aCore)) {}
};

}  // namespace

}  // namespace talvo

CmResult CCmConnectionManager::CreateForwardSession_i(ICmForwardSink* aSink, ICmForwardSession*& aSession) {
    aSession = nullptr;
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    CCmRefPtrT<talvo::CForwardCore> pCore(new (std::nothrow) talvo::CForwardCore(*aSink, FALSE));
    if (pCore)
        aSession = CCmRefPtrT<ICmForwardSession>(new (std::nothrow) talvo::CForwardSession(std::move(pCore))).Detach();
    return aSession ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmConnectionManager::CreateForwardSession(ICmForwardSink* aSink, ICmForwardSession*& aSession) {
    aSession = nullptr;
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    ACmThread* pUser = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    ACmThread* pNetwork = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK);
    if (!pNetwork || !pUser || !pUser->GetEventQueue())
        return CM_ERROR_NULL_POINTER;
    if (pUser == pNetwork)
        return CreateForwardSession_i(aSink, aSession);
    CM_INFO_TRACE("CCmConnectionManager::CreateForwardSession, create CForwardSessionProxy.");
    return talvo::CForwardSessionProxy::Make(*aSink, pUser->GetLink(), pNetwork->GetLink(), aSession);
}

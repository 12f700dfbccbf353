#include "talvo/session/forward_session.h"

#include <new>

#include "talvo/base/trace.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"
#include "talvo/session/forward_core.h"
#include "talvo/session/forward_session_proxy.h"

ICmForwardSink::~ICmForwardSink() = default;

namespace talvo {

namespace {

// The handle. Only the user holds references to it, so the last release is seen, and no upcall follows.
class CForwardSession final : public ICmForwardSession, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    explicit CForwardSession(CCmRefPtrT<CForwardCore> aCore) : m_pCore(std::move(aCore)) {}
    ~CForwardSession() override { m_pCore->Close(CM_OK); }
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    CmResult AddReceiver(ICmTransport* aTransport, const CCmForwardReceiverOptions& aOptions, DWORD& aId) override {
        return m_pCore->AddReceiver(aTransport, aOptions, aId);
    }
    CmResult RemoveReceiver(DWORD aId, CmResult aReason) override { return m_pCore->RemoveReceiver(aId, aReason); }
    CmResult Forward(CCmMessageBlock& aData, const CCmForwardHeader* aHeader) override {
        return m_pCore->Forward(aData, aHeader);
    }
    CmResult SetOption(DWORD aCommand, void* aArg) override { return m_pCore->SetOption(aCommand, aArg); }
    CmResult GetStatistics(CCmForwardStatistics& aStatistics, DWORD aId) override {
        return m_pCore->GetStatistics(aStatistics, aId);
    }
    CCmString Dump() override { return m_pCore->Dump(); }
    CmResult Close(CmResult aReason) override { return m_pCore->Close(aReason); }

private:
    const CCmRefPtrT<CForwardCore> m_pCore;
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

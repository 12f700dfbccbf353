#include "talvo/transport/dns/name_lookup.h"

#include <cerrno>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/dns/dns_manager.h"
#include "talvo/transport/dns/dns_state.h"

namespace talvo {

CmResult CNameLookup::Start(const CCmString& aName, CCmRefPtrT<CCmDnsRecord>& aRecord) {
    Cancel();
    const CmResult rv = Ask_i(aRecord, aName, m_bEarly ? EDnsWait::EARLY : EDnsWait::READY);
    if (rv == CM_OK)
        AskRest_i(aRecord);
    return rv;
}

CmResult CNameLookup::Ask_i(CCmRefPtrT<CCmDnsRecord>& aRecord, const CCmString& aName, EDnsWait aWait) {
    CCmDnsManager* pManager = CCmDnsManager::Instance();
    if (!pManager)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = pManager->Resolve_i(aRecord.ParaOut(), aName, this, aWait, nullptr);
    m_bWaiting = rv == CM_ERROR_WOULD_BLOCK;
    return rv;
}

// aRecord (out): a newer one if there is one. A rest that cannot be requested does not come.
void CNameLookup::AskRest_i(CCmRefPtrT<CCmDnsRecord>& aRecord) {
    CCmRefPtrT<CCmDnsRecord> pNewer;
    if (aRecord->IsPartial() && Ask_i(pNewer, aRecord->GetName(), EDnsWait::REST) == CM_OK)
        aRecord = pNewer;
}

CCmFailure CNameLookup::FailureOf(const CCmDnsRecord* aRecord, CmResult aReason, const CCmInetAddr& aName) {
    const BOOL bNoSuchName = aRecord ? aRecord->IsNoSuchName() : aReason == CM_ERROR_INVALID_ARG;
    const char* pText = aReason == CM_ERROR_INVALID_ARG ? "not a host name" : cm_result_name(aReason);
    return CCmFailure(bNoSuchName ? CM_FAILURE_NO_SUCH_NAME : CM_FAILURE_NO_RESOLVER,
                      aRecord ? aRecord->GetReason().c_str() : pText, "resolve", aName);
}

BOOL CNameLookup::HasAddress(const CCmInetAddr& aAddr, CCmFailure& aFailure) {
    if (aAddr.HasAddress())
        return TRUE;
    aFailure = CCmFailure(ENOMEM, "resolve", aAddr);
    WithMemory([&] { aFailure = FailureOfName_i(aAddr); });
    CM_WARNING_TRACE("CNameLookup::HasAddress, name not resolved. attempt=" << aFailure.GetAttempt()
                                                                            << " why=" << aFailure.GetText());
    errno = EADDRNOTAVAIL;
    return FALSE;
}

// The address does not have the reason any more. The cache has it as long as it keeps the failure.
CCmFailure CNameLookup::FailureOfName_i(const CCmInetAddr& aName) {
    if (!aName.IsResolved())
        return CCmFailure(CM_FAILURE_NO_SUCH_NAME, "the name has not been looked up", "resolve", aName);
    CCmRefPtrT<CCmDnsRecord> pRecord;
    CCmDnsManager* pManager = CCmDnsManager::Instance();
    if (pManager && pManager->AsyncResolve(pRecord.ParaOut(), aName.GetFailedName()) == CM_OK &&
        pRecord->GetState() == CCmDnsRecord::FAILED)
        return FailureOf(pRecord.Get(), CM_OK, aName);
    return CCmFailure(CM_FAILURE_NO_SUCH_NAME, "the name had no address when it was looked up", "resolve", aName);
}

void CNameLookup::Cancel() {
    if (!m_bWaiting)
        return;
    m_bWaiting = FALSE;
    if (CCmDnsManager* pManager = CCmDnsManager::Instance())
        pManager->CancelResolve(this);
}

void CNameLookup::OnObserve(const char*, void* aData) {
    m_bWaiting = FALSE;
    CCmRefPtrT<CCmDnsRecord> pRecord(static_cast<CCmDnsRecord*>(aData));
    AskRest_i(pRecord);
    m_User.OnNameKnown(*pRecord);  // last: the user may delete this
}

}  // namespace talvo

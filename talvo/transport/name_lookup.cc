#include "talvo/transport/name_lookup.h"

#include "talvo/transport/dns_manager.h"

namespace talvo {

CmResult CNameLookup::Start(const CCmString& aName, CCmRefPtrT<CCmDnsRecord>& aRecord) {
    Cancel();
    const CmResult rv = CCmDnsManager::Instance()->AsyncResolve(aRecord.ParaOut(), aName, this);
    m_bWaiting = rv == CM_ERROR_WOULD_BLOCK;
    return rv;
}

void CNameLookup::Cancel() {
    if (!m_bWaiting)
        return;
    m_bWaiting = FALSE;
    CCmDnsManager::Instance()->CancelResolve(this);
}

void CNameLookup::OnObserve(const char*, void* aData) {
    m_bWaiting = FALSE;
    m_User.OnNameKnown(*static_cast<const CCmDnsRecord*>(aData));  // last: the user may delete this
}

}  // namespace talvo

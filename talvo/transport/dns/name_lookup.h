// A connector's wait for the addresses of a name.
#pragma once

#include "talvo/base/failure.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_queue.h"
#include "talvo/transport/dns/dns_record.h"

namespace talvo {

// Hears what a name stands for.
class INameUser {
public:
    // Once for each Start that returned CM_ERROR_WOULD_BLOCK, from a turn of the loop of its own. aRecord lives during the
    // call. May end or delete the look-up.
    virtual void OnNameKnown(const CCmDnsRecord& aRecord) = 0;

protected:
    virtual ~INameUser() = default;
};

// One look-up at a time, in one thread that has an event queue.
class CNameLookup : private ICmObserver {
public:
    explicit CNameLookup(INameUser& aUser) : m_User(aUser) {}
    ~CNameLookup() override { Cancel(); }
    CNameLookup(const CNameLookup&) = delete;
    CNameLookup& operator=(const CNameLookup&) = delete;

    // CM_OK: aRecord is what is known already, be it that the name has no address. CM_ERROR_WOULD_BLOCK: the user will hear.
    // Anything else: it cannot be found out.
    CmResult Start(const CCmString& aName, CCmRefPtrT<CCmDnsRecord>& aRecord);

    // Why a name has no address: aRecord is a failed one, or null with what Start returned.
    static CCmFailure FailureOf(const CCmDnsRecord* aRecord, CmResult aReason, const CCmInetAddr& aName);

    // Whether aAddr can be handed to the system. FALSE: it is a name that no look-up gave an address to; aFailure says why,
    // errno is EADDRNOTAVAIL and there is a line in the trace.
    static BOOL HasAddress(const CCmInetAddr& aAddr, CCmFailure& aFailure);

    // The user hears nothing any more. Does nothing when no look-up runs.
    void Cancel();

private:
    static CCmFailure FailureOfName_i(const CCmInetAddr& aName);
    void OnObserve(const char* aTopic, void* aData) override;

    INameUser& m_User;
    BOOL m_bWaiting = FALSE;
};

}  // namespace talvo

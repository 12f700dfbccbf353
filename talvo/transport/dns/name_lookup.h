// The look-up of a name for a connector.
#pragma once

#include "talvo/base/failure.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_queue.h"
#include "talvo/transport/dns/dns_record.h"

namespace talvo {

enum class EDnsWait;

// Receives the record of a name.
class INameUser {
public:
    // Called directly from the loop after a Start that returned CM_ERROR_WOULD_BLOCK, and again while the look-up IsWaiting: a
    // later record has all addresses of an earlier one and perhaps more. aRecord is valid during the call. It may cancel or
    // delete the look-up.
    virtual void OnNameKnown(const CCmDnsRecord& aRecord) = 0;

protected:
    virtual ~INameUser() = default;
};

// One look-up at a time, in one thread that has an event queue.
class CNameLookup : private ICmObserver {
public:
    // aEarly: the user can begin with the first addresses, so it does not wait for the IPv4 addresses of a name with IPv6.
    CNameLookup(INameUser& aUser, CmBool aEarly) : m_User(aUser), m_bEarly(aEarly) {}
    ~CNameLookup() override { Cancel(); }
    CNameLookup(const CNameLookup&) = delete;
    CNameLookup& operator=(const CNameLookup&) = delete;

    // CM_OK: aRecord (out) is the cached record; the name may have no address. CM_ERROR_WOULD_BLOCK: OnNameKnown follows. Any
    // other result: the look-up is not possible.
    CmResult Start(const CCmString& aName, CCmRefPtrT<CCmDnsRecord>& aRecord);
    // TRUE: OnNameKnown follows, with the outcome or with further addresses.
    CmBool IsWaiting() const { return m_bWaiting; }

    // The failure of a name without an address: aRecord is a failed record, or null with aReason, the result of Start.
    static CCmFailure FailureOf(const CCmDnsRecord* aRecord, CmResult aReason, const CCmInetAddr& aName);

    // TRUE: aAddr can be passed to the system. FALSE: it is a name for which no look-up found an address; aFailure (out) has
    // the cause, errno is EADDRNOTAVAIL, and there is a trace line.
    static CmBool HasAddress(const CCmInetAddr& aAddr, CCmFailure& aFailure);

    // No call of the user follows. Does nothing without a look-up.
    void Cancel();

private:
    static CCmFailure FailureOfName_i(const CCmInetAddr& aName);
    void OnObserve(const char* aTopic, void* aData) override;
    CmResult Ask_i(CCmRefPtrT<CCmDnsRecord>& aRecord, const CCmString& aName, EDnsWait aWait);
    void AskRest_i(CCmRefPtrT<CCmDnsRecord>& aRecord);

    INameUser& m_User;
    const CmBool m_bEarly;
    CmBool m_bWaiting = CM_FALSE;
};

}  // namespace talvo

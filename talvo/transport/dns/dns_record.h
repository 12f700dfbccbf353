// The record of one host name.
#pragma once

#include <vector>

#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"

// The outcome of one look-up. It never changes after its creation, so any thread with a reference may read it.
class TALVO_API CCmDnsRecord : public CCmReferenceControlT<CCmMutexThread> {
public:
    enum EState {
        RESOLVED,  // there is at least one address
        FAILED     // there is none; see GetReason
    };

    // A record of state RESOLVED with addresses, otherwise FAILED. aExpiryUsec: on the clock of CCmClock::GetTimeOfDayUsec.
    CCmDnsRecord(const CCmString& aName, std::vector<DWORD> aAddresses, int64_t aExpiryUsec, const CCmString& aReason,
                 BOOL aNoSuchName = FALSE);

    // The requested name in lower case.
    const CCmString& GetName() const { return m_strName; }
    EState GetState() const { return m_Addresses.empty() ? FAILED : RESOLVED; }

    // IPv4 addresses in network byte order, in the order of the answer; empty if FAILED.
    const std::vector<DWORD>& GetAddresses() const { return m_Addresses; }
    // The first address, or 0xFFFFFFFF if FAILED.
    DWORD GetFirstAddress() const;

    // When the record expires, on the clock of CCmClock::GetTimeOfDayUsec.
    int64_t GetExpiryUsec() const { return m_llExpiryUsec; }
    // Seconds from now until the expiry, rounded up; 0: it has expired.
    DWORD GetTimeToLive() const;

    // For people; "" if RESOLVED.
    const CCmString& GetReason() const { return m_strReason; }
    // TRUE: FAILED because the name has no address. FALSE: no server gave a usable answer, or it is RESOLVED.
    BOOL IsNoSuchName() const { return m_bNoSuchName; }

protected:
    ~CCmDnsRecord() override;

private:
    const CCmString m_strName;
    const std::vector<DWORD> m_Addresses;
    const int64_t m_llExpiryUsec;
    const CCmString m_strReason;
    const BOOL m_bNoSuchName;
};
